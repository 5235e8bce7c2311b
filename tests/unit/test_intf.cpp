/* Member binding: binds, weight updates and refusals, unbinding, removal
 * of a bundle's memberships, recovery of stored members, life cycle. */
#include <map>

#include "bnd_fixture.h"
#include "intf/tbdl_intf_priv.h"

using namespace bndtest;

namespace {

/* Stored (big-endian) form of a member record. */
Bytes StoredMemb(u32 tnl, u16 weight, u8 role, u16 vrf)
{
    return Cat({Be32(tnl), {uint8_t(weight >> 8), uint8_t(weight), role, 0, uint8_t(vrf >> 8), uint8_t(vrf), 0, 0}});
}

std::vector<Bytes> StoredMembers(u32 num)
{
    auto it = fake::Db().find(MembKey(num));
    return it == fake::Db().end() ? std::vector<Bytes>{} : it->second;
}

class IntfTest : public BndTest {
protected:
    void SetUp() override
    {
        BndTest::SetUp();
        Init();
        ASSERT_EQ(TBDL_INTF_Init(epfd), 0u);
    }
    void TearDown() override
    {
        TBDL_INTF_Fini();
        BndTest::TearDown();
    }

    static void MakeBnd(u32 num, u8 mode, u16 vrf, u8 tnlMode = 0)
    {
        ASSERT_EQ(Create(num, mode, tnlMode), TBDL_OK);
        g_stTbdlGlobalVar.ppstBnd[num]->usVrfIndex = vrf;
    }

    /* A member request as the configuration channel hands it over; any
     * other operation is the dispatcher's call ahead of a bundle's undo. */
    static u32 Memb(u16 undo, u32 num, u32 tnl, u16 weight = 1, u8 role = 0, u16 op = TBDL_TLV_OP_MEMB)
    {
        TBDL_CFG_OPER_DATA_S area{};
        TBDL_MEMB_CFG_S cfg = {tnl, weight, role, 0, 0, 0};
        memcpy(area.aucData, &cfg, sizeof(cfg));
        TBDL_CFG_KEY_S key = {num};
        return TBDL_INTF_Configure(undo, &key, op, op == TBDL_TLV_OP_MEMB ? &area : nullptr);
    }
    static u32 BndUndo(u32 num, u16 op) { return Memb(1, num, 0, 0, 0, op); }
    static u32 Bind(u32 num, u32 tnl, u16 weight = 1, u8 role = 0) { return Memb(0, num, tnl, weight, role); }

    /* Which bundle each private-data entry names. */
    static std::map<u32, u32> PdMap()
    {
        std::map<u32, u32> map;
        for (auto &kv : fake::PrivateData()) {
            map[kv.first] = static_cast<TBDL_INTF_PD_S *>(kv.second)->uiBndNum;
        }
        return map;
    }
    static const TBDL_INTF_PD_S &Pd(u32 ifIndex) { return *(TBDL_INTF_PD_S *)fake::PrivateData().at(ifIndex); }
};

TEST_F(IntfTest, BindRecordsMembershipStoresMemberAndRebindUpdatesWeight)
{
    MakeBnd(3, TBDL_MODE_LOADBALANCING, 5);
    u32 if7 = fake::AddTunnel(7, 0, /*state*/ 1, /*vrf*/ 5);
    u32 if8 = fake::AddTunnel(8, 0, /*state*/ 0x100, /*vrf*/ 5);
    g_stIntfGlobalVar.cVrfMark = 42;
    Mark();
    ASSERT_EQ(Bind(3, 7, 10), 0u);
    EXPECT_EQ(fake::CallsOf("IF_GetIfIndexByFullName").at(0).text, "Tunnel7");
    const TBDL_INTF_PD_S &pd = Pd(if7);
    EXPECT_EQ(std::make_tuple(pd.uiBndNum, pd.usVrfIndex, pd.cVrfMark), std::make_tuple(3u, u16(5), i8(42)));
    EXPECT_EQ(StoredMembers(3), std::vector<Bytes>{StoredMemb(7, 10, 0, 5)});

    ASSERT_EQ(Bind(3, 8, 20), 0u);
    auto m = Members(3);
    ASSERT_EQ(m.size(), 2u);
    EXPECT_EQ(std::make_tuple(m[1].uiIfIndex, m[1].usWeight, m[1].ucState), std::make_tuple(if7, u16(10), u8(1)))
        << "initial state from interface data item 31";
    EXPECT_EQ(std::make_pair(m[0].uiIfIndex, m[0].ucState), std::make_pair(if8, u8(0))) << "only its low byte counts";

    EXPECT_EQ(Bind(3, 7, 30), 0u) << "weight update";
    EXPECT_EQ(Members(3)[1].usWeight, 30);
    EXPECT_EQ(StoredMembers(3), (std::vector<Bytes>{StoredMemb(7, 30, 0, 5), StoredMemb(8, 20, 0, 5)}));
}

/* Every refused bind leaves private data, stored members, the kernel and the standby as they were. */
TEST_F(IntfTest, RefusedBindsLeaveNoTrace)
{
    MakeBnd(3, TBDL_MODE_LOADBALANCING, 5);
    MakeBnd(4, TBDL_MODE_ONETOONE, 5);
    MakeBnd(5, TBDL_MODE_LOADBALANCING, 5);
    MakeBnd(6, TBDL_MODE_LOADBALANCING, 0);
    for (u32 tnl : {1u, 2u, 4u, 5u}) {
        fake::AddTunnel(tnl, 0, 1, 5);
    }
    fake::AddTunnel(3, 0, 1, 7);
    for (auto [bnd, tnl] : {std::pair{3u, 1u}, {3u, 4u}, {4u, 5u}}) {
        ASSERT_EQ(Bind(bnd, tnl), 0u);
    }
    fake::FindInterface("Tunnel4")->vrf = 0;
    const auto pdBefore = PdMap();
    const auto dbBefore = fake::Db();

    /* fail: the platform call that fails once, "alloc" for the allocator */
    const struct { const char *what; u32 num, tnl; u16 weight; u8 role; u32 expect; const char *fail; } cases[] = {
        {"member of bundle 3, same VRF, bind to 5", 5, 1, 1, 0, TBDL_E_MEMB_IN_OTHER_BND, nullptr},
        {"member of bundle 3, now other VRF, bind to 6 (VRF test first)", 6, 4, 1, 0, TBDL_E_VRF_MISMATCH, nullptr},
        {"bundle 9 does not exist", 9, 2, 1, 0, TBDL_E_NOTEXIST, nullptr},
        {"bundle number out of range", 5000, 2, 1, 0, TBDL_E_NOTEXIST, nullptr},
        {"interface VRF differs from the bundle's", 6, 3, 1, 0, TBDL_E_VRF_MISMATCH, nullptr},
        {"no interface Tunnel99", 3, 99, 1, 0, TBDL_E_FAILED, nullptr},
        {"bundle table refuses the role", 5, 2, 1, 1, TBDL_E_MEMB_ROLE, nullptr},
        {"rebind with the same weight", 3, 1, 1, 0, TBDL_E_NOCHANGE, nullptr},
        {"the store refuses the private data (freed: leak check)", 5, 2, 1, 0, 0x77, "IF_SetPrivateData"},
        {"no memory for the private data", 5, 2, 1, 0, TBDL_E_NOMEM, "alloc"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Mark();
        if (c.fail != nullptr && strcmp(c.fail, "alloc") != 0) {
            fake::FailOnce(c.fail, c.expect);
        }
        TBDL_BAS_SetAllocFault(0, c.fail != nullptr && strcmp(c.fail, "alloc") == 0);
        EXPECT_EQ(Bind(c.num, c.tnl, c.weight, c.role), c.expect);
        TBDL_BAS_SetAllocFault(0, 0);
        EXPECT_TRUE(g_trace.empty()) << "nothing sent or saved";
        EXPECT_EQ(PdMap(), pdBefore);
        EXPECT_EQ(fake::Db(), dbBefore);
    }
}

TEST_F(IntfTest, UnbindAndBundleRemoval)
{
    MakeBnd(3, TBDL_MODE_LOADBALANCING, 0);
    MakeBnd(4, TBDL_MODE_LOADBALANCING, 0);
    std::map<u32, u32> ifs;
    for (u32 tnl : {1u, 2u, 3u, 5u}) {
        ifs[tnl] = fake::AddTunnel(tnl);
        ASSERT_EQ(Bind(tnl == 5 ? 4 : 3, tnl), 0u);
    }
    Mark();
    EXPECT_EQ(Memb(1, 3, 7), 0u) << "no interface Tunnel7";
    EXPECT_EQ(Memb(1, 3, 5), 0u) << "Tunnel5 is not a member of 3";
    EXPECT_EQ(BndUndo(3, TBDL_TLV_OP_MEMB), 0u) << "no member record";
    EXPECT_EQ(std::make_tuple(g_trace, fake::CountOf("IF_DelPrivateData"), StoredMembers(3).size()),
              std::make_tuple(Trace{}, size_t(0), size_t(3)));

    EXPECT_EQ(Memb(1, 3, 1), 0u);
    EXPECT_EQ(PdMap(), (std::map<u32, u32>{{ifs[2], 3}, {ifs[3], 3}, {ifs[5], 4}}));
    EXPECT_EQ(StoredMembers(3), (std::vector<Bytes>{StoredMemb(2, 1, 0, 0), StoredMemb(3, 1, 0, 0)}));

    /* The undo of a bundle drops its memberships and member records; the
     * bundle table removes the members with the bundle afterwards. */
    EXPECT_EQ(BndUndo(3, TBDL_TLV_OP_BND), 0u);
    EXPECT_EQ(PdMap(), (std::map<u32, u32>{{ifs[5], 4}}));
    EXPECT_EQ(std::make_tuple(fake::Db().count(MembKey(3)), StoredMembers(4).size(), Members(3).size()),
              std::make_tuple(size_t(0), size_t(1), size_t(2)));
    EXPECT_EQ(BndUndo(3, TBDL_TLV_OP_ADDR), TBDL_E_NOTSUPPORT);
    EXPECT_EQ(BndUndo(9, TBDL_TLV_OP_BND), 0u) << "no such bundle";
}

TEST_F(IntfTest, RecoveryOfStoredMembers)
{
    /* Whether Tunnel7 exists, its current VRF, the boot flag, the bundle the record is stored under, result,
     * whether the record stays, whether the member is bound. */
    const struct { const char *what; bool intf; u16 ifVrf, boot; u32 num, expect; bool kept, bound; } cases[] = {
        {"interface missing: record kept, nothing bound", false, 5, 0, 3, 0, true, false},
        {"same VRF after restart: bound", true, 5, 0, 3, 0, true, true},
        {"VRF moved after restart: record dropped", true, 9, 0, 3, TBDL_E_FAILED, false, false},
        {"system boot: stored VRF used as it is", true, 9, 1, 3, 0, true, true},
        {"bundle gone: record dropped", true, 5, 0, 8, TBDL_E_NOTEXIST, false, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        TearDown();
        SetUp();
        MakeBnd(3, TBDL_MODE_LOADBALANCING, 5);
        u32 ifIndex = c.intf ? fake::AddTunnel(7, 0, 1, c.ifVrf) : 0;
        fake::DbPut(MembKey(c.num), 0, StoredMemb(7, 4, 0, 5));
        fake::ClearJournal();
        TBDL_MEMB_CFG_S stored = {7, 4, 0, 0, 5, 0};
        TBDL_INTF_SetSystemBoot(c.boot);
        EXPECT_EQ(TBDL_INTF_RecoverMemb(c.num, &stored), c.expect);
        TBDL_INTF_SetSystemBoot(0);
        EXPECT_EQ(std::make_tuple(StoredMembers(c.num).size(), PdMap().size(), Members(3).size()),
                  std::make_tuple(size_t(c.kept), size_t(c.bound), size_t(c.bound)));
        if (c.bound) {
            EXPECT_EQ(Pd(ifIndex).usVrfIndex, 5);
            EXPECT_EQ(StoredMembers(3), std::vector<Bytes>{StoredMemb(7, 4, 0, 5)});
        }
        if (c.boot != 0) {
            EXPECT_EQ(fake::CountOf("L3VPN_GetVrfIndexByIfIndex"), 0u);
        }
    }
}

TEST_F(IntfTest, LifeCycle)
{
    MakeBnd(3, TBDL_MODE_LOADBALANCING, 0);
    for (u32 tnl : {1u, 2u}) {
        fake::AddTunnel(tnl);
        ASSERT_EQ(Bind(3, tnl), 0u);
    }
    /* Deactivation drops every membership but not the stored configuration;
     * the bundle table is cleared by its own step. */
    TBDL_INTF_Deactivate();
    EXPECT_EQ(std::make_tuple(fake::PrivateData().size(), Members(3).size(), StoredMembers(3).size()),
              std::make_tuple(size_t(0), size_t(2), size_t(2)));
    TBDL_INTF_SetSystemBoot(1);
    EXPECT_EQ(TBDL_INTF_Activate(), 0u);
    EXPECT_EQ(TBDL_INTF_IsSystemBoot(), 0) << "activation clears the boot flag";

    /* Fini with a live member: the store frees it (leak check). */
    ASSERT_EQ(MembEv(3, TBDL_MEMB_EV_DEL, fake::FindInterface("Tunnel1")->ifIndex), TBDL_OK);
    ASSERT_EQ(Bind(3, 1), 0u);
    TBDL_INTF_SetSystemBoot(1);
    fake::ClearJournal();
    TBDL_INTF_Fini();
    EXPECT_EQ(fake::CountOf("IF_DestroyPDInstance"), 1u);
    EXPECT_EQ(TBDL_INTF_IsSystemBoot(), 0);

    fake::FailOnce("IF_CreatePDInstance", ~0ull);
    EXPECT_EQ(TBDL_INTF_Init(epfd), TBDL_E_NOMEM);
    EXPECT_EQ(fake::CallsOf("IF_CreatePDInstance").at(0).args, (std::vector<uint64_t>{2, 0, ~0ull, 0xFFFFFFFFull}));
    TBDL_INTF_Fini();
    EXPECT_EQ(fake::CountOf("IF_DestroyPDInstance"), 1u) << "no instance: nothing destroyed";
    ASSERT_EQ(TBDL_INTF_Init(epfd), 0u);
}

} // namespace
