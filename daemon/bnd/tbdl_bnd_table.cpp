/* The bundle table: slot array of bundle records indexed by bundle number,
 * each record owning a doubly linked list of member nodes (newest first).
 * Other modules read the table only through snapshots copied from here. */
#include "bnd/tbdl_bnd_priv.h"

#include <string.h>

#include "plat_if.h"
#include "plat_sys.h"
#include "tbdl_bas.h"
#include "tbdl_dbg.h"

TBDL_BND_GLOBAL_S g_stTbdlGlobalVar = {
    NULL, NULL, TBDL_INVALID_FD, TBDL_INVALID_FD, 0, 0, 0, 0, 0,
};

static u8 tbdl_bnd_ModeFlags(const TBDL_SPEC_S *pstSpec)
{
    u8 ucFlags = 0;

    /* Only the value 1 switches a mode on. */
    if (pstSpec->usLoadBalancing == 1) {
        ucFlags |= TBDL_MODE_LOADBALANCING;
    }
    if (pstSpec->usProtectionOnetoone == 1) {
        ucFlags |= TBDL_MODE_ONETOONE;
    }
    if (pstSpec->usProtectionOneplusone == 1) {
        ucFlags |= TBDL_MODE_ONEPLUSONE;
    }
    return ucFlags;
}

u32 TBDL_BND_Init(const TBDL_SPEC_S *pstSpec, TBDL_BND_EV_CB_PF pfBndEvCb, i32 iEpollFd)
{
    TBDL_BND_GLOBAL_S *pstG = &g_stTbdlGlobalVar;
    TBDL_BND_S **ppstBnd;
    u32 uiSlots;

    memset(pstG, 0, sizeof(*pstG));

    /* A table of zero slots still gets a block, so that only a real
     * allocation failure reports TBDL_E_NOMEM. */
    uiSlots = (pstSpec->uiMaxBndNum != 0) ? pstSpec->uiMaxBndNum : 1;
    ppstBnd = (TBDL_BND_S **)TBDL_BAS_Zalloc((size_t)uiSlots * sizeof(TBDL_BND_S *));
    if (ppstBnd == NULL) {
        return TBDL_E_NOMEM;
    }

    pstG->uiMaxBndNum = pstSpec->uiMaxBndNum;
    pstG->uiMaxMembNum = pstSpec->uiMaxMembNum;
    pstG->ppstBnd = ppstBnd;
    pstG->pfBndEvCb = pfBndEvCb;
    pstG->ucModeFlags = tbdl_bnd_ModeFlags(pstSpec);
    pstG->iEpollFd = iEpollFd;
    pstG->iTimerFd = TBDL_INVALID_FD;
    return TBDL_OK;
}

void TBDL_BND_Fini(void)
{
    TBDL_BND_GLOBAL_S *pstG = &g_stTbdlGlobalVar;

    /* The records were released by TBDL_BND_ClearRunning on the way out. */
    TBDL_BAS_Free(pstG->ppstBnd);
    pstG->ppstBnd = NULL;
    pstG->pfBndEvCb = NULL;
    pstG->uiMaxBndNum = 0;
    pstG->uiMaxMembNum = 0;
    pstG->uiBndCnt = 0;
    pstG->ucModeFlags = 0;
    pstG->cVrfMark = 0;
    pstG->iEpollFd = TBDL_INVALID_FD;
    pstG->iTimerFd = TBDL_INVALID_FD;
}

void TBDL_BND_GetSpec(TBDL_SPEC_S *pstSpec)
{
    const TBDL_BND_GLOBAL_S *pstG = &g_stTbdlGlobalVar;

    pstSpec->uiMaxBndNum = pstG->uiMaxBndNum;
    pstSpec->uiMaxMembNum = pstG->uiMaxMembNum;
    if ((pstG->ucModeFlags & TBDL_MODE_LOADBALANCING) != 0) {
        pstSpec->usLoadBalancing = 1;
    }
    if ((pstG->ucModeFlags & TBDL_MODE_ONETOONE) != 0) {
        pstSpec->usProtectionOnetoone = 1;
    }
    if ((pstG->ucModeFlags & TBDL_MODE_ONEPLUSONE) != 0) {
        pstSpec->usProtectionOneplusone = 1;
    }
}

void tbdl_bnd_FillInfo(const TBDL_BND_S *pstBnd, TBDL_BND_INFO_S *pstInfo)
{
    const TBDL_MEMB_S *pstMemb;
    u16 usNum = 0;

    pstInfo->stAddr = pstBnd->stAddr;
    pstInfo->uiBndNum = pstBnd->uiBndNum;
    pstInfo->uiIfIndex = pstBnd->uiIfIndex;
    pstInfo->usVrfIndex = pstBnd->usVrfIndex;
    pstInfo->ucState = pstBnd->ucState;
    pstInfo->ucMode = pstBnd->ucMode;
    pstInfo->ucTnlMode = pstBnd->ucTnlMode;

    if (pstInfo->pstMembInfo == NULL) {
        return;
    }
    for (pstMemb = pstBnd->pstMembList; pstMemb != NULL; pstMemb = pstMemb->pstNext) {
        TBDL_MEMB_INFO_S *pstOut = &pstInfo->pstMembInfo[usNum];

        pstOut->uiIfIndex = pstMemb->uiIfIndex;
        pstOut->usWeight = pstMemb->usWeight;
        pstOut->ucRole = pstMemb->ucRole;
        pstOut->ucState = pstMemb->ucState;
        usNum++;
    }
    pstInfo->usMembNum = usNum;
}

TBDL_BND_S *tbdl_bnd_Get(u32 uiBndNum)
{
    const TBDL_BND_GLOBAL_S *pstG = &g_stTbdlGlobalVar;

    if (pstG->ppstBnd == NULL || uiBndNum >= pstG->uiMaxBndNum) {
        return NULL;
    }
    return pstG->ppstBnd[uiBndNum];
}

u32 TBDL_BND_GetBndInfo(u32 uiBndNum, TBDL_BND_INFO_S *pstInfo)
{
    const TBDL_BND_S *pstBnd;

    if (uiBndNum >= g_stTbdlGlobalVar.uiMaxBndNum) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, TBDL_BND_MSG_INVALID_NUM, uiBndNum);
        return TBDL_E_INVALID_BND;
    }
    pstBnd = tbdl_bnd_Get(uiBndNum);
    if (pstBnd == NULL) {
        return TBDL_E_NOTEXIST;
    }
    tbdl_bnd_FillInfo(pstBnd, pstInfo);
    return TBDL_OK;
}

/* Snapshot of the first existing bundle with a number >= uiFrom. */
static u32 tbdl_bnd_FillFrom(u32 uiFrom, TBDL_BND_INFO_S *pstInfo)
{
    const TBDL_BND_GLOBAL_S *pstG = &g_stTbdlGlobalVar;

    if (pstG->ppstBnd == NULL) {
        return TBDL_E_NOTEXIST;
    }
    for (u32 uiNum = uiFrom; uiNum < pstG->uiMaxBndNum; uiNum++) {
        if (pstG->ppstBnd[uiNum] != NULL) {
            tbdl_bnd_FillInfo(pstG->ppstBnd[uiNum], pstInfo);
            return TBDL_OK;
        }
    }
    return TBDL_E_NOTEXIST;
}

u32 TBDL_BND_GetFirstBndInfo(TBDL_BND_INFO_S *pstInfo)
{
    return tbdl_bnd_FillFrom(0, pstInfo);
}

u32 TBDL_BND_GetNextBndInfo(u32 uiBndNum, TBDL_BND_INFO_S *pstInfo)
{
    if (uiBndNum >= g_stTbdlGlobalVar.uiMaxBndNum) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, TBDL_BND_MSG_INVALID_NUM, uiBndNum);
        return TBDL_E_INVALID_BND;
    }
    return tbdl_bnd_FillFrom(uiBndNum + 1, pstInfo);
}

void tbdl_bnd_LinkMemb(TBDL_BND_S *pstBnd, TBDL_MEMB_S *pstMemb)
{
    pstMemb->pstNext = pstBnd->pstMembList;
    pstMemb->ppstPrev = &pstBnd->pstMembList;
    if (pstBnd->pstMembList != NULL) {
        pstBnd->pstMembList->ppstPrev = &pstMemb->pstNext;
    }
    pstBnd->pstMembList = pstMemb;
}

void tbdl_bnd_UnlinkMemb(TBDL_MEMB_S *pstMemb)
{
    *pstMemb->ppstPrev = pstMemb->pstNext;
    if (pstMemb->pstNext != NULL) {
        pstMemb->pstNext->ppstPrev = pstMemb->ppstPrev;
    }
    pstMemb->pstNext = NULL;
    pstMemb->ppstPrev = NULL;
}

TBDL_MEMB_S *tbdl_bnd_FindMemb(const TBDL_BND_S *pstBnd, u32 uiIfIndex)
{
    TBDL_MEMB_S *pstMemb;

    for (pstMemb = pstBnd->pstMembList; pstMemb != NULL; pstMemb = pstMemb->pstNext) {
        if (pstMemb->uiIfIndex == uiIfIndex) {
            return pstMemb;
        }
    }
    return NULL;
}

void tbdl_bnd_FlushMemb(TBDL_BND_S *pstBnd, u16 usNotify)
{
    TBDL_MEMB_S *pstMemb;

    while ((pstMemb = pstBnd->pstMembList) != NULL) {
        if (usNotify != 0) {
            (void)tbdl_bnd_DelMembKtbdl(pstMemb->uiIfIndex, pstBnd->uiIfIndex);
        }
        tbdl_bnd_UnlinkMemb(pstMemb);
        TBDL_BAS_Free(pstMemb);
    }
}

u32 tbdl_bnd_GetBndIfIndex(u32 uiBndNum)
{
    char acName[TBDL_IFNAME_LEN];

    (void)scnprintf(acName, sizeof(acName), TBDL_BND_IFNAME_FMT, uiBndNum);
    return IF_GetIfIndexByFullName(acName);
}

void tbdl_bnd_Notify(u32 uiEvent, u32 uiBndNum)
{
    if (g_stTbdlGlobalVar.pfBndEvCb != NULL) {
        g_stTbdlGlobalVar.pfBndEvCb(uiEvent, uiBndNum);
    }
}
