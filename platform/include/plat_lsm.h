/* Label switching manager: LSP entries of client protocols. */
#ifndef PLAT_LSM_H
#define PLAT_LSM_H

#include <stddef.h>

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

/* LSM_SendGrEvent types: a graceful-restart (smoothing) cycle begins / ends. */
#define LSM_GR_BEGIN 1u
#define LSM_GR_END 2u

/* Field values of an LSP entry. */
#define LSM_LSP_KEY_TYPE 24u          /* first field of the entry key */
#define LSM_LSP_PATH_TYPE 68u         /* first field of every path half */
#define LSM_LSP_NO_LABEL 0xFFFFFFFFu  /* label fields not used */
#define LSM_LSP_PATH_MAX 32u          /* paths in a path array */
#define LSM_LSP_FLAG_HAS_BACKUP 2u    /* path 0's primary half: a backup half follows */
#define LSM_LSP_ATTR_ONE 1u
#define LSM_LSP_ATTR_FLAG 0xFFu

/* LSP modes (entry offset 0, attribute block offset 6). */
#define LSM_LSP_MODE_ONE_TO_ONE 1u
#define LSM_LSP_MODE_ONE_PLUS_ONE 2u
#define LSM_LSP_MODE_LOAD_BALANCE 8u

/* One half of a path (32 bytes): the primary half, or the backup half. */
typedef struct tagLSM_LSP_HALF {
    u16 usType;      /* LSM_LSP_PATH_TYPE */
    u16 usFlags;     /* LSM_LSP_FLAG_HAS_BACKUP in path 0's primary half */
    u32 uiLabel;     /* LSM_LSP_NO_LABEL */
    u32 uiIfIndex;   /* member interface */
    u16 usResv;
    u16 usWeight;
    u8 aucResv[16];
} LSM_LSP_HALF_S;
PLAT_STATIC_ASSERT(sizeof(LSM_LSP_HALF_S) == 32, "a path half is 32 bytes");
PLAT_STATIC_ASSERT(offsetof(LSM_LSP_HALF_S, uiIfIndex) == 8, "member ifindex at 8");
PLAT_STATIC_ASSERT(offsetof(LSM_LSP_HALF_S, usWeight) == 14, "weight at 14");

/* One path (64 bytes) of the path array. */
typedef struct tagLSM_LSP_PATH {
    LSM_LSP_HALF_S stPrimary;
    LSM_LSP_HALF_S stBackup;
} LSM_LSP_PATH_S;
PLAT_STATIC_ASSERT(sizeof(LSM_LSP_PATH_S) == 64, "a path is 64 bytes");

/* Attribute block (16 bytes). */
typedef struct tagLSM_LSP_ATTR {
    u32 uiIfIndex;   /* bundle interface */
    u16 usOne;       /* LSM_LSP_ATTR_ONE */
    u16 usMode;      /* LSP mode */
    u8 aucResv1[4];
    u8 ucFlag;       /* LSM_LSP_ATTR_FLAG */
    u8 aucResv2[3];
} LSM_LSP_ATTR_S;
PLAT_STATIC_ASSERT(sizeof(LSM_LSP_ATTR_S) == 16, "attribute block is 16 bytes");
PLAT_STATIC_ASSERT(offsetof(LSM_LSP_ATTR_S, usMode) == 6, "mode at 6");
PLAT_STATIC_ASSERT(offsetof(LSM_LSP_ATTR_S, ucFlag) == 12, "flag at 12");

/* Key of an entry (28 bytes, entry offsets 12-39): what LSM_DeleteLspEntry
 * is given, and what an add replaces by. */
typedef struct tagLSM_LSP_KEY {
    u16 usKeyType;   /* LSM_LSP_KEY_TYPE */
    u16 usResv1;
    u32 uiIfIndex;   /* bundle interface */
    u8 aucAddr[4];   /* first four address bytes, as stored */
    u16 usVrfIndex;
    u8 aucResv2[14];
} LSM_LSP_KEY_S;
PLAT_STATIC_ASSERT(sizeof(LSM_LSP_KEY_S) == 28, "entry key is 28 bytes");
PLAT_STATIC_ASSERT(offsetof(LSM_LSP_KEY_S, uiIfIndex) == 4, "key ifindex at 4");
PLAT_STATIC_ASSERT(offsetof(LSM_LSP_KEY_S, aucAddr) == 8, "key address at 8");
PLAT_STATIC_ASSERT(offsetof(LSM_LSP_KEY_S, usVrfIndex) == 12, "key VRF at 12");

/* LSP entry (96 bytes, host order). The path array (LSM_LSP_PATH_MAX paths)
 * and the attribute block are the caller's and must stay valid during the
 * call that is given the entry. */
typedef struct tagLSM_LSP_ENTRY {
    u32 uiMode;        /* LSP mode */
    u32 uiProtocol;    /* the client protocol */
    u16 usPathNum;     /* primary paths filled in the path array */
    u16 usResv1;
    LSM_LSP_KEY_S stKey;
    u32 uiLabel;       /* LSM_LSP_NO_LABEL */
    u32 uiResv2;
    u8 aucResv3[8];
    LSM_LSP_PATH_S *pstPaths;
    u8 aucResv4[8];
    LSM_LSP_ATTR_S *pstAttr;
    u8 aucResv5[16];
} LSM_LSP_ENTRY_S;
PLAT_STATIC_ASSERT(sizeof(LSM_LSP_ENTRY_S) == 96, "LSP entry is 96 bytes");
PLAT_STATIC_ASSERT(offsetof(LSM_LSP_ENTRY_S, usPathNum) == 8, "path count at 8");
PLAT_STATIC_ASSERT(offsetof(LSM_LSP_ENTRY_S, stKey) == 12, "key at 12");
PLAT_STATIC_ASSERT(offsetof(LSM_LSP_ENTRY_S, uiLabel) == 40, "label at 40");
PLAT_STATIC_ASSERT(offsetof(LSM_LSP_ENTRY_S, pstPaths) == 56, "path array at 56");
PLAT_STATIC_ASSERT(offsetof(LSM_LSP_ENTRY_S, pstAttr) == 72, "attribute block at 72");

typedef u32 (*LSM_MSG_HANDLER_PF)(u32 uiArg, void *pvMsg, u32 uiLen);

/* Registration record given to LSM_RegProtocolHandler (16 bytes). */
typedef struct tagLSM_REG {
    u32 uiProtocol;
    u8 aucResv[12];
} LSM_REG_S;
PLAT_STATIC_ASSERT(sizeof(LSM_REG_S) == 16, "registration record is 16 bytes");

/* Registers a client protocol. pvReg: an LSM_REG_S. Returns a handle usable
 * as a descriptor in the event loop, or -1. */
i32 LSM_RegProtocolHandler(const void *pvReg, LSM_MSG_HANDLER_PF pfnHandler,
                           u32 uiProtocol);
u32 LSM_DeregProtocolHandler(i32 iHandle);
/* Graceful-restart cycle: 1 begins smoothing, 2 ends it (entries of this
 * protocol not added during the cycle are dropped). */
u32 LSM_SendGrEvent(i32 iHandle, u32 uiType);
/* Adds (or replaces) one LSP entry (an LSM_LSP_ENTRY_S) in the batch the
 * next flush delivers. */
u32 LSM_AddLspEntry(i32 iHandle, u32 uiArg, const void *pvEntry, u32 uiCount,
                    u32 uiIfIndex, u32 uiLabel);
/* Deletes the entry whose key (an LSM_LSP_KEY_S) starts at pvKey. */
u32 LSM_DeleteLspEntry(i32 iHandle, u32 uiArg, const void *pvKey, u32 uiKeyType,
                       u32 uiAddr);
/* Delivers the entries added or deleted since the last flush. 0 = done. */
u32 LSM_FlushLspEntry(i32 iHandle);
/* Processes what LSM sent on the handle. */
u32 LSM_HandleMsg(i32 iHandle);

PLAT_EXTERN_C_END

#endif
