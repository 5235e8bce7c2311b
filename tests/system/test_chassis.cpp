/* chassisd and chassisctl as the service manager, with the stand-in board
 * daemon: start-up, status, restart and reboot, orderly stop with value 3,
 * start-up failures, bad settings, and HA between two boards. */
#include <unistd.h>

#include <fstream>

#include <gtest/gtest.h>

#include "chassis_harness.h"

namespace {

using namespace tbdl::systest;

bool Has(const std::string &text, const std::string &what)
{
    return text.find(what) != std::string::npos;
}

TEST(Chassis, StartWritesTheSettingsAndShowsTheBoardUpAsMaster)
{
    Chassis c;
    ProcRun start = c.Start({"--boards", "0", "--bundle-slots", "64"});
    ASSERT_EQ(start.status, 0) << start.err;
    Json settings = Json::parse(ReadFile(c.Path("chassis.json")), nullptr, false);
    EXPECT_EQ(settings.value("bundle_slots", 0), 64) << "the settings file is written before the daemon starts";
    Json b = c.Board(0);
    EXPECT_EQ(Json({b["state"], b["status"], b["role"], b["start_cause"], b["cfg_socket"]}),
              Json({"up", 2, "master", 0, c.Path("board0/cfg.sock")}));
    EXPECT_TRUE(Has(c.Ctl({"status"}).out, "master"));
    /* A second chassisd on the same directory is refused. */
    ProcRun second = RunProcess({BuildPath("platform/chassisd"), "--dir", c.dir(), "--daemon", Chassis::FakeDaemon()});
    EXPECT_TRUE(second.status != 0 && Has(second.err, "another chassisd")) << second.err;
    EXPECT_TRUE(Has(c.Start().err, "already running"));
}

TEST(Chassis, RestartAndRebootStopWithValue3AndStartWithTheirCause)
{
    Chassis c;
    ASSERT_EQ(c.Start({"--boards", "0"}).status, 0);
    pid_t first = c.BoardPid(0);
    ASSERT_EQ(c.Ctl({"board", "restart", "0"}).status, 0);
    EXPECT_NE(c.BoardPid(0), first);
    EXPECT_EQ(c.Board(0)["start_cause"], 1);
    ASSERT_EQ(c.Ctl({"reboot"}).status, 0);
    EXPECT_EQ(c.Board(0)["start_cause"], 0);
    pid_t pid = c.BoardPid(0), chassisd = c.ChassisdPid();
    ProcRun stop = c.Ctl({"stop"});
    EXPECT_EQ(stop.status, 0) << stop.err;
    EXPECT_FALSE(ProcessAlive(chassisd) || ProcessAlive(pid));
    std::string fake = ReadFile(c.Path("board0/fake.log"));
    EXPECT_EQ(fake, "start cause 0\nstop value 3\nstart cause 1\nstop value 3\nstart cause 0\nstop value 3\n");
    EXPECT_NE(access(c.Path("chassisd.sock").c_str(), F_OK), 0);
    std::string log = ReadFile(c.Path("chassisd.log"));
    EXPECT_TRUE(Has(log, "stopped: exited with status 0")) << log;
    EXPECT_TRUE(Has(log, "exiting with status 0")) << log;
    ProcRun again = c.Ctl({"stop"});
    EXPECT_TRUE(again.status != 0 && Has(again.err, "not running")) << again.err;
}

TEST(Chassis, StartupFailureIsRetriedWithBackoffThenGivenUp)
{
    Chassis c;
    c.SetEnv({"FAKE_TBDLD_EXIT=255"});
    ProcRun start = c.Start({"--boards", "0"}, 20000);
    EXPECT_NE(start.status, 0);
    EXPECT_TRUE(Has(start.err, "board 0: the daemon failed at start-up (exited with status 255)")) << start.err;
    EXPECT_EQ(CountOccurrences(start.err, "\n"), 1u) << start.err;
    std::string log = ReadFile(c.Path("chassisd.log"));
    EXPECT_EQ(CountOccurrences(log, "exited with status 255 (start-up failed)"), 4u) << log;
    EXPECT_TRUE(Has(log, "starting tbdld again in 250 ms")) << log;
    EXPECT_TRUE(Has(log, "starting tbdld again in 1000 ms")) << log;
    EXPECT_TRUE(Has(log, "failed at start-up 4 times in a row; not starting it again")) << log;
    EXPECT_EQ(c.Board(0)["state"], "failed");
    EXPECT_TRUE(c.Stop()) << "chassisd itself stays up and stops cleanly";
}

TEST(Chassis, OperatorErrorsEndWithOneErrorLine)
{
    Chassis c;
    std::string garbage = c.Path("garbage.json"), invalid = c.Path("invalid.json");
    std::ofstream(garbage) << "{not json";
    std::ofstream(invalid) << R"({"boards":[2]})";
    struct Case {
        const char *what;
        bool chassisd; /* run chassisd itself, else chassisctl */
        std::vector<std::string> args;
        const char *mentions;
    };
    const std::vector<Case> cases = {
        {"missing directory", true, {"--dir", c.Path("nope")}, "nope"},
        {"directory is a file", true, {"--dir", garbage}, "not a directory"},
        {"missing settings file", true, {"--dir", c.dir(), "--config", c.Path("none.json")}, "none.json"},
        {"malformed settings", true, {"--dir", c.dir(), "--config", garbage}, "garbage.json"},
        {"invalid settings", true, {"--dir", c.dir(), "--config", invalid}, "board"},
        {"bad board list", true, {"--dir", c.dir(), "--boards", "0,7"}, "--boards"},
        {"bad mode", true, {"--dir", c.dir(), "--mode", "Fast=on"}, "Fast"},
        {"missing daemon", true, {"--dir", c.dir(), "--daemon", c.Path("no-such-daemon")}, "no-such-daemon"},
        {"settings chassisd cannot read", false, {"start", "--config", c.Path("none.json")}, "chassisd did not start on"},
        {"option chassisd does not know", false, {"start", "--speed", "9"}, "--speed"},
        {"unknown command", false, {"explode"}, "explode"},
        {"command with chassisd down", false, {"dump", "if"}, "not running"},
        {"unexpected argument", false, {"status", "--verbose"}, "--verbose"},
        {"tunnel mode that is not a number", false, {"if", "add", "Tunnel1", "--mode", "fast"}, "fast"},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        std::vector<std::string> argv{BuildPath("platform/chassisd"), "--daemon", Chassis::FakeDaemon()};
        argv.insert(argv.end(), k.args.begin(), k.args.end());
        ProcRun r = k.chassisd ? RunProcess(argv, {}, 10000) : c.Ctl(k.args);
        EXPECT_FALSE(r.timedOut);
        EXPECT_GT(r.status, 0) << "a failure, not a crash";
        EXPECT_EQ(CountOccurrences(r.err, "\n"), 1u) << r.err;
        EXPECT_EQ(r.err.rfind(k.chassisd ? "chassisd: " : "chassisctl: ", 0), 0u) << r.err;
        EXPECT_TRUE(Has(r.err, k.mentions)) << r.err;
        EXPECT_NE(access(c.Path("chassisd.sock").c_str(), F_OK), 0);
    }
}

TEST(Chassis, TwoBoardsHaveRolesAndRelayTheBatchBackup)
{
    Chassis c;
    ASSERT_EQ(c.Start({"--boards", "0,1", "--master-board", "1", "--ha-mtu", "2000"}).status, 0);
    EXPECT_EQ(c.Board(1)["role"], "master");
    EXPECT_EQ(c.Board(0)["role"], "standby");
    /* Once both joined, the master's batch reaches the standby (flag 0). */
    ASSERT_TRUE(c.WaitFile("board0/fake.log", "ha message 0 batch-from-1"));
    EXPECT_TRUE(c.WaitFile("board1/fake.log", "ha event 1"));
    Json ha = c.CtlJson({"dump", "ha"});
    EXPECT_EQ(ha["master"], 1);
    EXPECT_EQ(ha["mtu"], 2000);
    EXPECT_NE(c.Ctl({"ha", "event", "3", "--board", "5"}).status, 0);

    /* The standby stops first, the master last. */
    ASSERT_TRUE(c.Stop());
    std::string log = ReadFile(c.Path("chassisd.log"));
    size_t standby = log.find("board 0: stopping tbdld"), master = log.find("board 1: stopping tbdld");
    ASSERT_NE(master, std::string::npos);
    EXPECT_LT(standby, master);
    EXPECT_TRUE(c.WaitFile("board1/fake.log", "stop value 3"));
}

TEST(Chassis, MisbehavingDaemonsAreKilledOrFailTheStart)
{
    {
        Chassis c;
        c.SetEnv({"FAKE_TBDLD_IGNORE_STOP=1"});
        ASSERT_EQ(c.Start({"--boards", "0", "--stop-timeout", "300"}).status, 0);
        pid_t pid = c.BoardPid(0);
        EXPECT_EQ(c.Ctl({"stop"}).status, 0);
        EXPECT_FALSE(ProcessAlive(pid));
        std::string log = ReadFile(c.Path("chassisd.log"));
        EXPECT_TRUE(Has(log, "did not stop within 300 ms; sending SIGKILL")) << log;
        EXPECT_TRUE(Has(log, "stopped: killed by signal 9")) << log;
    }
    Chassis c;
    c.SetEnv({"FAKE_TBDLD_NO_STATUS=1"});
    ProcRun r = c.Start({"--boards", "0"}, 2000);
    EXPECT_TRUE(r.status != 0 && Has(r.err, "boards not up within 2 s (board 0 starting)")) << r.err;
}

} // namespace
