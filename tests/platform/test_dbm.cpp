/* Platform database on the chassis's SQLite store: list semantics, order,
 * batch walk, block reads, durability across kill -9, failed and
 * simultaneous opens. */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "dbm_store.h"
#include "plat_dbm.h"
#include "plat_test_env.h"

namespace {

using Bytes = std::vector<u8>;
using plattest::TempChassis;

/* A record of len bytes holding num big-endian at off (its sort word),
 * with byte extra at extraOff. */
Bytes Rec(size_t len, size_t off, u32 num, size_t extraOff = 0, u8 extra = 0)
{
    Bytes rec(len, 0);
    rec[extraOff] = extra;
    for (size_t i = 0; i < 4; ++i) {
        rec[off + i] = static_cast<u8>(num >> (24 - 8 * i));
    }
    return rec;
}

Bytes BndRec(u32 num, u8 mode = 1) { return Rec(32, 20, num, 24, mode); }
Bytes MembRec(u32 tnl) { return Rec(12, 0, tnl); }
Bytes MembKey(u32 bnd) { return Rec(5, 1, bnd, 0, 0x02); }

const Bytes kBndKey = {0x01};

std::string Hex(const Bytes &b) { return tbdl::plat::HexOf(b.data(), b.size()); }

u32 OpenDb(u64 &handle, const char *name = "eTBDL")
{
    static const u32 kParams[8] = {1, 0, 1, 32, 0, 0, 0, 0};
    return DBM_Open(name, "TBDL", 7, kParams, &handle, 32, -1);
}

/* Stores a record as the daemon does: the sort word first for a new key. */
u32 Store(u64 h, const Bytes &key, const Bytes &rec, u32 sortOff)
{
    u32 keyLen = static_cast<u32>(key.size());
    if (DBM_IsKeyExist(h, key.data(), keyLen) != 1) {
        u32 rc = DBM_SetSortWord(h, key.data(), keyLen, 1, sortOff, 4, 19, 0);
        if (rc != 0) {
            return rc;
        }
    }
    return DBM_InsertSortList(h, key.data(), keyLen, static_cast<u32>(rec.size()), rec.data(), 0);
}

/* Reads a whole list in blocks of 10; blockSizes gets each block's count. */
std::vector<Bytes> ReadList(u64 h, const Bytes &key, u32 recLen, std::vector<i32> *blockSizes = nullptr)
{
    std::vector<Bytes> out;
    void *iter = nullptr;
    for (int guard = 0; guard < 1000; ++guard) {
        Bytes buf(recLen * 10, 0);
        i32 n = DBM_BatchGetNextSortList(h, key.data(), static_cast<u32>(key.size()), &iter, 0, 0, recLen, 10,
                                         buf.data());
        if (blockSizes != nullptr) {
            blockSizes->push_back(n);
        }
        for (i32 i = 0; i < n; ++i) {
            out.emplace_back(buf.begin() + i * recLen, buf.begin() + (i + 1) * recLen);
        }
        if (n <= 0) {
            break;
        }
    }
    DBM_FreeIterator(iter);
    return out;
}

std::vector<u32> BndNums(const std::vector<Bytes> &recs)
{
    std::vector<u32> nums;
    for (const Bytes &r : recs) {
        nums.push_back((u32{r[20]} << 24) | (u32{r[21]} << 16) | (u32{r[22]} << 8) | r[23]);
    }
    return nums;
}

class DbmTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(OpenDb(h_), 0u); }
    void TearDown() override { EXPECT_EQ(DBM_Close(h_), 0u); }

    TempChassis chassis_;
    u64 h_ = DBM_HANDLE_NONE;
};

TEST_F(DbmTest, InsertNeedsASortWordAndReplacesOnAnEqualOne)
{
    Bytes rec = BndRec(5, 1);
    EXPECT_NE(DBM_InsertSortList(h_, kBndKey.data(), 1, 32, rec.data(), 0), 0u);
    EXPECT_EQ(DBM_IsKeyExist(h_, kBndKey.data(), 1), 0u);

    ASSERT_EQ(DBM_SetSortWord(h_, kBndKey.data(), 1, 1, 20, 4, 19, 0), 0u);
    EXPECT_EQ(DBM_IsKeyExist(h_, kBndKey.data(), 1), 1u);
    EXPECT_EQ(DBM_Len(h_, kBndKey.data(), 1), 0u);
    ASSERT_EQ(DBM_InsertSortList(h_, kBndKey.data(), 1, 32, rec.data(), 0), 0u);
    Bytes changed = BndRec(5, 4);
    ASSERT_EQ(DBM_InsertSortList(h_, kBndKey.data(), 1, 32, changed.data(), 0), 0u);
    EXPECT_EQ(ReadList(h_, kBndKey, 32), std::vector<Bytes>{changed});
    /* A record too short to hold its sort word is refused. */
    EXPECT_NE(DBM_InsertSortList(h_, kBndKey.data(), 1, 23, rec.data(), 0), 0u);
    EXPECT_EQ(DBM_Len(h_, kBndKey.data(), 1), 1u);
}

/* Another connection's data_version moves on each commit: storing bytes
 * already stored must not commit, storing any change must. */
TEST_F(DbmTest, StoringTheStoredBytesAgainCommitsNothing)
{
    sqlite3 *peer = nullptr;
    ASSERT_EQ(sqlite3_open(tbdl::plat::DatabasePathOf(chassis_.Dir()).c_str(), &peer), SQLITE_OK);
    auto version = [peer] {
        sqlite3_stmt *st = nullptr;
        sqlite3_prepare_v2(peer, "PRAGMA data_version", -1, &st, nullptr);
        sqlite3_int64 v = sqlite3_step(st) == SQLITE_ROW ? sqlite3_column_int64(st, 0) : -1;
        sqlite3_finalize(st);
        return v;
    };
    ASSERT_EQ(Store(h_, kBndKey, BndRec(5, 1), 20), 0u);
    const struct {
        Bytes rec;
        bool commits;
    } cases[] = {{BndRec(5, 1), false}, {BndRec(5, 4), true}, {BndRec(5, 4), false}, {BndRec(6, 4), true}};
    for (const auto &c : cases) {
        const sqlite3_int64 before = version();
        ASSERT_EQ(Store(h_, kBndKey, c.rec, 20), 0u);
        EXPECT_EQ(version() != before, c.commits) << Hex(c.rec);
    }
    EXPECT_EQ(BndNums(ReadList(h_, kBndKey, 32)), (std::vector<u32>{5, 6}));
    EXPECT_EQ(ReadList(h_, kBndKey, 32)[0], BndRec(5, 4));
    sqlite3_close(peer);
}

TEST_F(DbmTest, ListsComeBackInBigEndianSortWordOrderTenAtATimeAndBadReadsFail)
{
    std::vector<i32> blocks;
    EXPECT_TRUE(ReadList(h_, kBndKey, 32, &blocks).empty());
    EXPECT_EQ(blocks, std::vector<i32>{0}) << "a missing list reads as empty";
    EXPECT_TRUE(ReadList(DBM_HANDLE_NONE, kBndKey, 32, &blocks).empty());
    EXPECT_LT(blocks.back(), 0);
    void *iter = nullptr;
    EXPECT_LT(DBM_BatchGetNextSortList(h_, kBndKey.data(), 1, &iter, 0, 0, 32, 10, nullptr), 0);
    EXPECT_EQ(iter, nullptr);
    DBM_FreeIterator(nullptr);
    /* Powers of two, stored shuffled: any other comparison misorders them. */
    std::vector<u32> want;
    for (u32 i = 0; i < 25; ++i) {
        ASSERT_EQ(Store(h_, kBndKey, BndRec(1u << (i * 7 % 25)), 20), 0u);
        want.push_back(1u << i);
    }
    blocks.clear();
    EXPECT_EQ(BndNums(ReadList(h_, kBndKey, 32, &blocks)), want);
    EXPECT_EQ(blocks, (std::vector<i32>{10, 10, 5, 0}));

    /* An exact multiple of the block ends with an empty block. */
    for (u32 tnl = 0; tnl < 10; ++tnl) {
        ASSERT_EQ(Store(h_, MembKey(1), MembRec(tnl), 0), 0u);
    }
    blocks.clear();
    EXPECT_EQ(ReadList(h_, MembKey(1), 12, &blocks).size(), 10u);
    EXPECT_EQ(blocks, (std::vector<i32>{10, 0}));
}

TEST_F(DbmTest, RemoveMatchesOnTheSortWordAloneAndDeleteKeyTouchesOneList)
{
    for (u32 num : {1u, 2u, 3u}) {
        ASSERT_EQ(Store(h_, kBndKey, BndRec(num, 4), 20), 0u);
    }
    Bytes m7 = MembKey(7);
    ASSERT_EQ(Store(h_, m7, MembRec(10), 0), 0u);
    ASSERT_EQ(Store(h_, m7, MembRec(11), 0), 0u);
    ASSERT_EQ(Store(h_, MembKey(8), MembRec(10), 0), 0u);

    Bytes onlyNumber = BndRec(2, 0); /* other fields differ from the stored record */
    EXPECT_EQ(DBM_RemoveSortList(h_, kBndKey.data(), 1, 32, onlyNumber.data()), 0u);
    EXPECT_NE(DBM_RemoveSortList(h_, kBndKey.data(), 1, 32, onlyNumber.data()), 0u);
    EXPECT_EQ(BndNums(ReadList(h_, kBndKey, 32)), (std::vector<u32>{1, 3}));

    EXPECT_EQ(DBM_DeleteKey(h_, m7.data(), 5), 0u);
    EXPECT_EQ(DBM_IsKeyExist(h_, m7.data(), 5), 0u);
    EXPECT_EQ(std::vector<u32>(
                  {DBM_Len(h_, m7.data(), 5), DBM_Len(h_, MembKey(8).data(), 5), DBM_Len(h_, kBndKey.data(), 1)}),
              std::vector<u32>({0, 1, 2})) << "only the deleted list is empty";
    EXPECT_NE(DBM_DeleteKey(h_, m7.data(), 5), 0u);
    /* A key that comes back starts empty. */
    ASSERT_EQ(Store(h_, m7, MembRec(12), 0), 0u);
    EXPECT_EQ(ReadList(h_, m7, 12), std::vector<Bytes>{MembRec(12)});
}

/* Batch callbacks note "<row><key>:<records>" and read the list. */
std::vector<std::string> g_visits;

u32 Visit(char row, u64 handle, const void *key, u32 keyLen, u32 recLen)
{
    Bytes k(static_cast<const u8 *>(key), static_cast<const u8 *>(key) + keyLen);
    g_visits.push_back(row + Hex(k) + ":" + std::to_string(ReadList(handle, k, recLen).size()));
    return 0;
}
u32 BndRow(u64 handle, const void *key, u32 keyLen) { return Visit('B', handle, key, keyLen, 32); }
u32 MembRow(u64 handle, const void *key, u32 keyLen) { return Visit('M', handle, key, keyLen, 12); }

TEST_F(DbmTest, BatchWalkServesRowsInTableOrderAndKeysAscending)
{
    ASSERT_EQ(Store(h_, MembKey(300), MembRec(1), 0), 0u);
    ASSERT_EQ(Store(h_, MembKey(7), MembRec(1), 0), 0u);
    ASSERT_EQ(Store(h_, MembKey(7), MembRec(2), 0), 0u);
    ASSERT_EQ(Store(h_, MembKey(2), MembRec(1), 0), 0u);
    ASSERT_EQ(Store(h_, kBndKey, BndRec(2), 20), 0u);
    ASSERT_EQ(Store(h_, kBndKey, BndRec(7), 20), 0u);
    ASSERT_EQ(Store(h_, {0x03}, MembRec(1), 0), 0u); /* matched by no row */

    const DBM_BATCH_ROW_S rows[] = {{0, BndRow, 0}, {1, MembRow, 0}};
    g_visits.clear();
    ASSERT_EQ(DBM_Batch_Proc(h_, -1, rows, 2), 0u);
    EXPECT_EQ(g_visits, (std::vector<std::string>{"B01:2", "M0200000002:1", "M0200000007:2", "M020000012c:1"}));
    /* The table's order, not the identifiers, decides which row goes first. */
    const DBM_BATCH_ROW_S reversed[] = {{1, MembRow, 0}, {0, BndRow, 0}};
    g_visits.clear();
    ASSERT_EQ(DBM_Batch_Proc(h_, -1, reversed, 2), 0u);
    EXPECT_EQ(g_visits, (std::vector<std::string>{"M0200000002:1", "M0200000007:2", "M020000012c:1", "B01:2"}));
    EXPECT_NE(DBM_Batch_Proc(DBM_HANDLE_NONE, -1, rows, 2), 0u);
}

/* A walk's reads share one read transaction; a record stored from inside
 * the walk must still be committed when the call returns: another
 * connection (the other board) sees it before the walk ends. */
u64 g_peer = DBM_HANDLE_NONE;
std::vector<u32> g_seenByPeer;
u32 StoreDuringWalk(u64 handle, const void *key, u32 keyLen)
{
    Bytes k(static_cast<const u8 *>(key), static_cast<const u8 *>(key) + keyLen);
    const u32 tnl = 100 + static_cast<u32>(ReadList(handle, k, 12).size());
    EXPECT_EQ(DBM_InsertSortList(handle, key, keyLen, 12, MembRec(tnl).data(), 1), 0u);
    g_seenByPeer.push_back(DBM_Len(g_peer, key, keyLen));
    return 0;
}

TEST_F(DbmTest, AStoreInsideABatchWalkIsCommittedBeforeItReturns)
{
    ASSERT_EQ(Store(h_, MembKey(1), MembRec(1), 0), 0u);
    ASSERT_EQ(Store(h_, MembKey(2), MembRec(1), 0), 0u);
    ASSERT_EQ(Store(h_, MembKey(2), MembRec(2), 0), 0u);
    ASSERT_EQ(OpenDb(g_peer), 0u);
    const DBM_BATCH_ROW_S rows[] = {{1, StoreDuringWalk, 0}};
    g_seenByPeer.clear();
    ASSERT_EQ(DBM_Batch_Proc(h_, -1, rows, 1), 0u);
    EXPECT_EQ(g_seenByPeer, (std::vector<u32>{2, 3}));
    EXPECT_EQ(ReadList(h_, MembKey(2), 12).back(), MembRec(102)) << "the walk read its own key after its store";
    EXPECT_EQ(DBM_Close(g_peer), 0u);
}

TEST_F(DbmTest, DatabasesOfDifferentNamesAreSeparateAndHandlesShareOneStore)
{
    u64 other = DBM_HANDLE_NONE, same = DBM_HANDLE_NONE;
    ASSERT_EQ(OpenDb(other, "eOTHER"), 0u);
    ASSERT_EQ(OpenDb(same), 0u);
    EXPECT_TRUE(other != h_ && same != h_);
    ASSERT_EQ(Store(h_, kBndKey, BndRec(1), 20), 0u);
    EXPECT_EQ(DBM_IsKeyExist(other, kBndKey.data(), 1), 0u);
    EXPECT_EQ(DBM_Len(same, kBndKey.data(), 1), 1u); /* what the other board sees */
    ASSERT_EQ(Store(other, kBndKey, BndRec(9), 20), 0u);
    EXPECT_EQ(BndNums(ReadList(h_, kBndKey, 32)), std::vector<u32>{1});

    EXPECT_EQ(DBM_Sync(), 0u);
    EXPECT_EQ(DBM_Close(other), 0u);
    EXPECT_EQ(DBM_Close(same), 0u);
    EXPECT_NE(DBM_Close(same), 0u);
    EXPECT_EQ(DBM_Len(same, kBndKey.data(), 1), 0u);
    EXPECT_NE(DBM_InsertSortList(same, kBndKey.data(), 1, 32, BndRec(2).data(), 0), 0u);
}

TEST(DbmOpen, OutsideAChassisFailsAndLeavesTheHandle)
{
    TempChassis::Reload(); /* no chassis variables are set between tests */
    u64 handle = 0x1234;
    EXPECT_NE(OpenDb(handle), 0u);
    EXPECT_EQ(handle, 0x1234u);
}

/* Records a writer reported as stored are there after it was killed at an
 * arbitrary point after 300 acknowledgements. */
TEST(DbmDurability, AcknowledgedRecordsSurviveKill9OfTheWriter)
{
    TempChassis chassis;
    int ack[2];
    ASSERT_EQ(pipe(ack), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        u64 h = DBM_HANDLE_NONE;
        for (u32 tnl = 0; (h != DBM_HANDLE_NONE || OpenDb(h) == 0) && Store(h, MembKey(1), MembRec(tnl), 0) == 0 &&
                          write(ack[1], &tnl, sizeof(tnl)) == sizeof(tnl);
             ++tnl) {
        }
        _exit(3);
    }
    close(ack[1]); /* reads end when the writer is gone */
    u32 acked = 0, tnl = 0;
    while (acked < 300 && read(ack[0], &tnl, sizeof(tnl)) == sizeof(tnl)) {
        acked = tnl + 1;
    }
    kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "writer status " << status;
    while (read(ack[0], &tnl, sizeof(tnl)) == sizeof(tnl)) {
        acked = tnl + 1;
    }
    close(ack[0]);
    ASSERT_GE(acked, 300u);
    u64 h = DBM_HANDLE_NONE;
    ASSERT_EQ(OpenDb(h), 0u);
    std::vector<Bytes> recs = ReadList(h, MembKey(1), 12);
    /* Every acknowledged record, plus at most the one in flight. */
    ASSERT_GE(recs.size(), acked);
    ASSERT_LE(recs.size(), acked + 1);
    for (u32 i = 0; i < recs.size(); ++i) {
        ASSERT_EQ(recs[i], MembRec(i));
    }
    EXPECT_EQ(DBM_Close(h), 0u);
}

/* A healthy database with a B-tree page overwritten is refused, with one
 * log line, and the handle is left alone. */
TEST(DbmOpen, ADamagedPageIsRefusedWithOneLogLine)
{
    TempChassis chassis;
    u64 h = DBM_HANDLE_NONE;
    ASSERT_EQ(OpenDb(h), 0u);
    for (u32 num = 1; num <= 400; ++num) {
        ASSERT_EQ(Store(h, kBndKey, BndRec(num), 20), 0u);
    }
    ASSERT_EQ(DBM_Close(h), 0u); /* the last close folds the log into the file */
    int fd = open(tbdl::plat::DatabasePathOf(chassis.Dir()).c_str(), O_WRONLY);
    std::string junk(4096, '\x5a');
    ASSERT_EQ(pwrite(fd, junk.data(), junk.size(), 3 * 4096), static_cast<ssize_t>(junk.size()));
    close(fd);
    h = 0x77;
    EXPECT_NE(OpenDb(h), 0u);
    EXPECT_EQ(h, 0x77u);
    auto log = plattest::Lines(plattest::ReadFile(tbdl::plat::BoardLogPathOf(chassis.Dir(), 0)));
    ASSERT_EQ(log.size(), 1u);
    EXPECT_NE(log[0].find(" board0 platform ERROR DBM_Open: cannot open database eTBDL: "), std::string::npos) << log[0];
}

/* Both boards open the chassis's database at start, often at the same
 * moment and on a fresh chassis directory. Whatever the other opener is
 * doing (creating the file, switching it to WAL, creating the tables),
 * every open must succeed: a failed open fails the daemon's start. Each
 * round, four children released together by closing a pipe open a fresh
 * store and write to it. */
TEST(DbmOpen, SimultaneousOpensOfAFreshStoreAllSucceed)
{
    constexpr int kRounds = 200, kOpeners = 4;
    char dir[] = "/tmp/tbdl-dbrace-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    int roundsWithFailure = 0;
    for (int round = 0; round < kRounds; ++round) {
        const std::string path = std::string(dir) + "/dbm" + std::to_string(round) + ".sqlite";
        int release[2];
        ASSERT_EQ(pipe(release), 0);
        pid_t pids[kOpeners];
        for (int id = 0; id < kOpeners; ++id) {
            if ((pids[id] = fork()) == 0) {
                close(release[1]);
                char c = 0;
                (void)!read(release[0], &c, 1);
                std::string err;
                auto store = tbdl::plat::DbmStore::Open(path, id % 2 == 0 ? "eTBDL" : "eOTHER", "TBDL", err);
                bool ok = store && store->SetSortWord(std::string(1, char(id)), 0, 4) == tbdl::plat::DbmStatus::Ok;
                if (!ok) {
                    std::fprintf(stderr, "opener %d: %s\n", id, (store ? store->LastError() : err).c_str());
                }
                _exit(ok ? 0 : 1);
            }
        }
        close(release[0]);
        close(release[1]); /* every child's read returns now */
        bool failed = false;
        for (pid_t pid : pids) {
            int status = 0;
            failed |= pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0;
        }
        roundsWithFailure += failed ? 1 : 0;
    }
    std::filesystem::remove_all(dir);
    EXPECT_EQ(roundsWithFailure, 0) << "rounds out of " << kRounds << " in which an open failed";
}

} // namespace
