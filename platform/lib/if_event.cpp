/* Interface events: the event descriptor is a channel to chassisd, and
 * subscriptions are kept in the process (type selection, event mask,
 * callback). IF_ResponseEventPkt reads one packet from the channel and
 * hands its entries to every subscription that selects the event.
 *
 * In this version of the chassis the subscription works but chassisd sends
 * no interface events yet (interface changes made with chassisctl reach the
 * daemon when it next asks); acknowledgements are therefore accepted and
 * not forwarded. */
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "plat_if.h"

#include "chassis_link.h"
#include "emulated_call.h"

using namespace tbdl::plat;
namespace rpc = tbdl::rpc;

namespace {

struct Subscription {
    u32 uiMask;
    u32 uiIfType; /* 0 = any */
    IF_EVENT_CB_PF pfnCallback;
    u32 uiArg;
};

std::map<u32, Subscription> g_subs;
u32 g_nextHandle = 1;

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

/* Hands a push's entries to every subscription that selects its event. */
u32 Deliver(const rpc::Hdr &h, const uint8_t *pucBody, size_t len, Packet &pkt)
{
    rpc::IfevPushHead stHead;
    const uint8_t *pucEntries = nullptr;
    size_t entriesLen = 0;
    if (h.usOp != rpc::OP_IFEV_PUSH || !rpc::DecodeHead(pucBody, len, stHead, pucEntries, entriesLen)) {
        return 1;
    }
    pkt.uiEvent = h.uiArg;
    pkt.uiCount = stHead.uiCount;
    if (entriesLen < size_t{stHead.uiCount} * sizeof(IF_EVENT_ENTRY_S)) {
        return 1;
    }
    std::vector<IF_EVENT_ENTRY_S> entries(stHead.uiCount);
    std::memcpy(entries.data(), pucEntries, entries.size() * sizeof(IF_EVENT_ENTRY_S));
    /* The callbacks may change the subscriptions: call a copy. */
    std::vector<Subscription> subs;
    for (auto &[handle, s] : g_subs) {
        if ((s.uiMask & pkt.uiEvent) == pkt.uiEvent) {
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
        "IF_Event_Init", i32{-1}, [] { return link::OpenChannel(rpc::OP_IFEV_REGISTER, 0, nullptr, 0); },
        [] { return Json::object(); });
}

extern "C" void IF_Event_Fini(i32 iFd)
{
    Journaled(
        "IF_Event_Fini",
        [&] {
            if (iFd >= 0) {
                close(iFd);
            }
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

extern "C" u32 IF_RegIfEventEx(u32 uiModule, u32 uiMask, u32 uiPriority, void *pvSelect,
                               IF_EVENT_CB_PF pfnCallback, u32 uiArg)
{
    return Emulated(
        "IF_RegIfEventEx", u32{0},
        [&]() -> u32 {
            if (pfnCallback == nullptr) {
                return 0;
            }
            Select st{};
            if (pvSelect != nullptr) {
                std::memcpy(&st, pvSelect, sizeof(st));
            }
            u32 uiHandle = g_nextHandle++;
            g_subs[uiHandle] = Subscription{uiMask, st.uiIfType, pfnCallback, uiArg};
            return uiHandle;
        },
        [&] { return Json{{"module", uiModule}, {"mask", uiMask}, {"priority", uiPriority}, {"arg", uiArg}}; });
}

extern "C" u32 IF_UnRegEvent(u32 uiHandle, u32 uiMask)
{
    return Journaled(
        "IF_UnRegEvent", [&]() -> u32 { return g_subs.erase(uiHandle) == 1 ? 0 : 1; },
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
            std::vector<uint8_t> buf(rpc::kMaxMsg);
            ssize_t n = rpc::RecvMsg(iFd, buf.data(), buf.size(), MSG_DONTWAIT);
            if (n < 0 && errno == EAGAIN) {
                return 0; /* nothing pending */
            }
            if (n <= 0) {
                return 1; /* the channel is gone */
            }
            rpc::Hdr h;
            const uint8_t *pucBody = nullptr;
            size_t len = 0;
            (void)rpc::DecodeHead(buf.data(), static_cast<size_t>(n), h, pucBody, len); /* RecvMsg checked the size */
            return Deliver(h, pucBody, len, pkt);
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
        "IF_NotifyFinalStatus", u32{1}, [] { return u32{0}; },
        [&] {
            return Json{{"handle", uiHandle}, {"event", uiEvent}, {"count", uiCount}, {"arg", uiArg},
                        {"entries", HexOf(pastIf, size_t{uiCount} * sizeof(IF_EVENT_ENTRY_S))}};
        });
}
