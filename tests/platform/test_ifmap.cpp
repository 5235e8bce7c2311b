/* The shared interface table: its two indexes through fills, colliding
 * keys and removals in several orders, and a reader that keeps its mapping
 * while the writer starts over. */
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

#include "ifmap.h"
#include "plat_test_env.h"

namespace {

using namespace tbdl::plat;

IfMapSlot Tunnel(uint32_t n)
{
    IfMapSlot s{};
    std::snprintf(s.acName, sizeof(s.acName), "Tunnel%u", n);
    s.uiIfIndex = 0x100 + n;
    s.uiNumber = n;
    s.usVrf = static_cast<uint16_t>(n);
    return s;
}

/* Tunnel n is found by name and by index with its own record, or by
 * neither. */
testing::AssertionResult Holds(const IfMapFile *m, uint32_t n, bool want)
{
    IfMapSlot a{}, b{};
    IfMapRead byName = IfMapFindName(m, Tunnel(n).acName, a);
    IfMapRead byIndex = IfMapFindIndex(m, Tunnel(n).uiIfIndex, b);
    IfMapRead expect = want ? IfMapRead::FOUND : IfMapRead::ABSENT;
    if (byName == expect && byIndex == expect && (!want || (a.uiNumber == n && b.uiNumber == n && a.usVrf == n))) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "Tunnel" << n << ": by name " << static_cast<int>(byName) << " number "
                                       << a.uiNumber << ", by index " << static_cast<int>(byIndex) << " number "
                                       << b.uiNumber;
}

class IfMapTable : public testing::Test {
protected:
    plattest::TempChassis chassis;
    std::string path = IfMapPathOf(chassis.Dir());
    IfMapFile *w = IfMapCreate(path);
    const IfMapFile *r = IfMapOpen(path);
    void TearDown() override
    {
        IfMapClose(r);
        IfMapClose(w);
    }
};

TEST_F(IfMapTable, FullTableThenRemovalsInSeveralOrders)
{
    ASSERT_NE(w, nullptr);
    ASSERT_NE(r, nullptr);
    for (uint32_t n = 0; n < kIfMapCapacity; ++n) {
        ASSERT_TRUE(IfMapPut(w, Tunnel(n)));
    }
    EXPECT_FALSE(IfMapPut(w, Tunnel(kIfMapCapacity))) << "one more than the capacity";
    const struct {
        const char *what;
        bool (*removed)(uint32_t n);
    } phases[] = {
        {"every third", [](uint32_t n) { return n % 3 == 0; }},
        {"then the upper half", [](uint32_t n) { return n % 3 == 0 || n >= kIfMapCapacity / 2; }},
        {"then all", [](uint32_t) { return true; }},
    };
    for (const auto &p : phases) {
        uint32_t left = 0;
        for (uint32_t n = kIfMapCapacity; n-- > 0;) {
            if (p.removed(n)) {
                IfMapRemove(w, Tunnel(n).uiIfIndex);
            }
        }
        for (uint32_t n = 0; n < kIfMapCapacity; ++n) {
            ASSERT_TRUE(Holds(r, n, !p.removed(n))) << p.what;
            left += p.removed(n) ? 0 : 1;
        }
        EXPECT_EQ(r->stHdr.uiCount, left) << p.what;
    }
    ASSERT_TRUE(IfMapPut(w, Tunnel(7)));
    EXPECT_TRUE(Holds(r, 7, true)) << "a slot freed by removals is used again";
}

TEST_F(IfMapTable, AReaderKeepsItsMappingAcrossARestartOfTheWriter)
{
    ASSERT_TRUE(IfMapPut(w, Tunnel(2)));
    IfMapFile *again = IfMapCreate(path); /* chassisd starting again */
    ASSERT_NE(again, nullptr);
    EXPECT_TRUE(Holds(r, 2, false));
    ASSERT_TRUE(IfMapPut(again, Tunnel(3)));
    EXPECT_TRUE(Holds(r, 3, true));
    EXPECT_EQ(r->stHdr.uiSeq.load() % 2, 0u);
    IfMapClose(again);
}

/* Removing Tunnel0 or Tunnel1 moves another record into its slot, so a
 * reader that trusted a copy taken during a change would get another
 * interface's record. */
TEST_F(IfMapTable, ReadersNeverKeepACopyTakenDuringAChange)
{
    for (uint32_t n = 0; n < 4; ++n) {
        ASSERT_TRUE(IfMapPut(w, Tunnel(n)));
    }
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (uint32_t k = 0; !stop.load(); ++k) {
            IfMapRemove(w, Tunnel(k % 2).uiIfIndex);
            IfMapPut(w, Tunnel(k % 2));
        }
    });
    uint32_t found = 0, wrong = 0;
    for (uint32_t i = 0; i < 200000; ++i) {
        IfMapSlot s{};
        if (IfMapFindIndex(r, Tunnel(i % 4).uiIfIndex, s) == IfMapRead::FOUND) {
            ++found;
            wrong += s.uiNumber == i % 4 && s.usVrf == i % 4 ? 0 : 1;
        }
    }
    stop = true;
    writer.join();
    EXPECT_EQ(wrong, 0u) << "of " << found << " records found";
    EXPECT_GT(found, 0u);
}

} // namespace
