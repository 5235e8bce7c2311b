/* Fake platform database: keyed sorted lists held in memory.
 *
 * A list's records stay in ascending order of their sort word, the byte
 * range [offset, offset + length) of each record compared as stored; an
 * insert with an equal sort word replaces the stored record. */
#include <algorithm>
#include <cstring>

#include "fake_internal.h"

using namespace fake::detail;
using fake::Bytes;

namespace fake {
namespace {

constexpr u64 kHandle = 0xDB0;
constexpr u32 kDefaultSortLen = 4;

struct SortWord {
    uint32_t uiOffset = 0;
    uint32_t uiLen = 0;
};

/* A walk goes on after the sort word it handed out last, so records
 * removed or added behind it do not shift it. */
struct Iter {
    Bytes key;
    bool bStarted = false;
    Bytes last;
};

/* The lists, their sort words and the open state, cleared by Reset. */
struct DbState {
    std::map<Bytes, std::vector<Bytes>> mapDb;
    std::map<Bytes, SortWord> mapSort;
    bool bOpen = false;
} g_stDb;

bool HandleOk(u64 ulHandle) { return g_stDb.bOpen && ulHandle == kHandle; }

/* The list stored under key, through an open handle; nullptr when none. */
std::vector<Bytes> *ListOf(u64 ulHandle, const Bytes &key)
{
    auto it = g_stDb.mapDb.find(key);
    return (HandleOk(ulHandle) && it != g_stDb.mapDb.end()) ? &it->second : nullptr;
}

Bytes SortBytes(const Bytes &rec, const SortWord &sw)
{
    Bytes out(sw.uiLen, 0);
    for (size_t i = 0; i < sw.uiLen && sw.uiOffset + i < rec.size(); i++) {
        out[i] = rec[sw.uiOffset + i];
    }
    return out;
}

/* Position of the record with an equal sort word (bFound) or of the first
 * record with a greater one. */
size_t Locate(const std::vector<Bytes> &list, const SortWord &sw, const Bytes &rec, bool *pbFound)
{
    Bytes word = SortBytes(rec, sw);
    size_t i = 0;
    while (i < list.size() && SortBytes(list[i], sw) < word) {
        i++;
    }
    *pbFound = i < list.size() && SortBytes(list[i], sw) == word;
    return i;
}

void Insert(const Bytes &key, const Bytes &rec)
{
    std::vector<Bytes> &list = g_stDb.mapDb[key];
    bool bFound = false;
    size_t ulAt = Locate(list, g_stDb.mapSort[key], rec, &bFound);
    if (bFound) {
        list[ulAt] = rec;
    } else {
        list.insert(list.begin() + static_cast<long>(ulAt), rec);
    }
}

/* Fills the block buffer with the records after the iterator's last sort
 * word; the count read. */
u32 ReadBlock(Iter *pIter, u32 uiRecLen, u32 uiMaxRec, uint8_t *pucOut)
{
    auto it = g_stDb.mapDb.find(pIter->key);
    const SortWord sw = g_stDb.mapSort[pIter->key];
    u32 uiCount = 0;
    for (size_t i = 0; it != g_stDb.mapDb.end() && i < it->second.size() && uiCount < uiMaxRec; i++) {
        const Bytes &rec = it->second[i];
        if (pIter->bStarted && !(pIter->last < SortBytes(rec, sw))) {
            continue;
        }
        uint8_t *pucDst = pucOut + static_cast<size_t>(uiCount++) * uiRecLen;
        std::memset(pucDst, 0, uiRecLen);
        std::memcpy(pucDst, rec.data(), std::min<size_t>(rec.size(), uiRecLen));
        pIter->bStarted = true;
        pIter->last = SortBytes(rec, sw);
    }
    return uiCount;
}

} // namespace

void detail::ResetDbm() { g_stDb = DbState{}; }

std::map<Bytes, std::vector<Bytes>> &Db() { return g_stDb.mapDb; }

bool DbOpen() { return g_stDb.bOpen; }

void DbPut(const Bytes &key, uint32_t sortOffset, const Bytes &rec)
{
    g_stDb.mapSort[key] = SortWord{sortOffset, kDefaultSortLen};
    Insert(key, rec);
}

} // namespace fake

using namespace fake;

extern "C" {

u32 DBM_Open(const char *pcName, const char *pcOwner, u32 uiType, const u32 *pauiParam,
             u64 *pulHandle, u32 uiRecMax, i32 iFlag)
{
    Call c = Mk(__func__, {U(uiType)});
    for (int i = 0; i < 8; i++) {
        c.args.push_back(pauiParam != nullptr ? pauiParam[i] : 0);
    }
    c.args.insert(c.args.end(), {U(pulHandle != nullptr ? *pulHandle : 0), U(uiRecMax), S(iFlag)});
    return Run<u32>(WithText(std::move(c), Str(pcName) + "|" + Str(pcOwner)), [&]() -> uint64_t {
        if (pulHandle == nullptr) {
            return 1;
        }
        g_stDb.bOpen = true;
        *pulHandle = kHandle;
        return 0;
    });
}

u32 DBM_Close(u64 ulHandle)
{
    return Run<u32>(Mk(__func__, {U(ulHandle)}), [&]() -> uint64_t {
        if (!HandleOk(ulHandle)) {
            return 1;
        }
        g_stDb.bOpen = false;
        return 0;
    });
}

u32 DBM_IsKeyExist(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    return Run<u32>(Mk(__func__, {U(ulHandle), U(uiKeyLen)}, Copy(pvKey, uiKeyLen)),
                    [&](Call &c) { return ListOf(ulHandle, c.data) != nullptr; });
}

u32 DBM_SetSortWord(u64 ulHandle, const void *pvKey, u32 uiKeyLen, u32 uiCount, u32 uiOffset,
                    u32 uiLen, u32 uiKind, u32 uiOrder)
{
    return Run<u32>(Mk(__func__, {U(ulHandle), U(uiKeyLen), U(uiCount), U(uiOffset), U(uiLen), U(uiKind), U(uiOrder)},
                       Copy(pvKey, uiKeyLen)),
                    [&](Call &c) -> uint64_t {
                        if (!HandleOk(ulHandle) || c.data.empty() || c.data.size() > DBM_KEY_MAX) {
                            return 1;
                        }
                        g_stDb.mapSort[c.data] = SortWord{uiOffset, uiLen};
                        (void)g_stDb.mapDb[c.data];
                        return 0;
                    });
}

u32 DBM_InsertSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen, u32 uiRecLen,
                       const void *pvRec, u32 uiFlag)
{
    return Run<u32>(Mk(__func__, {U(ulHandle), U(uiKeyLen), U(uiRecLen), U(uiFlag)}, Copy(pvKey, uiKeyLen),
                       Copy(pvRec, uiRecLen)),
                    [&](Call &c) -> uint64_t {
                        if (!HandleOk(ulHandle) || g_stDb.mapSort.count(c.data) == 0 || c.rec.empty()) {
                            return 1;
                        }
                        Insert(c.data, c.rec);
                        return 0;
                    });
}

u32 DBM_RemoveSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen, u32 uiRecLen,
                       const void *pvRec)
{
    return Run<u32>(Mk(__func__, {U(ulHandle), U(uiKeyLen), U(uiRecLen)}, Copy(pvKey, uiKeyLen), Copy(pvRec, uiRecLen)),
                    [&](Call &c) -> uint64_t {
                        std::vector<Bytes> *pList = ListOf(ulHandle, c.data);
                        bool bFound = false;
                        size_t ulAt = pList != nullptr ? Locate(*pList, g_stDb.mapSort[c.data], c.rec, &bFound) : 0;
                        if (bFound) {
                            pList->erase(pList->begin() + static_cast<long>(ulAt));
                        }
                        return bFound ? 0 : 1;
                    });
}

u32 DBM_Len(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    return Run<u32>(Mk(__func__, {U(ulHandle), U(uiKeyLen)}, Copy(pvKey, uiKeyLen)), [&](Call &c) -> uint64_t {
        std::vector<Bytes> *pList = ListOf(ulHandle, c.data);
        return pList != nullptr ? pList->size() : 0;
    });
}

u32 DBM_DeleteKey(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    return Run<u32>(Mk(__func__, {U(ulHandle), U(uiKeyLen)}, Copy(pvKey, uiKeyLen)), [&](Call &c) -> uint64_t {
        if (!HandleOk(ulHandle)) {
            return 1;
        }
        g_stDb.mapDb.erase(c.data);
        g_stDb.mapSort.erase(c.data);
        return 0;
    });
}

u32 DBM_Sync(void) { return Run<u32>(Mk(__func__, {}), 0); }

/* Recorded before the walk, so the journal shows the walk's calls after it;
 * the callbacks run on a snapshot of the matching keys. */
u32 DBM_Batch_Proc(u64 ulHandle, i32 iScope, const DBM_BATCH_ROW_S *pstRows, u32 uiRowCount)
{
    Call c = Mk(__func__, {U(ulHandle), S(iScope), U(uiRowCount)});
    for (u32 i = 0; pstRows != nullptr && i < uiRowCount; i++) {
        c.args.insert(c.args.end(), {pstRows[i].ulId, pstRows[i].ulResv});
    }
    bool bWalk = false;
    u32 uiRet = Run<u32>(std::move(c), [&]() -> uint64_t {
        bWalk = HandleOk(ulHandle);
        return bWalk ? 0 : 1;
    });
    for (u32 i = 0; bWalk && pstRows != nullptr && i < uiRowCount; i++) {
        std::vector<Bytes> keys;
        for (const auto &kv : g_stDb.mapDb) {
            if (!kv.first.empty() && kv.first[0] == static_cast<uint8_t>(pstRows[i].ulId + 1)) {
                keys.push_back(kv.first);
            }
        }
        for (const Bytes &key : keys) {
            if (pstRows[i].pfnCallback != nullptr) {
                pstRows[i].pfnCallback(ulHandle, key.data(), static_cast<u32>(key.size()));
            }
        }
    }
    return uiRet;
}

i32 DBM_BatchGetNextSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen, void **ppvIter,
                             u32 uiArg1, u32 uiArg2, u32 uiRecLen, u32 uiMaxRec, void *pvBuf)
{
    return Run<i32>(Mk(__func__, {U(ulHandle), U(uiKeyLen), U(uiArg1), U(uiArg2), U(uiRecLen), U(uiMaxRec)},
                       Copy(pvKey, uiKeyLen)),
                    [&](Call &c) -> uint64_t {
                        if (!HandleOk(ulHandle) || ppvIter == nullptr || pvBuf == nullptr) {
                            return S(-1);
                        }
                        if (*ppvIter == nullptr) {
                            *ppvIter = new Iter{c.data, false, {}};
                        }
                        u32 uiCount = ReadBlock(static_cast<Iter *>(*ppvIter), uiRecLen, uiMaxRec,
                                                static_cast<uint8_t *>(pvBuf));
                        c.rec = Copy(pvBuf, static_cast<size_t>(uiCount) * uiRecLen);
                        return uiCount;
                    });
}

void DBM_FreeIterator(void *pvIter) { Run<void>(Mk(__func__, {}), [&] { delete static_cast<Iter *>(pvIter); }); }

} // extern "C"
