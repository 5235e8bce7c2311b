/* Bundle configuration: create/delete with the hold timer, and the address. */
#include <fcntl.h>
#include <sys/timerfd.h>

#include "bnd_fixture.h"

using namespace bndtest;

namespace {

class BndCfg : public BndTest {};

TEST_F(BndCfg, NumberCheckedBeforeOperationType)
{
    Init(1, 1, 1, 16);
    EXPECT_EQ(Cfg(0, 16, 999), TBDL_E_INVALID_BND);
    EXPECT_TRUE(Logged("ERROR The tunnel bundle interface number (16) is invalid.\r\n"));
    EXPECT_EQ(Cfg(0, 15, 999), TBDL_E_NOTSUPPORT);
    EXPECT_EQ(Cfg(0, 15, TBDL_TLV_OP_MEMB), TBDL_E_NOTSUPPORT);
}

TEST_F(BndCfg, CreateByModeAndExistence)
{
    /* Enabled mode bits, mode of an existing bundle 4 (0: none), requested mode, result, mode of 4 afterwards. */
    const struct { const char *what; u8 devModes; u16 existing, requested; u32 expect; u8 storedMode; } rows[] = {
        {"new, supported", 7, 0, 4, TBDL_OK, 4},
        {"mode 0 never supported", 7, 0, 0, TBDL_E_MODE_NOTSUPPORT, 0},
        {"mode not enabled", 1, 0, 2, TBDL_E_MODE_NOTSUPPORT, 0},
        {"mode 3 shares bit 1", 1, 0, 3, TBDL_OK, 3},
        {"upper byte of the mode ignored", 7, 0, 0x0102, TBDL_OK, 2},
        {"same mode again", 7, 2, 2, TBDL_E_NOCHANGE, 2},
        {"mode 1 on a protection bundle", 7, 4, 1, TBDL_E_NOCHANGE, 4},
        {"other protection mode", 7, 2, 4, TBDL_E_BND_MODE_CONFLICT, 2},
        {"protection on a balancing bundle", 7, 1, 2, TBDL_E_BND_MODE_CONFLICT, 1},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        /* A mode switch enables only with value 1; off is given as 2. */
        Init(r.devModes & 1 ? 1 : 2, r.devModes & 2 ? 1 : 2, r.devModes & 4 ? 1 : 2);
        if (r.existing != 0) {
            ASSERT_EQ(Create(4, r.existing), TBDL_OK);
        }
        u32 cnt = g_stTbdlGlobalVar.uiBndCnt;
        Mark();
        EXPECT_EQ(Create(4, r.requested), r.expect);
        const TBDL_BND_S *bnd = g_stTbdlGlobalVar.ppstBnd[4];
        EXPECT_EQ(bnd ? bnd->ucMode : 0, r.storedMode);
        EXPECT_EQ(g_stTbdlGlobalVar.uiBndCnt, cnt + (r.expect == TBDL_OK ? 1 : 0));
        EXPECT_EQ(g_trace.empty(), r.expect != TBDL_OK);
    }
}

TEST_F(BndCfg, CreateAnnouncesPushesAndSaves)
{
    Init();
    ASSERT_EQ(Create(9, 2, 0x0305), TBDL_OK);
    EXPECT_EQ(g_trace, (Trace{"EV0:9", "HA1", "HAF", "K7c0002", "DB+9"}));
    /* The HA message carries the same 36 bytes as the kernel command. */
    EXPECT_EQ(fake::CallsOf("CIOCTL").at(0).data, g_haPayloads.at(0));
    TBDL_KBND_S kb = LastKbnd();
    u32 ifIndex = fake::FindInterface("Tunnel-Bundle9")->ifIndex;
    EXPECT_EQ(std::make_tuple(kb.uiIfIndex, kb.uiTnlMode, kb.uiState), std::make_tuple(ifIndex, 5u, 0u));
    EXPECT_TRUE(Logged("EVENT Updated the information of tunnel bundle interface " + std::to_string(ifIndex) +
                       " to KTBDL.\r\n"));
    auto rec = fake::CallsOf("DBM_InsertSortList").at(0).rec; /* mode and tunnel mode stored */
    EXPECT_EQ(Bytes(rec.begin() + 24, rec.begin() + 26), (Bytes{2, 5}));
    fake::FailOnce("DBM_InsertSortList", 1);
    EXPECT_EQ(Create(7, 1), TBDL_OK) << "a failed write keeps the bundle";
    EXPECT_NE(g_stTbdlGlobalVar.ppstBnd[7], nullptr);
    EXPECT_EQ(Delete(7), TBDL_OK);

    Mark();
    fake::FailOnce("IF_GetIfIndexByFullName", 0);
    EXPECT_EQ(Create(6, 1), TBDL_E_FAILED);
    EXPECT_TRUE(Logged("ERROR Failed to create ifindex for tunnel bundle interface (6).\r\n"));
    TBDL_BAS_SetAllocFault(0, 1);
    EXPECT_EQ(Create(6, 1), TBDL_E_NOMEM);
    TBDL_BAS_SetAllocFault(0, 0);
    EXPECT_EQ(std::make_tuple(g_stTbdlGlobalVar.ppstBnd[6], g_stTbdlGlobalVar.uiBndCnt, g_trace),
              std::make_tuple(nullptr, 1u, Trace{}));
}

TEST_F(BndCfg, DeleteRemovesMembersThenAnnouncesThenDeletesRecord)
{
    Init();
    ASSERT_EQ(Create(1, 1), TBDL_OK);
    ASSERT_EQ(Create(2, 1), TBDL_OK);
    AddMemb(1, 10);
    u32 b = AddMemb(1, 11);
    /* The callback still sees the emptied, down bundle. */
    static std::pair<size_t, u8> seen; /* members and state */
    g_stTbdlGlobalVar.pfBndEvCb = [](u32 ev, u32 num) {
        seen = {Members(num).size(), Snap(num).ucState};
        BndEv(ev, num);
    };
    Mark();
    EXPECT_EQ(Delete(1), TBDL_OK);
    EXPECT_EQ(g_trace, (Trace{"K7c0004", "HA3", "HAF", "K7c0004", "HA3", "HAF", "EV2:1", "DB-1"}));
    EXPECT_EQ(seen, std::make_pair(size_t(0), u8(0)));
    u32 bndIf = fake::FindInterface("Tunnel-Bundle1")->ifIndex;
    EXPECT_EQ(g_haPayloads.at(0), Host(TBDL_KMEMB_S{bndIf, b})) << "newest member first";
    /* Not the last bundle: no hold. */
    EXPECT_EQ(std::make_tuple(g_stTbdlGlobalVar.ppstBnd[1], g_stTbdlGlobalVar.uiBndCnt, g_stTbdlGlobalVar.iTimerFd),
              std::make_tuple(nullptr, 1u, -1));

    Mark();
    EXPECT_EQ(Delete(1), TBDL_OK) << "deleting a missing bundle succeeds";
    EXPECT_EQ(std::make_tuple(g_trace, g_stTbdlGlobalVar.uiBndCnt), std::make_tuple(Trace{}, 1u));
}

/* The hold after the last deletion ends at ClearRunning or at the timer's first expiry. */
TEST_F(BndCfg, HoldAfterLastDeletion)
{
    Init();
    for (bool byTimer : {false, true}) {
        SCOPED_TRACE(byTimer ? "timer" : "ClearRunning");
        ASSERT_EQ(Create(3, 1), TBDL_OK);
        EXPECT_EQ(Delete(3), TBDL_E_LAST_BND_DELETED);
        EXPECT_EQ(g_stTbdlGlobalVar.uiBndCnt, TBDL_BND_CNT_HOLD);
        int tfd = g_stTbdlGlobalVar.iTimerFd;
        struct itimerspec cur{};
        ASSERT_EQ(timerfd_gettime(tfd, &cur), 0);
        EXPECT_EQ(std::make_pair(cur.it_interval.tv_sec, cur.it_interval.tv_nsec), std::make_pair(time_t(30), 0L));
        EXPECT_GT(cur.it_value.tv_sec, 25);
        EXPECT_EQ(Create(3, 1), TBDL_E_BND_HOLD);
        EXPECT_EQ(Create(4, 2), TBDL_E_BND_HOLD);

        Mark();
        if (byTimer) {
            struct itimerspec soon{{30, 0}, {0, 1000000}};
            ASSERT_EQ(timerfd_settime(tfd, 0, &soon, nullptr), 0);
            Pump();
        } else {
            TBDL_BND_ClearRunning();
        }
        /* Silent; the timer descriptor closed. */
        EXPECT_EQ(std::make_tuple(g_trace, g_stTbdlGlobalVar.iTimerFd, fcntl(tfd, F_GETFD), g_stTbdlGlobalVar.uiBndCnt),
                  std::make_tuple(Trace{}, -1, -1, 0u));
        EXPECT_EQ(Create(3, 1), TBDL_OK);
        EXPECT_EQ(g_stTbdlGlobalVar.uiBndCnt, 1u);
        EXPECT_EQ(Delete(3), TBDL_E_LAST_BND_DELETED);
        TBDL_BND_ClearRunning();
    }
}

TBDL_ADDR_S Addr(u16 family, std::initializer_list<u8> bytes, u8 carried = 0)
{
    TBDL_ADDR_S a{};
    a.usFamily = family;
    a.aucCarried[0] = carried;
    std::copy(bytes.begin(), bytes.end(), a.aucAddr);
    return a;
}

TEST_F(BndCfg, AddressSetAndRemove)
{
    using A = TBDL_ADDR_S;
    const A none{}, v4 = Addr(2, {10, 0, 0, 1});
    const struct { const char *what; A before; u16 undo; A req; u32 res; A after; } rows[] = {
        {"set on a bundle without address", none, 0, Addr(2, {10, 0, 0, 1}, 7), TBDL_OK, Addr(2, {10, 0, 0, 1}, 7)},
        {"same IPv4 again", v4, 0, Addr(2, {10, 0, 0, 1}), TBDL_E_NOCHANGE, v4},
        {"only 4 bytes compared for IPv4", v4, 0, Addr(2, {10, 0, 0, 1, 9, 9}), TBDL_E_NOCHANGE, v4},
        {"other IPv4 replaces", v4, 0, Addr(2, {10, 0, 0, 2}), TBDL_OK, Addr(2, {10, 0, 0, 2})},
        {"0.0.0.0 on a bundle without address", none, 0, Addr(2, {}), TBDL_E_NOCHANGE, none},
        {"non-IPv4 family", none, 0, Addr(10, {0x20, 1}), TBDL_E_NOCHANGE, none},
        {"remove without address", none, 1, none, TBDL_E_NOCHANGE, none},
        {"remove", v4, 1, none, TBDL_OK, none},
    };
    Init();
    ASSERT_EQ(Create(8, 1), TBDL_OK);
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        g_stTbdlGlobalVar.ppstBnd[8]->stAddr = r.before;
        Mark();
        EXPECT_EQ(Cfg(r.undo, 8, TBDL_TLV_OP_ADDR, &r.req, sizeof(r.req)), r.res);
        EXPECT_EQ(memcmp(&g_stTbdlGlobalVar.ppstBnd[8]->stAddr, &r.after, sizeof(r.after)), 0);
        if (r.res != TBDL_OK) {
            EXPECT_TRUE(g_trace.empty());
            continue;
        }
        /* No members: no callback, but KTBDL and the database hear of it. */
        EXPECT_EQ(g_trace, (Trace{"HA1", "HAF", "K7c0002", "DB+8"}));
        TBDL_KBND_S kb = LastKbnd();
        EXPECT_EQ(memcmp(&kb.stAddr, &r.after, sizeof(r.after)), 0);
        EXPECT_EQ(memcmp(fake::CallsOf("DBM_InsertSortList").at(0).rec.data() + 2, &r.after.aucCarried, 18), 0);
    }
    EXPECT_EQ(Cfg(0, 9, TBDL_TLV_OP_ADDR), TBDL_E_NOTEXIST);
    AddMemb(8, 1);
    Mark();
    TBDL_ADDR_S a = Addr(2, {192, 168, 1, 1});
    EXPECT_EQ(Cfg(0, 8, TBDL_TLV_OP_ADDR, &a, sizeof(a)), TBDL_OK);
    EXPECT_EQ(g_trace, (Trace{"EV1:8", "HA1", "HAF", "K7c0002", "DB+8"})) << "with members: announced";
}

} // namespace
