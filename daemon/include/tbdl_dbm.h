/* Database records of bundles and members. */
#ifndef TBDL_DBM_H
#define TBDL_DBM_H

#include "tbdl_dbm_rec.h"

u32 TBDL_DBM_Init(void);
void TBDL_DBM_Fini(void);
u64 TBDL_DBM_GetHandle(void);
u32 TBDL_DBM_HASync(void);
u32 TBDL_DBM_SetBnd(u16 usDel, const TBDL_DBM_BND_S *pstRec);
u32 TBDL_DBM_SetMemb(u16 usDel, u32 uiBndNum, const TBDL_MEMB_CFG_S *pstCfg);

/* Stored form of the records. Encoding converts the numeric fields to
 * big-endian and zeroes the other bytes the record does not carry;
 * decoding converts the same fields back and keeps every other byte as
 * stored. The two records may be the same one for the bundle. */
void TBDL_DBM_EncBnd(const TBDL_DBM_BND_S *pstRec, TBDL_DBM_BND_S *pstStored);
void TBDL_DBM_DecBnd(const TBDL_DBM_BND_S *pstStored, TBDL_DBM_BND_S *pstRec);
void TBDL_DBM_EncMemb(const TBDL_MEMB_CFG_S *pstCfg, TBDL_DBM_MEMB_S *pstStored);
void TBDL_DBM_DecMemb(const TBDL_DBM_MEMB_S *pstStored, TBDL_MEMB_CFG_S *pstCfg);

/* Key of a bundle's member list: 0x02, then the bundle number big-endian. */
void TBDL_DBM_MembKey(u32 uiBndNum, u8 aucKey[TBDL_DBM_KEY_MEMB_LEN]);
/* Bundle number of a member list's key (bytes 1-4); the bytes a shorter key
 * lacks read as 0. */
u32 TBDL_DBM_MembKeyBndNum(const void *pvKey, u32 uiKeyLen);

#endif
