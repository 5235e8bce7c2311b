/* Base services: loop registration, periodic timers, the HA hook table and
 * the allocation fault switch. */
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fake_platform.h"
#include "tbdl_bas.h"
#include "tbdl_dbg.h"

namespace {

/* The lowest descriptor number the next open would get. */
int NextFd()
{
    int iFd = dup(0);
    close(iFd);
    return iFd;
}

class BasTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        TBDL_BAS_SetAllocFault(0, 0);
        m_iEpfd = epoll_create(1);
        ASSERT_GE(m_iEpfd, 0);
    }
    void TearDown() override
    {
        TBDL_BAS_SetAllocFault(0, 0);
        close(m_iEpfd);
    }
    /* Waits up to 5 s for one event and dispatches it; false on time-out. */
    bool DispatchOne()
    {
        epoll_event ev{};
        if (epoll_wait(m_iEpfd, &ev, 1, 5000) != 1) {
            return false;
        }
        TBDL_BAS_EpollDispatch(&ev);
        return true;
    }
    int m_iEpfd = -1;
};

/* ---- Loop registration ---- */

struct Seen {
    int iCalls = 0;
    u32 uiEvents = 0;
    u64 ulData = 0;
    char cWho = 0;
};
Seen g_stSeen;

u32 CbA(u32 uiEvents, u64 ulData)
{
    g_stSeen = {g_stSeen.iCalls + 1, uiEvents, ulData, 'A'};
    return 0;
}

u32 CbB(u32 uiEvents, u64 ulData)
{
    g_stSeen = {g_stSeen.iCalls + 1, uiEvents, ulData, 'B'};
    return 0;
}

TEST_F(BasTest, RegistrationHandsBackReportedMaskAndRegisteredDatum)
{
    g_stSeen = {};
    int iEv = eventfd(1, 0); /* readable at once */
    /* A high descriptor number is served like a low one. */
    int iFd = fcntl(iEv, F_DUPFD, 700);
    close(iEv);
    ASSERT_GE(iFd, 700);
    TBDL_EPOLL_CB_S stCb = {EPOLLIN | EPOLLOUT, 0x8000000012345678ull, CbA};
    ASSERT_EQ(0, TBDL_BAS_EpollCtl(m_iEpfd, EPOLL_CTL_ADD, iFd, &stCb));
    ASSERT_TRUE(DispatchOne());
    EXPECT_EQ('A', g_stSeen.cWho);
    EXPECT_EQ(static_cast<u32>(EPOLLIN | EPOLLOUT), g_stSeen.uiEvents);
    EXPECT_EQ(0x8000000012345678ull, g_stSeen.ulData);

    /* MOD replaces mask, datum and callback. */
    TBDL_EPOLL_CB_S stMod = {EPOLLIN, 7, CbB};
    ASSERT_EQ(0, TBDL_BAS_EpollCtl(m_iEpfd, EPOLL_CTL_MOD, iFd, &stMod));
    ASSERT_TRUE(DispatchOne());
    EXPECT_EQ('B', g_stSeen.cWho);
    EXPECT_EQ(static_cast<u32>(EPOLLIN), g_stSeen.uiEvents);
    EXPECT_EQ(7u, g_stSeen.ulData);

    /* After DEL a stale event for the descriptor calls nothing. */
    ASSERT_EQ(0, TBDL_BAS_EpollCtl(m_iEpfd, EPOLL_CTL_DEL, iFd, nullptr));
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = iFd;
    TBDL_BAS_EpollDispatch(&ev);
    EXPECT_EQ(2, g_stSeen.iCalls);
    EXPECT_EQ(0, epoll_wait(m_iEpfd, &ev, 1, 0));
    close(iFd);
}

TEST_F(BasTest, RegistrationFailuresRegisterNothing)
{
    g_stSeen = {};
    int iFd = eventfd(1, 0);
    TBDL_EPOLL_CB_S stCb = {EPOLLIN, 1, CbA};
    /* The kernel refuses: -1 like epoll_ctl, and no callback is kept. */
    EXPECT_EQ(-1, TBDL_BAS_EpollCtl(m_iEpfd, EPOLL_CTL_MOD, iFd, &stCb));
    EXPECT_EQ(-1, TBDL_BAS_EpollCtl(-1, EPOLL_CTL_ADD, iFd, &stCb));
    EXPECT_EQ(-1, TBDL_BAS_EpollCtl(m_iEpfd, EPOLL_CTL_ADD, -1, &stCb));
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = iFd;
    TBDL_BAS_EpollDispatch(&ev);
    EXPECT_EQ(0, g_stSeen.iCalls);
    EXPECT_EQ(0, epoll_wait(m_iEpfd, &ev, 1, 0));
    close(iFd);
}

/* ---- Timers ---- */

struct PeriodCase {
    u32 uiMs;
    time_t lSec;
    long lNsec;
};

class TimerPeriod : public BasTest, public ::testing::WithParamInterface<PeriodCase> {};

u32 NoCb(u32, u64)
{
    return 0;
}

TEST_P(TimerPeriod, ArmsValueAndIntervalWithThePeriod)
{
    const PeriodCase &pc = GetParam();
    i32 iFd = TBDL_BAS_StartTimer(static_cast<u32>(m_iEpfd), NoCb, pc.uiMs, 0);
    ASSERT_GE(iFd, 0);
    itimerspec stCur{};
    ASSERT_EQ(0, timerfd_gettime(iFd, &stCur));
    EXPECT_EQ(pc.lSec, stCur.it_interval.tv_sec);
    EXPECT_EQ(pc.lNsec, stCur.it_interval.tv_nsec);
    /* The first expiry is one period away (less what has elapsed). */
    long long llLeft = stCur.it_value.tv_sec * 1000000000ll + stCur.it_value.tv_nsec;
    long long llPeriod = pc.lSec * 1000000000ll + pc.lNsec;
    EXPECT_LE(llLeft, llPeriod);
    if (llPeriod != 0) {
        EXPECT_GT(llLeft, llPeriod - 500000000ll);
    } else {
        EXPECT_EQ(0, llLeft); /* registered but never fires */
    }
    TBDL_BAS_StopTimer(static_cast<u32>(m_iEpfd), iFd);
}

INSTANTIATE_TEST_SUITE_P(Periods, TimerPeriod,
                         ::testing::Values(PeriodCase{1500, 1, 500000000}, PeriodCase{0, 0, 0},
                                           PeriodCase{999, 0, 999000000}));

struct OneShot {
    i32 iTimerFd = -1;
    u32 uiEpfd = 0;
    int iFired = 0;
    u64 ulData = 0;
    u32 uiReadRet = 1;
};
OneShot g_stShot;

/* A one-shot timer callback in the usual shape: read first, then stop
 * itself and forget the descriptor. */
u32 OneShotCb(u32 uiEvents, u64 ulData)
{
    g_stShot.uiReadRet = TBDL_BAS_TIMERFD_Read(uiEvents, g_stShot.iTimerFd);
    if (g_stShot.uiReadRet != 0) {
        return TBDL_E_FAILED;
    }
    g_stShot.iFired++;
    g_stShot.ulData = ulData;
    TBDL_BAS_StopTimer(g_stShot.uiEpfd, g_stShot.iTimerFd);
    g_stShot.iTimerFd = -1;
    return 0;
}

TEST_F(BasTest, TimerStoppedFromItsOwnCallbackLeavesNoPendingEvent)
{
    g_stShot = {};
    g_stShot.uiEpfd = static_cast<u32>(m_iEpfd);
    g_stShot.iTimerFd = TBDL_BAS_StartTimer(g_stShot.uiEpfd, OneShotCb, 2, 0xFFFFFFFFu);
    ASSERT_GE(g_stShot.iTimerFd, 0);
    i32 iOld = g_stShot.iTimerFd;
    ASSERT_TRUE(DispatchOne());
    EXPECT_EQ(0u, g_stShot.uiReadRet);
    EXPECT_EQ(1, g_stShot.iFired);
    EXPECT_EQ(0xFFFFFFFFull, g_stShot.ulData); /* zero-extended datum */
    /* Several periods later nothing is pending and the descriptor is gone. */
    epoll_event ev{};
    EXPECT_EQ(0, epoll_wait(m_iEpfd, &ev, 1, 20));
    EXPECT_EQ(-1, fcntl(iOld, F_GETFD));
    EXPECT_TRUE(fake::LogLines().empty());
}

TEST_F(BasTest, TimerReadNeedsInputBitAndConsumesOneExpiry)
{
    i32 iFd = TBDL_BAS_StartTimer(static_cast<u32>(m_iEpfd), NoCb, 1, 0);
    ASSERT_GE(iFd, 0);
    epoll_event ev{};
    ASSERT_EQ(1, epoll_wait(m_iEpfd, &ev, 1, 5000));
    /* Error or hang-up only: fails without reading. */
    EXPECT_EQ(TBDL_E_FAILED, TBDL_BAS_TIMERFD_Read(EPOLLERR | EPOLLHUP, iFd));
    EXPECT_EQ(1, epoll_wait(m_iEpfd, &ev, 1, 0));
    EXPECT_EQ(0u, TBDL_BAS_TIMERFD_Read(EPOLLIN, iFd));
    TBDL_BAS_StopTimer(static_cast<u32>(m_iEpfd), iFd);
    /* A closed descriptor cannot be read. */
    EXPECT_EQ(TBDL_E_FAILED, TBDL_BAS_TIMERFD_Read(EPOLLIN, iFd));
}

TEST_F(BasTest, FailedTimerStartLeavesNoDescriptor)
{
    int iBefore = NextFd();
    EXPECT_EQ(-1, TBDL_BAS_StartTimer(0xFFFFFFFFu, NoCb, 1000, 0)); /* no such epoll */
    EXPECT_EQ(iBefore, NextFd());
}

TEST_F(BasTest, StopOfABrokenTimerLogsAndStillCloses)
{
    TBDL_DBG_Init();
    u32 uiType = TBDL_DBG_ERROR;
    TBDL_DBG_SetDebug(0, nullptr, 0, &uiType);
    int iFd = eventfd(0, 0); /* not a timer: disarming fails */
    TBDL_EPOLL_CB_S stCb = {EPOLLIN, 0, NoCb};
    ASSERT_EQ(0, TBDL_BAS_EpollCtl(m_iEpfd, EPOLL_CTL_ADD, iFd, &stCb));
    TBDL_BAS_StopTimer(static_cast<u32>(m_iEpfd), iFd);
    EXPECT_EQ(std::vector<std::string>{"ERROR Failed to set the timer.\r\n"}, fake::LogLines());
    EXPECT_EQ(-1, fcntl(iFd, F_GETFD));
    TBDL_DBG_Fini();
}

/* ---- HA hook table ---- */

struct HookLog {
    int iEnc = 0;
    u16 usType = 0;
    const void *pvData = nullptr;
    int iFlush = 0;
    u16 usBatch = 0xFFFF;
    u16 usSlave = 0;
};
HookLog g_stHook;

TBDL_BAS_HA_FUNC_S MakeHooks()
{
    return {[](u16 usType, const void *pv) -> u32 {
                g_stHook.iEnc++;
                g_stHook.usType = usType;
                g_stHook.pvData = pv;
                return 0x1234;
            },
            []() -> u16 { return 1; },
            [](u16 usBatch) -> u32 {
                g_stHook.iFlush++;
                g_stHook.usBatch = usBatch;
                return 0x5678;
            },
            []() -> u16 { return g_stHook.usSlave; }};
}

void ExpectEmptyHooks()
{
    int iPayload = 0;
    EXPECT_EQ(0, TBDL_BAS_HAIsMaster());
    EXPECT_EQ(0, TBDL_BAS_HAExistSlaveService());
    EXPECT_EQ(0u, TBDL_BAS_EncHAMsg(1, &iPayload));
    EXPECT_EQ(0u, TBDL_BAS_FlushHAMsg());
    EXPECT_EQ(0, g_stHook.iEnc);
    EXPECT_EQ(0, g_stHook.iFlush);
}

TEST(BasHooks, EmptyFilledAndDeregistered)
{
    g_stHook = {};
    ExpectEmptyHooks();

    TBDL_BAS_HA_FUNC_S stHooks = MakeHooks();
    TBDL_BAS_RegHAFunc(&stHooks);
    int iPayload = 0;
    EXPECT_EQ(1, TBDL_BAS_HAIsMaster());
    /* No standby service: nothing is encoded. */
    EXPECT_EQ(0u, TBDL_BAS_EncHAMsg(2, &iPayload));
    EXPECT_EQ(0, g_stHook.iEnc);
    g_stHook.usSlave = 1;
    EXPECT_EQ(1, TBDL_BAS_HAExistSlaveService());
    EXPECT_EQ(0x1234u, TBDL_BAS_EncHAMsg(3, &iPayload));
    EXPECT_EQ(1, g_stHook.iEnc);
    EXPECT_EQ(3, g_stHook.usType);
    EXPECT_EQ(&iPayload, g_stHook.pvData);
    EXPECT_EQ(0x5678u, TBDL_BAS_FlushHAMsg());
    EXPECT_EQ(0, g_stHook.usBatch); /* a real-time flush, not a batch */

    TBDL_BAS_DeregHAFunc();
    g_stHook = {};
    g_stHook.usSlave = 1;
    ExpectEmptyHooks();
}

/* ---- Allocation ---- */

TEST(BasAlloc, FaultSwitchSkipsThenFailsThenRecovers)
{
    struct Step {
        u32 uiSkip, uiCount;
        std::vector<bool> want; /* success of consecutive allocations */
    };
    const Step steps[] = {
        {0, 0, {true, true}},
        {1, 2, {true, false, false, true}},
        {0, 0xFFFFFFFFu, {false, false, false}},
    };
    for (const Step &s : steps) {
        TBDL_BAS_SetAllocFault(s.uiSkip, s.uiCount);
        for (size_t i = 0; i < s.want.size(); i++) {
            auto *puc = static_cast<unsigned char *>(TBDL_BAS_Zalloc(64));
            EXPECT_EQ(s.want[i], puc != nullptr) << "skip " << s.uiSkip << " count " << s.uiCount
                                                 << " allocation " << i;
            for (int k = 0; puc != nullptr && k < 64; k++) {
                ASSERT_EQ(0, puc[k]);
            }
            TBDL_BAS_Free(puc);
        }
    }
    TBDL_BAS_SetAllocFault(0, 0);
    void *pv = TBDL_BAS_Zalloc(1);
    EXPECT_NE(nullptr, pv);
    TBDL_BAS_Free(pv);
}

} // namespace
