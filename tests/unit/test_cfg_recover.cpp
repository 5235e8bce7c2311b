/* Replay of the stored configuration: stored bundles and members come back
 * from the platform database into the bundle table and the member module,
 * bundles first, in blocks, with the system-boot flag set only during a
 * boot's walk. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cfg/tbdl_cfg_priv.h"
#include "cfg_test_util.h"
#include "fake_platform.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"

using namespace cfgtest;
using ::testing::ElementsAre;

namespace {

const Bytes kBndKey = {1};

Bytes MembKey(uint32_t bnd)
{
    return Cat({Bytes{2}, Be32(bnd)});
}

/* A bundle record as stored: family, carried and address bytes, number,
 * mode, tunnel mode, VRF, all numbers big-endian. */
Bytes StoredBnd(uint32_t bnd, uint8_t mode = 1, uint16_t vrf = 0, uint16_t family = 0, uint8_t tnlMode = 0)
{
    Bytes addr = family ? Cat({Bytes{0xC1, 0xC2}, Bytes{192, 0, 2, static_cast<uint8_t>(bnd)}, Bytes(12, 0)})
                        : Bytes(18, 0);
    return Cat({Be16(family), addr, Be32(bnd), Bytes{mode, tnlMode, 0, 0}, Be16(vrf), Bytes{0, 0}});
}

Bytes StoredMemb(uint32_t tnl, uint16_t weight, uint8_t role = 0, uint16_t vrf = 0)
{
    return Cat({Be32(tnl), Be16(weight), Bytes{role, 0}, Be16(vrf), Bytes{0, 0}});
}

class CfgRecover : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        m_epfd = epoll_create1(0);
        TBDL_SPEC_S spec = {1024, 8, 1, 1, 1};
        ASSERT_EQ(TBDL_DBG_Init(), 0u);
        ASSERT_EQ(TBDL_DBM_Init(), 0u);
        ASSERT_EQ(TBDL_BND_Init(&spec, nullptr, m_epfd), 0u);
        ASSERT_EQ(TBDL_INTF_Init(m_epfd), 0u);
        /* Record the boot flag as each block is fetched. */
        fake::OnCall("DBM_BatchGetNextSortList",
                     [this](const fake::Call &) { m_bootDuringWalk.push_back(TBDL_INTF_IsSystemBoot()); });
    }

    void TearDown() override
    {
        TBDL_BND_ClearRunning();
        TBDL_INTF_Fini();
        TBDL_BND_Fini();
        TBDL_DBM_Fini();
        TBDL_DBG_Fini();
        close(m_epfd);
    }

    std::vector<int32_t> FetchResults()
    {
        std::vector<int32_t> out;
        for (const fake::Call &c : fake::CallsOf("DBM_BatchGetNextSortList")) {
            out.push_back(static_cast<int32_t>(c.result));
        }
        return out;
    }

    int m_epfd = -1;
    std::vector<u16> m_bootDuringWalk;
};

TEST_F(CfgRecover, EmptyDatabaseRestoresNothing)
{
    fake::Config().startCause = 0;
    TBDL_CFG_Recovery();
    TBDL_BND_INFO_S info = {};
    EXPECT_EQ(TBDL_BND_GetFirstBndInfo(&info), TBDL_E_NOTEXIST);
    EXPECT_EQ(fake::CountOf("IF_GetIfIndexByFullName"), 0u);
    EXPECT_EQ(TBDL_INTF_IsSystemBoot(), 0u);
    ASSERT_EQ(fake::CountOf("DBM_Batch_Proc"), 1u);
    fake::Call walk = fake::CallsOf("DBM_Batch_Proc")[0];
    EXPECT_EQ(walk.args[0], TBDL_DBM_GetHandle());
    EXPECT_EQ(static_cast<int64_t>(walk.args[1]), -1);
    EXPECT_EQ(walk.args[2], 2u);
}

TEST_F(CfgRecover, BundlesComeInBlocksOfTenInStoredOrder)
{
    /* Seeded out of order; the store keeps them sorted by number. */
    for (uint32_t i = 0; i < 25; i++) {
        uint32_t bnd = (i * 7) % 25 * 3;
        fake::DbPut(kBndKey, 20, StoredBnd(bnd, 1, 0, 2));
    }
    TBDL_CFG_Recovery();

    EXPECT_THAT(FetchResults(), ElementsAre(10, 10, 5, 0));
    for (const fake::Call &c : fake::CallsOf("DBM_BatchGetNextSortList")) {
        EXPECT_EQ(c.data, kBndKey);
    }
    std::vector<std::string> order;
    for (const fake::Call &c : fake::CallsOf("IF_GetIfIndexByFullName")) {
        order.push_back(c.text);
    }
    ASSERT_EQ(order.size(), 25u);
    for (uint32_t i = 0; i < 25; i++) {
        EXPECT_EQ(order[i], "Tunnel-Bundle" + std::to_string(i * 3));
    }
    EXPECT_EQ(fake::CountOf("DBM_FreeIterator"), 1u);

    /* Numbers converted: family, number and address as stored. */
    TBDL_BND_INFO_S info = {};
    ASSERT_EQ(TBDL_BND_GetBndInfo(72, &info), 0u);
    EXPECT_EQ(info.uiBndNum, 72u);
    EXPECT_EQ(info.ucMode, 1u);
    EXPECT_EQ(info.stAddr.usFamily, 2u);
    EXPECT_EQ(info.stAddr.aucCarried[0], 0xC1);
    EXPECT_EQ(info.stAddr.aucAddr[3], 72);
    EXPECT_EQ(g_stTbdlGlobalVar.uiBndCnt, 25u);
}

TEST_F(CfgRecover, MembersTakeTheirBundleNumberFromTheListKey)
{
    fake::DbPut(kBndKey, 20, StoredBnd(7));
    fake::DbPut(kBndKey, 20, StoredBnd(9));
    uint32_t if3 = fake::AddTunnel(3);
    uint32_t if4 = fake::AddTunnel(4);
    uint32_t if5 = fake::AddTunnel(5);
    fake::DbPut(MembKey(7), 0, StoredMemb(3, 300));
    fake::DbPut(MembKey(7), 0, StoredMemb(4, 0x0102));
    fake::DbPut(MembKey(9), 0, StoredMemb(5, 1));
    TBDL_CFG_Recovery();

    TBDL_MEMB_INFO_S memb[32] = {};
    TBDL_BND_INFO_S info = {};
    info.pstMembInfo = memb;
    ASSERT_EQ(TBDL_BND_GetBndInfo(7, &info), 0u);
    ASSERT_EQ(info.usMembNum, 2u);
    /* Newest first: tunnel 4 was bound after tunnel 3. */
    EXPECT_EQ(memb[0].uiIfIndex, if4);
    EXPECT_EQ(memb[0].usWeight, 0x0102u);
    EXPECT_EQ(memb[1].uiIfIndex, if3);
    EXPECT_EQ(memb[1].usWeight, 300u);
    ASSERT_EQ(fake::PrivateData().count(if5), 1u);
    EXPECT_EQ(static_cast<TBDL_INTF_PD_S *>(fake::PrivateData()[if5])->uiBndNum, 9u);
    EXPECT_EQ(static_cast<TBDL_INTF_PD_S *>(fake::PrivateData()[if3])->uiBndNum, 7u);

    /* Bundles are all restored before the first member list is read. */
    std::vector<std::string> texts;
    for (const fake::Call &c : fake::CallsOf("IF_GetIfIndexByFullName")) {
        texts.push_back(c.text);
    }
    EXPECT_THAT(texts, ElementsAre("Tunnel-Bundle7", "Tunnel-Bundle9", "Tunnel3", "Tunnel4", "Tunnel5"));
}

TEST_F(CfgRecover, SystemBootFlagIsSetOnlyDuringTheWalkOfABoot)
{
    fake::DbPut(kBndKey, 20, StoredBnd(1, 1, 5));
    fake::Config().startCause = 0;
    TBDL_CFG_Recovery();
    EXPECT_THAT(m_bootDuringWalk, ElementsAre(1, 1));
    EXPECT_EQ(TBDL_INTF_IsSystemBoot(), 0u);
    /* During a boot the stored VRF (converted) is taken as stored. */
    TBDL_BND_INFO_S info = {};
    ASSERT_EQ(TBDL_BND_GetBndInfo(1, &info), 0u);
    EXPECT_EQ(info.usVrfIndex, 5u);
}

/* Outside a boot the flag stays clear, so a stored VRF other than what
 * L3VPN reports (0) discards the bundle. */
void ExpectNoBootWalk(const std::vector<u16> &bootDuringWalk)
{
    EXPECT_THAT(bootDuringWalk, ElementsAre(0, 0));
    TBDL_BND_INFO_S info = {};
    EXPECT_EQ(TBDL_BND_GetBndInfo(1, &info), 0u);
    EXPECT_EQ(TBDL_BND_GetBndInfo(2, &info), TBDL_E_NOTEXIST);
    EXPECT_EQ(TBDL_INTF_IsSystemBoot(), 0u);
}

TEST_F(CfgRecover, ProcessRestartLeavesTheFlagClear)
{
    fake::DbPut(kBndKey, 20, StoredBnd(1, 1, 0));
    fake::DbPut(kBndKey, 20, StoredBnd(2, 1, 5));
    fake::Config().startCause = 1;
    TBDL_CFG_Recovery();
    ExpectNoBootWalk(m_bootDuringWalk);
}

TEST_F(CfgRecover, FailedCauseQueryCountsAsRestart)
{
    fake::DbPut(kBndKey, 20, StoredBnd(1, 1, 0));
    fake::DbPut(kBndKey, 20, StoredBnd(2, 1, 5));
    fake::Config().startCause = 0;
    fake::FailAlways("SERVICE_GetStartCause", 1);
    TBDL_CFG_Recovery();
    ExpectNoBootWalk(m_bootDuringWalk);
}

TEST_F(CfgRecover, EveryRecordIsHandedOnWhateverTheOwnerAnswers)
{
    /* Bundle 3's mode is not supported: it is refused, and bundle 4 after
     * it is still restored; its member list is still read. */
    fake::DbPut(kBndKey, 20, StoredBnd(3, 8));
    fake::DbPut(kBndKey, 20, StoredBnd(4, 1));
    fake::AddTunnel(6);
    fake::DbPut(MembKey(3), 0, StoredMemb(6, 1));
    fake::DbPut(MembKey(4), 0, StoredMemb(6, 2));
    TBDL_CFG_Recovery();
    TBDL_BND_INFO_S info = {};
    EXPECT_NE(TBDL_BND_GetBndInfo(3, &info), 0u);
    EXPECT_EQ(TBDL_BND_GetBndInfo(4, &info), 0u);
    std::vector<Bytes> keys;
    for (const fake::Call &c : fake::CallsOf("DBM_BatchGetNextSortList")) {
        keys.push_back(c.data);
    }
    EXPECT_THAT(keys, ElementsAre(kBndKey, kBndKey, MembKey(3), MembKey(3), MembKey(4), MembKey(4)));
}

TEST_F(CfgRecover, FailedFetchEndsTheListAndFreesTheIterator)
{
    fake::DbPut(kBndKey, 20, StoredBnd(1));
    fake::FailOnce("DBM_BatchGetNextSortList", static_cast<uint64_t>(static_cast<int64_t>(-1)));
    TBDL_CFG_Recovery();
    TBDL_BND_INFO_S info = {};
    EXPECT_EQ(TBDL_BND_GetFirstBndInfo(&info), TBDL_E_NOTEXIST);
    EXPECT_EQ(fake::CountOf("DBM_FreeIterator"), 1u);
    EXPECT_EQ(TBDL_INTF_IsSystemBoot(), 0u);
}

} // namespace
