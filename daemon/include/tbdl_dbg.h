/* Debug switches, ERROR counting and log output. */
#ifndef TBDL_DBG_H
#define TBDL_DBG_H

#include "tbdl_cfg_msg.h"

u32 TBDL_DBG_Init(void);
void TBDL_DBG_Fini(void);
void TBDL_DBG_Output(u32 uiType, const char *pcFormat, ...) __attribute__((format(printf, 2, 3)));
u16 TBDL_DBG_IsOpen(u32 uiType);
u32 TBDL_DBG_SetDebug(u16 usUndo, const TBDL_CFG_KEY_S *pstKey, u16 usOperType, void *pOperData);
u32 TBDL_DBG_GetDebug(void);
void TBDL_DBG_ClearRunning(void);

#endif
