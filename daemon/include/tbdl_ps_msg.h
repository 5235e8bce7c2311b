/* Messages to the protocol service (PS) on the descriptor its library hands
 * back. A send carries one message or, during a full resynchronisation,
 * several back to back (at most TBDL_PS_SEND_MAX bytes); a receiver splits a
 * send by each message's length field.
 *
 * A message is a 4-byte big-endian header {type, bytes that follow}, then one
 * STLV TLV (4-byte header, then the value). Numeric fields of the values are
 * big-endian. */
#ifndef TBDL_PS_MSG_H
#define TBDL_PS_MSG_H

#include <stddef.h>

#include "plat_types.h"

#define TBDL_PS_MSG_BND_UPDATE 2u
#define TBDL_PS_MSG_BND_DELETE 3u
#define TBDL_PS_MSG_SMOOTH 4u

#define TBDL_PS_TLV_BND 1u
#define TBDL_PS_TLV_SMOOTH 2u

#define TBDL_PS_SMOOTH_BEGIN 0u
#define TBDL_PS_SMOOTH_END 1u

/* Protection kinds of an update. */
#define TBDL_PS_PROT_ONE_TO_ONE 0u
#define TBDL_PS_PROT_ONE_PLUS_ONE 1u

#define TBDL_PS_MSG_HEAD_LEN 4u
#define TBDL_PS_TLV_HEAD_LEN 4u
#define TBDL_PS_SEND_MAX 1500u
#define TBDL_PS_MSG_BUF_LEN 512u

typedef struct tagTBDL_PS_MSG_HEAD {
    u16 usMsgType;
    u16 usLen;       /* bytes after this header */
} TBDL_PS_MSG_HEAD_S;
PLAT_STATIC_ASSERT(sizeof(TBDL_PS_MSG_HEAD_S) == TBDL_PS_MSG_HEAD_LEN, "PS message header is 4 bytes");

/* Value of TLV 1 (update and delete; a delete carries the bundle number
 * only). */
typedef struct tagTBDL_PS_BND_VAL {
    u32 uiBndNum;
    u32 uiWorkIfIndex;   /* member of role 0 */
    u32 uiProtIfIndex;   /* the other member */
    u8 ucProtKind;       /* TBDL_PS_PROT_* */
    u8 ucWorkUp;         /* 1 = working member up */
    u8 ucProtUp;         /* 1 = protection member up */
    u8 ucResv;
} TBDL_PS_BND_VAL_S;
PLAT_STATIC_ASSERT(sizeof(TBDL_PS_BND_VAL_S) == 16, "bundle value is 16 bytes");
PLAT_STATIC_ASSERT(offsetof(TBDL_PS_BND_VAL_S, ucProtKind) == 12, "protection kind at 12");

/* Value of TLV 2. */
typedef struct tagTBDL_PS_SMOOTH_VAL {
    u32 uiSmoothType;    /* TBDL_PS_SMOOTH_* */
} TBDL_PS_SMOOTH_VAL_S;
PLAT_STATIC_ASSERT(sizeof(TBDL_PS_SMOOTH_VAL_S) == 4, "smooth value is 4 bytes");

/* Whole messages as they stand in a send. */
typedef struct tagTBDL_PS_BND_MSG {
    TBDL_PS_MSG_HEAD_S stHead;
    u8 aucTlvHead[TBDL_PS_TLV_HEAD_LEN];
    TBDL_PS_BND_VAL_S stVal;
} TBDL_PS_BND_MSG_S;
PLAT_STATIC_ASSERT(sizeof(TBDL_PS_BND_MSG_S) == 24, "update and delete messages are 24 bytes");
PLAT_STATIC_ASSERT(offsetof(TBDL_PS_BND_MSG_S, stVal) == 8, "bundle value at 8");

typedef struct tagTBDL_PS_SMOOTH_MSG {
    TBDL_PS_MSG_HEAD_S stHead;
    u8 aucTlvHead[TBDL_PS_TLV_HEAD_LEN];
    TBDL_PS_SMOOTH_VAL_S stVal;
} TBDL_PS_SMOOTH_MSG_S;
PLAT_STATIC_ASSERT(sizeof(TBDL_PS_SMOOTH_MSG_S) == 12, "smooth message is 12 bytes");

/* Updates packed into one send of a full resynchronisation (62 x 24 = 1488). */
#define TBDL_PS_UPDATES_PER_SEND (TBDL_PS_SEND_MAX / sizeof(TBDL_PS_BND_MSG_S))

#endif
