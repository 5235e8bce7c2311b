/* The one behaviour of the recording fake whose fault would let module tests
 * pass silently: a private-data walk that deletes the current entry must
 * still visit every entry (deactivation unbinds members this way). */
#include <gtest/gtest.h>

#include "fake_platform.h"

namespace {

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
    for (u32 r = IF_GetFirstPrivateData(ulInst, &uiIdx, &pv); r == 0; r = IF_GetNextPrivateData(ulInst, &uiIdx, &pv)) {
        seen.push_back(uiIdx);
        ASSERT_EQ(0u, IF_DelPrivateData(ulInst, uiIdx, nullptr));
    }
    EXPECT_EQ((std::vector<u32>{0x2e0, 0x2f0, 0x300}), seen);
    EXPECT_TRUE(fake::PrivateData().empty());
}

} // namespace
