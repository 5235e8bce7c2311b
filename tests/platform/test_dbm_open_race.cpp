/* Both boards open the chassis's database at start, often at the same
 * moment and on a fresh chassis directory. Whatever the other opener is
 * doing (creating the file, switching it to WAL, creating the tables),
 * every open must succeed: a failed open fails the daemon's start. */
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "dbm_store.h"

namespace {

constexpr int kRounds = 200;
constexpr int kOpeners = 4;

/* In a child: waits until the parent closes the release pipe, opens the
 * store and exits 0 when the open succeeded and a write goes through. */
[[noreturn]] void OpenWhenReleased(int releaseFd, const std::string &path, int id)
{
    char c = 0;
    (void)!read(releaseFd, &c, 1);
    std::string err;
    auto store = tbdl::plat::DbmStore::Open(path, id % 2 == 0 ? "eTBDL" : "eOTHER", "TBDL", err);
    bool ok = store != nullptr && store->SetSortWord(std::string(1, char(id)), 0, 4) == tbdl::plat::DbmStatus::Ok;
    if (!ok) {
        std::string line = "opener " + std::to_string(id) + ": " + (store ? store->LastError() : err) + "\n";
        (void)!write(2, line.data(), line.size());
    }
    store.reset();
    _exit(ok ? 0 : 1);
}

/* One round: kOpeners processes open a fresh store file at once. Returns
 * how many of them failed. */
int RaceOnce(const std::string &path)
{
    int release[2];
    if (pipe(release) != 0) {
        return kOpeners;
    }
    std::vector<pid_t> pids;
    for (int i = 0; i < kOpeners; ++i) {
        pid_t pid = fork();
        if (pid == 0) {
            close(release[1]);
            OpenWhenReleased(release[0], path, i);
        }
        if (pid > 0) {
            pids.push_back(pid);
        }
    }
    close(release[0]);
    close(release[1]); /* every child's read returns now */
    int failed = kOpeners - static_cast<int>(pids.size());
    for (pid_t pid : pids) {
        int status = 0;
        bool ok = waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        failed += ok ? 0 : 1;
    }
    return failed;
}

TEST(DbmOpenRace, SimultaneousOpensOfAFreshStoreAllSucceed)
{
    char tmpl[] = "/tmp/tbdl-dbrace-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    int roundsWithFailure = 0;
    for (int round = 0; round < kRounds; ++round) {
        const std::string path = dir + "/dbm" + std::to_string(round) + ".sqlite";
        roundsWithFailure += RaceOnce(path) != 0 ? 1 : 0;
    }
    std::filesystem::remove_all(dir);
    EXPECT_EQ(roundsWithFailure, 0) << "rounds out of " << kRounds << " in which an open failed";
}

} // namespace
