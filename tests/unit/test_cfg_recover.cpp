/* Replay of the stored configuration: bundles and then members come back
 * from the platform database in blocks, with the system-boot flag set only
 * during a boot's walk. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cfg/tbdl_cfg_priv.h"
#include "cfg_test_util.h"
#include "intf/tbdl_intf_priv.h"

using namespace cfgtest;
using ::testing::ElementsAre;

namespace {

const Bytes kBndKey = {1};

Bytes MembKey(uint32_t bnd) { return Cat({Bytes{2}, Be32(bnd)}); }

/* Stored bundle: family, carried and address bytes, number, mode, tunnel
 * mode, VRF; numbers big-endian. */
void PutBnd(uint32_t bnd, uint8_t mode = 1, uint16_t vrf = 0, uint16_t family = 0)
{
    Bytes addr = family ? Cat({Bytes{0xC1, 0xC2, 192, 0, 2, uint8_t(bnd)}, Bytes(12, 0)}) : Bytes(18, 0);
    fake::DbPut(kBndKey, 20, Cat({Be16(family), addr, Be32(bnd), Bytes{mode, 0, 0, 0}, Be16(vrf), Bytes{0, 0}}));
}

void PutMemb(uint32_t bnd, uint32_t tnl, uint16_t weight)
{
    fake::DbPut(MembKey(bnd), 0, Cat({Be32(tnl), Be16(weight), Bytes(6, 0)}));
}

/* Names looked up while restoring: bundles, then member tunnels. */
std::vector<std::string> Lookups() { return CallField("IF_GetIfIndexByFullName", &fake::Call::text); }

class CfgRecover : public CfgModules {
protected:
    void SetUp() override
    {
        CfgModules::SetUp();
        m_bootDuringWalk.clear();
        /* The boot flag as each block is fetched. */
        fake::OnCall("DBM_BatchGetNextSortList",
                     [this](const fake::Call &) { m_bootDuringWalk.push_back(TBDL_INTF_IsSystemBoot()); });
    }

    std::vector<u16> m_bootDuringWalk;
};

TEST_F(CfgRecover, EmptyDatabaseRestoresNothing)
{
    fake::Config().startCause = 0;
    TBDL_CFG_Recovery();
    TBDL_BND_INFO_S info = {};
    EXPECT_EQ(TBDL_BND_GetFirstBndInfo(&info), TBDL_E_NOTEXIST);
    EXPECT_TRUE(Lookups().empty());
    EXPECT_EQ(TBDL_INTF_IsSystemBoot(), 0u);
    ASSERT_EQ(fake::CountOf("DBM_Batch_Proc"), 1u);
    fake::Call walk = fake::CallsOf("DBM_Batch_Proc")[0];
    EXPECT_EQ(walk.args, (std::vector<uint64_t>{TBDL_DBM_GetHandle(), ~0ull, 2, 0, 0, 1, 0}));
}

TEST_F(CfgRecover, BundlesComeInBlocksOfTenInStoredOrderWithNumbersConverted)
{
    for (uint32_t i = 0; i < 25; i++) {
        PutBnd((i * 7) % 25 * 3, 1, 0, 2); /* seeded out of order */
    }
    TBDL_CFG_Recovery();

    EXPECT_EQ(CallField("DBM_BatchGetNextSortList", &fake::Call::result), (std::vector<uint64_t>{10, 10, 5, 0}));
    EXPECT_EQ(CallField("DBM_BatchGetNextSortList", &fake::Call::data), std::vector<Bytes>(4, kBndKey));
    std::vector<std::string> want;
    for (uint32_t i = 0; i < 25; i++) {
        want.push_back("Tunnel-Bundle" + std::to_string(i * 3));
    }
    EXPECT_EQ(Lookups(), want);
    EXPECT_EQ(fake::CountOf("DBM_FreeIterator"), 1u);

    TBDL_BND_INFO_S info = {};
    ASSERT_TRUE(HasBnd(72, &info));
    EXPECT_EQ(info.ucMode, 1u);
    EXPECT_EQ(info.stAddr.usFamily, 2u);
    EXPECT_EQ(info.stAddr.aucCarried[0], 0xC1);
    EXPECT_EQ(info.stAddr.aucAddr[3], 72);
}

TEST_F(CfgRecover, MembersTakeTheirBundleNumberFromTheListKey)
{
    PutBnd(7);
    PutBnd(9);
    uint32_t if3 = fake::AddTunnel(3);
    uint32_t if4 = fake::AddTunnel(4);
    uint32_t if5 = fake::AddTunnel(5);
    PutMemb(7, 3, 300);
    PutMemb(7, 4, 0x0102);
    PutMemb(9, 5, 1);
    TBDL_CFG_Recovery();

    TBDL_MEMB_INFO_S memb[32] = {};
    TBDL_BND_INFO_S info = {};
    info.pstMembInfo = memb;
    ASSERT_TRUE(HasBnd(7, &info));
    ASSERT_EQ(info.usMembNum, 2u);
    /* Newest first, weights converted. */
    EXPECT_EQ(memb[0].uiIfIndex, if4);
    EXPECT_EQ(memb[0].usWeight, 0x0102u);
    EXPECT_EQ(memb[1].uiIfIndex, if3);
    EXPECT_EQ(memb[1].usWeight, 300u);
    EXPECT_EQ(static_cast<TBDL_INTF_PD_S *>(fake::PrivateData().at(if5))->uiBndNum, 9u);
    /* Every bundle before the first member. */
    EXPECT_THAT(Lookups(), ElementsAre("Tunnel-Bundle7", "Tunnel-Bundle9", "Tunnel3", "Tunnel4", "Tunnel5"));
}

TEST_F(CfgRecover, SystemBootFlagIsSetOnlyDuringTheWalkOfABoot)
{
    /* Outside a boot a stored VRF other than what L3VPN reports (0)
     * discards the bundle; during a boot it is taken as stored. */
    const struct {
        const char *what;
        uint32_t cause;
        bool causeFails;
        u16 flag;
    } cases[] = {{"boot", 0, false, 1}, {"process restart", 1, false, 0}, {"failed cause query", 0, true, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        TearDown();
        SetUp();
        PutBnd(1, 1, 0);
        PutBnd(2, 1, 5);
        fake::Config().startCause = c.cause;
        if (c.causeFails) {
            fake::FailAlways("SERVICE_GetStartCause", 1);
        }
        TBDL_CFG_Recovery();
        EXPECT_THAT(m_bootDuringWalk, ElementsAre(c.flag, c.flag));
        EXPECT_EQ(TBDL_INTF_IsSystemBoot(), 0u);
        EXPECT_TRUE(HasBnd(1));
        TBDL_BND_INFO_S info = {};
        EXPECT_EQ(HasBnd(2, &info), c.flag == 1);
        EXPECT_EQ(info.usVrfIndex, c.flag == 1 ? 5u : 0u);
    }
}

TEST_F(CfgRecover, EveryRecordIsHandedOnWhateverTheOwnerAnswers)
{
    /* Bundle 3's mode is refused; bundle 4 and both member lists are still
     * read. */
    PutBnd(3, 8);
    PutBnd(4, 1);
    fake::AddTunnel(6);
    PutMemb(3, 6, 1);
    PutMemb(4, 6, 2);
    TBDL_CFG_Recovery();
    EXPECT_FALSE(HasBnd(3));
    EXPECT_TRUE(HasBnd(4));
    EXPECT_THAT(CallField("DBM_BatchGetNextSortList", &fake::Call::data),
                ElementsAre(kBndKey, kBndKey, MembKey(3), MembKey(3), MembKey(4), MembKey(4)));
}

TEST_F(CfgRecover, FailedFetchEndsTheListAndFreesTheIterator)
{
    PutBnd(1);
    fake::FailOnce("DBM_BatchGetNextSortList", ~0ull);
    TBDL_CFG_Recovery();
    EXPECT_FALSE(HasBnd(1));
    EXPECT_EQ(fake::CountOf("DBM_FreeIterator"), 1u);
    EXPECT_EQ(TBDL_INTF_IsSystemBoot(), 0u);
}

} // namespace
