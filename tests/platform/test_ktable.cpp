/* A board's kernel bundle table in its shared file: the capacity limits,
 * forgotten bundles, a holder that dies with the lock, and the library's
 * CIOCTL applying commands in place. */
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <thread>

#include "ktable.h"
#include "plat_cioctl.h"
#include "plat_test_env.h"

namespace {

using namespace tbdl::plat;

class Ktable : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(t = KtCreate(KtPathOf(env.Dir(), 0)), nullptr); }
    void TearDown() override { KtClose(t); }
    uint32_t Memb(uint32_t cmd, uint32_t bnd, uint32_t memb)
    {
        TBDL_KMEMB_S m{bnd, memb};
        return KtCommand(t, TBDL_KTBDL_DEV, cmd, &m, sizeof(m));
    }
    uint32_t Update(uint32_t ifIndex)
    {
        TBDL_KBND_S b{{2, {}, {10, 0, 0, 1}}, ifIndex, 1, 1, 0, 0};
        return KtCommand(t, TBDL_KTBDL_DEV, TBDL_KCMD_BND_UPDATE, &b, sizeof(b));
    }
    KtSnapshot Read()
    {
        KtSnapshot s;
        EXPECT_TRUE(KtRead(t, s));
        return s;
    }
    std::vector<uint32_t> Members(const KtSnapshot &s, uint32_t bnd)
    {
        for (const KtBundle &b : s.bundles) {
            if (b.uiIfIndex == bnd) {
                return {b.auiMemb, b.auiMemb + b.uiMembCnt};
            }
        }
        return {};
    }
    plattest::TempChassis env;
    KtTable *t = nullptr;
};

/* A holder that never lets go (a stopped daemon): a command and a read
 * give up after the wait instead of hanging chassisd, and commands work
 * again once it lets go. */
TEST_F(Ktable, AHolderThatNeverLetsGoMakesCallersGiveUp)
{
    ASSERT_TRUE(KtLockTable(t));
    uint32_t rc = 0;
    bool read = true;
    std::thread other([&] {
        rc = Update(5);
        KtSnapshot s;
        read = KtRead(t, s);
    });
    other.join();
    EXPECT_EQ(rc, kKtBroken);
    EXPECT_FALSE(read);
    KtUnlockTable(t);
    EXPECT_EQ(Update(5), 0u);
}

TEST_F(Ktable, FullMemberListAndFullTableRefuseAndCount)
{
    std::vector<uint32_t> order;
    for (uint32_t m = kKtMembers; m > 0; --m) {
        ASSERT_EQ(Memb(TBDL_KCMD_MEMB_ADD, 7, m), 0u);
        order.push_back(m);
    }
    EXPECT_EQ(Memb(TBDL_KCMD_MEMB_ADD, 7, 1000), kKtNoSpace);
    EXPECT_EQ(Memb(TBDL_KCMD_MEMB_ADD, 7, 1), 0u) << "a member already there is taken again";
    for (uint32_t i = 1; i < kKtBundles; ++i) {
        ASSERT_EQ(Update(0x1000 + i), 0u) << i;
    }
    EXPECT_EQ(Update(0x9999), kKtNoSpace);
    EXPECT_EQ(Memb(TBDL_KCMD_MEMB_ADD, 0x9999, 1), kKtNoSpace);
    EXPECT_EQ(Update(7), 0u) << "a bundle already there is updated";
    KtSnapshot s = Read();
    EXPECT_EQ(s.bundles.size(), kKtBundles);
    EXPECT_EQ(Members(s, 7), order);
    EXPECT_EQ(std::vector<uint64_t>(s.counts, s.counts + KT_CNT_NUM),
              std::vector<uint64_t>({kKtBundles, kKtMembers + 1, 0, 3}));
}

/* Forgetting bundles moves others up their search paths: every bundle
 * left is still found (no second entry appears for it) and the freed room
 * takes new ones. */
TEST_F(Ktable, ForgottenBundlesLeaveTheOthersFoundAndTheirRoomFree)
{
    for (uint32_t i = 0; i < kKtBundles; ++i) {
        ASSERT_EQ(Update(i * 3), 0u);
    }
    for (uint32_t i = 1; i < kKtBundles; i += 2) {
        KtForget(t, i * 3);
    }
    KtForget(t, 1); /* not there */
    for (uint32_t i = 0; i < kKtBundles; i += 2) {
        ASSERT_EQ(Memb(TBDL_KCMD_MEMB_ADD, i * 3, 5), 0u);
    }
    KtSnapshot s = Read();
    ASSERT_EQ(s.bundles.size(), kKtBundles / 2);
    for (size_t n = 0; n < s.bundles.size(); ++n) {
        EXPECT_EQ(s.bundles[n].uiIfIndex, n * 6);
        EXPECT_EQ(s.bundles[n].uiMembCnt, 1u) << n;
    }
    for (uint32_t i = 0; i < kKtBundles / 2; ++i) {
        ASSERT_EQ(Update(0x100000 + i), 0u) << i;
    }
    EXPECT_EQ(Update(0x200000), kKtNoSpace);
}

/* A process that dies or exits holding the lock: the next locker gets a
 * usable table in which the dead holder's first member add to a new
 * bundle is either not made or made exactly once. */
TEST_F(Ktable, HolderThatDiesLeavesTheCommandUndoneOrDoneOnce)
{
    enum Stage { LOCKED, RECORD_INCOMPLETE, RECORD_PENDING, HALF_MADE, MADE_NOT_CLEARED };
    struct Case {
        const char *what;
        Stage stage;
        bool kill;
        bool made;
    } cases[] = {
        {"killed holding the lock", LOCKED, true, false},
        {"exited holding the lock", LOCKED, false, false},
        {"killed before its record was complete", RECORD_INCOMPLETE, true, false},
        {"killed with its record pending", RECORD_PENDING, true, true},
        {"killed with the bundle written, not its index entry", HALF_MADE, true, true},
        {"killed after the change, record still pending", MADE_NOT_CLEARED, true, true},
    };
    uint32_t bnd = 100;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        ++bnd;
        ASSERT_EQ(Update(bnd + 1000), 0u);
        KtSnapshot before = Read();
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            KtLockTable(t);
            TBDL_KMEMB_S m{bnd, 2};
            if (c.stage != LOCKED) {
                KtStage(t, TBDL_KTBDL_DEV, TBDL_KCMD_MEMB_ADD, &m, sizeof(m));
            }
            KtRedo &r = t->stRedo;
            r.uiPending = c.stage == RECORD_INCOMPLETE ? 0 : r.uiPending;
            if (c.stage >= HALF_MADE) {
                t->astBnd[r.uiBnd] = r.stBnd;
            }
            if (c.stage == MADE_NOT_CLEARED) {
                t->auiIndex[r.uiSlot] = r.uiSlotValue;
                t->uiUsed = r.uiUsed;
                t->aulCount[r.uiCounter] = r.ulCount;
            }
            (void)(c.kill ? raise(SIGKILL) : 0);
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        KtSnapshot s = Read();
        EXPECT_EQ(s.counts[KT_CNT_ADD], before.counts[KT_CNT_ADD] + (c.made ? 1 : 0));
        EXPECT_EQ(s.bundles.size(), before.bundles.size() + (c.made ? 1 : 0));
        EXPECT_EQ(Members(s, bnd), c.made ? std::vector<uint32_t>({2}) : std::vector<uint32_t>());
        EXPECT_EQ(Memb(TBDL_KCMD_MEMB_ADD, bnd, 3), 0u) << "the table is usable after";
        EXPECT_EQ(Members(Read(), bnd).back(), 3u);
    }
}

/* With its board's table mapped the library needs no chassisd: the
 * command is made in place, its buffer checked first. */
TEST_F(Ktable, LibraryCioctlMakesTheCommandInPlace)
{
    TBDL_KMEMB_S m{9, 10};
    EXPECT_EQ(CIOCTL(TBDL_KTBDL_DEV, TBDL_KCMD_MEMB_ADD, sizeof(m), &m, 0, 0, 0), 0u);
    EXPECT_EQ(CIOCTL(TBDL_KTBDL_DEV, TBDL_KCMD_MEMB_ADD, kKtMaxPayload + 1, &m, 0, 0, 0), kKtInvalid);
    EXPECT_EQ(CIOCTL(TBDL_KTBDL_DEV, TBDL_KCMD_MEMB_ADD, sizeof(m), nullptr, 0, 0, 0), kKtInvalid);
    EXPECT_EQ(CIOCTL(0x1234, TBDL_KCMD_MEMB_ADD, sizeof(m), &m, 0, 0, 0), kKtNoDevice);
    KtSnapshot s = Read();
    EXPECT_EQ(Members(s, 9), std::vector<uint32_t>({10}));
    EXPECT_EQ(std::vector<uint64_t>(s.counts, s.counts + KT_CNT_NUM), std::vector<uint64_t>({0, 1, 0, 1}));
}

} // namespace
