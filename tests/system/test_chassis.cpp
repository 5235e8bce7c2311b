/* System tests of chassisd and chassisctl as the service manager, with the
 * stand-in board daemon: start-up and status, orderly stop with value 3,
 * restart of a daemon that died, start-up failures with back-off, bad
 * settings and directories, and the HA service between two boards. */
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "chassis_harness.h"

namespace {

using namespace tbdl::systest;


TEST(Chassis, StartsBoardReportsUpAndStopsInOrderWithValue3)
{
    Chassis c;
    ProcRun start = c.Start({"--boards", "0", "--bundle-slots", "64"});
    ASSERT_EQ(start.status, 0) << start.err;

    /* The settings file is written before the daemon starts. */
    Json settings = Json::parse(ReadFile(c.Path("chassis.json")), nullptr, false);
    ASSERT_TRUE(settings.is_object());
    EXPECT_EQ(settings["bundle_slots"], 64);
    EXPECT_EQ(settings["boards"], Json::array({0}));

    Json b = c.Board(0);
    ASSERT_TRUE(b.is_object());
    EXPECT_EQ(b["state"], "up");
    EXPECT_EQ(b["status"], 2);
    EXPECT_EQ(b["role"], "master");
    EXPECT_EQ(b["start_cause"], 0);
    EXPECT_EQ(b["cfg_socket"], c.Path("board0/cfg.sock"));
    pid_t pid = b["pid"].get<pid_t>();
    EXPECT_TRUE(ProcessAlive(pid));
    EXPECT_TRUE(FileContains(c.Path("board0/fake.log"), "start cause 0"));

    ProcRun text = c.Ctl({"status"});
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("master"), std::string::npos) << text.out;

    pid_t chassisd = c.ChassisdPid();
    ProcRun stop = c.Ctl({"stop"});
    EXPECT_EQ(stop.status, 0) << stop.err;
    EXPECT_FALSE(ProcessAlive(chassisd));
    EXPECT_FALSE(ProcessAlive(pid));
    EXPECT_TRUE(FileContains(c.Path("board0/fake.log"), "stop value 3"));
    EXPECT_NE(access(c.Path("chassisd.sock").c_str(), F_OK), 0);
    std::string log = ReadFile(c.Path("chassisd.log"));
    EXPECT_NE(log.find("stopped: exited with status 0"), std::string::npos) << log;
    EXPECT_NE(log.find("exiting with status 0"), std::string::npos) << log;

    /* A second stop finds nothing to stop. */
    ProcRun again = c.Ctl({"stop"});
    EXPECT_NE(again.status, 0);
    EXPECT_NE(again.err.find("not running"), std::string::npos) << again.err;
}

TEST(Chassis, DaemonThatDiesIsRestartedWithCauseRestart)
{
    struct Case {
        const char *how;
        bool viaCtl;
    };
    for (const Case &k : {Case{"kill -9", false}, Case{"chassisctl board kill", true}}) {
        SCOPED_TRACE(k.how);
        Chassis c;
        ASSERT_EQ(c.Start().status, 0);
        pid_t first = c.BoardPid(0);
        ASSERT_GT(first, 0);
        if (k.viaCtl) {
            ASSERT_EQ(c.Ctl({"board", "kill", "0"}).status, 0);
        } else {
            ASSERT_EQ(kill(first, SIGKILL), 0);
        }
        ASSERT_TRUE(c.WaitBoard(0, [&](const Json &b) {
            return b["pid"].get<pid_t>() != first && b["state"] == "up";
        }));
        Json b = c.Board(0);
        EXPECT_EQ(b["start_cause"], 1);
        EXPECT_EQ(b["start_cause_name"], "process restart");
        EXPECT_EQ(b["restarts"], 1);
        EXPECT_NE(b["last_exit"].get<std::string>().find("signal 9"), std::string::npos);
        EXPECT_TRUE(c.WaitFile("board0/fake.log", "start cause 1"));
    }
}

TEST(Chassis, BoardRestartStopsWithValue3AndStartsWithCauseRestart)
{
    Chassis c;
    ASSERT_EQ(c.Start().status, 0);
    pid_t first = c.BoardPid(0);
    ProcRun r = c.Ctl({"board", "restart", "0"});
    ASSERT_EQ(r.status, 0) << r.err;
    Json b = c.Board(0);
    EXPECT_NE(b["pid"].get<pid_t>(), first);
    EXPECT_EQ(b["state"], "up");
    EXPECT_EQ(b["start_cause"], 1);
    std::string fake = ReadFile(c.Path("board0/fake.log"));
    EXPECT_NE(fake.find("start cause 0\nstop value 3\nstart cause 1"), std::string::npos) << fake;

    /* A reboot starts every board again as a system boot. */
    ProcRun reboot = c.Ctl({"reboot"});
    ASSERT_EQ(reboot.status, 0) << reboot.err;
    EXPECT_EQ(c.Board(0)["start_cause"], 0);
    EXPECT_NE(ReadFile(c.Path("board0/fake.log")).find("start cause 1\nstop value 3\nstart cause 0"), std::string::npos);
}

TEST(Chassis, StartupFailureIsRetriedWithBackoffThenGivenUp)
{
    Chassis c;
    c.SetEnv({"FAKE_TBDLD_EXIT=255"});
    ProcRun start = c.Start({}, 20000);
    EXPECT_NE(start.status, 0);
    EXPECT_NE(start.err.find("board 0: the daemon failed at start-up (exited with status 255)"), std::string::npos)
        << start.err;
    EXPECT_EQ(CountOccurrences(start.err, "\n"), 1u) << start.err;
    std::string log = ReadFile(c.Path("chassisd.log"));
    EXPECT_EQ(CountOccurrences(log, "board 0: started tbdld"), 4u) << log;
    EXPECT_EQ(CountOccurrences(log, "exited with status 255 (start-up failed)"), 4u) << log;
    EXPECT_NE(log.find("starting tbdld again in 250 ms"), std::string::npos) << log;
    EXPECT_NE(log.find("starting tbdld again in 1000 ms"), std::string::npos) << log;
    EXPECT_NE(log.find("failed at start-up 4 times in a row; not starting it again"), std::string::npos) << log;
    Json b = c.Board(0);
    EXPECT_EQ(b["state"], "failed");
    EXPECT_EQ(b["pid"], -1);
    /* chassisd itself stays up and stops cleanly. */
    EXPECT_TRUE(c.Stop());
}

TEST(Chassis, BadSettingsOrDirectoryEndWithOneErrorLine)
{
    Chassis c;
    std::string garbage = c.Path("garbage.json");
    std::string invalid = c.Path("invalid.json");
    FILE *f = fopen(garbage.c_str(), "w");
    fputs("{not json", f);
    fclose(f);
    f = fopen(invalid.c_str(), "w");
    fputs(R"({"boards":[2]})", f);
    fclose(f);
    struct Case {
        const char *what;
        std::vector<std::string> args;
        const char *mentions;
    };
    const std::vector<Case> cases = {
        {"missing directory", {"--dir", c.Path("nope")}, "nope"},
        {"directory is a file", {"--dir", garbage}, "not a directory"},
        {"missing settings file", {"--dir", c.dir(), "--config", c.Path("none.json")}, "none.json"},
        {"malformed settings", {"--dir", c.dir(), "--config", garbage}, "garbage.json"},
        {"invalid settings", {"--dir", c.dir(), "--config", invalid}, "board"},
        {"bad board list", {"--dir", c.dir(), "--boards", "0,7"}, "--boards"},
        {"bad mode", {"--dir", c.dir(), "--mode", "Fast=on"}, "Fast"},
        {"missing daemon", {"--dir", c.dir(), "--daemon", c.Path("no-such-daemon")}, "no-such-daemon"},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        std::vector<std::string> argv{BuildPath("platform/chassisd"), "--daemon", Chassis::FakeDaemon()};
        argv.insert(argv.end(), k.args.begin(), k.args.end());
        ProcRun r = RunProcess(argv, {}, 10000);
        EXPECT_FALSE(r.timedOut);
        EXPECT_NE(r.status, 0);
        EXPECT_NE(r.status, -1) << "crashed";
        EXPECT_EQ(CountOccurrences(r.err, "\n"), 1u) << r.err;
        EXPECT_EQ(r.err.rfind("chassisd: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(k.mentions), std::string::npos) << r.err;
        EXPECT_NE(access(c.Path("chassisd.sock").c_str(), F_OK), 0);
    }
}

TEST(Chassis, ChassisctlErrorsAreOneLine)
{
    Chassis c;
    struct Case {
        const char *what;
        std::vector<std::string> args;
        const char *mentions;
    };
    const std::vector<Case> cases = {
        {"settings chassisd cannot read", {"start", "--config", c.Path("none.json")}, "chassisd did not start on"},
        {"option chassisd does not know", {"start", "--speed", "9"}, "--speed"},
        {"unknown command", {"explode"}, "explode"},
        {"command with chassisd down", {"dump", "if"}, "not running"},
        {"unexpected argument", {"status", "--verbose"}, "--verbose"},
        {"tunnel mode that is not a number", {"if", "add", "Tunnel1", "--mode", "fast"}, "fast"},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        ProcRun r = c.Ctl(k.args);
        EXPECT_NE(r.status, 0);
        EXPECT_EQ(CountOccurrences(r.err, "\n"), 1u) << r.err;
        EXPECT_EQ(r.err.rfind("chassisctl: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(k.mentions), std::string::npos) << r.err;
    }
}

TEST(Chassis, SecondChassisdOnTheSameDirectoryIsRefused)
{
    Chassis c;
    ASSERT_EQ(c.Start().status, 0);
    ProcRun r = RunProcess({BuildPath("platform/chassisd"), "--dir", c.dir(), "--daemon", Chassis::FakeDaemon()});
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find("another chassisd"), std::string::npos) << r.err;
    ProcRun ctl = c.Start();
    EXPECT_NE(ctl.status, 0);
    EXPECT_NE(ctl.err.find("already running"), std::string::npos) << ctl.err;
    EXPECT_TRUE(c.WaitBoardUp(0)); /* the first chassis is untouched */
}

TEST(Chassis, TwoBoardsHaveRolesAndRelayTheBatchBackup)
{
    Chassis c;
    ASSERT_EQ(c.Start({"--boards", "0,1", "--master-board", "1", "--ha-mtu", "2000"}).status, 0);
    EXPECT_EQ(c.Board(1)["role"], "master");
    EXPECT_EQ(c.Board(0)["role"], "standby");

    /* When both have joined, the master is asked for a batch backup; its
     * message reaches the standby as a batch message (flag 0). */
    ASSERT_TRUE(c.WaitFile("board0/fake.log", "ha message 0 batch-from-1"));
    EXPECT_TRUE(FileContains(c.Path("board1/fake.log"), "ha event 1"));
    Json ha = c.CtlJson({"dump", "ha"});
    ASSERT_TRUE(ha.is_object());
    EXPECT_EQ(ha["master"], 1);
    EXPECT_EQ(ha["mtu"], 2000);
    EXPECT_GE(ha["messages_relayed"].get<int>(), 1);

    /* An event on request is answered; event 0 with a zero word. */
    ASSERT_EQ(c.Ctl({"ha", "event", "0", "--board", "0"}).status, 0);
    ASSERT_TRUE(WaitUntil([&] {
        Json h = c.CtlJson({"dump", "ha"});
        for (const Json &r : h["responses"]) {
            if (r["board"] == 0 && r["event"] == 0 && r["data"] == 0) return true;
        }
        return false;
    }));
    ProcRun noBoard = c.Ctl({"ha", "event", "3", "--board", "5"});
    EXPECT_NE(noBoard.status, 0);

    /* The standby stops first, the master last. */
    ASSERT_TRUE(c.Stop());
    std::string log = ReadFile(c.Path("chassisd.log"));
    size_t standby = log.find("board 0: stopping tbdld");
    size_t master = log.find("board 1: stopping tbdld");
    ASSERT_NE(standby, std::string::npos);
    ASSERT_NE(master, std::string::npos);
    EXPECT_LT(standby, master);
    EXPECT_TRUE(FileContains(c.Path("board0/fake.log"), "stop value 3"));
    EXPECT_TRUE(FileContains(c.Path("board1/fake.log"), "stop value 3"));
}

TEST(Chassis, DaemonThatIgnoresTheStopIsKilledAfterTheStopTimeout)
{
    Chassis c;
    c.SetEnv({"FAKE_TBDLD_IGNORE_STOP=1"});
    ASSERT_EQ(c.Start({"--stop-timeout", "300"}).status, 0);
    pid_t pid = c.BoardPid(0);
    ProcRun stop = c.Ctl({"stop"});
    EXPECT_EQ(stop.status, 0) << stop.err;
    EXPECT_FALSE(ProcessAlive(pid));
    std::string log = ReadFile(c.Path("chassisd.log"));
    EXPECT_NE(log.find("did not stop within 300 ms; sending SIGKILL"), std::string::npos) << log;
    EXPECT_NE(log.find("stopped: killed by signal 9"), std::string::npos) << log;
    EXPECT_TRUE(FileContains(c.Path("board0/fake.log"), "stop value 3"));
}

TEST(Chassis, DaemonThatNeverReportsUpMakesStartFailAfterTheDeadline)
{
    Chassis c;
    c.SetEnv({"FAKE_TBDLD_NO_STATUS=1"});
    ProcRun r = c.Start({}, 2000);
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find("boards not up within 2 s (board 0 starting)"), std::string::npos) << r.err;
}

} // namespace
