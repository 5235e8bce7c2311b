/* Member events (add, delete, weight, up/down) and VRF events of bundle
 * interfaces, including the sweep that drops the VRF of bundles an L3VPN
 * batch did not mention. */
#include "bnd/tbdl_bnd_priv.h"

#include "plat_tunnel.h"
#include "tbdl_bas.h"
#include "tbdl_dbg.h"

/* Value the tunnel-mode variable holds when the tunnel library leaves it
 * untouched. */
#define TBDL_BND_TNLMODE_UNSET 37u

/* Admission of a new member by work mode, role and room. */
static u32 tbdl_bnd_AdmitMemb(const TBDL_BND_S *pstBnd, u8 ucRole)
{
    const TBDL_MEMB_S *pstMemb;
    u32 uiCount = 0;
    u8 ucHeadRole = 0;

    if (pstBnd->pstMembList != NULL) {
        ucHeadRole = pstBnd->pstMembList->ucRole;
    }
    for (pstMemb = pstBnd->pstMembList; pstMemb != NULL; pstMemb = pstMemb->pstNext) {
        uiCount++;
    }

    if (pstBnd->ucMode == TBDL_MODE_LOADBALANCING && uiCount < g_stTbdlGlobalVar.uiMaxMembNum) {
        return (ucRole == 0) ? TBDL_OK : TBDL_E_MEMB_ROLE;
    }
    /* Protection modes, or a full load-balancing bundle: a pair of members
     * with different roles. */
    if (uiCount == 0) {
        return TBDL_OK;
    }
    if (uiCount == 1) {
        return (ucRole != ucHeadRole) ? TBDL_OK : TBDL_E_MEMB_ROLE;
    }
    return TBDL_E_MEMB_FULL;
}

static u32 tbdl_bnd_AddMemb(TBDL_BND_S *pstBnd, const TBDL_MEMB_INFO_S *pstInfo)
{
    TBDL_MEMB_S *pstMemb;
    u32 uiTnlMode = TBDL_BND_TNLMODE_UNSET;
    u32 uiRet;

    (void)TUNNEL_GetMode(pstInfo->uiIfIndex, &uiTnlMode);
    if ((u8)uiTnlMode != pstBnd->ucTnlMode) {
        return TBDL_E_TNL_MODE_MISMATCH;
    }
    uiRet = tbdl_bnd_AdmitMemb(pstBnd, pstInfo->ucRole);
    if (uiRet != TBDL_OK) {
        return uiRet;
    }

    pstMemb = (TBDL_MEMB_S *)TBDL_BAS_Zalloc(sizeof(TBDL_MEMB_S));
    if (pstMemb == NULL) {
        return TBDL_E_NOMEM;
    }
    pstMemb->uiIfIndex = pstInfo->uiIfIndex;
    pstMemb->usWeight = pstInfo->usWeight;
    pstMemb->ucRole = pstInfo->ucRole;
    pstMemb->ucState = pstInfo->ucState;
    tbdl_bnd_LinkMemb(pstBnd, pstMemb);

    /* A refusal by KTBDL leaves the member in the table. */
    (void)tbdl_bnd_AddMembKtbdl(pstMemb->uiIfIndex, pstBnd->uiIfIndex);
    tbdl_bnd_RefreshState(pstBnd);
    return TBDL_OK;
}

static u32 tbdl_bnd_DelMemb(TBDL_BND_S *pstBnd, u32 uiIfIndex)
{
    TBDL_MEMB_S *pstMemb = tbdl_bnd_FindMemb(pstBnd, uiIfIndex);

    if (pstMemb == NULL) {
        return TBDL_E_NOTEXIST;
    }
    tbdl_bnd_UnlinkMemb(pstMemb);
    TBDL_BAS_Free(pstMemb);
    /* The bundle's new state reaches KTBDL before the member deletion. */
    tbdl_bnd_RefreshState(pstBnd);
    (void)tbdl_bnd_DelMembKtbdl(uiIfIndex, pstBnd->uiIfIndex);
    return TBDL_OK;
}

static u32 tbdl_bnd_SetWeight(const TBDL_BND_S *pstBnd, const TBDL_MEMB_INFO_S *pstInfo)
{
    TBDL_MEMB_S *pstMemb = tbdl_bnd_FindMemb(pstBnd, pstInfo->uiIfIndex);

    if (pstMemb == NULL) {
        return TBDL_E_FAILED;
    }
    if (pstMemb->ucRole != pstInfo->ucRole) {
        return TBDL_E_MEMB_ROLE;
    }
    /* Weights only matter when the load is balanced. */
    if (pstBnd->ucMode != TBDL_MODE_LOADBALANCING || pstMemb->usWeight == pstInfo->usWeight) {
        return TBDL_E_NOCHANGE;
    }
    pstMemb->usWeight = pstInfo->usWeight;
    return TBDL_OK;
}

static u32 tbdl_bnd_SetMembState(TBDL_BND_S *pstBnd, const TBDL_MEMB_INFO_S *pstInfo)
{
    TBDL_MEMB_S *pstMemb = tbdl_bnd_FindMemb(pstBnd, pstInfo->uiIfIndex);

    if (pstMemb == NULL) {
        return TBDL_E_NOTEXIST;
    }
    pstMemb->ucState = pstInfo->ucState;
    tbdl_bnd_RefreshState(pstBnd);
    return TBDL_OK;
}

u32 TBDL_BND_ProcMembEv(u32 uiBndNum, u32 uiEvent, const TBDL_MEMB_INFO_S *pstMemb)
{
    TBDL_BND_S *pstBnd;

    if (uiBndNum >= g_stTbdlGlobalVar.uiMaxBndNum) {
        return TBDL_E_INVALID_BND;
    }
    pstBnd = tbdl_bnd_Get(uiBndNum);
    if (pstBnd == NULL) {
        return TBDL_E_NOTEXIST;
    }
    switch (uiEvent) {
        case TBDL_MEMB_EV_ADD:
            return tbdl_bnd_AddMemb(pstBnd, pstMemb);
        case TBDL_MEMB_EV_DEL:
            return tbdl_bnd_DelMemb(pstBnd, pstMemb->uiIfIndex);
        case TBDL_MEMB_EV_WEIGHT:
            return tbdl_bnd_SetWeight(pstBnd, pstMemb);
        case TBDL_MEMB_EV_UP:
        case TBDL_MEMB_EV_DOWN:
            return tbdl_bnd_SetMembState(pstBnd, pstMemb);
        default:
            return TBDL_E_NOTSUPPORT;
    }
}

u32 tbdl_bnd_SetVrf(u32 uiBndNum, u16 usVrfIndex)
{
    TBDL_BND_S *pstBnd;

    if (uiBndNum >= g_stTbdlGlobalVar.uiMaxBndNum) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, TBDL_BND_MSG_INVALID_NUM, uiBndNum);
        return TBDL_E_INVALID_BND;
    }
    pstBnd = tbdl_bnd_Get(uiBndNum);
    if (pstBnd == NULL) {
        return TBDL_E_NOTEXIST;
    }

    /* Seen in the current batch, even when the VRF stays as it is. */
    pstBnd->cVrfMark = g_stTbdlGlobalVar.cVrfMark;
    if (pstBnd->usVrfIndex == usVrfIndex) {
        return TBDL_E_NOCHANGE;
    }
    pstBnd->usVrfIndex = usVrfIndex;

    /* Members bound under the old VRF leave the bundle. */
    tbdl_bnd_FlushMemb(pstBnd, 1);
    pstBnd->ucState = 0;
    (void)tbdl_bnd_UpdateKtbdl(pstBnd);
    tbdl_bnd_Notify(TBDL_BND_EV_DEL, uiBndNum);
    (void)tbdl_bnd_SaveBnd(0, uiBndNum);
    return TBDL_OK;
}

/* End of an L3VPN batch: a bundle the batch did not mention has no VRF any
 * more. Only the stored index changes. */
static void tbdl_bnd_SweepVrf(void)
{
    const TBDL_BND_GLOBAL_S *pstG = &g_stTbdlGlobalVar;

    if (pstG->ppstBnd == NULL) {
        return;
    }
    for (u32 uiNum = 0; uiNum < pstG->uiMaxBndNum; uiNum++) {
        TBDL_BND_S *pstBnd = pstG->ppstBnd[uiNum];

        if (pstBnd == NULL) {
            continue;
        }
        if (pstBnd->cVrfMark != pstG->cVrfMark && pstBnd->usVrfIndex != 0) {
            pstBnd->usVrfIndex = 0;
        }
        pstBnd->cVrfMark = pstG->cVrfMark;
    }
}

u32 TBDL_BND_ProcL3vEv(u32 uiBndNum, u32 uiEvent, u16 usVrfIndex)
{
    switch (uiEvent) {
        case TBDL_L3V_EV_VRF_UNBIND:
            return tbdl_bnd_SetVrf(uiBndNum, 0);
        case TBDL_L3V_EV_VRF_BIND:
            return tbdl_bnd_SetVrf(uiBndNum, usVrfIndex);
        case TBDL_L3V_EV_BATCH_BEGIN:
            g_stTbdlGlobalVar.cVrfMark = (i8)(u8)((u8)g_stTbdlGlobalVar.cVrfMark + 1u);
            return TBDL_OK;
        case TBDL_L3V_EV_BATCH_END:
            tbdl_bnd_SweepVrf();
            return TBDL_OK;
        default:
            return TBDL_OK;
    }
}
