/* Process start-up, event loop, stop signal and teardown. The daemon runs on its own thread against the fake; a hook on
 * the service status report raises the stop signal on that thread, so the loop starts with the signal pending. */
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <future>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "fake_platform.h"
#include "main/tbdl_main_priv.h"

namespace {

constexpr int kPlainKill = -1;

/* Sends the stop signal to the calling thread: plain kill (value 0) or with a value. */
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

/* Start-up and teardown milestones: limits, log, module Inits, activation
 * (recovery), status report, deactivation (private data walk), Finis. */
const std::vector<std::string> kMilestones = {
    "IF_GetDataByIfType", "LFIB_GetInfo", "TBDL_Opt_Parse", "openlog", "DBM_Open", "HA_Init",
    "IF_CreatePDInstance", "DBM_Batch_Proc", "SERVICE_SetStatus", "IF_GetFirstPrivateData",
    "IF_DestroyPDInstance", "closelog2", "DBM_Close", "HA_Exit"};

std::vector<std::string> Without(std::vector<std::string> v, const std::vector<std::string> &drop)
{
    for (const std::string &d : drop) {
        v.erase(std::find(v.begin(), v.end(), d));
    }
    return v;
}

class MainTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        m_vecStopFlagAtDeactivation.clear();
        /* The normal-stop flag as deactivation sees it: the interface module's deactivation walks its private data. */
        fake::OnCall("IF_GetFirstPrivateData",
                     [this](const fake::Call &) { m_vecStopFlagAtDeactivation.push_back(g_bTbdlNormalStop); });
    }
    void TearDown() override { g_bTbdlNormalStop = 0; }

    /* Stops the daemon with iValue as soon as it reports itself up. */
    void StopWhenUp(int v) { fake::OnCall("SERVICE_SetStatus", [v](const fake::Call &) { RaiseStop(v); }); }

    /* Runs the daemon to its end on its own thread (10 s at most). */
    int Run()
    {
        std::promise<int> stDone;
        std::future<int> stResult = stDone.get_future();
        std::thread stThread([&stDone]() { stDone.set_value(TBDL_MAIN_Run(0, nullptr)); });
        if (stResult.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            ADD_FAILURE() << "the daemon did not stop";
            pthread_kill(stThread.native_handle(), SIGRTMIN + 1);
        }
        stThread.join();
        return stResult.get();
    }

    /* Log and database closed, descriptors and stop flags back at their initial values. */
    void ExpectAllReleased()
    {
        EXPECT_FALSE(fake::LogOpen());
        EXPECT_FALSE(fake::DbOpen());
        EXPECT_EQ(std::make_tuple(-1, -1, 0, 0), std::make_tuple(g_iTbdlEpollFd, g_iTbdlScmSignalFd,
                                                                 int(g_bTbdlIsStopProcess), int(g_bTbdlNormalStop)));
    }

    std::vector<u16> m_vecStopFlagAtDeactivation;
};

/* Limits come from the platform (failed queries keep the defaults); only value 3 is an orderly stop; a standby reports
 * up without activating or deactivating; a failed start runs every Init, then the full teardown (deactivating the
 * master as an orderly stop), and exits with -1 without reporting up. */
TEST_F(MainTest, StartsWithPlatformLimitsStopsOnSignalAndTearsDownInOrder)
{
    using Names = std::vector<std::string>;
    /* master, stop value, failing call and its result, platform limits (bundle slots answered, LFIB answered, its
     * member limit, mode switches), result, milestones not reached, stop flags at deactivation, limits taken. */
    const struct { const char *what; bool master; int value; const char *fail; uint64_t failRes; bool bndOk, lfibOk;
        uint8_t maxMemb; std::array<u16, 3> modes; int ret; Names notCalled; std::vector<u16> stopFlag;
        u32 wantBnd, wantMemb; } cases[] = {
        {"value 3, limits taken", true, 3, nullptr, 0, true, true, 5, {1, 0, 1}, 0, {}, {1}, 2048, 5},
        {"plain kill, member limit 0", true, kPlainKill, nullptr, 0, true, true, 0, {0, 1, 0}, 0, {}, {0}, 2048, 0},
        {"value 7, failed queries: defaults", true, 7, nullptr, 0, false, false, 5, {0, 0, 0}, 0, {}, {0}, 1024, 8},
        {"standby", false, 3, nullptr, 0, true, true, 8, {1, 1, 1}, 0,
         {"DBM_Batch_Proc", "IF_GetFirstPrivateData"}, {}, 2048, 8},
        {"database init fails", true, 3, "DBM_Open", 1, true, true, 8, {1, 1, 1}, -1,
         {"DBM_Batch_Proc", "SERVICE_SetStatus", "DBM_Close"}, {1}, 2048, 8},
        {"HA init fails", true, 3, "HA_Init", ~0ull, true, true, 8, {1, 1, 1}, -1,
         {"DBM_Batch_Proc", "SERVICE_SetStatus", "HA_Exit"}, {1}, 2048, 8},
        {"activation fails: no configuration socket", true, 3, "LIPC_GetHostPath", 1, true, true, 8, {1, 1, 1}, -1,
         {"SERVICE_SetStatus"}, {1}, 2048, 8},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        TearDown();
        SetUp();
        fake::Settings &cfg = fake::Config();
        std::tie(cfg.master, cfg.maxBnd, cfg.maxBndAnswers, cfg.lfibOk, cfg.lfibMaxMemb) =
            std::make_tuple(c.master, 2048u, c.bndOk, c.lfibOk, c.maxMemb);
        std::copy(c.modes.begin(), c.modes.end(), cfg.modes);
        if (c.fail != nullptr) {
            fake::FailAlways(c.fail, c.failRes);
        }
        StopWhenUp(c.value); /* not reached when the start fails */
        EXPECT_EQ(c.ret, Run());
        EXPECT_EQ(std::vector<uint32_t>(c.ret == 0 ? 1 : 0, SERVICE_STATUS_UP), fake::ServiceStatuses());
        EXPECT_EQ(c.stopFlag, m_vecStopFlagAtDeactivation);
        EXPECT_EQ(Without(kMilestones, c.notCalled), fake::Names(kMilestones));
        ExpectAllReleased();
        const TBDL_SPEC_S &st = g_stTbdlSpecConf;
        EXPECT_EQ(std::make_tuple(c.wantBnd, c.wantMemb, c.modes[0], c.modes[1], c.modes[2]),
                  std::make_tuple(st.uiMaxBndNum, st.uiMaxMembNum, st.usLoadBalancing, st.usProtectionOnetoone,
                                  st.usProtectionOneplusone));
    }
    EXPECT_EQ((std::vector<uint64_t>{96, 13}), fake::CallsOf("IF_GetDataByIfType").at(0).args);
    auto opt = fake::CallsOf("TBDL_Opt_Parse").at(0);
    EXPECT_EQ("LoadBalancing|ProtectionOnetoone|ProtectionOneplusone", opt.text);
    EXPECT_EQ((std::vector<uint64_t>{3, 0, 2, 0, 2, 0, 2}), opt.args);
}

} // namespace
