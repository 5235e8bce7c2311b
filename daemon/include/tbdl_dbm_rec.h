/* Database records and keys of the daemon's stored configuration. In memory
 * the numeric fields are in host order; stored, usFamily, uiBndNum,
 * usVrfIndex (bundle) and uiTnlNum, usWeight, usVrfIndex (member) are
 * big-endian. */
#ifndef TBDL_DBM_REC_H
#define TBDL_DBM_REC_H

#include <stddef.h>

#include "tbdl_cfg_msg.h"

#define TBDL_DBM_MEMB_LEN 12u
#define TBDL_DBM_BND_LEN 32u
#define TBDL_DBM_BND_SORT_OFFSET 20u
#define TBDL_DBM_MEMB_SORT_OFFSET 0u

typedef struct tagTBDL_DBM_BND {
    TBDL_ADDR_S stAddr;
    u32 uiBndNum;
    u8 ucMode;
    u8 ucTnlMode;
    u16 usResv1;
    u16 usVrfIndex;
    u16 usResv2;
} TBDL_DBM_BND_S;
static_assert(sizeof(TBDL_DBM_BND_S) == TBDL_DBM_BND_LEN, "stored bundle record is 32 bytes");
static_assert(offsetof(TBDL_DBM_BND_S, uiBndNum) == TBDL_DBM_BND_SORT_OFFSET, "bundle number at 20: the sort word");
static_assert(offsetof(TBDL_DBM_BND_S, ucMode) == 24, "mode at 24");
static_assert(offsetof(TBDL_DBM_BND_S, ucTnlMode) == 25, "tunnel mode at 25");
static_assert(offsetof(TBDL_DBM_BND_S, usVrfIndex) == 28, "VRF at 28");

/* Stored member record: the member configuration record, its tunnel number
 * (the sort word), weight and VRF big-endian. */
typedef TBDL_MEMB_CFG_S TBDL_DBM_MEMB_S;
static_assert(sizeof(TBDL_DBM_MEMB_S) == TBDL_DBM_MEMB_LEN, "stored member record is 12 bytes");
static_assert(offsetof(TBDL_DBM_MEMB_S, uiTnlNum) == TBDL_DBM_MEMB_SORT_OFFSET, "tunnel number: the sort word");

#define TBDL_DBM_KEY_BND 0x01u
#define TBDL_DBM_KEY_MEMB 0x02u
#define TBDL_DBM_KEY_BND_LEN 1u
#define TBDL_DBM_KEY_MEMB_LEN 5u

#endif
