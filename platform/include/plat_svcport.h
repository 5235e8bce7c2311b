/* Service-port events: state of the service behind a service port. */
#ifndef PLAT_SVCPORT_H
#define PLAT_SVCPORT_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

#define SVCPORT_STATE_UP 1u
#define SVCPORT_STATE_DOWN 2u

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
