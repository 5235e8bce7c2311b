/* Platform bitmaps. */
#include <gtest/gtest.h>

#include <set>

#include "plat_bitmap.h"

namespace {

TEST(Bitmap, SetCheckClearAcrossWordBoundaries)
{
    void *map = Bitmap_Create(130);
    ASSERT_NE(map, nullptr);
    const std::set<u32> bits = {0, 63, 64, 127, 128, 129};
    for (u32 bit : bits) {
        EXPECT_EQ(Bitmap_Set(map, bit), 0u) << bit;
    }
    for (u32 bit = 0; bit < 130; ++bit) {
        EXPECT_EQ(Bitmap_Check(map, bit), bits.count(bit)) << bit;
    }
    EXPECT_EQ(Bitmap_Clear(map, 64), 0u);
    EXPECT_EQ(Bitmap_Check(map, 64), 0u);
    EXPECT_EQ(Bitmap_Check(map, 63), 1u);
    Bitmap_Zero(map);
    for (u32 bit : bits) {
        EXPECT_EQ(Bitmap_Check(map, bit), 0u) << bit;
    }
    /* Out of range and null are refused. */
    EXPECT_EQ(Bitmap_Set(map, 130), 1u);
    EXPECT_EQ(Bitmap_Clear(map, 130), 1u);
    EXPECT_EQ(Bitmap_Check(map, 0xffffffffu), 0u);
    EXPECT_EQ(Bitmap_Set(nullptr, 0), 1u);
    EXPECT_EQ(Bitmap_Clear(nullptr, 0), 1u);
    EXPECT_EQ(Bitmap_Check(nullptr, 0), 0u);
    Bitmap_Zero(nullptr);
    Bitmap_Destroy(nullptr);
    Bitmap_Destroy(map);
}

} // namespace
