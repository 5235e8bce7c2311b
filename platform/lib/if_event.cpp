/* Interface events: the event descriptor is a channel to chassisd.
 * Subscriptions (type selection, event mask, callback) are kept in the
 * process and told to chassisd on the channel, which sends a packet of an
 * event to a channel only when one of its subscriptions selects it.
 * IF_ResponseEventPkt reads one packet and hands its entries to every
 * subscription of the descriptor that selects the event and the type;
 * IF_NotifyFinalStatus sends the acknowledgement back on the same channel.
 *
 * What the process sends on the channel is one-way (no reply), so the only
 * thing ever read from it is pushes. */
#include <unistd.h>

#include <cstring>
#include <map>

#include "plat_if.h"

#include "chassis_link.h"
#include "emulated_call.h"

using namespace tbdl::plat;
namespace rpc = tbdl::rpc;

namespace {

struct Subscription {
    i32 iFd;
    u32 uiMask;
    u32 uiIfType; /* 0 = any */
    IF_EVENT_CB_PF pfnCallback;
    u32 uiArg;
};

struct IfEvState {
    std::map<u32, Subscription> subs;
    u32 uiNextHandle = 1;
    i32 iFd = -1; /* the descriptor of the last IF_Event_Init */
};
IfEvState g_ifev;

/* Selection record as this library fills it: u32 kind, u32 interface type,
 * 8 bytes unused. */
struct Select {
    u32 uiKind;
    u32 uiIfType;
    u32 auiResv[2];
};
static_assert(sizeof(Select) == 16, "selection record is 16 bytes");
static_assert(offsetof(Select, uiIfType) == 4, "interface type at 4");
static_assert(sizeof(IF_EVENT_ENTRY_S) == rpc::kIfevEntryLen, "event entries as chassisd sends them");

/* The event and entries of one push. */
struct Packet {
    u32 uiEvent = 0;
    u32 uiCount = 0;
};

bool Selects(const Subscription &s, i32 iFd, u32 uiEvent, u32 uiIfType)
{
    return s.iFd == iFd && (s.uiMask & uiEvent) == uiEvent && (s.uiIfType == 0 || s.uiIfType == uiIfType);
}

/* Hands a push's entries to every subscription of the descriptor that
 * selects its event and type. */
u32 Deliver(i32 iFd, const rpc::Hdr &h, const uint8_t *pucBody, size_t len, Packet &pkt)
{
    rpc::IfevPushHead stHead;
    const uint8_t *pucEntries = nullptr;
    size_t entriesLen = 0;
    if (h.usOp != rpc::OP_IFEV_PUSH || !rpc::DecodeHead(pucBody, len, stHead, pucEntries, entriesLen)) {
        return 1;
    }
    pkt.uiEvent = h.uiArg;
    pkt.uiCount = stHead.uiCount;
    if (entriesLen != size_t{stHead.uiCount} * sizeof(IF_EVENT_ENTRY_S)) {
        return 1;
    }
    std::vector<IF_EVENT_ENTRY_S> entries(stHead.uiCount);
    std::memcpy(entries.data(), pucEntries, entriesLen);
    /* The callbacks may change the subscriptions: call a copy. */
    std::vector<Subscription> subs;
    for (auto &[handle, s] : g_ifev.subs) {
        if (Selects(s, iFd, pkt.uiEvent, stHead.uiIfType)) {
            subs.push_back(s);
        }
    }
    for (const Subscription &s : subs) {
        (void)s.pfnCallback(pkt.uiEvent, entries.data(), stHead.uiCount, s.uiArg);
    }
    return 0;
}

} // namespace

extern "C" i32 IF_Event_Init(void)
{
    return Emulated(
        "IF_Event_Init", i32{-1},
        [] {
            i32 iFd = link::OpenChannel(rpc::OP_IFEV_REGISTER, 0, nullptr, 0);
            if (iFd >= 0) {
                g_ifev.iFd = iFd;
            }
            return iFd;
        },
        [] { return Json::object(); });
}

extern "C" void IF_Event_Fini(i32 iFd)
{
    Journaled(
        "IF_Event_Fini",
        [&] {
            if (iFd < 0) {
                return;
            }
            std::erase_if(g_ifev.subs, [iFd](const auto &kv) { return kv.second.iFd == iFd; });
            if (g_ifev.iFd == iFd) {
                g_ifev.iFd = -1;
            }
            close(iFd);
        },
        [&] { return Json{{"fd", iFd}}; });
}

extern "C" u32 IF_Select_Init(u32 uiKind, void *pvSelect, void *pvSelectData)
{
    return Emulated(
        "IF_Select_Init", u32{1},
        [&]() -> u32 {
            if (pvSelect == nullptr) {
                return 1;
            }
            Select st{uiKind, 0, {0, 0}};
            std::memcpy(pvSelect, &st, sizeof(st));
            if (pvSelectData != nullptr) {
                std::memset(pvSelectData, 0, 24);
            }
            return 0;
        },
        [&] { return Json{{"kind", uiKind}}; });
}

extern "C" u32 IF_SelectType_Set(u32 uiIfType, void *pvSelect)
{
    return Emulated(
        "IF_SelectType_Set", u32{1},
        [&]() -> u32 {
            if (pvSelect == nullptr) {
                return 1;
            }
            std::memcpy(static_cast<uint8_t *>(pvSelect) + offsetof(Select, uiIfType), &uiIfType, sizeof(uiIfType));
            return 0;
        },
        [&] { return Json{{"type", uiIfType}}; });
}

/* The subscription goes to the channel of the last IF_Event_Init; without
 * one there is nothing to subscribe on. */
extern "C" u32 IF_RegIfEventEx(u32 uiModule, u32 uiMask, u32 uiPriority, void *pvSelect,
                               IF_EVENT_CB_PF pfnCallback, u32 uiArg)
{
    return Emulated(
        "IF_RegIfEventEx", u32{0},
        [&]() -> u32 {
            if (pfnCallback == nullptr || g_ifev.iFd < 0) {
                return 0;
            }
            Select st{};
            if (pvSelect != nullptr) {
                std::memcpy(&st, pvSelect, sizeof(st));
            }
            u32 uiHandle = g_ifev.uiNextHandle++;
            if (link::SendOn<rpc::OP_IFEV_SUBSCRIBE>(g_ifev.iFd, 0, rpc::IfevSub{uiHandle, uiMask, st.uiIfType}) != 0) {
                return 0;
            }
            g_ifev.subs[uiHandle] = Subscription{g_ifev.iFd, uiMask, st.uiIfType, pfnCallback, uiArg};
            return uiHandle;
        },
        [&] { return Json{{"module", uiModule}, {"mask", uiMask}, {"priority", uiPriority}, {"arg", uiArg}}; });
}

extern "C" u32 IF_UnRegEvent(u32 uiHandle, u32 uiMask)
{
    return Journaled(
        "IF_UnRegEvent",
        [&]() -> u32 {
            auto it = g_ifev.subs.find(uiHandle);
            if (it == g_ifev.subs.end()) {
                return 1;
            }
            /* A channel already gone has no subscription left to end. */
            (void)link::SendOn<rpc::OP_IFEV_UNSUBSCRIBE>(it->second.iFd, 0, rpc::IfevSub{uiHandle, it->second.uiMask, 0});
            g_ifev.subs.erase(it);
            return 0;
        },
        [&] { return Json{{"handle", uiHandle}, {"mask", uiMask}}; });
}

extern "C" u32 IF_ResponseEventPkt(i32 iFd)
{
    bool bRan = false;
    Packet pkt;
    return Emulated(
        "IF_ResponseEventPkt", u32{1},
        [&]() -> u32 {
            bRan = true;
            std::vector<uint8_t> buf;
            rpc::Hdr h{};
            const uint8_t *pucBody = nullptr;
            size_t len = 0;
            switch (link::ReadPush(iFd, buf, h, pucBody, len)) {
            case link::PushRead::NONE: return u32{0}; /* nothing pending */
            case link::PushRead::GONE: return u32{1}; /* the channel is gone */
            case link::PushRead::MESSAGE: break;
            }
            return Deliver(iFd, h, pucBody, len, pkt);
        },
        [&] {
            Json args{{"fd", iFd}};
            if (bRan) {
                args["event"] = pkt.uiEvent;
                args["count"] = pkt.uiCount;
            }
            return args;
        });
}

extern "C" u32 IF_NotifyFinalStatus(u32 uiHandle, u32 uiEvent, void *pastIf, u32 uiCount, u32 uiArg)
{
    return Emulated(
        "IF_NotifyFinalStatus", u32{1},
        [&]() -> u32 {
            auto it = g_ifev.subs.find(uiHandle);
            if (it == g_ifev.subs.end() || (uiCount > 0 && pastIf == nullptr)) {
                return 1;
            }
            return link::SendOn<rpc::OP_IFEV_ACK>(it->second.iFd, uiEvent, rpc::IfevAckHead{uiHandle, uiCount}, pastIf,
                                            size_t{uiCount} * sizeof(IF_EVENT_ENTRY_S));
        },
        [&] {
            return Json{{"handle", uiHandle}, {"event", uiEvent}, {"count", uiCount}, {"arg", uiArg},
                        {"entries", HexOf(pastIf, size_t{uiCount} * sizeof(IF_EVENT_ENTRY_S))}};
        });
}
