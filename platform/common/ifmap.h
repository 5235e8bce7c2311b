/* The chassis's interface table as a shared mapping, DIR/interfaces.map:
 * chassisd writes it (its only writer, one thread), each board's platform
 * library reads it, so an interface query is a local read as on the device.
 *
 * The file is a header, a dense array of slots (one per interface, the
 * first uiCount in use) and two open-addressing indexes of the slots, by
 * name and by interface index, each twice the capacity so that a lookup
 * touches a few cache lines. Every change runs under a sequence counter
 * (odd while writing): a reader copies what it needs and keeps the copy
 * only when the counter was even and unchanged around it. */
#ifndef TBDL_PLAT_IFMAP_H
#define TBDL_PLAT_IFMAP_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace tbdl::plat {

inline constexpr uint32_t kIfMapMagic = 0x31504d49; /* "IMP1" */
inline constexpr uint32_t kIfMapCapacity = 16384;
inline constexpr uint32_t kIfMapIndexBits = 15;
inline constexpr uint32_t kIfMapIndexSize = 1u << kIfMapIndexBits;
/* Longest name kept, with its terminating zero ("Tunnel-Bundle" and ten
 * digits fit). */
inline constexpr size_t kIfMapNameLen = 24;

struct IfMapSlot {
    char acName[kIfMapNameLen]; /* zero-terminated */
    uint32_t uiIfIndex;
    uint32_t uiType;
    uint32_t uiNumber;
    uint32_t uiState;
    uint32_t uiTnlMode; /* valid when ucHasMode */
    uint16_t usVrf;
    uint8_t ucHasMode;
    uint8_t ucDeleting; /* its deletion event is out; still readable */
};
static_assert(sizeof(IfMapSlot) == 48);
static_assert(offsetof(IfMapSlot, uiIfIndex) == 24 && offsetof(IfMapSlot, uiTnlMode) == 40);
static_assert(offsetof(IfMapSlot, usVrf) == 44 && offsetof(IfMapSlot, ucDeleting) == 47);

/* One index entry: the slot number plus one (0 marks an empty entry) and
 * the home position of its key (name hash or interface index), which
 * spares a lookup the slots of other keys and lets a removal move entries
 * back without reading slots. Four bytes, so the indexes take few pages. */
struct IfMapIdx {
    uint16_t usSlot;
    uint16_t usHome;
};
static_assert(sizeof(IfMapIdx) == 4);
static_assert(kIfMapCapacity < UINT16_MAX && kIfMapIndexBits <= 16);

struct IfMapHeader {
    uint32_t uiMagic;
    uint32_t uiCapacity;
    uint32_t uiIndexSize;
    std::atomic<uint32_t> uiSeq;
    uint32_t uiCount;
    uint8_t aucPad[44];
};
static_assert(sizeof(IfMapHeader) == 64 && offsetof(IfMapHeader, uiSeq) == 12 && offsetof(IfMapHeader, uiCount) == 16);
static_assert(std::atomic<uint32_t>::is_always_lock_free, "the counter is shared between processes");

struct IfMapFile {
    IfMapHeader stHdr;
    IfMapSlot astSlot[kIfMapCapacity];
    IfMapIdx astByName[kIfMapIndexSize];
    IfMapIdx astByIndex[kIfMapIndexSize];
};
static_assert(offsetof(IfMapFile, astSlot) == 64);
static_assert(offsetof(IfMapFile, astByName) == 64 + 48 * kIfMapCapacity);
static_assert(sizeof(IfMapFile) == 64 + 48 * kIfMapCapacity + 2 * 4 * kIfMapIndexSize);

std::string IfMapPathOf(const std::string &dir); /* dir/interfaces.map */

/* ---- writer (chassisd) ---- */
/* Maps the file, creating it when missing, and empties it in place: a
 * reader that mapped it before keeps a valid mapping. nullptr on failure. */
IfMapFile *IfMapCreate(const std::string &path);
void IfMapClear(IfMapFile *m);
/* Adds the interface or replaces the record with its index (an interface
 * keeps its name for life). false when the table is full or the name too
 * long. */
bool IfMapPut(IfMapFile *m, const IfMapSlot &slot);
void IfMapRemove(IfMapFile *m, uint32_t ifIndex);

/* ---- reader ---- */
/* Maps an existing file made by IfMapCreate; nullptr when absent or not
 * one. */
const IfMapFile *IfMapOpen(const std::string &path);
void IfMapClose(const IfMapFile *m);

enum class IfMapRead {
    FOUND,
    ABSENT,
    UNKNOWN, /* no consistent copy (a writer kept changing it), or no mapping */
};
IfMapRead IfMapFindIndex(const IfMapFile *m, uint32_t ifIndex, IfMapSlot &out);
IfMapRead IfMapFindName(const IfMapFile *m, const char *name, IfMapSlot &out);

/* The same against this process's chassis (from its environment), mapped
 * on first use: what the board's library reads. */
IfMapRead IfMapLocalIndex(uint32_t ifIndex, IfMapSlot &out);
IfMapRead IfMapLocalName(const char *name, IfMapSlot &out);

} // namespace tbdl::plat

#endif
