/* The configuration client's codec and its handling of replies that do not
 * answer (against a scripted server), board selection, and tbdlctl when no
 * board answers. The real daemon's tests cover the requests themselves. */
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "chassis_harness.h"
#include "tbdl_client.h"
#include "tbdl_errcode.h"

namespace tc = tbdl::client;
using tbdl::systest::ProcRun;

/* A chassis directory that is never started: a scratch directory for the
 * scripted server, removed at the end. */
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

/* A configuration socket whose first connection is served by a thread:
 * every request is answered by the handler (no answer when it returns
 * nullopt) until the client goes away. */
class FakeCfgServer {
public:
    using Handler = std::function<std::optional<tc::Bytes>(const tc::Bytes &)>;

    FakeCfgServer(const std::string &dir, int board, Handler handler)
    {
        const std::string boardDir = dir + "/board" + std::to_string(board);
        ::mkdir(boardDir.c_str(), 0755);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s/cfg.sock", boardDir.c_str());
        m_listen = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::bind(m_listen, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
        EXPECT_EQ(::listen(m_listen, 1), 0);
        m_thread = std::thread([this, handler] {
            int conn = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
            tc::Bytes buf(4096);
            for (ssize_t n; conn >= 0 && (n = ::recv(conn, buf.data(), buf.size(), 0)) > 0;) {
                if (std::optional<tc::Bytes> reply = handler(tc::Bytes(buf.begin(), buf.begin() + n))) {
                    (void)!::send(conn, reply->data(), reply->size(), MSG_NOSIGNAL);
                }
            }
            ::close(conn);
        });
    }

    /* Wakes an accept still waiting; the client, made later, is gone by now. */
    ~FakeCfgServer()
    {
        ::shutdown(m_listen, SHUT_RDWR);
        m_thread.join();
        ::close(m_listen);
    }

private:
    int m_listen = -1;
    std::thread m_thread;
};

void WriteChassisJson(const std::string &dir, int master)
{
    std::ofstream(dir + "/chassis.json") << nlohmann::json{{"master_board", master}, {"boards", {0, 1}}}.dump();
}

/* ---- codec ---- */

TEST(ConfigCodec, LimitsAndCountsDecodeFromWireBytes)
{
    std::string err;
    std::optional<tc::Limits> lim = tc::DecodeLimits(Hex("00000400 00000008 0001 0000 0001 0000"), &err);
    ASSERT_TRUE(lim) << err;
    EXPECT_EQ(lim->uiMaxBndNum, 1024u);
    EXPECT_EQ(lim->uiMaxMembNum, 8u);
    EXPECT_EQ(lim->usProtectionOnetoone, 0u);
    EXPECT_EQ(lim->usProtectionOneplusone, 1u);
    std::optional<tc::BndCounts> cnt = tc::DecodeBndCounts(Hex("00000003 00000001 00000002"), &err);
    ASSERT_TRUE(cnt) << err;
    EXPECT_EQ(cnt->uiTotal, 3u);
    EXPECT_EQ(cnt->uiDown, 2u);
}

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

    const tc::Bytes lenMismatch = Hex("0001 0005 00000000 0000 0002 0193 0000");
    EXPECT_FALSE(tc::DecodeMessage(lenMismatch.data(), lenMismatch.size(), &err));
    const tc::Bytes cutTlv = Hex("0001 0006 00000000 0000 0002 0193 0004 00 00");
    EXPECT_FALSE(tc::DecodeMessage(cutTlv.data(), cutTlv.size(), &err));
    const tc::Bytes shortHead = Hex("0001 0000 00000000 0000");
    EXPECT_FALSE(tc::DecodeMessage(shortHead.data(), shortHead.size(), &err));
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

/* ---- client against a scripted server ---- */

TEST(ConfigClient, RepliesThatDoNotAnswerAreFailures)
{
    ScratchDir dir("cfgclient");
    WriteChassisJson(dir.dir(), 0);
    int calls = 0;
    FakeCfgServer server(dir.dir(), 0, [&calls](const tc::Bytes &req) -> std::optional<tc::Bytes> {
        tc::MsgHeader h = *tc::DecodeHeader(req.data(), req.size());
        switch (calls++) {
        case 0: /* echoes another operation */
            h.usOper ^= 1;
            return Reply(0, 0, h);
        case 1: /* success without the display TLV */
            return Reply(1, 0, h);
        case 2: /* a payload length that disagrees with the size */
        {
            tc::Bytes b = Reply(1, 0, h, {tc::TlvU32(TBDL_TLV_DISP_DEBUG, 0)});
            b[3] += 1;
            return b;
        }
        default:
            return std::nullopt;
        }
    });
    tc::Outcome<tc::Client> client = tc::Client::Connect(dir.dir(), std::nullopt, 300);
    ASSERT_TRUE(client) << client.error();
    EXPECT_FALSE(client->CreateBundle(1, 1, 0));
    tc::Outcome<tc::Shown<tc::DebugSwitch>> dbg = client->Debug();
    ASSERT_FALSE(dbg);
    EXPECT_NE(dbg.error().find("TLV 404"), std::string::npos) << dbg.error();
    EXPECT_FALSE(client->Debug());
    tc::Outcome<std::uint32_t> silent = client->DeleteBundle(1);
    ASSERT_FALSE(silent);
    EXPECT_NE(silent.error().find("no reply"), std::string::npos) << silent.error();
}

TEST(ConfigClient, BoardSelection)
{
    ScratchDir dir("cfgclient");
    WriteChassisJson(dir.dir(), 1);
    EXPECT_EQ(*tc::FindCfgSocket(dir.dir(), std::nullopt), dir.dir() + "/board1/cfg.sock");
    EXPECT_EQ(*tc::FindCfgSocket(dir.dir(), 0), dir.dir() + "/board0/cfg.sock");
    std::ofstream(dir.dir() + "/chassis.json") << "{\"boards\":[0]}";
    EXPECT_FALSE(tc::FindCfgSocket(dir.dir(), std::nullopt));
}

/* ---- tbdlctl against a scripted server ---- */

TEST(Tbdlctl, AnUnreachableBoardIsOneLineAndExitStatus2)
{
    ScratchDir dir("cfgclient");
    WriteChassisJson(dir.dir(), 0);
    ProcRun run = dir.Tbdlctl({"show", "limits"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_NE(run.err.find("board0/cfg.sock"), std::string::npos) << run.err;
    EXPECT_TRUE(run.out.empty());
}

}  // namespace
