/* Member binding: binds tunnel interfaces to bundles and unbinds them,
 * keeps the per-interface private data that names an interface's bundle and
 * the stored member records, and restores stored members on activation. */
#include <stdio.h>
#include <string.h>

#include "intf/tbdl_intf_priv.h"

#include "plat_if.h"
#include "plat_l3vpn.h"
#include "tbdl_bas.h"
#include "tbdl_bnd.h"
#include "tbdl_dbm.h"
#include "tbdl_dld.h"

u32 tbdl_intf_GetTnlIfIndex(u32 uiTnlNum)
{
    char acName[TBDL_IFNAME_LEN];
    (void)snprintf(acName, sizeof(acName), "%s%d", TBDL_INTF_TNL_PREFIX, (int)uiTnlNum);
    return IF_GetIfIndexByFullName(acName);
}

/* A fresh member record carrying only the stored fields of pstSrc. */
static void tbdl_intf_CopyCfg(const TBDL_MEMB_CFG_S *pstSrc, TBDL_MEMB_CFG_S *pstDst)
{
    memset(pstDst, 0, sizeof(*pstDst));
    pstDst->uiTnlNum = pstSrc->uiTnlNum;
    pstDst->usWeight = pstSrc->usWeight;
    pstDst->ucRole = pstSrc->ucRole;
    pstDst->usVrfIndex = pstSrc->usVrfIndex;
}

u32 tbdl_intf_SaveMemb(u16 usDel, u32 uiBndNum, const TBDL_MEMB_CFG_S *pstCfg)
{
    if (pstCfg == NULL) {
        return TBDL_DBM_SetMemb(usDel, uiBndNum, NULL);
    }
    TBDL_MEMB_CFG_S stRec;
    tbdl_intf_CopyCfg(pstCfg, &stRec);
    return TBDL_DBM_SetMemb(usDel, uiBndNum, &stRec);
}

/* A first binding: checks the bundle and stores the interface's private
 * data. */
static u32 tbdl_intf_AddPrivateData(u32 uiBndNum, u32 uiIfIndex, u16 usVrfIndex)
{
    TBDL_BND_INFO_S stInfo;
    memset(&stInfo, 0, sizeof(stInfo));
    if (TBDL_BND_GetBndInfo(uiBndNum, &stInfo) != 0) {
        return TBDL_E_NOTEXIST;
    }
    if (stInfo.usVrfIndex != usVrfIndex) {
        return TBDL_E_VRF_MISMATCH;
    }

    TBDL_INTF_PD_S *pstPd = (TBDL_INTF_PD_S *)TBDL_BAS_Zalloc(sizeof(TBDL_INTF_PD_S));
    if (pstPd == NULL) {
        return TBDL_E_NOMEM;
    }
    pstPd->uiBndNum = uiBndNum;
    pstPd->usVrfIndex = stInfo.usVrfIndex;
    pstPd->cVrfMark = g_stIntfGlobalVar.cVrfMark;

    u32 uiRet = IF_SetPrivateData(g_stIntfGlobalVar.ulPdInstance, uiIfIndex, pstPd);
    if (uiRet != 0) {
        TBDL_BAS_Free(pstPd);
        return uiRet;
    }
    return 0;
}

/* Decides whether a binding adds a member or updates its weight; fills
 * *puiEvent. */
static u32 tbdl_intf_ClassifyBind(u32 uiBndNum, u32 uiIfIndex, const TBDL_MEMB_CFG_S *pstCfg,
                                  u32 *puiEvent)
{
    void *pData = NULL;
    if (IF_GetPrivateData(g_stIntfGlobalVar.ulPdInstance, uiIfIndex, &pData) == 0 && pData != NULL) {
        const TBDL_INTF_PD_S *pstPd = (const TBDL_INTF_PD_S *)pData;
        /* The VRF test comes first: an interface of another VRF that is
         * bound elsewhere is refused for its VRF. */
        if (pstPd->usVrfIndex != pstCfg->usVrfIndex) {
            return TBDL_E_VRF_MISMATCH;
        }
        if (pstPd->uiBndNum != uiBndNum) {
            return TBDL_E_MEMB_IN_OTHER_BND;
        }
        *puiEvent = TBDL_MEMB_EV_WEIGHT;
        return 0;
    }

    *puiEvent = TBDL_MEMB_EV_ADD;
    return tbdl_intf_AddPrivateData(uiBndNum, uiIfIndex, pstCfg->usVrfIndex);
}

u32 tbdl_intf_BindMemb(u32 uiBndNum, u32 uiIfIndex, const TBDL_MEMB_CFG_S *pstCfg)
{
    u32 uiEvent = TBDL_MEMB_EV_ADD;
    u32 uiRet = tbdl_intf_ClassifyBind(uiBndNum, uiIfIndex, pstCfg, &uiEvent);
    if (uiRet != 0) {
        return uiRet;
    }

    u32 uiState = 0;
    (void)IF_GetDataByIfIndex(uiIfIndex, IF_DATA_STATE, &uiState);

    TBDL_MEMB_INFO_S stMemb;
    memset(&stMemb, 0, sizeof(stMemb));
    stMemb.uiIfIndex = uiIfIndex;
    stMemb.usWeight = pstCfg->usWeight;
    stMemb.ucRole = pstCfg->ucRole;
    stMemb.ucState = (u8)(uiState & 0xFFu);

    uiRet = TBDL_BND_ProcMembEv(uiBndNum, uiEvent, &stMemb);
    if (uiRet != 0) {
        /* A refused addition leaves no trace; a refused weight update keeps
         * the existing membership. */
        if (uiEvent == TBDL_MEMB_EV_ADD) {
            (void)IF_DelPrivateData(g_stIntfGlobalVar.ulPdInstance, uiIfIndex,
                                    tbdl_intf_FreePrivateData);
        }
        return uiRet;
    }

    (void)tbdl_intf_SaveMemb(0, uiBndNum, pstCfg);
    (void)TBDL_DLD_ProcIntfEv(uiEvent, uiBndNum);
    return 0;
}

u32 tbdl_intf_UnbindMemb(u32 uiBndNum, const TBDL_MEMB_CFG_S *pstCfg)
{
    u32 uiIfIndex = tbdl_intf_GetTnlIfIndex(pstCfg->uiTnlNum);
    if (uiIfIndex == 0) {
        return 0;
    }

    TBDL_MEMB_INFO_S stMemb;
    memset(&stMemb, 0, sizeof(stMemb));
    stMemb.uiIfIndex = uiIfIndex;
    u32 uiRet = TBDL_BND_ProcMembEv(uiBndNum, TBDL_MEMB_EV_DEL, &stMemb);
    if (uiRet != 0) {
        return uiRet;
    }

    (void)IF_DelPrivateData(g_stIntfGlobalVar.ulPdInstance, uiIfIndex, tbdl_intf_FreePrivateData);
    (void)TBDL_DLD_ProcIntfEv(TBDL_MEMB_EV_DEL, uiBndNum);
    return tbdl_intf_SaveMemb(1, uiBndNum, pstCfg);
}

u32 tbdl_intf_UnbindAllMemb(u32 uiBndNum)
{
    TBDL_MEMB_INFO_S astMemb[TBDL_SNAPSHOT_MEMB_MAX];
    TBDL_BND_INFO_S stInfo;
    TBDL_BND_InitSnapshot(&stInfo, astMemb);

    u32 uiRet = TBDL_BND_GetBndInfo(uiBndNum, &stInfo);
    if (uiRet != 0) {
        return uiRet;
    }

    u32 uiCount = stInfo.usMembNum;
    if (uiCount > TBDL_SNAPSHOT_MEMB_MAX) {
        uiCount = TBDL_SNAPSHOT_MEMB_MAX;
    }
    for (u32 i = 0; i < uiCount; i++) {
        (void)IF_DelPrivateData(g_stIntfGlobalVar.ulPdInstance, astMemb[i].uiIfIndex,
                                tbdl_intf_FreePrivateData);
    }
    return tbdl_intf_SaveMemb(1, uiBndNum, NULL);
}

/* Binding request: fills in the interface's VRF and binds. The operation
 * data area is byte-aligned, so the record is worked on in a copy and the
 * VRF index written back into the area. */
static u32 tbdl_intf_ConfigBind(u32 uiBndNum, void *pOperData)
{
    TBDL_MEMB_CFG_S stCfg;
    memcpy(&stCfg, pOperData, sizeof(stCfg));
    stCfg.usVrfIndex = 0;

    u32 uiIfIndex = tbdl_intf_GetTnlIfIndex(stCfg.uiTnlNum);
    if (uiIfIndex == 0) {
        memcpy(pOperData, &stCfg, sizeof(stCfg));
        return TBDL_E_FAILED;
    }
    /* Without an answer the interface counts as being in no VRF. */
    (void)L3VPN_GetVrfIndexByIfIndex(uiIfIndex, &stCfg.usVrfIndex);
    memcpy(pOperData, &stCfg, sizeof(stCfg));

    return tbdl_intf_BindMemb(uiBndNum, uiIfIndex, &stCfg);
}

u32 TBDL_INTF_Configure(u16 usUndo, const TBDL_CFG_KEY_S *pstKey, u16 usOperType, void *pOperData)
{
    u32 uiBndNum = pstKey->uiBndNum;

    if (usOperType == TBDL_TLV_OP_BND) {
        /* The bundle is about to be removed: drop its memberships first. */
        (void)tbdl_intf_UnbindAllMemb(uiBndNum);
        return 0;
    }
    if (usOperType != TBDL_TLV_OP_MEMB) {
        return TBDL_E_NOTSUPPORT;
    }
    if (pOperData == NULL) {
        /* A bundle request carries no member record: nothing to do. */
        return 0;
    }

    if (usUndo == TBDL_CFG_OPER_UNDO) {
        TBDL_MEMB_CFG_S stCfg;
        memcpy(&stCfg, pOperData, sizeof(stCfg));
        (void)tbdl_intf_UnbindMemb(uiBndNum, &stCfg);
        return 0;
    }
    return tbdl_intf_ConfigBind(uiBndNum, pOperData);
}

u32 TBDL_INTF_RecoverMemb(u32 uiBndNum, const TBDL_MEMB_CFG_S *pstStored)
{
    TBDL_MEMB_CFG_S stCfg;
    tbdl_intf_CopyCfg(pstStored, &stCfg);

    u32 uiIfIndex = tbdl_intf_GetTnlIfIndex(stCfg.uiTnlNum);
    if (uiIfIndex == 0) {
        /* The interface may appear later; keep the stored record. */
        return 0;
    }

    /* After a restart the interface may have moved to another VRF; during a
     * system boot the stored VRF is taken as it is. */
    if (g_stIntfGlobalVar.usSystemBoot == 0) {
        u16 usVrfIndex = 0;
        (void)L3VPN_GetVrfIndexByIfIndex(uiIfIndex, &usVrfIndex);
        if (usVrfIndex != pstStored->usVrfIndex) {
            (void)TBDL_DBM_SetMemb(1, uiBndNum, pstStored);
            return TBDL_E_FAILED;
        }
    }

    u32 uiRet = tbdl_intf_BindMemb(uiBndNum, uiIfIndex, &stCfg);
    if (uiRet != 0) {
        (void)TBDL_DBM_SetMemb(1, uiBndNum, pstStored);
        return uiRet;
    }
    return 0;
}
