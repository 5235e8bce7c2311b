/* Checks of the recording fake itself where a fault would silently mislead
 * the module tests: database order and batch walk, the private-data walk,
 * TLV bounds, scripted results and the HA channel. */
#include <sys/epoll.h>

#include <gtest/gtest.h>

#include "fake_platform.h"

namespace {

using fake::Bytes;

u64 OpenDb()
{
    u32 auiParam[8] = {};
    u64 ulHandle = DBM_HANDLE_NONE;
    EXPECT_EQ(0u, DBM_Open("eTBDL", "TBDL", 7, auiParam, &ulHandle, 32, -1));
    return ulHandle;
}

Bytes Rec4(uint32_t uiBe)
{
    return {static_cast<uint8_t>(uiBe >> 24), static_cast<uint8_t>(uiBe >> 16),
            static_cast<uint8_t>(uiBe >> 8), static_cast<uint8_t>(uiBe), 0xAA};
}

TEST(FakeDbm, KeepsSortWordOrderAndReplacesEqualWords)
{
    fake::Reset();
    u64 h = OpenDb();
    const uint8_t aucKey[1] = {1};
    ASSERT_EQ(0u, DBM_SetSortWord(h, aucKey, 1, 1, 0, 4, 19, 0));
    /* 0x100 sorts after 0x2 only when compared big-endian as stored. */
    for (uint32_t ui : {0x100u, 0x2u, 0x30u}) {
        Bytes rec = Rec4(ui);
        ASSERT_EQ(0u, DBM_InsertSortList(h, aucKey, 1, 5, rec.data(), 0));
    }
    Bytes repl = Rec4(0x30);
    repl[4] = 0xBB;
    ASSERT_EQ(0u, DBM_InsertSortList(h, aucKey, 1, 5, repl.data(), 0));
    ASSERT_EQ(1u, fake::Db().size());
    const auto &list = fake::Db().begin()->second;
    ASSERT_EQ(3u, list.size());
    EXPECT_EQ(Rec4(0x2), list[0]);
    EXPECT_EQ(repl, list[1]);
    EXPECT_EQ(Rec4(0x100), list[2]);
    Bytes gone = Rec4(0x2);
    EXPECT_EQ(0u, DBM_RemoveSortList(h, aucKey, 1, 5, gone.data()));
    EXPECT_NE(0u, DBM_RemoveSortList(h, aucKey, 1, 5, gone.data()));
    EXPECT_EQ(2u, DBM_Len(h, aucKey, 1));
    /* A list without a sort word takes no records. */
    const uint8_t aucOther[1] = {9};
    EXPECT_NE(0u, DBM_InsertSortList(h, aucOther, 1, 5, repl.data(), 0));
}

struct WalkSeen {
    std::vector<Bytes> keys;
    std::vector<int> blocks;
};
WalkSeen g_stSeen;

u32 WalkCb(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    const auto *puc = static_cast<const uint8_t *>(pvKey);
    g_stSeen.keys.emplace_back(puc, puc + uiKeyLen);
    void *pvIter = nullptr;
    uint8_t aucBuf[2 * 5];
    i32 n;
    while ((n = DBM_BatchGetNextSortList(ulHandle, pvKey, uiKeyLen, &pvIter, 0, 0, 5, 2, aucBuf)) > 0) {
        g_stSeen.blocks.push_back(n);
    }
    DBM_FreeIterator(pvIter);
    return 0;
}

TEST(FakeDbm, BatchWalkServesRowsInTableOrderAndKeysAscending)
{
    fake::Reset();
    g_stSeen = {};
    u64 h = OpenDb();
    fake::DbPut({2, 0, 0, 0, 9}, 0, Rec4(1));
    fake::DbPut({2, 0, 0, 0, 3}, 0, Rec4(1));
    for (uint32_t ui = 1; ui <= 5; ui++) {
        fake::DbPut({1}, 0, Rec4(ui));
    }
    fake::DbPut({7}, 0, Rec4(1)); /* matched by no row */
    DBM_BATCH_ROW_S astRows[2] = {{0, WalkCb, 0}, {1, WalkCb, 0}};
    ASSERT_EQ(0u, DBM_Batch_Proc(h, -1, astRows, 2));
    std::vector<Bytes> want = {{1}, {2, 0, 0, 0, 3}, {2, 0, 0, 0, 9}};
    EXPECT_EQ(want, g_stSeen.keys);
    EXPECT_EQ((std::vector<int>{2, 2, 1, 1, 1}), g_stSeen.blocks);
}

TEST(FakeIf, PrivateDataWalkSurvivesDeletionOfCurrentEntry)
{
    fake::Reset();
    u64 ulInst = IF_CreatePDInstance(2, 0, ~0ull, ~0u);
    int aiData[3] = {};
    for (u32 i = 0; i < 3; i++) {
        ASSERT_EQ(0u, IF_SetPrivateData(ulInst, 0x300 - i * 0x10, &aiData[i]));
    }
    EXPECT_NE(0u, IF_SetPrivateData(ulInst, 0x300, &aiData[0]));
    std::vector<u32> seen;
    u32 uiIdx = 0;
    void *pv = nullptr;
    for (u32 r = IF_GetFirstPrivateData(ulInst, &uiIdx, &pv); r == 0;
         r = IF_GetNextPrivateData(ulInst, &uiIdx, &pv)) {
        seen.push_back(uiIdx);
        ASSERT_EQ(0u, IF_DelPrivateData(ulInst, uiIdx, nullptr));
    }
    EXPECT_EQ((std::vector<u32>{0x2e0, 0x2f0, 0x300}), seen);
    EXPECT_TRUE(fake::PrivateData().empty());
}

TEST(FakeCodec, StlvGetNeverRunsPastTheEnd)
{
    fake::Reset();
    const uint8_t aucBuf[] = {0x01, 0x02, 0x00, 0x03, 'a', 'b', 'c', 0x00, 0x05};
    u16 usType = 0, usLen = 0;
    const void *pv = nullptr;
    EXPECT_EQ(0u, STLV_Get(aucBuf, 7, &usType, &usLen, &pv));
    EXPECT_EQ(0x0102, usType);
    EXPECT_EQ(3, usLen);
    EXPECT_EQ(aucBuf + 4, pv);
    EXPECT_EQ(1u, STLV_Get(aucBuf, 6, &usType, &usLen, &pv)); /* value runs past */
    EXPECT_EQ(nullptr, pv);
    EXPECT_EQ(1u, STLV_Get(aucBuf + 7, 2, &usType, &usLen, &pv)); /* short header */
    uint8_t aucOut[7] = {};
    EXPECT_EQ(0u, STLV_Set(aucOut, 6, 0x0102, 3, "abc"));
    EXPECT_EQ(7u, STLV_Set(aucOut, 7, 0x0102, 3, "abc"));
    EXPECT_EQ(0, memcmp(aucOut, aucBuf, 7));
}

TEST(FakeCore, ScriptedResultsFireOnTheRightCall)
{
    fake::Reset();
    fake::FailNth("SERVICE_SetStatus", 2, 7);
    fake::FailOnce("SERVICE_SetStatus", 5);
    EXPECT_EQ(5u, SERVICE_SetStatus(2));
    EXPECT_EQ(7u, SERVICE_SetStatus(2));
    EXPECT_EQ(0u, SERVICE_SetStatus(2));
    fake::FailAlways("SERVICE_SetStatus", 9);
    EXPECT_EQ(9u, SERVICE_SetStatus(2));
    EXPECT_EQ(9u, SERVICE_SetStatus(2));
    /* Scripted calls do not run the emulation. */
    EXPECT_EQ(std::vector<uint32_t>{2}, fake::ServiceStatuses());
    EXPECT_EQ(5u, fake::CountOf("SERVICE_SetStatus"));
}

u32 g_uiHaEvents = 0;
std::vector<Bytes> g_vecHaMsgs;

TEST(FakeHa, PushedInputIsReadableAndDispatchedInOrder)
{
    fake::Reset();
    g_uiHaEvents = 0;
    g_vecHaMsgs.clear();
    HA_CALLBACKS_S stCb = {
        [](void *pv, u16 usLen, u32) -> u32 {
            const auto *puc = static_cast<const uint8_t *>(pv);
            g_vecHaMsgs.emplace_back(puc, puc + usLen);
            HA_FreeMsg(pv);
            return 0;
        },
        [](u32 uiEvent) -> u32 {
            g_uiHaEvents = g_uiHaEvents * 10 + uiEvent + 1;
            return 0;
        }};
    uint8_t aucIdent[8] = {};
    i32 iFd = HA_Init("TBDL", 0, "TBDL", 1, 2, aucIdent, &stCb);
    ASSERT_GE(iFd, 0);
    int iEp = epoll_create(1);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ASSERT_EQ(0, epoll_ctl(iEp, EPOLL_CTL_ADD, iFd, &ev));
    EXPECT_EQ(0, epoll_wait(iEp, &ev, 1, 0));
    fake::HaPushEvent(1);
    fake::HaPushMessage({1, 2, 3}, 1);
    fake::HaPushEvent(2);
    ASSERT_EQ(1, epoll_wait(iEp, &ev, 1, 0));
    EXPECT_EQ(0u, HA_Dispatch(EPOLLIN, static_cast<u64>(iFd)));
    EXPECT_EQ(23u, g_uiHaEvents);
    EXPECT_EQ(std::vector<Bytes>{Bytes({1, 2, 3})}, g_vecHaMsgs);
    EXPECT_EQ(0, epoll_wait(iEp, &ev, 1, 0));
    close(iEp);
    EXPECT_EQ(0u, HA_Exit(iFd));
}

} // namespace
