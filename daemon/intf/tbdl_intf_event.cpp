/* Member interfaces while the board is active: activation and
 * deactivation, and the VRF events handed over by the L3VPN watch. */
#include "intf/tbdl_intf_priv.h"

#include "plat_if.h"

/* The subscription to tunnel-interface events and the handling of member
 * VRF events come later; for now activation only clears the system-boot
 * flag, deactivation drops every membership record, and VRF events are
 * accepted without effect. */

u32 TBDL_INTF_Activate(void)
{
    g_stIntfGlobalVar.usSystemBoot = 0;
    return 0;
}

void TBDL_INTF_Deactivate(void)
{
    u64 ulInstance = g_stIntfGlobalVar.ulPdInstance;
    if (ulInstance == TBDL_INTF_PD_NONE) {
        return;
    }

    /* Each entry is deleted before the next is asked for; the store's walk
     * continues above the deleted index. */
    u32 uiIfIndex = 0;
    void *pData = NULL;
    u32 uiRet = IF_GetFirstPrivateData(ulInstance, &uiIfIndex, &pData);
    while (uiRet == 0) {
        (void)IF_DelPrivateData(ulInstance, uiIfIndex, tbdl_intf_FreePrivateData);
        uiRet = IF_GetNextPrivateData(ulInstance, &uiIfIndex, &pData);
    }
}

u32 TBDL_INTF_ProcL3vEv(u32 uiIfType, u32 uiEvent, const TBDL_L3V_EVT_S *pstEvt)
{
    (void)uiIfType;
    (void)uiEvent;
    (void)pstEvt;
    return 0;
}
