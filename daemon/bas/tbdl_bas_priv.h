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

typedef struct tagTBDL_BAS_EPOLL_TABLE {
    TBDL_BAS_EPOLL_ENTRY_S *pstEntry;
    u32 uiSize;
} TBDL_BAS_EPOLL_TABLE_S;

extern TBDL_BAS_EPOLL_TABLE_S g_stTbdlBasEpollTable;
extern TBDL_BAS_HA_FUNC_S g_stTbdlBasHaFunc;

#endif
