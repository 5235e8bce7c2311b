/* Fake interface manager, tunnel library and L3VPN service: interfaces,
 * their data, VRF bindings and the private-data store. */
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "fake_internal.h"

using namespace fake::detail;

namespace fake {
namespace {

constexpr uint64_t kPdInstance = 0x9D;
constexpr uint32_t kFirstTunnelIndex = 0x100;
constexpr uint32_t kFirstBundleIndex = 0x1000;

/* Interfaces and private data, cleared by Reset. */
struct IfState {
    std::map<uint32_t, Interface> mapIf;
    std::map<uint32_t, void *> mapPd;
    bool bPdCreated = false;
} g_stIf;

uint32_t NextFreeIndex(uint32_t uiFrom)
{
    uint32_t ui = uiFrom;
    while (g_stIf.mapIf.count(ui) != 0) {
        ui++;
    }
    return ui;
}

/* The bundle number of a "Tunnel-Bundle<n>" name (decimal digits only), or -1. */
long BundleNumberOf(const std::string &strName)
{
    static const std::string kPrefix = "Tunnel-Bundle";
    std::string strNum = strName.substr(std::min(strName.size(), kPrefix.size()));
    if (strName.compare(0, kPrefix.size(), kPrefix) != 0 || strNum.empty() ||
        strNum.find_first_not_of("0123456789") != std::string::npos) {
        return -1;
    }
    unsigned long ul = std::strtoul(strNum.c_str(), nullptr, 10);
    return ul > 0x7FFFFFFFul ? -1 : static_cast<long>(ul);
}

/* The private-data instance exists and is the one asked for. */
bool PdOk(u64 ulInstance) { return g_stIf.bPdCreated && ulInstance == kPdInstance; }

/* Gives the entry at it of the instance asked for; 1 when there is none. */
uint64_t PdAt(u64 ulInstance, std::map<uint32_t, void *>::iterator it, u32 *puiIfIndex, void **ppvData)
{
    if (!PdOk(ulInstance) || it == g_stIf.mapPd.end()) {
        return 1;
    }
    *puiIfIndex = it->first;
    *ppvData = it->second;
    return 0;
}

} // namespace

void detail::ResetIf() { g_stIf = IfState{}; }

uint32_t AddTunnel(uint32_t number, uint32_t tnlMode, uint32_t state, uint16_t vrf)
{
    uint32_t uiIndex = NextFreeIndex(kFirstTunnelIndex);
    g_stIf.mapIf[uiIndex] = {"Tunnel" + std::to_string(number), uiIndex, IF_TYPE_TUNNEL, number, tnlMode, state, vrf};
    return uiIndex;
}

Interface *FindInterface(uint32_t ifIndex)
{
    auto it = g_stIf.mapIf.find(ifIndex);
    return it == g_stIf.mapIf.end() ? nullptr : &it->second;
}

Interface *FindInterface(const std::string &name)
{
    auto &map = g_stIf.mapIf;
    auto it = std::find_if(map.begin(), map.end(), [&](const auto &kv) { return kv.second.name == name; });
    return it == map.end() ? nullptr : &it->second;
}

std::map<uint32_t, void *> &PrivateData() { return g_stIf.mapPd; }

} // namespace fake

using namespace fake;

extern "C" {

u32 IF_GetDataByIfType(u32 uiIfType, u32 uiDataType, void *pvOut)
{
    return Run<u32>(Mk(__func__, {U(uiIfType), U(uiDataType)}), [&]() -> uint64_t {
        if (uiIfType != IF_TYPE_TUNNEL_BUNDLE || uiDataType != IF_DATA_MAX_COUNT || !Config().maxBndAnswers ||
            pvOut == nullptr) {
            return 1;
        }
        std::memcpy(pvOut, &Config().maxBnd, sizeof(u32));
        return 0;
    });
}

/* The data items an interface answers, by data type. */
u32 IF_GetDataByIfIndex(u32 uiIfIndex, u32 uiDataType, void *pvOut)
{
    static const std::map<u32, uint32_t Interface::*> kItems = {
        {IF_DATA_NUMBER, &Interface::number}, {IF_DATA_TYPE, &Interface::type}, {IF_DATA_STATE, &Interface::state}};
    return Run<u32>(Mk(__func__, {U(uiIfIndex), U(uiDataType)}), [&]() -> uint64_t {
        const Interface *p = FindInterface(uiIfIndex);
        auto item = kItems.find(uiDataType);
        if (p == nullptr || item == kItems.end() || pvOut == nullptr) {
            return 1;
        }
        std::memcpy(pvOut, &(p->*item->second), sizeof(u32));
        return 0;
    });
}

/* A "Tunnel-Bundle<n>" name not known yet gets the next bundle index. */
u32 IF_GetIfIndexByFullName(const char *pcName)
{
    return Run<u32>(WithText(Mk(__func__, {}), Str(pcName)), [&](Call &rc) -> uint64_t {
        if (const Interface *p = FindInterface(rc.text)) {
            return p->ifIndex;
        }
        long lBnd = BundleNumberOf(rc.text);
        if (lBnd < 0) {
            return 0;
        }
        uint32_t uiIndex = NextFreeIndex(kFirstBundleIndex);
        g_stIf.mapIf[uiIndex] = Interface{rc.text, uiIndex, IF_TYPE_TUNNEL_BUNDLE, static_cast<uint32_t>(lBnd)};
        return uiIndex;
    });
}

u32 IF_DeleteIf(u32 uiKeyType, const void *pvKey)
{
    u32 uiIfIndex = 0;
    if (pvKey != nullptr) {
        std::memcpy(&uiIfIndex, pvKey, sizeof(uiIfIndex));
    }
    return Run<u32>(Mk(__func__, {U(uiKeyType), U(uiIfIndex)}, Copy(pvKey, 8)), [&] {
        g_stIf.mapIf.erase(uiIfIndex);
        return 1;
    });
}

u64 IF_CreatePDInstance(u32 uiKind, u32 uiFlags, u64 ulArg1, u32 uiArg2)
{
    return Run<u64>(Mk(__func__, {U(uiKind), U(uiFlags), U(ulArg1), U(uiArg2)}), [&] {
        g_stIf.bPdCreated = true;
        return kPdInstance;
    });
}

u32 IF_DestroyPDInstance(u64 ulInstance, IF_PD_FREE_PF pfnFree)
{
    return Run<u32>(Mk(__func__, {U(ulInstance)}), [&]() -> uint64_t {
        if (!PdOk(ulInstance)) {
            return 1;
        }
        std::map<uint32_t, void *> mapOld = std::exchange(g_stIf.mapPd, {});
        for (auto &kv : mapOld) {
            if (pfnFree != nullptr) {
                pfnFree(kv.second);
            }
        }
        g_stIf.bPdCreated = false;
        return 0;
    });
}

u32 IF_GetPrivateData(u64 ulInstance, u32 uiIfIndex, void **ppvData)
{
    return Run<u32>(Mk(__func__, {U(ulInstance), U(uiIfIndex)}),
                    [&] { return PdAt(ulInstance, g_stIf.mapPd.find(uiIfIndex), &uiIfIndex, ppvData); });
}

u32 IF_SetPrivateData(u64 ulInstance, u32 uiIfIndex, void *pvData)
{
    return Run<u32>(Mk(__func__, {U(ulInstance), U(uiIfIndex)}), [&]() -> uint64_t {
        if (!PdOk(ulInstance) || g_stIf.mapPd.count(uiIfIndex) != 0) {
            return 1;
        }
        g_stIf.mapPd[uiIfIndex] = pvData;
        return 0;
    });
}

u32 IF_DelPrivateData(u64 ulInstance, u32 uiIfIndex, IF_PD_FREE_PF pfnFree)
{
    return Run<u32>(Mk(__func__, {U(ulInstance), U(uiIfIndex)}), [&]() -> uint64_t {
        auto it = g_stIf.mapPd.find(uiIfIndex);
        if (!PdOk(ulInstance) || it == g_stIf.mapPd.end()) {
            return 1;
        }
        void *pv = it->second;
        g_stIf.mapPd.erase(it);
        if (pfnFree != nullptr) {
            pfnFree(pv);
        }
        return 0;
    });
}

u32 IF_GetFirstPrivateData(u64 ulInstance, u32 *puiIfIndex, void **ppvData)
{
    return Run<u32>(Mk(__func__, {U(ulInstance)}),
                    [&] { return PdAt(ulInstance, g_stIf.mapPd.begin(), puiIfIndex, ppvData); });
}

/* The first entry above the given index: the walk survives the deletion of
 * the current entry. */
u32 IF_GetNextPrivateData(u64 ulInstance, u32 *puiIfIndex, void **ppvData)
{
    return Run<u32>(Mk(__func__, {U(ulInstance), U(*puiIfIndex)}),
                    [&] { return PdAt(ulInstance, g_stIf.mapPd.upper_bound(*puiIfIndex), puiIfIndex, ppvData); });
}

u32 TUNNEL_GetMode(u32 uiIfIndex, u32 *puiMode)
{
    return Run<u32>(Mk(__func__, {U(uiIfIndex)}), [&]() -> uint64_t {
        const Interface *p = FindInterface(uiIfIndex);
        if (p == nullptr || p->type != IF_TYPE_TUNNEL || puiMode == nullptr) {
            return 1;
        }
        *puiMode = p->tnlMode;
        return 0;
    });
}

u32 L3VPN_GetVrfIndexByIfIndex(u32 uiIfIndex, u16 *pusVrfIndex)
{
    return Run<u32>(Mk(__func__, {U(uiIfIndex)}), [&]() -> uint64_t {
        const Interface *p = FindInterface(uiIfIndex);
        if (p == nullptr || pusVrfIndex == nullptr) {
            return 1;
        }
        *pusVrfIndex = p->vrf;
        return 0;
    });
}

} // extern "C"
