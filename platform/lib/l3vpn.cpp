/* L3VPN library: VRF bindings of interfaces, kept by chassisd (set with
 * chassisctl vrf bind / unbind).
 *
 * The L3VPN event service (registration, batches of bindings, events) comes
 * in a later version of the chassis: until then registration fails, so the
 * daemon's watch keeps retrying, and the other event calls fail too. */
#include <cstring>

#include "plat_l3vpn.h"

#include "chassis_link.h"

using namespace tbdl::plat;

extern "C" u32 L3VPN_GetVrfIndexByIfIndex(u32 uiIfIndex, u16 *pusVrfIndex)
{
    int64_t lValue = 1;
    u32 uiRet = 1;
    u16 usVrf = 0;
    if (link::Fails("L3VPN_GetVrfIndexByIfIndex", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else if (pusVrfIndex != nullptr) {
        std::vector<uint8_t> reply;
        if (link::Call(tbdl::rpc::OP_L3VPN_GET_VRF, 0, &uiIfIndex, 4, &reply) == 0 && reply.size() == 2) {
            std::memcpy(&usVrf, reply.data(), 2);
            *pusVrfIndex = usVrf;
            uiRet = 0;
        }
    }
    if (JournalEnabled()) {
        JournalRecord("L3VPN_GetVrfIndexByIfIndex",
                      {{"ifindex", uiIfIndex}, {"vrf", uiRet == 0 ? nlohmann::json(usVrf) : nlohmann::json()}}, uiRet);
    }
    return uiRet;
}

extern "C" i32 L3VPN_RegEvt(const char *pcName, u32 uiEvtMask, u32 uiArg, L3VPN_EVT_CB_PF pfnCallback, u32 uiArg2)
{
    (void)pfnCallback;
    if (JournalEnabled()) {
        JournalRecord("L3VPN_RegEvt",
                      {{"name", pcName != nullptr ? pcName : ""}, {"mask", uiEvtMask}, {"arg", uiArg}, {"arg2", uiArg2}}, -1);
    }
    return -1;
}

extern "C" u32 L3VPN_RequestBatch(i32 iFd, u32 uiVrfIndex)
{
    if (JournalEnabled()) {
        JournalRecord("L3VPN_RequestBatch", {{"fd", iFd}, {"vrf", uiVrfIndex}}, 1);
    }
    return 1;
}

extern "C" u32 L3VPN_ProcEvt(i32 iFd)
{
    if (JournalEnabled()) {
        JournalRecord("L3VPN_ProcEvt", {{"fd", iFd}}, 1);
    }
    return 1;
}

extern "C" u32 L3VPN_FinalStatusNotify(i32 iFd, u16 usVrfIndex, u32 uiEvent)
{
    if (JournalEnabled()) {
        JournalRecord("L3VPN_FinalStatusNotify", {{"fd", iFd}, {"vrf", usVrfIndex}, {"event", uiEvent}}, 1);
    }
    return 1;
}

extern "C" u32 L3VPN_DeregEvent(i32 iFd)
{
    if (JournalEnabled()) {
        JournalRecord("L3VPN_DeregEvent", {{"fd", iFd}}, 1);
    }
    return 1;
}
