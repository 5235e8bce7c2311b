/* Recovery of the stored configuration by the real daemon: a process
 * restart compares stored VRFs with L3VPN's. The daemon's L3VPN
 * registration is made to fail, so only recovery can notice a VRF move. */
#include <gtest/gtest.h>

#include "cfg_checks.h"

namespace tc = tbdl::client;
using namespace tbdl::cfgtest;

namespace {

class ConfigRecovery : public DaemonTest {
protected:
    ConfigRecovery() : DaemonTest("cfgrec") {}
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(DaemonTest::SetUp());
        ASSERT_TRUE(Exited(m_chassis.Ctl({"fail", "L3VPN_RegEvt", "--always"}), 0));
        ASSERT_TRUE(Restart());
    }

    /* chassisctl board restart 0, then a fresh client on the new process. */
    testing::AssertionResult Restart()
    {
        const pid_t before = m_chassis.BoardPid(0);
        ProcRun run = m_chassis.Ctl({"board", "restart", "0"});
        if (run.status != 0 || m_chassis.BoardPid(0) == before || !WaitCfgAnswers(m_chassis)) {
            return testing::AssertionFailure() << "no new daemon answers";
        }
        return Reconnect();
    }

    int StartCause() { return m_chassis.Board(0).value("start_cause", -1); }

    void Bundle(std::uint32_t n, std::uint16_t mode, std::vector<tc::MembOp> members)
    {
        ASSERT_TRUE(Answers(m_client->CreateBundle(n, mode, 0), TBDL_OK)) << n;
        for (const tc::MembOp &m : members) {
            ASSERT_TRUE(AddTunnel(m_chassis, m.uiTnlNum));
            ASSERT_TRUE(Answers(m_client->AddMember(n, m), TBDL_OK)) << m.uiTnlNum;
        }
    }

    /* Bundles as shown, reduced to what recovery must keep. */
    std::map<std::uint32_t, std::string> Summary()
    {
        std::map<std::uint32_t, std::string> s;
        for (const auto &[n, d] : Table(*m_client).value_or(std::map<std::uint32_t, tc::BndDetail>{})) {
            std::string &text = s[n] = "mode " + std::to_string(d.ucMode) + " addr " + tc::FormatAddr(d.stAddr) +
                                       " state " + std::to_string(d.ucState) + " members";
            for (const tc::MembDetail &m : d.members) {
                text += " " + std::to_string(m.uiTnlNum) + "/w" + std::to_string(m.usWeight) + "/r" +
                        std::to_string(m.ucRole);
            }
        }
        return s;
    }
};

TEST_F(ConfigRecovery, ProcessRestartComparesVrf)
{
    Bundle(1, TBDL_MODE_LOADBALANCING, {{11, 2, 0}, {12, 3, 0}});
    ASSERT_TRUE(Answers(m_client->SetAddress(1, *tc::ParseIpv4("10.1.0.1")), TBDL_OK));
    Bundle(2, TBDL_MODE_ONETOONE, {{21, 1, 0}, {22, 1, 1}});
    Bundle(3, TBDL_MODE_LOADBALANCING, {{31, 1, 0}});
    Bundle(4, TBDL_MODE_LOADBALANCING, {{41, 1, 0}, {42, 1, 0}});
    Bundle(5, TBDL_MODE_ONEPLUSONE, {});
    ASSERT_TRUE(Consistent(m_chassis, *m_client));
    std::map<std::uint32_t, std::string> before = Summary();

    /* Bundle 3's interface and member Tunnel41 move to other VRFs. */
    ASSERT_TRUE(Exited(m_chassis.Ctl({"vrf", "bind", "Tunnel-Bundle3", "7"}), 0));
    ASSERT_TRUE(Exited(m_chassis.Ctl({"vrf", "bind", "Tunnel41", "8"}), 0));
    ASSERT_TRUE(Restart());
    EXPECT_EQ(StartCause(), 1);

    std::map<std::uint32_t, std::string> after = Summary();
    EXPECT_EQ(after.count(3), 0u) << "a bundle whose interface changed VRF is discarded";
    EXPECT_EQ(IfIndexes(m_chassis).count("Tunnel-Bundle3"), 0u) << "its interface index is released";
    for (std::uint32_t n : {1u, 2u, 5u}) {
        EXPECT_EQ(after[n], before[n]) << "bundle " << n;
    }
    EXPECT_EQ(after[4], "mode 1 addr  state 1 members 42/w1/r0") << "a member that changed VRF is dropped";
    EXPECT_TRUE(StoreMatches(m_chassis, *m_client));
    /* The kernel keeps the dropped member of bundle 4: nothing tells it
     * to forget a member that recovery did not restore. */
    EXPECT_TRUE(KtbdlMatches(m_chassis, *m_client, 0, {4}));

    /* The freed tunnels can be bound again; the number 3 is free. */
    EXPECT_TRUE(Answers(m_client->AddMember(1, {31, 1, 0}), TBDL_OK));
    EXPECT_TRUE(Answers(m_client->CreateBundle(3, TBDL_MODE_LOADBALANCING, 0), TBDL_OK));
    EXPECT_TRUE(StoreMatches(m_chassis, *m_client));
}

}  // namespace
