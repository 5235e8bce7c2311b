/* Member binding: binds, weight updates and refusals, unbinding, removal
 * of a bundle's memberships, recovery of stored members, life cycle. */
#include <arpa/inet.h>

#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_platform.h"
#include "intf/tbdl_intf_priv.h"
#include "tbdl_bas.h"
#include "tbdl_bnd.h"
#include "tbdl_dbm.h"

namespace {

fake::Bytes MembKey(u32 uiBndNum)
{
    return {0x02, static_cast<uint8_t>(uiBndNum >> 24), static_cast<uint8_t>(uiBndNum >> 16),
            static_cast<uint8_t>(uiBndNum >> 8), static_cast<uint8_t>(uiBndNum)};
}

/* Stored (big-endian) form of a member record. */
fake::Bytes StoredMemb(u32 uiTnl, u16 usWeight, u8 ucRole, u16 usVrf)
{
    return {static_cast<uint8_t>(uiTnl >> 24), static_cast<uint8_t>(uiTnl >> 16),
            static_cast<uint8_t>(uiTnl >> 8),  static_cast<uint8_t>(uiTnl),
            static_cast<uint8_t>(usWeight >> 8), static_cast<uint8_t>(usWeight),
            ucRole, 0, static_cast<uint8_t>(usVrf >> 8), static_cast<uint8_t>(usVrf), 0, 0};
}

std::vector<fake::Bytes> StoredMembers(u32 uiBndNum)
{
    auto it = fake::Db().find(MembKey(uiBndNum));
    return it == fake::Db().end() ? std::vector<fake::Bytes>{} : it->second;
}

class IntfTest : public ::testing::Test {
protected:
    void SetUp() override { Start(); }
    void TearDown() override { Stop(); }

    void Start()
    {
        fake::Reset();
        ASSERT_EQ(TBDL_DBM_Init(), 0u);
        TBDL_SPEC_S stSpec = {1024, 8, 1, 1, 1};
        ASSERT_EQ(TBDL_BND_Init(&stSpec, nullptr, -1), 0u);
        ASSERT_EQ(TBDL_INTF_Init(-1), 0u);
    }

    void Stop()
    {
        TBDL_BAS_SetAllocFault(0, 0);
        TBDL_INTF_Fini();
        TBDL_BND_ClearRunning();
        TBDL_BND_Fini();
        TBDL_DBM_Fini();
    }

    /* Puts a bundle into the table with the given VRF. */
    static void MakeBnd(u32 uiBndNum, u8 ucMode, u16 usVrf, u8 ucTnlMode = 0)
    {
        TBDL_DBM_BND_S stRec;
        std::memset(&stRec, 0, sizeof(stRec));
        stRec.uiBndNum = uiBndNum;
        stRec.ucMode = ucMode;
        stRec.ucTnlMode = ucTnlMode;
        stRec.usVrfIndex = usVrf;
        TBDL_INTF_SetSystemBoot(1);
        ASSERT_EQ(TBDL_BND_RecoverBnd(&stRec), 0u);
        TBDL_INTF_SetSystemBoot(0);
    }

    /* A bind request as the configuration channel hands it over. */
    static u32 Bind(u32 uiBndNum, u32 uiTnl, u16 usWeight = 1, u8 ucRole = 0,
                    TBDL_CFG_OPER_DATA_S *pstArea = nullptr)
    {
        TBDL_CFG_OPER_DATA_S stLocal;
        TBDL_CFG_OPER_DATA_S *pst = pstArea != nullptr ? pstArea : &stLocal;
        std::memset(pst, 0, sizeof(*pst));
        TBDL_MEMB_CFG_S stCfg = {uiTnl, usWeight, ucRole, 0, 0, 0};
        std::memcpy(pst->aucData, &stCfg, sizeof(stCfg));
        TBDL_CFG_KEY_S stKey = {uiBndNum};
        return TBDL_INTF_Configure(0, &stKey, TBDL_TLV_OP_MEMB, pst);
    }

    static u32 Unbind(u32 uiBndNum, u32 uiTnl)
    {
        TBDL_CFG_OPER_DATA_S stArea;
        std::memset(&stArea, 0, sizeof(stArea));
        TBDL_MEMB_CFG_S stCfg = {uiTnl, 0, 0, 0, 0, 0};
        std::memcpy(stArea.aucData, &stCfg, sizeof(stCfg));
        TBDL_CFG_KEY_S stKey = {uiBndNum};
        return TBDL_INTF_Configure(1, &stKey, TBDL_TLV_OP_MEMB, &stArea);
    }

    static std::optional<TBDL_INTF_PD_S> Pd(u32 uiIfIndex)
    {
        auto it = fake::PrivateData().find(uiIfIndex);
        if (it == fake::PrivateData().end()) {
            return std::nullopt;
        }
        return *static_cast<TBDL_INTF_PD_S *>(it->second);
    }

    /* Bundle members as the table lists them. */
    static std::vector<TBDL_MEMB_INFO_S> Members(u32 uiBndNum)
    {
        std::vector<TBDL_MEMB_INFO_S> vec(TBDL_SNAPSHOT_MEMB_MAX);
        TBDL_BND_INFO_S stInfo;
        std::memset(&stInfo, 0, sizeof(stInfo));
        stInfo.pstMembInfo = vec.data();
        if (TBDL_BND_GetBndInfo(uiBndNum, &stInfo) != 0) {
            return {};
        }
        vec.resize(stInfo.usMembNum);
        return vec;
    }

    /* Which bundle each private-data entry names. */
    static std::map<u32, u32> PdMap()
    {
        std::map<u32, u32> map;
        for (auto &kv : fake::PrivateData()) {
            map[kv.first] = static_cast<TBDL_INTF_PD_S *>(kv.second)->uiBndNum;
        }
        return map;
    }
};

TEST_F(IntfTest, BindRecordsMembershipStoresMemberAndWritesVrfBack)
{
    MakeBnd(3, TBDL_MODE_LOADBALANCING, 5);
    u32 uiIf = fake::AddTunnel(7, 0, /*state*/ 1, /*vrf*/ 5);
    fake::ClearJournal();

    TBDL_CFG_OPER_DATA_S stArea;
    ASSERT_EQ(Bind(3, 7, 10, 0, &stArea), 0u);

    auto names = fake::CallsOf("IF_GetIfIndexByFullName");
    ASSERT_FALSE(names.empty());
    EXPECT_EQ(names[0].text, "Tunnel7");

    TBDL_MEMB_CFG_S stCfg;
    std::memcpy(&stCfg, stArea.aucData, sizeof(stCfg));
    EXPECT_EQ(stCfg.usVrfIndex, 5) << "the handler adds the VRF into the operation data";

    auto pd = Pd(uiIf);
    ASSERT_TRUE(pd.has_value());
    EXPECT_EQ(pd->uiBndNum, 3u);
    EXPECT_EQ(pd->usVrfIndex, 5);
    EXPECT_EQ(pd->cVrfMark, 0);

    auto memb = Members(3);
    ASSERT_EQ(memb.size(), 1u);
    EXPECT_EQ(memb[0].uiIfIndex, uiIf);
    EXPECT_EQ(memb[0].usWeight, 10);
    EXPECT_EQ(memb[0].ucState, 1) << "initial state from interface data item 31";

    EXPECT_EQ(StoredMembers(3), std::vector<fake::Bytes>{StoredMemb(7, 10, 0, 5)});
}

TEST_F(IntfTest, NewPrivateDataTakesCurrentBatchMarkAndDownState)
{
    MakeBnd(3, TBDL_MODE_LOADBALANCING, 0);
    u32 uiIf = fake::AddTunnel(7, 0, /*state*/ 0x100, 0);
    g_stIntfGlobalVar.cVrfMark = 42;
    ASSERT_EQ(Bind(3, 7), 0u);
    EXPECT_EQ(Pd(uiIf)->cVrfMark, 42);
    EXPECT_EQ(Members(3)[0].ucState, 0) << "only the low byte of data item 31 counts";
}

/* Every refused bind leaves private data, stored members and the kernel
 * table as they were. */
TEST_F(IntfTest, RefusedBindsLeaveNoTrace)
{
    struct Case {
        const char *pcWhat;
        u32 uiBndNum;
        u32 uiTnl;
        u8 ucRole;
        u32 uiExpect;
    };
    const Case astCases[] = {
        {"member of bundle 3, same VRF, bind to 5", 5, 1, 0, TBDL_E_MEMB_IN_OTHER_BND},
        {"member of bundle 3, now other VRF, bind to 6 (VRF test first)", 6, 4, 0,
         TBDL_E_VRF_MISMATCH},
        {"bundle 9 does not exist", 9, 2, 0, TBDL_E_NOTEXIST},
        {"bundle number out of range", 5000, 2, 0, TBDL_E_NOTEXIST},
        {"interface VRF differs from the bundle's", 6, 3, 0, TBDL_E_VRF_MISMATCH},
        {"no interface Tunnel99", 3, 99, 0, TBDL_E_FAILED},
        {"bundle table refuses the role", 5, 2, 1, TBDL_E_MEMB_ROLE},
        {"bundle table refuses the tunnel mode", 5, 6, 0, TBDL_E_TNL_MODE_MISMATCH},
    };

    for (const Case &c : astCases) {
        SCOPED_TRACE(c.pcWhat);
        Stop();
        Start();
        MakeBnd(3, TBDL_MODE_LOADBALANCING, 5);
        MakeBnd(5, TBDL_MODE_LOADBALANCING, 5);
        MakeBnd(6, TBDL_MODE_LOADBALANCING, 0);
        u32 uiIf1 = fake::AddTunnel(1, 0, 1, 5);
        fake::AddTunnel(2, 0, 1, 5);
        fake::AddTunnel(3, 0, 1, 7);
        u32 uiIf4 = fake::AddTunnel(4, 0, 1, 5);
        fake::AddTunnel(6, /*tnlMode*/ 3, 1, 5);
        ASSERT_EQ(Bind(3, 1), 0u);
        ASSERT_EQ(Bind(3, 4), 0u);
        fake::SetVrf(uiIf4, 0);

        auto pdBefore = PdMap();
        auto dbBefore = fake::Db();
        auto kBefore = fake::Ktbdl();

        EXPECT_EQ(Bind(c.uiBndNum, c.uiTnl, 1, c.ucRole), c.uiExpect);
        EXPECT_EQ(PdMap(), pdBefore);
        EXPECT_EQ(fake::Db(), dbBefore);
        EXPECT_EQ(fake::Ktbdl().size(), kBefore.size());
        for (auto &kv : kBefore) {
            EXPECT_EQ(fake::Ktbdl()[kv.first].members, kv.second.members);
        }
        EXPECT_EQ(Pd(uiIf1)->uiBndNum, 3u);
    }
}

TEST_F(IntfTest, InterfaceRefusedByBundleTableCanJoinAnotherBundle)
{
    MakeBnd(3, TBDL_MODE_ONETOONE, 0);
    MakeBnd(4, TBDL_MODE_LOADBALANCING, 0);
    fake::AddTunnel(1);
    fake::AddTunnel(2);
    u32 uiIf3 = fake::AddTunnel(3);
    ASSERT_EQ(Bind(3, 1, 1, 0), 0u);
    ASSERT_EQ(Bind(3, 2, 1, 1), 0u);
    EXPECT_EQ(Bind(3, 3, 1, 2), TBDL_E_MEMB_FULL);
    EXPECT_FALSE(Pd(uiIf3).has_value());
    EXPECT_EQ(Bind(4, 3), 0u);
    EXPECT_EQ(Pd(uiIf3)->uiBndNum, 4u);
}

TEST_F(IntfTest, RebindIsWeightUpdateOnlyInLoadBalancing)
{
    MakeBnd(3, TBDL_MODE_LOADBALANCING, 0);
    MakeBnd(4, TBDL_MODE_ONETOONE, 0);
    u32 uiIf1 = fake::AddTunnel(1);
    fake::AddTunnel(2);
    ASSERT_EQ(Bind(3, 1, 10), 0u);
    ASSERT_EQ(Bind(4, 2, 10), 0u);

    EXPECT_EQ(Bind(3, 1, 20), 0u);
    EXPECT_EQ(Members(3)[0].usWeight, 20);
    EXPECT_EQ(StoredMembers(3), std::vector<fake::Bytes>{StoredMemb(1, 20, 0, 0)});

    fake::ClearJournal();
    EXPECT_EQ(Bind(3, 1, 20), TBDL_E_NOCHANGE);
    EXPECT_EQ(Bind(4, 2, 30), TBDL_E_NOCHANGE);
    EXPECT_EQ(StoredMembers(4), std::vector<fake::Bytes>{StoredMemb(2, 10, 0, 0)});
    EXPECT_EQ(fake::CountOf("DBM_InsertSortList"), 0u);
    EXPECT_EQ(fake::CountOf("IF_DelPrivateData"), 0u) << "a refused weight update keeps the membership";
    EXPECT_EQ(Pd(uiIf1)->uiBndNum, 3u);
}

TEST_F(IntfTest, StoreRefusalAndAllocationFailureLeaveNothingBehind)
{
    MakeBnd(3, TBDL_MODE_LOADBALANCING, 0);
    u32 uiIf = fake::AddTunnel(1);

    fake::FailOnce("IF_SetPrivateData", 0x77);
    EXPECT_EQ(Bind(3, 1), 0x77u); /* the refused record is freed (leak check) */

    TBDL_BAS_SetAllocFault(0, 1);
    EXPECT_EQ(Bind(3, 1), TBDL_E_NOMEM);
    TBDL_BAS_SetAllocFault(0, 0);

    EXPECT_FALSE(Pd(uiIf).has_value());
    EXPECT_TRUE(Members(3).empty());
    EXPECT_TRUE(StoredMembers(3).empty());
}

TEST_F(IntfTest, UnbindAnswersZeroAndOnlyTouchesRealMembers)
{
    MakeBnd(3, TBDL_MODE_LOADBALANCING, 0);
    u32 uiIf1 = fake::AddTunnel(1);
    u32 uiIf2 = fake::AddTunnel(2);
    fake::AddTunnel(5);
    ASSERT_EQ(Bind(3, 1), 0u);
    ASSERT_EQ(Bind(3, 2), 0u);

    fake::ClearJournal();
    EXPECT_EQ(Unbind(3, 7), 0u) << "no interface Tunnel7";
    EXPECT_EQ(Unbind(3, 5), 0u) << "Tunnel5 is not a member";
    EXPECT_EQ(fake::CountOf("IF_DelPrivateData"), 0u);
    EXPECT_EQ(fake::CountOf("DBM_RemoveSortList"), 0u);
    EXPECT_EQ(fake::CountOf("CIOCTL"), 0u);
    EXPECT_EQ(StoredMembers(3).size(), 2u);

    EXPECT_EQ(Unbind(3, 1), 0u);
    EXPECT_FALSE(Pd(uiIf1).has_value());
    EXPECT_TRUE(Pd(uiIf2).has_value());
    ASSERT_EQ(Members(3).size(), 1u);
    EXPECT_EQ(Members(3)[0].uiIfIndex, uiIf2);
    EXPECT_EQ(StoredMembers(3), std::vector<fake::Bytes>{StoredMemb(2, 1, 0, 0)});
}

TEST_F(IntfTest, BundleRemovalDropsItsMembershipsAndMemberRecords)
{
    MakeBnd(3, TBDL_MODE_LOADBALANCING, 0);
    MakeBnd(4, TBDL_MODE_LOADBALANCING, 0);
    fake::AddTunnel(1);
    fake::AddTunnel(2);
    u32 uiIf3 = fake::AddTunnel(3);
    ASSERT_EQ(Bind(3, 1), 0u);
    ASSERT_EQ(Bind(3, 2), 0u);
    ASSERT_EQ(Bind(4, 3), 0u);

    TBDL_CFG_KEY_S stKey = {3};
    EXPECT_EQ(TBDL_INTF_Configure(1, &stKey, TBDL_TLV_OP_BND, nullptr), 0u);

    EXPECT_EQ(PdMap(), (std::map<u32, u32>{{uiIf3, 4}}));
    EXPECT_EQ(fake::Db().count(MembKey(3)), 0u);
    EXPECT_EQ(StoredMembers(4).size(), 1u);
    EXPECT_EQ(Members(3).size(), 2u) << "the bundle table removes the bundle itself afterwards";

    /* The other undo requests of bundles: no member record, or not ours. */
    EXPECT_EQ(TBDL_INTF_Configure(1, &stKey, TBDL_TLV_OP_MEMB, nullptr), 0u);
    EXPECT_EQ(TBDL_INTF_Configure(1, &stKey, TBDL_TLV_OP_ADDR, nullptr), TBDL_E_NOTSUPPORT);
    /* Removal of a bundle that does not exist answers 0 as well. */
    stKey.uiBndNum = 9;
    EXPECT_EQ(TBDL_INTF_Configure(1, &stKey, TBDL_TLV_OP_BND, nullptr), 0u);
}

TEST_F(IntfTest, RecoveryOfStoredMembers)
{
    struct Case {
        const char *pcWhat;
        bool bInterface;   /* Tunnel7 exists */
        u16 usIfVrf;       /* its current VRF */
        u16 usBoot;        /* system-boot flag during recovery */
        u32 uiBndNum;      /* bundle the record is stored under */
        u32 uiExpect;
        bool bRecordKept;
        bool bBound;
    };
    const Case astCases[] = {
        {"interface missing: record kept, nothing bound", false, 5, 0, 3, 0, true, false},
        {"same VRF after restart: bound", true, 5, 0, 3, 0, true, true},
        {"VRF moved after restart: record dropped", true, 9, 0, 3, TBDL_E_FAILED, false, false},
        {"system boot: stored VRF used as it is", true, 9, 1, 3, 0, true, true},
        {"bundle gone: record dropped", true, 5, 0, 8, TBDL_E_NOTEXIST, false, false},
    };

    for (const Case &c : astCases) {
        SCOPED_TRACE(c.pcWhat);
        Stop();
        Start();
        MakeBnd(3, TBDL_MODE_LOADBALANCING, 5);
        u32 uiIf = c.bInterface ? fake::AddTunnel(7, 0, 1, c.usIfVrf) : 0;
        fake::DbPut(MembKey(c.uiBndNum), 0, StoredMemb(7, 4, 0, 5));
        fake::ClearJournal();

        TBDL_MEMB_CFG_S stStored = {7, 4, 0, 0, 5, 0};
        TBDL_INTF_SetSystemBoot(c.usBoot);
        EXPECT_EQ(TBDL_INTF_RecoverMemb(c.uiBndNum, &stStored), c.uiExpect);
        TBDL_INTF_SetSystemBoot(0);

        EXPECT_EQ(StoredMembers(c.uiBndNum).size(), c.bRecordKept ? 1u : 0u);
        EXPECT_EQ(fake::PrivateData().size(), c.bBound ? 1u : 0u);
        EXPECT_EQ(Members(3).size(), c.bBound ? 1u : 0u);
        if (c.bBound) {
            EXPECT_EQ(Pd(uiIf)->usVrfIndex, 5);
            EXPECT_EQ(StoredMembers(3), std::vector<fake::Bytes>{StoredMemb(7, 4, 0, 5)});
        }
        if (c.usBoot != 0) {
            EXPECT_EQ(fake::CountOf("L3VPN_GetVrfIndexByIfIndex"), 0u);
        }
    }
}

TEST_F(IntfTest, LifeCycleOfThePrivateDataInstance)
{
    Stop();
    fake::Reset();
    fake::FailOnce("IF_CreatePDInstance", ~0ull);
    EXPECT_EQ(TBDL_INTF_Init(11), TBDL_E_NOMEM);
    EXPECT_EQ(g_stIntfGlobalVar.ulPdInstance, ~0ull);
    EXPECT_EQ(g_stIntfGlobalVar.iEpollFd, 11);
    TBDL_INTF_Fini();
    EXPECT_EQ(fake::CountOf("IF_DestroyPDInstance"), 0u);

    auto c = fake::CallsOf("IF_CreatePDInstance").at(0);
    EXPECT_EQ(c.args, (std::vector<uint64_t>{2, 0, ~0ull, 0xFFFFFFFFull}));

    /* Fini with live members: the store frees them (leak check). */
    Start();
    MakeBnd(3, TBDL_MODE_LOADBALANCING, 0);
    fake::AddTunnel(1);
    ASSERT_EQ(Bind(3, 1), 0u);
    TBDL_INTF_SetSystemBoot(1);
    TBDL_INTF_Fini();
    EXPECT_EQ(fake::CountOf("IF_DestroyPDInstance"), 1u);
    EXPECT_EQ(g_stIntfGlobalVar.ulPdInstance, ~0ull);
    EXPECT_EQ(g_stIntfGlobalVar.iEpollFd, -1);
    EXPECT_EQ(TBDL_INTF_IsSystemBoot(), 0);
    ASSERT_EQ(TBDL_INTF_Init(-1), 0u);
}

TEST_F(IntfTest, DeactivationDropsEveryMembershipAndActivationClearsBoot)
{
    MakeBnd(3, TBDL_MODE_LOADBALANCING, 0);
    MakeBnd(4, TBDL_MODE_LOADBALANCING, 0);
    fake::AddTunnel(1);
    fake::AddTunnel(2);
    fake::AddTunnel(3);
    ASSERT_EQ(Bind(3, 1), 0u);
    ASSERT_EQ(Bind(3, 2), 0u);
    ASSERT_EQ(Bind(4, 3), 0u);

    TBDL_INTF_Deactivate();
    EXPECT_TRUE(fake::PrivateData().empty());
    EXPECT_EQ(Members(3).size(), 2u) << "the bundle table is cleared by its own step";
    EXPECT_EQ(StoredMembers(3).size(), 2u) << "stored configuration survives deactivation";

    TBDL_INTF_SetSystemBoot(1);
    EXPECT_EQ(TBDL_INTF_Activate(), 0u);
    EXPECT_EQ(TBDL_INTF_IsSystemBoot(), 0);
}

} // namespace
