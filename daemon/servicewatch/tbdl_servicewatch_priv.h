/* Service-port watch internals shared by the files of the servicewatch
 * module.
 *
 * tbdl_servicewatch.cpp      the module state, the subscription and its
 *                            removal
 * tbdl_servicewatch_evt.cpp  the subscription's descriptor callback */
#ifndef TBDL_SERVICEWATCH_PRIV_H
#define TBDL_SERVICEWATCH_PRIV_H

#include <stddef.h>

#include "plat_svcport.h"
#include "tbdl_servicewatch.h"

/* The port of the L3VPN service whose state drives the L3VPN watch. */
#define TBDL_SVCPORT_L3VPN 2168u
/* The service state given to the L3VPN watch when no state can be had. */
#define TBDL_SVCPORT_STATE_UNKNOWN 3u

/* Subscription and event records as the platform takes and fills them. */
typedef SVCPORT_SUB_S TBDL_SVCPORT_SUB_S;
typedef SVCPORT_EVT_S TBDL_SVCPORT_EVT_S;
static_assert(sizeof(TBDL_SVCPORT_SUB_S) == 12, "subscription record is 12 bytes");
static_assert(offsetof(TBDL_SVCPORT_SUB_S, uiResv) == 4 && offsetof(TBDL_SVCPORT_SUB_S, usPort) == 8 &&
                  offsetof(TBDL_SVCPORT_SUB_S, usFlag) == 10,
              "subscription record layout");
static_assert(sizeof(TBDL_SVCPORT_EVT_S) == 12, "event record is 12 bytes");
static_assert(offsetof(TBDL_SVCPORT_EVT_S, uiState) == 4 && offsetof(TBDL_SVCPORT_EVT_S, usPort) == 8,
              "event record layout");

/* The module's state; -1 = no subscription. */
typedef struct tagTBDL_PORT_GLOBAL {
    i32 iSubFd;
    i32 iEpollFd;
} TBDL_PORT_GLOBAL_S;

extern TBDL_PORT_GLOBAL_S g_stTbldPortGlobal;

void tbdl_servicewatch_Close(void);
u32 tbdl_servicewatch_SockCb(u32 uiEvents, u64 ulData);

#endif
