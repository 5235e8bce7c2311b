/* Per-interface private data: an in-process store of one pointer per
 * interface index in each instance, kept in ascending index order so that
 * a walk can go on from any index, even one whose entry was just deleted.
 * Used from the daemon's one thread only.
 *
 * Each call can be made to fail with chassisctl fail: it then changes
 * nothing, leaves its outputs alone and returns the planned value, or else
 * 1 (IF_CreatePDInstance: IF_PD_INSTANCE_NONE). */
#include "plat_if.h"

#include <algorithm>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "emulated_call.h"

using namespace tbdl::plat;

namespace {

/* The entries of an instance by ascending index, in one array: 16 bytes
 * an entry where a tree node takes 64 with its allocation, so a daemon
 * with 8192 members bound holds 0.4 MB less. Members are bound mostly in
 * ascending index order (recovery walks them so), so inserts are mostly
 * appends. */
class PdMap {
public:
    using Entry = std::pair<u32, void *>;
    using const_iterator = std::vector<Entry>::const_iterator;

    const_iterator begin() const { return entries_.begin(); }
    const_iterator end() const { return entries_.end(); }
    size_t size() const { return entries_.size(); }
    const_iterator upper_bound(u32 uiIfIndex) const
    {
        return std::upper_bound(entries_.begin(), entries_.end(), uiIfIndex,
                                [](u32 uiIx, const Entry &e) { return uiIx < e.first; });
    }
    const_iterator find(u32 uiIfIndex) const
    {
        auto it = LowerBound(uiIfIndex);
        return it != end() && it->first == uiIfIndex ? it : end();
    }
    /* False when the index has an entry already. */
    bool emplace(u32 uiIfIndex, void *pvData)
    {
        auto it = LowerBound(uiIfIndex);
        if (it != end() && it->first == uiIfIndex) {
            return false;
        }
        entries_.insert(it, Entry{uiIfIndex, pvData});
        return true;
    }
    void erase(const_iterator it) { entries_.erase(it); }

private:
    const_iterator LowerBound(u32 uiIfIndex) const
    {
        return std::lower_bound(entries_.begin(), entries_.end(), uiIfIndex,
                                [](const Entry &e, u32 uiIx) { return e.first < uiIx; });
    }

    std::vector<Entry> entries_;
};

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

/* IF_GetFirstPrivateData and IF_GetNextPrivateData: pick(map, uiFrom)
 * chooses the entry handed out from an instance that exists. */
template <typename Pick>
u32 Walk(const char *pcCall, u64 ulInstance, u32 uiFrom, u32 *puiIfIndex, void **ppvData, Pick pick)
{
    bool bFilled = false;
    return Emulated(
        pcCall, u32{1},
        [&]() -> u32 {
            PdMap *pMap = FindInstance(ulInstance);
            if (pMap == nullptr || puiIfIndex == nullptr || ppvData == nullptr) {
                return 1;
            }
            u32 uiRet = Yield(pick(*pMap, uiFrom), *pMap, puiIfIndex, ppvData);
            bFilled = uiRet == 0;
            return uiRet;
        },
        [&] {
            return Json{{"instance", ulInstance},
                        {"from", uiFrom},
                        {"ifindex", bFilled ? Json(*puiIfIndex) : Json()},
                        {"data", bFilled ? PtrOf(*ppvData) : ""}};
        });
}

} // namespace

extern "C" u64 IF_CreatePDInstance(u32 uiKind, u32 uiFlags, u64 ulArg1, u32 uiArg2)
{
    return Emulated(
        "IF_CreatePDInstance", u64{IF_PD_INSTANCE_NONE},
        [] {
            PdStore &store = Store();
            u64 ulInstance = store.ulNextInstance++;
            store.instances.emplace(ulInstance, PdMap());
            return ulInstance;
        },
        [&] { return Json{{"kind", uiKind}, {"flags", uiFlags}, {"arg1", ulArg1}, {"arg2", uiArg2}}; });
}

extern "C" u32 IF_DestroyPDInstance(u64 ulInstance, IF_PD_FREE_PF pfnFree)
{
    size_t ulFreed = 0;
    return Emulated(
        "IF_DestroyPDInstance", u32{1},
        [&]() -> u32 {
            auto it = Store().instances.find(ulInstance);
            if (it == Store().instances.end()) {
                return 1;
            }
            /* Take the entries out first: a free callback may call the store. */
            PdMap entries = std::move(it->second);
            Store().instances.erase(it);
            for (auto &[uiIfIndex, pvData] : entries) {
                if (pfnFree != nullptr) {
                    pfnFree(pvData);
                }
            }
            ulFreed = entries.size();
            return 0;
        },
        [&] { return Json{{"instance", ulInstance}, {"entries", ulFreed}}; });
}

extern "C" u32 IF_GetPrivateData(u64 ulInstance, u32 uiIfIndex, void **ppvData)
{
    bool bFilled = false;
    return Emulated(
        "IF_GetPrivateData", u32{1},
        [&]() -> u32 {
            PdMap *pMap = FindInstance(ulInstance);
            if (pMap == nullptr || ppvData == nullptr) {
                return 1;
            }
            auto it = pMap->find(uiIfIndex);
            if (it == pMap->end()) {
                return 1;
            }
            *ppvData = it->second;
            bFilled = true;
            return 0;
        },
        [&] {
            return Json{{"instance", ulInstance}, {"ifindex", uiIfIndex}, {"data", bFilled ? PtrOf(*ppvData) : ""}};
        });
}

extern "C" u32 IF_SetPrivateData(u64 ulInstance, u32 uiIfIndex, void *pvData)
{
    return Emulated(
        "IF_SetPrivateData", u32{1},
        [&]() -> u32 {
            PdMap *pMap = FindInstance(ulInstance);
            return pMap != nullptr && pvData != nullptr && pMap->emplace(uiIfIndex, pvData) ? 0 : 1;
        },
        [&] { return Json{{"instance", ulInstance}, {"ifindex", uiIfIndex}, {"data", PtrOf(pvData)}}; });
}

extern "C" u32 IF_DelPrivateData(u64 ulInstance, u32 uiIfIndex, IF_PD_FREE_PF pfnFree)
{
    void *pvData = nullptr;
    return Emulated(
        "IF_DelPrivateData", u32{1},
        [&]() -> u32 {
            PdMap *pMap = FindInstance(ulInstance);
            if (pMap == nullptr) {
                return 1;
            }
            auto it = pMap->find(uiIfIndex);
            if (it == pMap->end()) {
                return 1;
            }
            pvData = it->second;
            pMap->erase(it);
            if (pfnFree != nullptr) {
                pfnFree(pvData);
            }
            return 0;
        },
        [&] { return Json{{"instance", ulInstance}, {"ifindex", uiIfIndex}, {"data", PtrOf(pvData)}}; });
}

extern "C" u32 IF_GetFirstPrivateData(u64 ulInstance, u32 *puiIfIndex, void **ppvData)
{
    return Walk("IF_GetFirstPrivateData", ulInstance, 0, puiIfIndex, ppvData,
                [](const PdMap &map, u32) { return map.begin(); });
}

extern "C" u32 IF_GetNextPrivateData(u64 ulInstance, u32 *puiIfIndex, void **ppvData)
{
    /* The first entry above the last index, whether or not that one is
     * still stored. */
    return Walk("IF_GetNextPrivateData", ulInstance, puiIfIndex != nullptr ? *puiIfIndex : 0, puiIfIndex, ppvData,
                [](const PdMap &map, u32 uiFrom) { return map.upper_bound(uiFrom); });
}
