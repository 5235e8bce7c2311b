/* The real daemon's displays as tbdlctl shows them, and its debug switch.
 * Non-default limits prove the figures come from the chassis settings. */
#include <gtest/gtest.h>

#include "cfg_checks.h"

namespace tc = tbdl::client;
using namespace tbdl::cfgtest;

namespace {

class ConfigDisplay : public DaemonTest {
protected:
    ConfigDisplay() : DaemonTest("cfgdisp", {"--bundle-slots", "100", "--member-limit", "3"}) {}

    /* Bundle 60 (1:1, tunnel mode 7, an address, members 600 up and 601
     * down) and bundle 62 (load balancing, nothing else). */
    void Populate()
    {
        tc::Client &c = *m_client;
        ASSERT_TRUE(AddTunnel(m_chassis, 600, 7, true));
        ASSERT_TRUE(AddTunnel(m_chassis, 601, 7, false));
        ASSERT_TRUE(Answers(c.CreateBundle(60, TBDL_MODE_ONETOONE, 7), TBDL_OK));
        ASSERT_TRUE(Answers(c.CreateBundle(62, TBDL_MODE_LOADBALANCING, 0), TBDL_OK));
        /* The address with two carried bytes, which travel as received. */
        ASSERT_TRUE(Exited(m_chassis.Tbdlctl({"raw", "--class", "0", "--type", "1", "--oper", "0", "--tlv", "2:0000003c",
                                              "--tlv", "203:0002beef0a060001000000000000000000000000"}), 0));
        ASSERT_TRUE(Answers(c.AddMember(60, {600, 3, 0}), TBDL_OK));
        ASSERT_TRUE(Answers(c.AddMember(60, {601, 4, 1}), TBDL_OK));
    }
};

TEST_F(ConfigDisplay, TbdlctlShowsTablesLimitsAndJson)
{
    ASSERT_NO_FATAL_FAILURE(Populate());
    ProcRun run = m_chassis.Tbdlctl({"show", "bundles"});
    ASSERT_TRUE(Exited(run, 0));
    EXPECT_EQ(run.out, "Bundle  Mode           TnlMode  State  Address   Members\n"
                       "60      1:1            7        up     10.6.0.1  601,600\n"
                       "62      loadbalancing  0        down   -         -\n");
    run = m_chassis.Tbdlctl({"show", "bundle", "60"});
    ASSERT_TRUE(Exited(run, 0));
    EXPECT_EQ(run.out, "Tunnel-Bundle60\n  Work mode    : 1:1 (2)\n  Tunnel mode  : 7\n  State        : up\n"
                       "  Address      : 10.6.0.1\n  Members      : 2\n\n  Member     Weight  Role  State\n"
                       "  Tunnel601  4       1     down\n  Tunnel600  3       0     up\n");
    run = m_chassis.Tbdlctl({"--json", "show", "bundles"});
    ASSERT_TRUE(Exited(run, 0));
    Json j = Json::parse(run.out)["bundles"];
    ASSERT_EQ(j.size(), 2u);
    EXPECT_EQ(j[0]["mode_name"], "1:1");
    EXPECT_EQ(j[0]["members"][0], Json::parse(R"({"role":1,"state":0,"tunnel":601,"up":false,"weight":4})"));
    EXPECT_EQ(j[1]["address"], nullptr);
    EXPECT_EQ(m_chassis.Tbdlctl({"--json", "show", "counts"}).out, "{\"down\":1,\"total\":2,\"up\":1}\n");
    EXPECT_EQ(m_chassis.Tbdlctl({"--json", "show", "counts", "62"}).out, "{\"down\":1,\"total\":1,\"up\":0}\n");
    run = m_chassis.Tbdlctl({"show", "bundle", "61"});
    EXPECT_TRUE(Exited(run, 1));
    EXPECT_EQ(run.err, tc::DescribeResult(TBDL_E_FAILED) + "\n");
    run = m_chassis.Tbdlctl({"--json", "show", "limits"});
    ASSERT_TRUE(Exited(run, 0));
    EXPECT_EQ(Json::parse(run.out), Json::parse(R"({"bundle_slots":100,"member_limit":3,
        "modes":{"LoadBalancing":true,"ProtectionOnetoone":true,"ProtectionOneplusone":true}})"));
}

TEST_F(ConfigDisplay, DebugSwitchWord)
{
    for (const char *cmd : {"on event", "on all", "off event"}) {
        const std::string c = cmd;
        EXPECT_TRUE(Exited(m_chassis.Tbdlctl({"debug", c.substr(0, c.find(' ')), c.substr(c.find(' ') + 1)}), 0)) << c;
    }
    ProcRun run = m_chassis.Tbdlctl({"debug", "on", "3"});
    EXPECT_TRUE(Exited(run, 1));
    EXPECT_EQ(run.err, tc::DescribeResult(TBDL_E_INVALID_PARAM) + "\n");
    run = m_chassis.Tbdlctl({"--json", "show", "debug"});
    ASSERT_TRUE(Exited(run, 0));
    EXPECT_EQ(Json::parse(run.out), Json::parse(R"({"switch":1,"error":true,"event":false})"));
}

}  // namespace
