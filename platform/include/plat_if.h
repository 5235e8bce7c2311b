/* Interface manager: interface indexes and data, per-interface private data
 * and interface events. */
#ifndef PLAT_IF_H
#define PLAT_IF_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

/* Interface types (data item 18). */
#define IF_TYPE_TUNNEL 39u
#define IF_TYPE_TUNNEL_BUNDLE 96u

/* Data items. */
#define IF_DATA_NUMBER 0u     /* u32: number of the interface within its type */
#define IF_DATA_MAX_COUNT 13u /* by type, u32: slots of the type (bundles: 1024) */
#define IF_DATA_TYPE 18u      /* u32: interface type */
#define IF_DATA_STATE 31u     /* u32: low byte 1 = up, 0 = down */

/* Writes data item uiDataType of interface type uiIfType (a u32) into pvOut.
 * 0 on success; pvOut is untouched on failure. */
u32 IF_GetDataByIfType(u32 uiIfType, u32 uiDataType, void *pvOut);
/* Writes data item uiDataType of interface uiIfIndex (a u32) into pvOut.
 * 0 on success; pvOut is untouched on failure. */
u32 IF_GetDataByIfIndex(u32 uiIfIndex, u32 uiDataType, void *pvOut);
/* Interface index of a full interface name. Names of the form
 * "Tunnel-Bundle%d" are created on demand; other names must exist.
 * 0 when there is no index. */
u32 IF_GetIfIndexByFullName(const char *pcName);
/* Destroys an interface index. pvKey: 8 bytes, the index as a u32 followed
 * by 4 zero bytes. Answers 1 on success. */
u32 IF_DeleteIf(u32 uiKeyType, const void *pvKey);

/* Per-interface private data: one pointer per interface index in an
 * instance. The store frees data with the caller's free callback. */
typedef void (*IF_PD_FREE_PF)(void *pvData);
#define IF_PD_INSTANCE_NONE (~(u64)0)

/* Returns an instance handle, IF_PD_INSTANCE_NONE on failure. */
u64 IF_CreatePDInstance(u32 uiKind, u32 uiFlags, u64 ulArg1, u32 uiArg2);
/* Frees every entry with pfnFree and destroys the instance. 0 on success. */
u32 IF_DestroyPDInstance(u64 ulInstance, IF_PD_FREE_PF pfnFree);
/* 0 and *ppvData set when interface uiIfIndex has data; else non-zero. */
u32 IF_GetPrivateData(u64 ulInstance, u32 uiIfIndex, void **ppvData);
/* Stores pvData for uiIfIndex (the store owns it from then on). 0 = stored;
 * non-zero when the index already has data or the store refuses. */
u32 IF_SetPrivateData(u64 ulInstance, u32 uiIfIndex, void *pvData);
/* Deletes the entry of uiIfIndex, freeing its data with pfnFree. 0 = done. */
u32 IF_DelPrivateData(u64 ulInstance, u32 uiIfIndex, IF_PD_FREE_PF pfnFree);
/* Walk in ascending interface index; 0 while an entry is found. The walk
 * goes on correctly when the current entry was deleted before the next
 * step: GetNext returns the first entry above *puiIfIndex. */
u32 IF_GetFirstPrivateData(u64 ulInstance, u32 *puiIfIndex, void **ppvData);
u32 IF_GetNextPrivateData(u64 ulInstance, u32 *puiIfIndex, void **ppvData);

/* Interface events. */
#define IF_EV_DELETE 0x20000004u
#define IF_EV_UP 0x20000020u
#define IF_EV_DOWN 0x20000040u
#define IF_EV_MASK 0x20000064u

/* One entry of an event: the interface index, then 4 unused bytes. */
typedef struct tagIF_EVENT_ENTRY {
    u32 uiIfIndex;
    u32 uiResv;
} IF_EVENT_ENTRY_S;

typedef u32 (*IF_EVENT_CB_PF)(u32 uiEvent, void *pastIf, u32 uiCount, u32 uiArg);

/* Opens the event descriptor (for the event loop); negative on failure. */
i32 IF_Event_Init(void);
void IF_Event_Fini(i32 iFd);
/* Prepares a selection: pvSelect 16 zero bytes, pvSelectData 24 zero bytes. */
u32 IF_Select_Init(u32 uiKind, void *pvSelect, void *pvSelectData);
/* Limits the selection to one interface type. */
u32 IF_SelectType_Set(u32 uiIfType, void *pvSelect);
/* Subscribes to the events in uiMask for the selection; returns a
 * registration handle, 0 on failure. */
u32 IF_RegIfEventEx(u32 uiModule, u32 uiMask, u32 uiPriority, void *pvSelect,
                    IF_EVENT_CB_PF pfnCallback, u32 uiArg);
u32 IF_UnRegEvent(u32 uiHandle, u32 uiMask);
/* Reads the pending event packet on iFd and calls the registered callback
 * for each event in it. Non-zero on failure. */
u32 IF_ResponseEventPkt(i32 iFd);
/* Acknowledges a processed event. 0 on success. */
u32 IF_NotifyFinalStatus(u32 uiHandle, u32 uiEvent, void *pastIf, u32 uiCount,
                         u32 uiArg);

PLAT_EXTERN_C_END

#endif
