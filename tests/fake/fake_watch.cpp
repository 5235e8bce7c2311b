/* Fake L3VPN event service and service-port events: a real eventfd stands
 * for each descriptor. Tests push events; L3VPN_ProcEvt hands the queued
 * ones to the registered handler, RecvServicePortEvent reads them one at a
 * time. */
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstring>
#include <deque>

#include "fake_internal.h"

using namespace fake::detail;

namespace fake {
namespace {

struct L3vEvent {
    uint32_t uiEvent;
    bool bHasData;
    L3VPN_EVT_S stData;
};

struct L3vState {
    int iFd = -1; /* the registration's descriptor, closed by L3VPN_DeregEvent or Reset */
    L3VPN_EVT_CB_PF pfnHandler = nullptr;
    std::deque<L3vEvent> dqEvents;
} g_stL3v;

/* The subscription's descriptor belongs to the daemon once handed over (it
 * closes it), so Reset forgets it without closing it. */
struct SvcState {
    int iFd = -1;
    std::deque<SVCPORT_EVT_S> dqEvents;
} g_stSvc;

void Wake(int iFd)
{
    if (iFd >= 0) {
        (void)eventfd_write(iFd, 1);
    }
}

/* Readable again only while something is queued. */
void Settle(int iFd, bool bMore)
{
    eventfd_t ulCount = 0;
    (void)eventfd_read(iFd, &ulCount);
    if (bMore) {
        Wake(iFd);
    }
}

uint64_t L3vRegister(L3VPN_EVT_CB_PF pfnHandler)
{
    if (pfnHandler == nullptr || g_stL3v.iFd >= 0) {
        return S(-1);
    }
    g_stL3v.iFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    g_stL3v.pfnHandler = pfnHandler;
    g_stL3v.dqEvents.clear();
    return S(g_stL3v.iFd);
}

uint64_t L3vDeliver(int iFd)
{
    if (iFd < 0 || iFd != g_stL3v.iFd) {
        return 1;
    }
    /* The handler may deregister; take the queue as it stands. */
    std::deque<L3vEvent> dq;
    dq.swap(g_stL3v.dqEvents);
    Settle(iFd, false);
    for (const L3vEvent &e : dq) {
        (void)g_stL3v.pfnHandler(e.uiEvent, e.bHasData ? &e.stData : nullptr);
    }
    return 0;
}

uint64_t SvcRecv(int iFd, void *pvEvt, Call &c)
{
    if (iFd < 0 || iFd != g_stSvc.iFd || pvEvt == nullptr || g_stSvc.dqEvents.empty()) {
        return 1;
    }
    memcpy(pvEvt, &g_stSvc.dqEvents.front(), sizeof(SVCPORT_EVT_S));
    g_stSvc.dqEvents.pop_front();
    Settle(iFd, !g_stSvc.dqEvents.empty());
    c.data = Copy(pvEvt, sizeof(SVCPORT_EVT_S));
    return 0;
}

} // namespace

void detail::ResetWatch()
{
    if (g_stL3v.iFd >= 0) {
        close(g_stL3v.iFd);
    }
    g_stL3v = L3vState{};
    g_stSvc = SvcState{};
}

void L3vPush(uint32_t event, const L3VPN_EVT_S *data)
{
    L3vEvent e{event, data != nullptr, data != nullptr ? *data : L3VPN_EVT_S{}};
    g_stL3v.dqEvents.push_back(e);
    Wake(g_stL3v.iFd);
}

size_t L3vPending() { return g_stL3v.dqEvents.size(); }

void SvcPortPush(uint32_t state, uint16_t port)
{
    SVCPORT_EVT_S e{};
    e.uiState = state;
    e.usPort = port;
    g_stSvc.dqEvents.push_back(e);
    Wake(g_stSvc.iFd);
}

int SvcPortFd() { return g_stSvc.iFd; }

} // namespace fake

using namespace fake;

extern "C" {

i32 L3VPN_RegEvt(const char *pcName, u32 uiEvtMask, u32 uiArg, L3VPN_EVT_CB_PF pfnCallback, u32 uiArg2)
{
    Call c = WithText(Mk(__func__, {U(uiEvtMask), U(uiArg), U(uiArg2)}), Str(pcName));
    return Run<i32>(std::move(c), [&] { return L3vRegister(pfnCallback); });
}

/* The batch of a registration that has no binding yet: its begin and end. */
u32 L3VPN_RequestBatch(i32 iFd, u32 uiVrfIndex)
{
    return Run<u32>(Mk(__func__, {S(iFd), U(uiVrfIndex)}), [&]() -> uint64_t {
        if (iFd < 0 || iFd != g_stL3v.iFd) {
            return 1;
        }
        L3vPush(L3VPN_EV_BATCH_BEGIN, nullptr);
        L3vPush(L3VPN_EV_BATCH_END, nullptr);
        return 0;
    });
}

/* Handlers run inside the call, so their own calls are journaled first. */
u32 L3VPN_ProcEvt(i32 iFd)
{
    return Run<u32>(Mk(__func__, {S(iFd)}), [&] { return L3vDeliver(iFd); });
}

u32 L3VPN_FinalStatusNotify(i32 iFd, u16 usVrfIndex, u32 uiEvent)
{
    return Run<u32>(Mk(__func__, {S(iFd), U(usVrfIndex), U(uiEvent)}), uint64_t{0});
}

u32 L3VPN_DeregEvent(i32 iFd)
{
    return Run<u32>(Mk(__func__, {S(iFd)}), [&]() -> uint64_t {
        if (iFd < 0 || iFd != g_stL3v.iFd) {
            return 1;
        }
        close(iFd);
        g_stL3v = L3vState{};
        return 0;
    });
}

i32 SubscribeServicePortEvent(u32 uiKind, const void *pvSub, u16 usPort, u16 usFlag)
{
    Call c = Mk(__func__, {U(uiKind), U(usPort), U(usFlag)}, {}, Copy(pvSub, sizeof(SVCPORT_SUB_S)));
    return Run<i32>(std::move(c), [&]() -> uint64_t {
        g_stSvc.iFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (!g_stSvc.dqEvents.empty()) {
            Wake(g_stSvc.iFd);
        }
        return S(g_stSvc.iFd);
    });
}

u32 RecvServicePortEvent(i32 iFd, void *pvEvt)
{
    return Run<u32>(Mk(__func__, {S(iFd)}), [&](Call &c) { return SvcRecv(iFd, pvEvt, c); });
}

} // extern "C"
