/* VRF bindings of member and bundle interfaces, as the L3VPN watch hands
 * them over. A member stays only while its VRF is that of its bundle; the
 * L3VPN service's batch of all current bindings confirms each member's VRF
 * by marking it, and the end of the batch drops the unconfirmed ones. */
#include <string.h>

#include "intf/tbdl_intf_priv.h"

#include "plat_if.h"
#include "tbdl_bnd.h"

/* Unbinds the member "Tunnel" + uiTnlNum from bundle uiBndNum. */
static void tbdl_intf_DropMemb(u32 uiBndNum, u32 uiTnlNum)
{
    TBDL_MEMB_CFG_S stCfg;
    memset(&stCfg, 0, sizeof(stCfg));
    stCfg.uiTnlNum = uiTnlNum;
    (void)tbdl_intf_UnbindMemb(uiBndNum, &stCfg);
}

/* VRF index of a bundle, through a snapshot without members. */
static u32 tbdl_intf_GetBndVrf(u32 uiBndNum, u16 *pusVrfIndex)
{
    TBDL_BND_INFO_S stInfo;
    memset(&stInfo, 0, sizeof(stInfo));
    u32 uiRet = TBDL_BND_GetBndInfo(uiBndNum, &stInfo);
    if (uiRet == 0) {
        *pusVrfIndex = stInfo.usVrfIndex;
    }
    return uiRet;
}

u32 tbdl_intf_ProcVrfChange(u32 uiIfType, u32 uiIfIndex, u16 usVrfIndex)
{
    u32 uiNum = 0;
    if (IF_GetDataByIfIndex(uiIfIndex, IF_DATA_NUMBER, &uiNum) != 0) {
        return TBDL_E_NOTEXIST;
    }

    if (uiIfType == TBDL_IF_TYPE_BUNDLE) {
        /* The bundle table applies the new VRF after this, so the bundle
         * still shows its old one here. */
        u16 usBndVrf = 0;
        u32 uiRet = tbdl_intf_GetBndVrf(uiNum, &usBndVrf);
        if (uiRet != 0) {
            return uiRet;
        }
        if (usBndVrf != usVrfIndex) {
            (void)tbdl_intf_UnbindAllMemb(uiNum);
        }
        return 0;
    }

    void *pData = NULL;
    if (IF_GetPrivateData(g_stIntfGlobalVar.ulPdInstance, uiIfIndex, &pData) != 0) {
        return 0; /* not a member */
    }
    TBDL_INTF_PD_S *pstPd = (TBDL_INTF_PD_S *)pData;
    if (pstPd->usVrfIndex != usVrfIndex) {
        tbdl_intf_DropMemb(pstPd->uiBndNum, uiNum);
    } else {
        pstPd->cVrfMark = g_stIntfGlobalVar.cVrfMark;
    }
    return 0;
}

/* Whether a member's VRF went unconfirmed in the batch or no longer
 * matches its bundle's. */
static bool tbdl_intf_IsStale(const TBDL_INTF_PD_S *pstPd)
{
    /* A bundle that cannot be read counts as being in no VRF, as the
     * bundle table treats a bundle no batch confirmed: a member in a VRF
     * is not kept on the word of a bundle that is gone. */
    u16 usBndVrf = 0;
    (void)tbdl_intf_GetBndVrf(pstPd->uiBndNum, &usBndVrf);

    bool bUnconfirmed = pstPd->cVrfMark != g_stIntfGlobalVar.cVrfMark && pstPd->usVrfIndex != 0;
    return bUnconfirmed || pstPd->usVrfIndex != usBndVrf;
}

/* Drops or confirms one member; the entry may be gone afterwards. */
static void tbdl_intf_SweepOne(u32 uiIfIndex, TBDL_INTF_PD_S *pstPd)
{
    bool bStale = tbdl_intf_IsStale(pstPd);
    u32 uiNum = 0;
    u32 uiRet = IF_GetDataByIfIndex(uiIfIndex, IF_DATA_NUMBER, &uiNum);
    if (bStale && uiRet == 0) {
        tbdl_intf_DropMemb(pstPd->uiBndNum, uiNum);
        return;
    }
    pstPd->cVrfMark = g_stIntfGlobalVar.cVrfMark;
}

void tbdl_intf_SweepVrf(void)
{
    u64 ulInstance = g_stIntfGlobalVar.ulPdInstance;
    u32 uiIfIndex = 0;
    void *pData = NULL;
    u32 uiRet = IF_GetFirstPrivateData(ulInstance, &uiIfIndex, &pData);
    while (uiRet == 0) {
        tbdl_intf_SweepOne(uiIfIndex, (TBDL_INTF_PD_S *)pData);
        /* The walk goes on above uiIfIndex, whether or not it was deleted. */
        uiRet = IF_GetNextPrivateData(ulInstance, &uiIfIndex, &pData);
    }
}

u32 TBDL_INTF_ProcL3vEv(u32 uiIfType, u32 uiEvent, const TBDL_L3V_EVT_S *pstEvt)
{
    switch (uiEvent) {
    case TBDL_L3V_EV_VRF_BIND:
    case TBDL_L3V_EV_VRF_UNBIND:
        if (pstEvt == NULL) {
            return TBDL_E_INVALID_PARAM;
        }
        return tbdl_intf_ProcVrfChange(uiIfType, pstEvt->uiIfIndex,
                                       uiEvent == TBDL_L3V_EV_VRF_BIND ? pstEvt->usVrfIndex : 0);
    case TBDL_L3V_EV_BATCH_BEGIN:
        /* The mark counts modulo 256. */
        g_stIntfGlobalVar.cVrfMark = (i8)(u8)((u8)g_stIntfGlobalVar.cVrfMark + 1u);
        return 0;
    case TBDL_L3V_EV_BATCH_END:
        tbdl_intf_SweepVrf();
        return 0;
    default:
        return 0;
    }
}
