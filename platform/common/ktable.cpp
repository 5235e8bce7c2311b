/* The kernel tunnel-bundle table shared by chassisd and a board's library
 * (see ktable.h). */
#include "ktable.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "chassis_env.h"
#include "rpc.h"
#include "shm_file.h"

namespace tbdl::plat {

namespace {

static_assert(kKtSlots == (1u << 13) && kKtBundles < kKtSlots, "a free entry always ends a search");

/* The pending flag is the commit point: the writes before it stay before
 * it and the writes after it stay after it, even for a holder killed
 * between two instructions. */
void SetPending(KtRedo &r, uint32_t v)
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
    std::atomic_ref<uint32_t>(r.uiPending).store(v, std::memory_order_release);
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

uint32_t Home(uint32_t ifIndex) { return (ifIndex * 2654435761u) >> 19; }
uint32_t Next(uint32_t i) { return (i + 1) & (kKtSlots - 1); }

/* The index entry of ifIndex, or the free entry where it would go. */
uint32_t Probe(const KtTable &t, uint32_t ifIndex)
{
    uint32_t i = Home(ifIndex);
    while (t.auiIndex[i] != 0 && t.astBnd[t.auiIndex[i] - 1].uiIfIndex != ifIndex) {
        i = Next(i);
    }
    return i;
}

/* Starts the redo record of a change that changes nothing yet. */
KtRedo &Begin(KtTable &t)
{
    KtRedo &r = t.stRedo;
    r.uiBnd = kKtNoSlot;
    r.uiSlot = kKtNoSlot;
    r.uiSlotValue = 0;
    r.uiUsed = t.uiUsed;
    r.uiCounter = KT_CNT_NUM;
    r.ulCount = 0;
    return r;
}

void Count(const KtTable &t, KtRedo &r, KtCounter c)
{
    r.uiCounter = c;
    r.ulCount = t.aulCount[c] + 1;
}

uint32_t Refuse(KtTable &t, uint32_t rc)
{
    KtRedo &r = Begin(t);
    Count(t, r, KT_CNT_REFUSED);
    return rc;
}

/* Puts the bundle in the record: as it is, or new at the end of the array
 * with its index entry (a member may come before its bundle's first
 * update). false when the table is full. */
bool TakeBundle(const KtTable &t, KtRedo &r, uint32_t ifIndex)
{
    uint32_t i = Probe(t, ifIndex);
    if (t.auiIndex[i] != 0) {
        r.uiBnd = t.auiIndex[i] - 1;
        r.stBnd = t.astBnd[r.uiBnd];
        return true;
    }
    if (t.uiUsed >= kKtBundles) {
        return false;
    }
    r.uiBnd = t.uiUsed;
    r.stBnd = KtBundle{};
    r.stBnd.uiIfIndex = ifIndex;
    r.uiSlot = i;
    r.uiSlotValue = t.uiUsed + 1;
    r.uiUsed = t.uiUsed + 1;
    return true;
}

uint32_t StageUpdate(KtTable &t, KtRedo &r, const TBDL_KBND_S &b)
{
    if (!TakeBundle(t, r, b.uiIfIndex)) {
        return Refuse(t, kKtNoSpace);
    }
    r.stBnd.uiUpdated = 1;
    r.stBnd.stLast = b;
    Count(t, r, KT_CNT_UPDATE);
    return 0;
}

/* Member add is idempotent and keeps the order added; deleting an absent
 * member is taken too. */
uint32_t StageMember(KtTable &t, KtRedo &r, uint32_t cmd, const TBDL_KMEMB_S &m)
{
    if (!TakeBundle(t, r, m.uiBndIfIndex)) {
        return Refuse(t, kKtNoSpace);
    }
    KtBundle &s = r.stBnd;
    uint32_t *end = s.auiMemb + s.uiMembCnt;
    uint32_t *it = std::find(s.auiMemb, end, m.uiMembIfIndex);
    if (cmd == TBDL_KCMD_MEMB_DEL) {
        if (it != end) {
            std::copy(it + 1, end, it);
            s.auiMemb[--s.uiMembCnt] = 0;
        }
        Count(t, r, KT_CNT_DEL);
        return 0;
    }
    if (it == end) {
        if (s.uiMembCnt == kKtMembers) {
            return Refuse(t, kKtNoSpace);
        }
        s.auiMemb[s.uiMembCnt++] = m.uiMembIfIndex;
    }
    Count(t, r, KT_CNT_ADD);
    return 0;
}

uint32_t Decide(KtTable &t, KtRedo &r, uint32_t dev, uint32_t cmd, const void *buf, size_t len)
{
    if (dev != TBDL_KTBDL_DEV) {
        return Refuse(t, kKtNoDevice);
    }
    TBDL_KBND_S b;
    if (cmd == TBDL_KCMD_BND_UPDATE && rpc::Decode(buf, len, b)) {
        return StageUpdate(t, r, b);
    }
    TBDL_KMEMB_S m;
    if ((cmd == TBDL_KCMD_MEMB_ADD || cmd == TBDL_KCMD_MEMB_DEL) && rpc::Decode(buf, len, m)) {
        return StageMember(t, r, cmd, m);
    }
    return Refuse(t, kKtInvalid);
}

/* Frees index entry i and moves up the entries after it that would no
 * longer be found from their home entry. */
void RemoveEntry(KtTable &t, uint32_t i)
{
    for (uint32_t j = Next(i); t.auiIndex[j] != 0; j = Next(j)) {
        uint32_t k = Home(t.astBnd[t.auiIndex[j] - 1].uiIfIndex);
        bool stays = i <= j ? (i < k && k <= j) : (i < k || k <= j);
        if (!stays) {
            t.auiIndex[i] = t.auiIndex[j];
            i = j;
        }
    }
    t.auiIndex[i] = 0;
}

/* Frees the bundle at pos; the last bundle takes its place, so the array
 * stays packed. */
void RemoveBundle(KtTable &t, uint32_t pos)
{
    uint32_t last = t.uiUsed - 1;
    if (pos != last) {
        t.astBnd[pos] = t.astBnd[last];
        t.auiIndex[Probe(t, t.astBnd[pos].uiIfIndex)] = pos + 1;
    }
    t.astBnd[last] = KtBundle{};
    t.uiUsed = last;
}

} // namespace

std::string KtPathOf(const std::string &dir, int board) { return BoardDirOf(dir, board) + "/ktbdl"; }

KtTable *KtCreate(const std::string &path)
{
    auto *t = static_cast<KtTable *>(ShmMap(path, sizeof(KtTable), true));
    if (t == nullptr) {
        return nullptr;
    }
    std::memset(static_cast<void *>(t), 0, sizeof(KtTable));
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    int rc = pthread_mutex_init(&t->unLock.stMutex, &attr);
    pthread_mutexattr_destroy(&attr);
    if (rc != 0) {
        ShmUnmap(t, sizeof(KtTable));
        return nullptr;
    }
    std::atomic_ref<uint32_t>(t->uiMagic).store(kKtMagic, std::memory_order_release);
    return t;
}

KtTable *KtOpen(const std::string &path)
{
    auto *t = static_cast<KtTable *>(ShmMap(path, sizeof(KtTable), false));
    if (t != nullptr && std::atomic_ref<uint32_t>(t->uiMagic).load(std::memory_order_acquire) != kKtMagic) {
        ShmUnmap(t, sizeof(KtTable));
        return nullptr;
    }
    return t;
}

void KtClose(KtTable *t) { ShmUnmap(t, sizeof(KtTable)); }

bool KtLockTable(KtTable *t)
{
    /* A holder keeps the lock for microseconds: only a stopped one (or a
     * debugger) makes a caller wait this long, and chassisd, which serves
     * every board, must not wait for it forever. */
    timespec stUntil{};
    clock_gettime(CLOCK_REALTIME, &stUntil);
    stUntil.tv_sec += kKtLockWaitS;
    int rc = pthread_mutex_timedlock(&t->unLock.stMutex, &stUntil);
    if (rc == EOWNERDEAD) {
        KtApply(t); /* the dead holder's change, made whole if it was complete */
        rc = pthread_mutex_consistent(&t->unLock.stMutex);
    }
    return rc == 0;
}

void KtUnlockTable(KtTable *t) { pthread_mutex_unlock(&t->unLock.stMutex); }

uint32_t KtStage(KtTable *t, uint32_t dev, uint32_t cmd, const void *buf, size_t len)
{
    KtRedo &r = Begin(*t);
    uint32_t rc = Decide(*t, r, dev, cmd, buf, len);
    SetPending(r, 1);
    return rc;
}

void KtApply(KtTable *t)
{
    KtRedo &r = t->stRedo;
    if (r.uiPending == 0) {
        return;
    }
    if (r.uiBnd < kKtBundles) {
        t->astBnd[r.uiBnd] = r.stBnd;
    }
    if (r.uiSlot < kKtSlots) {
        t->auiIndex[r.uiSlot] = r.uiSlotValue;
    }
    if (r.uiCounter < KT_CNT_NUM) {
        t->aulCount[r.uiCounter] = r.ulCount;
    }
    t->uiUsed = r.uiUsed;
    SetPending(r, 0);
}

uint32_t KtCheckBuffer(const void *buf, size_t len)
{
    return len > kKtMaxPayload || (len > 0 && buf == nullptr) ? kKtInvalid : 0;
}

uint32_t KtCommand(KtTable *t, uint32_t dev, uint32_t cmd, const void *buf, size_t len)
{
    uint32_t rc = KtCheckBuffer(buf, len);
    if (rc != 0) {
        return rc;
    }
    if (!KtLockTable(t)) {
        return kKtBroken;
    }
    rc = KtStage(t, dev, cmd, buf, len);
    KtApply(t);
    KtUnlockTable(t);
    return rc;
}

/* chassisd's own changes need no redo record: when chassisd dies, the
 * next chassis start empties the table anyway. */
void KtClear(KtTable *t)
{
    if (!KtLockTable(t)) {
        return;
    }
    std::memset(t->auiIndex, 0, sizeof(t->auiIndex));
    std::memset(static_cast<void *>(t->astBnd), 0, t->uiUsed * sizeof(KtBundle));
    std::memset(t->aulCount, 0, sizeof(t->aulCount));
    t->uiUsed = 0;
    KtUnlockTable(t);
}

void KtForget(KtTable *t, uint32_t ifIndex)
{
    if (!KtLockTable(t)) {
        return;
    }
    uint32_t i = Probe(*t, ifIndex);
    if (t->auiIndex[i] != 0) {
        uint32_t pos = t->auiIndex[i] - 1;
        RemoveEntry(*t, i);
        RemoveBundle(*t, pos);
    }
    KtUnlockTable(t);
}

bool KtRead(KtTable *t, KtSnapshot &out)
{
    out.bundles.clear();
    out.bundles.reserve(kKtBundles);
    if (!KtLockTable(t)) {
        return false;
    }
    out.bundles.assign(t->astBnd, t->astBnd + t->uiUsed);
    std::copy(std::begin(t->aulCount), std::end(t->aulCount), out.counts);
    KtUnlockTable(t);
    std::sort(out.bundles.begin(), out.bundles.end(),
              [](const KtBundle &a, const KtBundle &b) { return a.uiIfIndex < b.uiIfIndex; });
    return true;
}

} // namespace tbdl::plat
