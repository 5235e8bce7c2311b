/* The interface state a board reads is chassisd's shared copy: a change made
 * with chassisctl decides the very next request to the daemon, a second
 * board's library (called here in this process as board 1) reads the same
 * change, and none of these reads is a round trip to chassisd. */
#include <stdlib.h>

#include <gtest/gtest.h>

#include "cfg_checks.h"
#include "chassis_env.h"
#include "platform.h"

using namespace tbdl::cfgtest;

namespace {

class LocalState : public DaemonTest {
protected:
    LocalState() : DaemonTest("local") {}

    void SetUp() override
    {
        DaemonTest::SetUp();
        ASSERT_TRUE(Answers(m_client->CreateBundle(1, TBDL_MODE_LOADBALANCING, 0), TBDL_OK));
        ASSERT_TRUE(AddTunnel(m_chassis, 10));
        setenv(tbdl::plat::kEnvChassisDir, m_chassis.dir().c_str(), 1);
        setenv(tbdl::plat::kEnvBoard, "1", 1);
        tbdl::plat::ReloadChassisEnv();
    }
    void TearDown() override
    {
        unsetenv(tbdl::plat::kEnvChassisDir);
        tbdl::plat::ReloadChassisEnv();
    }

    /* Interface queries (index by name, data, tunnel mode, VRF) board made
     * to chassisd so far. */
    std::uint64_t IfRoundTrips(int board) const
    {
        std::uint64_t n = 0;
        for (const Json &b : m_chassis.CtlJson({"status"}).value("lib_calls", Json::array())) {
            for (const char *op : {"2", "3", "5", "6"}) {
                n += b["board"] == board ? b["by_op"].value(op, std::uint64_t{0}) : 0;
            }
        }
        return n;
    }

    /* Tunnel n as this process's library reads it. */
    static std::string Read(std::uint32_t n)
    {
        u32 idx = IF_GetIfIndexByFullName(("Tunnel" + std::to_string(n)).c_str());
        u32 mode = 99, state = 99;
        u16 vrf = 99;
        (void)TUNNEL_GetMode(idx, &mode);
        (void)L3VPN_GetVrfIndexByIfIndex(idx, &vrf);
        (void)IF_GetDataByIfIndex(idx, IF_DATA_STATE, &state);
        return "mode " + std::to_string(mode) + " vrf " + std::to_string(vrf) + " state " + std::to_string(state);
    }

    /* Tunnel n's state as the daemon shows it in bundle 1, -1 when no member. */
    int MemberState(std::uint32_t n)
    {
        tc::Outcome<tc::Shown<tc::BndDetail>> s = m_client->ShowBundle(1);
        for (const tc::MembDetail &m : s && s->value ? s->value->members : std::vector<tc::MembDetail>{}) {
            if (m.uiTnlNum == n) {
                return m.ucState;
            }
        }
        return -1;
    }
};

TEST_F(LocalState, EachChangeDecidesTheNextBindWithoutAskingChassisd)
{
    std::uint64_t before = IfRoundTrips(0);
    const struct {
        std::vector<std::string> ctl;
        const char *read;
        std::uint32_t answer;
        int shown; /* the member's state once bound */
    } steps[] = {
        {{"if", "set", "Tunnel10", "--mode", "3"}, "mode 3 vrf 0 state 1", TBDL_E_TNL_MODE_MISMATCH, -1},
        {{"if", "set", "Tunnel10", "--mode", "0"}, "mode 0 vrf 0 state 1", TBDL_OK, 1},
        {{"vrf", "bind", "Tunnel10", "5"}, "mode 0 vrf 5 state 1", TBDL_E_VRF_MISMATCH, -1},
        {{"vrf", "unbind", "Tunnel10"}, "mode 0 vrf 0 state 1", TBDL_OK, 1},
        {{"if", "set", "Tunnel10", "--state", "down"}, "mode 0 vrf 0 state 0", TBDL_OK, 0},
    };
    for (const auto &s : steps) {
        ASSERT_TRUE(Exited(m_chassis.Ctl(s.ctl), 0));
        ASSERT_TRUE(Answers(m_client->AddMember(1, {10, 1, 0}), s.answer)) << s.read;
        EXPECT_EQ(Read(10), s.read);
        EXPECT_EQ(MemberState(10), s.shown) << s.read;
        if (s.answer == TBDL_OK) {
            ASSERT_TRUE(Answers(m_client->RemoveMember(1, 10), TBDL_OK)) << s.read;
        }
    }
    EXPECT_EQ(IfRoundTrips(0), before) << "binds and unbinds read interfaces locally";
    EXPECT_EQ(IfRoundTrips(1), 0u);
}

TEST_F(LocalState, ADeletedTunnelIsGoneForTheNextBind)
{
    ASSERT_TRUE(AddTunnel(m_chassis, 11));
    ASSERT_TRUE(Exited(m_chassis.Ctl({"if", "del", "Tunnel11"}), 0));
    ASSERT_TRUE(tbdl::systest::WaitUntil([&] { return IfIndexes(m_chassis).count("Tunnel11") == 0; }));
    EXPECT_TRUE(Answers(m_client->AddMember(1, {11, 1, 0}), TBDL_E_FAILED));
    EXPECT_EQ(IF_GetIfIndexByFullName("Tunnel11"), 0u);
}

} // namespace
