/* Wire layout of the configuration channel: 12-byte big-endian header,
 * then STLV TLVs. */
#ifndef TBDL_CFG_MSG_H
#define TBDL_CFG_MSG_H

#include <stddef.h>

#include "tbdl_types.h"

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

#endif
