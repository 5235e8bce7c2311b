/* LSM library: a registration is a channel to the LSM service of this
 * board in chassisd. Entries added or deleted are collected in the process
 * and delivered by LSM_FlushLspEntry in as few one-way messages as fit
 * (LSM takes them in order); smoothing events are calls on the channel.
 * chassisd sends nothing on its own on the channel: LSM_HandleMsg sees only
 * its end. */
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "plat_lsm.h"

#include "chassis_env.h"
#include "chassis_link.h"
#include "emulated_call.h"

using namespace tbdl::plat;
namespace rpc = tbdl::rpc;

namespace {

struct Registration {
    LSM_MSG_HANDLER_PF pfnHandler;
    std::vector<uint8_t> pending;    /* changes not flushed yet, back to back */
    std::vector<size_t> changeSizes; /* the size of each of them */
};

std::map<i32, Registration> g_regs;

Registration *Find(i32 iHandle)
{
    auto it = g_regs.find(iHandle);
    return it == g_regs.end() ? nullptr : &it->second;
}

/* One request and its reply on a channel. */
u32 CallOn(i32 iFd, uint16_t op, u32 uiArg, const void *payload, size_t len)
{
    if (rpc::SendMsg(iFd, op, static_cast<uint16_t>(GetChassisEnv().board), uiArg, payload, len) != 0) {
        return 1;
    }
    uint8_t buf[64];
    ssize_t n = rpc::RecvMsg(iFd, buf, sizeof(buf));
    rpc::Hdr h;
    const uint8_t *pucReply = nullptr;
    size_t replyLen = 0;
    if (n <= 0 || !rpc::DecodeHead(buf, static_cast<size_t>(n), h, pucReply, replyLen)) {
        return 1;
    }
    return h.uiArg;
}

void AppendChange(Registration &reg, const rpc::LsmChangeHead &head, const void *body, size_t len)
{
    std::vector<uint8_t> change = rpc::Encode(head, body, len);
    reg.pending.insert(reg.pending.end(), change.begin(), change.end());
    reg.changeSizes.push_back(change.size());
}

/* The fixed part of an add as chassisd takes it: the entry with its
 * pointers cleared, then the attribute block (zero when there is none);
 * the paths follow. */
struct AddHead {
    LSM_LSP_ENTRY_S stEntry;
    LSM_LSP_ATTR_S stAttr;
};
static_assert(sizeof(AddHead) == rpc::kLsmEntryLen + rpc::kLsmAttrLen, "entry, then attribute block");
static_assert(offsetof(AddHead, stAttr) == rpc::kLsmEntryLen, "attribute block right after the entry");

std::vector<uint8_t> AddBody(const LSM_LSP_ENTRY_S &stEntry, uint16_t usPaths)
{
    AddHead stHead{stEntry, {}};
    stHead.stEntry.pstPaths = nullptr;
    stHead.stEntry.pstAttr = nullptr;
    if (stEntry.pstAttr != nullptr) {
        stHead.stAttr = *stEntry.pstAttr;
    }
    return rpc::Encode(stHead, stEntry.pstPaths, usPaths * sizeof(LSM_LSP_PATH_S));
}

/* How long a batch waits for room on a full channel before the flush fails. */
constexpr std::chrono::milliseconds kSendWait{10000};

/* Sends the pending changes, one-way, in messages cut between changes, each
 * at most one chunk; the last carries arg 1. */
u32 Flush(i32 iHandle, Registration &reg, size_t &changes)
{
    std::vector<uint8_t> pending;
    std::vector<size_t> sizes;
    pending.swap(reg.pending);
    sizes.swap(reg.changeSizes);
    u32 uiRet = 0;
    size_t off = 0;
    size_t next = 0;
    while (uiRet == 0 && next < sizes.size()) {
        size_t end = off;
        for (; next < sizes.size() && (end == off || end + sizes[next] - off <= rpc::kCtlChunk); ++next) {
            end += sizes[next];
            ++changes;
        }
        uiRet = link::SendWaiting(iHandle, rpc::OP_LSM_BATCH, next == sizes.size() ? 1 : 0,
                                  std::vector<uint8_t>(pending.begin() + off, pending.begin() + end), kSendWait);
        off = end;
    }
    return uiRet;
}

} // namespace

extern "C" i32 LSM_RegProtocolHandler(const void *pvReg, LSM_MSG_HANDLER_PF pfnHandler, u32 uiProtocol)
{
    return Emulated(
        "LSM_RegProtocolHandler", i32{-1},
        [&] {
            i32 iFd = link::OpenChannel(rpc::OP_LSM_REGISTER, uiProtocol, nullptr, 0);
            if (iFd >= 0) {
                g_regs[iFd] = Registration{pfnHandler, {}, {}};
            }
            return iFd;
        },
        [&] { return Json{{"reg", HexOf(pvReg, sizeof(LSM_REG_S))}, {"protocol", uiProtocol}}; });
}

extern "C" u32 LSM_DeregProtocolHandler(i32 iHandle)
{
    return Journaled(
        "LSM_DeregProtocolHandler",
        [&]() -> u32 {
            if (g_regs.erase(iHandle) != 1) {
                return 1;
            }
            close(iHandle);
            return 0;
        },
        [&] { return Json{{"handle", iHandle}}; });
}

extern "C" u32 LSM_SendGrEvent(i32 iHandle, u32 uiType)
{
    return Emulated(
        "LSM_SendGrEvent", u32{1},
        [&]() -> u32 { return Find(iHandle) != nullptr ? CallOn(iHandle, rpc::OP_LSM_GR, uiType, nullptr, 0) : 1; },
        [&] { return Json{{"handle", iHandle}, {"type", uiType}}; });
}

extern "C" u32 LSM_AddLspEntry(i32 iHandle, u32 uiArg, const void *pvEntry, u32 uiCount, u32 uiIfIndex,
                               u32 uiLabel)
{
    LSM_LSP_ENTRY_S stEntry{};
    if (pvEntry != nullptr) {
        std::memcpy(&stEntry, pvEntry, sizeof(stEntry));
    }
    return Emulated(
        "LSM_AddLspEntry", u32{1},
        [&]() -> u32 {
            Registration *pReg = Find(iHandle);
            if (pvEntry == nullptr || pReg == nullptr) {
                return 1;
            }
            uint16_t usPaths =
                stEntry.pstPaths == nullptr ? 0 : std::min<uint16_t>(stEntry.usPathNum, LSM_LSP_PATH_MAX);
            std::vector<uint8_t> body = AddBody(stEntry, usPaths);
            AppendChange(*pReg, rpc::LsmChangeHead{rpc::LSM_CHANGE_ADD, usPaths}, body.data(), body.size());
            return 0;
        },
        [&] {
            return Json{{"handle", iHandle}, {"arg", uiArg}, {"entry", HexOf(&stEntry, sizeof(stEntry))},
                        {"count", uiCount}, {"ifindex", uiIfIndex}, {"label", uiLabel}};
        });
}

extern "C" u32 LSM_DeleteLspEntry(i32 iHandle, u32 uiArg, const void *pvKey, u32 uiKeyType, u32 uiAddr)
{
    return Emulated(
        "LSM_DeleteLspEntry", u32{1},
        [&]() -> u32 {
            Registration *pReg = Find(iHandle);
            if (pvKey == nullptr || pReg == nullptr) {
                return 1;
            }
            AppendChange(*pReg, rpc::LsmChangeHead{rpc::LSM_CHANGE_DEL, 0}, pvKey, sizeof(LSM_LSP_KEY_S));
            return 0;
        },
        [&] {
            return Json{{"handle", iHandle}, {"arg", uiArg}, {"key", HexOf(pvKey, sizeof(LSM_LSP_KEY_S))},
                        {"key_type", uiKeyType}, {"addr", uiAddr}};
        });
}

extern "C" u32 LSM_FlushLspEntry(i32 iHandle)
{
    size_t changes = 0;
    return Emulated(
        "LSM_FlushLspEntry", u32{1},
        [&]() -> u32 {
            Registration *pReg = Find(iHandle);
            return pReg != nullptr ? Flush(iHandle, *pReg, changes) : 1;
        },
        [&] { return Json{{"handle", iHandle}, {"changes", changes}}; });
}

extern "C" u32 LSM_HandleMsg(i32 iHandle)
{
    return Journaled(
        "LSM_HandleMsg",
        [&]() -> u32 {
            Registration *pReg = Find(iHandle);
            if (pReg == nullptr) {
                return 1;
            }
            LSM_MSG_HANDLER_PF pfn = pReg->pfnHandler;
            std::vector<uint8_t> buf(rpc::kMaxMsg);
            ssize_t n = rpc::RecvMsg(iHandle, buf.data(), buf.size(), MSG_DONTWAIT);
            if (n < 0 && errno == EAGAIN) {
                return 0;
            }
            rpc::Hdr h;
            const uint8_t *pucBody = nullptr;
            size_t len = 0;
            if (n <= 0 || !rpc::DecodeHead(buf.data(), static_cast<size_t>(n), h, pucBody, len)) {
                return 1; /* LSM is gone */
            }
            if (pfn != nullptr) {
                (void)pfn(0, const_cast<uint8_t *>(pucBody), static_cast<u32>(len));
            }
            return 0;
        },
        [&] { return Json{{"handle", iHandle}}; });
}
