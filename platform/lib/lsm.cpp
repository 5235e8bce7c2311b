/* LSM library: a registration is a channel to the LSM service of this
 * board in chassisd. Entries added or deleted are collected in the process
 * and delivered by LSM_FlushLspEntry (in as few messages as fit); smoothing
 * events are calls on the channel. chassisd sends nothing on its own on the
 * channel: LSM_HandleMsg sees only its end. */
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

#include "plat_lsm.h"

#include "chassis_env.h"
#include "chassis_link.h"

using namespace tbdl::plat;
namespace rpc = tbdl::rpc;

namespace {

constexpr size_t kEntryPathsOffset = 56;
constexpr size_t kEntryAttrOffset = 72;
constexpr size_t kEntryPathCountOffset = 8;

struct Registration {
    LSM_MSG_HANDLER_PF pfnHandler;
    std::vector<uint8_t> pending;
};

std::mutex g_mutex;
std::map<i32, Registration> g_regs;

/* One request and its reply on a channel. */
u32 CallOn(i32 iFd, uint16_t op, u32 uiArg, const void *payload, size_t len)
{
    if (rpc::SendMsg(iFd, op, static_cast<uint16_t>(GetChassisEnv().board), uiArg, payload, len) != 0) {
        return 1;
    }
    uint8_t buf[64];
    ssize_t n = rpc::RecvMsg(iFd, buf, sizeof(buf));
    if (n <= 0) {
        return 1;
    }
    rpc::Hdr h;
    std::memcpy(&h, buf, sizeof(h));
    return h.uiArg;
}

void AppendChange(std::vector<uint8_t> &out, uint16_t kind, uint16_t paths, const void *a, size_t alen)
{
    rpc::LsmChangeHead h{kind, paths};
    const auto *ph = reinterpret_cast<const uint8_t *>(&h);
    out.insert(out.end(), ph, ph + sizeof(h));
    const auto *pa = static_cast<const uint8_t *>(a);
    out.insert(out.end(), pa, pa + alen);
}

} // namespace

extern "C" i32 LSM_RegProtocolHandler(const void *pvReg, LSM_MSG_HANDLER_PF pfnHandler, u32 uiProtocol)
{
    int64_t lValue = -1;
    i32 iFd = -1;
    if (link::Fails("LSM_RegProtocolHandler", &lValue)) {
        iFd = static_cast<i32>(lValue);
    } else {
        iFd = link::OpenChannel(rpc::OP_LSM_REGISTER, uiProtocol, nullptr, 0);
        if (iFd >= 0) {
            std::lock_guard<std::mutex> lock(g_mutex);
            g_regs[iFd] = Registration{pfnHandler, {}};
        }
    }
    if (JournalEnabled()) {
        JournalRecord("LSM_RegProtocolHandler",
                      {{"reg", HexOf(pvReg, pvReg != nullptr ? 16 : 0)}, {"protocol", uiProtocol}}, iFd);
    }
    return iFd;
}

extern "C" u32 LSM_DeregProtocolHandler(i32 iHandle)
{
    u32 uiRet;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        uiRet = g_regs.erase(iHandle) == 1 ? 0 : 1;
    }
    if (uiRet == 0) {
        close(iHandle);
    }
    if (JournalEnabled()) {
        JournalRecord("LSM_DeregProtocolHandler", {{"handle", iHandle}}, uiRet);
    }
    return uiRet;
}

extern "C" u32 LSM_SendGrEvent(i32 iHandle, u32 uiType)
{
    int64_t lValue = 1;
    u32 uiRet = 1;
    bool bKnown;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        bKnown = g_regs.count(iHandle) == 1;
    }
    if (link::Fails("LSM_SendGrEvent", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else if (bKnown) {
        uiRet = CallOn(iHandle, rpc::OP_LSM_GR, uiType, nullptr, 0);
    }
    if (JournalEnabled()) {
        JournalRecord("LSM_SendGrEvent", {{"handle", iHandle}, {"type", uiType}}, uiRet);
    }
    return uiRet;
}

extern "C" u32 LSM_AddLspEntry(i32 iHandle, u32 uiArg, const void *pvEntry, u32 uiCount, u32 uiIfIndex,
                               u32 uiLabel)
{
    int64_t lValue = 1;
    u32 uiRet = 1;
    uint8_t aucEntry[rpc::kLsmEntryLen] = {};
    if (pvEntry != nullptr) {
        std::memcpy(aucEntry, pvEntry, sizeof(aucEntry));
    }
    if (link::Fails("LSM_AddLspEntry", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else if (pvEntry != nullptr) {
        const uint8_t *pucPaths = nullptr;
        const uint8_t *pucAttr = nullptr;
        std::memcpy(&pucPaths, aucEntry + kEntryPathsOffset, sizeof(pucPaths));
        std::memcpy(&pucAttr, aucEntry + kEntryAttrOffset, sizeof(pucAttr));
        uint16_t usPaths;
        std::memcpy(&usPaths, aucEntry + kEntryPathCountOffset, 2);
        if (usPaths > rpc::kLsmMaxPaths) {
            usPaths = rpc::kLsmMaxPaths;
        }
        if (pucPaths == nullptr) {
            usPaths = 0;
        }
        std::vector<uint8_t> change(rpc::kLsmEntryLen + rpc::kLsmAttrLen + usPaths * rpc::kLsmPathLen);
        std::memcpy(change.data(), aucEntry, rpc::kLsmEntryLen);
        std::memset(change.data() + kEntryPathsOffset, 0, 8);
        std::memset(change.data() + kEntryAttrOffset, 0, 8);
        if (pucAttr != nullptr) {
            std::memcpy(change.data() + rpc::kLsmEntryLen, pucAttr, rpc::kLsmAttrLen);
        }
        if (usPaths > 0) {
            std::memcpy(change.data() + rpc::kLsmEntryLen + rpc::kLsmAttrLen, pucPaths, usPaths * rpc::kLsmPathLen);
        }
        std::lock_guard<std::mutex> lock(g_mutex);
        auto it = g_regs.find(iHandle);
        if (it != g_regs.end()) {
            AppendChange(it->second.pending, 1, usPaths, change.data(), change.size());
            uiRet = 0;
        }
    }
    if (JournalEnabled()) {
        JournalRecord("LSM_AddLspEntry",
                      {{"handle", iHandle}, {"arg", uiArg}, {"entry", HexOf(aucEntry, sizeof(aucEntry))},
                       {"count", uiCount}, {"ifindex", uiIfIndex}, {"label", uiLabel}},
                      uiRet);
    }
    return uiRet;
}

extern "C" u32 LSM_DeleteLspEntry(i32 iHandle, u32 uiArg, const void *pvKey, u32 uiKeyType, u32 uiAddr)
{
    int64_t lValue = 1;
    u32 uiRet = 1;
    if (link::Fails("LSM_DeleteLspEntry", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else if (pvKey != nullptr) {
        std::lock_guard<std::mutex> lock(g_mutex);
        auto it = g_regs.find(iHandle);
        if (it != g_regs.end()) {
            AppendChange(it->second.pending, 2, 0, pvKey, rpc::kLsmKeyLen);
            uiRet = 0;
        }
    }
    if (JournalEnabled()) {
        JournalRecord("LSM_DeleteLspEntry",
                      {{"handle", iHandle}, {"arg", uiArg}, {"key", HexOf(pvKey, pvKey != nullptr ? rpc::kLsmKeyLen : 0)},
                       {"key_type", uiKeyType}, {"addr", uiAddr}},
                      uiRet);
    }
    return uiRet;
}

extern "C" u32 LSM_FlushLspEntry(i32 iHandle)
{
    int64_t lValue = 1;
    u32 uiRet = 0;
    size_t changes = 0;
    if (link::Fails("LSM_FlushLspEntry", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else {
        std::vector<uint8_t> pending;
        {
            std::lock_guard<std::mutex> lock(g_mutex);
            auto it = g_regs.find(iHandle);
            if (it == g_regs.end()) {
                uiRet = 1;
            } else {
                pending.swap(it->second.pending);
            }
        }
        /* Messages are cut between changes, each at most one chunk. */
        size_t off = 0;
        while (uiRet == 0 && off < pending.size()) {
            size_t end = off;
            while (end < pending.size()) {
                rpc::LsmChangeHead h;
                std::memcpy(&h, pending.data() + end, sizeof(h));
                size_t size = sizeof(h) + (h.usKind == 1 ? rpc::kLsmEntryLen + rpc::kLsmAttrLen + h.usPaths * rpc::kLsmPathLen
                                                         : rpc::kLsmKeyLen);
                if (end > off && end + size - off > rpc::kCtlChunk) {
                    break;
                }
                end += size;
                ++changes;
            }
            uiRet = CallOn(iHandle, rpc::OP_LSM_BATCH, end == pending.size() ? 1 : 0, pending.data() + off, end - off);
            off = end;
        }
    }
    if (JournalEnabled()) {
        JournalRecord("LSM_FlushLspEntry", {{"handle", iHandle}, {"changes", changes}}, uiRet);
    }
    return uiRet;
}

extern "C" u32 LSM_HandleMsg(i32 iHandle)
{
    LSM_MSG_HANDLER_PF pfn = nullptr;
    u32 uiRet = 0;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        auto it = g_regs.find(iHandle);
        if (it == g_regs.end()) {
            uiRet = 1;
        } else {
            pfn = it->second.pfnHandler;
        }
    }
    if (uiRet == 0) {
        std::vector<uint8_t> buf(rpc::kMaxMsg);
        ssize_t n = rpc::RecvMsg(iHandle, buf.data(), buf.size(), MSG_DONTWAIT);
        if (n < 0 && errno == EAGAIN) {
            uiRet = 0;
        } else if (n <= 0) {
            uiRet = 1; /* LSM is gone */
        } else if (pfn != nullptr) {
            (void)pfn(0, buf.data() + sizeof(rpc::Hdr), static_cast<u32>(n - sizeof(rpc::Hdr)));
        }
    }
    if (JournalEnabled()) {
        JournalRecord("LSM_HandleMsg", {{"handle", iHandle}}, uiRet);
    }
    return uiRet;
}
