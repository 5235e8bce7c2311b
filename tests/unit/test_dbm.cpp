/* Database records: open arguments, stored bytes, key handling and failure
 * messages. */
#include <gtest/gtest.h>

#include "fake_platform.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"

namespace {

using fake::Bytes;

const Bytes kBndKey = {0x01};

Bytes MembKey(uint32_t uiBnd)
{
    return {0x02, static_cast<uint8_t>(uiBnd >> 24), static_cast<uint8_t>(uiBnd >> 16),
            static_cast<uint8_t>(uiBnd >> 8), static_cast<uint8_t>(uiBnd)};
}

TBDL_DBM_BND_S Bnd(u32 uiBndNum)
{
    TBDL_DBM_BND_S st{};
    st.uiBndNum = uiBndNum;
    return st;
}

TBDL_MEMB_CFG_S Memb(u32 uiTnl)
{
    TBDL_MEMB_CFG_S st{};
    st.uiTnlNum = uiTnl;
    return st;
}

/* Bundle numbers of the stored bundle list, in stored order. */
std::vector<uint32_t> StoredBndNums()
{
    std::vector<uint32_t> out;
    auto it = fake::Db().find(kBndKey);
    if (it == fake::Db().end()) {
        return out;
    }
    for (const Bytes &r : it->second) {
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
        /* ERROR output on, so messages reach the fake's log. */
        u32 uiType = TBDL_DBG_ERROR;
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

TEST(DbmOpen, OpensWithTheFixedArgumentsAndKeepsTheHandle)
{
    fake::Reset();
    ASSERT_EQ(0u, TBDL_DBM_Init());
    auto c = fake::CallsOf("DBM_Open").at(0);
    EXPECT_EQ("eTBDL|TBDL", c.text);
    /* type, eight parameters, handle preset to -1, record max, flag -1 */
    EXPECT_EQ((std::vector<uint64_t>{7, 1, 0, 1, 32, 0, 0, 0, 0, ~0ull, 32, ~0ull}), c.args);
    EXPECT_TRUE(fake::DbOpen());
    EXPECT_NE(DBM_HANDLE_NONE, TBDL_DBM_GetHandle());
    u64 ulHandle = TBDL_DBM_GetHandle();
    TBDL_DBM_Fini();
    EXPECT_EQ(ulHandle, fake::CallsOf("DBM_Close").at(0).args.at(0));
    EXPECT_FALSE(fake::DbOpen());
    EXPECT_EQ(DBM_HANDLE_NONE, TBDL_DBM_GetHandle());
    TBDL_DBM_Fini(); /* no second close */
    EXPECT_EQ(1u, fake::CountOf("DBM_Close"));
}

TEST(DbmOpen, FailedOpenLeavesNoHandle)
{
    fake::Reset();
    fake::FailOnce("DBM_Open", 0x77);
    EXPECT_EQ(0x77u, TBDL_DBM_Init());
    EXPECT_EQ(DBM_HANDLE_NONE, TBDL_DBM_GetHandle());
    TBDL_DBM_Fini();
    EXPECT_EQ(0u, fake::CountOf("DBM_Close"));
}

TEST_F(DbmTest, SyncIsPassedOn)
{
    fake::FailOnce("DBM_Sync", 5);
    EXPECT_EQ(5u, TBDL_DBM_HASync());
    EXPECT_EQ(0u, TBDL_DBM_HASync());
}

TEST_F(DbmTest, BundleRecordIsStoredBigEndianWithZeroedReservedBytes)
{
    TBDL_DBM_BND_S st{};
    st.stAddr.usFamily = 2;
    st.stAddr.aucCarried[0] = 0xC1;
    st.stAddr.aucCarried[1] = 0xC2;
    for (int i = 0; i < 16; i++) {
        st.stAddr.aucAddr[i] = static_cast<u8>(0x10 + i);
    }
    st.uiBndNum = 0x01020304;
    st.ucMode = 2;
    st.ucTnlMode = 5;
    st.usResv1 = 0xFFFF;
    st.usVrfIndex = 0x0A0B;
    st.usResv2 = 0xFFFF;
    ASSERT_EQ(0u, TBDL_DBM_SetBnd(0, &st));
    auto c = fake::CallsOf("DBM_InsertSortList").at(0);
    const Bytes want = {0x00, 0x02, 0xC1, 0xC2, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16,
                        0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C, 0x1D, 0x1E, 0x1F, 0x01, 0x02,
                        0x03, 0x04, 0x02, 0x05, 0x00, 0x00, 0x0A, 0x0B, 0x00, 0x00};
    EXPECT_EQ(kBndKey, c.data);
    EXPECT_EQ(want, c.rec);
    EXPECT_EQ((std::vector<uint64_t>{TBDL_DBM_GetHandle(), 1, 32, 0}), c.args);
}

TEST_F(DbmTest, MemberRecordIsStoredBigEndianUnderItsBundleKey)
{
    TBDL_MEMB_CFG_S st{};
    st.uiTnlNum = 0x11223344;
    st.usWeight = 0x5566;
    st.ucRole = 2;
    st.ucResv = 0xEE;
    st.usVrfIndex = 0x7788;
    st.usResv = 0xEEEE;
    ASSERT_EQ(0u, TBDL_DBM_SetMemb(0, 0x0A0B0C0D, &st));
    auto c = fake::CallsOf("DBM_InsertSortList").at(0);
    EXPECT_EQ(MembKey(0x0A0B0C0D), c.data);
    EXPECT_EQ((Bytes{0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x02, 0x00, 0x77, 0x88, 0x00, 0x00}), c.rec);
    EXPECT_EQ((std::vector<uint64_t>{TBDL_DBM_GetHandle(), 5, 12, 1}), c.args);
    auto sw = fake::CallsOf("DBM_SetSortWord").at(0);
    EXPECT_EQ(MembKey(0x0A0B0C0D), sw.data);
    EXPECT_EQ((std::vector<uint64_t>{TBDL_DBM_GetHandle(), 5, 1, 0, 4, 19, 0}), sw.args);
}

TEST_F(DbmTest, FirstStoreSetsTheSortWordOnceAndListsSortNumerically)
{
    for (u32 ui : {0x100u, 2u, 0x30u, 2u}) {
        TBDL_DBM_BND_S st = Bnd(ui);
        ASSERT_EQ(0u, TBDL_DBM_SetBnd(0, &st));
    }
    auto sw = fake::CallsOf("DBM_SetSortWord");
    ASSERT_EQ(1u, sw.size());
    EXPECT_EQ(kBndKey, sw[0].data);
    EXPECT_EQ((std::vector<uint64_t>{TBDL_DBM_GetHandle(), 1, 1, 20, 4, 19, 0}), sw[0].args);
    /* Stored again after a change: replaced, not duplicated. */
    EXPECT_EQ((std::vector<uint32_t>{2, 0x30, 0x100}), StoredBndNums());
}

TEST_F(DbmTest, RemovingTheLastRecordDeletesTheKey)
{
    for (u32 ui : {7u, 9u}) {
        TBDL_DBM_BND_S st = Bnd(ui);
        ASSERT_EQ(0u, TBDL_DBM_SetBnd(0, &st));
    }
    /* A removal record that carries only the bundle number. */
    TBDL_DBM_BND_S stDel = Bnd(7);
    EXPECT_EQ(0u, TBDL_DBM_SetBnd(1, &stDel));
    EXPECT_EQ(std::vector<uint32_t>{9}, StoredBndNums());
    EXPECT_EQ(0u, fake::CountOf("DBM_DeleteKey"));
    stDel = Bnd(9);
    EXPECT_EQ(0u, TBDL_DBM_SetBnd(1, &stDel));
    EXPECT_EQ(0u, fake::Db().count(kBndKey));
    EXPECT_EQ(kBndKey, fake::CallsOf("DBM_DeleteKey").at(0).data);
    /* The key is new again: the next store sets the sort word again. */
    TBDL_DBM_BND_S st = Bnd(3);
    ASSERT_EQ(0u, TBDL_DBM_SetBnd(0, &st));
    EXPECT_EQ(2u, fake::CountOf("DBM_SetSortWord"));
}

TEST_F(DbmTest, MemberRemovalOneByOneAndAllAtOnce)
{
    for (u32 uiBnd : {1u, 2u}) {
        for (u32 uiTnl : {300u, 4u}) {
            TBDL_MEMB_CFG_S st = Memb(uiTnl);
            ASSERT_EQ(0u, TBDL_DBM_SetMemb(0, uiBnd, &st));
        }
    }
    const auto &list = fake::Db().at(MembKey(1));
    ASSERT_EQ(2u, list.size());
    EXPECT_EQ(4, list[0][3]); /* tunnel 4 before tunnel 300 */

    TBDL_MEMB_CFG_S st = Memb(4);
    EXPECT_EQ(0u, TBDL_DBM_SetMemb(1, 1, &st));
    EXPECT_EQ(1u, fake::Db().at(MembKey(1)).size());
    st = Memb(300);
    EXPECT_EQ(0u, TBDL_DBM_SetMemb(1, 1, &st));
    EXPECT_EQ(0u, fake::Db().count(MembKey(1)));

    /* Remove all of bundle 2: its key goes, nothing else is touched. */
    TBDL_DBM_BND_S stBnd = Bnd(2);
    ASSERT_EQ(0u, TBDL_DBM_SetBnd(0, &stBnd));
    fake::ClearJournal();
    EXPECT_EQ(0u, TBDL_DBM_SetMemb(1, 2, nullptr));
    EXPECT_EQ((std::vector<std::string>{"DBM_DeleteKey"}), fake::Names());
    EXPECT_EQ(MembKey(2), fake::CallsOf("DBM_DeleteKey").at(0).data);
    EXPECT_EQ(0u, fake::Db().count(MembKey(2)));
    EXPECT_EQ(1u, fake::Db().count(kBndKey));
}

struct FailCase {
    const char *pcWhat;
    const char *pcFailCall;
    bool bMemb;
    u16 usDel;
    const char *pcLine; /* expected log line, or nullptr */
};

TEST_F(DbmTest, FailuresAreLoggedAsTheOperationSays)
{
    const FailCase cases[] = {
        {"bundle insert", "DBM_InsertSortList", false, 0,
         "ERROR Failed to save tunnel bundle interface (7) to DBM.\r\n"},
        {"bundle removal", "DBM_RemoveSortList", false, 1,
         "ERROR Failed to delete tunnel bundle interface (7) from DBM.\r\n"},
        {"member insert", "DBM_InsertSortList", true, 0, "ERROR Failed to save member (12) to DBM.\r\n"},
        {"member removal", "DBM_RemoveSortList", true, 1,
         "ERROR Failed to delete member (12) from DBM.\r\n"},
        {"bundle sort word", "DBM_SetSortWord", false, 0, nullptr},
        {"member sort word", "DBM_SetSortWord", true, 0, nullptr},
    };
    for (const FailCase &fc : cases) {
        SCOPED_TRACE(fc.pcWhat);
        fake::Db().clear();
        /* One stored record, so removals find their list. */
        TBDL_DBM_BND_S stBnd = Bnd(7);
        TBDL_MEMB_CFG_S stMemb = Memb(12);
        if (fc.usDel == 1) {
            ASSERT_EQ(0u, fc.bMemb ? TBDL_DBM_SetMemb(0, 1, &stMemb) : TBDL_DBM_SetBnd(0, &stBnd));
        }
        fake::ClearJournal();
        size_t ulLinesBefore = fake::LogLines().size();
        fake::FailOnce(fc.pcFailCall, 0x99);
        u32 uiRet = fc.bMemb ? TBDL_DBM_SetMemb(fc.usDel, 1, &stMemb) : TBDL_DBM_SetBnd(fc.usDel, &stBnd);
        EXPECT_EQ(0x99u, uiRet);
        std::vector<std::string> lines = fake::LogLines();
        lines.erase(lines.begin(), lines.begin() + static_cast<long>(ulLinesBefore));
        if (fc.pcLine != nullptr) {
            EXPECT_EQ(std::vector<std::string>{fc.pcLine}, lines);
        } else {
            EXPECT_TRUE(lines.empty());
            EXPECT_EQ(0u, fake::CountOf("DBM_InsertSortList")); /* nothing inserted */
        }
        if (fc.usDel == 1) {
            /* The record is still there: the list is not empty, the key stays. */
            EXPECT_EQ(0u, fake::CountOf("DBM_DeleteKey"));
        }
    }
}

TEST_F(DbmTest, FailedRemovalStillDeletesAnEmptyKey)
{
    /* The list exists but holds nothing: the removal fails, the key goes. */
    fake::DbPut(kBndKey, 20, Bytes(32, 0));
    fake::Db()[kBndKey].clear();
    TBDL_DBM_BND_S st = Bnd(5);
    EXPECT_NE(0u, TBDL_DBM_SetBnd(1, &st));
    EXPECT_EQ(1u, fake::CountOf("DBM_DeleteKey"));
    EXPECT_EQ(0u, fake::Db().count(kBndKey));
    EXPECT_EQ((std::vector<std::string>{"ERROR Failed to delete tunnel bundle interface (5) from DBM.\r\n"}),
              fake::LogLines());
}

} // namespace
