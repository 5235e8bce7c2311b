/* Member interfaces, internal operations.
 *
 * tbdl_intf.cpp       module state, life cycle, system-boot flag, free callback
 * tbdl_intf_bind.cpp  binding and unbinding of members, member records,
 *                     recovery of stored members
 * tbdl_intf_event.cpp activation of the member-interface events */
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

#endif
