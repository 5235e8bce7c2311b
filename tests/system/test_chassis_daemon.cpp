/* The real board daemon under chassisd: quiet start with status 2, restart
 * after kill -9 with recovery, stop on request. */
#include <signal.h>
#include <unistd.h>

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

} // namespace
