/* Bundle configuration handler: create and delete bundles, set and remove a
 * bundle's address, and the hold that keeps bundles from being created for a
 * while after the last one was deleted. */
#include "bnd/tbdl_bnd_priv.h"

#include <string.h>

#include "tbdl_bas.h"
#include "tbdl_dbg.h"

#define TBDL_BND_IPV4_LEN 4u

static u32 tbdl_bnd_Create(u32 uiBndNum, const void *pOperData)
{
    TBDL_BND_GLOBAL_S *pstG = &g_stTbdlGlobalVar;
    TBDL_BND_S *pstBnd;
    u16 ausOper[2];
    u8 ucMode;
    u32 uiIfIndex;

    if (pstG->uiBndCnt == TBDL_BND_CNT_HOLD) {
        return TBDL_E_BND_HOLD;
    }

    memcpy(ausOper, pOperData, sizeof(ausOper));
    ucMode = (u8)ausOper[0];

    pstBnd = pstG->ppstBnd[uiBndNum];
    if (pstBnd != NULL) {
        if (pstBnd->ucMode == ucMode || ucMode == TBDL_MODE_LOADBALANCING) {
            return TBDL_E_NOCHANGE;
        }
        return TBDL_E_BND_MODE_CONFLICT;
    }
    if ((ucMode & pstG->ucModeFlags) == 0) {
        return TBDL_E_MODE_NOTSUPPORT;
    }

    uiIfIndex = tbdl_bnd_GetBndIfIndex(uiBndNum);
    if (uiIfIndex == 0) {
        TBDL_DBG_Output(TBDL_DBG_ERROR,
                        "Failed to create ifindex for tunnel bundle interface (%d).\r\n", uiBndNum);
        return TBDL_E_FAILED;
    }

    /* The interface index is kept by the interface manager even when the
     * record cannot be allocated. */
    pstBnd = (TBDL_BND_S *)TBDL_BAS_Zalloc(sizeof(TBDL_BND_S));
    if (pstBnd == NULL) {
        return TBDL_E_NOMEM;
    }
    pstBnd->ucMode = ucMode;
    pstBnd->ucTnlMode = (u8)ausOper[1];
    pstBnd->usVrfIndex = 0;
    pstBnd->ucState = 0;
    pstBnd->pstMembList = NULL;
    pstBnd->uiBndNum = uiBndNum;
    pstBnd->uiIfIndex = uiIfIndex;
    pstG->ppstBnd[uiBndNum] = pstBnd;
    pstG->uiBndCnt++;

    tbdl_bnd_Notify(TBDL_BND_EV_ADD, uiBndNum);
    (void)tbdl_bnd_UpdateKtbdl(pstBnd);
    (void)tbdl_bnd_SaveBnd(0, uiBndNum);
    return TBDL_OK;
}

static u32 tbdl_bnd_Delete(u32 uiBndNum)
{
    TBDL_BND_GLOBAL_S *pstG = &g_stTbdlGlobalVar;
    TBDL_BND_S *pstBnd = pstG->ppstBnd[uiBndNum];
    u32 uiNewCnt;
    u32 uiRet;

    if (pstBnd == NULL) {
        return TBDL_OK;
    }

    if (pstG->uiBndCnt == 1) {
        /* Last bundle: hold further creations until the timer fires. */
        i32 iFd = TBDL_BAS_StartTimer((u32)pstG->iEpollFd, tbdl_bnd_HoldTimerCb,
                                      TBDL_BND_HOLD_MS, 0);
        if (iFd != TBDL_INVALID_FD) {
            pstG->iTimerFd = iFd;
        }
        uiNewCnt = TBDL_BND_CNT_HOLD;
        uiRet = TBDL_E_LAST_BND_DELETED;
    } else {
        uiNewCnt = pstG->uiBndCnt - 1;
        uiRet = TBDL_OK;
    }

    tbdl_bnd_FlushMemb(pstBnd, 1);
    pstBnd->ucState = 0;

    /* The record is still in its slot so the callback can take a snapshot
     * of the emptied bundle. */
    tbdl_bnd_Notify(TBDL_BND_EV_DEL, uiBndNum);
    (void)tbdl_bnd_SaveBnd(1, uiBndNum);

    pstG->ppstBnd[uiBndNum] = NULL;
    pstG->uiBndCnt = uiNewCnt;
    TBDL_BAS_Free(pstBnd);
    return uiRet;
}

/* Sets (usUndo 0) or removes (usUndo 1) the IPv4 address of a bundle. */
static u32 tbdl_bnd_SetAddr(u16 usUndo, u32 uiBndNum, const void *pOperData)
{
    TBDL_BND_S *pstBnd = g_stTbdlGlobalVar.ppstBnd[uiBndNum];
    TBDL_ADDR_S stReq;

    if (pstBnd == NULL) {
        return TBDL_E_NOTEXIST;
    }

    if (usUndo == 1) {
        if (pstBnd->stAddr.usFamily != TBDL_ADDR_FAMILY_IPV4) {
            return TBDL_E_NOCHANGE;
        }
        memset(&pstBnd->stAddr, 0, sizeof(pstBnd->stAddr));
    } else {
        memcpy(&stReq, pOperData, sizeof(stReq));
        /* An IPv4 address compares on its 4 bytes; a bundle without one
         * compares all 16 address bytes. */
        size_t ulCmpLen = (pstBnd->stAddr.usFamily == TBDL_ADDR_FAMILY_IPV4)
                              ? TBDL_BND_IPV4_LEN
                              : sizeof(stReq.aucAddr);
        if (memcmp(stReq.aucAddr, pstBnd->stAddr.aucAddr, ulCmpLen) == 0) {
            return TBDL_E_NOCHANGE;
        }
        if (stReq.usFamily != TBDL_ADDR_FAMILY_IPV4) {
            return TBDL_E_NOCHANGE;
        }
        pstBnd->stAddr = stReq;
    }

    if (pstBnd->pstMembList != NULL) {
        tbdl_bnd_Notify(TBDL_BND_EV_UPDATE, uiBndNum);
    }
    (void)tbdl_bnd_UpdateKtbdl(pstBnd);
    (void)tbdl_bnd_SaveBnd(0, uiBndNum);
    return TBDL_OK;
}

u32 TBDL_BND_Configure(u16 usUndo, const TBDL_CFG_KEY_S *pstKey, u16 usOperType, void *pOperData)
{
    u32 uiBndNum = pstKey->uiBndNum;

    if (uiBndNum >= g_stTbdlGlobalVar.uiMaxBndNum) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, TBDL_BND_MSG_INVALID_NUM, uiBndNum);
        return TBDL_E_INVALID_BND;
    }
    if (usOperType == TBDL_TLV_OP_BND) {
        return (usUndo == 1) ? tbdl_bnd_Delete(uiBndNum) : tbdl_bnd_Create(uiBndNum, pOperData);
    }
    if (usOperType == TBDL_TLV_OP_ADDR) {
        return tbdl_bnd_SetAddr(usUndo, uiBndNum, pOperData);
    }
    return TBDL_E_NOTSUPPORT;
}

u32 tbdl_bnd_HoldTimerCb(u32 uiEvents, u64 ulData)
{
    TBDL_BND_GLOBAL_S *pstG = &g_stTbdlGlobalVar;

    (void)ulData;
    if (TBDL_BAS_TIMERFD_Read(uiEvents, pstG->iTimerFd) != TBDL_OK) {
        return TBDL_E_FAILED;
    }
    /* One-shot: the first expiry ends the hold. */
    if (pstG->iTimerFd != TBDL_INVALID_FD) {
        TBDL_BAS_StopTimer((u32)pstG->iEpollFd, pstG->iTimerFd);
        pstG->iTimerFd = TBDL_INVALID_FD;
    }
    pstG->uiBndCnt = 0;
    return TBDL_OK;
}
