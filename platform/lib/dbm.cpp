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
#include <mutex>

#include "chassis_env.h"
#include "chassis_link.h"
#include "dbm_store.h"
#include "journal.h"
#include "lib_log.h"

namespace {

using tbdl::plat::DbmRecord;
using tbdl::plat::DbmStatus;
using tbdl::plat::DbmStore;
using tbdl::plat::HexOf;
using tbdl::plat::JournalEnabled;
using tbdl::plat::JournalRecord;
using tbdl::plat::link::Fails;

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
    std::mutex mutex;
    u64 ulNext = 1;
    std::map<u64, std::unique_ptr<DbmStore>> stores;
};

HandleTable &Handles()
{
    static HandleTable *table = new HandleTable();
    return *table;
}

/* true when a planned failure hits pcCall now; uiRet then holds the planned
 * value, or uiFail when none was given. */
bool PlannedFailure(const char *pcCall, u32 uiFail, u32 &uiRet)
{
    int64_t lValue = uiFail;
    if (!Fails(pcCall, &lValue)) {
        return false;
    }
    uiRet = static_cast<u32>(lValue);
    return true;
}

/* Runs fn(store) under the table lock; kDbmErrHandle for an unknown handle. */
template <typename Fn>
u32 WithStore(u64 ulHandle, Fn fn)
{
    HandleTable &t = Handles();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.stores.find(ulHandle);
    return it == t.stores.end() ? kDbmErrHandle : fn(*it->second);
}

bool KeyOk(const void *pvKey, u32 uiKeyLen)
{
    return pvKey != nullptr && uiKeyLen >= 1 && uiKeyLen <= DBM_KEY_MAX;
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
    tbdl::plat::LibLogError("database %s: %s", store.Name().c_str(), store.LastError().c_str());
    return kDbmErrStore;
}

void JournalKeyCall(const char *pcCall, u64 ulHandle, const void *pvKey, u32 uiKeyLen, nlohmann::json extra,
                    const nlohmann::json &result)
{
    if (!JournalEnabled()) {
        return;
    }
    nlohmann::json args = {{"handle", ulHandle}, {"key", KeyOk(pvKey, uiKeyLen) ? HexOf(pvKey, uiKeyLen) : ""}};
    if (extra.is_object()) {
        args.update(extra);
    }
    JournalRecord(pcCall, args, result);
}

} // namespace

extern "C" u32 DBM_Open(const char *pcName, const char *pcOwner, u32 uiType, const u32 *pauiParam, u64 *pulHandle,
                        u32 uiRecMax, i32 iFlag)
{
    const tbdl::plat::ChassisEnv &stEnv = tbdl::plat::GetChassisEnv();
    std::string strName = pcName != nullptr ? pcName : "";
    std::string strErr;
    u32 uiRet = kDbmErrOpen;
    u64 ulHandle = DBM_HANDLE_NONE;
    bool bPlanned = PlannedFailure("DBM_Open", kDbmErrOpen, uiRet);
    if (bPlanned) {
        /* *pulHandle stays as it was */
    } else if (strName.empty() || pulHandle == nullptr) {
        strErr = "no database name or handle";
        uiRet = kDbmErrParam;
    } else if (!stEnv.inChassis) {
        strErr = std::string("not in a chassis (") + tbdl::plat::kEnvChassisDir + " is not set)";
    } else {
        std::string strPath = tbdl::plat::DatabasePathOf(stEnv.dir);
        std::unique_ptr<DbmStore> store = DbmStore::Open(strPath, strName, pcOwner != nullptr ? pcOwner : "", strErr);
        if (store != nullptr) {
            HandleTable &t = Handles();
            std::lock_guard<std::mutex> lock(t.mutex);
            ulHandle = t.ulNext++;
            t.stores.emplace(ulHandle, std::move(store));
            *pulHandle = ulHandle;
            uiRet = 0;
        }
    }
    if (uiRet != 0 && !bPlanned) {
        tbdl::plat::LibLogError("DBM_Open: cannot open database %s: %s", strName.c_str(), strErr.c_str());
    }
    if (JournalEnabled()) {
        JournalRecord("DBM_Open",
                      {{"name", strName},
                       {"owner", pcOwner != nullptr ? pcOwner : ""},
                       {"type", uiType},
                       {"param", pauiParam != nullptr ? HexOf(pauiParam, 8 * sizeof(u32)) : ""},
                       {"rec_max", uiRecMax},
                       {"flag", iFlag},
                       {"handle", ulHandle != DBM_HANDLE_NONE ? nlohmann::json(ulHandle) : nlohmann::json()}},
                      uiRet);
    }
    return uiRet;
}

extern "C" u32 DBM_Close(u64 ulHandle)
{
    u32 uiRet = kDbmErrHandle;
    std::unique_ptr<DbmStore> store;
    if (!PlannedFailure("DBM_Close", kDbmErrStore, uiRet)) {
        HandleTable &t = Handles();
        std::lock_guard<std::mutex> lock(t.mutex);
        auto it = t.stores.find(ulHandle);
        if (it != t.stores.end()) {
            store = std::move(it->second);
            t.stores.erase(it);
            uiRet = 0;
        }
    }
    store.reset(); /* closes the connection outside the lock */
    if (JournalEnabled()) {
        JournalRecord("DBM_Close", {{"handle", ulHandle}}, uiRet);
    }
    return uiRet;
}

extern "C" u32 DBM_IsKeyExist(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    bool bExists = false;
    u32 uiRet = 0;
    if (!PlannedFailure("DBM_IsKeyExist", 0, uiRet)) {
        if (KeyOk(pvKey, uiKeyLen)) {
            (void)WithStore(ulHandle,
                            [&](DbmStore &s) { return CodeOf(s, s.KeyExists(Bytes(pvKey, uiKeyLen), bExists)); });
        }
        uiRet = bExists ? 1 : 0;
    }
    JournalKeyCall("DBM_IsKeyExist", ulHandle, pvKey, uiKeyLen, {}, uiRet);
    return uiRet;
}

extern "C" u32 DBM_SetSortWord(u64 ulHandle, const void *pvKey, u32 uiKeyLen, u32 uiCount, u32 uiOffset, u32 uiLen,
                               u32 uiKind, u32 uiOrder)
{
    u32 uiRet = kDbmErrParam;
    if (PlannedFailure("DBM_SetSortWord", kDbmErrStore, uiRet)) {
        /* nothing set */
    } else if (KeyOk(pvKey, uiKeyLen) && uiLen >= 1 && uiLen <= kMaxRecLen && uiOffset <= kMaxRecLen - uiLen) {
        uiRet = WithStore(ulHandle,
                          [&](DbmStore &s) { return CodeOf(s, s.SetSortWord(Bytes(pvKey, uiKeyLen), uiOffset, uiLen)); });
    }
    JournalKeyCall("DBM_SetSortWord", ulHandle, pvKey, uiKeyLen,
                   {{"count", uiCount}, {"offset", uiOffset}, {"len", uiLen}, {"kind", uiKind}, {"order", uiOrder}},
                   uiRet);
    return uiRet;
}

extern "C" u32 DBM_InsertSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen, u32 uiRecLen, const void *pvRec,
                                  u32 uiFlag)
{
    u32 uiRet = kDbmErrParam;
    if (PlannedFailure("DBM_InsertSortList", kDbmErrStore, uiRet)) {
        /* nothing stored */
    } else if (KeyOk(pvKey, uiKeyLen) && pvRec != nullptr && uiRecLen >= 1 && uiRecLen <= kMaxRecLen) {
        uiRet = WithStore(ulHandle, [&](DbmStore &s) {
            return CodeOf(s, s.Insert(Bytes(pvKey, uiKeyLen), Bytes(pvRec, uiRecLen)));
        });
    }
    JournalKeyCall("DBM_InsertSortList", ulHandle, pvKey, uiKeyLen,
                   {{"rec", uiRecLen <= kMaxRecLen ? HexOf(pvRec, uiRecLen) : ""}, {"flag", uiFlag}}, uiRet);
    return uiRet;
}

extern "C" u32 DBM_RemoveSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen, u32 uiRecLen, const void *pvRec)
{
    u32 uiRet = kDbmErrParam;
    if (PlannedFailure("DBM_RemoveSortList", kDbmErrStore, uiRet)) {
        /* nothing removed */
    } else if (KeyOk(pvKey, uiKeyLen) && pvRec != nullptr && uiRecLen >= 1 && uiRecLen <= kMaxRecLen) {
        uiRet = WithStore(ulHandle, [&](DbmStore &s) {
            return CodeOf(s, s.Remove(Bytes(pvKey, uiKeyLen), Bytes(pvRec, uiRecLen)));
        });
    }
    JournalKeyCall("DBM_RemoveSortList", ulHandle, pvKey, uiKeyLen,
                   {{"rec", uiRecLen <= kMaxRecLen ? HexOf(pvRec, uiRecLen) : ""}}, uiRet);
    return uiRet;
}

extern "C" u32 DBM_Len(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    u32 uiCount = 0;
    if (PlannedFailure("DBM_Len", 0, uiCount)) {
        /* the planned count */
    } else if (KeyOk(pvKey, uiKeyLen)) {
        (void)WithStore(ulHandle, [&](DbmStore &s) { return CodeOf(s, s.Count(Bytes(pvKey, uiKeyLen), uiCount)); });
    }
    JournalKeyCall("DBM_Len", ulHandle, pvKey, uiKeyLen, {}, uiCount);
    return uiCount;
}

extern "C" u32 DBM_DeleteKey(u64 ulHandle, const void *pvKey, u32 uiKeyLen)
{
    u32 uiRet = kDbmErrParam;
    if (PlannedFailure("DBM_DeleteKey", kDbmErrStore, uiRet)) {
        /* nothing deleted */
    } else if (KeyOk(pvKey, uiKeyLen)) {
        uiRet = WithStore(ulHandle, [&](DbmStore &s) { return CodeOf(s, s.DeleteKey(Bytes(pvKey, uiKeyLen))); });
    }
    JournalKeyCall("DBM_DeleteKey", ulHandle, pvKey, uiKeyLen, {}, uiRet);
    return uiRet;
}

extern "C" u32 DBM_Sync(void)
{
    u32 uiRet = 0;
    (void)PlannedFailure("DBM_Sync", kDbmErrStore, uiRet);
    if (JournalEnabled()) {
        JournalRecord("DBM_Sync", nlohmann::json::object(), uiRet);
    }
    return uiRet;
}

extern "C" u32 DBM_Batch_Proc(u64 ulHandle, i32 iScope, const DBM_BATCH_ROW_S *pstRows, u32 uiRowCount)
{
    u32 uiRet = 0;
    nlohmann::json walked = nlohmann::json::array();
    if (PlannedFailure("DBM_Batch_Proc", kDbmErrStore, uiRet)) {
        uiRowCount = 0; /* no row is walked */
    } else if (iScope != -1 || (pstRows == nullptr && uiRowCount != 0)) {
        uiRet = kDbmErrParam;
    }
    for (u32 i = 0; uiRet == 0 && i < uiRowCount; ++i) {
        const DBM_BATCH_ROW_S &stRow = pstRows[i];
        if (stRow.pfnCallback == nullptr || stRow.ulId > 0xFE) {
            continue; /* row N matches keys starting with byte N + 1 */
        }
        /* Take the row's keys first: the callback reads the store itself. */
        std::vector<std::string> keys;
        uiRet = WithStore(ulHandle,
                          [&](DbmStore &s) { return CodeOf(s, s.KeysByFirstByte(static_cast<u8>(stRow.ulId + 1), keys)); });
        for (size_t k = 0; uiRet == 0 && k < keys.size(); ++k) {
            u32 uiCbRet = stRow.pfnCallback(ulHandle, keys[k].data(), static_cast<u32>(keys[k].size()));
            if (JournalEnabled()) {
                walked.push_back({{"row", i}, {"key", HexOf(keys[k].data(), keys[k].size())}, {"cb_result", uiCbRet}});
            }
        }
    }
    if (JournalEnabled()) {
        JournalRecord("DBM_Batch_Proc",
                      {{"handle", ulHandle}, {"scope", iScope}, {"rows", uiRowCount}, {"lists", walked}}, uiRet);
    }
    return uiRet;
}

extern "C" i32 DBM_BatchGetNextSortList(u64 ulHandle, const void *pvKey, u32 uiKeyLen, void **ppvIter, u32 uiArg1,
                                        u32 uiArg2, u32 uiRecLen, u32 uiMaxRec, void *pvBuf)
{
    int64_t lValue = -1;
    if (Fails("DBM_BatchGetNextSortList", &lValue)) {
        /* the iterator, if any, is neither made nor moved */
        JournalKeyCall("DBM_BatchGetNextSortList", ulHandle, pvKey, uiKeyLen,
                       {{"arg1", uiArg1}, {"arg2", uiArg2}, {"rec_len", uiRecLen}, {"max_rec", uiMaxRec}},
                       static_cast<i32>(lValue));
        return static_cast<i32>(lValue);
    }
    i32 iRet = -1;
    std::vector<DbmRecord> recs;
    bool bArgsOk = KeyOk(pvKey, uiKeyLen) && ppvIter != nullptr && pvBuf != nullptr && uiRecLen >= 1 &&
                   uiRecLen <= kMaxRecLen && uiMaxRec >= 1 && uiMaxRec <= kMaxBlockRecs;
    auto *pstIter = bArgsOk ? static_cast<DbmIterator *>(*ppvIter) : nullptr;
    if (bArgsOk && pstIter == nullptr) {
        pstIter = new DbmIterator();
        pstIter->strKey.assign(static_cast<const char *>(pvKey), uiKeyLen);
        *ppvIter = pstIter;
    }
    if (pstIter != nullptr && pstIter->uiMagic == kIterMagic && pstIter->strKey == Bytes(pvKey, uiKeyLen)) {
        if (pstIter->bDone) {
            iRet = 0;
        } else {
            u32 uiCode = WithStore(ulHandle, [&](DbmStore &s) {
                return CodeOf(s, s.ReadAfter(pstIter->strKey, pstIter->strLast, uiMaxRec, recs));
            });
            if (uiCode == 0) {
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
                iRet = static_cast<i32>(recs.size());
            }
        }
    }
    if (JournalEnabled()) {
        nlohmann::json out = nlohmann::json::array();
        for (const DbmRecord &r : recs) {
            out.push_back(HexOf(r.bytes.data(), std::min<size_t>(uiRecLen, r.bytes.size())));
        }
        JournalKeyCall("DBM_BatchGetNextSortList", ulHandle, pvKey, uiKeyLen,
                       {{"arg1", uiArg1}, {"arg2", uiArg2}, {"rec_len", uiRecLen}, {"max_rec", uiMaxRec}, {"recs", out}},
                       iRet);
    }
    return iRet;
}

extern "C" void DBM_FreeIterator(void *pvIter)
{
    auto *pstIter = static_cast<DbmIterator *>(pvIter);
    if (pstIter != nullptr && pstIter->uiMagic == kIterMagic) {
        pstIter->uiMagic = 0;
        delete pstIter;
    }
    if (JournalEnabled()) {
        JournalRecord("DBM_FreeIterator", {{"iter", tbdl::plat::PtrOf(pvIter)}}, nullptr);
    }
}
