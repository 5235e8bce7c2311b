/* Per-interface private data store. */
#include <gtest/gtest.h>

#include <vector>

#include "plat_if.h"

namespace {

std::vector<int> g_freed;

void FreeInt(void *p)
{
    g_freed.push_back(*static_cast<int *>(p));
    delete static_cast<int *>(p);
}

class PrivateDataTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_freed.clear();
        inst_ = IF_CreatePDInstance(2, 0, ~u64{0}, ~u32{0});
        ASSERT_NE(inst_, IF_PD_INSTANCE_NONE);
    }
    void TearDown() override
    {
        if (inst_ != IF_PD_INSTANCE_NONE) {
            EXPECT_EQ(IF_DestroyPDInstance(inst_, FreeInt), 0u);
        }
    }
    void Add(u32 ifIndex) { ASSERT_EQ(IF_SetPrivateData(inst_, ifIndex, new int(static_cast<int>(ifIndex))), 0u); }

    u64 inst_ = IF_PD_INSTANCE_NONE;
};

TEST_F(PrivateDataTest, WalkDeletingTheCurrentEntryVisitsAllInAscendingOrder)
{
    for (u32 ifIndex : {900u, 5u, 70u, 0xfffffff0u, 6u}) {
        Add(ifIndex);
    }
    std::vector<u32> visited;
    u32 ifIndex = 0;
    void *data = nullptr;
    for (u32 rc = IF_GetFirstPrivateData(inst_, &ifIndex, &data); rc == 0;
         rc = IF_GetNextPrivateData(inst_, &ifIndex, &data)) {
        EXPECT_EQ(*static_cast<int *>(data), static_cast<int>(ifIndex));
        visited.push_back(ifIndex);
        ASSERT_EQ(IF_DelPrivateData(inst_, ifIndex, FreeInt), 0u);
    }
    EXPECT_EQ(visited, (std::vector<u32>{5, 6, 70, 900, 0xfffffff0u}));
    EXPECT_EQ(g_freed, (std::vector<int>{5, 6, 70, 900, static_cast<int>(0xfffffff0u)}));
    EXPECT_NE(IF_GetFirstPrivateData(inst_, &ifIndex, &data), 0u);
}

TEST_F(PrivateDataTest, SetRefusesATakenIndexAndDelAndDestroyFreeOnlyTheirOwn)
{
    Add(7);
    u64 other = IF_CreatePDInstance(2, 0, ~u64{0}, ~u32{0});
    ASSERT_NE(other, inst_);
    int second = 99; /* refused: stays the caller's */
    EXPECT_NE(IF_SetPrivateData(inst_, 7, &second), 0u);
    EXPECT_NE(IF_SetPrivateData(inst_, 8, nullptr), 0u);
    void *data = &second;
    EXPECT_NE(IF_GetPrivateData(inst_, 8, &data), 0u);
    EXPECT_NE(IF_GetPrivateData(other, 7, &data), 0u);
    EXPECT_EQ(data, &second);
    EXPECT_NE(IF_DelPrivateData(inst_, 8, FreeInt), 0u);
    EXPECT_EQ(IF_DestroyPDInstance(other, FreeInt), 0u);
    EXPECT_TRUE(g_freed.empty());
    ASSERT_EQ(IF_GetPrivateData(inst_, 7, &data), 0u);
    EXPECT_EQ(*static_cast<int *>(data), 7);
    Add(3);
    EXPECT_EQ(IF_DelPrivateData(inst_, 7, FreeInt), 0u);
    EXPECT_EQ(g_freed, std::vector<int>{7});
    EXPECT_EQ(IF_DestroyPDInstance(inst_, FreeInt), 0u);
    EXPECT_EQ(g_freed, (std::vector<int>{7, 3}));
    EXPECT_NE(IF_DestroyPDInstance(inst_, FreeInt), 0u);
    EXPECT_NE(IF_SetPrivateData(inst_, 3, &second), 0u);
    inst_ = IF_PD_INSTANCE_NONE;
}

} // namespace
