/* The two-board HA pair on the chassis with the real daemon: planned
 * switchovers, failure and recovery of a board, a cut HA link, and daemons
 * that do not answer. After each, the new master's display, both kernel
 * tables and the stored records must tell the same story. */
#include <csignal>
#include <thread>

#include <gtest/gtest.h>

#include "cfg_checks.h"
#include "tbdl_types.h"

namespace tc = tbdl::client;
using namespace tbdl::cfgtest;
namespace systest = tbdl::systest;

namespace {

Json Field(const Json &j, const char *key) { return j.is_object() && j.contains(key) ? j[key] : Json(); }
int MasterOf(const Chassis &c) { return Field(c.CtlJson({"status"}), "master_board").get<int>(); }
Json Switchover(const Chassis &c) { return Field(c.CtlJson({"switchover"}), "steps"); }

std::optional<tc::Client> ClientOf(const Chassis &c, int board)
{
    if (!systest::WaitUntil([&] { auto x = tc::Client::Connect(c.dir(), board, 500); return x && x->GetLimits(); })) {
        return std::nullopt;
    }
    tc::Outcome<tc::Client> x = tc::Client::Connect(c.dir(), board);
    return x ? std::optional<tc::Client>(std::move(*x)) : std::nullopt;
}

/* A bundle as the display shows it, members included. */
std::map<std::uint32_t, std::string> Shown(tc::Client &client)
{
    std::map<std::uint32_t, std::string> m;
    for (const auto &[n, d] : Table(client).value_or(std::map<std::uint32_t, tc::BndDetail>{})) {
        std::string s = std::to_string(d.ucMode) + "/" + std::to_string(d.ucState) + "/" + tc::FormatAddr(d.stAddr);
        for (const tc::MembDetail &x : d.members) {
            s += " " + std::to_string(x.uiTnlNum) + ":" + std::to_string(x.usWeight) + ":" + std::to_string(x.ucRole);
        }
        m[n] = s;
    }
    return m;
}

/* Both kernel tables hold exactly what the master's display shows, and so
 * do the stored records. */
testing::AssertionResult PairAgrees(const Chassis &c, tc::Client &master)
{
    for (int board : {0, 1}) {
        if (testing::AssertionResult r = KtbdlMatches(c, master, board); !r) {
            return r << " (kernel table of board " << board << ")";
        }
    }
    return StoreMatches(c, master);
}

class HaPair : public testing::Test {
protected:
    void Start(std::vector<std::string> args)
    {
        args.insert(args.end(), {"--journal", "--ha-response-ms", "400"});
        ASSERT_TRUE(StartWithDaemon(m_chassis, args));
        m_client = ClientOf(m_chassis, 0);
        ASSERT_TRUE(m_client);
    }
    /* Bundles in the three modes, with addresses and members. */
    void Populate()
    {
        const char *modes[] = {"loadbalancing", "1:1", "1+1"}; /* roles differ in the protection modes */
        for (std::uint32_t b = 1; b <= 6; b++) {
            std::string n = std::to_string(b);
            ASSERT_TRUE(Exited(m_chassis.Tbdlctl({"bundle", "create", n, "--mode", modes[b % 3]}), 0));
            ASSERT_TRUE(Exited(m_chassis.Tbdlctl({"bundle", "address", n, "192.0.2." + n}), 0));
            for (std::uint32_t r = 0; r < 2; r++) {
                ASSERT_TRUE(AddTunnel(m_chassis, 10 * b + r));
                ASSERT_TRUE(Exited(m_chassis.Tbdlctl({"member", "add", n, "--tunnel", std::to_string(10 * b + r),
                                                      "--role", std::to_string(b % 3 == 0 ? 0 : r)}), 0));
            }
        }
    }
    std::string Journal(int board) const
    {
        return systest::ReadFile(m_chassis.Path("board" + std::to_string(board) + "/journal.jsonl"));
    }

    Chassis m_chassis{"hapair"};
    std::optional<tc::Client> m_client;
};

/* Each member add the board's daemon gave its kernel after offset belongs
 * to the bundle updated last: a batch never sends a member before its
 * bundle. */
testing::AssertionResult MembersFollowTheirBundle(const std::string &journal, size_t offset)
{
    std::istringstream in(journal.substr(offset));
    std::uint32_t current = 0;
    size_t adds = 0;
    auto le32 = [](const tc::Bytes &b, size_t at) {
        return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | std::uint32_t(b[at + 3]) << 24;
    };
    for (std::string line; std::getline(in, line);) {
        Json j = Json::parse(line, nullptr, false);
        if (j.is_discarded() || j.value("call", "") != "CIOCTL") {
            continue;
        }
        std::optional<tc::Bytes> p = tc::FromHex(j["args"]["payload"].get<std::string>());
        std::uint32_t cmd = j["args"]["cmd"];
        if (cmd == 0x7c0002 && p && p->size() == 36) {
            current = le32(*p, 20);
        } else if (cmd == 0x7c0003 && p && p->size() == 8 && ++adds && le32(*p, 0) != current) {
            return testing::AssertionFailure() << "member add for bundle index " << le32(*p, 0)
                                               << " after the update of " << current;
        }
    }
    return adds > 0 ? testing::AssertionSuccess() : testing::AssertionFailure() << "no member was added";
}

TEST_F(HaPair, SwitchoversKeepEveryBundleAndBatchOrder)
{
    Start({"--ha-mtu", "100"});
    Populate();
    const auto before = Shown(*m_client);
    ASSERT_EQ(before.size(), 6u);
    for (int round = 1; round <= 3; round++) {
        const int from = MasterOf(m_chassis), to = 1 - from;
        const size_t mark = Journal(from).size();
        const std::uint64_t sends = m_chassis.CtlJson({"dump", "ha"}).value("batch_sends", 0);
        Json steps = Switchover(m_chassis);
        EXPECT_GT(m_chassis.CtlJson({"dump", "ha"}).value("batch_sends", 0), sends + 1)
            << "an MTU of 100: several sends, all relayed before the response that ends the switchover";
        ASSERT_EQ(steps.size(), 9u) << steps.dump(1);
        EXPECT_EQ(steps[1]["step"], "board " + std::to_string(from) + " responded to event 0");
        EXPECT_EQ(MasterOf(m_chassis), to);
        m_client = ClientOf(m_chassis, to);
        ASSERT_TRUE(m_client) << "round " << round;
        EXPECT_EQ(Shown(*m_client), before) << "round " << round;
        EXPECT_TRUE(PairAgrees(m_chassis, *m_client)) << "round " << round;
        EXPECT_TRUE(MembersFollowTheirBundle(Journal(from), mark)) << "round " << round;
        auto old = tc::Client::Connect(m_chassis.dir(), from, 500);
        EXPECT_FALSE(old && old->GetLimits()) << "the old master still answers configuration";
    }
    /* Configuration straight after the promotion reaches the standby too. */
    EXPECT_TRUE(Answers(m_client->CreateBundle(40, TBDL_MODE_ONEPLUSONE, 0), TBDL_OK));
    EXPECT_TRUE(Answers(m_client->DeleteBundle(1), TBDL_OK));
    EXPECT_TRUE(PairAgrees(m_chassis, *m_client));
}

TEST_F(HaPair, MasterFailureMidStreamThenRecoveryAndLinkCut)
{
    Start({});
    std::atomic<std::uint32_t> answered{0};
    std::thread stream([&] {
        for (std::uint32_t b = 100; b < 1000; b++) {
            auto r = m_client->CreateBundle(b, TBDL_MODE_LOADBALANCING, 0);
            if (!r || *r != TBDL_OK) {
                return;
            }
            answered = b - 99;
        }
    });
    ASSERT_TRUE(systest::WaitUntil([&] { return answered >= 20; }));
    ASSERT_TRUE(Exited(m_chassis.Ctl({"board", "fail", "0"}), 0));
    stream.join();
    ASSERT_LT(answered.load(), 900u) << "the failed master went on answering";
    ASSERT_EQ(MasterOf(m_chassis), 1);
    EXPECT_EQ(m_chassis.Board(0).value("state", ""), "down");
    ASSERT_TRUE(systest::WaitUntil([&] {
        return Field(Field(m_chassis.CtlJson({"dump", "ha"}), "failover"), "done") == true;
    }));
    EXPECT_NE(m_chassis.Ctl({"switchover"}).err.find("no standby"), std::string::npos);
    m_client = ClientOf(m_chassis, 1);
    ASSERT_TRUE(m_client);
    auto shown = Shown(*m_client);
    for (std::uint32_t b = 100; b < 100 + answered; b++) {
        EXPECT_EQ(shown.count(b), 1u) << "bundle " << b << " was answered 0 by the old master";
    }
    EXPECT_TRUE(Answers(m_client->CreateBundle(7, TBDL_MODE_ONETOONE, 0), TBDL_OK));
    ASSERT_TRUE(AddTunnel(m_chassis, 70));
    EXPECT_TRUE(Answers(m_client->AddMember(7, {70, 1, 0}), TBDL_OK));
    EXPECT_TRUE(StoreMatches(m_chassis, *m_client));

    ASSERT_TRUE(Exited(m_chassis.Ctl({"board", "recover", "0"}), 0));
    EXPECT_EQ(m_chassis.Board(0).value("start_cause_name", ""), "system boot");
    EXPECT_TRUE(systest::WaitUntil([&] { return PairAgrees(m_chassis, *m_client); }));

    /* A daemon killed on its own is restarted in place: its board stays master. */
    const pid_t killed = m_chassis.BoardPid(1);
    ASSERT_TRUE(Exited(m_chassis.Ctl({"board", "kill", "1"}), 0));
    ASSERT_TRUE(m_chassis.WaitBoard(1, [&](const Json &b) { return b["pid"] != killed && b["state"] == "up"; }));
    EXPECT_EQ(MasterOf(m_chassis), 1);
    m_client = ClientOf(m_chassis, 1);
    ASSERT_TRUE(m_client);

    ASSERT_TRUE(Exited(m_chassis.Ctl({"ha", "cut"}), 0));
    EXPECT_FALSE(m_chassis.CtlJson({"dump", "ha"})["boards"][1].value("standby_present", true));
    EXPECT_TRUE(Answers(m_client->CreateBundle(8, TBDL_MODE_ONETOONE, 0), TBDL_OK));
    EXPECT_TRUE(Answers(m_client->RemoveMember(7, 70), TBDL_OK));
    EXPECT_FALSE(KtbdlMatches(m_chassis, *m_client, 0)) << "the standby followed a cut link";
    ASSERT_TRUE(Exited(m_chassis.Ctl({"ha", "restore"}), 0));
    EXPECT_TRUE(systest::WaitUntil([&] { return PairAgrees(m_chassis, *m_client); }));
}

/* A master whose daemon never answers event 0 does not hold the
 * switchover beyond the response deadline; events 3 and 7 reach the
 * daemon, and only 3 is answered. */
TEST_F(HaPair, UnansweredEventsAndInjectedEvents)
{
    Start({});
    Populate();
    ASSERT_TRUE(Exited(m_chassis.Ctl({"ha", "event", "7", "--board", "0"}), 0));
    ASSERT_TRUE(Exited(m_chassis.Ctl({"ha", "event", "3", "--board", "0"}), 0));
    auto events = [&] {
        std::vector<std::uint32_t> e;
        for (const Json &r : m_chassis.CtlJson({"dump", "ha"}).value("responses", Json::array())) {
            e.push_back(r["event"]);
        }
        return e;
    };
    ASSERT_TRUE(systest::WaitUntil([&] { auto e = events(); return !e.empty() && e.back() == 3; }));
    auto seen = events();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 7u), 0);

    const std::pair<const char *, std::function<void(int)>> silencers[] = {
        {"failed HA_Response", [&](int b) { m_chassis.Ctl({"fail", "HA_Response", "--board", std::to_string(b)}); }},
        {"stopped daemon", [&](int b) { ASSERT_GT(m_chassis.BoardPid(b), 0); kill(m_chassis.BoardPid(b), SIGSTOP); }},
    };
    for (const auto &[what, silence] : silencers) {
        const int from = MasterOf(m_chassis);
        const pid_t pid = m_chassis.BoardPid(from);
        silence(from);
        Json steps = Switchover(m_chassis);
        kill(pid, SIGCONT);
        ASSERT_EQ(steps.size(), 9u) << what << steps.dump(1);
        EXPECT_EQ(steps[1]["step"], "no response from board " + std::to_string(from) + " to event 0 within 400 ms")
            << what;
        m_client = ClientOf(m_chassis, 1 - from);
        ASSERT_TRUE(m_client) << what;
        EXPECT_TRUE(systest::WaitUntil([&] { return PairAgrees(m_chassis, *m_client); })) << what;
    }
}

/* A chassis starts both boards unless told otherwise; started again on
 * its directory, it keeps the settings it had but for those given. */
TEST(HaPairSettings, TwoBoardsByDefaultAndStoredSettingsKept)
{
    Chassis c("hasettings");
    auto settings = [&] { return Field(c.CtlJson({"status"}), "settings"); };
    ASSERT_TRUE(Exited(c.Start(), 0));
    EXPECT_EQ(settings()["boards"], Json({0, 1}));
    ASSERT_TRUE(c.Stop());
    ASSERT_TRUE(Exited(c.Start({"--boards", "1", "--bundle-slots", "64"}), 0));
    ASSERT_TRUE(c.Stop());
    ASSERT_TRUE(Exited(c.Start({"--ha-mtu", "300"}), 0));
    const Json s = settings();
    EXPECT_EQ(Json({s["boards"], s["master_board"], s["bundle_slots"], s["ha_mtu"]}), Json({Json({1}), 1, 64, 300}));
}

} // namespace
