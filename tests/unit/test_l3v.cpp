/* L3VPN and service-port watches against the recording fake. The bundle and member modules are replaced in this
 * executable (linker wraps) by recorders with distinct results, so each event's calls and summed result are seen
 * exactly. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "dbg/tbdl_dbg_priv.h"
#include "fake_platform.h"
#include "l3v/tbdl_l3v_priv.h"
#include "servicewatch/tbdl_servicewatch_priv.h"
#include "tbdl_bas.h"

namespace {
using Strs = std::vector<std::string>;
Strs g_mods; /* "BND num ev vrf", "INTF type ev ifindex" (ifindex "-" without data), in hex */
constexpr u32 kBndRet = 0x10, kIntfRet = 0x1;
std::string Hex(u64 v) { return (std::stringstream() << std::hex << v).str(); }
} // namespace

extern "C" u32 __wrap__Z18TBDL_BND_ProcL3vEvjjt(u32 uiBndNum, u32 uiEvent, u16 usVrf)
{
    g_mods.push_back("BND " + Hex(uiBndNum) + " " + Hex(uiEvent) + " " + Hex(usVrf));
    return kBndRet;
}
extern "C" u32 __wrap__Z19TBDL_INTF_ProcL3vEvjjPK15tagTBDL_L3V_EVT(u32 uiType, u32 uiEvent, const TBDL_L3V_EVT_S *p)
{
    g_mods.push_back("INTF " + Hex(uiType) + " " + Hex(uiEvent) + " " + (p ? Hex(p->uiIfIndex) : "-"));
    return kIntfRet;
}

namespace {

enum Start { IDLE, RETRYING, REGISTERED };
using Reg = std::pair<bool, bool>; /* registered, retrying */
const Strs kRegCalls = {"L3VPN_RegEvt", "L3VPN_RequestBatch", "L3VPN_DeregEvent"};

class L3vTest : public ::testing::Test {
protected:
    int epfd = epoll_create1(0);
    TBDL_L3V_GLOBAL_S &g = g_stTbdlL3vGlobal;

    void SetUp() override
    {
        fake::Reset();
        TBDL_DBG_Init();
        g_stTbdlLogVar.uiDebugSwitch = 3;
        TBDL_L3V_Init(epfd);
        ASSERT_EQ(TBDL_SERVICEWATCH_Init(epfd), TBDL_OK);
    }
    void TearDown() override
    {
        TBDL_SERVICEWATCH_Deactivate();
        TBDL_SERVICEWATCH_Fini();
        TBDL_L3V_Deactivate();
        EXPECT_EQ(std::make_pair(g.iEvtFd, g.iTimerFd), std::make_pair(-1, -1));
        TBDL_L3V_Fini();
        TBDL_DBG_Fini();
        close(epfd);
    }
    std::pair<bool, bool> State() const { return {g.iEvtFd != -1, g.iTimerFd != -1}; } /* registered, retrying */
    void Enter(Start s)
    {
        if (s == RETRYING) {
            fake::FailOnce("L3VPN_RegEvt", uint64_t(-1));
        }
        if (s != IDLE) {
            TBDL_L3V_Rib4ServicePort(1);
        }
        ASSERT_EQ(State(), std::make_pair(s == REGISTERED, s == RETRYING));
        fake::ClearJournal();
        g_mods.clear();
    }
    /* Waits (5 s at most) for one event on the loop and dispatches it. */
    void Pump()
    {
        struct epoll_event ev{};
        ASSERT_EQ(epoll_wait(epfd, &ev, 1, 5000), 1) << "no event within the deadline";
        TBDL_BAS_EpollDispatch(&ev);
    }
    /* Makes the retry timer expire now instead of after its period. */
    void Expire()
    {
        struct itimerspec spec{{1, 0}, {0, 1}};
        ASSERT_EQ(timerfd_settime(g.iTimerFd, 0, &spec, nullptr), 0);
        Pump();
    }
    static size_t Errors()
    {
        auto v = fake::LogLines();
        return size_t(std::count(v.begin(), v.end(), "ERROR Failed to register to L3VPN.\r\n"));
    }
};

TEST_F(L3vTest, ServiceStatesInEveryRegistrationState)
{
    struct Row {
        Start start;
        u32 state;
        bool regFails;
        std::string calls; /* initials of RegEvt, RequestBatch, DeregEvent */
        bool registered, retrying;
    } rows[] = {
        {IDLE, 1, 0, "RB", 1, 0}, {IDLE, 1, 1, "R", 0, 1}, {IDLE, 2, 0, "", 0, 0}, {IDLE, 3, 0, "", 0, 1},
        {IDLE, 9, 0, "", 0, 0}, {RETRYING, 1, 0, "RB", 1, 0}, {RETRYING, 1, 1, "R", 0, 1}, {RETRYING, 2, 0, "", 0, 0},
        {RETRYING, 3, 0, "", 0, 1}, {REGISTERED, 1, 0, "", 1, 0}, {REGISTERED, 2, 0, "D", 0, 0},
        {REGISTERED, 3, 0, "", 1, 1}, {REGISTERED, 0, 0, "", 1, 0},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE("start " + std::to_string(r.start) + " state " + std::to_string(r.state));
        Enter(r.start);
        int timer = g.iTimerFd;
        if (r.regFails) {
            fake::FailOnce("L3VPN_RegEvt", uint64_t(-1));
        }
        TBDL_L3V_Rib4ServicePort(r.state);
        std::string calls;
        for (const std::string &n : fake::Names(kRegCalls)) {
            calls += n == "L3VPN_RegEvt" ? 'R' : n == "L3VPN_RequestBatch" ? 'B' : 'D';
        }
        EXPECT_EQ(calls, r.calls);
        EXPECT_EQ(State(), std::make_pair(r.registered, r.retrying));
        EXPECT_TRUE(timer == -1 || !r.retrying || g.iTimerFd == timer) << "a running timer is kept";
        TBDL_L3V_Deactivate();
    }
}

/* Registration asks for the whole batch; a refusal, or a descriptor the loop cannot take, leaves nothing. */
TEST_F(L3vTest, RegistrationAndItsFailures)
{
    const Strs expect[] = {
        {"L3VPN_RegEvt", "L3VPN_RequestBatch"}, {"L3VPN_RegEvt"}, {"L3VPN_RegEvt", "L3VPN_DeregEvent"}};
    for (int fail : {0, 1, 2}) {
        SCOPED_TRACE(fail);
        fake::Reset();
        TBDL_L3V_Init(fail == 2 ? -1 : epfd);
        if (fail == 1) {
            fake::FailOnce("L3VPN_RegEvt", uint64_t(-1));
        }
        EXPECT_EQ(tbdl_l3v_Reg(), fail ? TBDL_E_FAILED : TBDL_OK);
        auto reg = fake::CallsOf("L3VPN_RegEvt").at(0);
        EXPECT_EQ(std::make_pair(reg.text, reg.args), std::make_pair(std::string("TBDL"), std::vector<u64>{12, 0, 0}));
        EXPECT_EQ(fake::Names(kRegCalls), expect[fail]);
        EXPECT_EQ(std::make_pair(g.iEvtFd, Errors()), std::make_pair(fail ? -1 : int(reg.result), size_t(fail != 0)));
        if (fail != 1) {
            EXPECT_EQ(fake::CallsOf(expect[fail][1]).at(0).args.at(0), reg.result) << "on the new descriptor";
        }
        if (fail == 0) {
            EXPECT_EQ(fake::CallsOf("L3VPN_RequestBatch").at(0).args.at(1), 0xFFFFFFFFu);
            Pump(); /* the batch arrives on the descriptor */
            EXPECT_EQ(g_mods, (Strs{"BND ffffffff 400000 0", "INTF 100 400000 -", "BND ffffffff 800000 0",
                                    "INTF 100 800000 -"}));
        }
        TBDL_L3V_Deactivate();
    }
    EXPECT_EQ(tbdl_l3v_StartRetryTimer(), TBDL_E_FAILED) << "no loop to put the timer on";
    EXPECT_EQ(std::make_pair(g.iTimerFd, Errors()), std::make_pair(-1, size_t(1)));
    TBDL_L3V_Init(epfd);
}

/* A refused registration is retried every second, each attempt logged, until one succeeds and stops the timer. */
TEST_F(L3vTest, RetryTimerAttemptsUntilSuccess)
{
    fake::FailAlways("L3VPN_RegEvt", uint64_t(-1));
    TBDL_L3V_Rib4ServicePort(1);
    int timer = g.iTimerFd;
    struct itimerspec cur{};
    ASSERT_EQ(timerfd_gettime(timer, &cur), 0);
    EXPECT_EQ(std::make_pair(cur.it_interval.tv_sec, cur.it_interval.tv_nsec), std::make_pair(time_t(1), 0L));
    for (size_t attempt : {2u, 3u}) {
        Expire();
        EXPECT_EQ(std::make_pair(fake::CountOf("L3VPN_RegEvt"), Errors()), std::make_pair(attempt, attempt));
    }
    fake::ClearFailures();
    Expire();
    EXPECT_EQ(std::make_tuple(State(), fcntl(timer, F_GETFD), fake::CountOf("L3VPN_RequestBatch")),
              std::make_tuple(std::make_pair(true, false), -1, size_t(1)));
    Pump(); /* the batch, so that only the timer wakes the loop next */
    TBDL_L3V_Rib4ServicePort(3);
    Expire();
    EXPECT_EQ(std::make_pair(State(), fake::CountOf("L3VPN_RegEvt")), std::make_pair(std::make_pair(true, false), 4ul))
        << "the attempt finds the registration in place";
}

/* Hang-up waits for the service-port watch; an error or a failed read retries; with both, the retry wins. */
TEST_F(L3vTest, DescriptorCallbackConsequences)
{
    struct Row {
        u32 mask;
        bool procFails, retryingBefore, retryingAfter;
    } rows[] = {{EPOLLIN, false, false, false},          {EPOLLIN, true, false, true},
                {EPOLLHUP, false, true, false},          {EPOLLERR, false, false, true},
                {EPOLLHUP | EPOLLERR, false, true, true}, {EPOLLIN | EPOLLHUP, false, false, false}};
    for (const Row &r : rows) {
        SCOPED_TRACE(std::to_string(r.mask) + (r.procFails ? " failing" : ""));
        Enter(REGISTERED);
        TBDL_L3V_Rib4ServicePort(r.retryingBefore ? 3 : 0);
        if (r.procFails) {
            fake::FailOnce("L3VPN_ProcEvt", 5);
        }
        EXPECT_EQ(tbdl_l3v_SockCb(r.mask, uint64_t(g.iEvtFd)), r.procFails ? 5u : 0u);
        bool keep = r.mask == EPOLLIN && !r.procFails;
        EXPECT_EQ(std::make_pair(fake::CountOf("L3VPN_ProcEvt"), fake::CountOf("L3VPN_DeregEvent")),
                  std::make_pair(size_t((r.mask & EPOLLIN) != 0), size_t(!keep)));
        EXPECT_EQ(State(), std::make_pair(keep, r.retryingAfter));
        TBDL_L3V_Deactivate();
    }
}

/* Each event reaches the modules its interface type calls for and is acknowledged with its VRF index. */
TEST_F(L3vTest, EventDispatchAndAcknowledgement)
{
    u32 tnl = fake::AddTunnel(5), bnd = fake::AddTunnel(3), other = fake::AddTunnel(8);
    fake::FindInterface(bnd)->type = 96;
    fake::FindInterface(other)->type = 24;
    struct Row {
        u32 ev;
        bool data;
        u32 ifIndex, result;
        u64 ackVrf;
        Strs mods;
    } rows[] = {
        {4, true, tnl, kIntfRet, 7, {"INTF 27 4 " + Hex(tnl)}},
        {8, true, bnd, kIntfRet + kBndRet, 7, {"INTF 60 8 " + Hex(bnd), "BND 3 8 7"}},
        {4, true, other, TBDL_E_FAILED, 7, {}}, {4, true, 0xDEAD, TBDL_E_FAILED, 7, {}},
        {4, false, 0, 0, 0xFFFF, {}}, {2, true, tnl, 0, 0xFFFF, {}},
        {0x800000, true, tnl, kIntfRet + kBndRet, 0xFFFF, {"BND ffffffff 800000 0", "INTF 100 800000 -"}},
    };
    Enter(REGISTERED);
    for (const Row &r : rows) {
        SCOPED_TRACE(Hex(r.ev) + " on " + Hex(r.ifIndex));
        g_mods.clear();
        fake::ClearJournal();
        TBDL_L3V_EVT_S evt{7, 0xAAAA, r.ifIndex};
        EXPECT_EQ(tbdl_l3v_ProcEvt(r.ev, r.data ? &evt : nullptr), r.result);
        EXPECT_EQ(g_mods, r.mods);
        auto ack = fake::CallsOf("L3VPN_FinalStatusNotify").at(0).args;
        EXPECT_EQ(ack, (std::vector<u64>{u64(g.iEvtFd), r.ackVrf, r.ev}));
    }
}

/* The subscription names the L3VPN service port; registration waits for the first state event on the loop. */
TEST_F(L3vTest, ServicePortSubscription)
{
    EXPECT_EQ(TBDL_SERVICEWATCH_Activate(), TBDL_OK);
    auto sub = fake::CallsOf("SubscribeServicePortEvent").at(0);
    EXPECT_EQ(sub.args, (std::vector<u64>{1, 2168, 0x8000}));
    const struct {
        u32 uiKind, uiZero;
        u16 usPort, usFlag;
    } rec = {1, 0, 2168, 0x8000};
    EXPECT_EQ(sub.rec, fake::Bytes((const u8 *)&rec, (const u8 *)&rec + sizeof(rec)));
    EXPECT_EQ(std::make_pair(g_stTbldPortGlobal.iSubFd, State()), std::make_pair(int(sub.result), Reg(0, 0)));
    fake::SvcPortPush(1, 2168);
    Pump();
    EXPECT_EQ(State(), std::make_pair(true, false));
}

/* Only up and down of port 2168 reach the L3VPN watch. */
TEST_F(L3vTest, ServicePortEventsSwitchTheRegistration)
{
    ASSERT_EQ(TBDL_SERVICEWATCH_Activate(), TBDL_OK);
    struct Row {
        u32 state;
        u16 port;
        bool regFails, registered, retrying;
    } rows[] = {{1, 2169, 0, 0, 0}, {3, 2168, 0, 0, 0}, {1, 2168, 1, 0, 1}, {2, 2168, 0, 0, 0},
                {1, 2168, 0, 1, 0}, {0, 2168, 0, 1, 0}, {2, 2169, 0, 1, 0}, {2, 2168, 0, 0, 0}};
    for (const Row &r : rows) {
        SCOPED_TRACE(std::to_string(r.state) + " on " + std::to_string(r.port));
        if (r.regFails) {
            fake::FailOnce("L3VPN_RegEvt", uint64_t(-1));
        }
        fake::SvcPortPush(r.state, r.port);
        EXPECT_EQ(tbdl_servicewatch_SockCb(EPOLLIN, u64(g_stTbldPortGlobal.iSubFd)), TBDL_OK);
        EXPECT_EQ(State(), std::make_pair(r.registered, r.retrying));
    }
}

/* Without a subscription (refused, or not taken by the loop) or when it breaks, the L3VPN watch retries by
 * itself; an event read with the hang-up is applied first. Deactivation closes without telling the L3VPN watch. */
TEST_F(L3vTest, ServicePortFallbackAndClose)
{
    struct Row {
        const char *name;
        bool refused, loopFails;
        u32 mask;
        bool registered, retrying;
    } rows[] = {{"refused", 1, 0, 0, 0, 1},       {"loop refuses", 0, 1, 0, 0, 1},      {"error", 0, 0, EPOLLERR, 0, 1},
                {"hang-up", 0, 0, EPOLLIN | EPOLLHUP, 1, 1}, {"deactivation", 0, 0, EPOLLIN, 1, 0}};
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        fake::Reset();
        ASSERT_EQ(TBDL_SERVICEWATCH_Init(r.loopFails ? -1 : epfd), TBDL_OK);
        if (r.refused) {
            fake::FailOnce("SubscribeServicePortEvent", uint64_t(-1));
        }
        EXPECT_EQ(TBDL_SERVICEWATCH_Activate(), TBDL_OK);
        int fd = fake::SvcPortFd();
        fake::SvcPortPush(1, 2168);
        if (r.mask != 0) {
            EXPECT_EQ(tbdl_servicewatch_SockCb(r.mask, u64(fd)), TBDL_OK);
        }
        TBDL_SERVICEWATCH_Deactivate();
        /* Closed, or its number taken since by the retry timer the fallback started. */
        bool closed = fcntl(fd, F_GETFD) == -1 || fd == g.iTimerFd;
        EXPECT_EQ(std::make_tuple(g_stTbldPortGlobal.iSubFd, closed, State()),
                  std::make_tuple(-1, true, std::make_pair(r.registered, r.retrying)));
        TBDL_L3V_Deactivate();
    }
}

} // namespace
