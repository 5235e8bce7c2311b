/* Fake platform database: keyed sorted lists held in memory.
 *
 * A list's records stay in ascending order of their sort word, the byte
 * range [offset, offset + length) of each record compared as stored; an
 * insert with an equal sort word replaces the stored record. */
#include <algorithm>
#include <cstring>

#include "fake_internal.h"

using fake::Bytes;
using fake::Call;
using namespace fake::detail;

namespace fake {
namespace {

constexpr u64 kHandle = 0xDB0;
constexpr u32 kDefaultSortLen = 4;

struct SortWord {
    uint32_t uiOffset = 0;
    uint32_t uiLen = 0;
};

struct Iter {
    Bytes key;
    size_t ulPos = 0;
};

std::map<Bytes, std::vector<Bytes>> g_mapDb;
std::map<Bytes, SortWord> g_mapSort;
bool g_bOpen = false;

template <typename Fn>
uint64_t Run(Call &c, Fn fn)
{
    uint64_t ul = 0;
    if (!Scripted(c.name, &ul)) {
        ul = fn();
    }
    c.result = ul;
    Record(std::move(c));
    return ul;
}

bool HandleOk(u64 ulHandle)
{
    return g_bOpen && ulHandle == kHandle;
}

Bytes SortBytes(const Bytes &rec, const SortWord &sw)
{
    Bytes out(sw.uiLen, 0);
    for (uint32_t i = 0; i < sw.uiLen; i++) {
        size_t ulAt = static_cast<size_t>(sw.uiOffset) + i;
        out[i] = ulAt < rec.size() ? rec[ulAt] : 0;
    }
    return out;
}

/* Position of the record with an equal sort word (bFound) or of the first
 * record with a greater one. */
size_t Locate(const std::vector<Bytes> &list, const SortWord &sw, const Bytes &rec, bool *pbFound)
{
    Bytes word = SortBytes(rec, sw);
    *pbFound = false;
    for (size_t i = 0; i < list.size(); i++) {
        Bytes cur = SortBytes(list[i], sw);
        if (cur == word) {
            *pbFound = true;
            return i;
        }
        if (word < cur) {
            return i;
        }
    }
    return list.size();
}

void Insert(const Bytes &key, const Bytes &rec)
{
    std::vector<Bytes> &list = g_mapDb[key];
    bool bFound = false;
    size_t ulAt = Locate(list, g_mapSort[key], rec, &bFound);
    if (bFound) {
        list[ulAt] = rec;
    } else {
        list.insert(list.begin() + static_cast<long>(ulAt), rec);
    }
}

} // namespace

namespace detail {
void ResetDbm()
{
    g_mapDb.clear();
    g_mapSort.clear();
    g_bOpen = false;
}
} // namespace detail

std::map<Bytes, std::vector<Bytes>> &Db()
{
    return g_mapDb;
}

bool DbOpen()
{
    return g_bOpen;
}

void DbPut(const Bytes &key, uint32_t sortOffset, const Bytes &rec)
{
    g_mapSort[key] = SortWord{sortOffset, kDefaultSortLen};
    Insert(key, rec);
}

} // namespace fake

using fake::g_bOpen;
using fake::g_mapDb;
using fake::g_mapSort;
using fake::HandleOk;
using fake::Iter;
using fake::kHandle;
using fake::Run;

extern "C" {

u32 DBM_Open(const char *pcName, const char *pcOwner, u32 uiType, const u32 *pauiParam,
             u64 *pulHandle, u32 uiRecMax, i32 iFlag)
{
    Call c = Mk("DBM_Open", {U(uiType)});
    for (int i = 0; i < 8; i++) {
        c.args.push_back(pauiParam != nullptr ? pauiParam[i] : 0);
    }
    c.args.push_back(U(pulHandle != nullptr ? *pulHandle : 0));
    c.args.push_back(U(uiRecMax));
    c.args.push_back(S(iFlag));
    c.text = std::string(pcName != nullptr ? pcName : "") + "|" + (pcOwner != nullptr ? pcOwner : "");
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (pulHandle == nullptr) {
            return 1;
        }
        g_bOpen = true;
        *pulHandle = kHandle;
        return 0;
    }));
}

u32 DBM_Close(u64 ulHandle)
{
    Call c = Mk("DBM_Close", {U(ulHandle)});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (!HandleOk(ulHandle)) {
            return 1;
        }
        g_bOpen = false;
        return 0;
    }));
}

u32 DBM_IsKeyExist(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    Call c = Mk("DBM_IsKeyExist", {U(ulHandle), U(uiKeyLen)}, Copy(pvKey, uiKeyLen));
    fake::Bytes key = c.data;
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        return (HandleOk(ulHandle) && g_mapDb.count(key) != 0) ? 1 : 0;
    }));
}

u32 DBM_SetSortWord(u64 ulHandle, const void *pvKey, u32 uiKeyLen, u32 uiCount, u32 uiOffset,
                    u32 uiLen, u32 uiKind, u32 uiOrder)
{
    Call c = Mk("DBM_SetSortWord",
           {U(ulHandle), U(uiKeyLen), U(uiCount), U(uiOffset), U(uiLen), U(uiKind), U(uiOrder)},
           Copy(pvKey, uiKeyLen));
    fake::Bytes key = c.data;
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (!HandleOk(ulHandle) || key.empty() || key.size() > DBM_KEY_MAX) {
            return 1;
        }
        g_mapSort[key] = fake::SortWord{uiOffset, uiLen};
        (void)g_mapDb[key];
        return 0;
    }));
}

u32 DBM_InsertSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen, u32 uiRecLen,
                       const void *pvRec, u32 uiFlag)
{
    Call c = Mk("DBM_InsertSortList", {U(ulHandle), U(uiKeyLen), U(uiRecLen), U(uiFlag)},
           Copy(pvKey, uiKeyLen), Copy(pvRec, uiRecLen));
    fake::Bytes key = c.data;
    fake::Bytes rec = c.rec;
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (!HandleOk(ulHandle) || g_mapSort.count(key) == 0 || rec.empty()) {
            return 1;
        }
        fake::Insert(key, rec);
        return 0;
    }));
}

u32 DBM_RemoveSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen, u32 uiRecLen,
                       const void *pvRec)
{
    Call c = Mk("DBM_RemoveSortList", {U(ulHandle), U(uiKeyLen), U(uiRecLen)}, Copy(pvKey, uiKeyLen),
           Copy(pvRec, uiRecLen));
    fake::Bytes key = c.data;
    fake::Bytes rec = c.rec;
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        auto it = g_mapDb.find(key);
        if (!HandleOk(ulHandle) || it == g_mapDb.end()) {
            return 1;
        }
        bool bFound = false;
        size_t ulAt = fake::Locate(it->second, g_mapSort[key], rec, &bFound);
        if (!bFound) {
            return 1;
        }
        it->second.erase(it->second.begin() + static_cast<long>(ulAt));
        return 0;
    }));
}

u32 DBM_Len(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    Call c = Mk("DBM_Len", {U(ulHandle), U(uiKeyLen)}, Copy(pvKey, uiKeyLen));
    fake::Bytes key = c.data;
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        auto it = g_mapDb.find(key);
        if (!HandleOk(ulHandle) || it == g_mapDb.end()) {
            return 0;
        }
        return it->second.size();
    }));
}

u32 DBM_DeleteKey(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    Call c = Mk("DBM_DeleteKey", {U(ulHandle), U(uiKeyLen)}, Copy(pvKey, uiKeyLen));
    fake::Bytes key = c.data;
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (!HandleOk(ulHandle)) {
            return 1;
        }
        g_mapDb.erase(key);
        g_mapSort.erase(key);
        return 0;
    }));
}

u32 DBM_Sync(void)
{
    Call c = Mk("DBM_Sync", {});
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

u32 DBM_Batch_Proc(u64 ulHandle, i32 iScope, const DBM_BATCH_ROW_S *pstRows, u32 uiRowCount)
{
    Call c = Mk("DBM_Batch_Proc", {U(ulHandle), S(iScope), U(uiRowCount)});
    for (u32 i = 0; pstRows != nullptr && i < uiRowCount; i++) {
        c.args.push_back(pstRows[i].ulId);
        c.args.push_back(pstRows[i].ulResv);
    }
    uint64_t ul = 0;
    bool bScripted = Scripted(c.name, &ul);
    if (!bScripted && !HandleOk(ulHandle)) {
        ul = 1;
        bScripted = true;
    }
    /* Recorded before the walk, so the journal shows the walk's calls after
     * it; the callbacks run on a snapshot of the matching keys. */
    c.result = ul;
    Record(std::move(c));
    if (bScripted) {
        return static_cast<u32>(ul);
    }
    for (u32 i = 0; pstRows != nullptr && i < uiRowCount; i++) {
        std::vector<fake::Bytes> keys;
        for (const auto &kv : g_mapDb) {
            if (!kv.first.empty() && kv.first[0] == static_cast<uint8_t>(pstRows[i].ulId + 1)) {
                keys.push_back(kv.first);
            }
        }
        for (const fake::Bytes &key : keys) {
            if (pstRows[i].pfnCallback != nullptr) {
                pstRows[i].pfnCallback(ulHandle, key.data(), static_cast<u32>(key.size()));
            }
        }
    }
    return 0;
}

i32 DBM_BatchGetNextSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen, void **ppvIter,
                             u32 uiArg1, u32 uiArg2, u32 uiRecLen, u32 uiMaxRec, void *pvBuf)
{
    Call c = Mk("DBM_BatchGetNextSortList",
           {U(ulHandle), U(uiKeyLen), U(uiArg1), U(uiArg2), U(uiRecLen), U(uiMaxRec)},
           Copy(pvKey, uiKeyLen));
    fake::Bytes key = c.data;
    uint64_t ul = 0;
    if (!Scripted(c.name, &ul)) {
        ul = S(-1);
        if (HandleOk(ulHandle) && ppvIter != nullptr && pvBuf != nullptr) {
            if (*ppvIter == nullptr) {
                *ppvIter = new Iter{key, 0};
            }
            auto *pIter = static_cast<Iter *>(*ppvIter);
            auto it = g_mapDb.find(pIter->key);
            u32 uiCount = 0;
            auto *pucOut = static_cast<uint8_t *>(pvBuf);
            while (it != g_mapDb.end() && pIter->ulPos < it->second.size() && uiCount < uiMaxRec) {
                const fake::Bytes &rec = it->second[pIter->ulPos];
                uint8_t *pucDst = pucOut + static_cast<size_t>(uiCount) * uiRecLen;
                std::memset(pucDst, 0, uiRecLen);
                std::memcpy(pucDst, rec.data(), std::min<size_t>(rec.size(), uiRecLen));
                pIter->ulPos++;
                uiCount++;
            }
            c.rec = Copy(pvBuf, static_cast<size_t>(uiCount) * uiRecLen);
            ul = uiCount;
        }
    }
    c.result = ul;
    Record(std::move(c));
    return static_cast<i32>(ul);
}

void DBM_FreeIterator(void *pvIter)
{
    Call c = Mk("DBM_FreeIterator", {});
    delete static_cast<Iter *>(pvIter);
    Record(std::move(c));
}

} // extern "C"
