/* Requests on a configuration connection: framing checks, TLV parsing into the handlers' records, dispatch to the real
 * handlers and the reply bytes. Requests go over a SEQPACKET socket pair to the connection callback. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cfg/tbdl_cfg_priv.h"
#include "cfg_test_util.h"

using namespace cfgtest;
using ::testing::ElementsAre;

namespace {

/* Types of the unknown TLVs logged from the from-th log line on. */
std::vector<int> UnknownTlvs(size_t from = 0)
{
    std::vector<int> out;
    std::vector<std::string> all = fake::LogLines();
    const std::string head = "EVENT Received a message with an unknown TLV (type: ";
    for (size_t i = from; i < all.size(); i++) {
        if (all[i].rfind(head, 0) == 0 && all[i].substr(all[i].find(')')) == ").") {
            out.push_back(std::stoi(all[i].substr(head.size())));
        }
    }
    return out;
}

class CfgRequest : public CfgModules {
protected:
    void SetUp() override
    {
        CfgModules::SetUp();
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
        CfgModules::TearDown();
    }

    /* The one reply to a request; fails when there is none or more. */
    Bytes Exchange(const Bytes &msg)
    {
        EXPECT_TRUE(Send(m_cli, msg));
        EXPECT_EQ(tbdl_cfg_RecvMsg(EPOLLIN, static_cast<u64>(m_srv)), 0u);
        std::optional<Bytes> reply = TryRecv(m_cli);
        EXPECT_TRUE(reply.has_value()) << "no reply";
        EXPECT_FALSE(TryRecv(m_cli).has_value()) << "more than one reply";
        return reply.value_or(Bytes{});
    }

    int m_cli = -1;
    int m_srv = -1;
};

TEST_F(CfgRequest, MalformedRequestsAnswerInvalidMsgAndChangeNothing)
{
    Bytes debugOn = Request(0, 0, 0, Tlv(398, Be32(2)));
    Bytes cut = Request(0, 1, 7);
    cut.resize(11);
    /* The request and the type and oper its reply carries. */
    const struct { const char *what; Bytes msg; uint16_t type, oper; } cases[] = {
        {"5 bytes", Bytes(5, 0), 0, 0},
        {"11 bytes: type and oper not there", cut, 0, 0},
        {"class 2", Request(2, 1, 7, BndCreateTlvs(1)), 1, 7},
        {"class 0xFFFF", Request(0xFFFF, 5, 9), 5, 9},
        {"length announces more than received", Request(0, 1, 3, BndCreateTlvs(1), 13), 1, 3},
        {"length announces less than received", Request(0, 1, 3, BndCreateTlvs(1), 0), 1, 3},
        {"two requests in one receive", Cat({debugOn, debugOn}), 0, 0},
        {"configuration type 3", Request(0, 3, 0, Tlv(398, Be32(2))), 3, 0},
        {"display type 2", Request(1, 2, 3), 2, 3},
        {"display type 6", Request(1, 6, 3), 6, 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Exchange(c.msg), Head(0, 0, TBDL_E_INVALID_MSG, c.type, c.oper));
    }
    TBDL_BND_INFO_S info = {};
    EXPECT_EQ(TBDL_BND_GetFirstBndInfo(&info), TBDL_E_NOTEXIST);
    EXPECT_EQ(TBDL_DBG_GetDebug(), 0u);
}

/* Only oper 1 is an undo; the reply carries the handler's result and the request's type and oper. A header-only request
 * reaches the handler with zero key and operation data: bundle 0 is in range, operation type 0 is refused, debug type 0
 * is ERROR. */
TEST_F(CfgRequest, RepliesCarryTheHandlerResultAndOnlyOperOneIsUndo)
{
    const struct { const char *what; uint16_t type, oper; Bytes tlvs; uint32_t result, switchAfter; } steps[] = {
        {"header only: debug ERROR on", 0, 0, {}, 0, 1},
        {"header only: bundle", 1, 0, {}, TBDL_E_NOTSUPPORT, 1},
        {"header only: member", 2, 0, {}, TBDL_E_NOTSUPPORT, 1},
        {"oper 2 sets", 0, 2, Tlv(398, Be32(TBDL_DBG_EVENT)), 0, 3},
        {"oper 1 undoes", 0, 1, Tlv(398, Be32(TBDL_DBG_ERROR)), 0, 2},
        {"oper 0x8001 sets", 0, 0x8001, Tlv(398, Be32(TBDL_DBG_ERROR)), 0, 3},
        {"handler refusal", 0, 0, Tlv(398, Be32(3)), TBDL_E_INVALID_PARAM, 3},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.what);
        EXPECT_EQ(Exchange(Request(0, s.type, s.oper, s.tlvs)), Head(0, 0, s.result, s.type, s.oper));
        EXPECT_EQ(TBDL_DBG_GetDebug(), s.switchAfter);
    }
}

TEST_F(CfgRequest, TlvRangesAreLoggedSkippedOrTaken)
{
    ASSERT_EQ(ResultOf(Exchange(Request(0, 0, 0, Tlv(398, Be32(TBDL_DBG_EVENT))))), 0u);
    /* Key TLVs 3-199 are logged and skipped; 0, 200, 400 and 401 silently. */
    Bytes tlvs = Cat({Tlv(3, {}), Tlv(1, Be32(77)), Tlv(199, Bytes{1, 2}), BndCreateTlvs(5), Tlv(0, {9}),
                      Tlv(200, Be32(1)), Tlv(400, {}), Tlv(401, Be32(8))});
    EXPECT_EQ(ResultOf(Exchange(Request(0, 1, 0, tlvs))), 0u);
    EXPECT_TRUE(HasBnd(5));
    EXPECT_THAT(UnknownTlvs(), ElementsAre(3, 199));

    /* An operation TLV without decoding still becomes the operation type
     * (and is logged), so the bundle handler refuses it. */
    size_t logged = fake::LogLines().size();
    EXPECT_EQ(ResultOf(Exchange(Request(0, 1, 0, Cat({BndCreateTlvs(6), Tlv(250, Be32(1))})))), TBDL_E_NOTSUPPORT);
    EXPECT_EQ(ResultOf(Exchange(Request(0, 1, 0, Cat({BndCreateTlvs(6), Tlv(399, {})})))), TBDL_E_NOTSUPPORT);
    EXPECT_THAT(UnknownTlvs(logged), ElementsAre(250, 399));
    EXPECT_FALSE(HasBnd(6));

    /* Display requests, around the key: 201-399 and 401 silent, 3-199 and 402-599 logged, 600 silent. */
    ASSERT_EQ(ResultOf(Exchange(Request(0, 1, 0, BndCreateTlvs(9)))), 0u);
    logged = fake::LogLines().size();
    Bytes disp = Cat({Tlv(250, Be32(1)), Tlv(401, {}), Tlv(402, {}), Tlv(2, Be32(9)), Tlv(599, Be32(1)),
                      Tlv(600, {}), Tlv(201, {}), Tlv(4, {})});
    Bytes details = Cat({Bytes(20, 0), Be32(9), Be32(0), Be16(0), Bytes{0, 1}});
    EXPECT_EQ(Exchange(Request(1, 0, 2, disp)), Cat({Head(1, 36, 0, 0, 2), Tlv(402, details)}));
    EXPECT_THAT(UnknownTlvs(logged), ElementsAre(402, 599, 4));

    EXPECT_EQ(Exchange(Request(1, 1, 7)), Cat({Head(1, 8, 0, 1, 7), Tlv(404, Be32(2))}));
    /* A failing display handler: its code and no TLV. */
    EXPECT_EQ(Exchange(Request(1, 0, 2, Tlv(2, Be32(10)))), Head(1, 0, TBDL_E_FAILED, 0, 2));
}

TEST_F(CfgRequest, BundleRemovalUnbindsMembersBeforeTheBundleHandlerRuns)
{
    uint32_t ifIndex = fake::AddTunnel(10);
    ASSERT_EQ(ResultOf(Exchange(Request(0, 1, 0, BndCreateTlvs(1)))), 0u);
    Bytes memb = Cat({Tlv(2, Be32(1)), Tlv(204, Cat({Be32(10), Be16(3), Bytes{0}}))});
    ASSERT_EQ(ResultOf(Exchange(Request(0, 2, 0, memb))), 0u);
    /* Undoing the address leaves the members. */
    Bytes addr = Cat({Tlv(2, Be32(1)), Tlv(203, Cat({Be16(2), Bytes(18, 1)}))});
    ASSERT_EQ(ResultOf(Exchange(Request(0, 1, 0, addr))), 0u);
    ASSERT_EQ(ResultOf(Exchange(Request(0, 1, 1, addr))), 0u);
    ASSERT_EQ(fake::PrivateData().count(ifIndex), 1u);

    fake::ClearJournal();
    EXPECT_EQ(Exchange(Request(0, 1, 1, BndCreateTlvs(1))), Head(0, 0, TBDL_E_LAST_BND_DELETED, 1, 1));
    std::vector<std::string> names = fake::Names({"IF_DelPrivateData", "CIOCTL", "DBM_RemoveSortList"});
    EXPECT_EQ(names.empty() ? "" : names.front(), "IF_DelPrivateData");
    EXPECT_EQ(std::make_pair(fake::PrivateData().count(ifIndex), fake::Db().count(MembKey(1))),
              std::make_pair(size_t(0), size_t(0)));
}

/* ---- TLV walk into the handlers' records ---- */

TEST(CfgParse, OperationTlvsFillTheOperationDataInHostOrder)
{
    fake::Reset();
    TBDL_DBG_Init();
    Bytes addr = Cat({Be16(2), Bytes{0xA1, 0xA2, 10, 0, 0, 1}, Bytes(12, 0xEE)});
    Bytes memb = Tlv(204, Cat({Be32(5), Be16(6), Bytes{1}}));
    /* The payload, then the key, operation type and leading bytes of the operation data it gives. */
    const struct { const char *what; Bytes payload; uint32_t key; uint16_t type; Bytes data; } cases[] = {
        {"202: two u16", Cat({Tlv(2, Be32(0x01020304)), Tlv(202, Cat({Be16(4), Be16(0x0102)}))}), 0x01020304, 202,
         Cat({Host<u16>(4), Host<u16>(0x0102), Bytes{0, 0}})},
        {"203: family converted, 18 bytes as received", Tlv(203, addr), 0, 203,
         Cat({Host<u16>(2), Bytes(addr.begin() + 2, addr.end()), Bytes{0}})},
        {"204: u32, u16, u8", Tlv(204, Cat({Be32(70000), Be16(300), Bytes{2, 0x55}})), 0, 204,
         Cat({Host<u32>(70000), Host<u16>(300), Bytes{2, 0}})},
        {"398: u32", Tlv(398, Be32(0xA0B0C0D0)), 0, 398, Cat({Host<u32>(0xA0B0C0D0), Bytes{0}})},
        {"201: nothing written", Tlv(201, Be32(0xFFFFFFFF)), 0, 201, Bytes(256, 0)},
        {"202 then 204: the last operation wins", Cat({Tlv(202, Cat({Be16(2), Be16(9)})), memb}), 0, 204,
         Cat({Host<u32>(5), Host<u16>(6), Bytes{1, 0}})},
        {"203 then 204: only 7 bytes replaced", Cat({Tlv(203, Bytes(20, 0xAA)), memb}), 0, 204,
         Cat({Host<u32>(5), Host<u16>(6), Bytes{1}, Bytes(13, 0xAA), Bytes{0}})},
        {"short 204 is zero-filled to its 7 bytes", Cat({Tlv(203, Bytes(20, 0xAA)), Tlv(204, Bytes{0, 0, 0, 7, 1})}),
         0, 204, Cat({Host<u32>(7), Host<u16>(0x0100), Bytes{0, 0xAA}})},
        {"short key and 202", Cat({Tlv(2, Bytes{0x12, 0x34}), Tlv(202, Bytes{0})}), 0x12340000, 202, Bytes(4, 0)},
        {"short 203", Tlv(203, Bytes{0, 2, 7}), 0, 203, Cat({Host<u16>(2), Bytes{7}, Bytes(17, 0)})},
        {"TLV running past the payload ends the walk",
         Cat({Tlv(2, Be32(3)), Tlv(202, Be32(0x00010000)), Tlv(2, Be32(8), 5)}), 3, 202,
         Cat({Host<u16>(1), Host<u16>(0)})},
        {"fragment shorter than a header is ignored", Cat({Tlv(2, Be32(4)), Bytes{0, 2, 0}}), 4, 0, {}},
        {"the last key wins", Cat({Tlv(2, Be32(4)), Tlv(2, Be32(11))}), 11, 0, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        TBDL_CFG_KEY_S key = {};
        alignas(8) TBDL_CFG_OPER_DATA_S data = {};
        EXPECT_EQ(tbdl_cfg_ParseCfgTlvs(c.payload.data(), static_cast<u32>(c.payload.size()), &key, &data), c.type);
        EXPECT_EQ(key.uiBndNum, c.key);
        EXPECT_EQ(Bytes(data.aucData, data.aucData + c.data.size()), c.data);
    }
    TBDL_DBG_Fini();
}

} // namespace
