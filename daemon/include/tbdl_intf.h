/* Member binding and interface events. */
#ifndef TBDL_INTF_H
#define TBDL_INTF_H

#include "tbdl_cfg_msg.h"
#include "tbdl_bnd_rec.h"

typedef struct tagTBDL_INTF_PD {
    u32 uiBndNum;
    u16 usVrfIndex;
    i8 cVrfMark;
} TBDL_INTF_PD_S;

typedef struct tagTBDL_INTF_GLOBAL {
    u64 ulPdInstance;
    u32 uiIfEvHandle;
    i32 iIfEvFd;
    i32 iEpollFd;
    i8 cVrfMark;
    u16 usSystemBoot;
} TBDL_INTF_GLOBAL_S;

extern TBDL_INTF_GLOBAL_S g_stIntfGlobalVar;

u32 TBDL_INTF_Init(i32 iEpollFd);
void TBDL_INTF_Fini(void);
u32 TBDL_INTF_Configure(u16 usUndo, const TBDL_CFG_KEY_S *pstKey, u16 usOperType, void *pOperData);
u32 TBDL_INTF_RecoverMemb(u32 uiBndNum, const TBDL_MEMB_CFG_S *pstStored);
void TBDL_INTF_SetSystemBoot(u16 usFlag);
u16 TBDL_INTF_IsSystemBoot(void);
u32 TBDL_INTF_Activate(void);
void TBDL_INTF_Deactivate(void);
u32 TBDL_INTF_ProcL3vEv(u32 uiIfType, u32 uiEvent, const TBDL_L3V_EVT_S *pstEvt);

#endif
