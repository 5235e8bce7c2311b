/* L3VPN library: VRF bindings of interfaces, kept by chassisd (set with
 * chassisctl vrf bind / unbind), and their events. An interface's VRF is
 * read from chassisd's shared interface table, or asked of chassisd when
 * that cannot be read.
 *
 * A registration is a channel to chassisd opened with the client's name and
 * event mask. Binds and unbinds (events 4 and 8) are pushed on it as they
 * happen; L3VPN_RequestBatch asks for the batch of every current binding
 * (0x400000, one event 4 per binding, 0x800000). L3VPN_ProcEvt reads what
 * is pending and calls the client's handler once per event. Requests and
 * acknowledgements go out one-way on the channel, so nothing but pushes is
 * ever read from it. */
#include <unistd.h>

#include <cstring>
#include <map>
#include <string>

#include "plat_l3vpn.h"

#include "chassis_link.h"
#include "emulated_call.h"
#include "ifmap.h"

using namespace tbdl::plat;
namespace rpc = tbdl::rpc;

static_assert(sizeof(L3VPN_EVT_S) == sizeof(rpc::L3vpnEvt), "event data as chassisd sends it");

namespace {

/* Handler of each registration, by its descriptor. */
std::map<i32, L3VPN_EVT_CB_PF> g_l3vpnRegs;

/* One pushed event: its handler's call. A bind or unbind carries its event
 * data; batch marks carry none. False for a message that is no event. */
bool Dispatch(L3VPN_EVT_CB_PF pfn, const rpc::Hdr &h, const uint8_t *pucBody, size_t len)
{
    if (h.usOp != rpc::OP_L3VPN_PUSH || (len != 0 && len != sizeof(L3VPN_EVT_S))) {
        return false;
    }
    L3VPN_EVT_S stEvt{};
    if (len != 0) {
        std::memcpy(&stEvt, pucBody, sizeof(stEvt));
    }
    /* A handler's result concerns its own work on the event, not the
     * reading of the channel. */
    (void)pfn(h.uiArg, len != 0 ? &stEvt : nullptr);
    return true;
}

/* Every pending event of a registration; 1 when the channel has ended or
 * sent something that is no event. */
u32 DrainEvents(i32 iFd, u32 &uiEvents)
{
    auto it = g_l3vpnRegs.find(iFd);
    if (it == g_l3vpnRegs.end()) {
        return 1;
    }
    L3VPN_EVT_CB_PF pfn = it->second;
    std::vector<uint8_t> buf;
    for (;;) {
        rpc::Hdr h{};
        const uint8_t *pucBody = nullptr;
        size_t len = 0;
        switch (link::ReadPush(iFd, buf, h, pucBody, len)) {
        case link::PushRead::NONE: return 0;
        case link::PushRead::GONE: return 1;
        case link::PushRead::MESSAGE: break;
        }
        if (!Dispatch(pfn, h, pucBody, len)) {
            return 1;
        }
        ++uiEvents;
    }
}

/* 0 with the interface's VRF, or 1 for an unknown interface. */
u32 VrfOf(u32 uiIfIndex, rpc::VrfValue &stVrf)
{
    IfMapSlot stSlot;
    switch (IfMapLocalIndex(uiIfIndex, stSlot)) {
    case IfMapRead::FOUND: stVrf.usVrfIndex = stSlot.usVrf; return 0;
    case IfMapRead::ABSENT: return 1;
    case IfMapRead::UNKNOWN: break;
    }
    return link::CallOp<rpc::OP_L3VPN_GET_VRF>(0, {uiIfIndex}, &stVrf) != 0 ? 1 : 0;
}

} // namespace

extern "C" u32 L3VPN_GetVrfIndexByIfIndex(u32 uiIfIndex, u16 *pusVrfIndex)
{
    tbdl::rpc::VrfValue stVrf{0};
    return Emulated(
        "L3VPN_GetVrfIndexByIfIndex", u32{1},
        [&]() -> u32 {
            if (pusVrfIndex == nullptr || VrfOf(uiIfIndex, stVrf) != 0) {
                return 1;
            }
            *pusVrfIndex = stVrf.usVrfIndex;
            return 0;
        },
        [&](u32 uiRet) { return Json{{"ifindex", uiIfIndex}, {"vrf", uiRet == 0 ? Json(stVrf.usVrfIndex) : Json()}}; });
}

extern "C" i32 L3VPN_RegEvt(const char *pcName, u32 uiEvtMask, u32 uiArg, L3VPN_EVT_CB_PF pfnCallback, u32 uiArg2)
{
    return Emulated(
        "L3VPN_RegEvt", i32{-1},
        [&]() -> i32 {
            std::string name = TextOf(pcName);
            if (pfnCallback == nullptr || name.empty() || name.size() > rpc::kMaxL3vpnClientName) {
                return -1;
            }
            i32 iFd = link::OpenChannel(rpc::OP_L3VPN_REGISTER, uiEvtMask, name.data(), name.size());
            if (iFd >= 0) {
                g_l3vpnRegs[iFd] = pfnCallback;
            }
            return iFd;
        },
        [&] { return Json{{"name", TextOf(pcName)}, {"mask", uiEvtMask}, {"arg", uiArg}, {"arg2", uiArg2}}; });
}

extern "C" u32 L3VPN_RequestBatch(i32 iFd, u32 uiVrfIndex)
{
    return Emulated(
        "L3VPN_RequestBatch", u32{1},
        [&]() -> u32 {
            return g_l3vpnRegs.count(iFd) == 0 ? 1 : link::SendOn<rpc::OP_L3VPN_BATCH>(iFd, uiVrfIndex, rpc::NoBody{});
        },
        [&] { return Json{{"fd", iFd}, {"vrf", uiVrfIndex}}; });
}

extern "C" u32 L3VPN_ProcEvt(i32 iFd)
{
    u32 uiEvents = 0;
    return Emulated(
        "L3VPN_ProcEvt", u32{1}, [&] { return DrainEvents(iFd, uiEvents); },
        [&] { return Json{{"fd", iFd}, {"events", uiEvents}}; });
}

extern "C" u32 L3VPN_FinalStatusNotify(i32 iFd, u16 usVrfIndex, u32 uiEvent)
{
    return Emulated(
        "L3VPN_FinalStatusNotify", u32{1},
        [&]() -> u32 {
            return g_l3vpnRegs.count(iFd) == 0 ? 1
                                                : link::SendOn<rpc::OP_L3VPN_ACK>(iFd, uiEvent, rpc::VrfValue{usVrfIndex});
        },
        [&] { return Json{{"fd", iFd}, {"vrf", usVrfIndex}, {"event", uiEvent}}; });
}

/* Ends the registration: chassisd sees its channel close. */
extern "C" u32 L3VPN_DeregEvent(i32 iFd)
{
    return Journaled(
        "L3VPN_DeregEvent",
        [&]() -> u32 {
            if (g_l3vpnRegs.erase(iFd) == 0) {
                return 1;
            }
            close(iFd);
            return 0;
        },
        [&] { return Json{{"fd", iFd}}; });
}
