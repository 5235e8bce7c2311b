/* Database records of bundles and members. */
#ifndef TBDL_DBM_H
#define TBDL_DBM_H

#include "tbdl_dbm_rec.h"

u32 TBDL_DBM_Init(void);
void TBDL_DBM_Fini(void);
u64 TBDL_DBM_GetHandle(void);
u32 TBDL_DBM_HASync(void);
u32 TBDL_DBM_SetBnd(u16 usDel, const TBDL_DBM_BND_S *pstRec);
u32 TBDL_DBM_SetMemb(u16 usDel, u32 uiBndNum, const TBDL_MEMB_CFG_S *pstCfg);

#endif
