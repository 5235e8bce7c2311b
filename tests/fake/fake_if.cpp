/* Fake interface manager, tunnel library and L3VPN service: interfaces,
 * their data, VRF bindings and the private-data store. */
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
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

/* The interface-event channel: a pipe whose read end is the descriptor,
 * one byte written per pending packet; the one subscription. */
struct IfEvState {
    int aiPipe[2] = {-1, -1};
    std::deque<std::pair<uint32_t, std::vector<uint32_t>>> dqPackets;
    IF_EVENT_CB_PF pfnCallback = nullptr;
    uint32_t uiArg = 0;
    uint32_t uiHandle = 0;
    uint32_t uiLastHandle = 0x50;
} g_stIfEv;

void CloseEventPipe()
{
    for (int &iFd : g_stIfEv.aiPipe) {
        if (iFd >= 0) {
            close(iFd);
        }
        iFd = -1;
    }
    g_stIfEv.dqPackets.clear();
}

/* Hands the next pending packet to the subscriber: 0 when one was handled
 * or none is pending, 1 at the end of the channel. */
uint64_t DeliverPacket(i32 iFd)
{
    char c = 0;
    if (iFd < 0 || iFd != g_stIfEv.aiPipe[0]) {
        return 1;
    }
    ssize_t lRead = read(iFd, &c, 1);
    if (lRead <= 0) {
        return lRead == 0 ? 1 : 0;
    }
    auto packet = g_stIfEv.dqPackets.front();
    g_stIfEv.dqPackets.pop_front();
    std::vector<IF_EVENT_ENTRY_S> vecEntries;
    for (uint32_t ui : packet.second) {
        vecEntries.push_back({ui, 0});
    }
    if (g_stIfEv.pfnCallback != nullptr) {
        (void)g_stIfEv.pfnCallback(packet.first, vecEntries.data(), static_cast<u32>(vecEntries.size()),
                                   g_stIfEv.uiArg);
    }
    return 0;
}

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

void detail::ResetIf()
{
    g_stIf = IfState{};
    CloseEventPipe();
    g_stIfEv = IfEvState{};
}

void IfEventPush(uint32_t event, const std::vector<uint32_t> &ifIndexes)
{
    g_stIfEv.dqPackets.emplace_back(event, ifIndexes);
    char c = 1;
    if (g_stIfEv.aiPipe[1] < 0 || write(g_stIfEv.aiPipe[1], &c, 1) != 1) {
        g_stIfEv.dqPackets.pop_back();
    }
}

void IfEventHangUp()
{
    if (g_stIfEv.aiPipe[1] >= 0) {
        close(g_stIfEv.aiPipe[1]);
        g_stIfEv.aiPipe[1] = -1;
    }
}

int IfEventFd() { return g_stIfEv.aiPipe[0]; }

uint32_t IfEventHandle() { return g_stIfEv.uiHandle; }

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

i32 IF_Event_Init(void)
{
    return Run<i32>(Mk(__func__, {}), []() -> uint64_t {
        CloseEventPipe();
        if (pipe2(g_stIfEv.aiPipe, O_NONBLOCK | O_CLOEXEC) != 0) {
            return S(-1);
        }
        return S(g_stIfEv.aiPipe[0]);
    });
}

void IF_Event_Fini(i32 iFd)
{
    Run<void>(Mk(__func__, {S(iFd)}), [&] {
        if (iFd >= 0 && iFd == g_stIfEv.aiPipe[0]) {
            CloseEventPipe();
        }
    });
}

u32 IF_Select_Init(u32 uiKind, void *pvSelect, void *pvSelectData)
{
    return Run<u32>(Mk(__func__, {U(uiKind)}, Copy(pvSelect, 16), Copy(pvSelectData, 24)), 0);
}

u32 IF_SelectType_Set(u32 uiIfType, void *pvSelect)
{
    return Run<u32>(Mk(__func__, {U(uiIfType)}, Copy(pvSelect, 16)), 0);
}

u32 IF_RegIfEventEx(u32 uiModule, u32 uiMask, u32 uiPriority, void *pvSelect, IF_EVENT_CB_PF pfnCallback,
                    u32 uiArg)
{
    return Run<u32>(Mk(__func__, {U(uiModule), U(uiMask), U(uiPriority), U(uiArg)}, Copy(pvSelect, 16)), [&] {
        g_stIfEv.pfnCallback = pfnCallback;
        g_stIfEv.uiArg = uiArg;
        g_stIfEv.uiHandle = ++g_stIfEv.uiLastHandle;
        return g_stIfEv.uiHandle;
    });
}

u32 IF_UnRegEvent(u32 uiHandle, u32 uiMask)
{
    return Run<u32>(Mk(__func__, {U(uiHandle), U(uiMask)}), [&]() -> uint64_t {
        if (uiHandle == 0 || uiHandle != g_stIfEv.uiHandle) {
            return 1;
        }
        g_stIfEv.pfnCallback = nullptr;
        g_stIfEv.uiHandle = 0;
        return 0;
    });
}

/* The events reach the callback while the call runs, so their platform
 * calls are recorded before this one. */
u32 IF_ResponseEventPkt(i32 iFd)
{
    return Run<u32>(Mk(__func__, {S(iFd)}), [&] { return DeliverPacket(iFd); });
}

u32 IF_NotifyFinalStatus(u32 uiHandle, u32 uiEvent, void *pastIf, u32 uiCount, u32 uiArg)
{
    return Run<u32>(Mk(__func__, {U(uiHandle), U(uiEvent), U(uiCount), U(uiArg)},
                       Copy(pastIf, size_t{uiCount} * sizeof(IF_EVENT_ENTRY_S))),
                    0);
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
