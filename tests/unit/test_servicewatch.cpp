/* Service-port watch against the recording fake, with the real L3VPN watch behind it: the subscription record,
 * which events switch the L3VPN registration, and the fallback to retrying when there is no subscription. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cstring>

#include "fake_platform.h"
#include "l3v/tbdl_l3v_priv.h"
#include "servicewatch/tbdl_servicewatch_priv.h"
#include "tbdl_bas.h"

namespace {

using State = std::pair<bool, bool>; /* L3VPN registered, L3VPN retry timer running */

class SvcWatchTest : public ::testing::Test {
protected:
    int epfd = -1;

    void SetUp() override
    {
        fake::Reset();
        epfd = epoll_create1(0);
        TBDL_L3V_Init(epfd);
        ASSERT_EQ(TBDL_SERVICEWATCH_Init(epfd), TBDL_OK);
    }
    void TearDown() override
    {
        TBDL_SERVICEWATCH_Deactivate();
        TBDL_L3V_Deactivate();
        TBDL_SERVICEWATCH_Fini();
        TBDL_L3V_Fini();
        close(epfd);
    }
    static State L3v() { return {g_stTbdlL3vGlobal.iEvtFd != -1, g_stTbdlL3vGlobal.iTimerFd != -1}; }
    /* Closed, or its number taken since by the retry timer the fallback started. */
    static bool Closed(int fd) { return fcntl(fd, F_GETFD) == -1 || fd == g_stTbdlL3vGlobal.iTimerFd; }
    /* Pushes one event and lets the loop deliver it (5 s at most). */
    void Deliver(u32 state, u16 port)
    {
        fake::SvcPortPush(state, port);
        struct epoll_event ev{};
        ASSERT_EQ(epoll_wait(epfd, &ev, 1, 5000), 1) << "no event within the deadline";
        ASSERT_EQ(ev.data.fd, g_stTbldPortGlobal.iSubFd);
        TBDL_BAS_EpollDispatch(&ev);
    }
};

TEST_F(SvcWatchTest, SubscribesToTheL3vpnPortWithoutRegistering)
{
    EXPECT_EQ(TBDL_SERVICEWATCH_Activate(), TBDL_OK);
    auto sub = fake::CallsOf("SubscribeServicePortEvent").at(0);
    EXPECT_EQ(sub.args, (std::vector<uint64_t>{1, 2168, 0x8000}));
    const u32 head[2] = {1, 0};
    const u16 tail[2] = {2168, 0x8000};
    fake::Bytes rec(12);
    memcpy(rec.data(), head, 8);
    memcpy(rec.data() + 8, tail, 4);
    EXPECT_EQ(sub.rec, rec);
    EXPECT_EQ(g_stTbldPortGlobal.iSubFd, int(sub.result));
    EXPECT_EQ(L3v(), State(false, false)) << "the first state event decides";
}

/* Without a subscription (refused, or its descriptor not taken by the loop) the L3VPN watch retries by itself. */
TEST_F(SvcWatchTest, FallbackWithoutSubscription)
{
    for (bool loopFails : {false, true}) {
        SCOPED_TRACE(loopFails);
        if (loopFails) {
            ASSERT_EQ(TBDL_SERVICEWATCH_Init(-1), TBDL_OK);
        } else {
            fake::FailOnce("SubscribeServicePortEvent", uint64_t(-1));
        }
        EXPECT_EQ(TBDL_SERVICEWATCH_Activate(), TBDL_OK);
        EXPECT_EQ(std::make_pair(g_stTbldPortGlobal.iSubFd, L3v()), std::make_pair(-1, State(false, true)));
        if (loopFails) {
            EXPECT_TRUE(Closed(fake::SvcPortFd())) << "the refused descriptor is closed";
        }
        TBDL_L3V_Deactivate();
    }
}

/* Only up and down of port 2168 reach the L3VPN watch. */
TEST_F(SvcWatchTest, EventsSwitchTheRegistration)
{
    ASSERT_EQ(TBDL_SERVICEWATCH_Activate(), TBDL_OK);
    struct Row {
        u32 state;
        u16 port;
        const char *fail; /* call made to fail for this event */
        State after;
    } rows[] = {
        {1, 2169, nullptr, {false, false}}, {3, 2168, nullptr, {false, false}},
        {1, 2168, "L3VPN_RegEvt", {false, true}},
        {2, 2168, nullptr, {false, false}}, {1, 2168, nullptr, {true, false}},
        {0, 2168, nullptr, {true, false}},  {2, 2169, nullptr, {true, false}},
        {2, 2168, nullptr, {false, false}},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(std::to_string(r.state) + "/" + std::to_string(r.port) + (r.fail ? r.fail : ""));
        if (r.fail != nullptr) {
            fake::FailOnce(r.fail, uint64_t(-1));
        }
        Deliver(r.state, r.port);
        EXPECT_EQ(L3v(), r.after);
        if (L3v().first) {
            ASSERT_EQ(tbdl_l3v_SockCb(EPOLLIN, uint64_t(g_stTbdlL3vGlobal.iEvtFd)), TBDL_OK); /* its batch */
        }
    }
}

/* A broken subscription closes and falls back to retrying, after applying an event read with it; deactivation
 * closes without telling the L3VPN watch. */
TEST_F(SvcWatchTest, BrokenSubscriptionAndDeactivation)
{
    for (u32 mask : {u32(EPOLLIN | EPOLLHUP), u32(EPOLLERR), 0u}) {
        SCOPED_TRACE(mask);
        ASSERT_EQ(TBDL_SERVICEWATCH_Activate(), TBDL_OK);
        int fd = g_stTbldPortGlobal.iSubFd;
        fake::SvcPortPush(1, 2168);
        if (mask != 0) {
            EXPECT_EQ(tbdl_servicewatch_SockCb(mask, uint64_t(fd)), TBDL_OK);
        } else {
            Deliver(1, 2168);
            TBDL_SERVICEWATCH_Deactivate();
        }
        EXPECT_EQ(std::make_tuple(g_stTbldPortGlobal.iSubFd, Closed(fd), L3v()),
                  std::make_tuple(-1, true, State((mask & EPOLLIN) != 0 || mask == 0, mask != 0)));
        TBDL_L3V_Deactivate();
    }
}

} // namespace
