/* Display handlers: the bytes of the bundle details, counts, debug switch and device limit TLVs, paging, and the
 * answers when there is nothing to show or no room. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cfg_test_util.h"
#include "disp/tbdl_disp_priv.h"

using namespace cfgtest;

namespace {

struct Out {
    uint32_t result = 0;
    uint16_t outLen = 0;
    Bytes tlv;            /* the outLen bytes written */
    bool overrun = false; /* something written past usBufLen */
};

Out Disp(TBDL_DISP_HANDLER_PF handler, uint16_t oper, uint32_t bnd, uint16_t bufLen = 1488)
{
    Bytes buf(static_cast<size_t>(bufLen) + 64, 0xEE);
    TBDL_CFG_KEY_S key = {bnd};
    Out o;
    o.result = handler(oper, &key, bufLen, buf.data(), &o.outLen);
    o.tlv.assign(buf.begin(), buf.begin() + std::min<size_t>(o.outLen, buf.size()));
    o.overrun = std::any_of(buf.begin() + bufLen, buf.end(), [](uint8_t b) { return b != 0xEE; });
    return o;
}

/* Calls a configuration handler with operation data `data` (host order). */
u32 Configure(TBDL_CFG_HANDLER_PF handler, uint32_t bnd, u16 operType, const Bytes &data)
{
    alignas(8) TBDL_CFG_OPER_DATA_S oper = {};
    memcpy(oper.aucData, data.data(), data.size());
    TBDL_CFG_KEY_S key = {bnd};
    return handler(0, &key, operType, &oper);
}

u32 CreateBnd(u32 b, u16 m = 1, u16 t = 0) { return Configure(TBDL_BND_Configure, b, 202, Cat({Host(m), Host(t)})); }

u32 Bind(u32 b, u32 t, u16 w) { return Configure(TBDL_INTF_Configure, b, 204, Cat({Host(t), Host(w), Bytes{0}})); }

/* TLV 402 of a bundle without address. */
Bytes Details(uint32_t bnd, const Bytes &members, uint32_t count, uint8_t state)
{
    return Tlv(402, Cat({Bytes(20, 0), Be32(bnd), Be32(count), Be16(0), Bytes{state, 1}, members}));
}

Bytes Member(uint32_t tnl, uint16_t weight, uint8_t state) { return Cat({Be32(tnl), Be16(weight), Bytes{0, state}}); }

Bytes Counts(uint32_t total, uint32_t up, uint32_t down) { return Tlv(403, Cat({Be32(total), Be32(up), Be32(down)})); }

class DispTest : public CfgModules {
protected:
    void InitTable(TBDL_SPEC_S spec)
    {
        TBDL_BND_Fini();
        ASSERT_EQ(TBDL_BND_Init(&spec, nullptr, m_epfd), 0u);
    }
};

/* The address as stored, the low byte of the tunnel mode, and the members newest first. */
TEST_F(DispTest, DetailsOfABundleWithAddressAndEightMembers)
{
    ASSERT_EQ(CreateBnd(5, 2, 0x0103), 0u);
    Bytes rest = Cat({Bytes{0xC1, 0xC2, 10, 1, 2, 3}, Bytes(12, 0)});
    ASSERT_EQ(Configure(TBDL_BND_Configure, 5, 203, Cat({Host<u16>(2), rest})), 0u);
    Out o = Disp(TBDL_DISP_TnlBnd, 2, 5);
    EXPECT_EQ(std::make_pair(o.result, o.outLen), std::make_pair(0u, uint16_t(36)));
    EXPECT_EQ(o.tlv, Tlv(402, Cat({Be16(2), rest, Be32(5), Be32(0), Be16(0x03), Bytes{0, 2}})));

    ASSERT_EQ(CreateBnd(1), 0u);
    Bytes members;
    for (uint32_t tnl = 11; tnl <= 18; tnl++) {
        uint8_t state = (tnl % 3 == 0) ? 0 : 1;
        fake::AddTunnel(tnl, 0, state);
        ASSERT_EQ(Bind(1, tnl, static_cast<uint16_t>(tnl * 300)), 0u);
        members = Cat({Member(tnl, static_cast<uint16_t>(tnl * 300), state), members});
    }
    o = Disp(TBDL_DISP_TnlBnd, 2, 1);
    EXPECT_EQ(std::make_pair(o.result, o.outLen), std::make_pair(0u, uint16_t(100)));
    EXPECT_EQ(o.tlv, Details(1, members, 8, 1));
}

TEST_F(DispTest, PagingWithFirstThenNextEndsInFailed)
{
    for (uint32_t bnd : {1023u, 3u, 4u, 10u}) {
        ASSERT_EQ(CreateBnd(bnd), 0u);
    }
    std::vector<uint32_t> seen;
    Out o = Disp(TBDL_DISP_TnlBnd, 3, 0xDEAD);
    for (; o.result == 0 && seen.size() < 10; o = Disp(TBDL_DISP_TnlBnd, 4, seen.back())) {
        ASSERT_EQ(o.tlv.size(), 36u);
        seen.push_back(uint32_t(o.tlv[26] << 8 | o.tlv[27]));
    }
    EXPECT_EQ(std::make_pair(o.result, o.outLen), std::make_pair(TBDL_E_FAILED, uint16_t(0)));
    EXPECT_THAT(seen, ::testing::ElementsAre(3u, 4u, 10u, 1023u));
    EXPECT_EQ(g_stTbdlLogVar.uiErrTotal, 0u) << "the walk ends quietly at the last slot";
    /* Next from a number that does not exist. */
    EXPECT_EQ(Disp(TBDL_DISP_TnlBnd, 4, 0).tlv, Details(3, {}, 0, 0));
}

TEST_F(DispTest, NothingToShowAnswersFailedWithoutTlv)
{
    EXPECT_EQ(Disp(TBDL_DISP_TnlBnd, 3, 0).result, TBDL_E_FAILED); /* first on an empty table */
    ASSERT_EQ(CreateBnd(2), 0u);
    const struct { const char *what; uint16_t oper; uint32_t bnd; } cases[] = {
        {"missing bundle", 2, 3},         {"number beyond the table", 2, 1024}, {"next beyond the table", 4, 5000},
        {"unknown selector 0", 0, 2},     {"unknown selector 1", 1, 2},         {"unknown selector 6", 6, 2},
        {"unknown selector 0xFFFF", 0xFFFF, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Out o = Disp(TBDL_DISP_TnlBnd, c.oper, c.bnd);
        EXPECT_EQ(std::make_pair(o.result, o.outLen), std::make_pair(TBDL_E_FAILED, uint16_t(0)));
    }
    /* The table reports the numbers beyond it. */
    EXPECT_EQ(g_stTbdlLogVar.uiErrTotal, 2u);
    EXPECT_STREQ(g_apcTbdlErrStr[0], "The tunnel bundle interface number (%d) is invalid.\r\n");
}

TEST_F(DispTest, Counts)
{
    EXPECT_EQ(Disp(TBDL_DISP_TnlBnd, 5, 0xFFFFFFFF).tlv, Counts(0, 0, 0));
    ASSERT_EQ(CreateBnd(1), 0u);
    ASSERT_EQ(CreateBnd(2), 0u);
    ASSERT_EQ(CreateBnd(900), 0u);
    fake::AddTunnel(5, 0, 1);
    ASSERT_EQ(Bind(900, 5, 1), 0u);
    const struct { const char *what; uint32_t bnd, total, up, down; } cases[] = {
        {"all", 0xFFFFFFFF, 3, 1, 2}, {"one that is up", 900, 1, 1, 0}, {"one that is down", 2, 1, 0, 1},
        {"missing", 3, 0, 0, 0},      {"beyond the table", 4096, 0, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Out o = Disp(TBDL_DISP_TnlBnd, 5, c.bnd);
        EXPECT_EQ(std::make_pair(o.result, o.outLen), std::make_pair(0u, uint16_t(16)));
        EXPECT_EQ(o.tlv, Counts(c.total, c.up, c.down));
    }
}

TEST_F(DispTest, DebugSwitchWordAndDeviceLimits)
{
    EXPECT_EQ(Disp(TBDL_DISP_Debug, 0, 0).tlv, Tlv(404, Be32(0)));
    ASSERT_EQ(Configure(TBDL_DBG_SetDebug, 0, 398, Host<u32>(TBDL_DBG_ALL)), 0u);
    Out o = Disp(TBDL_DISP_Debug, 77, 12345);
    EXPECT_EQ(std::make_pair(o.result, o.outLen), std::make_pair(0u, uint16_t(8)));
    EXPECT_EQ(o.tlv, Tlv(404, Be32(3)));

    InitTable({512, 4, 1, 0, 0});
    o = Disp(TBDL_DISP_TbdlSpec, 9, 9);
    EXPECT_EQ(std::make_pair(o.result, o.outLen), std::make_pair(0u, uint16_t(20)));
    EXPECT_EQ(o.tlv, Tlv(405, Cat({Be32(512), Be32(4), Be16(1), Be16(0), Be16(0), Be16(0)})));
    InitTable({1024, 8, 0, 1, 1});
    EXPECT_EQ(Disp(TBDL_DISP_TbdlSpec, 0, 0).tlv,
              Tlv(405, Cat({Be32(1024), Be32(8), Be16(0), Be16(1), Be16(1), Be16(0)})));
}

TEST_F(DispTest, TooLittleRoomWritesNothingPastTheBuffer)
{
    ASSERT_EQ(CreateBnd(4), 0u);
    fake::AddTunnel(7);
    ASSERT_EQ(Bind(4, 7, 1), 0u);
    const struct { const char *what; TBDL_DISP_HANDLER_PF fn; uint16_t oper, bufLen; uint32_t result; uint16_t outLen; }
        cases[] = {
        {"details: exact room for 4 + 32 + 8", TBDL_DISP_TnlBnd, 2, 44, 0, 44},
        {"details: one byte short", TBDL_DISP_TnlBnd, 2, 43, TBDL_E_FAILED, 0},
        {"details: less than a header", TBDL_DISP_TnlBnd, 2, 3, TBDL_E_FAILED, 0},
        {"counts", TBDL_DISP_TnlBnd, 5, 15, TBDL_E_FAILED, 0},
        {"debug", TBDL_DISP_Debug, 0, 7, TBDL_E_FAILED, 0},
        {"limits: empty answer, still result 0", TBDL_DISP_TbdlSpec, 0, 19, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Out o = Disp(c.fn, c.oper, 4, c.bufLen);
        EXPECT_EQ(std::make_tuple(o.result, o.outLen, o.overrun), std::make_tuple(c.result, c.outLen, false));
    }
}

} // namespace
