/* Database records of the stored configuration: the bundle list under key
 * 0x01 and one member list per bundle under key 0x02 + bundle number, each
 * record in its stored form (tbdl_dbm_codec.cpp). */

#include "tbdl_dbg.h"
#include "dbm/tbdl_dbm_priv.h"
#include "plat_dbm.h"

#define TBDL_DBM_NAME "eTBDL"
#define TBDL_DBM_OWNER "TBDL"
#define TBDL_DBM_OPEN_TYPE 7u
#define TBDL_DBM_OPEN_RECMAX 32u
#define TBDL_DBM_OPEN_FLAG (-1)
#define TBDL_DBM_SORT_COUNT 1u
#define TBDL_DBM_SORT_LEN 4u
#define TBDL_DBM_SORT_KIND 19u
#define TBDL_DBM_SORT_ORDER 0u
#define TBDL_DBM_FLAG_BND 0u
#define TBDL_DBM_FLAG_MEMB 1u

u64 g_stTbdlDbmGlobal = DBM_HANDLE_NONE;

/* Key and stored form of one record, ready for the list calls. */
typedef struct tagTBDL_DBM_ITEM {
    u8 aucKey[TBDL_DBM_KEY_MEMB_LEN];
    u32 uiKeyLen;
    u32 uiSortOffset;
    u32 uiRecLen;
    u32 uiFlag;
    const void *pvRec;
} TBDL_DBM_ITEM_S;

u32 TBDL_DBM_Init(void)
{
    static const u32 auiParam[8] = {1, 0, 1, 32, 0, 0, 0, 0};
    u64 ulHandle = DBM_HANDLE_NONE;
    g_stTbdlDbmGlobal = 0;
    u32 uiRet = DBM_Open(TBDL_DBM_NAME, TBDL_DBM_OWNER, TBDL_DBM_OPEN_TYPE, auiParam, &ulHandle,
                         TBDL_DBM_OPEN_RECMAX, TBDL_DBM_OPEN_FLAG);
    g_stTbdlDbmGlobal = ulHandle;
    return uiRet;
}

void TBDL_DBM_Fini(void)
{
    if (g_stTbdlDbmGlobal != DBM_HANDLE_NONE) {
        (void)DBM_Close(g_stTbdlDbmGlobal);
        g_stTbdlDbmGlobal = DBM_HANDLE_NONE;
    }
}

u64 TBDL_DBM_GetHandle(void)
{
    return g_stTbdlDbmGlobal;
}

u32 TBDL_DBM_HASync(void)
{
    return DBM_Sync();
}

/* Stores one record; the list's sort word is set when its key is new. A
 * sort word that cannot be set is returned silently; a failed insert is
 * logged with pcErrFmt and the record's number. */
static u32 tbdl_dbm_Store(const TBDL_DBM_ITEM_S *pstItem, const char *pcErrFmt, u32 uiNum)
{
    u64 ulHandle = g_stTbdlDbmGlobal;
    if (DBM_IsKeyExist(ulHandle, pstItem->aucKey, pstItem->uiKeyLen) != 1) {
        u32 uiRet = DBM_SetSortWord(ulHandle, pstItem->aucKey, pstItem->uiKeyLen, TBDL_DBM_SORT_COUNT,
                                    pstItem->uiSortOffset, TBDL_DBM_SORT_LEN, TBDL_DBM_SORT_KIND,
                                    TBDL_DBM_SORT_ORDER);
        if (uiRet != TBDL_OK) {
            return uiRet;
        }
    }
    u32 uiRet = DBM_InsertSortList(ulHandle, pstItem->aucKey, pstItem->uiKeyLen, pstItem->uiRecLen,
                                   pstItem->pvRec, pstItem->uiFlag);
    if (uiRet != TBDL_OK) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, pcErrFmt, (int)uiNum);
    }
    return uiRet;
}

/* Removes one record (a failure is logged with pcErrFmt and the record's
 * number); the key goes with the last record, whether or not the removal
 * itself succeeded. Returns the removal's result. */
static u32 tbdl_dbm_Remove(const TBDL_DBM_ITEM_S *pstItem, const char *pcErrFmt, u32 uiNum)
{
    u64 ulHandle = g_stTbdlDbmGlobal;
    u32 uiRet = DBM_RemoveSortList(ulHandle, pstItem->aucKey, pstItem->uiKeyLen, pstItem->uiRecLen,
                                   pstItem->pvRec);
    if (uiRet != TBDL_OK) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, pcErrFmt, (int)uiNum);
    }
    if (DBM_Len(ulHandle, pstItem->aucKey, pstItem->uiKeyLen) == 0) {
        (void)DBM_DeleteKey(ulHandle, pstItem->aucKey, pstItem->uiKeyLen);
    }
    return uiRet;
}

u32 TBDL_DBM_SetBnd(u16 usDel, const TBDL_DBM_BND_S *pstRec)
{
    TBDL_DBM_BND_S stStored;
    TBDL_DBM_EncBnd(pstRec, &stStored);
    TBDL_DBM_ITEM_S stItem = {{TBDL_DBM_KEY_BND}, TBDL_DBM_KEY_BND_LEN, TBDL_DBM_BND_SORT_OFFSET,
                              TBDL_DBM_BND_LEN, TBDL_DBM_FLAG_BND, &stStored};
    if (usDel == 0) {
        return tbdl_dbm_Store(&stItem, "Failed to save tunnel bundle interface (%d) to DBM.\r\n",
                              pstRec->uiBndNum);
    }
    return tbdl_dbm_Remove(&stItem, "Failed to delete tunnel bundle interface (%d) from DBM.\r\n",
                           pstRec->uiBndNum);
}

u32 TBDL_DBM_SetMemb(u16 usDel, u32 uiBndNum, const TBDL_MEMB_CFG_S *pstCfg)
{
    TBDL_DBM_MEMB_S stStored;
    TBDL_DBM_ITEM_S stItem = {{TBDL_DBM_KEY_MEMB}, TBDL_DBM_KEY_MEMB_LEN, TBDL_DBM_MEMB_SORT_OFFSET,
                              TBDL_DBM_MEMB_LEN, TBDL_DBM_FLAG_MEMB, &stStored};
    TBDL_DBM_MembKey(uiBndNum, stItem.aucKey);
    if (pstCfg == NULL) {
        /* Only removal of the whole list comes without a record. */
        if (usDel == 0) {
            return TBDL_E_INVALID_PARAM;
        }
        return DBM_DeleteKey(g_stTbdlDbmGlobal, stItem.aucKey, stItem.uiKeyLen);
    }
    TBDL_DBM_EncMemb(pstCfg, &stStored);
    if (usDel == 0) {
        return tbdl_dbm_Store(&stItem, "Failed to save member (%d) to DBM.\r\n", pstCfg->uiTnlNum);
    }
    return tbdl_dbm_Remove(&stItem, "Failed to delete member (%d) from DBM.\r\n", pstCfg->uiTnlNum);
}
