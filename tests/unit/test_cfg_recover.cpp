/* Replay of the stored configuration: bundles and then members come back from the platform database in blocks, with the
 * system-boot flag set only during a boot's walk. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cfg/tbdl_cfg_priv.h"
#include "cfg_test_util.h"
#include "intf/tbdl_intf_priv.h"

using namespace cfgtest;
using ::testing::ElementsAre;

namespace {

const Bytes kBndKey = {1};

/* Stored bundle: family, carried and address bytes, number, mode, tunnel mode, VRF; numbers big-endian. */
void PutBnd(uint32_t bnd, uint8_t mode = 1, uint16_t vrf = 0, uint16_t family = 0)
{
    Bytes addr = family ? Cat({Bytes{0xC1, 0xC2, 192, 0, 2, uint8_t(bnd)}, Bytes(12, 0)}) : Bytes(18, 0);
    fake::DbPut(kBndKey, 20, Cat({Be16(family), addr, Be32(bnd), Bytes{mode, 0, 0, 0}, Be16(vrf), Bytes{0, 0}}));
}

/* Stored member: tunnel number, weight, role and VRF; numbers big-endian. */
void PutMemb(uint32_t b, uint32_t t, uint16_t w, uint16_t vrf = 0)
{
    fake::DbPut(MembKey(b), 0, Cat({Be32(t), Be16(w), Bytes{0, 0}, Be16(vrf), Bytes{0, 0}}));
}

/* One field of every recorded call of a platform function, in call order. */
template <typename T> std::vector<T> CallField(const std::string &name, T fake::Call::*field)
{
    std::vector<T> out;
    for (const fake::Call &c : fake::CallsOf(name)) {
        out.push_back(c.*field);
    }
    return out;
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

/* An empty database, or a failed first fetch, restores nothing; the failed walk still frees its iterator. */
TEST_F(CfgRecover, EmptyDatabaseOrFailedFetchRestoresNothing)
{
    for (bool fetchFails : {false, true}) {
        SCOPED_TRACE(fetchFails);
        TearDown();
        SetUp();
        if (fetchFails) {
            PutBnd(1);
            fake::FailOnce("DBM_BatchGetNextSortList", ~0ull);
        }
        fake::Config().startCause = 0;
        TBDL_CFG_Recovery();
        TBDL_BND_INFO_S info = {};
        EXPECT_EQ(std::make_tuple(TBDL_BND_GetFirstBndInfo(&info), Lookups().size(), TBDL_INTF_IsSystemBoot(),
                                  fake::CountOf("DBM_FreeIterator")),
                  std::make_tuple(TBDL_E_NOTEXIST, size_t(0), u16(0), size_t(fetchFails)));
        EXPECT_EQ(CallField("DBM_Batch_Proc", &fake::Call::args),
                  (std::vector<std::vector<uint64_t>>{{TBDL_DBM_GetHandle(), ~0ull, 2, 0, 0, 1, 0}}));
    }
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
    EXPECT_EQ(std::make_tuple(info.ucMode, info.stAddr.usFamily, info.stAddr.aucCarried[0], info.stAddr.aucAddr[3]),
              std::make_tuple(u8(1), u16(2), u8(0xC1), u8(72)));
}

/* Every bundle comes before the first member (a discarded one is looked up again to drop its index); every record is
 * handed on whatever its owner answers (bundle 3's mode is refused, its member list is still read). During a boot the
 * stored VRFs are taken as they are, converted. */
TEST_F(CfgRecover, MembersTakeTheirBundleNumberFromTheListKey)
{
    fake::Config().startCause = 0;
    PutBnd(3, 8);
    PutBnd(7);
    PutBnd(9, 1, 0x0102);
    uint32_t if3 = fake::AddTunnel(3);
    uint32_t if4 = fake::AddTunnel(4);
    uint32_t if5 = fake::AddTunnel(5);
    PutMemb(3, 5, 1);
    PutMemb(7, 3, 300);
    PutMemb(7, 4, 0x0102);
    PutMemb(9, 5, 1, 0x0102);
    TBDL_CFG_Recovery();

    EXPECT_FALSE(HasBnd(3));
    TBDL_MEMB_INFO_S memb[32] = {};
    TBDL_BND_INFO_S info = {};
    info.pstMembInfo = memb;
    ASSERT_TRUE(HasBnd(7, &info));
    ASSERT_EQ(info.usMembNum, 2u);
    /* Newest first, weights converted. */
    EXPECT_EQ(std::make_tuple(memb[0].uiIfIndex, memb[0].usWeight, memb[1].uiIfIndex, memb[1].usWeight),
              std::make_tuple(if4, u16(0x0102), if3, u16(300)));
    const auto *pd = static_cast<TBDL_INTF_PD_S *>(fake::PrivateData().at(if5));
    EXPECT_EQ(std::make_pair(pd->uiBndNum, pd->usVrfIndex), std::make_pair(9u, u16(0x0102)));
    EXPECT_THAT(Lookups(), ElementsAre("Tunnel-Bundle3", "Tunnel-Bundle3", "Tunnel-Bundle7", "Tunnel-Bundle9",
                                       "Tunnel5", "Tunnel3", "Tunnel4", "Tunnel5"));
    EXPECT_THAT(CallField("DBM_BatchGetNextSortList", &fake::Call::data),
                ElementsAre(kBndKey, kBndKey, MembKey(3), MembKey(3), MembKey(7), MembKey(7), MembKey(9), MembKey(9)));
}

TEST_F(CfgRecover, SystemBootFlagIsSetOnlyDuringTheWalkOfABoot)
{
    /* Outside a boot a stored VRF other than what L3VPN reports (0)
     * discards the bundle; during a boot it is taken as stored. */
    const struct { const char *what; uint32_t cause; bool causeFails; u16 flag; } cases[] = {
        {"boot", 0, false, 1}, {"process restart", 1, false, 0}, {"failed cause query", 0, true, 0}};
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

} // namespace
