/* Base services: state shared by the files of the module. */
#ifndef TBDL_BAS_PRIV_H
#define TBDL_BAS_PRIV_H

#include "tbdl_bas.h"

/* Registration of one descriptor on the event loop: what the loop calls
 * when the descriptor fires. The table is indexed by the descriptor. */
typedef struct tagTBDL_BAS_EPOLL_ENTRY {
    u64 ulData;
    TBDL_EPOLL_CB_PF pfnCallback;
} TBDL_BAS_EPOLL_ENTRY_S;

/* Descriptors the loop can hold: far above what the process opens. The
 * table is static, so registration never allocates and cannot fail for
 * want of memory. */
#define TBDL_BAS_EPOLL_FD_MAX 65536u

extern TBDL_BAS_EPOLL_ENTRY_S g_astTbdlBasEpollTable[TBDL_BAS_EPOLL_FD_MAX];
extern TBDL_BAS_HA_FUNC_S g_stTbdlBasHaFunc;

#endif
