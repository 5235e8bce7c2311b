/* Configuration channel: server, dispatch, recovery of stored
 * configuration. */
#ifndef TBDL_CFG_H
#define TBDL_CFG_H

#include "tbdl_cfg_msg.h"

typedef struct tagTBDL_CFG_GLOBAL {
    i32 iEpollFd;
    i32 iListenFd;
} TBDL_CFG_GLOBAL_S;

extern TBDL_CFG_GLOBAL_S g_stTbdlCfgGlobalVar;

u32 TBDL_CFG_Init(u32 uiEpfd);
void TBDL_CFG_Fini(void);
u32 TBDL_CFG_Activate(void);
void TBDL_CFG_Deactivate(void);
void TBDL_CFG_Recovery(void);

#endif
