/* Process start-up, event loop, stop signal and teardown. The daemon runs
 * on its own thread against the fake; a hook on the service status report
 * raises the stop signal on that thread, so the loop starts with the
 * signal pending. */
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "fake_platform.h"
#include "main/tbdl_main_priv.h"
#include "tbdl_dbg.h"

namespace {

constexpr int kNoSignal = -2;
constexpr int kPlainKill = -1;

/* Sends the stop signal to the calling thread: plain kill (value 0) or
 * with a value. */
void RaiseStop(int iValue)
{
    if (iValue == kPlainKill) {
        pthread_kill(pthread_self(), SIGRTMIN + 1);
        return;
    }
    sigval stVal{};
    stVal.sival_int = iValue;
    pthread_sigqueue(pthread_self(), SIGRTMIN + 1, stVal);
}

/* Position of the first call named `name` at or after `from`; npos when
 * there is none. */
size_t IndexOf(const std::vector<std::string> &names, const std::string &name, size_t from = 0)
{
    auto it = std::find(names.begin() + static_cast<long>(std::min(from, names.size())), names.end(), name);
    return it == names.end() ? std::string::npos : static_cast<size_t>(it - names.begin());
}

/* Checks that `want` occurs in `names` in this order (other calls may lie
 * between); returns the position after the last one. */
size_t ExpectInOrder(const std::vector<std::string> &names, const std::vector<std::string> &want,
                     size_t from = 0)
{
    size_t ulAt = from;
    for (const std::string &n : want) {
        size_t ulNext = IndexOf(names, n, ulAt);
        EXPECT_NE(std::string::npos, ulNext) << n << " missing or out of order";
        if (ulNext == std::string::npos) {
            return names.size();
        }
        ulAt = ulNext + 1;
    }
    return ulAt;
}

class MainTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        /* Interface events can be subscribed, so activation can succeed. */
        m_iIfEvFd = eventfd(0, EFD_CLOEXEC);
        ASSERT_GE(m_iIfEvFd, 0);
        fake::FailAlways("IF_Event_Init", static_cast<uint64_t>(m_iIfEvFd));
        fake::FailAlways("IF_RegIfEventEx", 1);
        /* The normal-stop flag as the deactivation sees it: the interface
         * module's deactivation walks its private data. */
        fake::OnCall("IF_GetFirstPrivateData", [this](const fake::Call &) {
            m_vecStopFlagAtDeactivation.push_back(g_bTbdlNormalStop);
        });
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

    void ExpectGlobalsReset()
    {
        EXPECT_EQ(-1, g_iTbdlEpollFd);
        EXPECT_EQ(-1, g_iTbdlScmSignalFd);
        EXPECT_EQ(0, g_bTbdlIsStopProcess);
        EXPECT_EQ(0, g_bTbdlNormalStop);
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
    /* Start-up: limits, log, module Inits, activation, status report. */
    const std::vector<std::string> start = {"IF_GetDataByIfType", "LFIB_GetInfo", "TBDL_Opt_Parse",
                                            "openlog", "DBM_Open", "HA_Init", "IF_CreatePDInstance",
                                            "DBM_Batch_Proc", "LIPC_GetHostPath", "SERVICE_SetStatus"};
    size_t ulAt = ExpectInOrder(names, start);
    /* Teardown: deactivation on the master, then the Finis. */
    ExpectInOrder(names, {"HA_IsMaster", "IF_GetFirstPrivateData", "IF_DestroyPDInstance", "closelog2",
                          "DBM_Close", "HA_Exit"},
                  ulAt);
    EXPECT_FALSE(fake::LogOpen());
    EXPECT_FALSE(fake::DbOpen());
    ExpectGlobalsReset();
}

TEST_F(MainTest, LimitsComeFromThePlatform)
{
    struct Case {
        const char *pcWhat;
        bool bBndAnswers;
        bool bLfibOk;
        uint8_t ucMaxMemb;
        uint16_t ausModes[3];
        u32 uiWantBnd;
        u32 uiWantMemb;
    };
    const Case cases[] = {
        {"all answer", true, true, 5, {1, 0, 1}, 2048, 5},
        {"member limit 0 is taken", true, true, 0, {0, 1, 0}, 2048, 0},
        {"failures keep the defaults", false, false, 5, {0, 0, 0}, 1024, 8},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pcWhat);
        if (&c != cases) {
            TearDown();
            SetUp();
        }
        fake::Config().maxBnd = 2048;
        fake::Config().maxBndAnswers = c.bBndAnswers;
        fake::Config().lfibOk = c.bLfibOk;
        fake::Config().lfibMaxMemb = c.ucMaxMemb;
        std::copy(std::begin(c.ausModes), std::end(c.ausModes), fake::Config().modes);
        StopWhenUp(3);
        EXPECT_EQ(0, Run());
        EXPECT_EQ(c.uiWantBnd, g_stTbdlSpecConf.uiMaxBndNum);
        EXPECT_EQ(c.uiWantMemb, g_stTbdlSpecConf.uiMaxMembNum);
        EXPECT_EQ(c.ausModes[0], g_stTbdlSpecConf.usLoadBalancing);
        EXPECT_EQ(c.ausModes[1], g_stTbdlSpecConf.usProtectionOnetoone);
        EXPECT_EQ(c.ausModes[2], g_stTbdlSpecConf.usProtectionOneplusone);
    }
    auto ifType = fake::CallsOf("IF_GetDataByIfType").at(0);
    EXPECT_EQ((std::vector<uint64_t>{96, 13}), ifType.args);
    auto opt = fake::CallsOf("TBDL_Opt_Parse").at(0);
    EXPECT_EQ("LoadBalancing|ProtectionOnetoone|ProtectionOneplusone", opt.text);
    EXPECT_EQ((std::vector<uint64_t>{3, 0, 2, 0, 2, 0, 2}), opt.args);
}

struct StopCase {
    const char *pcWhat;
    int iValue;
    u16 usWantNormal;
};

class MainStop : public MainTest, public ::testing::WithParamInterface<StopCase> {};

TEST_P(MainStop, OnlyValueThreeIsAnOrderlyStop)
{
    const StopCase &sc = GetParam();
    /* The download link to LSM can connect, so a withdrawal is visible. */
    int iLsmFd = eventfd(0, EFD_CLOEXEC);
    fake::FailAlways("LSM_RegProtocolHandler", static_cast<uint64_t>(iLsmFd));
    StopWhenUp(sc.iValue);
    EXPECT_EQ(0, Run());
    EXPECT_EQ(std::vector<u16>{sc.usWantNormal}, m_vecStopFlagAtDeactivation);
    ExpectGlobalsReset();

    std::vector<std::string> names = fake::Names();
    size_t ulUp = IndexOf(names, "SERVICE_SetStatus");
    ASSERT_NE(std::string::npos, ulUp);
    if (IndexOf(names, "LSM_RegProtocolHandler") < ulUp) {
        /* Withdrawal is an empty smoothing cycle sent before leaving LSM. */
        size_t ulGrAtStop = 0;
        for (size_t i = ulUp; i < names.size(); i++) {
            ulGrAtStop += names[i] == "LSM_SendGrEvent" ? 1 : 0;
        }
        EXPECT_EQ(sc.usWantNormal == 1 ? 2u : 0u, ulGrAtStop);
    }
    close(iLsmFd);
}

INSTANTIATE_TEST_SUITE_P(Values, MainStop,
                         ::testing::Values(StopCase{"sigqueue value 3", 3, 1},
                                           StopCase{"plain kill", kPlainKill, 0},
                                           StopCase{"sigqueue value 7", 7, 0}),
                         [](const ::testing::TestParamInfo<StopCase> &info) {
                             return std::string(info.param.iValue == 3   ? "Value3"
                                                : info.param.iValue == 7 ? "Value7"
                                                                         : "PlainKill");
                         });

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

struct InitFailCase {
    const char *pcWhat;
    const char *pcCall;
    uint64_t ulResult;
};

class MainInitFail : public MainTest, public ::testing::WithParamInterface<InitFailCase> {};

TEST_P(MainInitFail, EveryInitStillRunsThenTheFullTeardownAndExitFails)
{
    const InitFailCase &fc = GetParam();
    fake::FailOnce(fc.pcCall, fc.ulResult);
    StopWhenUp(3); /* must not be reached */
    EXPECT_EQ(-1, Run());
    EXPECT_TRUE(fake::ServiceStatuses().empty());
    EXPECT_EQ(0u, fake::CountOf("SERVICE_SetStatus"));
    std::vector<std::string> names = fake::Names();
    /* The Inits after the failing one ran; nothing was activated. */
    size_t ulAt = ExpectInOrder(names, {"openlog", "DBM_Open", "HA_Init", "IF_CreatePDInstance"});
    EXPECT_EQ(0u, fake::CountOf("DBM_Batch_Proc"));
    /* The teardown deactivates the master as an orderly stop. */
    EXPECT_EQ(std::vector<u16>{1}, m_vecStopFlagAtDeactivation);
    ExpectInOrder(names, {"HA_IsMaster", "IF_GetFirstPrivateData", "IF_DestroyPDInstance", "closelog2"},
                  ulAt);
    EXPECT_FALSE(fake::LogOpen());
    ExpectGlobalsReset();
}

INSTANTIATE_TEST_SUITE_P(
    Inits, MainInitFail,
    ::testing::Values(InitFailCase{"database", "DBM_Open", 1},
                      InitFailCase{"ha", "HA_Init", static_cast<uint64_t>(-1)}),
    [](const ::testing::TestParamInfo<InitFailCase> &info) { return std::string(info.param.pcWhat); });

TEST_F(MainTest, FailedActivationOnTheMasterFailsTheStart)
{
    /* The configuration socket cannot be opened: activation reports a
     * failure, the start fails and the teardown deactivates again. */
    fake::FailAlways("LIPC_GetHostPath", 1);
    StopWhenUp(3);
    int iRet = Run();
    EXPECT_EQ(-1, iRet);
    EXPECT_TRUE(fake::ServiceStatuses().empty());
    EXPECT_EQ(std::vector<u16>{1}, m_vecStopFlagAtDeactivation);
    ExpectGlobalsReset();
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
    /* The limit is restored before the daemon's thread ends: the thread's
     * own clean-up may need descriptors. */
    int iRestore = -1;
    int iRet = Run([&]() { iRestore = setrlimit(RLIMIT_NOFILE, &stOld); });
    ASSERT_EQ(0, iRestore);
    EXPECT_EQ(-1, iRet);
    EXPECT_EQ(0u, fake::CountOf("DBM_Open"));
    EXPECT_EQ(0u, fake::CountOf("HA_Init"));
    EXPECT_EQ(0u, fake::CountOf("closelog2")); /* no teardown either */
    EXPECT_EQ(0u, fake::CountOf("SERVICE_SetStatus"));
    EXPECT_EQ(-1, g_iTbdlEpollFd);
    EXPECT_EQ(1, g_bTbdlNormalStop);
    TBDL_DBG_Fini(); /* the log was opened and never closed */
}

/* ---- The stop-signal callback on its own ---- */

class SignalCallback : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_bTbdlIsStopProcess = 0;
        g_bTbdlNormalStop = 0;
    }
    void TearDown() override
    {
        g_bTbdlIsStopProcess = 0;
        g_bTbdlNormalStop = 0;
    }
};

TEST_F(SignalCallback, ValueDecidesTheOrderlyStop)
{
    struct Case {
        int iValue;
        u16 usNormal;
    };
    const Case cases[] = {{3, 1}, {kPlainKill, 0}, {4, 0}};
    std::thread([&]() {
        sigset_t stSet;
        sigemptyset(&stSet);
        sigaddset(&stSet, SIGRTMIN + 1);
        pthread_sigmask(SIG_BLOCK, &stSet, nullptr);
        int iFd = signalfd(-1, &stSet, 0);
        ASSERT_GE(iFd, 0);
        for (const Case &c : cases) {
            g_bTbdlIsStopProcess = 0;
            g_bTbdlNormalStop = 0;
            RaiseStop(c.iValue);
            EXPECT_EQ(0u, tbdl_main_SignalCallback(EPOLLIN, static_cast<u64>(iFd))) << c.iValue;
            EXPECT_EQ(1, g_bTbdlIsStopProcess) << c.iValue;
            EXPECT_EQ(c.usNormal, g_bTbdlNormalStop) << c.iValue;
        }
        close(iFd);
    }).join();
}

TEST_F(SignalCallback, ShortReadLeavesTheProcessRunning)
{
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
