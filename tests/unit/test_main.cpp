/* Process start-up, event loop, stop signal and teardown. The daemon runs
 * on its own thread against the fake; a hook on the service status report
 * raises the stop signal on that thread, so the loop starts with the
 * signal pending. */
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "fake_platform.h"
#include "main/tbdl_main_priv.h"
#include "tbdl_dbg.h"

namespace {

constexpr int kPlainKill = -1;

/* Sends the stop signal to the calling thread: plain kill (value 0) or
 * with a value. */
void RaiseStop(int iValue)
{
    sigval stVal{};
    stVal.sival_int = iValue;
    if (iValue == kPlainKill) {
        pthread_kill(pthread_self(), SIGRTMIN + 1);
    } else {
        pthread_sigqueue(pthread_self(), SIGRTMIN + 1, stVal);
    }
}

/* Checks that `want` occurs in `names` in this order from `from` on (other
 * calls may lie between); returns the position after the last one. */
size_t ExpectInOrder(const std::vector<std::string> &names, const std::vector<std::string> &want, size_t from = 0)
{
    auto it = names.begin() + static_cast<long>(std::min(from, names.size()));
    for (const std::string &n : want) {
        it = std::find(it, names.end(), n);
        EXPECT_NE(it, names.end()) << n << " missing or out of order";
        if (it == names.end()) {
            return names.size();
        }
        ++it;
    }
    return static_cast<size_t>(it - names.begin());
}

const std::vector<std::string> kTeardown = {"HA_IsMaster", "IF_GetFirstPrivateData", "IF_DestroyPDInstance",
                                            "closelog2"};

class MainTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        m_vecStopFlagAtDeactivation.clear();
        /* Interface events can be subscribed, so activation can succeed. */
        m_iIfEvFd = eventfd(0, EFD_CLOEXEC);
        fake::FailAlways("IF_Event_Init", static_cast<uint64_t>(m_iIfEvFd));
        fake::FailAlways("IF_RegIfEventEx", 1);
        /* The normal-stop flag as deactivation sees it: the interface
         * module's deactivation walks its private data. */
        fake::OnCall("IF_GetFirstPrivateData",
                     [this](const fake::Call &) { m_vecStopFlagAtDeactivation.push_back(g_bTbdlNormalStop); });
    }
    void TearDown() override
    {
        close(m_iIfEvFd);
        g_bTbdlNormalStop = 0;
    }

    /* Stops the daemon with iValue as soon as it reports itself up. */
    void StopWhenUp(int iValue)
    {
        fake::OnCall("SERVICE_SetStatus", [iValue](const fake::Call &) { RaiseStop(iValue); });
    }

    /* Runs the daemon to its end on its own thread (10 s at most); pfnAfter
     * runs on that thread once the daemon has returned. */
    int Run(const std::function<void()> &pfnAfter = {})
    {
        std::promise<int> stDone;
        std::future<int> stResult = stDone.get_future();
        std::thread stThread([&stDone, &pfnAfter]() {
            int iRet = TBDL_MAIN_Run(0, nullptr);
            if (pfnAfter) {
                pfnAfter();
            }
            stDone.set_value(iRet);
        });
        if (stResult.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            ADD_FAILURE() << "the daemon did not stop";
            pthread_kill(stThread.native_handle(), SIGRTMIN + 1);
        }
        stThread.join();
        return stResult.get();
    }

    /* Descriptors and stop flags back at their initial values. */
    void ExpectGlobalsReset()
    {
        EXPECT_EQ(std::make_tuple(-1, -1, 0, 0), std::make_tuple(g_iTbdlEpollFd, g_iTbdlScmSignalFd,
                                                                 int(g_bTbdlIsStopProcess), int(g_bTbdlNormalStop)));
    }

    int m_iIfEvFd = -1;
    std::vector<u16> m_vecStopFlagAtDeactivation;
};

TEST_F(MainTest, MasterStartsEveryModuleReportsUpAndTearsDownInOrder)
{
    StopWhenUp(3);
    EXPECT_EQ(0, Run());
    EXPECT_EQ(std::vector<uint32_t>{SERVICE_STATUS_UP}, fake::ServiceStatuses());
    std::vector<std::string> names = fake::Names();
    /* Limits, log, module Inits, activation, status report; then the
     * deactivation of the master and the Finis. */
    size_t ulAt = ExpectInOrder(names, {"IF_GetDataByIfType", "LFIB_GetInfo", "TBDL_Opt_Parse", "openlog", "DBM_Open",
                                        "HA_Init", "IF_CreatePDInstance", "DBM_Batch_Proc", "LIPC_GetHostPath",
                                        "SERVICE_SetStatus"});
    ulAt = ExpectInOrder(names, kTeardown, ulAt);
    ExpectInOrder(names, {"DBM_Close", "HA_Exit"}, ulAt);
    EXPECT_FALSE(fake::LogOpen());
    EXPECT_FALSE(fake::DbOpen());
    ExpectGlobalsReset();
}

TEST_F(MainTest, LimitsComeFromThePlatform)
{
    const struct {
        const char *pcWhat;
        bool bBndAnswers, bLfibOk;
        uint8_t ucMaxMemb;
        uint16_t ausModes[3];
        u32 uiWantBnd, uiWantMemb;
    } cases[] = {
        {"all answer", true, true, 5, {1, 0, 1}, 2048, 5},
        {"member limit 0 is taken", true, true, 0, {0, 1, 0}, 2048, 0},
        {"failures keep the defaults", false, false, 5, {0, 0, 0}, 1024, 8},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.pcWhat);
        TearDown();
        SetUp();
        fake::Config().maxBnd = 2048;
        fake::Config().maxBndAnswers = c.bBndAnswers;
        fake::Config().lfibOk = c.bLfibOk;
        fake::Config().lfibMaxMemb = c.ucMaxMemb;
        std::copy(std::begin(c.ausModes), std::end(c.ausModes), fake::Config().modes);
        StopWhenUp(3);
        EXPECT_EQ(0, Run());
        const TBDL_SPEC_S &st = g_stTbdlSpecConf;
        EXPECT_EQ(std::make_tuple(c.uiWantBnd, c.uiWantMemb, c.ausModes[0], c.ausModes[1], c.ausModes[2]),
                  std::make_tuple(st.uiMaxBndNum, st.uiMaxMembNum, st.usLoadBalancing, st.usProtectionOnetoone,
                                  st.usProtectionOneplusone));
    }
    EXPECT_EQ((std::vector<uint64_t>{96, 13}), fake::CallsOf("IF_GetDataByIfType").at(0).args);
    auto opt = fake::CallsOf("TBDL_Opt_Parse").at(0);
    EXPECT_EQ("LoadBalancing|ProtectionOnetoone|ProtectionOneplusone", opt.text);
    EXPECT_EQ((std::vector<uint64_t>{3, 0, 2, 0, 2, 0, 2}), opt.args);
}

TEST_F(MainTest, OnlyValueThreeIsAnOrderlyStop)
{
    const struct {
        const char *pcWhat;
        int iValue;
        u16 usWantNormal;
    } cases[] = {{"sigqueue value 3", 3, 1}, {"plain kill", kPlainKill, 0}, {"sigqueue value 7", 7, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.pcWhat);
        TearDown();
        SetUp();
        StopWhenUp(c.iValue);
        EXPECT_EQ(0, Run());
        EXPECT_EQ(std::vector<u16>{c.usWantNormal}, m_vecStopFlagAtDeactivation);
        ExpectGlobalsReset();
    }
}

TEST_F(MainTest, StandbyReportsUpWithoutActivatingOrDeactivating)
{
    fake::Config().master = false;
    StopWhenUp(3);
    EXPECT_EQ(0, Run());
    EXPECT_EQ(std::vector<uint32_t>{SERVICE_STATUS_UP}, fake::ServiceStatuses());
    EXPECT_EQ(0u, fake::CountOf("DBM_Batch_Proc"));   /* no recovery */
    EXPECT_EQ(0u, fake::CountOf("LIPC_GetHostPath")); /* no configuration socket */
    EXPECT_TRUE(m_vecStopFlagAtDeactivation.empty());
    EXPECT_EQ(1u, fake::CountOf("HA_Exit"));
    ExpectGlobalsReset();
}

TEST_F(MainTest, FailedStartRunsEveryInitThenTheFullTeardownAndExitsWithMinusOne)
{
    const struct {
        const char *pcWhat, *pcCall;
        uint64_t ulResult;
        bool bActivated;
    } cases[] = {{"database init", "DBM_Open", 1, false},
                 {"HA init", "HA_Init", ~0ull, false},
                 {"activation: no configuration socket", "LIPC_GetHostPath", 1, true}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.pcWhat);
        TearDown();
        SetUp();
        fake::FailAlways(c.pcCall, c.ulResult);
        StopWhenUp(3); /* must not be reached */
        EXPECT_EQ(-1, Run());
        EXPECT_EQ(0u, fake::CountOf("SERVICE_SetStatus"));
        std::vector<std::string> names = fake::Names();
        size_t ulAt = ExpectInOrder(names, {"openlog", "DBM_Open", "HA_Init", "IF_CreatePDInstance"});
        EXPECT_EQ(c.bActivated ? 1u : 0u, fake::CountOf("DBM_Batch_Proc"));
        /* The teardown deactivates the master as an orderly stop. */
        EXPECT_EQ(std::vector<u16>{1}, m_vecStopFlagAtDeactivation);
        ExpectInOrder(names, kTeardown, ulAt);
        EXPECT_FALSE(fake::LogOpen());
        ExpectGlobalsReset();
    }
}

TEST_F(MainTest, FailedEpollCreateStartsNoModule)
{
    rlimit stOld{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &stOld));
    /* Right after the log is opened, no further descriptor can be made. */
    fake::OnCall("openlog", [](const fake::Call &) {
        int iFree = dup(0);
        close(iFree);
        rlimit stLow{};
        getrlimit(RLIMIT_NOFILE, &stLow);
        stLow.rlim_cur = static_cast<rlim_t>(iFree);
        setrlimit(RLIMIT_NOFILE, &stLow);
    });
    /* Restored on the daemon's thread: its own clean-up may need descriptors. */
    int iRestore = -1;
    int iRet = Run([&]() { iRestore = setrlimit(RLIMIT_NOFILE, &stOld); });
    ASSERT_EQ(0, iRestore);
    EXPECT_EQ(-1, iRet);
    for (const char *pcCall : {"DBM_Open", "HA_Init", "closelog2", "SERVICE_SetStatus"}) {
        EXPECT_EQ(0u, fake::CountOf(pcCall)) << pcCall; /* no Init, no teardown */
    }
    EXPECT_EQ(-1, g_iTbdlEpollFd);
    EXPECT_EQ(1, g_bTbdlNormalStop);
    TBDL_DBG_Fini(); /* the log was opened and never closed */
}

TEST(SignalCallback, ShortReadLeavesTheProcessRunning)
{
    g_bTbdlIsStopProcess = 0;
    g_bTbdlNormalStop = 0;
    int aiPipe[2];
    ASSERT_EQ(0, pipe(aiPipe));
    char acSome[10] = {};
    ASSERT_EQ(10, write(aiPipe[1], acSome, sizeof(acSome)));
    EXPECT_EQ(TBDL_E_FAILED, tbdl_main_SignalCallback(EPOLLIN, static_cast<u64>(aiPipe[0])));
    EXPECT_EQ(0, g_bTbdlIsStopProcess);
    EXPECT_EQ(0, g_bTbdlNormalStop);
    close(aiPipe[0]);
    close(aiPipe[1]);
}

} // namespace
