/* Per-interface private data store. */
#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

#include "plat_if.h"

namespace {

std::vector<int> g_freed;

void FreeInt(void *p)
{
    g_freed.push_back(*static_cast<int *>(p));
    delete static_cast<int *>(p);
}

/* A new instance holding, at each index given, an int of that value. */
u64 Instance(std::initializer_list<u32> ifIndexes)
{
    g_freed.clear();
    u64 inst = IF_CreatePDInstance(2, 0, ~u64{0}, ~u32{0});
    EXPECT_NE(inst, IF_PD_INSTANCE_NONE);
    for (u32 ifIndex : ifIndexes) {
        EXPECT_EQ(IF_SetPrivateData(inst, ifIndex, new int(static_cast<int>(ifIndex))), 0u);
    }
    return inst;
}

TEST(PrivateData, WalkDeletingTheCurrentEntryVisitsAllInAscendingOrder)
{
    u64 inst = Instance({900u, 5u, 70u, 0xfffffff0u, 6u});
    std::vector<u32> visited;
    u32 ifIndex = 0;
    void *data = nullptr;
    for (u32 rc = IF_GetFirstPrivateData(inst, &ifIndex, &data); rc == 0;
         rc = IF_GetNextPrivateData(inst, &ifIndex, &data)) {
        EXPECT_EQ(*static_cast<int *>(data), static_cast<int>(ifIndex));
        visited.push_back(ifIndex);
        ASSERT_EQ(IF_DelPrivateData(inst, ifIndex, FreeInt), 0u);
    }
    EXPECT_EQ(visited, (std::vector<u32>{5, 6, 70, 900, 0xfffffff0u}));
    EXPECT_EQ(g_freed, (std::vector<int>{5, 6, 70, 900, static_cast<int>(0xfffffff0u)}));
    EXPECT_NE(IF_GetFirstPrivateData(inst, &ifIndex, &data), 0u);
    EXPECT_EQ(IF_DestroyPDInstance(inst, FreeInt), 0u);
}

TEST(PrivateData, SetRefusesATakenIndexAndDelAndDestroyFreeOnlyTheirOwn)
{
    u64 inst = Instance({7});
    u64 other = IF_CreatePDInstance(2, 0, ~u64{0}, ~u32{0});
    ASSERT_NE(other, inst);
    int second = 99; /* refused: stays the caller's */
    EXPECT_NE(IF_SetPrivateData(inst, 7, &second), 0u);
    EXPECT_NE(IF_SetPrivateData(inst, 8, nullptr), 0u);
    void *data = &second;
    EXPECT_NE(IF_GetPrivateData(inst, 8, &data), 0u);
    EXPECT_NE(IF_GetPrivateData(other, 7, &data), 0u);
    EXPECT_EQ(data, &second);
    EXPECT_NE(IF_DelPrivateData(inst, 8, FreeInt), 0u);
    EXPECT_EQ(IF_DestroyPDInstance(other, FreeInt), 0u);
    EXPECT_TRUE(g_freed.empty());
    ASSERT_EQ(IF_GetPrivateData(inst, 7, &data), 0u);
    EXPECT_EQ(*static_cast<int *>(data), 7);
    ASSERT_EQ(IF_SetPrivateData(inst, 3, new int(3)), 0u);
    EXPECT_EQ(IF_DelPrivateData(inst, 7, FreeInt), 0u);
    EXPECT_EQ(g_freed, std::vector<int>{7});
    EXPECT_EQ(IF_DestroyPDInstance(inst, FreeInt), 0u);
    EXPECT_EQ(g_freed, (std::vector<int>{7, 3}));
    EXPECT_NE(IF_DestroyPDInstance(inst, FreeInt), 0u);
    EXPECT_NE(IF_SetPrivateData(inst, 3, &second), 0u);
}

} // namespace
