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
#include <mutex>

#include "plat_if.h"

#include "chassis_link.h"

using namespace tbdl::plat;

namespace {

struct Subscription {
    u32 uiMask;
    u32 uiIfType; /* 0 = any */
    IF_EVENT_CB_PF pfnCallback;
    u32 uiArg;
};

std::mutex g_mutex;
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

} // namespace

extern "C" i32 IF_Event_Init(void)
{
    int64_t lValue = -1;
    i32 iFd;
    if (link::Fails("IF_Event_Init", &lValue)) {
        iFd = static_cast<i32>(lValue);
    } else {
        iFd = link::OpenChannel(tbdl::rpc::OP_IFEV_REGISTER, 0, nullptr, 0);
    }
    if (JournalEnabled()) {
        JournalRecord("IF_Event_Init", nlohmann::json::object(), iFd);
    }
    return iFd;
}

extern "C" void IF_Event_Fini(i32 iFd)
{
    if (iFd >= 0) {
        close(iFd);
    }
    if (JournalEnabled()) {
        JournalRecord("IF_Event_Fini", {{"fd", iFd}}, nullptr);
    }
}

extern "C" u32 IF_Select_Init(u32 uiKind, void *pvSelect, void *pvSelectData)
{
    u32 uiRet = 1;
    int64_t lValue = 1;
    if (link::Fails("IF_Select_Init", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else if (pvSelect != nullptr) {
        Select st{uiKind, 0, {0, 0}};
        std::memcpy(pvSelect, &st, sizeof(st));
        if (pvSelectData != nullptr) {
            std::memset(pvSelectData, 0, 24);
        }
        uiRet = 0;
    }
    if (JournalEnabled()) {
        JournalRecord("IF_Select_Init", {{"kind", uiKind}}, uiRet);
    }
    return uiRet;
}

extern "C" u32 IF_SelectType_Set(u32 uiIfType, void *pvSelect)
{
    u32 uiRet = 1;
    int64_t lValue = 1;
    if (link::Fails("IF_SelectType_Set", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else if (pvSelect != nullptr) {
        std::memcpy(static_cast<uint8_t *>(pvSelect) + offsetof(Select, uiIfType), &uiIfType, 4);
        uiRet = 0;
    }
    if (JournalEnabled()) {
        JournalRecord("IF_SelectType_Set", {{"type", uiIfType}}, uiRet);
    }
    return uiRet;
}

extern "C" u32 IF_RegIfEventEx(u32 uiModule, u32 uiMask, u32 uiPriority, void *pvSelect,
                               IF_EVENT_CB_PF pfnCallback, u32 uiArg)
{
    u32 uiHandle = 0;
    int64_t lValue = 0;
    if (link::Fails("IF_RegIfEventEx", &lValue)) {
        uiHandle = static_cast<u32>(lValue);
    } else if (pfnCallback != nullptr) {
        Select st{};
        if (pvSelect != nullptr) {
            std::memcpy(&st, pvSelect, sizeof(st));
        }
        std::lock_guard<std::mutex> lock(g_mutex);
        uiHandle = g_nextHandle++;
        g_subs[uiHandle] = Subscription{uiMask, st.uiIfType, pfnCallback, uiArg};
    }
    if (JournalEnabled()) {
        JournalRecord("IF_RegIfEventEx",
                      {{"module", uiModule}, {"mask", uiMask}, {"priority", uiPriority}, {"arg", uiArg}}, uiHandle);
    }
    return uiHandle;
}

extern "C" u32 IF_UnRegEvent(u32 uiHandle, u32 uiMask)
{
    u32 uiRet;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        uiRet = g_subs.erase(uiHandle) == 1 ? 0 : 1;
    }
    if (JournalEnabled()) {
        JournalRecord("IF_UnRegEvent", {{"handle", uiHandle}, {"mask", uiMask}}, uiRet);
    }
    return uiRet;
}

extern "C" u32 IF_ResponseEventPkt(i32 iFd)
{
    int64_t lValue = 1;
    if (link::Fails("IF_ResponseEventPkt", &lValue)) {
        if (JournalEnabled()) {
            JournalRecord("IF_ResponseEventPkt", {{"fd", iFd}}, lValue);
        }
        return static_cast<u32>(lValue);
    }
    std::vector<uint8_t> buf(tbdl::rpc::kMaxMsg);
    ssize_t n = tbdl::rpc::RecvMsg(iFd, buf.data(), buf.size(), MSG_DONTWAIT);
    u32 uiRet = 0;
    u32 uiEvent = 0;
    u32 uiCount = 0;
    if (n < 0 && errno == EAGAIN) {
        uiRet = 0; /* nothing pending */
    } else if (n <= 0) {
        uiRet = 1; /* the channel is gone */
    } else {
        tbdl::rpc::Hdr h;
        std::memcpy(&h, buf.data(), sizeof(h));
        size_t len = static_cast<size_t>(n) - sizeof(h);
        const uint8_t *p = buf.data() + sizeof(h);
        if (h.usOp != tbdl::rpc::OP_IFEV_PUSH || len < 4) {
            uiRet = 1;
        } else {
            uiEvent = h.uiArg;
            std::memcpy(&uiCount, p, 4);
            if (len - 4 < size_t{uiCount} * sizeof(IF_EVENT_ENTRY_S)) {
                uiRet = 1;
            } else {
                std::vector<IF_EVENT_ENTRY_S> entries(uiCount);
                std::memcpy(entries.data(), p + 4, uiCount * sizeof(IF_EVENT_ENTRY_S));
                std::vector<Subscription> subs;
                {
                    std::lock_guard<std::mutex> lock(g_mutex);
                    for (auto &[handle, s] : g_subs) {
                        if ((s.uiMask & uiEvent) == uiEvent) {
                            subs.push_back(s);
                        }
                    }
                }
                for (const Subscription &s : subs) {
                    (void)s.pfnCallback(uiEvent, entries.data(), uiCount, s.uiArg);
                }
            }
        }
    }
    if (JournalEnabled()) {
        JournalRecord("IF_ResponseEventPkt", {{"fd", iFd}, {"event", uiEvent}, {"count", uiCount}}, uiRet);
    }
    return uiRet;
}

extern "C" u32 IF_NotifyFinalStatus(u32 uiHandle, u32 uiEvent, void *pastIf, u32 uiCount, u32 uiArg)
{
    int64_t lValue = 1;
    u32 uiRet = 0;
    if (link::Fails("IF_NotifyFinalStatus", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    }
    if (JournalEnabled()) {
        JournalRecord("IF_NotifyFinalStatus",
                      {{"handle", uiHandle}, {"event", uiEvent}, {"count", uiCount}, {"arg", uiArg},
                       {"entries", HexOf(pastIf, pastIf != nullptr ? size_t{uiCount} * 8 : 0)}},
                      uiRet);
    }
    return uiRet;
}
