/* The real board daemon under chassisd: quiet start with status 2, restart
 * after kill -9 with recovery, stop on request, HA relay of the kernel
 * table, and a start that fails when the database cannot be opened. */
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include <gtest/gtest.h>

#include "chassis_harness.h"

namespace {

using namespace tbdl::systest;

class ChassisDaemon : public ::testing::Test {
protected:
    void SetUp() override { c.UseRealDaemon(); }
    void Tbdl(const std::vector<std::string> &args)
    {
        ProcRun r = c.Tbdlctl(args);
        ASSERT_EQ(r.status, 0) << r.out << r.err;
    }
    Chassis c;
};

TEST_F(ChassisDaemon, ComesUpQuietlyRestartsAfterKillAndStopsOnRequest)
{
    ASSERT_EQ(c.Start({"--boards", "0"}).status, 0);
    EXPECT_EQ(c.Board(0)["status"], 2);
    EXPECT_EQ(ReadFile(c.Path("board0/tbdld.log")), "") << "nothing is logged until debug is on";
    EXPECT_TRUE(c.CtlJson({"dump", "ha"})["boards"][0]["joined"].get<bool>());

    ASSERT_EQ(c.Ctl({"if", "add", "Tunnel5", "--mode", "0"}).status, 0);
    Tbdl({"debug", "on", "all"});
    Tbdl({"bundle", "create", "3", "--mode", "loadbalancing"});
    Tbdl({"member", "add", "3", "--tunnel", "5"});
    EXPECT_TRUE(c.WaitFile("board0/tbdld.log", "board0 TBDL EVENT Updated the information of tunnel bundle interface"));

    /* kill -9: restarted as a process restart, bundles recovered. */
    pid_t first = c.BoardPid(0);
    ASSERT_EQ(kill(first, SIGKILL), 0);
    ASSERT_TRUE(c.WaitBoard(0, [&](const Json &b) { return b["pid"] != first && b["state"] == "up"; }));
    EXPECT_EQ(c.Board(0)["start_cause"], 1);
    Tbdl({"--json", "show", "bundle", "3"});
    Json k = c.CtlJson({"dump", "ktbdl", "--board", "0"});
    ASSERT_EQ(k["bundles"].size(), 1u);
    EXPECT_EQ(k["bundles"][0]["members"].size(), 1u) << k.dump();
    EXPECT_EQ(k["bundles"][0]["state"], 1);

    pid_t pid = c.BoardPid(0);
    ProcRun stop = c.Ctl({"stop"});
    EXPECT_EQ(stop.status, 0) << stop.err;
    EXPECT_FALSE(ProcessAlive(pid));
    std::string log = ReadFile(c.Path("chassisd.log"));
    EXPECT_NE(log.find("board 0: tbdld (pid " + std::to_string(pid) + ") stopped: exited with status 0"), std::string::npos)
        << log;
}

TEST_F(ChassisDaemon, StandbyKernelTableFollowsTheMasterAlsoAfterAReboot)
{
    ASSERT_EQ(c.Start({"--boards", "0,1"}).status, 0);
    ASSERT_EQ(c.Ctl({"if", "add", "Tunnel5", "--mode", "0"}).status, 0);
    ASSERT_EQ(c.Ctl({"if", "add", "Tunnel6", "--mode", "0", "--state", "down"}).status, 0);
    Tbdl({"bundle", "create", "3", "--mode", "loadbalancing"});
    Tbdl({"member", "add", "3", "--tunnel", "5"});
    Tbdl({"member", "add", "3", "--tunnel", "6"});
    Tbdl({"bundle", "address", "3", "10.9.9.9"});
    Tbdl({"bundle", "create", "4", "--mode", "loadbalancing"});

    /* Members as a set: the order they reached each kernel may differ. */
    auto bundles = [&](int board) {
        Json b = c.CtlJson({"dump", "ktbdl", "--board", std::to_string(board)})["bundles"];
        for (Json &e : b) {
            std::vector<uint32_t> m = e["members"].get<std::vector<uint32_t>>();
            std::sort(m.begin(), m.end());
            e["members"] = m;
            std::vector<std::string> n = e["member_names"].get<std::vector<std::string>>();
            std::sort(n.begin(), n.end());
            e["member_names"] = n;
        }
        return b;
    };
    Json master = bundles(0);
    ASSERT_EQ(master.size(), 2u);
    EXPECT_EQ(master[0]["address"], "10.9.9.9");
    EXPECT_EQ(bundles(1), master) << "every kernel change reached the standby";

    /* A reboot empties both; recovery must bring the standby in step. */
    ASSERT_EQ(c.Ctl({"reboot"}).status, 0);
    EXPECT_TRUE(WaitUntil([&] {
        Json m = bundles(0), s = bundles(1);
        return !m.empty() && m[0]["members"].size() == 2u && m == s;
    })) << bundles(0).dump() << "\n" << bundles(1).dump();
}

TEST_F(ChassisDaemon, DatabaseThatCannotBeOpenedFailsTheStart)
{
    std::ofstream(c.Path("dbm.sqlite")) << std::string(4096, 'x');
    ProcRun start = c.Start({"--boards", "0"}, 20000);
    EXPECT_NE(start.status, 0);
    EXPECT_NE(start.err.find("failed at start-up (exited with status 255)"), std::string::npos) << start.err;
    std::string log = ReadFile(c.Path("chassisd.log"));
    EXPECT_NE(log.find(") failed at start-up: exited with status 255 (start-up failed)"), std::string::npos) << log;
    EXPECT_NE(log.find("failed at start-up 4 times in a row"), std::string::npos) << log;
    EXPECT_EQ(c.Board(0)["status"], 0) << "status 2 is never reported";
}

} // namespace
