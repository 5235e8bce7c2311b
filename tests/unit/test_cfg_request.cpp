/* Requests on a configuration connection: framing checks, TLV parsing into
 * the handlers' records, dispatch to the real handlers and the replies.
 * Each request goes over a real SEQPACKET socket pair and is taken by the
 * connection callback, as the event loop would call it. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cfg/tbdl_cfg_priv.h"
#include "cfg_test_util.h"
#include "fake_platform.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"
#include "tbdl_intf.h"

using namespace cfgtest;
using ::testing::ElementsAre;

namespace {

Bytes BndCreateTlvs(uint32_t bnd, uint16_t mode = 1, uint16_t tnlMode = 0)
{
    return Cat({Tlv(2, Be32(bnd)), Tlv(202, Cat({Be16(mode), Be16(tnlMode)}))});
}

Bytes MembTlvs(uint32_t bnd, uint32_t tnl, uint16_t weight, uint8_t role = 0)
{
    return Cat({Tlv(2, Be32(bnd)), Tlv(204, Cat({Be32(tnl), Be16(weight), Bytes{role}}))});
}

void SwitchDebugOn(u32 type)
{
    alignas(8) TBDL_CFG_OPER_DATA_S data = {};
    memcpy(data.aucData, &type, sizeof(type));
    ASSERT_EQ(TBDL_DBG_SetDebug(0, nullptr, 398, &data), 0u);
}

std::vector<std::string> UnknownTlvLines()
{
    std::vector<std::string> out;
    for (const std::string &l : fake::LogLines()) {
        if (l.find("unknown TLV") != std::string::npos) {
            out.push_back(l);
        }
    }
    return out;
}

class CfgRequest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        m_epfd = epoll_create1(0);
        ASSERT_GE(m_epfd, 0);
        TBDL_SPEC_S spec = {1024, 8, 1, 1, 1};
        ASSERT_EQ(TBDL_DBG_Init(), 0u);
        ASSERT_EQ(TBDL_BND_Init(&spec, nullptr, m_epfd), 0u);
        ASSERT_EQ(TBDL_INTF_Init(m_epfd), 0u);
        ASSERT_EQ(TBDL_CFG_Init(static_cast<u32>(m_epfd)), 0u);
        ASSERT_EQ(TBDL_CFG_Activate(), 0u);
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
        m_cli = fds[0];
        m_srv = fds[1];
    }

    void TearDown() override
    {
        close(m_cli);
        close(m_srv);
        TBDL_CFG_Deactivate();
        TBDL_BND_ClearRunning();
        TBDL_INTF_Fini();
        TBDL_BND_Fini();
        TBDL_CFG_Fini();
        TBDL_DBG_Fini();
        close(m_epfd);
    }

    /* Sends one message and lets the connection callback take it. */
    void Deliver(const Bytes &msg)
    {
        ASSERT_TRUE(Send(m_cli, msg));
        EXPECT_EQ(tbdl_cfg_RecvMsg(EPOLLIN, static_cast<u64>(m_srv)), 0u);
    }

    /* The one reply to a request; fails when there is none or more. */
    Reply Exchange(const Bytes &msg)
    {
        Deliver(msg);
        std::optional<Bytes> reply = TryRecv(m_cli);
        EXPECT_TRUE(reply.has_value()) << "no reply";
        EXPECT_FALSE(TryRecv(m_cli).has_value()) << "more than one reply";
        return Decode(reply.value_or(Bytes{}));
    }

    int m_epfd = -1;
    int m_cli = -1;
    int m_srv = -1;
};

struct BadCase {
    const char *what;
    Bytes msg;
    uint16_t type; /* expected in the reply */
    uint16_t oper;
};

TEST_F(CfgRequest, MalformedRequestsAnswerInvalidMsgAndChangeNothing)
{
    Bytes debugOn = Request(0, 0, 0, Tlv(398, Be32(2)));
    Bytes cut = Request(0, 1, 7);
    cut.resize(11);
    const BadCase cases[] = {
        {"5 bytes", Bytes{0, 0, 0, 0, 0}, 0, 0},
        {"11 bytes: type and oper not there", cut, 0, 0},
        {"class 2", Request(2, 1, 7, BndCreateTlvs(1)), 1, 7},
        {"class 0xFFFF", Request(0xFFFF, 5, 9), 5, 9},
        {"length announces more than received", Request(0, 1, 3, BndCreateTlvs(1), 13), 1, 3},
        {"length announces less than received", Request(0, 1, 3, BndCreateTlvs(1), 0), 1, 3},
        {"two requests in one receive", Cat({debugOn, debugOn}), 0, 0},
        {"configuration type 3", Request(0, 3, 0, Tlv(398, Be32(2))), 3, 0},
        {"configuration type 0xFFFF", Request(0, 0xFFFF, 2), 0xFFFF, 2},
        {"display type 2", Request(1, 2, 3), 2, 3},
        {"display type 3", Request(1, 3, 3), 3, 3},
        {"display type 4", Request(1, 4, 5), 4, 5},
        {"display type 6", Request(1, 6, 3), 6, 3},
    };
    for (const BadCase &c : cases) {
        SCOPED_TRACE(c.what);
        Reply r = Exchange(c.msg);
        EXPECT_EQ(r.size, 12u);
        EXPECT_EQ(r.cls, 0u);
        EXPECT_EQ(r.dataLen, 0u);
        EXPECT_EQ(r.result, TBDL_E_INVALID_MSG);
        EXPECT_EQ(r.type, c.type);
        EXPECT_EQ(r.oper, c.oper);
    }
    TBDL_BND_INFO_S info = {};
    EXPECT_EQ(TBDL_BND_GetFirstBndInfo(&info), TBDL_E_NOTEXIST);
    EXPECT_EQ(TBDL_DBG_GetDebug(), 0u);
}

TEST_F(CfgRequest, HeaderOnlyRequestReachesHandlerWithZeroKeyAndNoOperation)
{
    /* Debug handler: zero operation data means debug type 0 (ERROR). */
    Reply r = Exchange(Request(0, 0, 0));
    EXPECT_EQ(r.result, 0u);
    EXPECT_EQ(TBDL_DBG_GetDebug(), 1u);
    /* Bundle handler: bundle 0 is in range, operation type 0 is refused. */
    EXPECT_EQ(Exchange(Request(0, 1, 0)).result, TBDL_E_NOTSUPPORT);
    EXPECT_EQ(Exchange(Request(0, 2, 0)).result, TBDL_E_NOTSUPPORT);
}

TEST_F(CfgRequest, OnlyOperOneIsUndoAndTheReplyCarriesTheRequestOper)
{
    Reply r = Exchange(Request(0, 0, 2, Tlv(398, Be32(1))));
    EXPECT_EQ(r.result, 0u);
    EXPECT_EQ(r.type, 0u);
    EXPECT_EQ(r.oper, 2u);
    EXPECT_EQ(TBDL_DBG_GetDebug(), 2u);

    EXPECT_EQ(Exchange(Request(0, 0, 0x8001, Tlv(398, Be32(0)))).result, 0u);
    EXPECT_EQ(TBDL_DBG_GetDebug(), 3u);

    r = Exchange(Request(0, 0, 1, Tlv(398, Be32(1))));
    EXPECT_EQ(r.oper, 1u);
    EXPECT_EQ(TBDL_DBG_GetDebug(), 1u);

    /* The handler's own refusal goes back unchanged. */
    EXPECT_EQ(Exchange(Request(0, 0, 0, Tlv(398, Be32(3)))).result, TBDL_E_INVALID_PARAM);
}

TEST_F(CfgRequest, ConfigurationTlvRangesLogSkipOrSetTheOperation)
{
    SwitchDebugOn(TBDL_DBG_EVENT);
    fake::ClearJournal();

    /* Unknown key TLVs are logged and skipped; 0, 200, 400 and 401 are
     * skipped silently; the request goes on and creates the bundle. */
    Bytes tlvs = Cat({Tlv(3, {}), Tlv(1, Be32(77)), Tlv(199, Bytes{1, 2}), BndCreateTlvs(5), Tlv(0, {9}),
                      Tlv(200, Be32(1)), Tlv(400, {}), Tlv(401, Be32(8))});
    EXPECT_EQ(Exchange(Request(0, 1, 0, tlvs)).result, 0u);
    TBDL_BND_INFO_S info = {};
    EXPECT_EQ(TBDL_BND_GetBndInfo(5, &info), 0u);
    EXPECT_THAT(UnknownTlvLines(), ElementsAre("EVENT Received a message with an unknown TLV (type: 3).",
                                               "EVENT Received a message with an unknown TLV (type: 199)."));

    /* An operation TLV the channel does not decode still becomes the
     * operation type (logged), so the bundle handler refuses it. */
    size_t logged = UnknownTlvLines().size();
    EXPECT_EQ(Exchange(Request(0, 1, 0, Cat({BndCreateTlvs(6), Tlv(250, Be32(1))}))).result, TBDL_E_NOTSUPPORT);
    EXPECT_EQ(Exchange(Request(0, 1, 0, Cat({BndCreateTlvs(6), Tlv(399, {})}))).result, TBDL_E_NOTSUPPORT);
    std::vector<std::string> lines = UnknownTlvLines();
    lines.erase(lines.begin(), lines.begin() + static_cast<long>(logged));
    EXPECT_THAT(lines, ElementsAre("EVENT Received a message with an unknown TLV (type: 250).",
                                   "EVENT Received a message with an unknown TLV (type: 399)."));
    EXPECT_NE(TBDL_BND_GetBndInfo(6, &info), 0u);
}

TEST_F(CfgRequest, DisplayKeyTlvRangesAndReplyHeader)
{
    SwitchDebugOn(TBDL_DBG_EVENT);

    /* Around the key: operation TLVs and 401 silent, 3-199 and 402-599
     * logged, 600 silent. */
    ASSERT_EQ(Exchange(Request(0, 1, 0, BndCreateTlvs(9))).result, 0u);
    Bytes tlvs = Cat({Tlv(250, Be32(1)), Tlv(401, {}), Tlv(402, {}), Tlv(2, Be32(9)), Tlv(599, Be32(1)),
                      Tlv(600, {}), Tlv(201, {}), Tlv(4, {})});
    Reply r = Exchange(Request(1, 0, 2, tlvs));
    EXPECT_EQ(r.cls, 1u);
    EXPECT_EQ(r.result, 0u);
    EXPECT_EQ(r.type, 0u);
    EXPECT_EQ(r.oper, 2u);
    EXPECT_EQ(r.dataLen, 36u);
    ASSERT_EQ(r.payload.size(), 36u);
    EXPECT_EQ(Bytes(r.payload.begin(), r.payload.begin() + 4), Cat({Be16(402), Be16(32)}));
    EXPECT_EQ(Bytes(r.payload.begin() + 24, r.payload.begin() + 28), Be32(9));
    EXPECT_THAT(UnknownTlvLines(), ElementsAre("EVENT Received a message with an unknown TLV (type: 402).",
                                               "EVENT Received a message with an unknown TLV (type: 599).",
                                               "EVENT Received a message with an unknown TLV (type: 4)."));

    r = Exchange(Request(1, 1, 7));
    EXPECT_EQ(r.type, 1u);
    EXPECT_EQ(r.oper, 7u);
    EXPECT_EQ(r.payload, Cat({Be16(404), Be16(4), Be32(2)}));

    /* A failing display handler: header with its code and no TLV. */
    r = Exchange(Request(1, 0, 2, Tlv(2, Be32(10))));
    EXPECT_EQ(r.size, 12u);
    EXPECT_EQ(r.cls, 1u);
    EXPECT_EQ(r.dataLen, 0u);
    EXPECT_EQ(r.result, TBDL_E_FAILED);
    EXPECT_EQ(r.oper, 2u);
}

TEST_F(CfgRequest, BundleRemovalUnbindsMembersBeforeTheBundleHandlerRuns)
{
    uint32_t ifIndex = fake::AddTunnel(10);
    ASSERT_EQ(Exchange(Request(0, 1, 0, BndCreateTlvs(1))).result, 0u);
    ASSERT_EQ(Exchange(Request(0, 2, 0, MembTlvs(1, 10, 3))).result, 0u);
    ASSERT_EQ(fake::PrivateData().count(ifIndex), 1u);

    /* Removing the address does not touch the members. */
    ASSERT_EQ(Exchange(Request(0, 1, 0, Cat({Tlv(2, Be32(1)), Tlv(203, Cat({Be16(2), Bytes(18, 1)}))}))).result,
              0u);
    ASSERT_EQ(Exchange(Request(0, 1, 1, Cat({Tlv(2, Be32(1)), Tlv(203, Bytes(20, 0))}))).result, 0u);
    ASSERT_EQ(fake::PrivateData().count(ifIndex), 1u);

    fake::ClearJournal();
    Reply r = Exchange(Request(0, 1, 1, BndCreateTlvs(1)));
    EXPECT_EQ(r.result, TBDL_E_LAST_BND_DELETED);
    EXPECT_EQ(r.oper, 1u);
    std::vector<std::string> names = fake::Names({"IF_DelPrivateData", "CIOCTL", "DBM_RemoveSortList"});
    ASSERT_FALSE(names.empty());
    EXPECT_EQ(names.front(), "IF_DelPrivateData");
    EXPECT_EQ(fake::PrivateData().count(ifIndex), 0u);
    EXPECT_EQ(fake::Db().count(Cat({Bytes{2}, Be32(1)})), 0u);
}

/* ---- TLV walk into the handler records ---- */

struct Parsed {
    TBDL_CFG_KEY_S key = {};
    TBDL_CFG_OPER_DATA_S data = {};
    uint16_t type = 0xFFFF;
};

Parsed ParseCfg(const Bytes &payload)
{
    Parsed p;
    p.type = tbdl_cfg_ParseCfgTlvs(payload.data(), static_cast<u32>(payload.size()), &p.key, &p.data);
    return p;
}

Bytes DataPrefix(const Parsed &p, size_t n)
{
    return Bytes(p.data.aucData, p.data.aucData + n);
}

template <typename T>
Bytes HostBytes(T v)
{
    Bytes b(sizeof(T));
    memcpy(b.data(), &v, sizeof(T));
    return b;
}

class CfgParse : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        TBDL_DBG_Init();
    }
    void TearDown() override { TBDL_DBG_Fini(); }
};

TEST_F(CfgParse, OperationValuesAreConvertedToHostOrder)
{
    Parsed p = ParseCfg(Cat({Tlv(2, Be32(0x01020304)), Tlv(202, Cat({Be16(4), Be16(0x0102)}))}));
    EXPECT_EQ(p.key.uiBndNum, 0x01020304u);
    EXPECT_EQ(p.type, 202u);
    EXPECT_EQ(DataPrefix(p, 6), Cat({HostBytes<u16>(4), HostBytes<u16>(0x0102), Bytes{0, 0}}));

    Bytes addr = Cat({Be16(2), Bytes{0xA1, 0xA2}, Bytes{10, 0, 0, 1}, Bytes(12, 0xEE)});
    p = ParseCfg(Tlv(203, addr));
    EXPECT_EQ(p.type, 203u);
    EXPECT_EQ(DataPrefix(p, 21), Cat({HostBytes<u16>(2), Bytes(addr.begin() + 2, addr.end()), Bytes{0}}));

    p = ParseCfg(Tlv(204, Cat({Be32(70000), Be16(300), Bytes{2}, Bytes{0x55}})));
    EXPECT_EQ(p.type, 204u);
    EXPECT_EQ(DataPrefix(p, 8), Cat({HostBytes<u32>(70000), HostBytes<u16>(300), Bytes{2}, Bytes{0}}));

    p = ParseCfg(Tlv(398, Be32(0xA0B0C0D0)));
    EXPECT_EQ(p.type, 398u);
    EXPECT_EQ(DataPrefix(p, 5), Cat({HostBytes<u32>(0xA0B0C0D0), Bytes{0}}));

    p = ParseCfg(Tlv(201, Be32(0xFFFFFFFF)));
    EXPECT_EQ(p.type, 201u);
    EXPECT_EQ(DataPrefix(p, 256), Bytes(256, 0));
}

TEST_F(CfgParse, LaterOperationWritesOverTheFirstBytesOfAnEarlierOne)
{
    Parsed p = ParseCfg(Cat({Tlv(202, Cat({Be16(2), Be16(9)})), Tlv(204, Cat({Be32(5), Be16(6), Bytes{1}}))}));
    EXPECT_EQ(p.type, 204u);
    EXPECT_EQ(DataPrefix(p, 8), Cat({HostBytes<u32>(5), HostBytes<u16>(6), Bytes{1, 0}}));

    /* 203 writes 20 bytes; a following 204 replaces only its first 7. */
    p = ParseCfg(Cat({Tlv(203, Bytes(20, 0xAA)), Tlv(204, Cat({Be32(5), Be16(6), Bytes{1}}))}));
    EXPECT_EQ(DataPrefix(p, 21), Cat({HostBytes<u32>(5), HostBytes<u16>(6), Bytes{1}, Bytes(13, 0xAA), Bytes{0}}));
}

TEST_F(CfgParse, ShortValuesAreZeroFilledToTheWidthTheOperationReads)
{
    /* 204 with 5 of its 7 bytes: weight's low byte and the role read 0,
     * and the operation still covers its 7 bytes of an earlier 203. */
    Parsed p = ParseCfg(Cat({Tlv(203, Bytes(20, 0xAA)), Tlv(204, Bytes{0, 0, 0, 7, 0x01})}));
    EXPECT_EQ(p.type, 204u);
    EXPECT_EQ(DataPrefix(p, 8), Cat({HostBytes<u32>(7), HostBytes<u16>(0x0100), Bytes{0}, Bytes{0xAA}}));

    p = ParseCfg(Cat({Tlv(2, Bytes{0x12, 0x34}), Tlv(202, Bytes{0})}));
    EXPECT_EQ(p.key.uiBndNum, 0x12340000u);
    EXPECT_EQ(p.type, 202u);
    EXPECT_EQ(DataPrefix(p, 4), Bytes(4, 0));

    p = ParseCfg(Tlv(203, Bytes{0, 2, 7}));
    EXPECT_EQ(DataPrefix(p, 20), Cat({HostBytes<u16>(2), Bytes{7}, Bytes(17, 0)}));
}

TEST_F(CfgParse, TlvRunningPastThePayloadEndsTheWalk)
{
    Bytes payload = Cat({Tlv(2, Be32(3)), Tlv(202, Be32(0x00010000)), Tlv(2, Be32(8), 5)});
    Parsed p = ParseCfg(payload);
    EXPECT_EQ(p.key.uiBndNum, 3u);
    EXPECT_EQ(p.type, 202u);

    /* A trailing fragment shorter than a TLV header is ignored. */
    p = ParseCfg(Cat({Tlv(2, Be32(4)), Bytes{0, 2, 0}}));
    EXPECT_EQ(p.key.uiBndNum, 4u);

    /* The last TLV 2 wins. */
    p = ParseCfg(Cat({Tlv(2, Be32(4)), Tlv(2, Be32(11))}));
    EXPECT_EQ(p.key.uiBndNum, 11u);
}

} // namespace
