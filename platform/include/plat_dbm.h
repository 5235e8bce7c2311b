/* Platform database: keyed sorted lists of fixed-size records.
 *
 * A key (1 to 64 bytes) names one list. Records of a list are kept in
 * ascending order of their sort word, a byte range of the record compared as
 * stored; inserting a record whose sort word equals a stored one replaces
 * it. Every change is durable when the call returns. */
#ifndef PLAT_DBM_H
#define PLAT_DBM_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

#define DBM_HANDLE_NONE (~(u64)0)
#define DBM_KEY_MAX 64u

/* Opens the database pcName for owner pcOwner. pauiParam: eight u32.
 * Writes the handle into *pulHandle and returns 0; on failure returns
 * non-zero and leaves *pulHandle as it was. */
u32 DBM_Open(const char *pcName, const char *pcOwner, u32 uiType,
             const u32 *pauiParam, u64 *pulHandle, u32 uiRecMax, i32 iFlag);
u32 DBM_Close(u64 ulHandle);
/* 1 when a list exists under the key, else 0. */
u32 DBM_IsKeyExist(u64 ulHandle, const void *pvKey, u32 uiKeyLen);
/* Sets the sort word of the list under the key (created empty if needed):
 * uiLen bytes at uiOffset of each record. 0 on success. */
u32 DBM_SetSortWord(u64 ulHandle, const void *pvKey, u32 uiKeyLen, u32 uiCount,
                    u32 uiOffset, u32 uiLen, u32 uiKind, u32 uiOrder);
/* Inserts a record in sort-word order, replacing one with an equal sort
 * word. 0 on success; the list must have its sort word. */
u32 DBM_InsertSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen,
                       u32 uiRecLen, const void *pvRec, u32 uiFlag);
/* Removes the record whose sort word equals that of pvRec. 0 on success,
 * non-zero when there is none. */
u32 DBM_RemoveSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen,
                       u32 uiRecLen, const void *pvRec);
/* Number of records under the key (0 when none or no such key). */
u32 DBM_Len(u64 ulHandle, const void *pvKey, u32 uiKeyLen);
/* Removes the key and all its records. 0 on success. */
u32 DBM_DeleteKey(u64 ulHandle, const void *pvKey, u32 uiKeyLen);
/* Brings this board's view of the database in step with the store. */
u32 DBM_Sync(void);

/* Batch walk. A row is called once per stored list it matches: the row with
 * identifier N matches the keys whose first byte is N + 1. Rows are served
 * in table order and the lists of a row in ascending key order. The callback
 * gets the handle, the key and the key's length, and reads the list with
 * DBM_BatchGetNextSortList. */
typedef u32 (*DBM_BATCH_CB_PF)(u64 ulHandle, const void *pvKey, u32 uiKeyLen);

typedef struct tagDBM_BATCH_ROW {
    u64 ulId;
    DBM_BATCH_CB_PF pfnCallback;
    u64 ulResv;
} DBM_BATCH_ROW_S;

/* Walks the stored lists. iScope -1 = every list. 0 on success. */
u32 DBM_Batch_Proc(u64 ulHandle, i32 iScope, const DBM_BATCH_ROW_S *pstRows,
                   u32 uiRowCount);
/* Copies up to uiMaxRec records of uiRecLen bytes of the list into pvBuf,
 * continuing from *ppvIter (NULL on the first call; the call creates it).
 * Returns the number of records copied, 0 at the end, negative on error. */
i32 DBM_BatchGetNextSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen,
                             void **ppvIter, u32 uiArg1, u32 uiArg2,
                             u32 uiRecLen, u32 uiMaxRec, void *pvBuf);
void DBM_FreeIterator(void *pvIter);

PLAT_EXTERN_C_END

#endif
