/* The daemon's download to LSM and PS on the emulated chassis: after each
 * configuration step, LSM holds one entry per bundle with members and PS one
 * per protection bundle with exactly two members, as the daemon's table
 * says; stopped services catch up when started; an orderly stop withdraws
 * what a killed daemon leaves in place; a board without the PS library
 * downloads to LSM alone. */
#include <gtest/gtest.h>

#include "cfg_checks.h"

namespace tc = tbdl::client;
using namespace tbdl::cfgtest;

namespace {

std::string Member(const tc::MembDetail &m) { return "Tunnel" + std::to_string(m.uiTnlNum) + (m.ucState == 1 ? " up" : " down"); }

/* An LSP entry's signature: work mode, the primary members (sorted) and
 * the backup member, each "TunnelN/wW". */
std::string LspSig(const std::string &mode, std::vector<std::string> primary, const std::string &backup)
{
    std::sort(primary.begin(), primary.end());
    std::string sig = mode + " primary";
    for (const std::string &p : primary) {
        sig += " " + p;
    }
    return backup.empty() ? sig : sig + " backup " + backup + " has-backup";
}

/* A lone member is primary whatever its role; otherwise a role-1 member is
 * path 0's backup. */
std::string WantedLsp(const tc::BndDetail &d)
{
    std::vector<std::string> primary;
    std::string backup;
    for (const tc::MembDetail &m : d.members) {
        std::string name = "Tunnel" + std::to_string(m.uiTnlNum) + "/w" + std::to_string(m.usWeight);
        if (m.ucRole == 1 && d.members.size() > 1) {
            backup = name;
        } else {
            primary.push_back(name);
        }
    }
    const char *mode = d.ucMode == TBDL_MODE_ONETOONE ? "1:1" : d.ucMode == TBDL_MODE_ONEPLUSONE ? "1+1" : "load balancing";
    return LspSig(mode, primary, backup);
}

/* What LSM and PS must hold for the daemon's table, by bundle name. */
std::pair<Sigs, Sigs> Wanted(const std::map<std::uint32_t, tc::BndDetail> &table)
{
    Sigs lsm, ps;
    for (const auto &[n, d] : table) {
        if (!d.members.empty()) {
            lsm[BndName(n)] = WantedLsp(d);
        }
        if (d.ucMode != TBDL_MODE_LOADBALANCING && d.members.size() == 2) {
            const bool firstWorks = d.members[0].ucRole == 0;
            ps[BndName(n)] = std::string(d.ucMode == TBDL_MODE_ONEPLUSONE ? "1+1" : "1:1") + " working " +
                             Member(d.members[firstWorks ? 0 : 1]) + ", protection " + Member(d.members[firstWorks ? 1 : 0]);
        }
    }
    return {lsm, ps};
}

std::string Found(const Json &m) { return m.at("name").get<std::string>() + (m.at("up").get<bool>() ? " up" : " down"); }

std::string FoundHalf(const Json &h) { return h.at("name").get<std::string>() + "/w" + h.at("weight").dump(); }

/* What board 0's LSM and PS hold, by bundle name (as chassisd decodes them). */
std::pair<Sigs, Sigs> Held(const Chassis &chassis)
{
    Sigs lsm, ps;
    for (const Json &e : chassis.CtlJson({"dump", "lsm", "--board", "0"}).value("entries", Json::array())) {
        std::vector<std::string> primary;
        for (const Json &p : e.at("paths")) {
            primary.push_back(FoundHalf(p));
        }
        std::string sig = LspSig(e.at("mode"), primary, e.contains("backup") ? FoundHalf(e["backup"]) : "");
        if (e.contains("backup") != (e.at("flag_names") == Json::array({"has-backup"}))) {
            sig += " flags " + e["flag_names"].dump();
        }
        lsm[e.at("bundle").is_number() ? BndName(e["bundle"]) : e.at("name").dump()] = sig;
    }
    for (const Json &b : chassis.CtlJson({"dump", "ps", "--board", "0"}).value("bundles", Json::array())) {
        ps[BndName(b.at("bundle"))] = b.at("protection_kind").get<std::string>() + " working " + Found(b["working"]) +
                                      ", protection " + Found(b["protection"]);
    }
    return {lsm, ps};
}

class Download : public DaemonTest {
protected:
    explicit Download(std::vector<std::string> args = {}) : DaemonTest("dld", std::move(args)) {}

    /* LSM and PS of board 0 come to agree with the daemon's table (PS
     * with nothing when the board has no PS library). */
    testing::AssertionResult Downloaded(bool withPs = true)
    {
        std::pair<Sigs, Sigs> want, held;
        tbdl::systest::WaitUntil([&] {
            std::optional<std::map<std::uint32_t, tc::BndDetail>> table = Table(*m_client);
            want = table ? Wanted(*table) : std::pair<Sigs, Sigs>{};
            if (!withPs) {
                want.second.clear();
            }
            held = Held(m_chassis);
            return want == held;
        }, 10000, 50);
        testing::AssertionResult lsm = SameSigs(want.first, held.first);
        return lsm ? SameSigs(want.second, held.second) << " (PS)" : lsm << " (LSM)";
    }

    /* Bundles 1 (load balancing), 2 (1:1), 4 (1+1), each with two members
     * (the first up and, in a protection bundle, of role 1), and 5 (1:1)
     * with one member. */
    void Configure()
    {
        for (std::uint16_t mode : {TBDL_MODE_LOADBALANCING, TBDL_MODE_ONETOONE, TBDL_MODE_ONEPLUSONE}) {
            ASSERT_TRUE(Answers(m_client->CreateBundle(mode, mode, 0), TBDL_OK));
            for (std::uint32_t t : {mode * 10u, mode * 10u + 1}) {
                ASSERT_TRUE(AddTunnel(m_chassis, t, 0, t % 10 == 0));
                const bool role1 = mode != TBDL_MODE_LOADBALANCING && t % 10 == 0;
                ASSERT_TRUE(Answers(m_client->AddMember(mode, {t, 1, static_cast<std::uint8_t>(role1)}), TBDL_OK));
            }
        }
        ASSERT_TRUE(Answers(m_client->CreateBundle(5, TBDL_MODE_ONETOONE, 0), TBDL_OK));
        ASSERT_TRUE(AddTunnel(m_chassis, 50));
        ASSERT_TRUE(Answers(m_client->AddMember(5, {50, 1, 0}), TBDL_OK));
    }

    std::uint64_t Dropped(const char *service)
    {
        return m_chassis.CtlJson({"dump", service, "--board", "0"}).value("dropped", std::uint64_t{0});
    }
};

TEST_F(Download, EachModeAndLosingMembers)
{
    Configure();
    EXPECT_TRUE(Downloaded());
    EXPECT_EQ(Held(m_chassis).second.size(), 2u) << "only the two protection pairs reach PS";
    for (std::uint32_t t : {21u, 20u}) { /* the pair breaks (PS delete), then the last member goes (LSM delete) */
        ASSERT_TRUE(Answers(m_client->RemoveMember(2, t), TBDL_OK));
        EXPECT_TRUE(Downloaded()) << "without Tunnel" << t;
    }
    EXPECT_EQ(m_chassis.CtlJson({"dump", "ps", "--board", "0"}).value("malformed", -1), 0);
}

TEST_F(Download, MemberStatesReachPsUpFlagsAndRefreshTheLsmEntry)
{
    Configure();
    ASSERT_TRUE(Downloaded());
    /* Each change re-sends the bundle's LSM entry, same paths, and its PS
     * update when it is a pair. */
    const struct {
        std::vector<std::string> tunnels;
        const char *state;
        std::uint32_t bundle;
        const char *ps; /* the pair's PS record after the change; "" when none */
    } steps[] = {
        {{"Tunnel20"}, "down", 2, "1:1 working Tunnel21 down, protection Tunnel20 down"},
        {{"Tunnel21"}, "up", 2, "1:1 working Tunnel21 up, protection Tunnel20 down"},
        {{"Tunnel41", "Tunnel40"}, "up", 4, "1+1 working Tunnel41 up, protection Tunnel40 up"},
        {{"Tunnel40"}, "down", 4, "1+1 working Tunnel41 up, protection Tunnel40 down"},
        {{"Tunnel10", "Tunnel11"}, "down", 1, ""},
    };
    auto lsmAdds = [&] { return m_chassis.CtlJson({"dump", "lsm", "--board", "0"}).value("adds", std::uint64_t{0}); };
    auto psOf = [&](std::uint32_t n) {
        Sigs ps = Held(m_chassis).second;
        return ps.count(BndName(n)) != 0 ? ps[BndName(n)] : std::string();
    };
    for (const auto &s : steps) {
        const std::uint64_t adds = lsmAdds();
        std::vector<std::string> ctl = {"if", "set"};
        ctl.insert(ctl.end(), s.tunnels.begin(), s.tunnels.end());
        ctl.insert(ctl.end(), {"--state", s.state});
        ASSERT_TRUE(Exited(m_chassis.Ctl(ctl), 0)) << s.tunnels[0];
        EXPECT_TRUE(tbdl::systest::WaitUntil([&] { return lsmAdds() > adds && psOf(s.bundle) == s.ps; }))
            << s.tunnels[0] << " " << s.state << ": PS holds '" << psOf(s.bundle) << "'";
        EXPECT_TRUE(Downloaded()) << s.tunnels[0];
    }
}

TEST_F(Download, StoppedServicesCatchUpWhenStarted)
{
    Configure();
    ASSERT_TRUE(Downloaded());
    for (const char *svc : {"lsm", "ps"}) {
        ASSERT_TRUE(Exited(m_chassis.Ctl({svc, "stop"}), 0)) << svc;
    }
    ASSERT_TRUE(Answers(m_client->DeleteBundle(4), TBDL_OK));
    ASSERT_TRUE(Answers(m_client->RemoveMember(1, 11), TBDL_OK));
    EXPECT_EQ(Held(m_chassis).second.count(BndName(4)), 1u) << "a stopped PS keeps what it had";
    for (const char *svc : {"lsm", "ps"}) {
        ASSERT_TRUE(Exited(m_chassis.Ctl({svc, "start", "--board", "0"}), 0)) << svc;
    }
    EXPECT_TRUE(Downloaded());
    EXPECT_EQ(Dropped("lsm"), 1u);
    EXPECT_EQ(Dropped("ps"), 1u);
}

TEST_F(Download, AnOrderlyStopWithdrawsAKillDoesNot)
{
    Configure();
    ASSERT_TRUE(Downloaded());
    const struct {
        const char *how;
        std::uint64_t lsmDropped, psDropped; /* by the stop */
    } cases[] = {{"kill", 0, 0}, {"restart", 4, 2}};
    for (const auto &c : cases) {
        const std::uint64_t lsm = Dropped("lsm"), ps = Dropped("ps");
        const pid_t old = m_chassis.BoardPid(0);
        ASSERT_TRUE(Exited(m_chassis.Ctl({"board", c.how, "0"}), 0)) << c.how;
        ASSERT_TRUE(m_chassis.WaitBoard(0, [&](const Json &b) { return b.value("pid", -1) != old && b.value("state", "") == "up"; }));
        ASSERT_TRUE(WaitCfgAnswers(m_chassis) && Reconnect());
        EXPECT_TRUE(Downloaded()) << c.how;
        EXPECT_EQ(Dropped("lsm") - lsm, c.lsmDropped) << c.how;
        EXPECT_EQ(Dropped("ps") - ps, c.psDropped) << c.how;
    }
}

class DownloadWithoutPsLib : public Download {
protected:
    DownloadWithoutPsLib() : Download({"--no-ps-lib", "0"}) {}
};

TEST_F(DownloadWithoutPsLib, LsmAloneGetsTheTableAndNothingComplains)
{
    ASSERT_TRUE(Answers(m_client->SetDebug(true, tc::kDebugAll), TBDL_OK));
    Configure();
    EXPECT_TRUE(Downloaded(false));
    const Json ps = m_chassis.CtlJson({"dump", "ps", "--board", "0"});
    EXPECT_EQ(ps.value("connections", -1), 0);
    EXPECT_EQ(ps.value("updates", -1) + ps.value("cycles", -1) + ps.value("malformed", -1), 0) << ps.dump();
    const std::string log = tbdl::systest::ReadFile(m_chassis.Path("board0/tbdld.log"));
    EXPECT_NE(log.find("to LSM"), std::string::npos) << "the daemon's log is on";
    EXPECT_EQ(log.find("PS"), std::string::npos) << log;
}

}  // namespace
