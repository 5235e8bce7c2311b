/* The chassis's interface events seen through the emulated platform
 * library, called from this process as board 0's daemon. (L3VPN and the
 * service port are seen through the real daemon by the watch tests.) */
#include <poll.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include "chassis_env.h"
#include "chassis_harness.h"
#include "platform.h"
#include "rpc.h"

namespace {

using namespace tbdl::systest;

/* One event as a callback saw it: code, then interface indexes. */
using Seen = std::vector<u32>;
std::vector<Seen> g_seen;
u32 g_number = 0; /* interface number read inside the deletion event */
std::vector<u32> g_handles; /* by the callback's argument */

class ChassisEvents : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_seen.clear();
        ProcRun r = c.Start({"--trust-user"}); /* this process plays board 0's daemon */
        ASSERT_EQ(r.status, 0) << r.err;
        setenv("TBDL_CHASSIS_DIR", c.dir().c_str(), 1);
        setenv("TBDL_BOARD", "0", 1);
        tbdl::plat::ReloadChassisEnv();
        tbdl::rpc::FailPlanReset();
    }
    void TearDown() override
    {
        unsetenv("TBDL_CHASSIS_DIR");
        tbdl::plat::ReloadChassisEnv();
    }
    void Ctl(const std::vector<std::string> &args)
    {
        ProcRun r = c.Ctl(args);
        ASSERT_EQ(r.status, 0) << r.err;
    }
    Chassis c;
};

/* Waits (with a deadline) until fd has something to read or has ended. */
bool Ready(int fd, int timeoutMs = 3000)
{
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeoutMs) == 1;
}

u32 IfCb(u32 event, void *entries, u32 count, u32 arg)
{
    Seen s{event};
    for (u32 k = 0; k < count; ++k) {
        s.push_back(static_cast<IF_EVENT_ENTRY_S *>(entries)[k].uiIfIndex);
        if (event == IF_EV_DELETE) {
            (void)IF_GetDataByIfIndex(s.back(), IF_DATA_NUMBER, &g_number);
        }
    }
    g_seen.push_back(s);
    return IF_NotifyFinalStatus(g_handles.at(arg), event, entries, count, arg);
}

/* A subscription on a channel of its own. */
int Subscribe(u32 type, u32 mask)
{
    int fd = IF_Event_Init();
    u8 select[16] = {}, data[24] = {};
    IF_Select_Init(5, select, data);
    IF_SelectType_Set(type, select);
    g_handles.push_back(IF_RegIfEventEx(0x5140000, mask, 64, select, IfCb, static_cast<u32>(g_handles.size())));
    EXPECT_NE(g_handles.back(), 0u);
    return fd;
}

TEST_F(ChassisEvents, InterfaceChangesReachTheSubscribersOfTheirTypeAndMask)
{
    for (const char *t : {"Tunnel1", "Tunnel2", "Tunnel3"}) {
        Ctl({"if", "add", t});
    }
    u32 t1 = IF_GetIfIndexByFullName("Tunnel1"), t2 = IF_GetIfIndexByFullName("Tunnel2"),
        t3 = IF_GetIfIndexByFullName("Tunnel3");
    int all = Subscribe(IF_TYPE_TUNNEL, IF_EV_MASK), ups = Subscribe(IF_TYPE_TUNNEL, IF_EV_UP),
        bundles = Subscribe(IF_TYPE_TUNNEL_BUNDLE, IF_EV_MASK);
    ASSERT_GE(bundles, 0);

    struct Step {
        std::vector<std::string> ctl;
        int fd;
        Seen expected;
    };
    const Step steps[] = {
        {{"if", "set", "Tunnel1", "Tunnel2", "Tunnel3", "--state", "down"}, all, {IF_EV_DOWN, t1, t2, t3}},
        {{"if", "set", "Tunnel2", "--state", "up"}, all, {IF_EV_UP, t2}},
        {{}, ups, {IF_EV_UP, t2}},
        {{"if", "set", "Tunnel2", "--state", "up", "--mode", "3"}, -1, {}}, /* no change of state */
        {{"if", "del", "Tunnel3"}, all, {IF_EV_DELETE, t3}},
    };
    for (const Step &s : steps) {
        if (!s.ctl.empty()) {
            Ctl(s.ctl);
        }
        g_seen.clear();
        if (s.fd >= 0) {
            ASSERT_TRUE(Ready(s.fd)) << s.ctl.size();
            EXPECT_EQ(IF_ResponseEventPkt(s.fd), 0u);
        }
        EXPECT_EQ(g_seen, s.fd >= 0 ? std::vector<Seen>{s.expected} : std::vector<Seen>{}) << s.ctl.size();
    }
    EXPECT_EQ(g_number, 3u) << "a deleted interface is readable while its event is handled";
    EXPECT_TRUE(WaitUntil([] { return IF_GetIfIndexByFullName("Tunnel3") == 0; }))
        << "and gone once acknowledged";
    for (int fd : {all, ups, bundles}) {
        EXPECT_FALSE(Ready(fd, 0)) << "nothing else was sent";
    }
    Ctl({"if", "hangup", "--board", "0"});
    for (int fd : {all, ups, bundles}) {
        ASSERT_TRUE(Ready(fd));
        EXPECT_NE(IF_ResponseEventPkt(fd), 0u) << "the hang-up is reported";
        IF_Event_Fini(fd);
    }
    Ctl({"if", "del", "Tunnel2"});
    EXPECT_EQ(IF_GetIfIndexByFullName("Tunnel2"), 0u) << "with no subscriber a deletion is at once";
}

} // namespace
