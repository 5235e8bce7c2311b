/* Keeping KTBDL and the standby board in step with the bundle table: the
 * three kernel commands with their HA mirror, the derived bundle state, the
 * bundle's database record, the refresh run at activation and the clearing
 * run at deactivation. */
#include "bnd/tbdl_bnd_priv.h"

#include <string.h>

#include "plat_cioctl.h"
#include "tbdl_bas.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"
#include "tbdl_ha_msg.h"

static u32 tbdl_bnd_Ioctl(u32 uiCmd, void *pvPayload, u32 uiLen)
{
    return CIOCTL(TBDL_KTBDL_DEV, uiCmd, uiLen, pvPayload, 0, 0, 0);
}

static void tbdl_bnd_MirrorHA(u16 usType, const void *pvPayload)
{
    (void)TBDL_BAS_EncHAMsg(usType, pvPayload);
    (void)TBDL_BAS_FlushHAMsg();
}

u32 tbdl_bnd_UpdateKtbdl(const TBDL_BND_S *pstBnd)
{
    TBDL_KBND_S stPayload;
    u32 uiRet;

    memset(&stPayload, 0, sizeof(stPayload));
    stPayload.stAddr = pstBnd->stAddr;
    stPayload.uiIfIndex = pstBnd->uiIfIndex;
    stPayload.uiTnlMode = pstBnd->ucTnlMode;
    stPayload.uiState = pstBnd->ucState;
    stPayload.usVrfIndex = pstBnd->usVrfIndex;

    /* The standby hears of the update whatever KTBDL answers. */
    tbdl_bnd_MirrorHA(TBDL_HA_MSG_BND_UPDATE, &stPayload);

    uiRet = tbdl_bnd_Ioctl(TBDL_KCMD_BND_UPDATE, &stPayload, sizeof(stPayload));
    if (uiRet == TBDL_OK) {
        TBDL_DBG_Output(TBDL_DBG_EVENT,
                        "Updated the information of tunnel bundle interface %d to KTBDL.\r\n",
                        pstBnd->uiIfIndex);
    }
    return uiRet;
}

/* One member command to KTBDL; only an accepted command is logged and
 * mirrored to the standby. */
static u32 tbdl_bnd_MembKtbdl(u32 uiCmd, u16 usHaType, const char *pcFmt, u32 uiMembIfIndex,
                              u32 uiBndIfIndex)
{
    TBDL_KMEMB_S stPayload = {uiBndIfIndex, uiMembIfIndex};
    u32 uiRet = tbdl_bnd_Ioctl(uiCmd, &stPayload, sizeof(stPayload));
    if (uiRet != TBDL_OK) {
        return uiRet;
    }
    TBDL_DBG_Output(TBDL_DBG_EVENT, pcFmt, uiMembIfIndex, uiBndIfIndex);
    tbdl_bnd_MirrorHA(usHaType, &stPayload);
    return TBDL_OK;
}

u32 tbdl_bnd_AddMembKtbdl(u32 uiMembIfIndex, u32 uiBndIfIndex)
{
    return tbdl_bnd_MembKtbdl(
        TBDL_KCMD_MEMB_ADD, TBDL_HA_MSG_MEMB_ADD,
        "Notified KTBDL to add the member interface %d to the tunnel bundle interface %d.\r\n",
        uiMembIfIndex, uiBndIfIndex);
}

u32 tbdl_bnd_DelMembKtbdl(u32 uiMembIfIndex, u32 uiBndIfIndex)
{
    return tbdl_bnd_MembKtbdl(
        TBDL_KCMD_MEMB_DEL, TBDL_HA_MSG_MEMB_DEL,
        "Notified KTBDL to delete the member interface %d from the tunnel bundle interface %d.\r\n",
        uiMembIfIndex, uiBndIfIndex);
}

void tbdl_bnd_RefreshState(TBDL_BND_S *pstBnd)
{
    const TBDL_MEMB_S *pstMemb;
    u8 ucState = 0;

    for (pstMemb = pstBnd->pstMembList; pstMemb != NULL; pstMemb = pstMemb->pstNext) {
        if (pstMemb->ucState == 1) {
            ucState = 1;
            break;
        }
    }
    if (ucState == pstBnd->ucState) {
        return;
    }
    pstBnd->ucState = ucState;
    (void)tbdl_bnd_UpdateKtbdl(pstBnd);
}

u32 tbdl_bnd_SaveBnd(u16 usDel, u32 uiBndNum)
{
    TBDL_DBM_BND_S stRec;

    memset(&stRec, 0, sizeof(stRec));
    stRec.uiBndNum = uiBndNum;
    if (usDel == 0) {
        const TBDL_BND_S *pstBnd = tbdl_bnd_Get(uiBndNum);

        if (pstBnd != NULL) {
            stRec.stAddr = pstBnd->stAddr;
            stRec.ucMode = pstBnd->ucMode;
            stRec.ucTnlMode = pstBnd->ucTnlMode;
            stRec.usVrfIndex = pstBnd->usVrfIndex;
        }
    }
    return TBDL_DBM_SetBnd(usDel, &stRec);
}

void TBDL_BND_RefreshBnd(void)
{
    const TBDL_BND_GLOBAL_S *pstG = &g_stTbdlGlobalVar;

    if (pstG->ppstBnd == NULL || pstG->uiMaxBndNum == 0) {
        return;
    }
    /* Bundles that are up were pushed when they went up. */
    for (u32 uiNum = 0; uiNum < pstG->uiMaxBndNum; uiNum++) {
        const TBDL_BND_S *pstBnd = pstG->ppstBnd[uiNum];

        if (pstBnd != NULL && pstBnd->ucState == 0) {
            (void)tbdl_bnd_UpdateKtbdl(pstBnd);
        }
    }
}

void TBDL_BND_ClearRunning(void)
{
    TBDL_BND_GLOBAL_S *pstG = &g_stTbdlGlobalVar;

    if (pstG->ppstBnd == NULL) {
        return;
    }
    for (u32 uiNum = 0; uiNum < pstG->uiMaxBndNum; uiNum++) {
        TBDL_BND_S *pstBnd = pstG->ppstBnd[uiNum];

        if (pstBnd == NULL) {
            continue;
        }
        pstG->ppstBnd[uiNum] = NULL;
        tbdl_bnd_FlushMemb(pstBnd, 0);
        TBDL_BAS_Free(pstBnd);
    }
    pstG->uiBndCnt = 0;
    if (pstG->iTimerFd != TBDL_INVALID_FD) {
        TBDL_BAS_StopTimer((u32)pstG->iEpollFd, pstG->iTimerFd);
        pstG->iTimerFd = TBDL_INVALID_FD;
    }
}
