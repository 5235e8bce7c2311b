/* Platform database calls on the chassis's SQLite store (DIR/dbm.sqlite,
 * see dbm_store.h). A handle stands for one open logical database of this
 * process. Both boards open the same file, so the standby's view is always
 * the store itself and DBM_Sync has nothing to do.
 *
 * The arguments that only tune the device's database (the parameter block,
 * record maximum and flags of DBM_Open; count, kind and order of a sort
 * word; the insert flag; the batch callbacks' extra arguments) have no
 * meaning here: lists are always ascending by sort word, compared as
 * stored.
 *
 * Every call but DBM_FreeIterator can be made to fail with chassisctl fail:
 * it then does nothing and returns the planned value, or else its own
 * failure value (kDbmErrStore; DBM_Open kDbmErrOpen; DBM_IsKeyExist and
 * DBM_Len 0; DBM_BatchGetNextSortList -1). */
#include "plat_dbm.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>

#include "chassis_env.h"
#include "dbm_store.h"
#include "emulated_call.h"
#include "lib_log.h"

using namespace tbdl::plat;

namespace {

/* Result codes of the DBM calls. */
constexpr u32 kDbmErrHandle = 1;     /* no such open handle */
constexpr u32 kDbmErrParam = 2;      /* bad key, record or argument */
constexpr u32 kDbmErrNotFound = 3;   /* no such key or record */
constexpr u32 kDbmErrNoSortWord = 4; /* the list has no sort word */
constexpr u32 kDbmErrStore = 5;      /* the store failed */
constexpr u32 kDbmErrOpen = 6;       /* the database cannot be opened */

constexpr u32 kMaxRecLen = 1u << 16;
constexpr u32 kMaxBlockRecs = 1u << 16;
constexpr u32 kIterMagic = 0x44424d49; /* "DBMI" */

struct DbmIterator {
    u32 uiMagic = kIterMagic;
    std::string strKey;
    std::string strLast; /* sort word of the last record handed out */
    bool bDone = false;
};

struct HandleTable {
    u64 ulNext = 1;
    std::map<u64, std::unique_ptr<DbmStore>> stores;
};

HandleTable &Handles()
{
    static HandleTable *table = new HandleTable();
    return *table;
}

/* Runs fn(store); kDbmErrHandle for an unknown handle. */
template <typename Fn>
u32 WithStore(u64 ulHandle, Fn fn)
{
    HandleTable &t = Handles();
    auto it = t.stores.find(ulHandle);
    return it == t.stores.end() ? kDbmErrHandle : fn(*it->second);
}

bool KeyOk(const void *pvKey, u32 uiKeyLen)
{
    return pvKey != nullptr && uiKeyLen >= 1 && uiKeyLen <= DBM_KEY_MAX;
}

bool RecOk(const void *pvRec, u32 uiRecLen)
{
    return pvRec != nullptr && uiRecLen >= 1 && uiRecLen <= kMaxRecLen;
}

std::string_view Bytes(const void *pv, u32 uiLen)
{
    return std::string_view(static_cast<const char *>(pv), uiLen);
}

u32 CodeOf(const DbmStore &store, DbmStatus status)
{
    switch (status) {
    case DbmStatus::Ok:
        return 0;
    case DbmStatus::NotFound:
        return kDbmErrNotFound;
    case DbmStatus::BadArg:
        return kDbmErrParam;
    case DbmStatus::NoSortWord:
        return kDbmErrNoSortWord;
    case DbmStatus::StoreError:
        break;
    }
    LibLogError("database %s: %s", store.Name().c_str(), store.LastError().c_str());
    return kDbmErrStore;
}

/* The journal arguments of a call on one key: handle, key, then extra. */
Json KeyArgs(u64 ulHandle, const void *pvKey, u32 uiKeyLen, Json extra = Json::object())
{
    Json args = {{"handle", ulHandle}, {"key", KeyOk(pvKey, uiKeyLen) ? HexOf(pvKey, uiKeyLen) : ""}};
    args.update(extra);
    return args;
}

/* A call on one key of a store: fn(store, key) when the key is good,
 * kDbmErrParam otherwise; planned failures give kDbmErrStore. */
template <typename Fn, typename Extra>
u32 KeyCall(const char *pcCall, u64 ulHandle, const void *pvKey, u32 uiKeyLen, bool bArgsOk, Fn fn, Extra extra)
{
    return Emulated(
        pcCall, kDbmErrStore,
        [&]() -> u32 {
            if (!bArgsOk || !KeyOk(pvKey, uiKeyLen)) {
                return kDbmErrParam;
            }
            return WithStore(ulHandle, [&](DbmStore &s) { return CodeOf(s, fn(s, Bytes(pvKey, uiKeyLen))); });
        },
        [&] { return KeyArgs(ulHandle, pvKey, uiKeyLen, extra()); });
}

/* The next block of a list for DBM_BatchGetNextSortList: up to uiMaxRec
 * records of uiRecLen bytes (cut or zero-padded) into pvBuf, after the
 * last one the iterator handed out; the iterator is made on the first
 * call. The number of records, 0 at the end, -1 on bad arguments or a
 * store error. */
i32 ReadBlock(u64 ulHandle, const void *pvKey, u32 uiKeyLen, void **ppvIter, u32 uiRecLen, u32 uiMaxRec,
              void *pvBuf, std::vector<DbmRecord> &recs)
{
    bool bArgsOk = KeyOk(pvKey, uiKeyLen) && ppvIter != nullptr && pvBuf != nullptr && uiRecLen >= 1 &&
                   uiRecLen <= kMaxRecLen && uiMaxRec >= 1 && uiMaxRec <= kMaxBlockRecs;
    if (!bArgsOk) {
        return -1;
    }
    auto *pstIter = static_cast<DbmIterator *>(*ppvIter);
    if (pstIter == nullptr) {
        pstIter = new DbmIterator();
        pstIter->strKey.assign(static_cast<const char *>(pvKey), uiKeyLen);
        *ppvIter = pstIter;
    }
    if (pstIter->uiMagic != kIterMagic || pstIter->strKey != Bytes(pvKey, uiKeyLen)) {
        return -1;
    }
    if (pstIter->bDone) {
        return 0;
    }
    u32 uiCode = WithStore(ulHandle, [&](DbmStore &s) {
        return CodeOf(s, s.ReadAfter(pstIter->strKey, pstIter->strLast, uiMaxRec, recs));
    });
    if (uiCode != 0) {
        return -1;
    }
    auto *pucOut = static_cast<u8 *>(pvBuf);
    for (size_t i = 0; i < recs.size(); ++i) {
        u8 *pucSlot = pucOut + i * uiRecLen;
        std::memset(pucSlot, 0, uiRecLen);
        std::memcpy(pucSlot, recs[i].bytes.data(), std::min<size_t>(uiRecLen, recs[i].bytes.size()));
    }
    if (!recs.empty()) {
        pstIter->strLast = recs.back().sortWord;
    }
    pstIter->bDone = recs.size() < uiMaxRec;
    return static_cast<i32>(recs.size());
}

/* Walks the rows of DBM_Batch_Proc: each row's keys in order, its callback
 * called on each. The reads of the whole walk share one read transaction
 * (the callbacks read every list and store each record again). */
u32 WalkRows(u64 ulHandle, const DBM_BATCH_ROW_S *pstRows, u32 uiRowCount, Json &walked)
{
    (void)WithStore(ulHandle, [](DbmStore &s) {
        s.BeginReadBatch();
        return u32{0};
    });
    u32 uiRet = 0;
    for (u32 i = 0; uiRet == 0 && i < uiRowCount; ++i) {
        const DBM_BATCH_ROW_S &stRow = pstRows[i];
        if (stRow.pfnCallback == nullptr || stRow.ulId > 0xFE) {
            continue; /* row N matches keys starting with byte N + 1 */
        }
        /* Take the row's keys first: the callback reads the store itself. */
        std::vector<std::string> keys;
        uiRet = WithStore(ulHandle, [&](DbmStore &s) {
            return CodeOf(s, s.KeysByFirstByte(static_cast<u8>(stRow.ulId + 1), keys));
        });
        for (size_t k = 0; uiRet == 0 && k < keys.size(); ++k) {
            u32 uiCbRet = stRow.pfnCallback(ulHandle, keys[k].data(), static_cast<u32>(keys[k].size()));
            if (JournalEnabled()) {
                walked.push_back(
                    {{"row", i}, {"key", HexOf(keys[k].data(), keys[k].size())}, {"cb_result", uiCbRet}});
            }
        }
    }
    /* By handle again: a callback may have closed it. */
    (void)WithStore(ulHandle, [](DbmStore &s) {
        s.EndReadBatch();
        return u32{0};
    });
    return uiRet;
}

} // namespace

extern "C" u32 DBM_Open(const char *pcName, const char *pcOwner, u32 uiType, const u32 *pauiParam, u64 *pulHandle,
                        u32 uiRecMax, i32 iFlag)
{
    std::string strName = TextOf(pcName);
    u64 ulHandle = DBM_HANDLE_NONE;
    return Emulated(
        "DBM_Open", kDbmErrOpen, /* a planned failure leaves *pulHandle as it was */
        [&]() -> u32 {
            const ChassisEnv &stEnv = GetChassisEnv();
            std::string strErr;
            u32 uiRet = kDbmErrOpen;
            if (strName.empty() || pulHandle == nullptr) {
                strErr = "no database name or handle";
                uiRet = kDbmErrParam;
            } else if (!stEnv.inChassis) {
                strErr = std::string("not in a chassis (") + kEnvChassisDir + " is not set)";
            } else if (auto store = DbmStore::Open(DatabasePathOf(stEnv.dir), strName, TextOf(pcOwner), strErr)) {
                HandleTable &t = Handles();
                ulHandle = t.ulNext++;
                t.stores.emplace(ulHandle, std::move(store));
                *pulHandle = ulHandle;
                return 0;
            }
            LibLogError("DBM_Open: cannot open database %s: %s", strName.c_str(), strErr.c_str());
            return uiRet;
        },
        [&] {
            return Json{{"name", strName},
                        {"owner", TextOf(pcOwner)},
                        {"type", uiType},
                        {"param", HexOf(pauiParam, 8 * sizeof(u32))},
                        {"rec_max", uiRecMax},
                        {"flag", iFlag},
                        {"handle", ulHandle != DBM_HANDLE_NONE ? Json(ulHandle) : Json()}};
        });
}

extern "C" u32 DBM_Close(u64 ulHandle)
{
    return Emulated(
        "DBM_Close", kDbmErrStore,
        [&]() -> u32 {
            HandleTable &t = Handles();
            auto it = t.stores.find(ulHandle);
            if (it == t.stores.end()) {
                return kDbmErrHandle;
            }
            t.stores.erase(it); /* closes the store's connection */
            return 0;
        },
        [&] { return Json{{"handle", ulHandle}}; });
}

extern "C" u32 DBM_IsKeyExist(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    return Emulated(
        "DBM_IsKeyExist", u32{0},
        [&]() -> u32 {
            bool bExists = false;
            if (KeyOk(pvKey, uiKeyLen)) {
                (void)WithStore(ulHandle,
                                [&](DbmStore &s) { return CodeOf(s, s.KeyExists(Bytes(pvKey, uiKeyLen), bExists)); });
            }
            return bExists ? 1 : 0;
        },
        [&] { return KeyArgs(ulHandle, pvKey, uiKeyLen); });
}

extern "C" u32 DBM_SetSortWord(u64 ulHandle, const void *pvKey, u32 uiKeyLen, u32 uiCount, u32 uiOffset, u32 uiLen,
                               u32 uiKind, u32 uiOrder)
{
    bool bWordOk = uiLen >= 1 && uiLen <= kMaxRecLen && uiOffset <= kMaxRecLen - uiLen;
    return KeyCall(
        "DBM_SetSortWord", ulHandle, pvKey, uiKeyLen, bWordOk,
        [&](DbmStore &s, std::string_view key) { return s.SetSortWord(key, uiOffset, uiLen); },
        [&] {
            return Json{{"count", uiCount}, {"offset", uiOffset}, {"len", uiLen}, {"kind", uiKind}, {"order", uiOrder}};
        });
}

extern "C" u32 DBM_InsertSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen, u32 uiRecLen, const void *pvRec,
                                  u32 uiFlag)
{
    return KeyCall(
        "DBM_InsertSortList", ulHandle, pvKey, uiKeyLen, RecOk(pvRec, uiRecLen),
        [&](DbmStore &s, std::string_view key) { return s.Insert(key, Bytes(pvRec, uiRecLen)); },
        [&] { return Json{{"rec", uiRecLen <= kMaxRecLen ? HexOf(pvRec, uiRecLen) : ""}, {"flag", uiFlag}}; });
}

extern "C" u32 DBM_RemoveSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen, u32 uiRecLen, const void *pvRec)
{
    return KeyCall(
        "DBM_RemoveSortList", ulHandle, pvKey, uiKeyLen, RecOk(pvRec, uiRecLen),
        [&](DbmStore &s, std::string_view key) { return s.Remove(key, Bytes(pvRec, uiRecLen)); },
        [&] { return Json{{"rec", uiRecLen <= kMaxRecLen ? HexOf(pvRec, uiRecLen) : ""}}; });
}

extern "C" u32 DBM_Len(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    return Emulated(
        "DBM_Len", u32{0},
        [&] {
            u32 uiCount = 0;
            if (KeyOk(pvKey, uiKeyLen)) {
                (void)WithStore(ulHandle,
                                [&](DbmStore &s) { return CodeOf(s, s.Count(Bytes(pvKey, uiKeyLen), uiCount)); });
            }
            return uiCount;
        },
        [&] { return KeyArgs(ulHandle, pvKey, uiKeyLen); });
}

extern "C" u32 DBM_DeleteKey(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    return KeyCall(
        "DBM_DeleteKey", ulHandle, pvKey, uiKeyLen, true,
        [&](DbmStore &s, std::string_view key) { return s.DeleteKey(key); }, [] { return Json::object(); });
}

extern "C" u32 DBM_Sync(void)
{
    return Emulated(
        "DBM_Sync", kDbmErrStore, [] { return u32{0}; }, [] { return Json::object(); });
}

extern "C" u32 DBM_Batch_Proc(u64 ulHandle, i32 iScope, const DBM_BATCH_ROW_S *pstRows, u32 uiRowCount)
{
    u32 uiRowsWalked = 0; /* a planned failure walks no row */
    Json walked = Json::array();
    return Emulated(
        "DBM_Batch_Proc", kDbmErrStore,
        [&]() -> u32 {
            uiRowsWalked = uiRowCount;
            if (iScope != -1 || (pstRows == nullptr && uiRowCount != 0)) {
                return kDbmErrParam;
            }
            return WalkRows(ulHandle, pstRows, uiRowCount, walked);
        },
        [&] { return Json{{"handle", ulHandle}, {"scope", iScope}, {"rows", uiRowsWalked}, {"lists", walked}}; });
}

extern "C" i32 DBM_BatchGetNextSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen, void **ppvIter, u32 uiArg1,
                                        u32 uiArg2, u32 uiRecLen, u32 uiMaxRec, void *pvBuf)
{
    bool bRan = false; /* a planned failure neither makes nor moves the iterator */
    std::vector<DbmRecord> recs;
    return Emulated(
        "DBM_BatchGetNextSortList", i32{-1},
        [&] {
            bRan = true;
            return ReadBlock(ulHandle, pvKey, uiKeyLen, ppvIter, uiRecLen, uiMaxRec, pvBuf, recs);
        },
        [&] {
            Json extra = {{"arg1", uiArg1}, {"arg2", uiArg2}, {"rec_len", uiRecLen}, {"max_rec", uiMaxRec}};
            if (bRan) {
                Json out = Json::array();
                for (const DbmRecord &r : recs) {
                    out.push_back(HexOf(r.bytes.data(), std::min<size_t>(uiRecLen, r.bytes.size())));
                }
                extra["recs"] = out;
            }
            return KeyArgs(ulHandle, pvKey, uiKeyLen, extra);
        });
}

extern "C" void DBM_FreeIterator(void *pvIter)
{
    Journaled(
        "DBM_FreeIterator",
        [&] {
            auto *pstIter = static_cast<DbmIterator *>(pvIter);
            if (pstIter != nullptr && pstIter->uiMagic == kIterMagic) {
                pstIter->uiMagic = 0;
                delete pstIter;
            }
        },
        [&] { return Json{{"iter", PtrOf(pvIter)}}; });
}
