/* Replay of the stored configuration when the board becomes master: every
 * stored bundle, then every stored member binding, read from the platform
 * database in blocks and handed to the module that owns each record. */
#include <arpa/inet.h>
#include <string.h>

#include "cfg/tbdl_cfg_priv.h"
#include "plat_service.h"
#include "tbdl_bnd.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"

static_assert(sizeof(TBDL_DBM_BND_S) == TBDL_DBM_BND_LEN, "bundle block entry is a stored record");
static_assert(sizeof(TBDL_MEMB_CFG_S) == TBDL_DBM_MEMB_LEN, "member block entry is a stored record");

/* Bundle lists first, so that every bundle exists before its members are
 * bound. */
static const DBM_BATCH_ROW_S g_astTbdlCfgRecoverRows[] = {
    {0, tbdl_cfg_RecoverBndCb, 0},
    {1, tbdl_cfg_RecoverMembCb, 0},
};

void TBDL_CFG_Recovery(void)
{
    u32 uiCause = 0;
    u32 uiDetail = 0;

    /* During a boot of the whole system the stored VRF indexes are taken as
     * they are; a failed query counts as a process restart. */
    if (SERVICE_GetStartCause(&uiCause, &uiDetail) == 0 && uiCause == SERVICE_CAUSE_SYSTEM_BOOT) {
        TBDL_INTF_SetSystemBoot(1);
    }
    (void)DBM_Batch_Proc(TBDL_DBM_GetHandle(), -1, g_astTbdlCfgRecoverRows,
                         sizeof(g_astTbdlCfgRecoverRows) / sizeof(g_astTbdlCfgRecoverRows[0]));
    TBDL_INTF_SetSystemBoot(0);
}

/* Number of usable records in a block: a count above the block size is
 * not trusted beyond the buffer. */
static u32 tbdl_cfg_BlockCount(i32 iCount)
{
    return ((u32)iCount > TBDL_CFG_RECOVER_BLOCK) ? TBDL_CFG_RECOVER_BLOCK : (u32)iCount;
}

u32 tbdl_cfg_RecoverBndCb(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    TBDL_DBM_BND_S astRec[TBDL_CFG_RECOVER_BLOCK];
    void *pvIter = NULL;

    for (;;) {
        memset(astRec, 0, sizeof(astRec));
        i32 iCount = DBM_BatchGetNextSortList(ulHandle, pvKey, uiKeyLen, &pvIter, 0, 0,
                                              TBDL_DBM_BND_LEN, TBDL_CFG_RECOVER_BLOCK, astRec);
        if (iCount <= 0) {
            break;
        }
        u32 uiCount = tbdl_cfg_BlockCount(iCount);
        for (u32 i = 0; i < uiCount; i++) {
            TBDL_DBM_BND_S *pstRec = &astRec[i];
            pstRec->stAddr.usFamily = ntohs(pstRec->stAddr.usFamily);
            pstRec->uiBndNum = ntohl(pstRec->uiBndNum);
            pstRec->usVrfIndex = ntohs(pstRec->usVrfIndex);
            (void)TBDL_BND_RecoverBnd(pstRec);
        }
    }
    DBM_FreeIterator(pvIter);
    return 0;
}

/* Bundle number of a member list: bytes 1-4 of its key, big-endian. A
 * shorter key reads the missing bytes as 0. */
static u32 tbdl_cfg_MembKeyBndNum(const void *pvKey, u32 uiKeyLen)
{
    u8 aucKey[TBDL_DBM_KEY_MEMB_LEN];
    memset(aucKey, 0, sizeof(aucKey));
    if (pvKey != NULL) {
        memcpy(aucKey, pvKey, (uiKeyLen < sizeof(aucKey)) ? uiKeyLen : sizeof(aucKey));
    }
    return ((u32)aucKey[1] << 24) | ((u32)aucKey[2] << 16) | ((u32)aucKey[3] << 8) | aucKey[4];
}

u32 tbdl_cfg_RecoverMembCb(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    TBDL_MEMB_CFG_S astRec[TBDL_CFG_RECOVER_BLOCK];
    void *pvIter = NULL;
    u32 uiBndNum = tbdl_cfg_MembKeyBndNum(pvKey, uiKeyLen);

    for (;;) {
        memset(astRec, 0, sizeof(astRec));
        i32 iCount = DBM_BatchGetNextSortList(ulHandle, pvKey, uiKeyLen, &pvIter, 0, 0,
                                              TBDL_DBM_MEMB_LEN, TBDL_CFG_RECOVER_BLOCK, astRec);
        if (iCount <= 0) {
            break;
        }
        u32 uiCount = tbdl_cfg_BlockCount(iCount);
        for (u32 i = 0; i < uiCount; i++) {
            TBDL_MEMB_CFG_S *pstRec = &astRec[i];
            pstRec->uiTnlNum = ntohl(pstRec->uiTnlNum);
            pstRec->usWeight = ntohs(pstRec->usWeight);
            pstRec->usVrfIndex = ntohs(pstRec->usVrfIndex);
            (void)TBDL_INTF_RecoverMemb(uiBndNum, pstRec);
        }
    }
    DBM_FreeIterator(pvIter);
    return 0;
}
