/* Service-port events: state of the service behind a service port. */
#ifndef PLAT_SVCPORT_H
#define PLAT_SVCPORT_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

#define SVCPORT_STATE_UP 1u
#define SVCPORT_STATE_DOWN 2u

/* Subscription record: {1, 0, port, SVCPORT_SUB_FLAG}. */
#define SVCPORT_SUB_KIND 1u
#define SVCPORT_SUB_FLAG 0x8000u
typedef struct tagSVCPORT_SUB {
    u32 uiKind;
    u32 uiResv;
    u16 usPort;
    u16 usFlag;
} SVCPORT_SUB_S;
PLAT_STATIC_ASSERT(sizeof(SVCPORT_SUB_S) == 12, "subscription record is 12 bytes");

/* Event record: {kind, state, port, 2 bytes}. */
typedef struct tagSVCPORT_EVT {
    u32 uiKind;
    u32 uiState;
    u16 usPort;
    u16 usResv;
} SVCPORT_EVT_S;
PLAT_STATIC_ASSERT(sizeof(SVCPORT_EVT_S) == 12, "event record is 12 bytes");

/* Subscribes to the state events of a service port. pvSub: 12-byte record
 * {u32 1, u32 0, u16 port, u16 0x8000}; the port and flag are also passed as
 * arguments. Returns a descriptor for the event loop, or -1. After a
 * subscription the current state of the port is reported as a first event. */
i32 SubscribeServicePortEvent(u32 uiKind, const void *pvSub, u16 usPort,
                              u16 usFlag);
/* Reads one event into the 12-byte record pvEvt {u32, u32 state, u16 port,
 * 2 bytes}. 0 when one event was read. */
u32 RecvServicePortEvent(i32 iFd, void *pvEvt);

PLAT_EXTERN_C_END

#endif
