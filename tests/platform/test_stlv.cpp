/* STLV coding: golden bytes and the bounds of reading and writing. */
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "plat_stlv.h"

namespace {

using Bytes = std::vector<u8>;

TEST(StlvSet, WritesBigEndianHeaderAndValueOrNothing)
{
    const struct {
        const char *what;
        u32 room;
        u16 type;
        Bytes value;
        Bytes expect; /* also the reported length; empty: 0 and nothing written */
    } cases[] = {
        {"type and length big-endian", 64, 0x0102, {0xaa, 0xbb, 0xcc}, {0x01, 0x02, 0x00, 0x03, 0xaa, 0xbb, 0xcc}},
        {"empty value", 4, 405, {}, {0x01, 0x95, 0x00, 0x00}},
        {"exact fit", 6, 0xffff, {0x11, 0x22}, {0xff, 0xff, 0x00, 0x02, 0x11, 0x22}},
        {"value one byte too long", 5, 1, {0x11, 0x22}, {}},
        {"room smaller than a header", 3, 1, {}, {}},
        {"no room", 0, 1, {}, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Bytes buf(64, 0xee);
        u32 ret = STLV_Set(buf.data(), c.room, c.type, static_cast<u16>(c.value.size()), c.value.data());
        EXPECT_EQ(ret, c.expect.size());
        EXPECT_EQ(Bytes(buf.begin(), buf.begin() + ret), c.expect);
        /* Nothing is written past what the call reports. */
        EXPECT_TRUE(std::all_of(buf.begin() + ret, buf.end(), [](u8 b) { return b == 0xee; }));
    }
    /* A null value: only the header, in front of a value already placed. */
    Bytes buf = {0xee, 0xee, 0xee, 0xee, 0x10, 0x20, 0x30, 0x40};
    EXPECT_EQ(STLV_Set(buf.data(), 7, 1, 4, nullptr), 0u);
    EXPECT_EQ(STLV_Set(buf.data(), 8, 1, 4, nullptr), 8u);
    EXPECT_EQ(buf, (Bytes{0x00, 0x01, 0x00, 0x04, 0x10, 0x20, 0x30, 0x40}));
}

TEST(StlvGet, ReadsOneTlvAndNeverPastTheEnd)
{
    const struct {
        const char *what;
        Bytes buf;
        u32 remaining;
        u32 expectRet;
        u16 expectType, expectLen;
        int valueOffset; /* -1: no value */
    } cases[] = {
        {"one TLV", {0x00, 0x02, 0x00, 0x04, 1, 2, 3, 4}, 8, 0, 2, 4, 4},
        {"first of two", {0x00, 0xc9, 0x00, 0x01, 9, 0x00, 0x02, 0x00, 0x00}, 9, 0, 201, 1, 4},
        {"empty value at the very end", {0x12, 0x34, 0x00, 0x00}, 4, 0, 0x1234, 0, 4},
        {"value runs one byte past", {0x00, 0x02, 0x00, 0x04, 1, 2, 3}, 7, 1, 0, 0, -1},
        {"remaining shorter than the buffer", {0x00, 0x02, 0x00, 0x04, 1, 2, 3, 4}, 7, 1, 0, 0, -1},
        {"three bytes left", {0x00, 0x02, 0x00}, 3, 1, 0, 0, -1},
        {"nothing left", {}, 0, 1, 0, 0, -1},
        {"largest length", {0x00, 0x01, 0xff, 0xff}, 4, 1, 0, 0, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        u16 type = 0x5555;
        u16 len = 0x5555;
        const void *value = &type;
        EXPECT_EQ(STLV_Get(c.buf.data(), c.remaining, &type, &len, &value), c.expectRet);
        EXPECT_EQ(type, c.expectType);
        EXPECT_EQ(len, c.expectLen);
        EXPECT_EQ(value, c.valueOffset < 0 ? nullptr : c.buf.data() + c.valueOffset);
    }
}

} // namespace
