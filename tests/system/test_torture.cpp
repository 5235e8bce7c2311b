/* Planned crashes of the real daemon: a crash before a call leaves no trace
 * of it, a crash after it keeps its effect, and chassisd's status, log and
 * the journal tell of the crash and the restart. Then a short torture run
 * across the request, recovery, HA, download and standby paths. */
#include <gtest/gtest.h>

#include "cfg_checks.h"

namespace tc = tbdl::client;
using namespace tbdl::cfgtest;
using namespace tbdl::systest;

namespace {

class Crash : public DaemonTest {
protected:
    Crash() : DaemonTest("crash", {"--journal", "--boards", "0,1"}) {}
};

TEST_F(Crash, BeforeLosesTheCallAfterKeepsItAndTheRestartIsReported)
{
    struct Case {
        const char *flag;
        const char *when;
        bool stored; /* the bundle record survives the crash */
    };
    const Case cases[] = {{"--crash", "before", false}, {"--crash-after", "after", true}};
    std::uint32_t bnd = 1;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.flag);
        const pid_t pid = m_chassis.BoardPid(0);
        const int restarts = m_chassis.Board(0).value("restarts", -1);
        ASSERT_TRUE(Exited(m_chassis.Ctl({"fail", "DBM_InsertSortList", c.flag, "--skip", "0"}), 0));
        EXPECT_FALSE(m_client->CreateBundle(bnd, 1, 0)) << "the daemon answered instead of dying";
        ASSERT_TRUE(m_chassis.WaitBoard(0, [&](const Json &b) {
            return b.value("pid", -1) != pid && b.value("status", 0) == 2;
        }));
        ASSERT_TRUE(WaitCfgAnswers(m_chassis));
        ASSERT_TRUE(Reconnect());
        const Json board = m_chassis.Board(0);
        EXPECT_EQ(board.value("restarts", -1), restarts + 1);
        EXPECT_EQ(board.value("last_exit", ""), "killed by signal 9 (Killed)");
        EXPECT_EQ(board.value("start_cause", -1), 1) << "a daemon that died comes back as a process restart";
        Json fail = m_chassis.CtlJson({"dump", "fail"});
        EXPECT_EQ(fail["boards"][0]["calls"][0].value("hits", 0), 1) << fail.dump();
        const std::string journal = ReadFile(m_chassis.Path("board0/journal.jsonl"));
        EXPECT_EQ(CountOccurrences(journal, std::string(R"({"call":"DBM_InsertSortList","when":")") + c.when),
                  1u);
        EXPECT_EQ(m_client->ShowBundle(bnd)->uiResult == TBDL_OK, c.stored);
        EXPECT_TRUE(Consistent(m_chassis, *m_client));
        bnd++;
    }
}

TEST_F(Crash, TortureRunKeepsEveryAcknowledgedRequestAndAgreeingTables)
{
    /* After each point LSM and PS must hold every bundle the table needs;
     * after a standby point the standby's kernel table must hold the
     * master's bundles and a switchover to it must serve them all. */
    const char *points[] = {"CIOCTL:before",       "DBM_InsertSortList:before", "SERVICE_GetStartCause:before",
                            "DBM_BatchGetNextSortList:after", "HA_SendMsgSync:after", "LSM_AddLspEntry:after",
                            "standby:HA_Dispatch:before", "standby:CIOCTL:after"};
    std::string list;
    for (const char *p : points) {
        list += (list.empty() ? "" : ",") + std::string(p);
    }
    ProcRun run = RunProcess({BuildPath("tools/torture"), "--dir", m_chassis.dir(), "--seed", "11",
                              "--requests", "20", "--points", list},
                             {}, 120000);
    ASSERT_TRUE(Exited(run, 0));
    EXPECT_NE(run.out.find("torture: 8 crash points, 0 failed"), std::string::npos) << run.out;
    for (const char *p : points) {
        /* Each point crashed the daemon at least once and the checks passed. */
        const size_t at = run.out.find(std::string(p) + " ");
        ASSERT_NE(at, std::string::npos) << p << "\n" << run.out;
        const std::string line = run.out.substr(at, run.out.find('\n', at) - at);
        EXPECT_NE(line.find(" ok "), std::string::npos) << line;
    }
    EXPECT_GE(m_chassis.Board(1).value("restarts", 0), 2) << "the standby points crashed the standby's daemon";
    EXPECT_EQ(m_chassis.Board(0).value("role", ""), "master") << "the roles were switched back";
    ASSERT_TRUE(Reconnect());
    EXPECT_TRUE(Answers(m_client->CreateBundle(40, 1, 0), TBDL_OK));
}

TEST_F(Crash, TortureRunFailsAPointWhoseLsmLacksABundle)
{
    /* LSM refuses the daemon: the fill's bundles never reach it. */
    ASSERT_TRUE(Exited(m_chassis.Ctl({"lsm", "stop", "--board", "0"}), 0));
    ProcRun run = RunProcess({BuildPath("tools/torture"), "--dir", m_chassis.dir(), "--requests", "2", "--points",
                              "CIOCTL:before"},
                             {}, 60000);
    EXPECT_TRUE(Exited(run, 1));
    EXPECT_NE(run.out.find("FAILURE CIOCTL:before: LSM lacks Tunnel-Bundle1 "), std::string::npos) << run.out;
}

TEST_F(Crash, MasterFailingUnderLoadLeavesTheNewMasterComplete)
{
    /* Each round fails the master in the middle of the stream: a lost or
     * stale entry on the new master, or its LSM or PS missing a bundle after
     * their resynchronisation, fails the round. */
    ProcRun run = RunProcess({BuildPath("tools/torture"), "--dir", m_chassis.dir(), "--seed", "7", "--requests",
                              "10", "--failover", "4"},
                             {}, 120000);
    ASSERT_TRUE(Exited(run, 0)) << run.out;
    EXPECT_NE(run.out.find("torture: 4 rounds, 0 failed"), std::string::npos) << run.out;
    EXPECT_EQ(CountOccurrences(run.out, " ok "), 4u) << run.out;
    for (int b : {0, 1}) {
        EXPECT_EQ(m_chassis.Board(b).value("state", ""), "up") << b; /* the failed board came back */
    }
}

} // namespace
