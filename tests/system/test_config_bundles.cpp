/* Bundle and member configuration through tbdlctl and the client against
 * the real daemon; after each step the kernel table and the stored records
 * must agree with the displays. */
#include <gtest/gtest.h>

#include "cfg_checks.h"

namespace tc = tbdl::client;
using namespace tbdl::cfgtest;

namespace {

class ConfigBundles : public DaemonTest {
protected:
    ConfigBundles() : DaemonTest("cfgbnd") {}

    /* tbdlctl args... ended with the status; a refusal prints exactly refusal's description. */
    testing::AssertionResult Tbdl(const std::vector<std::string> &args, std::uint32_t refusal = TBDL_OK)
    {
        ProcRun run = m_chassis.Tbdlctl(args);
        testing::AssertionResult r = Exited(run, refusal == TBDL_OK ? 0 : 1);
        if (r && refusal != TBDL_OK && run.err != tc::DescribeResult(refusal) + "\n") {
            return testing::AssertionFailure() << "printed " << run.err;
        }
        return r;
    }

    std::optional<tc::BndDetail> Show(std::uint32_t n)
    {
        tc::Outcome<tc::Shown<tc::BndDetail>> s = m_client->ShowBundle(n);
        return s && s->uiResult == TBDL_OK ? s->value : std::nullopt;
    }
};

TEST_F(ConfigBundles, CreateInEachModeSetTheAddressAndDelete)
{
    const std::pair<const char *, std::uint8_t> modes[] = {{"loadbalancing", 1}, {"1:1", 2}, {"ProtectionOneplusone", 4}};
    std::uint32_t bnd = 10;
    for (const auto &[name, want] : modes) {
        EXPECT_TRUE(Tbdl({"bundle", "create", std::to_string(bnd), "--mode", name, "--tunnel-mode", "6"})) << name;
        std::optional<tc::BndDetail> d = Show(bnd++);
        ASSERT_TRUE(d) << name;
        EXPECT_EQ(d->ucMode, want) << name;
        EXPECT_EQ(d->usTnlMode, 6u) << name;
        EXPECT_EQ(d->ucState, 0u) << name;
    }
    EXPECT_TRUE(Tbdl({"bundle", "create", "11", "--mode", "1+1"}, TBDL_E_BND_MODE_CONFLICT));
    EXPECT_EQ(Show(11)->ucMode, 2u) << "a refused create changed the bundle";
    EXPECT_TRUE(Tbdl({"bundle", "address", "11", "192.0.2.7"}));
    EXPECT_EQ(tc::FormatAddr(Show(11)->stAddr), "192.0.2.7");
    EXPECT_TRUE(Consistent(m_chassis, *m_client));
    EXPECT_TRUE(Tbdl({"bundle", "address", "11", "--remove"}));
    EXPECT_EQ(tc::FormatAddr(Show(11)->stAddr), "");
    EXPECT_TRUE(Tbdl({"bundle", "address", "11", "--remove"}, TBDL_E_NOCHANGE));
    EXPECT_TRUE(Consistent(m_chassis, *m_client));
    for (std::uint32_t n = 10; n <= 11; n++) {
        ProcRun run = m_chassis.Tbdlctl({"bundle", "delete", std::to_string(n)});
        EXPECT_TRUE(Exited(run, 0)) << n;
        EXPECT_EQ(run.out, BndName(n) + " deleted.\n");
    }
    /* The last bundle's deletion succeeds with a note; creation is then held. */
    ProcRun run = m_chassis.Tbdlctl({"--json", "bundle", "delete", "12"});
    EXPECT_TRUE(Exited(run, 0));
    Json j = Json::parse(run.out, nullptr, false);
    EXPECT_EQ(Json({j["result"], j["ok"]}), Json({TBDL_E_LAST_BND_DELETED, true})) << run.out;
    run = m_chassis.Tbdlctl({"--json", "bundle", "create", "9", "--mode", "1+1"});
    EXPECT_TRUE(Exited(run, 1));
    j = Json::parse(run.out, nullptr, false);
    EXPECT_EQ(Json({j["name"], j["ok"]}), Json({"TBDL_E_BND_HOLD", false})) << run.out;
    EXPECT_FALSE(Show(10));
    EXPECT_TRUE(Consistent(m_chassis, *m_client));
}

TEST_F(ConfigBundles, LoadBalancingMembersWeightsAndRelease)
{
    ASSERT_TRUE(Answers(m_client->CreateBundle(30, TBDL_MODE_LOADBALANCING, 0), TBDL_OK));
    ASSERT_TRUE(Answers(m_client->CreateBundle(31, TBDL_MODE_LOADBALANCING, 0), TBDL_OK));
    for (std::uint32_t t = 300; t <= 302; t++) {
        ASSERT_TRUE(AddTunnel(m_chassis, t, 0, t != 301));
        EXPECT_TRUE(Tbdl({"member", "add", "30", "--tunnel", std::to_string(t)})) << t;
    }
    EXPECT_TRUE(Tbdl({"member", "add", "30", "--tunnel", "300", "--weight", "5"}));
    EXPECT_TRUE(Answers(m_client->AddMember(30, {300, 5, 0}), TBDL_E_NOCHANGE));
    std::optional<tc::BndDetail> d = Show(30);
    ASSERT_TRUE(d);
    ASSERT_EQ(d->members.size(), 3u);
    EXPECT_EQ(d->ucState, 1u);
    for (const tc::MembDetail &m : d->members) {
        EXPECT_EQ(m.usWeight, m.uiTnlNum == 300 ? 5u : 1u) << m.uiTnlNum;
        EXPECT_EQ(m.ucState, m.uiTnlNum == 301 ? 0u : 1u) << m.uiTnlNum;
    }
    EXPECT_TRUE(Consistent(m_chassis, *m_client));

    /* An unbound member, and every member of a deleted bundle, is free again. */
    EXPECT_TRUE(Tbdl({"member", "remove", "30", "--tunnel", "302"}));
    EXPECT_TRUE(Answers(m_client->AddMember(31, {302, 1, 0}), TBDL_OK));
    EXPECT_TRUE(Tbdl({"bundle", "delete", "30"}));
    EXPECT_TRUE(Answers(m_client->AddMember(31, {300, 1, 0}), TBDL_OK));
    EXPECT_TRUE(Consistent(m_chassis, *m_client));
}

}  // namespace
