/* The shared interface table (see ifmap.h): its indexes, the writer's
 * changes under the sequence counter and the readers' consistent copies. */
#include "ifmap.h"

#include <sched.h>

#include <cstring>

#include "chassis_env.h"
#include "shm_file.h"

namespace tbdl::plat {

namespace {

constexpr uint32_t kIndexMask = kIfMapIndexSize - 1;
/* A reader gives up after this many attempts that met a change; the
 * caller then asks chassisd itself. */
constexpr int kReadTries = 64;

uint32_t Home(uint32_t key)
{
    return (key * 0x9E3779B1u) >> (32 - kIfMapIndexBits);
}

uint32_t NameHash(const char *name, size_t len)
{
    uint32_t h = 2166136261u;
    for (size_t n = 0; n < len; ++n) {
        h = (h ^ static_cast<uint8_t>(name[n])) * 16777619u;
    }
    return h;
}

uint32_t NameHash(const IfMapSlot &s)
{
    return NameHash(s.acName, strnlen(s.acName, kIfMapNameLen));
}

/* Position of the entry of key whose slot satisfies match, or
 * kIfMapIndexSize. Only entries with key's home position are matched
 * against their slot. Bounded, and slot numbers are checked, so a reader
 * racing a writer cannot run away; its copy is discarded anyway. */
template <class Match> uint32_t Probe(const IfMapIdx *tab, uint32_t key, Match match)
{
    uint32_t home = Home(key);
    for (uint32_t n = 0, pos = home; n < kIfMapIndexSize; ++n, pos = (pos + 1) & kIndexMask) {
        const IfMapIdx e = tab[pos];
        if (e.usSlot == 0) {
            break;
        }
        if (e.usHome == home && e.usSlot <= kIfMapCapacity && match(e.usSlot - 1u)) {
            return pos;
        }
    }
    return kIfMapIndexSize;
}

void IndexAdd(IfMapIdx *tab, uint32_t key, uint32_t slot)
{
    uint32_t pos = Home(key);
    while (tab[pos].usSlot != 0) {
        pos = (pos + 1) & kIndexMask;
    }
    tab[pos] = IfMapIdx{static_cast<uint16_t>(slot + 1), static_cast<uint16_t>(Home(key))};
}

/* Linear probing without tombstones: entries after the hole that may sit
 * in it move back, so every entry stays reachable from its home. */
void IndexErase(IfMapIdx *tab, uint32_t hole)
{
    if (hole == kIfMapIndexSize) {
        return; /* not indexed: nothing to erase */
    }
    for (uint32_t pos = (hole + 1) & kIndexMask; tab[pos].usSlot != 0; pos = (pos + 1) & kIndexMask) {
        uint32_t home = tab[pos].usHome;
        bool stays = hole <= pos ? (hole < home && home <= pos) : (hole < home || home <= pos);
        if (!stays) {
            tab[hole] = tab[pos];
            hole = pos;
        }
    }
    tab[hole] = IfMapIdx{};
}

uint32_t FindByIndex(const IfMapFile *m, uint32_t ifIndex)
{
    return Probe(m->astByIndex, ifIndex, [&](uint32_t slot) { return m->astSlot[slot].uiIfIndex == ifIndex; });
}

uint32_t FindByName(const IfMapFile *m, const char *name, size_t len)
{
    return Probe(m->astByName, NameHash(name, len), [&](uint32_t slot) {
        const char *have = m->astSlot[slot].acName;
        return std::strncmp(have, name, len) == 0 && have[len] == '\0';
    });
}

/* Where an index entry points to slot, found by the slot's key. */
uint32_t EntryOf(const IfMapIdx *tab, uint32_t key, uint32_t slot)
{
    return Probe(tab, key, [&](uint32_t s) { return s == slot; });
}

/* Makes the entry of key that names slot from name slot to. */
void Repoint(IfMapIdx *tab, uint32_t key, uint32_t from, uint32_t to)
{
    uint32_t pos = EntryOf(tab, key, from);
    if (pos != kIfMapIndexSize) {
        tab[pos].usSlot = static_cast<uint16_t>(to + 1);
    }
}

/* A write section: the counter is odd from the first change to the last. */
class Writing {
public:
    explicit Writing(IfMapFile *m) : m_(m)
    {
        m_->stHdr.uiSeq.store(m_->stHdr.uiSeq.load(std::memory_order_relaxed) | 1, std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_release);
    }
    ~Writing() { m_->stHdr.uiSeq.store(m_->stHdr.uiSeq.load(std::memory_order_relaxed) + 1, std::memory_order_release); }
    Writing(const Writing &) = delete;
    Writing &operator=(const Writing &) = delete;

private:
    IfMapFile *m_;
};

/* Moves the last slot into slot, so the slots in use stay dense. */
void FillHole(IfMapFile *m, uint32_t slot)
{
    uint32_t last = m->stHdr.uiCount - 1;
    if (slot != last) {
        const IfMapSlot &moved = m->astSlot[last];
        Repoint(m->astByIndex, moved.uiIfIndex, last, slot);
        Repoint(m->astByName, NameHash(moved), last, slot);
        m->astSlot[slot] = moved;
    }
    m->astSlot[last] = IfMapSlot{};
    m->stHdr.uiCount = last;
}

void RemoveLocked(IfMapFile *m, uint32_t ifIndex)
{
    uint32_t pos = FindByIndex(m, ifIndex);
    if (pos == kIfMapIndexSize) {
        return;
    }
    uint32_t slot = m->astByIndex[pos].usSlot - 1u;
    IndexErase(m->astByIndex, pos);
    IndexErase(m->astByName, EntryOf(m->astByName, NameHash(m->astSlot[slot]), slot));
    FillHole(m, slot);
}

/* The slot an index entry names, kIfMapCapacity for none; checked again
 * because a writer may be changing the entry under a reader. */
uint32_t SlotAt(const IfMapIdx *tab, uint32_t pos)
{
    uint32_t slot = pos < kIfMapIndexSize ? tab[pos].usSlot - 1u : kIfMapCapacity;
    return slot < kIfMapCapacity ? slot : kIfMapCapacity;
}

/* Runs find (a slot number) and copies that slot under the counter. */
template <class Find> IfMapRead ReadConsistent(const IfMapFile *m, Find find, IfMapSlot &out)
{
    if (m == nullptr) {
        return IfMapRead::UNKNOWN;
    }
    for (int n = 0; n < kReadTries; ++n) {
        uint32_t before = m->stHdr.uiSeq.load(std::memory_order_acquire);
        if ((before & 1) != 0) {
            sched_yield();
            continue;
        }
        uint32_t slot = find();
        IfMapSlot copy{};
        bool found = slot < kIfMapCapacity;
        if (found) {
            std::memcpy(&copy, &m->astSlot[slot], sizeof(copy));
        }
        std::atomic_thread_fence(std::memory_order_acquire);
        if (m->stHdr.uiSeq.load(std::memory_order_relaxed) == before) {
            out = copy;
            return found ? IfMapRead::FOUND : IfMapRead::ABSENT;
        }
    }
    return IfMapRead::UNKNOWN;
}

} // namespace

std::string IfMapPathOf(const std::string &dir)
{
    return dir + "/interfaces.map";
}

IfMapFile *IfMapCreate(const std::string &path)
{
    auto *m = static_cast<IfMapFile *>(ShmMap(path, sizeof(IfMapFile), true));
    if (m != nullptr) {
        IfMapClear(m);
    }
    return m;
}

void IfMapClear(IfMapFile *m)
{
    Writing w(m);
    std::memset(reinterpret_cast<uint8_t *>(m) + sizeof(IfMapHeader), 0, sizeof(IfMapFile) - sizeof(IfMapHeader));
    m->stHdr.uiMagic = kIfMapMagic;
    m->stHdr.uiCapacity = kIfMapCapacity;
    m->stHdr.uiIndexSize = kIfMapIndexSize;
    m->stHdr.uiCount = 0;
}

bool IfMapPut(IfMapFile *m, const IfMapSlot &slot)
{
    size_t len = strnlen(slot.acName, kIfMapNameLen);
    if (len == kIfMapNameLen) {
        return false;
    }
    Writing w(m);
    uint32_t pos = FindByIndex(m, slot.uiIfIndex);
    if (pos != kIfMapIndexSize) {
        m->astSlot[m->astByIndex[pos].usSlot - 1u] = slot;
        return true;
    }
    if (m->stHdr.uiCount == kIfMapCapacity) {
        return false;
    }
    uint32_t n = m->stHdr.uiCount++;
    m->astSlot[n] = slot;
    IndexAdd(m->astByIndex, slot.uiIfIndex, n);
    IndexAdd(m->astByName, NameHash(slot.acName, len), n);
    return true;
}

void IfMapRemove(IfMapFile *m, uint32_t ifIndex)
{
    Writing w(m);
    RemoveLocked(m, ifIndex);
}

const IfMapFile *IfMapOpen(const std::string &path)
{
    auto *m = static_cast<IfMapFile *>(ShmMap(path, sizeof(IfMapFile), false));
    if (m != nullptr && (m->stHdr.uiMagic != kIfMapMagic || m->stHdr.uiCapacity != kIfMapCapacity ||
                         m->stHdr.uiIndexSize != kIfMapIndexSize)) {
        ShmUnmap(m, sizeof(IfMapFile));
        return nullptr;
    }
    return m;
}

void IfMapClose(const IfMapFile *m)
{
    ShmUnmap(const_cast<IfMapFile *>(m), sizeof(IfMapFile));
}

IfMapRead IfMapFindIndex(const IfMapFile *m, uint32_t ifIndex, IfMapSlot &out)
{
    return ReadConsistent(m, [&] { return SlotAt(m->astByIndex, FindByIndex(m, ifIndex)); }, out);
}

IfMapRead IfMapFindName(const IfMapFile *m, const char *name, IfMapSlot &out)
{
    size_t len = strnlen(name, kIfMapNameLen);
    if (len == kIfMapNameLen) {
        return m != nullptr ? IfMapRead::ABSENT : IfMapRead::UNKNOWN;
    }
    return ReadConsistent(m, [&] { return SlotAt(m->astByName, FindByName(m, name, len)); }, out);
}

namespace {

/* The library's mapping, made on first use by the daemon's one thread and
 * made again when this process is pointed at another chassis. */
struct LocalMap {
    const IfMapFile *pstMap = nullptr;
    std::string dir;
};
LocalMap g_stLocalMap;

const IfMapFile *LocalMapping()
{
    const ChassisEnv &env = GetChassisEnv();
    if (!env.inChassis) {
        return nullptr;
    }
    if (g_stLocalMap.pstMap == nullptr || g_stLocalMap.dir != env.dir) {
        IfMapClose(g_stLocalMap.pstMap);
        g_stLocalMap.pstMap = IfMapOpen(IfMapPathOf(env.dir));
        g_stLocalMap.dir = env.dir;
    }
    return g_stLocalMap.pstMap;
}

} // namespace

IfMapRead IfMapLocalIndex(uint32_t ifIndex, IfMapSlot &out)
{
    return IfMapFindIndex(LocalMapping(), ifIndex, out);
}

IfMapRead IfMapLocalName(const char *name, IfMapSlot &out)
{
    return IfMapFindName(LocalMapping(), name, out);
}

} // namespace tbdl::plat
