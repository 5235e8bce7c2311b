/* Rebuilding bundles from stored records. */
#include "plat_if.h"
#include "bnd_fixture.h"

using namespace bndtest;

namespace {

class BndRecover : public BndTest {
protected:
    static TBDL_DBM_BND_S Rec(u32 num, u8 mode, u16 vrf = 0)
    {
        TBDL_DBM_BND_S r{};
        r.stAddr.usFamily = 2;
        r.stAddr.aucCarried[1] = 0x5a;
        r.stAddr.aucAddr[0] = 10;
        r.stAddr.aucAddr[3] = 9;
        r.uiBndNum = num;
        r.ucMode = mode;
        r.ucTnlMode = 3;
        r.usVrfIndex = vrf;
        return r;
    }
    static u32 BndIf(u32 num)
    {
        return IF_GetIfIndexByFullName(("Tunnel-Bundle" + std::to_string(num)).c_str());
    }
    static std::string RecoverFailed(u32 num)
    {
        return "ERROR Failed to recover tunnel bundle interface (" + std::to_string(num) + ") from DBM.\r\n";
    }
    /* The record was discarded: interface index destroyed, stored record
     * deleted, in that order. */
    static void ExpectDiscarded(u32 num, u32 ifIndex)
    {
        EXPECT_EQ(fake::Names({"IF_DeleteIf", "DBM_RemoveSortList"}),
                  (std::vector<std::string>{"IF_DeleteIf", "DBM_RemoveSortList"}));
        auto del = fake::CallsOf("IF_DeleteIf").at(0);
        EXPECT_EQ(del.args.at(0), 1u);
        u32 key[2] = {ifIndex, 0};
        EXPECT_EQ(del.data, std::vector<uint8_t>((uint8_t *)key, (uint8_t *)key + 8));
        EXPECT_EQ(BeWord(fake::CallsOf("DBM_RemoveSortList").at(0).rec, 20), num);
    }
};

TEST_F(BndRecover, RestoresDownBundleWithoutSendingAnything)
{
    Init();
    TBDL_DBM_BND_S r = Rec(12, 2);
    u32 ifIndex = BndIf(12);
    Mark();
    EXPECT_EQ(TBDL_BND_RecoverBnd(&r), TBDL_OK);
    EXPECT_TRUE(g_trace.empty());
    EXPECT_EQ(fake::CountOf("DBM_InsertSortList") + fake::CountOf("DBM_RemoveSortList"), 0u);

    std::vector<TBDL_MEMB_INFO_S> m;
    TBDL_BND_INFO_S info = Snap(12, &m);
    EXPECT_EQ(memcmp(&info.stAddr, &r.stAddr, sizeof(r.stAddr)), 0);
    EXPECT_EQ(info.uiIfIndex, ifIndex);
    EXPECT_EQ(info.ucMode, 2);
    EXPECT_EQ(info.ucTnlMode, 3);
    EXPECT_EQ(info.ucState, 0);
    EXPECT_TRUE(m.empty());
    EXPECT_EQ(g_stTbdlGlobalVar.uiBndCnt, 1u);

    /* KTBDL hears of it at the refresh. */
    TBDL_BND_RefreshBnd();
    EXPECT_EQ(g_trace, (Trace{"HA1", "HAF", "K7c0002"}));
    TBDL_KBND_S kb = LastKbnd();
    EXPECT_EQ(memcmp(&kb.stAddr, &r.stAddr, sizeof(r.stAddr)), 0);

    /* A second record for a bundle already in the table leaves it alone. */
    Mark();
    TBDL_DBM_BND_S again = Rec(12, 4);
    EXPECT_NE(TBDL_BND_RecoverBnd(&again), TBDL_OK);
    EXPECT_EQ(Snap(12).ucMode, 2);
    EXPECT_EQ(g_stTbdlGlobalVar.uiBndCnt, 1u);
    EXPECT_EQ(fake::CountOf("IF_DeleteIf") + fake::CountOf("DBM_RemoveSortList"), 0u);
}

TEST_F(BndRecover, UnsupportedModeIsDiscarded)
{
    Init(1, 0, 0);
    TBDL_DBM_BND_S r = Rec(3, 2);
    u32 ifIndex = BndIf(3);
    Mark();
    EXPECT_EQ(TBDL_BND_RecoverBnd(&r), TBDL_E_MODE_NOTSUPPORT);
    ExpectDiscarded(3, ifIndex);
    EXPECT_TRUE(Logged(RecoverFailed(3)));
    EXPECT_EQ(g_stTbdlGlobalVar.ppstBnd[3], nullptr);
    EXPECT_EQ(g_stTbdlGlobalVar.uiBndCnt, 0u);
}

TEST_F(BndRecover, FailedChecksAddUp)
{
    Init(1, 0, 0, 1024);
    TBDL_DBM_BND_S r = Rec(2000, 4);
    u32 ifIndex = BndIf(2000);
    Mark();
    EXPECT_EQ(TBDL_BND_RecoverBnd(&r), 0x85150012u);
    ExpectDiscarded(2000, ifIndex);
    EXPECT_TRUE(Logged(RecoverFailed(2000)));
}

struct VrfRow {
    const char *what;
    u16 boot;
    u16 stored;
    u16 current; /* what L3VPN reports for the bundle interface */
    u32 expect;
};

TEST_F(BndRecover, VrfComparedUnlessSystemBoot)
{
    const VrfRow rows[] = {
        {"boot takes the stored VRF", 1, 7, 3, TBDL_OK},
        {"restart, VRF moved", 0, 7, 3, TBDL_E_FAILED},
        {"restart, VRF lost", 0, 7, 0, TBDL_E_FAILED},
        {"restart, same VRF", 0, 7, 7, TBDL_OK},
        {"restart, no VRF on either side", 0, 0, 0, TBDL_OK},
    };
    u32 num = 0;
    for (const VrfRow &r : rows) {
        SCOPED_TRACE(r.what);
        Init();
        TBDL_INTF_SetSystemBoot(r.boot);
        TBDL_DBM_BND_S rec = Rec(++num, 1, r.stored);
        u32 ifIndex = BndIf(num);
        fake::SetVrf(ifIndex, r.current);
        Mark();
        EXPECT_EQ(TBDL_BND_RecoverBnd(&rec), r.expect);
        EXPECT_EQ(fake::CountOf("L3VPN_GetVrfIndexByIfIndex"), r.boot ? 0u : 1u);
        if (r.expect == TBDL_OK) {
            EXPECT_EQ(Snap(num).usVrfIndex, r.stored);
        } else {
            ExpectDiscarded(num, ifIndex);
            EXPECT_TRUE(Logged(RecoverFailed(num)));
        }
        TBDL_BND_ClearRunning();
        TBDL_BND_Fini();
    }
}

TEST_F(BndRecover, NoInterfaceIndex)
{
    Init();
    TBDL_DBM_BND_S r = Rec(4, 1);
    fake::FailAlways("IF_GetIfIndexByFullName", 0);
    EXPECT_EQ(TBDL_BND_RecoverBnd(&r), TBDL_E_FAILED);
    EXPECT_EQ(fake::CountOf("IF_DeleteIf"), 0u);
    EXPECT_EQ(fake::CountOf("L3VPN_GetVrfIndexByIfIndex"), 0u);
    EXPECT_EQ(fake::CountOf("DBM_RemoveSortList"), 1u);
    EXPECT_TRUE(Logged(RecoverFailed(4)));
}

TEST_F(BndRecover, DestroyFailureIsReported)
{
    Init(1, 0, 0);
    TBDL_DBM_BND_S r = Rec(4, 2);
    fake::FailOnce("IF_DeleteIf", 0);
    EXPECT_EQ(TBDL_BND_RecoverBnd(&r), TBDL_E_MODE_NOTSUPPORT);
    EXPECT_TRUE(Logged("ERROR Failed to destroy ifindex for tunnel bundle interface (4).\r\n"));
    EXPECT_EQ(fake::CountOf("DBM_RemoveSortList"), 1u);
    EXPECT_TRUE(Logged(RecoverFailed(4)));
}

TEST_F(BndRecover, AllocationFailureReleasesWithoutRecoveryMessage)
{
    Init();
    TBDL_DBM_BND_S r = Rec(6, 1);
    u32 ifIndex = BndIf(6);
    Mark();
    TBDL_BAS_SetAllocFault(0, 1);
    EXPECT_EQ(TBDL_BND_RecoverBnd(&r), TBDL_E_NOMEM);
    TBDL_BAS_SetAllocFault(0, 0);
    ExpectDiscarded(6, ifIndex);
    EXPECT_FALSE(Logged(RecoverFailed(6)));
    EXPECT_EQ(g_stTbdlGlobalVar.ppstBnd[6], nullptr);
    EXPECT_EQ(g_stTbdlGlobalVar.uiBndCnt, 0u);
}

} // namespace
