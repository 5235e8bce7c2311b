/* Fake interface manager, tunnel library and L3VPN service: interfaces,
 * their data, VRF bindings, the private-data store and the (by default
 * failing) event sources. */
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fake_internal.h"

using fake::Call;
using namespace fake::detail;

namespace fake {
namespace {

constexpr uint64_t kPdInstance = 0x9D;
constexpr uint32_t kFirstTunnelIndex = 0x100;
constexpr uint32_t kFirstBundleIndex = 0x1000;

std::map<uint32_t, Interface> g_mapIf;
std::map<uint32_t, void *> g_mapPd;
bool g_bPdCreated = false;
Registrations g_stReg;

uint32_t NextFreeIndex(uint32_t uiFrom)
{
    uint32_t ui = uiFrom;
    while (g_mapIf.count(ui) != 0) {
        ui++;
    }
    return ui;
}

/* The bundle number of a "Tunnel-Bundle<n>" name, or -1. */
long BundleNumberOf(const char *pcName)
{
    static const char kPrefix[] = "Tunnel-Bundle";
    if (std::strncmp(pcName, kPrefix, sizeof(kPrefix) - 1) != 0) {
        return -1;
    }
    const char *pcNum = pcName + sizeof(kPrefix) - 1;
    if (*pcNum < '0' || *pcNum > '9') {
        return -1;
    }
    char *pcEnd = nullptr;
    unsigned long ul = std::strtoul(pcNum, &pcEnd, 10);
    if (*pcEnd != '\0' || ul > 0x7FFFFFFFul) {
        return -1;
    }
    return static_cast<long>(ul);
}

/* Runs the emulated behaviour unless the call is scripted, then records. */
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

} // namespace

namespace detail {
void ResetIf()
{
    g_mapIf.clear();
    g_mapPd.clear();
    g_bPdCreated = false;
    g_stReg = Registrations{};
}
} // namespace detail

uint32_t AddTunnel(uint32_t number, uint32_t tnlMode, uint32_t state, uint16_t vrf)
{
    Interface intf;
    intf.name = "Tunnel" + std::to_string(number);
    intf.ifIndex = NextFreeIndex(kFirstTunnelIndex);
    intf.type = IF_TYPE_TUNNEL;
    intf.number = number;
    intf.tnlMode = tnlMode;
    intf.state = state;
    intf.vrf = vrf;
    g_mapIf[intf.ifIndex] = intf;
    return intf.ifIndex;
}

void AddInterface(const Interface &intf)
{
    g_mapIf[intf.ifIndex] = intf;
}

Interface *FindInterface(uint32_t ifIndex)
{
    auto it = g_mapIf.find(ifIndex);
    return it == g_mapIf.end() ? nullptr : &it->second;
}

Interface *FindInterface(const std::string &name)
{
    for (auto &kv : g_mapIf) {
        if (kv.second.name == name) {
            return &kv.second;
        }
    }
    return nullptr;
}

void RemoveInterface(uint32_t ifIndex)
{
    g_mapIf.erase(ifIndex);
}

void SetVrf(uint32_t ifIndex, uint16_t vrf)
{
    Interface *p = FindInterface(ifIndex);
    if (p != nullptr) {
        p->vrf = vrf;
    }
}

std::map<uint32_t, void *> &PrivateData()
{
    return g_mapPd;
}

Registrations &Registered()
{
    return g_stReg;
}

} // namespace fake

using fake::FindInterface;
using fake::g_bPdCreated;
using fake::g_mapIf;
using fake::g_mapPd;
using fake::g_stReg;
using fake::kPdInstance;
using fake::Run;

extern "C" {

u32 IF_GetDataByIfType(u32 uiIfType, u32 uiDataType, void *pvOut)
{
    Call c = Mk("IF_GetDataByIfType", {U(uiIfType), U(uiDataType)});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (uiIfType != IF_TYPE_TUNNEL_BUNDLE || uiDataType != IF_DATA_MAX_COUNT ||
            !fake::Config().maxBndAnswers || pvOut == nullptr) {
            return 1;
        }
        u32 ui = fake::Config().maxBnd;
        std::memcpy(pvOut, &ui, sizeof(ui));
        return 0;
    }));
}

u32 IF_GetDataByIfIndex(u32 uiIfIndex, u32 uiDataType, void *pvOut)
{
    Call c = Mk("IF_GetDataByIfIndex", {U(uiIfIndex), U(uiDataType)});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        const fake::Interface *p = FindInterface(uiIfIndex);
        if (p == nullptr || pvOut == nullptr) {
            return 1;
        }
        u32 ui = 0;
        switch (uiDataType) {
        case IF_DATA_NUMBER:
            ui = p->number;
            break;
        case IF_DATA_TYPE:
            ui = p->type;
            break;
        case IF_DATA_STATE:
            ui = p->state;
            break;
        default:
            return 1;
        }
        std::memcpy(pvOut, &ui, sizeof(ui));
        return 0;
    }));
}

u32 IF_GetIfIndexByFullName(const char *pcName)
{
    Call c = Mk("IF_GetIfIndexByFullName", {});
    c.text = pcName != nullptr ? pcName : "";
    std::string strName = c.text;
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (const fake::Interface *p = FindInterface(strName)) {
            return p->ifIndex;
        }
        long lBnd = fake::BundleNumberOf(strName.c_str());
        if (lBnd < 0) {
            return 0;
        }
        fake::Interface intf;
        intf.name = strName;
        intf.ifIndex = fake::NextFreeIndex(fake::kFirstBundleIndex);
        intf.type = IF_TYPE_TUNNEL_BUNDLE;
        intf.number = static_cast<uint32_t>(lBnd);
        g_mapIf[intf.ifIndex] = intf;
        return intf.ifIndex;
    }));
}

u32 IF_DeleteIf(u32 uiKeyType, const void *pvKey)
{
    u32 uiIfIndex = 0;
    if (pvKey != nullptr) {
        std::memcpy(&uiIfIndex, pvKey, sizeof(uiIfIndex));
    }
    Call c = Mk("IF_DeleteIf", {U(uiKeyType), U(uiIfIndex)}, Copy(pvKey, 8));
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        g_mapIf.erase(uiIfIndex);
        return 1;
    }));
}

u64 IF_CreatePDInstance(u32 uiKind, u32 uiFlags, u64 ulArg1, u32 uiArg2)
{
    Call c = Mk("IF_CreatePDInstance", {U(uiKind), U(uiFlags), U(ulArg1), U(uiArg2)});
    return Run(c, [&]() -> uint64_t {
        g_bPdCreated = true;
        return kPdInstance;
    });
}

u32 IF_DestroyPDInstance(u64 ulInstance, IF_PD_FREE_PF pfnFree)
{
    Call c = Mk("IF_DestroyPDInstance", {U(ulInstance)});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (!g_bPdCreated || ulInstance != kPdInstance) {
            return 1;
        }
        std::map<uint32_t, void *> mapOld;
        mapOld.swap(g_mapPd);
        for (auto &kv : mapOld) {
            if (pfnFree != nullptr) {
                pfnFree(kv.second);
            }
        }
        g_bPdCreated = false;
        return 0;
    }));
}

u32 IF_GetPrivateData(u64 ulInstance, u32 uiIfIndex, void **ppvData)
{
    Call c = Mk("IF_GetPrivateData", {U(ulInstance), U(uiIfIndex)});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        auto it = g_mapPd.find(uiIfIndex);
        if (!g_bPdCreated || ulInstance != kPdInstance || it == g_mapPd.end()) {
            return 1;
        }
        *ppvData = it->second;
        return 0;
    }));
}

u32 IF_SetPrivateData(u64 ulInstance, u32 uiIfIndex, void *pvData)
{
    Call c = Mk("IF_SetPrivateData", {U(ulInstance), U(uiIfIndex)});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (!g_bPdCreated || ulInstance != kPdInstance || g_mapPd.count(uiIfIndex) != 0) {
            return 1;
        }
        g_mapPd[uiIfIndex] = pvData;
        return 0;
    }));
}

u32 IF_DelPrivateData(u64 ulInstance, u32 uiIfIndex, IF_PD_FREE_PF pfnFree)
{
    Call c = Mk("IF_DelPrivateData", {U(ulInstance), U(uiIfIndex)});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        auto it = g_mapPd.find(uiIfIndex);
        if (!g_bPdCreated || ulInstance != kPdInstance || it == g_mapPd.end()) {
            return 1;
        }
        void *pv = it->second;
        g_mapPd.erase(it);
        if (pfnFree != nullptr) {
            pfnFree(pv);
        }
        return 0;
    }));
}

static uint64_t PdAt(std::map<uint32_t, void *>::iterator it, u32 *puiIfIndex, void **ppvData)
{
    if (it == g_mapPd.end()) {
        return 1;
    }
    *puiIfIndex = it->first;
    *ppvData = it->second;
    return 0;
}

u32 IF_GetFirstPrivateData(u64 ulInstance, u32 *puiIfIndex, void **ppvData)
{
    Call c = Mk("IF_GetFirstPrivateData", {U(ulInstance)});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (!g_bPdCreated || ulInstance != kPdInstance) {
            return 1;
        }
        return PdAt(g_mapPd.begin(), puiIfIndex, ppvData);
    }));
}

u32 IF_GetNextPrivateData(u64 ulInstance, u32 *puiIfIndex, void **ppvData)
{
    Call c = Mk("IF_GetNextPrivateData", {U(ulInstance), U(*puiIfIndex)});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (!g_bPdCreated || ulInstance != kPdInstance) {
            return 1;
        }
        /* The first entry above the given index: the walk survives the
         * deletion of the current entry. */
        return PdAt(g_mapPd.upper_bound(*puiIfIndex), puiIfIndex, ppvData);
    }));
}

i32 IF_Event_Init(void)
{
    Call c = Mk("IF_Event_Init", {});
    return static_cast<i32>(Run(c, []() -> uint64_t { return S(-1); }));
}

void IF_Event_Fini(i32 iFd)
{
    Call c = Mk("IF_Event_Fini", {S(iFd)});
    Run(c, []() -> uint64_t { return 0; });
}

u32 IF_Select_Init(u32 uiKind, void *pvSelect, void *pvSelectData)
{
    Call c = Mk("IF_Select_Init", {U(uiKind)}, Copy(pvSelect, 16), Copy(pvSelectData, 24));
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

u32 IF_SelectType_Set(u32 uiIfType, void *pvSelect)
{
    Call c = Mk("IF_SelectType_Set", {U(uiIfType)});
    (void)pvSelect;
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

u32 IF_RegIfEventEx(u32 uiModule, u32 uiMask, u32 uiPriority, void *pvSelect,
                    IF_EVENT_CB_PF pfnCallback, u32 uiArg)
{
    (void)pvSelect;
    g_stReg.pfnIfEvent = pfnCallback;
    g_stReg.uiIfEventArg = uiArg;
    Call c = Mk("IF_RegIfEventEx", {U(uiModule), U(uiMask), U(uiPriority), U(uiArg)});
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

u32 IF_UnRegEvent(u32 uiHandle, u32 uiMask)
{
    Call c = Mk("IF_UnRegEvent", {U(uiHandle), U(uiMask)});
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

u32 IF_ResponseEventPkt(i32 iFd)
{
    Call c = Mk("IF_ResponseEventPkt", {S(iFd)});
    return static_cast<u32>(Run(c, []() -> uint64_t { return 1; }));
}

u32 IF_NotifyFinalStatus(u32 uiHandle, u32 uiEvent, void *pastIf, u32 uiCount, u32 uiArg)
{
    Call c = Mk("IF_NotifyFinalStatus", {U(uiHandle), U(uiEvent), U(uiCount), U(uiArg)},
           Copy(pastIf, static_cast<size_t>(uiCount) * sizeof(IF_EVENT_ENTRY_S)));
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

u32 TUNNEL_GetMode(u32 uiIfIndex, u32 *puiMode)
{
    Call c = Mk("TUNNEL_GetMode", {U(uiIfIndex)});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        const fake::Interface *p = FindInterface(uiIfIndex);
        if (p == nullptr || p->type != IF_TYPE_TUNNEL || puiMode == nullptr) {
            return 1;
        }
        *puiMode = p->tnlMode;
        return 0;
    }));
}

u32 L3VPN_GetVrfIndexByIfIndex(u32 uiIfIndex, u16 *pusVrfIndex)
{
    Call c = Mk("L3VPN_GetVrfIndexByIfIndex", {U(uiIfIndex)});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        const fake::Interface *p = FindInterface(uiIfIndex);
        if (p == nullptr || pusVrfIndex == nullptr) {
            return 1;
        }
        *pusVrfIndex = p->vrf;
        return 0;
    }));
}

i32 L3VPN_RegEvt(const char *pcName, u32 uiEvtMask, u32 uiArg, L3VPN_EVT_CB_PF pfnCallback,
                 u32 uiArg2)
{
    g_stReg.pfnL3vpn = pfnCallback;
    Call c = Mk("L3VPN_RegEvt", {U(uiEvtMask), U(uiArg), U(uiArg2)});
    c.text = pcName != nullptr ? pcName : "";
    return static_cast<i32>(Run(c, []() -> uint64_t { return S(-1); }));
}

u32 L3VPN_RequestBatch(i32 iFd, u32 uiVrfIndex)
{
    Call c = Mk("L3VPN_RequestBatch", {S(iFd), U(uiVrfIndex)});
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

u32 L3VPN_ProcEvt(i32 iFd)
{
    Call c = Mk("L3VPN_ProcEvt", {S(iFd)});
    return static_cast<u32>(Run(c, []() -> uint64_t { return 1; }));
}

u32 L3VPN_FinalStatusNotify(i32 iFd, u16 usVrfIndex, u32 uiEvent)
{
    Call c = Mk("L3VPN_FinalStatusNotify", {S(iFd), U(usVrfIndex), U(uiEvent)});
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

u32 L3VPN_DeregEvent(i32 iFd)
{
    Call c = Mk("L3VPN_DeregEvent", {S(iFd)});
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

} // extern "C"
