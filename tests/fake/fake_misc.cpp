/* Fake log, service manager, device information, option reader, kernel
 * control and local-socket paths. */
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "fake_internal.h"

using fake::Bytes;
using fake::Call;
using namespace fake::detail;

namespace fake {
namespace {

std::vector<std::string> g_vecLog;
bool g_bLogOpen = false;
std::vector<uint32_t> g_vecStatuses;
std::map<uint32_t, KBundle> g_mapKtbdl;
unsigned g_uiPathGen = 0;
std::vector<std::string> g_vecPaths;

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

void RemovePaths()
{
    for (const std::string &p : g_vecPaths) {
        unlink(p.c_str());
    }
    g_vecPaths.clear();
}

struct PathCleaner {
    ~PathCleaner() { RemovePaths(); }
} g_stPathCleaner;

std::string VFormat(const char *pcFormat, va_list args)
{
    if (pcFormat == nullptr) {
        return {};
    }
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(nullptr, 0, pcFormat, copy);
    va_end(copy);
    if (n <= 0) {
        return {};
    }
    std::string s(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(s.data(), s.size(), pcFormat, args);
    s.resize(static_cast<size_t>(n));
    return s;
}

uint32_t Ld32(const Bytes &b, size_t ulOff)
{
    uint32_t ui = 0;
    std::memcpy(&ui, b.data() + ulOff, sizeof(ui));
    return ui;
}

/* Applies one KTBDL command; false when the fake does not know it. */
bool ApplyKtbdl(u32 uiCmd, const Bytes &payload)
{
    constexpr u32 kBndUpdate = 0x7c0002u;
    constexpr u32 kMembAdd = 0x7c0003u;
    constexpr u32 kMembDel = 0x7c0004u;
    if (uiCmd == kBndUpdate && payload.size() == 36) {
        g_mapKtbdl[Ld32(payload, 20)].payload = payload;
        return true;
    }
    if ((uiCmd == kMembAdd || uiCmd == kMembDel) && payload.size() == 8) {
        std::vector<uint32_t> &members = g_mapKtbdl[Ld32(payload, 0)].members;
        uint32_t uiMemb = Ld32(payload, 4);
        auto it = std::find(members.begin(), members.end(), uiMemb);
        if (uiCmd == kMembAdd && it == members.end()) {
            members.push_back(uiMemb);
        } else if (uiCmd == kMembDel && it != members.end()) {
            members.erase(it);
        }
        return true;
    }
    return false;
}

} // namespace

namespace detail {
void ResetMisc()
{
    g_vecLog.clear();
    g_bLogOpen = false;
    g_vecStatuses.clear();
    g_mapKtbdl.clear();
    RemovePaths();
    g_uiPathGen++;
}
} // namespace detail

std::vector<std::string> LogLines()
{
    return g_vecLog;
}

bool LogOpen()
{
    return g_bLogOpen;
}

const std::vector<uint32_t> &ServiceStatuses()
{
    return g_vecStatuses;
}

std::map<uint32_t, KBundle> &Ktbdl()
{
    return g_mapKtbdl;
}

std::string HostPath(uint16_t port)
{
    return "/tmp/tbdl-fake-" + std::to_string(getpid()) + "-" + std::to_string(g_uiPathGen) + "-" +
           std::to_string(port) + ".sock";
}

} // namespace fake

using fake::Run;

extern "C" {

/* Overrides the C library's openlog for the test binary. */
void openlog(const char *pcIdent, int iOption, int iFacility)
{
    Call c = Mk("openlog", {S(iOption), S(iFacility)});
    c.text = pcIdent != nullptr ? pcIdent : "";
    fake::g_bLogOpen = true;
    Record(std::move(c));
}

void vsyslog2(int iPriority, const char *pcIdent, const char *pcTypeName, const char *pcFormat,
              va_list args)
{
    std::string strText = fake::VFormat(pcFormat, args);
    std::string strType = pcTypeName != nullptr ? pcTypeName : "";
    Call c = Mk("vsyslog2", {S(iPriority)});
    c.text = std::string(pcIdent != nullptr ? pcIdent : "") + "|" + strType + "|" + strText;
    fake::g_vecLog.push_back(strType + " " + strText);
    Record(std::move(c));
}

void closelog2(const char *pcIdent)
{
    Call c = Mk("closelog2", {});
    c.text = pcIdent != nullptr ? pcIdent : "";
    fake::g_bLogOpen = false;
    Record(std::move(c));
}

int scnprintf(char *pcBuf, size_t ulSize, const char *pcFormat, ...)
{
    int n = 0;
    if (ulSize != 0 && pcBuf != nullptr) {
        va_list args;
        va_start(args, pcFormat);
        int iWant = std::vsnprintf(pcBuf, ulSize, pcFormat, args);
        va_end(args);
        if (iWant > 0) {
            n = (static_cast<size_t>(iWant) < ulSize) ? iWant : static_cast<int>(ulSize - 1);
        }
    }
    Call c = Mk("scnprintf", {U(ulSize)});
    c.text = (n > 0) ? std::string(pcBuf, static_cast<size_t>(n)) : std::string();
    c.result = S(n);
    Record(std::move(c));
    return n;
}

u32 SERVICE_SetStatus(u32 uiStatus)
{
    Call c = Mk("SERVICE_SetStatus", {U(uiStatus)});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        fake::g_vecStatuses.push_back(uiStatus);
        return 0;
    }));
}

u32 SERVICE_GetStartCause(u32 *puiCause, u32 *puiDetail)
{
    Call c = Mk("SERVICE_GetStartCause", {});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (puiCause == nullptr || puiDetail == nullptr) {
            return 1;
        }
        *puiCause = fake::Config().startCause;
        *puiDetail = 0;
        return 0;
    }));
}

u32 LFIB_GetInfo(void *pvInfo)
{
    Call c = Mk("LFIB_GetInfo", {});
    uint64_t ul = 0;
    if (!Scripted(c.name, &ul)) {
        ul = 1;
        if (fake::Config().lfibOk && pvInfo != nullptr) {
            auto *puc = static_cast<uint8_t *>(pvInfo);
            std::memset(puc, 0, LFIB_INFO_LEN);
            puc[LFIB_INFO_MAX_MEMB_OFFSET] = fake::Config().lfibMaxMemb;
            c.data = Copy(pvInfo, LFIB_INFO_LEN);
            ul = 0;
        }
    }
    c.result = ul;
    Record(std::move(c));
    return static_cast<u32>(ul);
}

u32 TBDL_Opt_Parse(u64 ulRowCount, TBDL_OPT_ROW_S *pstRows)
{
    static const char *const kNames[3] = {"LoadBalancing", "ProtectionOnetoone",
                                          "ProtectionOneplusone"};
    Call c = Mk("TBDL_Opt_Parse", {U(ulRowCount)});
    for (u64 i = 0; pstRows != nullptr && i < ulRowCount; i++) {
        c.text += (i == 0 ? "" : "|") + std::string(pstRows[i].pcName != nullptr ? pstRows[i].pcName : "");
        c.args.push_back(pstRows[i].ulFlag);
        c.args.push_back(pstRows[i].ulSize);
    }
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        uint64_t ulMissed = 0;
        for (u64 i = 0; pstRows != nullptr && i < ulRowCount; i++) {
            int iKnown = -1;
            for (int k = 0; k < 3; k++) {
                if (pstRows[i].pcName != nullptr && std::strcmp(pstRows[i].pcName, kNames[k]) == 0) {
                    iKnown = k;
                }
            }
            if (iKnown < 0 || pstRows[i].pvDest == nullptr) {
                ulMissed++;
                continue;
            }
            uint64_t ulVal = fake::Config().modes[iKnown] != 0 ? 1 : 0;
            auto *puc = static_cast<uint8_t *>(pstRows[i].pvDest);
            std::memset(puc, 0, pstRows[i].ulSize);
            /* Host order: the low bytes of the value first. */
            std::memcpy(puc, &ulVal, std::min<u64>(pstRows[i].ulSize, sizeof(ulVal)));
        }
        return ulMissed == 0 ? 0 : 1;
    }));
}

u32 CIOCTL(u32 uiDev, u32 uiCmd, u32 uiLen, void *pvBuf, u32 uiArg1, u32 uiArg2, u32 uiArg3)
{
    Call c = Mk("CIOCTL", {U(uiDev), U(uiCmd), U(uiLen), U(uiArg1), U(uiArg2), U(uiArg3)},
           Copy(pvBuf, uiLen));
    Bytes payload = c.data;
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (uiDev != 0xFFFF8000u) {
            return 1;
        }
        return fake::ApplyKtbdl(uiCmd, payload) ? 0 : 1;
    }));
}

u32 LIPC_GetHostPath(u16 usPort, char *pcPath, u32 uiLen)
{
    Call c = Mk("LIPC_GetHostPath", {U(usPort), U(uiLen)});
    std::string strPath = fake::HostPath(usPort);
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (pcPath == nullptr || strPath.size() + 1 > uiLen) {
            return 1;
        }
        std::memcpy(pcPath, strPath.c_str(), strPath.size() + 1);
        fake::g_vecPaths.push_back(strPath);
        return 0;
    }));
}

i32 LSM_RegProtocolHandler(const void *pvReg, LSM_MSG_HANDLER_PF pfnHandler, u32 uiProtocol)
{
    fake::Registered().pfnLsm = pfnHandler;
    Call c = Mk("LSM_RegProtocolHandler", {U(uiProtocol)}, Copy(pvReg, 16));
    return static_cast<i32>(Run(c, []() -> uint64_t { return S(-1); }));
}

u32 LSM_DeregProtocolHandler(i32 iHandle)
{
    Call c = Mk("LSM_DeregProtocolHandler", {S(iHandle)});
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

u32 LSM_SendGrEvent(i32 iHandle, u32 uiType)
{
    Call c = Mk("LSM_SendGrEvent", {S(iHandle), U(uiType)});
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

u32 LSM_AddLspEntry(i32 iHandle, u32 uiArg, const void *pvEntry, u32 uiCount, u32 uiIfIndex,
                    u32 uiLabel)
{
    constexpr size_t kEntryLen = 96;
    constexpr size_t kPathLen = 64;
    constexpr size_t kAttrLen = 16;
    Call c = Mk("LSM_AddLspEntry", {S(iHandle), U(uiArg), U(uiCount), U(uiIfIndex), U(uiLabel)},
           Copy(pvEntry, kEntryLen));
    if (pvEntry != nullptr) {
        const auto *puc = static_cast<const uint8_t *>(pvEntry);
        u16 usPaths = 0;
        const void *pvPaths = nullptr;
        const void *pvAttr = nullptr;
        std::memcpy(&usPaths, puc + 8, sizeof(usPaths));
        std::memcpy(&pvPaths, puc + 56, sizeof(pvPaths));
        std::memcpy(&pvAttr, puc + 72, sizeof(pvAttr));
        if (pvPaths != nullptr) {
            c.rec = Copy(pvPaths, usPaths * kPathLen);
        }
        if (pvAttr != nullptr) {
            Bytes attr = Copy(pvAttr, kAttrLen);
            c.rec.insert(c.rec.end(), attr.begin(), attr.end());
        }
    }
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

u32 LSM_DeleteLspEntry(i32 iHandle, u32 uiArg, const void *pvKey, u32 uiKeyType, u32 uiAddr)
{
    Call c = Mk("LSM_DeleteLspEntry", {S(iHandle), U(uiArg), U(uiKeyType), U(uiAddr)}, Copy(pvKey, 28));
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

u32 LSM_FlushLspEntry(i32 iHandle)
{
    Call c = Mk("LSM_FlushLspEntry", {S(iHandle)});
    return static_cast<u32>(Run(c, []() -> uint64_t { return 0; }));
}

u32 LSM_HandleMsg(i32 iHandle)
{
    Call c = Mk("LSM_HandleMsg", {S(iHandle)});
    return static_cast<u32>(Run(c, []() -> uint64_t { return 1; }));
}

i32 PS_Register(u32 uiArg)
{
    Call c = Mk("PS_Register", {U(uiArg)});
    return static_cast<i32>(Run(c, []() -> uint64_t { return S(-1); }));
}

void PS_Deregister(i32 iFd)
{
    Call c = Mk("PS_Deregister", {S(iFd)});
    Run(c, []() -> uint64_t { return 0; });
}

i32 SubscribeServicePortEvent(u32 uiKind, const void *pvSub, u16 usPort, u16 usFlag)
{
    Call c = Mk("SubscribeServicePortEvent", {U(uiKind), U(usPort), U(usFlag)}, Copy(pvSub, 12));
    return static_cast<i32>(Run(c, []() -> uint64_t { return S(-1); }));
}

u32 RecvServicePortEvent(i32 iFd, void *pvEvt)
{
    Call c = Mk("RecvServicePortEvent", {S(iFd)});
    (void)pvEvt;
    return static_cast<u32>(Run(c, []() -> uint64_t { return 1; }));
}

} // extern "C"
