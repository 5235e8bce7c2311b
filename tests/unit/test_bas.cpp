/* Base services: loop registration and the timer's failure paths. */
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fake_platform.h"
#include "tbdl_bas.h"
#include "tbdl_dbg.h"

namespace {

struct Seen {
    int iCalls = 0;
    u32 uiEvents = 0;
    u64 ulData = 0;
    char cWho = 0;
    bool operator==(const Seen &) const = default;
};
Seen g_stSeen;

template <char W>
u32 Cb(u32 uiEvents, u64 ulData)
{
    g_stSeen = {g_stSeen.iCalls + 1, uiEvents, ulData, W};
    return 0;
}

u32 NoCb(u32, u64) { return 0; }

class BasTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        g_stSeen = {};
        m_iEpfd = epoll_create(1);
        ASSERT_GE(m_iEpfd, 0);
    }
    void TearDown() override { close(m_iEpfd); }

    /* Waits up to 5 s for one event and dispatches it. */
    bool DispatchOne()
    {
        epoll_event ev{};
        bool bGot = epoll_wait(m_iEpfd, &ev, 1, 5000) == 1;
        if (bGot) {
            TBDL_BAS_EpollDispatch(&ev);
        }
        return bGot;
    }

    int m_iEpfd = -1;
};

TEST_F(BasTest, RegistrationHandsBackReportedMaskAndRegisteredDatum)
{
    int iEv = eventfd(1, 0); /* readable at once */
    int iFd = fcntl(iEv, F_DUPFD, 700); /* a high number is served like a low one */
    close(iEv);
    ASSERT_GE(iFd, 700);
    TBDL_EPOLL_CB_S stCb = {EPOLLIN | EPOLLOUT, 0x8000000012345678ull, Cb<'A'>};
    ASSERT_EQ(0, TBDL_BAS_EpollCtl(m_iEpfd, EPOLL_CTL_ADD, iFd, &stCb));
    ASSERT_TRUE(DispatchOne());
    EXPECT_EQ((Seen{1, EPOLLIN | EPOLLOUT, 0x8000000012345678ull, 'A'}), g_stSeen);

    /* MOD replaces mask, datum and callback. */
    TBDL_EPOLL_CB_S stMod = {EPOLLIN, 7, Cb<'B'>};
    ASSERT_EQ(0, TBDL_BAS_EpollCtl(m_iEpfd, EPOLL_CTL_MOD, iFd, &stMod));
    ASSERT_TRUE(DispatchOne());
    EXPECT_EQ((Seen{2, EPOLLIN, 7, 'B'}), g_stSeen);

    /* After DEL, and after refused registrations, a stale event for the descriptor calls nothing. */
    ASSERT_EQ(0, TBDL_BAS_EpollCtl(m_iEpfd, EPOLL_CTL_DEL, iFd, nullptr));
    EXPECT_EQ(-1, TBDL_BAS_EpollCtl(m_iEpfd, EPOLL_CTL_MOD, iFd, &stCb));
    EXPECT_EQ(-1, TBDL_BAS_EpollCtl(-1, EPOLL_CTL_ADD, iFd, &stCb));
    EXPECT_EQ(-1, TBDL_BAS_EpollCtl(m_iEpfd, EPOLL_CTL_ADD, -1, &stCb));
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = iFd;
    TBDL_BAS_EpollDispatch(&ev);
    EXPECT_EQ(0, epoll_wait(m_iEpfd, &ev, 1, 0));
    EXPECT_EQ(2, g_stSeen.iCalls);
    close(iFd);
}

TEST_F(BasTest, FailedStartLeavesNoDescriptorAndFailedStopLogsAndStillCloses)
{
    int iNext = dup(0);
    close(iNext);
    EXPECT_EQ(-1, TBDL_BAS_StartTimer(0xFFFFFFFFu, NoCb, 1000, 0)); /* no such epoll */
    int iAfter = dup(0);
    close(iAfter);
    EXPECT_EQ(iNext, iAfter);

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

} // namespace
