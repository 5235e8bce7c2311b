/* Per-interface private data: an in-process store of one pointer per
 * interface index in each instance, kept in ascending index order so that
 * a walk can go on from any index, even one whose entry was just deleted.
 * Used from the daemon's one thread only.
 *
 * Each call can be made to fail with chassisctl fail: it then changes
 * nothing, leaves its outputs alone and returns the planned value, or else
 * 1 (IF_CreatePDInstance: IF_PD_INSTANCE_NONE). */
#include "plat_if.h"

#include <map>
#include <memory>

#include "chassis_link.h"
#include "journal.h"

namespace {

using tbdl::plat::JournalEnabled;
using tbdl::plat::JournalRecord;
using tbdl::plat::PtrOf;
using tbdl::plat::link::Fails;

using PdMap = std::map<u32, void *>;

struct PdStore {
    u64 ulNextInstance = 1;
    std::map<u64, PdMap> instances;
};

PdStore &Store()
{
    static PdStore *store = new PdStore();
    return *store;
}

PdMap *FindInstance(u64 ulInstance)
{
    auto it = Store().instances.find(ulInstance);
    return it == Store().instances.end() ? nullptr : &it->second;
}

/* true when a planned failure hits pcCall now; uiRet then holds the planned
 * value, or 1 when none was given. */
bool PlannedFailure(const char *pcCall, u32 &uiRet)
{
    int64_t lValue = 1;
    if (!Fails(pcCall, &lValue)) {
        return false;
    }
    uiRet = static_cast<u32>(lValue);
    return true;
}

/* Sets the out-parameters from an entry; 0 when there is one. */
u32 Yield(PdMap::const_iterator it, const PdMap &map, u32 *puiIfIndex, void **ppvData)
{
    if (it == map.end()) {
        return 1;
    }
    *puiIfIndex = it->first;
    *ppvData = it->second;
    return 0;
}

/* bFilled: the call wrote the out-parameters (a planned result of 0 does
 * not). */
void JournalWalk(const char *pcCall, u64 ulInstance, u32 uiFrom, u32 uiRet, bool bFilled, u32 *puiIfIndex,
                 void **ppvData)
{
    if (JournalEnabled()) {
        bFilled = bFilled && uiRet == 0;
        JournalRecord(pcCall,
                      {{"instance", ulInstance},
                       {"from", uiFrom},
                       {"ifindex", bFilled ? nlohmann::json(*puiIfIndex) : nlohmann::json()},
                       {"data", bFilled ? PtrOf(*ppvData) : ""}},
                      uiRet);
    }
}

} // namespace

extern "C" u64 IF_CreatePDInstance(u32 uiKind, u32 uiFlags, u64 ulArg1, u32 uiArg2)
{
    int64_t lValue = static_cast<int64_t>(IF_PD_INSTANCE_NONE);
    u64 ulInstance;
    if (Fails("IF_CreatePDInstance", &lValue)) {
        ulInstance = static_cast<u64>(lValue);
    } else {
        PdStore &store = Store();
        ulInstance = store.ulNextInstance++;
        store.instances.emplace(ulInstance, PdMap());
    }
    if (JournalEnabled()) {
        JournalRecord("IF_CreatePDInstance", {{"kind", uiKind}, {"flags", uiFlags}, {"arg1", ulArg1}, {"arg2", uiArg2}},
                      ulInstance);
    }
    return ulInstance;
}

extern "C" u32 IF_DestroyPDInstance(u64 ulInstance, IF_PD_FREE_PF pfnFree)
{
    u32 uiRet = 1;
    size_t ulFreed = 0;
    auto it = Store().instances.end();
    if (!PlannedFailure("IF_DestroyPDInstance", uiRet)) {
        it = Store().instances.find(ulInstance);
    }
    if (it != Store().instances.end()) {
        /* Take the entries out first: a free callback may call the store. */
        PdMap entries = std::move(it->second);
        Store().instances.erase(it);
        for (auto &[uiIfIndex, pvData] : entries) {
            if (pfnFree != nullptr) {
                pfnFree(pvData);
            }
        }
        ulFreed = entries.size();
        uiRet = 0;
    }
    if (JournalEnabled()) {
        JournalRecord("IF_DestroyPDInstance", {{"instance", ulInstance}, {"entries", ulFreed}}, uiRet);
    }
    return uiRet;
}

extern "C" u32 IF_GetPrivateData(u64 ulInstance, u32 uiIfIndex, void **ppvData)
{
    u32 uiRet = 1;
    PdMap *pMap = PlannedFailure("IF_GetPrivateData", uiRet) ? nullptr : FindInstance(ulInstance);
    if (pMap != nullptr && ppvData != nullptr) {
        auto it = pMap->find(uiIfIndex);
        if (it != pMap->end()) {
            *ppvData = it->second;
            uiRet = 0;
        }
    }
    if (JournalEnabled()) {
        JournalRecord("IF_GetPrivateData",
                      {{"instance", ulInstance},
                       {"ifindex", uiIfIndex},
                       {"data", uiRet == 0 && pMap != nullptr ? PtrOf(*ppvData) : ""}},
                      uiRet);
    }
    return uiRet;
}

extern "C" u32 IF_SetPrivateData(u64 ulInstance, u32 uiIfIndex, void *pvData)
{
    u32 uiRet = 1;
    PdMap *pMap = PlannedFailure("IF_SetPrivateData", uiRet) ? nullptr : FindInstance(ulInstance);
    if (pMap != nullptr && pvData != nullptr && pMap->emplace(uiIfIndex, pvData).second) {
        uiRet = 0;
    }
    if (JournalEnabled()) {
        JournalRecord("IF_SetPrivateData", {{"instance", ulInstance}, {"ifindex", uiIfIndex}, {"data", PtrOf(pvData)}},
                      uiRet);
    }
    return uiRet;
}

extern "C" u32 IF_DelPrivateData(u64 ulInstance, u32 uiIfIndex, IF_PD_FREE_PF pfnFree)
{
    u32 uiRet = 1;
    PdMap *pMap = PlannedFailure("IF_DelPrivateData", uiRet) ? nullptr : FindInstance(ulInstance);
    void *pvData = nullptr;
    if (pMap != nullptr) {
        auto it = pMap->find(uiIfIndex);
        if (it != pMap->end()) {
            pvData = it->second;
            pMap->erase(it);
            if (pfnFree != nullptr) {
                pfnFree(pvData);
            }
            uiRet = 0;
        }
    }
    if (JournalEnabled()) {
        JournalRecord("IF_DelPrivateData", {{"instance", ulInstance}, {"ifindex", uiIfIndex}, {"data", PtrOf(pvData)}},
                      uiRet);
    }
    return uiRet;
}

extern "C" u32 IF_GetFirstPrivateData(u64 ulInstance, u32 *puiIfIndex, void **ppvData)
{
    u32 uiRet = 1;
    PdMap *pMap = PlannedFailure("IF_GetFirstPrivateData", uiRet) ? nullptr : FindInstance(ulInstance);
    if (pMap != nullptr && puiIfIndex != nullptr && ppvData != nullptr) {
        uiRet = Yield(pMap->begin(), *pMap, puiIfIndex, ppvData);
    }
    JournalWalk("IF_GetFirstPrivateData", ulInstance, 0, uiRet, pMap != nullptr, puiIfIndex, ppvData);
    return uiRet;
}

extern "C" u32 IF_GetNextPrivateData(u64 ulInstance, u32 *puiIfIndex, void **ppvData)
{
    u32 uiRet = 1;
    PdMap *pMap = PlannedFailure("IF_GetNextPrivateData", uiRet) ? nullptr : FindInstance(ulInstance);
    u32 uiFrom = puiIfIndex != nullptr ? *puiIfIndex : 0;
    if (pMap != nullptr && puiIfIndex != nullptr && ppvData != nullptr) {
        /* The first entry above the last index, whether or not that one is
         * still stored. */
        uiRet = Yield(pMap->upper_bound(uiFrom), *pMap, puiIfIndex, ppvData);
    }
    JournalWalk("IF_GetNextPrivateData", ulInstance, uiFrom, uiRet, pMap != nullptr, puiIfIndex, ppvData);
    return uiRet;
}
