/* Replay of the stored configuration when the board becomes master: every
 * stored bundle, then every stored member binding, read from the platform
 * database in blocks and handed to the module that owns each record. */
#include <string.h>

#include "cfg/tbdl_cfg_priv.h"
#include "plat_service.h"
#include "tbdl_bnd.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"

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
            TBDL_DBM_BND_S stRec;
            TBDL_DBM_DecBnd(&astRec[i], &stRec);
            (void)TBDL_BND_RecoverBnd(&stRec);
        }
    }
    DBM_FreeIterator(pvIter);
    return 0;
}

u32 tbdl_cfg_RecoverMembCb(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    TBDL_DBM_MEMB_S astRec[TBDL_CFG_RECOVER_BLOCK];
    void *pvIter = NULL;
    u32 uiBndNum = TBDL_DBM_MembKeyBndNum(pvKey, uiKeyLen);

    for (;;) {
        memset(astRec, 0, sizeof(astRec));
        i32 iCount = DBM_BatchGetNextSortList(ulHandle, pvKey, uiKeyLen, &pvIter, 0, 0,
                                              TBDL_DBM_MEMB_LEN, TBDL_CFG_RECOVER_BLOCK, astRec);
        if (iCount <= 0) {
            break;
        }
        u32 uiCount = tbdl_cfg_BlockCount(iCount);
        for (u32 i = 0; i < uiCount; i++) {
            TBDL_MEMB_CFG_S stCfg;
            TBDL_DBM_DecMemb(&astRec[i], &stCfg);
            (void)TBDL_INTF_RecoverMemb(uiBndNum, &stCfg);
        }
    }
    DBM_FreeIterator(pvIter);
    return 0;
}
