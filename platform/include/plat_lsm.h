/* Label switching manager: LSP entries of client protocols. */
#ifndef PLAT_LSM_H
#define PLAT_LSM_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

#define LSM_GR_BEGIN 1u
#define LSM_GR_END 2u

typedef u32 (*LSM_MSG_HANDLER_PF)(u32 uiArg, void *pvMsg, u32 uiLen);

/* Registers a client protocol. pvReg: 16-byte record (u32 protocol, 12 zero
 * bytes). Returns a handle usable as a descriptor in the event loop, or -1. */
i32 LSM_RegProtocolHandler(const void *pvReg, LSM_MSG_HANDLER_PF pfnHandler,
                           u32 uiProtocol);
u32 LSM_DeregProtocolHandler(i32 iHandle);
/* Graceful-restart cycle: 1 begins smoothing, 2 ends it (entries of this
 * protocol not added during the cycle are dropped). */
u32 LSM_SendGrEvent(i32 iHandle, u32 uiType);
/* Adds (or replaces) one LSP entry in the batch the next flush delivers. */
u32 LSM_AddLspEntry(i32 iHandle, u32 uiArg, const void *pvEntry, u32 uiCount,
                    u32 uiIfIndex, u32 uiLabel);
/* Deletes the entry whose key starts at pvKey. */
u32 LSM_DeleteLspEntry(i32 iHandle, u32 uiArg, const void *pvKey, u32 uiKeyType,
                       u32 uiAddr);
/* Delivers the entries added or deleted since the last flush. 0 = done. */
u32 LSM_FlushLspEntry(i32 iHandle);
/* Processes what LSM sent on the handle. */
u32 LSM_HandleMsg(i32 iHandle);

PLAT_EXTERN_C_END

#endif
