/* Database records: open arguments, stored bytes, key handling and failure messages. */
#include <gtest/gtest.h>

#include "cfg_test_util.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"

namespace {

using cfgtest::Bytes;
using cfgtest::MembKey;

const Bytes kBndKey = {0x01};

u32 SetBnd(u16 usDel, u32 uiBndNum)
{
    TBDL_DBM_BND_S st{};
    st.uiBndNum = uiBndNum;
    return TBDL_DBM_SetBnd(usDel, &st);
}

u32 SetMemb(u16 usDel, u32 uiBnd, u32 uiTnl)
{
    TBDL_MEMB_CFG_S st{};
    st.uiTnlNum = uiTnl;
    return TBDL_DBM_SetMemb(usDel, uiBnd, &st);
}

/* Bundle numbers of the stored bundle list, in stored order. */
std::vector<uint32_t> StoredBndNums()
{
    std::vector<uint32_t> out;
    auto it = fake::Db().find(kBndKey);
    for (size_t i = 0; it != fake::Db().end() && i < it->second.size(); i++) {
        const Bytes &r = it->second[i];
        out.push_back((uint32_t{r[20]} << 24) | (uint32_t{r[21]} << 16) | (uint32_t{r[22]} << 8) | r[23]);
    }
    return out;
}

class DbmTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        TBDL_DBG_Init();
        u32 uiType = TBDL_DBG_ERROR; /* ERROR output on: messages reach the log */
        TBDL_DBG_SetDebug(0, nullptr, 0, &uiType);
        ASSERT_EQ(0u, TBDL_DBM_Init());
        fake::ClearJournal();
    }
    void TearDown() override
    {
        TBDL_DBM_Fini();
        TBDL_DBG_Fini();
    }
};

TEST(DbmOpen, OpensWithTheFixedArgumentsAndClosesOnce)
{
    fake::Reset();
    ASSERT_EQ(0u, TBDL_DBM_Init());
    auto c = fake::CallsOf("DBM_Open").at(0);
    EXPECT_EQ("eTBDL|TBDL", c.text);
    /* type, eight parameters, handle preset to -1, record max, flag -1 */
    EXPECT_EQ((std::vector<uint64_t>{7, 1, 0, 1, 32, 0, 0, 0, 0, ~0ull, 32, ~0ull}), c.args);
    u64 ulHandle = TBDL_DBM_GetHandle();
    TBDL_DBM_Fini();
    TBDL_DBM_Fini();
    EXPECT_EQ(std::make_tuple(std::vector<uint64_t>{ulHandle}, size_t(1), DBM_HANDLE_NONE),
              std::make_tuple(fake::CallsOf("DBM_Close").at(0).args, fake::CountOf("DBM_Close"), TBDL_DBM_GetHandle()));

    /* A failed open leaves no handle and nothing to close. */
    fake::FailOnce("DBM_Open", 0x77);
    EXPECT_EQ(0x77u, TBDL_DBM_Init());
    EXPECT_EQ(DBM_HANDLE_NONE, TBDL_DBM_GetHandle());
    TBDL_DBM_Fini();
    EXPECT_EQ(1u, fake::CountOf("DBM_Close"));
}

TEST_F(DbmTest, RecordsAreStoredBigEndianWithZeroedReservedBytes)
{
    TBDL_DBM_BND_S st = {{2, {0xC1, 0xC2}, {}}, 0x01020304, 2, 5, 0xFFFF, 0x0A0B, 0xFFFF};
    for (int i = 0; i < 16; i++) {
        st.stAddr.aucAddr[i] = static_cast<u8>(0x10 + i);
    }
    ASSERT_EQ(0u, TBDL_DBM_SetBnd(0, &st));
    TBDL_MEMB_CFG_S stMemb = {0x11223344, 0x5566, 2, 0xEE, 0x7788, 0xEEEE};
    ASSERT_EQ(0u, TBDL_DBM_SetMemb(0, 0x0A0B0C0D, &stMemb));

    auto ins = fake::CallsOf("DBM_InsertSortList");
    ASSERT_EQ(2u, ins.size());
    EXPECT_EQ(kBndKey, ins[0].data);
    EXPECT_EQ((Bytes{0x00, 0x02, 0xC1, 0xC2, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B,
                     0x1C, 0x1D, 0x1E, 0x1F, 0x01, 0x02, 0x03, 0x04, 0x02, 0x05, 0x00, 0x00, 0x0A, 0x0B, 0x00, 0x00}),
              ins[0].rec);
    const u64 h = TBDL_DBM_GetHandle();
    EXPECT_EQ((std::vector<uint64_t>{h, 1, 32, 0}), ins[0].args);
    EXPECT_EQ(MembKey(0x0A0B0C0D), ins[1].data);
    EXPECT_EQ((Bytes{0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x02, 0x00, 0x77, 0x88, 0x00, 0x00}), ins[1].rec);
    EXPECT_EQ((std::vector<uint64_t>{h, 5, 12, 1}), ins[1].args);
    auto sw = fake::CallsOf("DBM_SetSortWord");
    EXPECT_EQ((std::vector<Bytes>{kBndKey, MembKey(0x0A0B0C0D)}), (std::vector<Bytes>{sw.at(0).data, sw.at(1).data}));
    EXPECT_EQ((std::vector<uint64_t>{h, 1, 1, 20, 4, 19, 0}), sw[0].args);
    EXPECT_EQ((std::vector<uint64_t>{h, 5, 1, 0, 4, 19, 0}), sw[1].args);
}

TEST_F(DbmTest, SortWordIsSetOnlyForANewKeyWhichGoesWithItsLastRecord)
{
    for (u32 ui : {0x100u, 2u, 0x30u, 2u}) {
        ASSERT_EQ(0u, SetBnd(0, ui));
    }
    EXPECT_EQ(1u, fake::CountOf("DBM_SetSortWord"));
    /* Sorted numerically; stored again after a change: replaced. */
    EXPECT_EQ((std::vector<uint32_t>{2, 0x30, 0x100}), StoredBndNums());

    /* Removal records carry only the bundle number. */
    EXPECT_EQ(0u, SetBnd(1, 0x30));
    EXPECT_EQ(0u, SetBnd(1, 2));
    EXPECT_EQ(std::vector<uint32_t>{0x100}, StoredBndNums());
    EXPECT_EQ(0u, fake::CountOf("DBM_DeleteKey"));
    EXPECT_EQ(0u, SetBnd(1, 0x100));
    EXPECT_EQ(0u, fake::Db().count(kBndKey));
    EXPECT_EQ(kBndKey, fake::CallsOf("DBM_DeleteKey").at(0).data);
    /* The key is new again. */
    ASSERT_EQ(0u, SetBnd(0, 3));
    EXPECT_EQ(2u, fake::CountOf("DBM_SetSortWord"));
}

TEST_F(DbmTest, FailuresAreLoggedAsTheOperationSays)
{
    /* The call that fails, for a member or a bundle, a removal or not, and the line logged. */
    const struct { const char *pcFailCall; bool bMemb; u16 usDel; std::vector<std::string> vecLines; } cases[] = {
        {"DBM_InsertSortList", false, 0, {"ERROR Failed to save tunnel bundle interface (7) to DBM.\r\n"}},
        {"DBM_RemoveSortList", false, 1, {"ERROR Failed to delete tunnel bundle interface (7) from DBM.\r\n"}},
        {"DBM_InsertSortList", true, 0, {"ERROR Failed to save member (12) to DBM.\r\n"}},
        {"DBM_RemoveSortList", true, 1, {"ERROR Failed to delete member (12) from DBM.\r\n"}},
        {"DBM_SetSortWord", false, 0, {}},
        {"DBM_SetSortWord", true, 0, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.pcFailCall) + (c.bMemb ? " member" : " bundle"));
        fake::Db().clear();
        auto set = [&](u16 usDel) { return c.bMemb ? SetMemb(usDel, 1, 12) : SetBnd(usDel, 7); };
        if (c.usDel == 1) {
            ASSERT_EQ(0u, set(0)); /* the removal finds its list */
        }
        fake::ClearJournal();
        size_t ulLinesBefore = fake::LogLines().size();
        fake::FailOnce(c.pcFailCall, 0x99);
        EXPECT_EQ(0x99u, set(c.usDel));
        std::vector<std::string> lines = fake::LogLines();
        EXPECT_EQ(c.vecLines, std::vector<std::string>(lines.begin() + static_cast<long>(ulLinesBefore), lines.end()));
        /* Nothing inserted when the sort word fails; a record is still there. */
        EXPECT_EQ(fake::CountOf("DBM_InsertSortList"), c.vecLines.empty() ? 0u : 1u - c.usDel);
        EXPECT_EQ(0u, fake::CountOf("DBM_DeleteKey"));
    }
}

TEST_F(DbmTest, FailedRemovalStillDeletesAnEmptyKey)
{
    fake::DbPut(kBndKey, 20, Bytes(32, 0));
    fake::Db()[kBndKey].clear();
    EXPECT_NE(0u, SetBnd(1, 5));
    EXPECT_EQ(std::make_pair(fake::CountOf("DBM_DeleteKey"), fake::Db().count(kBndKey)), std::make_pair(1ul, 0ul));
    EXPECT_EQ((std::vector<std::string>{"ERROR Failed to delete tunnel bundle interface (5) from DBM.\r\n"}),
              fake::LogLines());
}

} // namespace
