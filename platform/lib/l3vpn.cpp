/* L3VPN library: VRF bindings of interfaces, kept by chassisd (set with
 * chassisctl vrf bind / unbind).
 *
 * The L3VPN event service (registration, batches of bindings, events) comes
 * in a later version of the chassis: until then registration fails, so the
 * daemon's watch keeps retrying, and the other event calls fail too. */
#include "plat_l3vpn.h"

#include "chassis_link.h"
#include "emulated_call.h"

using namespace tbdl::plat;

extern "C" u32 L3VPN_GetVrfIndexByIfIndex(u32 uiIfIndex, u16 *pusVrfIndex)
{
    tbdl::rpc::VrfValue stVrf{0};
    return Emulated(
        "L3VPN_GetVrfIndexByIfIndex", u32{1},
        [&]() -> u32 {
            if (pusVrfIndex == nullptr || link::CallOp<tbdl::rpc::OP_L3VPN_GET_VRF>(0, {uiIfIndex}, &stVrf) != 0) {
                return 1;
            }
            *pusVrfIndex = stVrf.usVrfIndex;
            return 0;
        },
        [&](u32 uiRet) { return Json{{"ifindex", uiIfIndex}, {"vrf", uiRet == 0 ? Json(stVrf.usVrfIndex) : Json()}}; });
}

extern "C" i32 L3VPN_RegEvt(const char *pcName, u32 uiEvtMask, u32 uiArg, L3VPN_EVT_CB_PF pfnCallback, u32 uiArg2)
{
    (void)pfnCallback;
    return Journaled("L3VPN_RegEvt", [] { return i32{-1}; }, [&] {
        return Json{{"name", TextOf(pcName)}, {"mask", uiEvtMask}, {"arg", uiArg}, {"arg2", uiArg2}};
    });
}

extern "C" u32 L3VPN_RequestBatch(i32 iFd, u32 uiVrfIndex)
{
    return Journaled("L3VPN_RequestBatch", [] { return u32{1}; },
                     [&] { return Json{{"fd", iFd}, {"vrf", uiVrfIndex}}; });
}

extern "C" u32 L3VPN_ProcEvt(i32 iFd)
{
    return Journaled("L3VPN_ProcEvt", [] { return u32{1}; }, [&] { return Json{{"fd", iFd}}; });
}

extern "C" u32 L3VPN_FinalStatusNotify(i32 iFd, u16 usVrfIndex, u32 uiEvent)
{
    return Journaled("L3VPN_FinalStatusNotify", [] { return u32{1}; },
                     [&] { return Json{{"fd", iFd}, {"vrf", usVrfIndex}, {"event", uiEvent}}; });
}

extern "C" u32 L3VPN_DeregEvent(i32 iFd)
{
    return Journaled("L3VPN_DeregEvent", [] { return u32{1}; }, [&] { return Json{{"fd", iFd}}; });
}
