/* Per-interface private data: an in-process store of one pointer per
 * interface index in each instance, kept in ascending index order so that
 * a walk can go on from any index, even one whose entry was just deleted.
 * Used from the daemon's one thread only. */
#include "plat_if.h"

#include <map>
#include <memory>

#include "journal.h"

namespace {

using tbdl::plat::JournalEnabled;
using tbdl::plat::JournalRecord;
using tbdl::plat::PtrOf;

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

void JournalWalk(const char *pcCall, u64 ulInstance, u32 uiFrom, u32 uiRet, u32 *puiIfIndex, void **ppvData)
{
    if (JournalEnabled()) {
        JournalRecord(pcCall,
                      {{"instance", ulInstance},
                       {"from", uiFrom},
                       {"ifindex", uiRet == 0 ? nlohmann::json(*puiIfIndex) : nlohmann::json()},
                       {"data", uiRet == 0 ? PtrOf(*ppvData) : ""}},
                      uiRet);
    }
}

} // namespace

extern "C" u64 IF_CreatePDInstance(u32 uiKind, u32 uiFlags, u64 ulArg1, u32 uiArg2)
{
    PdStore &store = Store();
    u64 ulInstance = store.ulNextInstance++;
    store.instances.emplace(ulInstance, PdMap());
    if (JournalEnabled()) {
        JournalRecord("IF_CreatePDInstance", {{"kind", uiKind}, {"flags", uiFlags}, {"arg1", ulArg1}, {"arg2", uiArg2}},
                      ulInstance);
    }
    return ulInstance;
}

extern "C" u32 IF_DestroyPDInstance(u64 ulInstance, IF_PD_FREE_PF pfnFree)
{
    auto it = Store().instances.find(ulInstance);
    u32 uiRet = 1;
    size_t ulFreed = 0;
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
    PdMap *pMap = FindInstance(ulInstance);
    u32 uiRet = 1;
    if (pMap != nullptr && ppvData != nullptr) {
        auto it = pMap->find(uiIfIndex);
        if (it != pMap->end()) {
            *ppvData = it->second;
            uiRet = 0;
        }
    }
    if (JournalEnabled()) {
        JournalRecord("IF_GetPrivateData",
                      {{"instance", ulInstance}, {"ifindex", uiIfIndex}, {"data", uiRet == 0 ? PtrOf(*ppvData) : ""}},
                      uiRet);
    }
    return uiRet;
}

extern "C" u32 IF_SetPrivateData(u64 ulInstance, u32 uiIfIndex, void *pvData)
{
    PdMap *pMap = FindInstance(ulInstance);
    u32 uiRet = 1;
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
    PdMap *pMap = FindInstance(ulInstance);
    u32 uiRet = 1;
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
    PdMap *pMap = FindInstance(ulInstance);
    u32 uiRet = 1;
    if (pMap != nullptr && puiIfIndex != nullptr && ppvData != nullptr) {
        uiRet = Yield(pMap->begin(), *pMap, puiIfIndex, ppvData);
    }
    JournalWalk("IF_GetFirstPrivateData", ulInstance, 0, uiRet, puiIfIndex, ppvData);
    return uiRet;
}

extern "C" u32 IF_GetNextPrivateData(u64 ulInstance, u32 *puiIfIndex, void **ppvData)
{
    PdMap *pMap = FindInstance(ulInstance);
    u32 uiRet = 1;
    u32 uiFrom = puiIfIndex != nullptr ? *puiIfIndex : 0;
    if (pMap != nullptr && puiIfIndex != nullptr && ppvData != nullptr) {
        /* The first entry above the last index, whether or not that one is
         * still stored. */
        uiRet = Yield(pMap->upper_bound(uiFrom), *pMap, puiIfIndex, ppvData);
    }
    JournalWalk("IF_GetNextPrivateData", ulInstance, uiFrom, uiRet, puiIfIndex, ppvData);
    return uiRet;
}
