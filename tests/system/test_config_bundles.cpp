/* Bundle and member configuration against the real daemon; after each step
 * the kernel table and the stored records must agree with the displays.
 * The tests share one chassis, so each uses its own numbers; a keeper
 * bundle keeps the table from emptying (which would start the hold). */
#include <functional>

#include <gtest/gtest.h>

#include "cfg_checks.h"

namespace tc = tbdl::client;
using namespace tbdl::cfgtest;

namespace {

constexpr std::uint32_t kKeeper = 1023;

class ConfigBundles : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_chassis = new Chassis("cfgbnd");
        s_started = StartWithDaemon(*s_chassis);
        if (s_started) {
            tc::Outcome<tc::Client> c = Connect(*s_chassis);
            s_started = c ? Answers(c->CreateBundle(kKeeper, TBDL_MODE_LOADBALANCING, 0), TBDL_OK)
                          : testing::AssertionFailure() << c.error();
        }
    }

    static void TearDownTestSuite()
    {
        delete s_chassis;
        s_chassis = nullptr;
    }

    void SetUp() override
    {
        ASSERT_TRUE(s_started) << s_started.message();
        tc::Outcome<tc::Client> c = Connect(*s_chassis);
        ASSERT_TRUE(c) << c.error();
        m_client.emplace(std::move(*c));
    }

    Chassis &chassis() { return *s_chassis; }
    tc::Client &client() { return *m_client; }

    std::optional<tc::BndDetail> Show(std::uint32_t n)
    {
        tc::Outcome<tc::Shown<tc::BndDetail>> s = client().ShowBundle(n);
        return s && s->uiResult == TBDL_OK ? s->value : std::nullopt;
    }

    testing::AssertionResult Consistent()
    {
        testing::AssertionResult k = KtbdlMatches(chassis(), client());
        return k ? StoreMatches(chassis(), client()) : k;
    }

    static Chassis *s_chassis;
    static testing::AssertionResult s_started;
    std::optional<tc::Client> m_client;
};

Chassis *ConfigBundles::s_chassis = nullptr;
testing::AssertionResult ConfigBundles::s_started = testing::AssertionFailure();

TEST_F(ConfigBundles, CreateInEachModeAndRefuseConflicts)
{
    struct Case {
        std::uint32_t bnd;
        const char *mode;
        std::uint8_t want;
    };
    const Case cases[] = {
        {10, "loadbalancing", 1}, {11, "1:1", 2}, {12, "1+1", 4}, {13, "LoadBalancing", 1},
        {14, "ProtectionOnetoone", 2}, {15, "ProtectionOneplusone", 4},
    };
    for (const Case &c : cases) {
        ProcRun run = chassis().Tbdlctl({"bundle", "create", std::to_string(c.bnd), "--mode", c.mode,
                                         "--tunnel-mode", "6"});
        EXPECT_TRUE(Exited(run, 0)) << c.mode;
        std::optional<tc::BndDetail> d = Show(c.bnd);
        ASSERT_TRUE(d) << c.mode;
        EXPECT_EQ(d->ucMode, c.want) << c.mode;
        EXPECT_EQ(d->usTnlMode, 6u) << c.mode;
        EXPECT_EQ(d->ucState, 0u) << c.mode;
    }
    EXPECT_TRUE(Consistent());

    struct Refusal {
        const char *what;
        std::uint32_t bnd;
        std::uint16_t mode;
        std::uint32_t want;
    };
    const Refusal refusals[] = {
        {"another mode on a 1:1 bundle", 11, 4, TBDL_E_BND_MODE_CONFLICT},
        {"the same mode again", 11, 2, TBDL_E_NOCHANGE},
        {"load balancing over a 1:1 bundle", 11, 1, TBDL_E_NOCHANGE},
        {"another mode on a load-balancing bundle", 10, 2, TBDL_E_BND_MODE_CONFLICT},
        {"mode 0", 16, 0, TBDL_E_MODE_NOTSUPPORT},
        {"mode 8", 16, 8, TBDL_E_MODE_NOTSUPPORT},
        {"number beyond the slots", 1024, 1, TBDL_E_INVALID_BND},
    };
    for (const Refusal &r : refusals) {
        EXPECT_TRUE(Answers(client().CreateBundle(r.bnd, r.mode, 6), r.want)) << r.what;
    }
    std::optional<tc::BndDetail> d = Show(11);
    ASSERT_TRUE(d);
    EXPECT_EQ(d->ucMode, 2u) << "a refused create changed the bundle";
    EXPECT_FALSE(Show(16));

    /* The mode-conflict refusal as the operator sees it. */
    ProcRun run = chassis().Tbdlctl({"bundle", "create", "12", "--mode", "1:1"});
    EXPECT_TRUE(Exited(run, 1));
    EXPECT_EQ(run.err, tc::DescribeResult(TBDL_E_BND_MODE_CONFLICT) + "\n");

    for (std::uint32_t n = 10; n <= 15; n++) {
        EXPECT_TRUE(Answers(client().DeleteBundle(n), TBDL_OK)) << n;
    }
    EXPECT_TRUE(Answers(client().DeleteBundle(16), TBDL_OK)) << "deleting a missing bundle is a success";
    EXPECT_TRUE(Consistent());
}

TEST_F(ConfigBundles, AddressSetAgainAndRemove)
{
    ASSERT_TRUE(Answers(client().CreateBundle(20, TBDL_MODE_LOADBALANCING, 0), TBDL_OK));
    const tc::AddrBlock a = *tc::ParseIpv4("10.0.0.20");
    const tc::AddrBlock b = *tc::ParseIpv4("10.0.0.21");
    struct Step {
        const char *what;
        std::function<tc::Outcome<std::uint32_t>()> send;
        std::uint32_t want;
        const char *shown;
    };
    const Step steps[] = {
        {"set", [&] { return client().SetAddress(20, a); }, TBDL_OK, "10.0.0.20"},
        {"set again", [&] { return client().SetAddress(20, a); }, TBDL_E_NOCHANGE, "10.0.0.20"},
        {"set another", [&] { return client().SetAddress(20, b); }, TBDL_OK, "10.0.0.21"},
        {"remove", [&] { return client().RemoveAddress(20); }, TBDL_OK, ""},
        {"remove again", [&] { return client().RemoveAddress(20); }, TBDL_E_NOCHANGE, ""},
        {"set 0.0.0.0 on a bundle without one", [&] { return client().SetAddress(20, *tc::ParseIpv4("0.0.0.0")); },
         TBDL_E_NOCHANGE, ""},
    };
    for (const Step &s : steps) {
        EXPECT_TRUE(Answers(s.send(), s.want)) << s.what;
        std::optional<tc::BndDetail> d = Show(20);
        ASSERT_TRUE(d) << s.what;
        EXPECT_EQ(tc::FormatAddr(d->stAddr), s.shown) << s.what;
        EXPECT_TRUE(Consistent()) << s.what;
    }
    EXPECT_TRUE(Answers(client().SetAddress(21, a), TBDL_E_NOTEXIST)) << "address of a missing bundle";

    EXPECT_TRUE(Exited(chassis().Tbdlctl({"bundle", "address", "20", "192.0.2.7"}), 0));
    EXPECT_EQ(tc::FormatAddr(Show(20)->stAddr), "192.0.2.7");
    EXPECT_TRUE(Exited(chassis().Tbdlctl({"bundle", "address", "20", "--remove"}), 0));
    ProcRun run = chassis().Tbdlctl({"bundle", "address", "20", "--remove"});
    EXPECT_TRUE(Exited(run, 1));
    EXPECT_EQ(run.err, tc::DescribeResult(TBDL_E_NOCHANGE) + "\n");
    EXPECT_TRUE(Consistent());
}

TEST_F(ConfigBundles, LoadBalancingMembersUpToTheLimit)
{
    ASSERT_TRUE(Answers(client().CreateBundle(30, TBDL_MODE_LOADBALANCING, 0), TBDL_OK));
    ASSERT_TRUE(Answers(client().CreateBundle(31, TBDL_MODE_LOADBALANCING, 0), TBDL_OK));
    for (std::uint32_t t = 300; t <= 308; t++) {
        ASSERT_TRUE(AddTunnel(chassis(), t, 0, t != 301));
    }
    for (std::uint32_t t = 300; t <= 306; t++) {
        EXPECT_TRUE(Answers(client().AddMember(30, {t, 1, 0}), TBDL_OK)) << t;
    }
    EXPECT_TRUE(Answers(client().AddMember(30, {308, 1, 1}), TBDL_E_MEMB_ROLE)) << "role 1 while there is room";
    EXPECT_TRUE(Exited(chassis().Tbdlctl({"member", "add", "30", "--tunnel", "307"}), 0));
    EXPECT_TRUE(Answers(client().AddMember(30, {308, 1, 0}), TBDL_E_MEMB_FULL)) << "a ninth member";
    ProcRun run = chassis().Tbdlctl({"member", "add", "30", "--tunnel", "308"});
    EXPECT_TRUE(Exited(run, 1));
    EXPECT_EQ(run.err, tc::DescribeResult(TBDL_E_MEMB_FULL) + "\n");

    std::optional<tc::BndDetail> d = Show(30);
    ASSERT_TRUE(d);
    ASSERT_EQ(d->members.size(), 8u);
    EXPECT_EQ(d->members.front().uiTnlNum, 307u) << "newest member first";
    EXPECT_EQ(d->ucState, 1u);
    EXPECT_TRUE(Consistent());

    /* A refused interface is free for another bundle. */
    EXPECT_TRUE(Answers(client().AddMember(31, {308, 2, 0}), TBDL_OK));
    /* Binding a member again changes its weight, once. */
    EXPECT_TRUE(Answers(client().AddMember(30, {300, 5, 0}), TBDL_OK));
    EXPECT_TRUE(Answers(client().AddMember(30, {300, 5, 0}), TBDL_E_NOCHANGE));
    d = Show(30);
    ASSERT_TRUE(d);
    for (const tc::MembDetail &m : d->members) {
        EXPECT_EQ(m.usWeight, m.uiTnlNum == 300 ? 5u : 1u) << m.uiTnlNum;
        EXPECT_EQ(m.ucState, m.uiTnlNum == 301 ? 0u : 1u) << m.uiTnlNum;
    }
    EXPECT_TRUE(Consistent());

    /* Unbinding frees room; unbinding what is not bound answers 0. */
    EXPECT_TRUE(Exited(chassis().Tbdlctl({"member", "remove", "30", "--tunnel", "306"}), 0));
    EXPECT_TRUE(Answers(client().RemoveMember(30, 306), TBDL_OK));
    EXPECT_TRUE(Answers(client().RemoveMember(30, 9999), TBDL_OK));
    EXPECT_TRUE(Answers(client().AddMember(30, {306, 1, 0}), TBDL_OK));

    /* Deleting a bundle with members releases them. */
    EXPECT_TRUE(Exited(chassis().Tbdlctl({"bundle", "delete", "30"}), 0));
    EXPECT_TRUE(Answers(client().AddMember(31, {300, 1, 0}), TBDL_OK));
    EXPECT_TRUE(Consistent());
}

TEST_F(ConfigBundles, ProtectionMembersTakeTwoDifferentRoles)
{
    for (std::uint16_t mode : {TBDL_MODE_ONETOONE, TBDL_MODE_ONEPLUSONE}) {
        const std::uint32_t bnd = 40 + mode;
        const std::uint32_t t0 = bnd * 10;
        ASSERT_TRUE(Answers(client().CreateBundle(bnd, mode, 0), TBDL_OK));
        for (std::uint32_t t = t0; t < t0 + 3; t++) {
            ASSERT_TRUE(AddTunnel(chassis(), t));
        }
        EXPECT_TRUE(Answers(client().AddMember(bnd, {t0, 1, 1}), TBDL_OK)) << "first member, any role";
        EXPECT_TRUE(Answers(client().AddMember(bnd, {t0 + 1, 1, 1}), TBDL_E_MEMB_ROLE)) << "same role";
        EXPECT_TRUE(Answers(client().AddMember(bnd, {t0 + 1, 1, 0}), TBDL_OK)) << "other role";
        EXPECT_TRUE(Answers(client().AddMember(bnd, {t0 + 2, 1, 2}), TBDL_E_MEMB_FULL)) << "a third member";
        EXPECT_TRUE(Answers(client().AddMember(bnd, {t0, 7, 1}), TBDL_E_NOCHANGE)) << "weight outside load balancing";
        std::optional<tc::BndDetail> d = Show(bnd);
        ASSERT_TRUE(d);
        ASSERT_EQ(d->members.size(), 2u);
        EXPECT_EQ(d->members[0].ucRole, 0u);
        EXPECT_EQ(d->members[1].ucRole, 1u);
        EXPECT_EQ(d->members[1].usWeight, 1u);
        EXPECT_TRUE(Consistent()) << "mode " << mode;
    }
}

TEST_F(ConfigBundles, MemberRefusals)
{
    ASSERT_TRUE(Answers(client().CreateBundle(50, TBDL_MODE_LOADBALANCING, 0), TBDL_OK));
    ASSERT_TRUE(Answers(client().CreateBundle(51, TBDL_MODE_LOADBALANCING, 0), TBDL_OK));
    ASSERT_TRUE(AddTunnel(chassis(), 500, 3));
    ASSERT_TRUE(AddTunnel(chassis(), 501, 0, true, 9));
    ASSERT_TRUE(AddTunnel(chassis(), 502));
    ASSERT_TRUE(AddTunnel(chassis(), 503));
    ASSERT_TRUE(Answers(client().AddMember(50, {502, 1, 0}), TBDL_OK));
    struct Case {
        const char *what;
        std::uint32_t bnd;
        std::uint32_t tnl;
        std::uint32_t want;
    };
    const Case cases[] = {
        {"tunnel mode differs", 51, 500, TBDL_E_TNL_MODE_MISMATCH},
        {"VRF differs", 51, 501, TBDL_E_VRF_MISMATCH},
        {"member of another bundle", 51, 502, TBDL_E_MEMB_IN_OTHER_BND},
        {"no such tunnel", 51, 599, TBDL_E_FAILED},
        {"no such bundle", 59, 503, TBDL_E_NOTEXIST},
    };
    for (const Case &c : cases) {
        ProcRun run = chassis().Tbdlctl({"member", "add", std::to_string(c.bnd), "--tunnel", std::to_string(c.tnl)});
        EXPECT_TRUE(Exited(run, 1)) << c.what;
        EXPECT_EQ(run.err, tc::DescribeResult(c.want) + "\n") << c.what;
    }
    EXPECT_TRUE(Show(51)->members.empty());
    EXPECT_EQ(Show(50)->members.size(), 1u);
    EXPECT_TRUE(Consistent());
}

}  // namespace
