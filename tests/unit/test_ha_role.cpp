/* HA role: channel set-up and its failure paths, HA events and their
 * answers, the order of module activation and deactivation. */
#include <sys/epoll.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_platform.h"
#include "ha/tbdl_ha_priv.h"
#include "tbdl_bas.h"
#include "tbdl_bnd.h"
#include "tbdl_cfg.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"

namespace {

constexpr u32 kNoData = 0xFFFFFFFFu;
const char kUpgradeFailed[] =
    "ERROR Failed to process HA upgrade event because activating some modules failed.\r\n";

class HaRoleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        ASSERT_EQ(TBDL_DBG_Init(), 0u);
        g_stTbdlLogVar.uiDebugSwitch = 3;
        m_iEpfd = epoll_create1(EPOLL_CLOEXEC);
        ASSERT_GE(m_iEpfd, 0);
        ASSERT_EQ(TBDL_DBM_Init(), 0u);
        TBDL_SPEC_S stSpec = {1024, 8, 1, 1, 1};
        ASSERT_EQ(TBDL_BND_Init(&stSpec, nullptr, m_iEpfd), 0u);
        ASSERT_EQ(TBDL_INTF_Init(m_iEpfd), 0u);
    }

    void TearDown() override
    {
        TBDL_CFG_Deactivate();
        TBDL_CFG_Fini();
        TBDL_INTF_Fini();
        TBDL_BND_ClearRunning();
        TBDL_BND_Fini();
        TBDL_DBM_Fini();
        TBDL_HA_Fini();
        TBDL_DBG_Fini();
        close(m_iEpfd);
    }

    /* Waits (bounded) for one descriptor event on the loop and runs its
     * callback. */
    void Pump()
    {
        struct epoll_event stEv;
        int n = epoll_wait(m_iEpfd, &stEv, 1, 5000);
        ASSERT_EQ(n, 1) << "no event on the loop within the deadline";
        TBDL_BAS_EpollDispatch(&stEv);
    }

    void DeliverEvent(u32 uiEvent)
    {
        fake::HaPushEvent(uiEvent);
        Pump();
    }

    /* A stored bundle (down, no members) that recovery will restore. */
    static void StoreBnd(u32 uiBndNum)
    {
        fake::Bytes rec(32, 0);
        rec[20] = static_cast<uint8_t>(uiBndNum >> 24);
        rec[21] = static_cast<uint8_t>(uiBndNum >> 16);
        rec[22] = static_cast<uint8_t>(uiBndNum >> 8);
        rec[23] = static_cast<uint8_t>(uiBndNum);
        rec[24] = TBDL_MODE_LOADBALANCING;
        fake::DbPut({0x01}, 20, rec);
    }

    static size_t LogCount(const std::string &line)
    {
        size_t n = 0;
        for (const auto &s : fake::LogLines()) {
            n += (s == line) ? 1 : 0;
        }
        return n;
    }

    static bool HasBundles()
    {
        TBDL_BND_INFO_S stInfo;
        std::memset(&stInfo, 0, sizeof(stInfo));
        return TBDL_BND_GetFirstBndInfo(&stInfo) == 0;
    }

    int m_iEpfd = -1;
};

TEST_F(HaRoleTest, InitJoinsTheServiceAndRegistersChannelAndHooks)
{
    ASSERT_EQ(TBDL_HA_Init(m_iEpfd), 0u);

    auto c = fake::CallsOf("HA_Init").at(0);
    EXPECT_EQ(c.text, "TBDL|TBDL");
    EXPECT_EQ(c.args, (std::vector<uint64_t>{0, 1, 2}));
    fake::Bytes ident(8, 0);
    u16 us0 = 2682, us1 = 2681;
    std::memcpy(&ident[0], &us0, 2);
    std::memcpy(&ident[4], &us1, 2);
    EXPECT_EQ(c.data, ident);

    EXPECT_EQ(fake::CallsOf("HA_AllocMsg").at(0).args.at(0), 1400u);
    EXPECT_EQ(g_stTbdlHaVar.iEpollFd, m_iEpfd);
    EXPECT_GE(g_stTbdlHaVar.iHaFd, 0);
    ASSERT_NE(g_stTbdlHaVar.pucMsgBuf, nullptr);
    EXPECT_EQ(g_stTbdlHaVar.usMsgBufSize, 1400);
    EXPECT_EQ(g_stTbdlHaVar.usMsgLen, 0);

    /* The role is asked of the HA library each time. */
    EXPECT_EQ(TBDL_BAS_HAIsMaster(), 1);
    fake::Config().master = false;
    EXPECT_EQ(TBDL_BAS_HAIsMaster(), 0);
    EXPECT_EQ(TBDL_BAS_HAExistSlaveService(), 0);
    fake::Config().slavePresent = true;
    EXPECT_EQ(TBDL_BAS_HAExistSlaveService(), 1);

    /* The channel is on the loop: an event pushed now is delivered. */
    DeliverEvent(TBDL_HA_EV_ACK_ONLY);
    EXPECT_EQ(fake::HaResponses().size(), 1u);

    /* Only the low 16 bits of a larger MTU become the capacity. */
    TBDL_HA_Fini();
    fake::Config().haMtu = 70000;
    ASSERT_EQ(TBDL_HA_Init(m_iEpfd), 0u);
    EXPECT_EQ(fake::CallsOf("HA_AllocMsg").back().args.at(0), 70000u);
    EXPECT_EQ(g_stTbdlHaVar.usMsgBufSize, 70000 & 0xFFFF);
}

TEST_F(HaRoleTest, InitFailuresReleaseWhatWasObtained)
{
    struct Case {
        const char *pcWhat;
        const char *pcFail;
        uint64_t ulResult;
        bool bBadEpoll;
        size_t nExit;
        size_t nFree;
    };
    const Case astCases[] = {
        {"no channel", "HA_Init", static_cast<uint64_t>(-1), false, 0, 0},
        {"no buffer", "HA_AllocMsg", 0, false, 1, 0},
        {"loop registration fails", nullptr, 0, true, 1, 1},
    };
    for (const Case &c : astCases) {
        SCOPED_TRACE(c.pcWhat);
        fake::ClearJournal();
        fake::ClearFailures();
        if (c.pcFail != nullptr) {
            fake::FailOnce(c.pcFail, c.ulResult);
        }
        EXPECT_EQ(TBDL_HA_Init(c.bBadEpoll ? -1 : m_iEpfd), TBDL_E_FAILED);
        EXPECT_EQ(fake::CountOf("HA_Exit"), c.nExit);
        EXPECT_EQ(fake::CountOf("HA_FreeMsg"), c.nFree);
        EXPECT_EQ(g_stTbdlHaVar.iHaFd, -1);
        EXPECT_EQ(g_stTbdlHaVar.iEpollFd, -1);
        EXPECT_EQ(g_stTbdlHaVar.pucMsgBuf, nullptr);
        EXPECT_EQ(g_stTbdlHaVar.usMsgBufSize, 0);
        EXPECT_EQ(TBDL_BAS_HAIsMaster(), 0) << "hooks are not registered";
    }
    EXPECT_EQ(fake::CountOf("HA_GetMTU"), 1u) << "the first case stops before asking the MTU";
}

TEST_F(HaRoleTest, FiniReleasesChannelBufferAndHooksOnce)
{
    ASSERT_EQ(TBDL_HA_Init(m_iEpfd), 0u);
    i32 iHaFd = g_stTbdlHaVar.iHaFd;
    fake::ClearJournal();

    TBDL_HA_Fini();
    auto exits = fake::CallsOf("HA_Exit");
    ASSERT_EQ(exits.size(), 1u);
    EXPECT_EQ(static_cast<i32>(exits[0].args.at(0)), iHaFd);
    EXPECT_EQ(fake::CountOf("HA_FreeMsg"), 1u);
    EXPECT_EQ(TBDL_BAS_HAIsMaster(), 0);
    EXPECT_EQ(g_stTbdlHaVar.iHaFd, -1);
    EXPECT_EQ(g_stTbdlHaVar.pucMsgBuf, nullptr);
    EXPECT_EQ(g_stTbdlHaVar.usMsgBufSize, 0);

    TBDL_HA_Fini();
    EXPECT_EQ(fake::CountOf("HA_Exit"), 1u);
    EXPECT_EQ(fake::CountOf("HA_FreeMsg"), 1u);
}

TEST_F(HaRoleTest, EachKnownEventIsAnsweredOnceUnknownOnesNot)
{
    ASSERT_EQ(TBDL_HA_Init(m_iEpfd), 0u);
    ASSERT_EQ(TBDL_CFG_Init(static_cast<u32>(m_iEpfd)), 0u);

    struct Case {
        u32 uiEvent;
        std::vector<std::pair<uint32_t, uint32_t>> vecResponses;
    };
    const Case astCases[] = {
        {0, {{0, 0}}},
        {1, {{1, kNoData}}},
        {2, {{2, kNoData}}},
        {3, {{3, kNoData}}},
        {7, {}},
    };
    for (const Case &c : astCases) {
        SCOPED_TRACE("event " + std::to_string(c.uiEvent));
        fake::ClearJournal();
        size_t nBefore = fake::HaResponses().size();
        DeliverEvent(c.uiEvent);
        std::vector<std::pair<uint32_t, uint32_t>> got(fake::HaResponses().begin() + nBefore,
                                                       fake::HaResponses().end());
        EXPECT_EQ(got, c.vecResponses);
        if (c.uiEvent == 3 || c.uiEvent == 7) {
            std::vector<std::string> want = {"HA_Dispatch"};
            if (c.uiEvent == 3) {
                want.push_back("HA_Response");
            }
            EXPECT_EQ(fake::Names(), want);
        }
        if (c.uiEvent == 2) {
            /* The database is brought in step before activation. */
            EXPECT_EQ(fake::Names({"DBM_Sync", "SERVICE_GetStartCause", "HA_Response"}),
                      (std::vector<std::string>{"DBM_Sync", "SERVICE_GetStartCause", "HA_Response"}));
            EXPECT_NE(g_stTbdlCfgGlobalVar.iListenFd, -1);
        }
    }
}

TEST_F(HaRoleTest, DeactivateEventRunsWholeDeactivationEvenWhenInactive)
{
    ASSERT_EQ(TBDL_HA_Init(m_iEpfd), 0u);
    ASSERT_EQ(TBDL_CFG_Init(static_cast<u32>(m_iEpfd)), 0u);
    StoreBnd(3);
    u32 uiIf = fake::AddTunnel(1);
    fake::DbPut({0x02, 0, 0, 0, 3}, 0, {0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0});
    ASSERT_EQ(TBDL_HA_Activate(), 0u);
    ASSERT_TRUE(HasBundles());
    ASSERT_EQ(fake::PrivateData().count(uiIf), 1u);

    /* Member interfaces go before the bundle table and the socket. */
    bool bBundlesAtIntf = false;
    bool bSocketAtIntf = false;
    fake::OnCall("IF_GetFirstPrivateData", [&](const fake::Call &) {
        bBundlesAtIntf = HasBundles();
        bSocketAtIntf = g_stTbdlCfgGlobalVar.iListenFd != -1;
    });

    DeliverEvent(TBDL_HA_EV_DEACTIVATE);
    EXPECT_TRUE(bBundlesAtIntf);
    EXPECT_TRUE(bSocketAtIntf);
    EXPECT_TRUE(fake::PrivateData().empty());
    EXPECT_FALSE(HasBundles());
    EXPECT_EQ(g_stTbdlCfgGlobalVar.iListenFd, -1);
    EXPECT_EQ(g_stTbdlLogVar.uiDebugSwitch, 0u);
    EXPECT_EQ(fake::Db().count({0x01}), 1u) << "stored configuration stays";

    /* Again on a board that is already inactive: same sequence, same answer. */
    g_stTbdlLogVar.uiDebugSwitch = 3;
    DeliverEvent(TBDL_HA_EV_DEACTIVATE);
    EXPECT_EQ(g_stTbdlLogVar.uiDebugSwitch, 0u);
    EXPECT_EQ(fake::HaResponses(),
              (std::vector<std::pair<uint32_t, uint32_t>>{{0, 0}, {0, 0}}));
}

TEST_F(HaRoleTest, ActivationRecoversBeforeOpeningTheSocket)
{
    ASSERT_EQ(TBDL_HA_Init(m_iEpfd), 0u);
    ASSERT_EQ(TBDL_CFG_Init(static_cast<u32>(m_iEpfd)), 0u);
    StoreBnd(3);
    bool bSocketAtRecovery = true;
    fake::OnCall("DBM_Batch_Proc", [&](const fake::Call &) {
        bSocketAtRecovery = g_stTbdlCfgGlobalVar.iListenFd != -1;
    });
    fake::ClearJournal();

    EXPECT_EQ(TBDL_HA_Activate(), 0u);
    EXPECT_FALSE(bSocketAtRecovery);
    /* Recovery, then the down bundle pushed to the kernel, then the socket. */
    EXPECT_EQ(fake::Names({"SERVICE_GetStartCause", "DBM_Batch_Proc", "CIOCTL", "LIPC_GetHostPath"}),
              (std::vector<std::string>{"SERVICE_GetStartCause", "DBM_Batch_Proc", "CIOCTL",
                                        "LIPC_GetHostPath"}));
    auto k = fake::CallsOf("CIOCTL").at(0);
    EXPECT_EQ(k.args.at(1), TBDL_KCMD_BND_UPDATE);
    EXPECT_NE(g_stTbdlCfgGlobalVar.iListenFd, -1);
}

TEST_F(HaRoleTest, UpgradeWithFailedActivationStepStillActivatesTheRestLogsOnceAndAnswers)
{
    ASSERT_EQ(TBDL_HA_Init(m_iEpfd), 0u);
    /* The configuration channel was never initialised: its activation fails. */
    StoreBnd(3);
    fake::ClearJournal();

    DeliverEvent(TBDL_HA_EV_UPGRADE);
    EXPECT_EQ(LogCount(kUpgradeFailed), 1u);
    EXPECT_TRUE(HasBundles()) << "recovery ran";
    EXPECT_EQ(fake::CountOf("CIOCTL"), 1u) << "the refresh ran";
    EXPECT_EQ(fake::HaResponses(), (std::vector<std::pair<uint32_t, uint32_t>>{{2, kNoData}}));

    EXPECT_NE(TBDL_HA_Activate(), 0u) << "a direct activation reports the failure as well";
}

TEST_F(HaRoleTest, FailedResponseIsLogged)
{
    ASSERT_EQ(TBDL_HA_Init(m_iEpfd), 0u);
    fake::FailOnce("HA_Response", 1);
    DeliverEvent(TBDL_HA_EV_ACK_ONLY);
    EXPECT_EQ(LogCount("ERROR Failed to respond to HA. Event: 3.\r\n"), 1u);
    EXPECT_EQ(fake::CountOf("HA_Response"), 1u);
}

} // namespace
