/* Wire layout of the configuration channel: 12-byte big-endian header,
 * then STLV TLVs. */
#ifndef TBDL_CFG_MSG_H
#define TBDL_CFG_MSG_H

#include <stddef.h>

#include "tbdl_bnd_rec.h"

typedef struct tagTBDL_CFG_MSG_HEAD {
    u16 usMsgClass;
    u16 usDataLen;
    u32 uiResult;
    u16 usMsgType;
    u16 usOper;
} TBDL_CFG_MSG_HEAD_S;
static_assert(sizeof(TBDL_CFG_MSG_HEAD_S) == 12, "message header is 12 bytes");
static_assert(offsetof(TBDL_CFG_MSG_HEAD_S, uiResult) == 4, "result at 4");
static_assert(offsetof(TBDL_CFG_MSG_HEAD_S, usMsgType) == 8, "type at 8");
static_assert(offsetof(TBDL_CFG_MSG_HEAD_S, usOper) == 10, "oper at 10");

#define TBDL_CFG_MSG_HEAD_LEN 12u
#define TBDL_CFG_MSG_CONFIG 0u
#define TBDL_CFG_MSG_DISPLAY 1u
#define TBDL_CFG_OPER_UNDO 1u

/* Configuration message types. */
#define TBDL_CFG_TYPE_DEBUG 0u
#define TBDL_CFG_TYPE_BND 1u
#define TBDL_CFG_TYPE_MEMB 2u

/* Display message types and selectors. */
#define TBDL_DISP_TYPE_TNLBND 0u
#define TBDL_DISP_TYPE_DEBUG 1u
#define TBDL_DISP_TYPE_SPEC 5u
#define TBDL_DISP_OPER_ONE 2u
#define TBDL_DISP_OPER_FIRST 3u
#define TBDL_DISP_OPER_NEXT 4u
#define TBDL_DISP_OPER_COUNT 5u
#define TBDL_DISP_ALL_BND 0xFFFFFFFFu

/* TLV types. */
#define TBDL_TLV_BND_NUM 2u
#define TBDL_TLV_OP_NONE 201u
#define TBDL_TLV_OP_BND 202u
#define TBDL_TLV_OP_ADDR 203u
#define TBDL_TLV_OP_MEMB 204u
#define TBDL_TLV_OP_U32 398u
#define TBDL_TLV_DISP_BND 402u
#define TBDL_TLV_DISP_COUNT 403u
#define TBDL_TLV_DISP_DEBUG 404u
#define TBDL_TLV_DISP_SPEC 405u

#define TBDL_CFG_RECV_BUF_LEN 2048u
#define TBDL_CFG_DISP_BUF_LEN 1500u
#define TBDL_CFG_DISP_TLV_ROOM 1488u
#define TBDL_CFG_OPER_DATA_LEN 256u
#define TBDL_CFG_PORT 2681u

/* Key record handed to every handler. */
typedef struct tagTBDL_CFG_KEY {
    u32 uiBndNum;
} TBDL_CFG_KEY_S;

/* Operation data area written from the request's operation TLV. */
typedef struct tagTBDL_CFG_OPER_DATA {
    u8 aucData[TBDL_CFG_OPER_DATA_LEN];
} TBDL_CFG_OPER_DATA_S;

/* Values of the operation TLVs, big-endian on the wire (see
 * tbdl_cfg_oper_codec.h). A value shorter than its width reads as padded
 * with zero bytes; the operation data receives the decoded fields in host
 * order at the same offsets and nothing beyond the width. */

/* TLV 202: work mode and tunnel mode. */
typedef struct tagTBDL_CFG_BND_VAL {
    u16 usMode;
    u16 usTnlMode;
} TBDL_CFG_BND_VAL_S;
static_assert(sizeof(TBDL_CFG_BND_VAL_S) == 4, "bundle operation value is 4 bytes");
static_assert(offsetof(TBDL_CFG_BND_VAL_S, usTnlMode) == 2, "tunnel mode at 2");
#define TBDL_CFG_BND_VAL_LEN 4u

/* TLV 203: the address block TBDL_ADDR_S, its family big-endian. */
#define TBDL_CFG_ADDR_VAL_LEN 20u
static_assert(sizeof(TBDL_ADDR_S) == TBDL_CFG_ADDR_VAL_LEN, "address value is the address block");
static_assert(offsetof(TBDL_ADDR_S, aucCarried) == 2, "carried bytes at 2");
static_assert(offsetof(TBDL_ADDR_S, aucAddr) == 4, "address bytes at 4");

/* Member configuration: the first 7 bytes (tunnel number, weight, role) are
 * the value of TLV 204; the member handler adds the VRF. Also the in-memory
 * form of a stored member. */
typedef struct tagTBDL_MEMB_CFG {
    u32 uiTnlNum;
    u16 usWeight;
    u8 ucRole;
    u8 ucResv;
    u16 usVrfIndex;
    u16 usResv;
} TBDL_MEMB_CFG_S;
static_assert(sizeof(TBDL_MEMB_CFG_S) == 12, "member configuration is 12 bytes");
static_assert(offsetof(TBDL_MEMB_CFG_S, usWeight) == 4, "member weight at offset 4");
static_assert(offsetof(TBDL_MEMB_CFG_S, ucRole) == 6, "member role at offset 6");
static_assert(offsetof(TBDL_MEMB_CFG_S, usVrfIndex) == 8, "member VRF at offset 8");
#define TBDL_CFG_MEMB_VAL_LEN 7u
static_assert(offsetof(TBDL_MEMB_CFG_S, ucResv) == TBDL_CFG_MEMB_VAL_LEN, "member value ends at the role");

/* TLV 2 (bundle number) and TLV 398: one u32. */
typedef struct tagTBDL_CFG_U32_VAL {
    u32 uiValue;
} TBDL_CFG_U32_VAL_S;
static_assert(sizeof(TBDL_CFG_U32_VAL_S) == 4, "u32 value is 4 bytes");
#define TBDL_CFG_U32_VAL_LEN 4u

typedef u32 (*TBDL_CFG_HANDLER_PF)(u16 usUndo, const TBDL_CFG_KEY_S *pstKey, u16 usOperType,
                                   void *pOperData);
typedef u32 (*TBDL_DISP_HANDLER_PF)(u16 usOper, const TBDL_CFG_KEY_S *pstKey, u16 usBufLen,
                                    u8 *pucBuf, u16 *pusOutLen);

/* Display TLV values (big-endian on the wire). */
#define TBDL_DISP_BND_FIXED_LEN 32u
#define TBDL_DISP_BND_MEMB_LEN 8u
#define TBDL_DISP_COUNT_LEN 12u
#define TBDL_DISP_DEBUG_LEN 4u
#define TBDL_DISP_SPEC_LEN 16u

/* Value of TLV 402: the fixed part, then one member entry per member. */
typedef struct tagTBDL_DISP_BND_VAL {
    u16 usFamily;         /* address family, big-endian */
    u8 aucAddrRest[18];   /* carried bytes and address bytes, as stored */
    u32 uiBndNum;
    u32 uiMembNum;        /* member entries that follow */
    u16 usTnlMode;
    u8 ucState;           /* 1 = up */
    u8 ucMode;
} TBDL_DISP_BND_VAL_S;
static_assert(sizeof(TBDL_DISP_BND_VAL_S) == TBDL_DISP_BND_FIXED_LEN, "bundle details are 32 bytes");
static_assert(offsetof(TBDL_DISP_BND_VAL_S, uiBndNum) == 20, "bundle number at 20");
static_assert(offsetof(TBDL_DISP_BND_VAL_S, uiMembNum) == 24, "member count at 24");
static_assert(offsetof(TBDL_DISP_BND_VAL_S, usTnlMode) == 28, "tunnel mode at 28");
static_assert(offsetof(TBDL_DISP_BND_VAL_S, ucState) == 30, "state at 30");
static_assert(offsetof(TBDL_DISP_BND_VAL_S, ucMode) == 31, "mode at 31");

typedef struct tagTBDL_DISP_MEMB_VAL {
    u32 uiTnlNum;         /* N of "Tunnel" N */
    u16 usWeight;
    u8 ucRole;
    u8 ucState;
} TBDL_DISP_MEMB_VAL_S;
static_assert(sizeof(TBDL_DISP_MEMB_VAL_S) == TBDL_DISP_BND_MEMB_LEN, "member entry is 8 bytes");

/* Value of TLV 403: bundles counted, of them up, of them down. */
typedef struct tagTBDL_DISP_COUNT_VAL {
    u32 uiTotal;
    u32 uiUp;
    u32 uiDown;
} TBDL_DISP_COUNT_VAL_S;
static_assert(sizeof(TBDL_DISP_COUNT_VAL_S) == TBDL_DISP_COUNT_LEN, "counts are 12 bytes");

/* Value of TLV 405: the device limits. */
typedef struct tagTBDL_DISP_SPEC_VAL {
    u32 uiMaxBndNum;
    u32 uiMaxMembNum;
    u16 usLoadBalancing;
    u16 usProtectionOnetoone;
    u16 usProtectionOneplusone;
    u16 usResv;
} TBDL_DISP_SPEC_VAL_S;
static_assert(sizeof(TBDL_DISP_SPEC_VAL_S) == TBDL_DISP_SPEC_LEN, "limits are 16 bytes");
static_assert(offsetof(TBDL_DISP_SPEC_VAL_S, usLoadBalancing) == 8, "switches at 8");

#endif
