/* Exact reply bytes of the real daemon's displays and its answers to
 * malformed requests. Non-default limits prove the figures come from the
 * chassis settings. */
#include <gtest/gtest.h>

#include "cfg_checks.h"

namespace tc = tbdl::client;
using namespace tbdl::cfgtest;

namespace {

class ConfigDisplay : public DaemonTest {
protected:
    ConfigDisplay() : DaemonTest("cfgdisp", {"--bundle-slots", "100", "--member-limit", "3"}) {}

    /* Sends the hex bytes as they are and returns the reply as hex. */
    std::string RawHex(const std::string &request)
    {
        std::optional<tc::Bytes> bytes = tc::FromHex(request);
        EXPECT_TRUE(bytes) << request;
        tc::Outcome<tc::Bytes> reply = m_client->connection().Exchange(bytes.value_or(tc::Bytes{}));
        if (!reply) {
            ADD_FAILURE() << reply.error();
            return "";
        }
        return tc::ToHex(*reply);
    }

    static std::string Hex(const std::string &spaced) { return tc::ToHex(*tc::FromHex(spaced)); }

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


TEST_F(ConfigDisplay, ReplyBytesOfEachDisplay)
{
    ASSERT_NO_FATAL_FAILURE(Populate());
    struct Case {
        const char *what;
        const char *request;
        const char *reply;
    };
    const Case cases[] = {
        {"details of bundle 60, newest member first", "0001 0008 00000000 0000 0002  0002 0004 0000003c",
         "0001 0034 00000000 0000 0002  0192 0030"
         "  0002 beef 0a060001 000000000000000000000000  0000003c 00000002 0007 01 02"
         "  00000259 0004 01 00  00000258 0003 00 01"},
        {"counts of all bundles", "0001 0008 00000000 0000 0005  0002 0004 ffffffff",
         "0001 0010 00000000 0000 0005  0193 000c 00000002 00000001 00000001"},
        {"limits from the chassis settings", "0001 0000 00000000 0005 0000",
         "0001 0014 00000000 0005 0000  0195 0010 00000064 00000003 0001 0001 0001 0000"},
    };
    for (const Case &k : cases) {
        EXPECT_EQ(RawHex(k.request), Hex(k.reply)) << k.what;
    }
    EXPECT_TRUE(Consistent(m_chassis, *m_client));
}

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
    const std::pair<std::vector<std::string>, const char *> steps[] = {
        {{}, "00000000"}, {{"debug", "on", "event"}, "00000002"}, {{"debug", "on", "all"}, "00000003"},
        {{"debug", "off", "event"}, "00000001"}};
    for (const auto &[cmd, word] : steps) {
        EXPECT_TRUE(cmd.empty() || Exited(m_chassis.Tbdlctl(cmd), 0)) << word;
        EXPECT_EQ(RawHex("0001 0000 00000000 0001 0000"), Hex(std::string("0001 0008 00000000 0001 0000 0194 0004") + word));
    }
    ProcRun run = m_chassis.Tbdlctl({"debug", "on", "3"});
    EXPECT_TRUE(Exited(run, 1));
    EXPECT_EQ(run.err, tc::DescribeResult(TBDL_E_INVALID_PARAM) + "\n");
    run = m_chassis.Tbdlctl({"--json", "show", "debug"});
    ASSERT_TRUE(Exited(run, 0));
    EXPECT_EQ(Json::parse(run.out), Json::parse(R"({"switch":1,"error":true,"event":false})"));
}

TEST_F(ConfigDisplay, MalformedRequestsAreAnsweredAsInvalid)
{
    struct Case {
        const char *what;
        const char *request;
        const char *reply;
    };
    const Case cases[] = {
        {"shorter than a header", "0001 0000 00000000 0000", "0000 0000 60010004 0000 0000"},
        {"length beyond the message", "0001 0004 00000000 0005 0000", "0000 0000 60010004 0005 0000"},
        {"two requests in one message", "0001 0000 00000000 0005 0000 0001 0000 00000000 0005 0000",
         "0000 0000 60010004 0005 0000"},
        {"operation 2 is a set", "0000 0010 00000000 0001 0002  0002 0004 00000005  00ca 0004 0001 0000",
         "0000 0000 00000000 0001 0002"},
    };
    for (const Case &k : cases) {
        EXPECT_EQ(RawHex(k.request), Hex(k.reply)) << k.what;
    }
    /* The connection survives every refusal, and tbdlctl's raw mode shows
     * the reply. */
    tc::Outcome<tc::Shown<tc::BndDetail>> shown = m_client->ShowBundle(5);
    ASSERT_TRUE(shown && shown->value);
    EXPECT_EQ(shown->value->ucMode, 1u);
    ProcRun run = m_chassis.Tbdlctl({"--json", "raw", "--hex", "0002 0000 00000000 0001 0002"});
    EXPECT_TRUE(Exited(run, 1));
    Json j = Json::parse(run.out);
    EXPECT_EQ(Json({j["name"], j["type"], j["oper"]}), Json({"TBDL_E_INVALID_MSG", 1, 2}));
}

}  // namespace
