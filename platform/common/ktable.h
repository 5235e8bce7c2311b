/* Each board's kernel tunnel-bundle table: a fixed-size file
 * DIR/board<N>/ktbdl mapped shared by chassisd (which creates it when the
 * chassis starts, clears it when the board reboots or fails, forgets a
 * destroyed bundle interface and dumps it) and by the board's platform
 * library, whose CIOCTL applies the daemon's command in place, as the one
 * system call it is on the device.
 *
 * Bundles sit packed at the front of their array, each with its last
 * bundle update (TBDL_KBND_S) and its members in the order added; an
 * open-addressing index by interface index finds them. Every change is
 * made under a process-shared robust mutex and is crash-atomic: the whole
 * change (the bundle it rewrites, the index entry it sets, the totals and
 * the counter) is written to the redo record first and then applied; a
 * locker that finds the previous holder dead applies a pending record
 * again, so a daemon killed in the middle leaves the command either not
 * made or fully made. */
#ifndef TBDL_PLAT_KTABLE_H
#define TBDL_PLAT_KTABLE_H

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tbdl_ktbdl.h"

namespace tbdl::plat {

inline constexpr uint32_t kKtMagic = 0x4b54424cu; /* "KTBL" */
inline constexpr size_t kKtBundles = 4096;        /* bundles the table takes */
inline constexpr size_t kKtSlots = 8192;          /* index entries, a power of two */
inline constexpr size_t kKtMembers = 64;          /* members per bundle */
inline constexpr uint32_t kKtMaxPayload = 4096;   /* longest command buffer */
inline constexpr uint32_t kKtNoSlot = 0xFFFFFFFFu;

/* Answers for commands the module does not take (errno-like values). */
inline constexpr uint32_t kKtNoDevice = 19;
inline constexpr uint32_t kKtInvalid = 22;
inline constexpr uint32_t kKtNoSpace = 28; /* table or member list full */

inline constexpr uint32_t kKtBroken = 5;  /* the lock cannot be had */
inline constexpr int kKtLockWaitS = 2;     /* longest wait for the lock */

enum KtCounter : uint32_t { KT_CNT_UPDATE, KT_CNT_ADD, KT_CNT_DEL, KT_CNT_REFUSED, KT_CNT_NUM };

struct KtBundle {
    uint32_t uiIfIndex;
    uint32_t uiUpdated; /* 1 once a bundle update came */
    uint32_t uiMembCnt;
    uint32_t uiResv;
    TBDL_KBND_S stLast; /* the last bundle update */
    uint32_t uiResv2;
    uint32_t auiMemb[kKtMembers]; /* in the order added */
};
static_assert(sizeof(KtBundle) == 312, "a bundle is 312 bytes");
static_assert(offsetof(KtBundle, stLast) == 16 && offsetof(KtBundle, auiMemb) == 56, "head, update, members");

/* The change being made: the bundle's new content at its position (uiBnd
 * kKtNoSlot: none), the index entry it sets (uiSlot kKtNoSlot: none), the
 * number of bundles after it and the new value of one counter (uiCounter
 * KT_CNT_NUM: none). */
struct KtRedo {
    uint32_t uiPending; /* 1 from the moment the record is complete until the change is made */
    uint32_t uiBnd;
    uint32_t uiSlot;
    uint32_t uiSlotValue;
    uint32_t uiUsed;
    uint32_t uiCounter;
    uint64_t ulCount;
    KtBundle stBnd;
};
static_assert(sizeof(KtRedo) == 344, "the redo record is 344 bytes");
static_assert(offsetof(KtRedo, ulCount) == 24 && offsetof(KtRedo, stBnd) == 32, "places, counter, bundle");

union KtLock {
    pthread_mutex_t stMutex;
    uint8_t aucSpace[64];
};
static_assert(sizeof(pthread_mutex_t) <= 64, "the mutex fits its 64 bytes");

struct KtTable {
    uint32_t uiMagic;
    uint32_t uiUsed; /* bundles, in astBnd[0, uiUsed) */
    uint32_t auiResv[2];
    KtLock unLock;
    uint64_t aulCount[KT_CNT_NUM]; /* commands taken, by kind, and refused */
    KtRedo stRedo;
    uint32_t auiIndex[kKtSlots]; /* 0 free, else the bundle's position + 1 */
    KtBundle astBnd[kKtBundles];
};
static_assert(offsetof(KtTable, unLock) == 16 && offsetof(KtTable, aulCount) == 80, "head, lock, counters");
static_assert(offsetof(KtTable, stRedo) == 112 && offsetof(KtTable, auiIndex) == 456, "redo record, then index");
static_assert(offsetof(KtTable, astBnd) == 456 + kKtSlots * 4, "bundles after the index");
static_assert(sizeof(KtTable) == offsetof(KtTable, astBnd) + kKtBundles * sizeof(KtBundle), "nothing after");

/* Path of a board's table file. */
std::string KtPathOf(const std::string &dir, int board);

/* chassisd: maps (creating) and empties a board's table: a chassis start
 * is a boot. The library: maps an existing table, nullptr when there is
 * none. */
KtTable *KtCreate(const std::string &path);
KtTable *KtOpen(const std::string &path);
void KtClose(KtTable *t);

/* 0 when the buffer may go to the module; kKtInvalid for more than
 * kKtMaxPayload bytes or a null buffer with a length. */
uint32_t KtCheckBuffer(const void *buf, size_t len);

/* One CIOCTL command: 0 when the module took it, else kKtNoDevice,
 * kKtInvalid or kKtNoSpace (counted as refused, except a refused buffer). */
uint32_t KtCommand(KtTable *t, uint32_t dev, uint32_t cmd, const void *buf, size_t len);

/* chassisd's changes: empty the table (board reboot or failure), forget a
 * destroyed bundle interface. */
void KtClear(KtTable *t);
void KtForget(KtTable *t, uint32_t ifIndex);

/* A consistent copy: bundles by ascending index, and the counters. */
struct KtSnapshot {
    std::vector<KtBundle> bundles;
    uint64_t counts[KT_CNT_NUM] = {};
};
bool KtRead(KtTable *t, KtSnapshot &out);

/* The lock and the two halves of a change, for those who must see them
 * apart. KtLockTable makes the table consistent when the previous holder died
 * with it, and gives up (false) after kKtLockWaitS seconds; KtStage writes a command's change to the redo record and marks
 * it pending without making it; KtApply makes a pending change. */
bool KtLockTable(KtTable *t);
void KtUnlockTable(KtTable *t);
uint32_t KtStage(KtTable *t, uint32_t dev, uint32_t cmd, const void *buf, size_t len);
void KtApply(KtTable *t);

} // namespace tbdl::plat

#endif
