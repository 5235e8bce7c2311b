/* Rebuilding bundles from stored records. */
#include "bnd_fixture.h"
#include "plat_if.h"

using namespace bndtest;

namespace {

class BndRecover : public BndTest {
protected:
    static TBDL_DBM_BND_S Rec(u32 n, u8 m, u16 v = 0) { return {{2, {0, 0x5a}, {10, 0, 0, 9}}, n, m, 3, 0, v, 0}; }
    static u32 BndIf(u32 num) { return IF_GetIfIndexByFullName(("Tunnel-Bundle" + std::to_string(num)).c_str()); }
};

/* A second record for a bundle already in the table leaves it alone. */
TEST_F(BndRecover, SecondRecordOfABundleLeavesItAlone)
{
    Init();
    TBDL_DBM_BND_S r = Rec(12, 2), again = Rec(12, 4);
    ASSERT_EQ(TBDL_BND_RecoverBnd(&r), TBDL_OK);
    EXPECT_NE(TBDL_BND_RecoverBnd(&again), TBDL_OK);
    EXPECT_EQ(std::make_pair(Snap(12).ucMode, g_stTbdlGlobalVar.uiBndCnt), std::make_pair(u8(2), 1u));
}

enum Fault { NONE, NO_IFINDEX, DESTROY_FAILS, ALLOC_FAILS };

/* Only load balancing is enabled. A discarded record loses its interface
 * index, then its stored record, and the failure is logged. */
TEST_F(BndRecover, RestoreOrDiscard)
{
    /* current: the VRF L3VPN reports for the bundle interface */
    const struct { const char *what; u32 num; u8 mode; u16 boot, stored, current; Fault fault; u32 expect; } rows[] = {
        {"boot takes the stored VRF", 1, 1, 1, 7, 3, NONE, TBDL_OK},
        {"restart, same VRF", 2, 1, 0, 7, 7, NONE, TBDL_OK},
        {"restart, no VRF on either side", 3, 1, 0, 0, 0, NONE, TBDL_OK},
        {"restart, VRF moved", 4, 1, 0, 7, 3, NONE, TBDL_E_FAILED},
        {"restart, VRF lost", 5, 1, 0, 7, 0, NONE, TBDL_E_FAILED},
        {"mode not enabled", 6, 2, 1, 0, 0, NONE, TBDL_E_MODE_NOTSUPPORT},
        {"failed checks add up", 2000, 4, 0, 0, 0, NONE, 0x85150012u},
        {"no interface index", 7, 1, 0, 0, 0, NO_IFINDEX, TBDL_E_FAILED},
        {"index cannot be destroyed", 8, 2, 0, 0, 0, DESTROY_FAILS, TBDL_E_MODE_NOTSUPPORT},
        {"no memory: released without the message", 9, 1, 0, 0, 0, ALLOC_FAILS, TBDL_E_NOMEM},
    };
    Init(1, 0, 0);
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        fake::ClearFailures();
        TBDL_INTF_SetSystemBoot(r.boot);
        TBDL_DBM_BND_S rec = Rec(r.num, r.mode, r.stored);
        u32 ifIndex = BndIf(r.num);
        fake::FindInterface(ifIndex)->vrf = r.current;
        Mark();
        if (r.fault == NO_IFINDEX) {
            fake::FailAlways("IF_GetIfIndexByFullName", 0);
        }
        if (r.fault == DESTROY_FAILS) {
            fake::FailOnce("IF_DeleteIf", 0);
        }
        TBDL_BAS_SetAllocFault(0, r.fault == ALLOC_FAILS);
        EXPECT_EQ(TBDL_BND_RecoverBnd(&rec), r.expect);
        TBDL_BAS_SetAllocFault(0, 0);
        EXPECT_EQ(fake::CountOf("L3VPN_GetVrfIndexByIfIndex"), (r.boot || r.fault == NO_IFINDEX) ? 0u : 1u);
        std::string num = std::to_string(r.num);
        EXPECT_EQ(Logged("ERROR Failed to recover tunnel bundle interface (" + num + ") from DBM.\r\n"),
                  r.expect != TBDL_OK && r.fault != ALLOC_FAILS);
        EXPECT_EQ(Logged("ERROR Failed to destroy ifindex for tunnel bundle interface (" + num + ").\r\n"),
                  r.fault == DESTROY_FAILS);
        if (r.expect == TBDL_OK) {
            /* Restored down, without members, as stored, and silently: no callback, KTBDL, HA or database. */
            TBDL_BND_INFO_S info = Snap(r.num);
            EXPECT_EQ(memcmp(&info.stAddr, &rec.stAddr, sizeof(rec.stAddr)), 0);
            EXPECT_EQ(std::make_tuple(info.uiIfIndex, info.ucMode, info.ucTnlMode, info.ucState, info.usVrfIndex),
                      std::make_tuple(ifIndex, r.mode, u8(3), u8(0), r.stored));
            EXPECT_TRUE(Members(r.num).empty());
            EXPECT_TRUE(g_trace.empty());
            continue;
        }
        if (r.num < 1024) {
            EXPECT_EQ(g_stTbdlGlobalVar.ppstBnd[r.num], nullptr);
        }
        EXPECT_EQ(g_trace, (Trace{"DB-" + num}));
        std::vector<std::string> want = {"IF_DeleteIf", "DBM_RemoveSortList"};
        if (r.fault == NO_IFINDEX) {
            want.erase(want.begin());
        } else {
            auto del = fake::CallsOf("IF_DeleteIf").at(0);
            EXPECT_EQ(del.args.at(0), 1u);
            u32 key[2] = {ifIndex, 0};
            EXPECT_EQ(del.data, fake::Bytes((uint8_t *)key, (uint8_t *)key + 8));
        }
        EXPECT_EQ(fake::Names({"IF_DeleteIf", "DBM_RemoveSortList"}), want);
    }
    EXPECT_EQ(g_stTbdlGlobalVar.uiBndCnt, 3u);
}

} // namespace
