/* The configuration client and tbdlctl against a scripted server: decoding,
 * replies that do not answer, board selection and connection errors. */
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <mutex>
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

/* A configuration socket served by a thread: every request is recorded and
 * answered by the handler (no answer when it returns nullopt). */
class FakeCfgServer {
public:
    using Handler = std::function<std::optional<tc::Bytes>(const tc::Bytes &)>;

    FakeCfgServer(const std::string &dir, int board, Handler handler) : m_handler(std::move(handler))
    {
        const std::string boardDir = dir + "/board" + std::to_string(board);
        ::mkdir(boardDir.c_str(), 0755);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s/cfg.sock", boardDir.c_str());
        m_fds.push_back({::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), POLLIN, 0});
        EXPECT_EQ(::bind(m_fds[0].fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
        EXPECT_EQ(::listen(m_fds[0].fd, 16), 0);
        m_thread = std::thread([this] { Serve(); });
    }

    ~FakeCfgServer()
    {
        m_stop = true;
        m_thread.join();
        for (const pollfd &p : m_fds) {
            ::close(p.fd);
        }
    }

    std::vector<tc::Bytes> requests()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }

private:
    /* m_fds[0] listens, the others are connections; polls in short steps to see m_stop. */
    void Serve()
    {
        while (!m_stop) {
            if (::poll(m_fds.data(), m_fds.size(), 20) <= 0) {
                continue;
            }
            for (std::size_t i = m_fds.size(); i-- > 1;) {
                tc::Bytes buf(4096);
                ssize_t n = m_fds[i].revents != 0 ? ::recv(m_fds[i].fd, buf.data(), buf.size(), 0) : -2;
                if (n == -2) {
                    continue;
                }
                if (n <= 0) {
                    ::close(m_fds[i].fd);
                    m_fds.erase(m_fds.begin() + static_cast<std::ptrdiff_t>(i));
                    continue;
                }
                buf.resize(static_cast<std::size_t>(n));
                {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_requests.push_back(buf);
                }
                if (std::optional<tc::Bytes> reply = m_handler(buf)) {
                    (void)!::send(m_fds[i].fd, reply->data(), reply->size(), MSG_NOSIGNAL);
                }
            }
            if ((m_fds[0].revents & POLLIN) != 0) {
                m_fds.push_back({::accept4(m_fds[0].fd, nullptr, nullptr, SOCK_CLOEXEC), POLLIN, 0});
            }
        }
    }

    Handler m_handler;
    std::vector<pollfd> m_fds;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    std::mutex m_mutex;
    std::vector<tc::Bytes> m_requests;
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

TEST(Tbdlctl, CommandsSendTheirRequests)
{
    struct Case {
        std::vector<std::string> args;
        tc::Bytes want;
    };
    const Case cases[] = {
        {{"bundle", "create", "7", "--mode", "3"}, tc::EncodeRequest(0, 1, 0, {tc::TlvBndNum(7), tc::TlvBndOp(3, 0)})},
        {{"show", "counts"}, tc::EncodeRequest(1, 0, 5, {tc::TlvBndNum(0xFFFFFFFF)})},
        {{"show", "counts", "12"}, tc::EncodeRequest(1, 0, 5, {tc::TlvBndNum(12)})},
        {{"raw", "--class", "1", "--type", "7", "--oper", "9", "--tlv", "2:0000000c", "--tlv", "401:"},
         tc::EncodeRequest(1, 7, 9, {tc::TlvBndNum(12), {401, {}}})},
    };
    ScratchDir dir("cfgclient");
    WriteChassisJson(dir.dir(), 0);
    FakeCfgServer server(dir.dir(), 0, [](const tc::Bytes &req) -> std::optional<tc::Bytes> {
        tc::MsgHeader h;
        if (req.size() >= 12) {
            h = *tc::DecodeHeader(req.data(), req.size());
        }
        return Reply(0, 0, h);
    });
    for (const Case &c : cases) {
        const std::size_t before = server.requests().size();
        ProcRun run = dir.Tbdlctl(c.args);
        const std::vector<tc::Bytes> sent = server.requests();
        ASSERT_EQ(sent.size(), before + 1) << c.args[0] << " " << c.args[1] << "\n" << run.err;
        EXPECT_EQ(tc::ToHex(sent.back()), tc::ToHex(c.want)) << c.args[0] << " " << c.args[1];
    }
}

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
