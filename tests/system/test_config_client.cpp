/* The configuration client's codec and its handling of replies that do not
 * answer or are cut off (from a scripted peer), and tbdlctl when no
 * chassis answers. The real daemon's tests cover the requests and the
 * decoding of its displays. */
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <future>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "chassis_harness.h"
#include "tbdl_client.h"
#include "tbdl_errcode.h"

namespace tc = tbdl::client;
using tbdl::systest::ProcRun;

/* A chassis directory that is never started: a scratch directory for the
 * scripted peer, removed at the end. */
using ScratchDir = tbdl::systest::Chassis;

namespace {

tc::Bytes Hex(const std::string &text)
{
    std::optional<tc::Bytes> b = tc::FromHex(text);
    EXPECT_TRUE(b.has_value()) << text;
    return b.value_or(tc::Bytes{});
}

tc::Bytes Reply(std::uint16_t usClass, std::uint32_t uiResult, const tc::MsgHeader &req,
                const std::vector<tc::Tlv> &tlvs = {})
{
    tc::Bytes payload = tc::EncodeTlvs(tlvs);
    tc::MsgHeader h = req;
    h.usMsgClass = usClass;
    h.usDataLen = static_cast<std::uint16_t>(payload.size());
    h.uiResult = uiResult;
    tc::Bytes b = tc::EncodeHeader(h);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

/* ---- codec ---- */

TEST(ConfigCodec, MalformedBytesAreRefused)
{
    std::string err;
    /* Bundle 3 with two members. */
    tc::Bytes bnd = Hex("0002 0000 c0a80003 000000000000000000000000  00000003 00000002 0005 01 02"
                        "00000064 000a 00 01  00000065 000b 01 00");
    tc::Bytes shortBnd(bnd.begin(), bnd.end() - 1);
    EXPECT_FALSE(tc::DecodeBndDetail(shortBnd, &err)) << "a member entry cut short";
    tc::Bytes countTooHigh = bnd;
    countTooHigh[27] = 3;
    EXPECT_FALSE(tc::DecodeBndDetail(countTooHigh, &err)) << "count beyond the value";
    tc::Bytes huge = bnd;
    huge[24] = 0xff;
    EXPECT_FALSE(tc::DecodeBndDetail(huge, &err)) << "count that overflows";
    EXPECT_FALSE(tc::DecodeBndDetail(tc::Bytes(31), &err));
    EXPECT_FALSE(tc::DecodeLimits(tc::Bytes(17), &err));

    /* Length and size disagree, a TLV cut short, a header cut short. */
    for (const char *bad : {"0001 0005 00000000 0000 0002 0193 0000", "0001 0006 00000000 0000 0002 0193 0004 00 00",
                            "0001 0000 00000000 0000"}) {
        const tc::Bytes b = Hex(bad);
        EXPECT_FALSE(tc::DecodeMessage(b.data(), b.size(), &err)) << bad;
    }
    const tc::Bytes ok = Hex("0001 0008 00000000 0001 0000 0194 0004 00000003");
    std::optional<tc::Message> m = tc::DecodeMessage(ok.data(), ok.size(), &err);
    ASSERT_TRUE(m) << err;
    ASSERT_NE(m->find(TBDL_TLV_DISP_DEBUG), nullptr);
}

TEST(ConfigCodec, TextArguments)
{
    EXPECT_FALSE(tc::ParseIpv4("1.2.3"));
    EXPECT_FALSE(tc::ParseIpv4("256.1.1.1"));
    EXPECT_FALSE(tc::ParseIpv4("1.2.3.4x"));
    const std::pair<const char *, int> modes[] = {
        {"loadbalancing", 1}, {"LoadBalancing", 1},        {"1:1", 2}, {"ProtectionOnetoone", 2},
        {"1+1", 4},           {"ProtectionOneplusone", 4}, {"3", 3},   {"0", 0},
    };
    for (const auto &[text, want] : modes) {
        std::optional<std::uint16_t> m = tc::ParseMode(text);
        ASSERT_TRUE(m) << text;
        EXPECT_EQ(*m, want) << text;
    }
    EXPECT_FALSE(tc::ParseMode("1:2"));
    EXPECT_FALSE(tc::ParseMode("-1"));
    EXPECT_EQ(tc::DescribeResult(0x12345678), "0x12345678 (unknown result code)");
}

/* ---- client against a scripted peer ---- */

/* Each bad reply is sent by this thread for a request the client makes
 * from another one; an empty reply is no reply at all. */
TEST(ConfigClient, RepliesThatDoNotAnswerAreFailures)
{
    ScratchDir dir("cfgclient");
    ::mkdir(dir.Path("board0").c_str(), 0755);
    sockaddr_un addr{AF_UNIX, {}};
    std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", dir.Path("board0/cfg.sock").c_str());
    int listener = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    tc::Outcome<tc::Client> client = tc::Client::ConnectPath(dir.Path("board0/cfg.sock"), 300);
    ASSERT_TRUE(client) << client.error();
    int conn = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    const std::pair<const char *, std::function<tc::Bytes(tc::MsgHeader)>> cases[] = {
        {"does not answer the request", [](tc::MsgHeader h) { h.usOper ^= 1; return Reply(1, 0, h); }},
        {"no TLV 404", [](tc::MsgHeader h) { return Reply(1, 0, h); }},
        {"announces 9 payload bytes but carries 8",
         [](tc::MsgHeader h) {
             tc::Bytes b = Reply(1, 0, h, {tc::TlvU32(TBDL_TLV_DISP_DEBUG, 0)});
             b[3] += 1;
             return b;
         }},
        {"no reply", [](tc::MsgHeader) { return tc::Bytes{}; }},
    };
    for (const auto &[error, reply] : cases) {
        auto shown = std::async(std::launch::async, [&client] { return client->Debug(); });
        tc::Bytes req(4096);
        ssize_t n = ::recv(conn, req.data(), req.size(), 0);
        tc::Bytes r = n > 0 ? reply(*tc::DecodeHeader(req.data(), n)) : tc::Bytes{};
        if (!r.empty()) {
            (void)!::send(conn, r.data(), r.size(), MSG_NOSIGNAL);
        }
        tc::Outcome<tc::Shown<tc::DebugSwitch>> got = shown.get();
        ASSERT_FALSE(got) << error;
        EXPECT_NE(got.error().find(error), std::string::npos) << got.error();
    }
    /* The peer goes away after taking the request: lost, whatever it did with it. */
    auto cut = std::async(std::launch::async, [&client] { return client->Debug(); });
    tc::Bytes req(4096);
    EXPECT_GT(::recv(conn, req.data(), req.size(), 0), 0);
    ::close(conn);
    tc::Outcome<tc::Shown<tc::DebugSwitch>> got = cut.get();
    ASSERT_FALSE(got);
    EXPECT_NE(got.error().find("was lost before the reply"), std::string::npos) << got.error();
    ::close(listener);
}

/* Without a chassis to ask which board is master, tbdlctl says so in one
 * line, exit status 2. */
TEST(ConfigClient, TbdlctlWhenNoChassisAnswers)
{
    ScratchDir dir("cfgclient");
    for (const std::vector<std::string> &args : {std::vector<std::string>{"show", "limits"},
                                                 std::vector<std::string>{"--board", "0", "show", "limits"}}) {
        ProcRun run = dir.Tbdlctl(args);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
        EXPECT_NE(run.err.find("cannot ask the chassis in " + dir.dir() + " which board is master"), std::string::npos)
            << run.err;
        EXPECT_TRUE(run.out.empty());
    }
}

}  // namespace
