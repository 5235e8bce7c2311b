/* Fake log, service manager, device information, option reader, kernel
 * control and local-socket paths. */
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fake_internal.h"
#include "tbdl_ktbdl.h"

using namespace fake::detail;

namespace fake {
namespace {

/* Log and statuses, cleared by Reset; the socket paths
 * are removed by Reset and at exit. */
struct MiscState {
    std::vector<std::string> vecLog;
    bool bLogOpen = false;
    std::vector<uint32_t> vecStatuses;
} g_stMisc;
unsigned g_uiPathGen = 0;
std::vector<std::string> g_vecPaths;

void RemovePaths()
{
    for (const std::string &p : g_vecPaths) {
        unlink(p.c_str());
    }
    g_vecPaths.clear();
}

struct PathCleaner {
    ~PathCleaner() { RemovePaths(); }
} g_stPathCleaner; /* the sockets of the last test */

std::string VFormat(const char *pcFormat, va_list args)
{
    char *pc = nullptr;
    int n = pcFormat != nullptr ? vasprintf(&pc, pcFormat, args) : -1;
    std::string s = n > 0 ? std::string(pc, static_cast<size_t>(n)) : std::string();
    std::free(pc);
    return s;
}

/* A KTBDL command the kernel knows, with its payload length. */
bool KnownKtbdl(u32 uiCmd, size_t ulLen)
{
    return (uiCmd == TBDL_KCMD_BND_UPDATE && ulLen == sizeof(TBDL_KBND_S)) ||
           ((uiCmd == TBDL_KCMD_MEMB_ADD || uiCmd == TBDL_KCMD_MEMB_DEL) && ulLen == sizeof(TBDL_KMEMB_S));
}

} // namespace

void detail::ResetMisc()
{
    g_stMisc = MiscState{};
    RemovePaths();
    g_uiPathGen++;
}

std::vector<std::string> LogLines() { return g_stMisc.vecLog; }

bool LogOpen() { return g_stMisc.bLogOpen; }

const std::vector<uint32_t> &ServiceStatuses() { return g_stMisc.vecStatuses; }

std::string HostPath(uint16_t port)
{
    return "/tmp/tbdl-fake-" + std::to_string(getpid()) + "-" + std::to_string(g_uiPathGen) + "-" +
           std::to_string(port) + ".sock";
}

} // namespace fake

using namespace fake;

extern "C" {

/* Overrides the C library's openlog for the test binary. */
void openlog(const char *pcIdent, int iOption, int iFacility)
{
    Run<void>(WithText(Mk(__func__, {S(iOption), S(iFacility)}), Str(pcIdent)), [] { g_stMisc.bLogOpen = true; });
}

void vsyslog2(int iPriority, const char *pcIdent, const char *pcTypeName, const char *pcFormat, va_list args)
{
    std::string strText = VFormat(pcFormat, args);
    g_stMisc.vecLog.push_back(Str(pcTypeName) + " " + strText);
    Run<void>(WithText(Mk(__func__, {S(iPriority)}), Str(pcIdent) + "|" + Str(pcTypeName) + "|" + strText), 0);
}

void closelog2(const char *pcIdent)
{
    Run<void>(WithText(Mk(__func__, {}), Str(pcIdent)), [] { g_stMisc.bLogOpen = false; });
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
    return Run<int>(WithText(Mk(__func__, {U(ulSize)}), std::string(n > 0 ? pcBuf : "", n)), S(n));
}

u32 SERVICE_SetStatus(u32 uiStatus)
{
    return Run<u32>(Mk(__func__, {U(uiStatus)}), [&] { g_stMisc.vecStatuses.push_back(uiStatus); });
}

u32 SERVICE_GetStartCause(u32 *puiCause, u32 *puiDetail)
{
    return Run<u32>(Mk(__func__, {}), [&]() -> uint64_t {
        if (puiCause == nullptr || puiDetail == nullptr) {
            return 1;
        }
        *puiCause = Config().startCause;
        *puiDetail = 0;
        return 0;
    });
}

u32 LFIB_GetInfo(void *pvInfo)
{
    return Run<u32>(Mk(__func__, {}), [&](Call &c) -> uint64_t {
        if (!Config().lfibOk || pvInfo == nullptr) {
            return 1;
        }
        auto *puc = static_cast<uint8_t *>(pvInfo);
        std::memset(puc, 0, LFIB_INFO_LEN);
        puc[LFIB_INFO_MAX_MEMB_OFFSET] = Config().lfibMaxMemb;
        c.data = Copy(pvInfo, LFIB_INFO_LEN);
        return 0;
    });
}

/* The three mode options are answered from the settings; a row of another
 * name is left alone and makes the call fail. */
u32 TBDL_Opt_Parse(u64 ulRowCount, TBDL_OPT_ROW_S *pstRows)
{
    static const char *const kNames[3] = {"LoadBalancing", "ProtectionOnetoone", "ProtectionOneplusone"};
    Call c = Mk(__func__, {U(ulRowCount)});
    for (u64 i = 0; pstRows != nullptr && i < ulRowCount; i++) {
        c.text += (i == 0 ? "" : "|") + Str(pstRows[i].pcName);
        c.args.insert(c.args.end(), {pstRows[i].ulFlag, pstRows[i].ulSize});
    }
    return Run<u32>(std::move(c), [&]() -> uint64_t {
        bool bMissed = false;
        for (u64 i = 0; pstRows != nullptr && i < ulRowCount; i++) {
            const char *const *ppcKnown = std::find(std::begin(kNames), std::end(kNames), Str(pstRows[i].pcName));
            if (ppcKnown == std::end(kNames) || pstRows[i].pvDest == nullptr) {
                bMissed = true;
                continue;
            }
            uint64_t ulVal = Config().modes[ppcKnown - kNames] != 0 ? 1 : 0;
            std::memset(pstRows[i].pvDest, 0, pstRows[i].ulSize);
            /* Host order: the low bytes of the value first. */
            std::memcpy(pstRows[i].pvDest, &ulVal, std::min<u64>(pstRows[i].ulSize, sizeof(ulVal)));
        }
        return bMissed ? 1 : 0;
    });
}

u32 CIOCTL(u32 uiDev, u32 uiCmd, u32 uiLen, void *pvBuf, u32 uiArg1, u32 uiArg2, u32 uiArg3)
{
    return Run<u32>(Mk(__func__, {U(uiDev), U(uiCmd), U(uiLen), U(uiArg1), U(uiArg2), U(uiArg3)}, Copy(pvBuf, uiLen)),
                    [&](Call &c) { return (uiDev == TBDL_KTBDL_DEV && KnownKtbdl(uiCmd, c.data.size())) ? 0 : 1; });
}

u32 LIPC_GetHostPath(u16 usPort, char *pcPath, u32 uiLen)
{
    std::string strPath = HostPath(usPort);
    return Run<u32>(Mk(__func__, {U(usPort), U(uiLen)}), [&]() -> uint64_t {
        if (pcPath == nullptr || strPath.size() + 1 > uiLen) {
            return 1;
        }
        std::memcpy(pcPath, strPath.c_str(), strPath.size() + 1);
        g_vecPaths.push_back(strPath);
        return 0;
    });
}

i32 LSM_RegProtocolHandler(const void *pvReg, LSM_MSG_HANDLER_PF pfnHandler, u32 uiProtocol)
{
    (void)pfnHandler;
    return Run<i32>(Mk(__func__, {U(uiProtocol)}, Copy(pvReg, sizeof(LSM_REG_S))), S(-1));
}

u32 LSM_DeregProtocolHandler(i32 iHandle) { return Run<u32>(Mk(__func__, {S(iHandle)}), 0); }

u32 LSM_SendGrEvent(i32 iHandle, u32 uiType) { return Run<u32>(Mk(__func__, {S(iHandle), U(uiType)}), 0); }

/* Records the entry, then the primary paths it points to and its attribute
 * block. */
u32 LSM_AddLspEntry(i32 iHandle, u32 uiArg, const void *pvEntry, u32 uiCount, u32 uiIfIndex, u32 uiLabel)
{
    Call c = Mk(__func__, {S(iHandle), U(uiArg), U(uiCount), U(uiIfIndex), U(uiLabel)},
                Copy(pvEntry, sizeof(LSM_LSP_ENTRY_S)));
    if (pvEntry != nullptr) {
        LSM_LSP_ENTRY_S stEntry;
        std::memcpy(&stEntry, pvEntry, sizeof(stEntry));
        c.rec = Copy(stEntry.pstPaths, stEntry.usPathNum * sizeof(LSM_LSP_PATH_S));
        Bytes attr = Copy(stEntry.pstAttr, sizeof(LSM_LSP_ATTR_S));
        c.rec.insert(c.rec.end(), attr.begin(), attr.end());
    }
    return Run<u32>(std::move(c), 0);
}

u32 LSM_DeleteLspEntry(i32 iHandle, u32 uiArg, const void *pvKey, u32 uiKeyType, u32 uiAddr)
{
    return Run<u32>(Mk(__func__, {S(iHandle), U(uiArg), U(uiKeyType), U(uiAddr)}, Copy(pvKey, sizeof(LSM_LSP_KEY_S))),
                    0);
}

u32 LSM_FlushLspEntry(i32 iHandle) { return Run<u32>(Mk(__func__, {S(iHandle)}), 0); }

u32 LSM_HandleMsg(i32 iHandle) { return Run<u32>(Mk(__func__, {S(iHandle)}), 1); }

i32 PS_Register(u32 uiArg) { return Run<i32>(Mk(__func__, {U(uiArg)}), S(-1)); }

void PS_Deregister(i32 iFd) { Run<void>(Mk(__func__, {S(iFd)}), 0); }

} // extern "C"
