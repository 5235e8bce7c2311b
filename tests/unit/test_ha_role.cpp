/* HA role: channel set-up and its failure paths, HA events and their
 * answers, the order of module activation and deactivation. */
#include <fcntl.h>

#include "bas/tbdl_bas_priv.h"
#include "bnd_fixture.h"
#include "ha/tbdl_ha_priv.h"
#include "cfg/tbdl_cfg_priv.h"
#include "tbdl_dld.h"

using namespace bndtest;
using cfgtest::BndCreateTlvs;
using cfgtest::Request;
using cfgtest::ResultOf;
using cfgtest::Send;
using cfgtest::Tlv;
using cfgtest::TryRecv;

namespace {

using Responses = std::vector<std::pair<uint32_t, uint32_t>>;
constexpr u32 kNoData = 0xFFFFFFFFu;

class HaRoleTest : public BndTest {
protected:
    void SetUp() override
    {
        BndTest::SetUp();
        Init();
        TBDL_BAS_DeregHAFunc(); /* the real hooks come from TBDL_HA_Init */
        ASSERT_EQ(TBDL_INTF_Init(epfd), 0u);
        TBDL_SPEC_S spec{1024, 8, 1, 1, 1};
        ASSERT_EQ(TBDL_DLD_Init(&spec, epfd), 0u);
    }
    void TearDown() override
    {
        TBDL_DLD_Deactivate(0);
        TBDL_DLD_Fini();
        TBDL_CFG_Deactivate();
        TBDL_CFG_Fini();
        TBDL_INTF_Fini();
        TBDL_HA_Fini();
        BndTest::TearDown();
    }
    void Start(bool cfg = true)
    {
        ASSERT_EQ(TBDL_HA_Init(epfd), 0u);
        if (cfg) {
            ASSERT_EQ(TBDL_CFG_Init(static_cast<u32>(epfd)), 0u);
        }
    }
    void DeliverEvent(u32 uiEvent)
    {
        fake::HaPushEvent(uiEvent);
        Pump();
    }
    /* A stored bundle (down, no members) that recovery will restore. */
    static void StoreBnd(u32 num) { fake::DbPut({0x01}, 20, Cat({Bytes(20, 0), Be32(num), {1}, Bytes(7, 0)})); }
    static size_t LogCount(const std::string &line)
    {
        auto v = fake::LogLines();
        return std::count(v.begin(), v.end(), line);
    }
    static std::pair<u16, u16> Role() { return {TBDL_BAS_HAIsMaster(), TBDL_BAS_HAExistSlaveService()}; }
    static bool HasBundles()
    {
        TBDL_BND_INFO_S info{};
        return TBDL_BND_GetFirstBndInfo(&info) == 0;
    }
};

TEST_F(HaRoleTest, InitJoinsTheServiceAndFiniLeavesItOnce)
{
    Start(false);
    auto c = fake::CallsOf("HA_Init").at(0);
    EXPECT_EQ(c.text, "TBDL|TBDL");
    EXPECT_EQ(c.args, (std::vector<uint64_t>{0, 1, 2}));
    u16 ident[4] = {2682, 0, 2681, 0};
    EXPECT_EQ(c.data, fake::Bytes((uint8_t *)ident, (uint8_t *)ident + 8));

    /* The role and the standby's presence are asked of the HA library each time. */
    EXPECT_EQ(Role(), std::make_pair(u16(1), u16(0)));
    fake::Config().master = false;
    fake::Config().slavePresent = true;
    EXPECT_EQ(Role(), std::make_pair(u16(0), u16(1)));
    fake::Config().master = true;
    i32 iHaFd = g_stTbdlHaVar.iHaFd;
    fake::ClearJournal();
    TBDL_HA_Fini();
    TBDL_HA_Fini();
    EXPECT_EQ(fake::Names(), (std::vector<std::string>{"HA_Exit", "HA_FreeMsg"}));
    EXPECT_EQ(fake::CallsOf("HA_Exit").at(0).args.at(0), uint64_t(int64_t(iHaFd)));
    EXPECT_EQ(Role(), std::make_pair(u16(0), u16(0))) << "hooks cleared";
}

TEST_F(HaRoleTest, InitFailuresReleaseWhatWasObtained)
{
    const struct { const char *what, *fail; uint64_t result; bool badEpoll; size_t nExit, nFree; } cases[] = {
        {"no channel", "HA_Init", uint64_t(-1), false, 0, 0},
        {"no buffer", "HA_AllocMsg", 0, false, 1, 0},
        {"loop registration fails", nullptr, 0, true, 1, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        fake::ClearJournal();
        if (c.fail != nullptr) {
            fake::FailOnce(c.fail, c.result);
        }
        EXPECT_EQ(TBDL_HA_Init(c.badEpoll ? -1 : epfd), TBDL_E_FAILED);
        EXPECT_EQ(std::make_tuple(fake::CountOf("HA_Exit"), fake::CountOf("HA_FreeMsg"), g_stTbdlHaVar.iHaFd,
                                  g_stTbdlHaVar.pucMsgBuf),
                  std::make_tuple(c.nExit, c.nFree, -1, nullptr));
        EXPECT_EQ(TBDL_BAS_HAIsMaster(), 0) << "hooks are not registered";
    }
    EXPECT_EQ(fake::CountOf("HA_GetMTU"), 1u) << "the first case stops before asking the MTU";
}

TEST_F(HaRoleTest, EachKnownEventIsAnsweredOnceUnknownOnesNot)
{
    Start();
    /* whole: calls is the whole journal, not an ordered subset of it */
    const struct { u32 event; Responses responses; bool whole; std::vector<std::string> calls; } cases[] = {
        {0, {{0, 0}}, false, {"HA_Dispatch", "HA_Response"}},
        {1, {{1, kNoData}}, true, {"HA_Dispatch", "HA_Response"}}, /* empty table: nothing sent */
        {2, {{2, kNoData}}, false, {"DBM_Sync", "SERVICE_GetStartCause", "HA_Response"}}, /* database in step first */
        {3, {{3, kNoData}}, true, {"HA_Dispatch", "HA_Response"}},
        {7, {}, true, {"HA_Dispatch"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("event " + std::to_string(c.event));
        fake::ClearJournal();
        size_t before = fake::HaResponses().size();
        DeliverEvent(c.event);
        EXPECT_EQ(Responses(fake::HaResponses().begin() + before, fake::HaResponses().end()), c.responses);
        EXPECT_EQ(c.whole ? fake::Names() : fake::Names(c.calls), c.calls);
    }
    EXPECT_NE(g_stTbdlCfgGlobalVar.iListenFd, -1) << "the upgrade activated";
}

/* Activation: recovery, the down bundles pushed to the kernel, then the socket. Deactivation: member interfaces before
 * the bundle table and the socket; run in full even on an inactive board. */
TEST_F(HaRoleTest, ActivationAndDeactivationOrder)
{
    Start();
    StoreBnd(3);
    u32 ifIndex = fake::AddTunnel(1, 0, /*down*/ 0);
    fake::DbPut(MembKey(3), 0, {0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0});
    Mark();
    ASSERT_EQ(TBDL_HA_Activate(), 0u);
    std::vector<std::string> order = {"SERVICE_GetStartCause", "DBM_Batch_Proc", "CIOCTL", "CIOCTL",
                                      "LIPC_GetHostPath"};
    EXPECT_EQ(fake::Names(order), order);
    EXPECT_EQ(g_trace, (Trace{"K7c0003", "DB+?", "K7c0002"})) << "the stored member, then the refresh";
    ASSERT_TRUE(HasBundles());
    ASSERT_EQ(fake::PrivateData().count(ifIndex), 1u);

    bool bundlesAtIntf = false, socketAtIntf = false;
    fake::OnCall("IF_GetFirstPrivateData", [&](const fake::Call &) {
        bundlesAtIntf = HasBundles();
        socketAtIntf = g_stTbdlCfgGlobalVar.iListenFd != -1;
    });
    DeliverEvent(TBDL_HA_EV_DEACTIVATE);
    EXPECT_TRUE(bundlesAtIntf);
    EXPECT_TRUE(socketAtIntf);
    EXPECT_TRUE(fake::PrivateData().empty());
    EXPECT_FALSE(HasBundles());
    EXPECT_EQ(g_stTbdlCfgGlobalVar.iListenFd, -1);
    EXPECT_EQ(g_stTbdlLogVar.uiDebugSwitch, 0u);
    EXPECT_EQ(fake::Db().count({0x01}), 1u) << "stored configuration stays";

    g_stTbdlLogVar.uiDebugSwitch = 3;
    DeliverEvent(TBDL_HA_EV_DEACTIVATE);
    EXPECT_EQ(g_stTbdlLogVar.uiDebugSwitch, 0u);
    EXPECT_EQ(fake::HaResponses(), (Responses{{0, 0}, {0, 0}}));
}

TEST_F(HaRoleTest, FailedActivationStepAndFailedResponseAreLoggedOnce)
{
    Start(false); /* the configuration channel was never initialised: its activation fails */
    StoreBnd(3);
    fake::ClearJournal();
    DeliverEvent(TBDL_HA_EV_UPGRADE);
    EXPECT_EQ(LogCount("ERROR Failed to process HA upgrade event because activating some modules failed.\r\n"), 1u);
    EXPECT_TRUE(HasBundles()) << "recovery ran";
    EXPECT_EQ(fake::CountOf("CIOCTL"), 1u) << "the refresh ran";
    EXPECT_EQ(fake::HaResponses(), (Responses{{2, kNoData}}));
    EXPECT_NE(TBDL_HA_Activate(), 0u) << "a direct activation reports the failure as well";

    fake::FailOnce("HA_Response", 1);
    DeliverEvent(TBDL_HA_EV_ACK_ONLY);
    EXPECT_EQ(LogCount("ERROR Failed to respond to HA. Event: 3.\r\n"), 1u);
}

/* What the daemon holds: open descriptors (sockets and timers), registrations on the event loop, timer descriptors,
 * and heap blocks other than the error statistics, which are kept for the life of the process. */
using Held = std::tuple<int, int, int, u32>;
constexpr size_t kTimers = 2;

Held HeldNow()
{
    int fds = 0, registered = 0, timers = 0;
    for (int fd = 0; fd < 1024; fd++) {
        char link[64] = {};
        std::string path = "/proc/self/fd/" + std::to_string(fd);
        if (fcntl(fd, F_GETFD) != -1) {
            fds++;
            registered += g_astTbdlBasEpollTable[fd].pfnCallback != nullptr;
            timers += readlink(path.c_str(), link, sizeof(link) - 1) > 0 && strstr(link, "timerfd") != nullptr;
        }
    }
    u32 blocks = TBDL_BAS_LiveAllocs() - u32(std::count_if(std::begin(g_apcTbdlErrStr), std::end(g_apcTbdlErrStr),
                                                           [](const char *p) { return p != nullptr; }));
    return {fds, registered, timers, blocks};
}

/* Standby -> master -> standby, several times. Each promotion brings the database in step and restores what the
 * master before it stored; each demotion closes the configuration socket, clears the bundles, the members' private
 * data and the debug switches, and (once the last operator has gone) gives back every descriptor, timer and block
 * the active period took. */
TEST_F(HaRoleTest, RepeatedRoleChangesLeaveNothingBehind)
{
    fake::Config().master = false;
    Start();
    u32 ifIndex = fake::AddTunnel(1);
    const Held idle = HeldNow();
    for (int cycle = 0; cycle < 3; cycle++) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        /* Meanwhile the other board, master, stored bundles 3 and 4, member Tunnel1 in 4. */
        StoreBnd(3);
        StoreBnd(4);
        fake::DbPut(MembKey(4), 0, {0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0});
        Mark();
        fake::Config().master = true;
        DeliverEvent(TBDL_HA_EV_UPGRADE);
        EXPECT_EQ(fake::Names({"DBM_Sync", "LIPC_GetHostPath"}), (std::vector<std::string>{"DBM_Sync", "LIPC_GetHostPath"}));
        ASSERT_TRUE(HasBundles());
        EXPECT_EQ(fake::PrivateData().count(ifIndex), 1u);

        /* Active: a standby asks for everything, an operator connects, turns debugging on and deletes bundle 3. */
        fake::Config().slavePresent = true;
        DeliverEvent(TBDL_HA_EV_BATCH_BACKUP);
        EXPECT_FALSE(fake::HaSentMessages().empty());
        int client = cfgtest::Connect(fake::HostPath(TBDL_CFG_PORT));
        ASSERT_GE(client, 0) << "the configuration socket is open again";
        ASSERT_TRUE(Send(client, Request(0, 0, 0, Tlv(398, Be32(2)))));
        Pump(); /* accept */
        Pump(); /* request */
        ASSERT_TRUE(Send(client, Request(0, 1, 1, BndCreateTlvs(3))));
        Pump();
        EXPECT_EQ(ResultOf(TryRecv(client).value_or(Bytes{})), 0u) << "debug on";
        EXPECT_EQ(ResultOf(TryRecv(client).value_or(Bytes{})), 0u) << "bundle 3 deleted";
        EXPECT_NE(g_stTbdlLogVar.uiDebugSwitch, 0u);
        EXPECT_GT(std::get<kTimers>(HeldNow()), std::get<kTimers>(idle)) << "download reconnect timers run";

        fake::Config().master = false;
        fake::Config().slavePresent = false;
        DeliverEvent(TBDL_HA_EV_DEACTIVATE);
        /* A connection accepted while active stays until its peer leaves, and gets no more answers. */
        ASSERT_TRUE(Send(client, Request(0, 0, 0, Tlv(398, Be32(2)))));
        Pump();
        EXPECT_EQ(TryRecv(client), std::nullopt);
        close(client);
        Pump();
        EXPECT_EQ(g_stTbdlCfgGlobalVar.iListenFd, -1);
        EXPECT_FALSE(HasBundles());
        EXPECT_TRUE(fake::PrivateData().empty());
        EXPECT_EQ(g_stTbdlLogVar.uiDebugSwitch, 0u);
        EXPECT_EQ(HeldNow(), idle);
        EXPECT_EQ(fake::HaResponses().size(), 3u * (cycle + 1));
    }
    EXPECT_EQ(fake::HaResponses().back(), std::make_pair(u32(0), u32(0)));
}

} // namespace
