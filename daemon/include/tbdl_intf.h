/* Member binding and interface events. */
#ifndef TBDL_INTF_H
#define TBDL_INTF_H

#include "tbdl_cfg_msg.h"
#include "tbdl_bnd_rec.h"

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
