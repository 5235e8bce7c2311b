/* Rebuilding bundle records from the stored configuration when the board
 * becomes active. A stored bundle that can no longer be valid here is removed
 * from the database and its interface index released. */
#include "bnd/tbdl_bnd_priv.h"

#include "plat_if.h"
#include "plat_l3vpn.h"
#include "tbdl_bas.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"

/* Key of IF_DeleteIf: the interface index followed by 4 zero bytes. */
typedef struct tagTBDL_BND_IFKEY {
    u32 uiIfIndex;
    u32 uiResv;
} TBDL_BND_IFKEY_S;
static_assert(sizeof(TBDL_BND_IFKEY_S) == 8, "interface key is 8 bytes");

#define TBDL_BND_IFDEL_KEYTYPE 1u
#define TBDL_BND_IFDEL_OK 1u

/* Destroys the bundle's interface index and deletes its stored record. */
static void tbdl_bnd_ReleaseStored(const TBDL_DBM_BND_S *pstRec)
{
    u32 uiIfIndex = tbdl_bnd_GetBndIfIndex(pstRec->uiBndNum);

    if (uiIfIndex != 0) {
        TBDL_BND_IFKEY_S stKey = {uiIfIndex, 0};

        if (IF_DeleteIf(TBDL_BND_IFDEL_KEYTYPE, &stKey) != TBDL_BND_IFDEL_OK) {
            TBDL_DBG_Output(TBDL_DBG_ERROR,
                            "Failed to destroy ifindex for tunnel bundle interface (%d).\r\n",
                            pstRec->uiBndNum);
        }
    }
    (void)TBDL_DBM_SetBnd(1, pstRec);
}

/* Checks a stored record; every failed check adds its code. On success the
 * bundle's interface index and VRF are returned through the pointers. */
static u32 tbdl_bnd_CheckStored(const TBDL_DBM_BND_S *pstRec, u32 *puiIfIndex, u16 *pusVrfIndex)
{
    const TBDL_BND_GLOBAL_S *pstG = &g_stTbdlGlobalVar;
    u32 uiRet = TBDL_OK;
    u16 usVrfIndex = 0;

    if (pstRec->uiBndNum >= pstG->uiMaxBndNum) {
        uiRet += TBDL_E_INVALID_BND;
    }
    if ((pstRec->ucMode & pstG->ucModeFlags) == 0) {
        uiRet += TBDL_E_MODE_NOTSUPPORT;
    }
    *puiIfIndex = tbdl_bnd_GetBndIfIndex(pstRec->uiBndNum);
    if (*puiIfIndex == 0) {
        return uiRet + TBDL_E_FAILED;
    }

    /* Right after a device boot the VRF bindings are still being rebuilt,
     * so the stored VRF is taken as it is. */
    if (TBDL_INTF_IsSystemBoot() != 0) {
        *pusVrfIndex = pstRec->usVrfIndex;
        return uiRet;
    }
    (void)L3VPN_GetVrfIndexByIfIndex(*puiIfIndex, &usVrfIndex);
    if (usVrfIndex != pstRec->usVrfIndex) {
        return uiRet + TBDL_E_FAILED;
    }
    *pusVrfIndex = usVrfIndex;
    return uiRet;
}

u32 TBDL_BND_RecoverBnd(const TBDL_DBM_BND_S *pstRec)
{
    TBDL_BND_GLOBAL_S *pstG = &g_stTbdlGlobalVar;
    TBDL_BND_S *pstBnd;
    u32 uiIfIndex = 0;
    u16 usVrfIndex = 0;
    u32 uiRet;

    /* The table is empty when recovery starts; a bundle already standing in
     * the slot is the live one and is kept as it is. */
    if (tbdl_bnd_Get(pstRec->uiBndNum) != NULL) {
        return TBDL_E_NOCHANGE;
    }

    uiRet = tbdl_bnd_CheckStored(pstRec, &uiIfIndex, &usVrfIndex);
    if (uiRet != TBDL_OK) {
        tbdl_bnd_ReleaseStored(pstRec);
        TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to recover tunnel bundle interface (%d) from DBM.\r\n",
                        pstRec->uiBndNum);
        return uiRet;
    }

    pstBnd = (TBDL_BND_S *)TBDL_BAS_Zalloc(sizeof(TBDL_BND_S));
    if (pstBnd == NULL) {
        tbdl_bnd_ReleaseStored(pstRec);
        return TBDL_E_NOMEM;
    }
    pstBnd->stAddr = pstRec->stAddr;
    pstBnd->uiBndNum = pstRec->uiBndNum;
    pstBnd->ucMode = pstRec->ucMode;
    pstBnd->ucTnlMode = pstRec->ucTnlMode;
    pstBnd->uiIfIndex = uiIfIndex;
    pstBnd->usVrfIndex = usVrfIndex;
    pstBnd->ucState = 0;
    pstBnd->pstMembList = NULL;
    pstG->ppstBnd[pstRec->uiBndNum] = pstBnd;
    pstG->uiBndCnt++;
    return TBDL_OK;
}
