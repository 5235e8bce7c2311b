/* Types shared by every module of the daemon: event-loop registration,
 * debug types and work modes. */
#ifndef TBDL_TYPES_H
#define TBDL_TYPES_H

#include "plat_if.h"
#include "plat_types.h"
#include "tbdl_errcode.h"

#define TBDL_INVALID_FD (-1)

/* Event-loop callback: the reported epoll mask and the registered datum. */
typedef u32 (*TBDL_EPOLL_CB_PF)(u32 uiEvents, u64 ulData);

/* Registration record of a descriptor on the event loop. */
typedef struct tagTBDL_EPOLL_CB {
    u32 uiEvents;
    u64 ulData;
    TBDL_EPOLL_CB_PF pfnCallback;
} TBDL_EPOLL_CB_S;

/* Event masks in use. */
#define TBDL_EPOLL_IN 1u          /* EPOLLIN */
#define TBDL_EPOLL_IN_ERRHUP 25u  /* EPOLLIN | EPOLLERR | EPOLLHUP */

/* Debug types. */
#define TBDL_DBG_ERROR 0u
#define TBDL_DBG_EVENT 1u
#define TBDL_DBG_ALL 2u

/* Work modes (bit values). */
#define TBDL_MODE_LOADBALANCING 1u
#define TBDL_MODE_ONETOONE 2u
#define TBDL_MODE_ONEPLUSONE 4u

/* Interface types as the interface manager reports them. */
#define TBDL_IF_TYPE_TUNNEL IF_TYPE_TUNNEL        /* 39: a member candidate */
#define TBDL_IF_TYPE_BUNDLE IF_TYPE_TUNNEL_BUNDLE /* 96: a tunnel bundle */

#define TBDL_BND_IFNAME_FMT "Tunnel-Bundle%d"
#define TBDL_IFNAME_LEN 48u

#endif
