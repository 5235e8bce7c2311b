/* Member interfaces, internal operations.
 *
 * tbdl_intf.cpp       module state, life cycle, system-boot flag, free callback
 * tbdl_intf_bind.cpp  binding and unbinding of members, member records,
 *                     recovery of stored members
 * tbdl_intf_event.cpp subscription to interface events, its descriptor
 *                     on the event loop and its restart
 * tbdl_intf_ifev.cpp  interface events of members: up, down, deleted
 * tbdl_intf_vrf.cpp   VRF changes of members and bundles, the L3VPN batch
 *                     mark and the sweep at the end of a batch */
#ifndef TBDL_INTF_PRIV_H
#define TBDL_INTF_PRIV_H

#include "tbdl_intf.h"

/* Private data of a member interface: the bundle it belongs to. */
typedef struct tagTBDL_INTF_PD {
    u32 uiBndNum;
    u16 usVrfIndex;
    i8 cVrfMark;
} TBDL_INTF_PD_S;

/* The module's state: the private-data instance, the interface-event
 * subscription, the VRF sweep mark and the system-boot flag. */
typedef struct tagTBDL_INTF_GLOBAL {
    u64 ulPdInstance;
    u32 uiIfEvHandle;
    i32 iIfEvFd;
    i32 iEpollFd;
    i8 cVrfMark;
    u16 usSystemBoot;
} TBDL_INTF_GLOBAL_S;

extern TBDL_INTF_GLOBAL_S g_stIntfGlobalVar;

/* Private-data instance handle meaning "none". */
#define TBDL_INTF_PD_NONE IF_PD_INSTANCE_NONE

/* Name prefix of member tunnel interfaces: "Tunnel" + tunnel number. */
#define TBDL_INTF_TNL_PREFIX "Tunnel"

/* Arguments of the private-data instance. */
#define TBDL_INTF_PD_KIND 2u
#define TBDL_INTF_PD_FLAGS 0u

/* Interface index of "Tunnel" + uiTnlNum; 0 when there is no such
 * interface. */
u32 tbdl_intf_GetTnlIfIndex(u32 uiTnlNum);

u32 tbdl_intf_BindMemb(u32 uiBndNum, u32 uiIfIndex, const TBDL_MEMB_CFG_S *pstCfg);
u32 tbdl_intf_UnbindMemb(u32 uiBndNum, const TBDL_MEMB_CFG_S *pstCfg);
u32 tbdl_intf_UnbindAllMemb(u32 uiBndNum);
u32 tbdl_intf_SaveMemb(u16 usDel, u32 uiBndNum, const TBDL_MEMB_CFG_S *pstCfg);
/* Free callback of the private-data store; ignores NULL. */
void tbdl_intf_FreePrivateData(void *pData);

/* Interface-event subscription: module, event mask (deleted 0x4, up 0x20,
 * down 0x40) and priority, and the kind of interface selection. */
#define TBDL_INTF_EV_MODULE 0x5140000u
#define TBDL_INTF_EV_MASK IF_EV_MASK
#define TBDL_INTF_EV_PRIORITY 64u
#define TBDL_INTF_SELECT_KIND 5u
/* Error and hang-up bits of an event-loop report. */
#define TBDL_INTF_EPOLL_ERRHUP 0x18u
/* Interface type the L3VPN watch gives with its batch events. */
#define TBDL_INTF_L3V_BATCH_TYPE 256u

u32 tbdl_intf_ProcEventFd(u32 uiEvents, u64 ulData);
u32 tbdl_intf_IfEventCallback(u32 uiEvent, void *pastIf, u32 uiCount, u32 uiArg);
u32 tbdl_intf_ProcIfEvent(u32 uiIfIndex, u32 uiEvent);
u32 tbdl_intf_ProcVrfChange(u32 uiIfType, u32 uiIfIndex, u16 usVrfIndex);
/* End of an L3VPN batch: members whose VRF was not confirmed leave. */
void tbdl_intf_SweepVrf(void);

#endif
