/* Bundle table: records, configuration, kernel notification, recovery. */
#ifndef TBDL_BND_H
#define TBDL_BND_H

#include "tbdl_cfg_msg.h"
#include "tbdl_dbm_rec.h"

#include <string.h>

/* Readies a snapshot with members: both cleared, the member array (of
 * TBDL_SNAPSHOT_MEMB_MAX entries) attached. */
static inline void TBDL_BND_InitSnapshot(TBDL_BND_INFO_S *pstInfo, TBDL_MEMB_INFO_S *pastMemb)
{
    memset(pastMemb, 0, sizeof(TBDL_MEMB_INFO_S) * TBDL_SNAPSHOT_MEMB_MAX);
    memset(pstInfo, 0, sizeof(*pstInfo));
    pstInfo->pstMembInfo = pastMemb;
}

u32 TBDL_BND_Init(const TBDL_SPEC_S *pstSpec, TBDL_BND_EV_CB_PF pfBndEvCb, i32 iEpollFd);
void TBDL_BND_Fini(void);
void TBDL_BND_GetSpec(TBDL_SPEC_S *pstSpec);
u32 TBDL_BND_GetBndInfo(u32 uiBndNum, TBDL_BND_INFO_S *pstInfo);
u32 TBDL_BND_GetFirstBndInfo(TBDL_BND_INFO_S *pstInfo);
u32 TBDL_BND_GetNextBndInfo(u32 uiBndNum, TBDL_BND_INFO_S *pstInfo);

u32 TBDL_BND_Configure(u16 usUndo, const TBDL_CFG_KEY_S *pstKey, u16 usOperType, void *pOperData);

u32 TBDL_BND_ProcMembEv(u32 uiBndNum, u32 uiEvent, const TBDL_MEMB_INFO_S *pstMemb);
u32 TBDL_BND_ProcL3vEv(u32 uiBndNum, u32 uiEvent, u16 usVrfIndex);
void TBDL_BND_RefreshBnd(void);
void TBDL_BND_ClearRunning(void);

u32 TBDL_BND_RecoverBnd(const TBDL_DBM_BND_S *pstRec);

#endif
