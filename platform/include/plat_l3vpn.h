/* L3VPN service: VRF bindings of interfaces and their events. */
#ifndef PLAT_L3VPN_H
#define PLAT_L3VPN_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

#define L3VPN_EV_VRF_BIND 4u
#define L3VPN_EV_VRF_UNBIND 8u
#define L3VPN_EV_BATCH_BEGIN 0x400000u
#define L3VPN_EV_BATCH_END 0x800000u

/* Event data: VRF index at offset 0, 2 bytes not used, interface index at
 * offset 4. */
typedef struct tagL3VPN_EVT {
    u16 usVrfIndex;
    u16 usResv;
    u32 uiIfIndex;
} L3VPN_EVT_S;

typedef u32 (*L3VPN_EVT_CB_PF)(u32 uiEvent, const void *pvEvt);

/* Writes the VRF index interface uiIfIndex is bound to (0 = none) into
 * *pusVrfIndex. 0 on success; *pusVrfIndex untouched on failure. */
u32 L3VPN_GetVrfIndexByIfIndex(u32 uiIfIndex, u16 *pusVrfIndex);
/* Registers client pcName for the events selected by uiEvtMask; returns a
 * descriptor for the event loop, or -1. */
i32 L3VPN_RegEvt(const char *pcName, u32 uiEvtMask, u32 uiArg,
                 L3VPN_EVT_CB_PF pfnCallback, u32 uiArg2);
/* Asks for the batch of all current bindings: batch begin, one bind event
 * per binding, batch end. */
u32 L3VPN_RequestBatch(i32 iFd, u32 uiVrfIndex);
/* Reads what is pending on iFd and calls the callback once per event. */
u32 L3VPN_ProcEvt(i32 iFd);
/* Acknowledges one processed event. */
u32 L3VPN_FinalStatusNotify(i32 iFd, u16 usVrfIndex, u32 uiEvent);
u32 L3VPN_DeregEvent(i32 iFd);

PLAT_EXTERN_C_END

#endif
