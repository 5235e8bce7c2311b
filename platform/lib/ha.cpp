/* HA library: the HA channel is a connection to chassisd's HA service.
 *
 * HA_Init joins the service (the reply gives this board's role, whether a
 * standby is present, and the MTU); the descriptor then carries chassisd's
 * pushes: events 0-3 and messages relayed from the peer board, each with
 * the board's current role and standby presence. HA_IsMaster and
 * HA_IsExistSlaveService answer from that cache, without a round trip; the
 * cache changes when HA_Dispatch reads the push that goes with a change.
 * HA_Response and HA_SendMsgSync are one-way messages on the same
 * channel: a backup costs a send and no round trip, and chassisd reads the
 * daemon's sends and responses in the order they were issued. Nothing
 * comes back for them, so they never mix with the pushes. Message buffers
 * are malloc'ed. */
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>

#include "plat_ha.h"

#include "chassis_link.h"
#include "emulated_call.h"

using namespace tbdl::plat;
namespace rpc = tbdl::rpc;

namespace {

struct Channel {
    rpc::HaState stState;
    HA_CALLBACKS_S stCallbacks;
};

std::map<i32, Channel> g_channels;

Channel *Lookup(i32 iHandle)
{
    auto it = g_channels.find(iHandle);
    return it == g_channels.end() ? nullptr : &it->second;
}

/* A cached answer of the channel: pick(state), 0 for an unknown handle. */
template <typename R, typename Pick> R FromCache(const char *pcCall, i32 iHandle, Pick pick)
{
    return Emulated(
        pcCall, R{0},
        [&]() -> R {
            Channel *pst = Lookup(iHandle);
            return pst != nullptr ? static_cast<R>(pick(pst->stState)) : 0;
        },
        [&] { return Json{{"handle", iHandle}}; });
}

/* The kind and value of the push HA_Dispatch read. */
struct Push {
    u32 uiKind = 0;
    u32 uiValue = 0;
};

/* Hands a push of the channel to its callbacks; updates the cached state. */
u32 Deliver(Channel &stChannel, const rpc::Hdr &h, const uint8_t *pucBody, size_t len, Push &push)
{
    rpc::HaState stNew;
    const uint8_t *pucData = nullptr;
    size_t dataLen = 0;
    if (h.usOp != rpc::OP_HA_PUSH || !rpc::DecodeHead(pucBody, len, stNew, pucData, dataLen)) {
        return 1;
    }
    /* The callbacks run with the state this push brings. */
    HA_CALLBACKS_S stCallbacks = stChannel.stCallbacks;
    stChannel.stState = stNew;
    push.uiKind = h.uiArg;
    push.uiValue = stNew.uiValue;
    if (push.uiKind == rpc::HA_PUSH_EVENT && stCallbacks.pfnEvent != nullptr) {
        return stCallbacks.pfnEvent(push.uiValue);
    }
    if (push.uiKind == rpc::HA_PUSH_MSG && stCallbacks.pfnRecv != nullptr) {
        void *pvMsg = HA_AllocMsg(static_cast<u32>(dataLen));
        if (pvMsg == nullptr) {
            return 1;
        }
        std::memcpy(pvMsg, pucData, dataLen);
        return stCallbacks.pfnRecv(pvMsg, static_cast<u16>(dataLen), push.uiValue);
    }
    return 0;
}

/* How long a one-way message waits for room on a full channel (a batch
 * backup outruns chassisd's reading) before it is given up. */
constexpr std::chrono::milliseconds kSendWait{10000};

/* Sends one message of operation Op on the channel. A full socket is waited
 * on, not dropped; 1 when the handle is no channel, the channel is gone or
 * the wait ran out. */
template <uint16_t Op> u32 SendOnChannel(i32 iHandle, u32 uiArg, const void *pvTail, size_t len)
{
    if (Lookup(iHandle) == nullptr) {
        return 1;
    }
    return link::SendWaiting(iHandle, Op, uiArg, rpc::Encode(typename rpc::OpSpec<Op>::Request{}, pvTail, len),
                             kSendWait);
}

} // namespace

extern "C" i32 HA_Init(const char *pcModule, u32 uiArg1, const char *pcName, u32 uiArg2, u32 uiArg3,
                       const void *pvIdent, const HA_CALLBACKS_S *pstCallbacks)
{
    rpc::HaState stState{};
    return Emulated(
        "HA_Init", i32{-1},
        [&]() -> i32 {
            if (pstCallbacks == nullptr) {
                return -1;
            }
            rpc::HaIdent stIdent{};
            if (pvIdent != nullptr) {
                std::memcpy(&stIdent, pvIdent, sizeof(stIdent));
            }
            std::vector<uint8_t> request = pvIdent != nullptr ? rpc::Encode(stIdent) : std::vector<uint8_t>();
            std::vector<uint8_t> reply;
            i32 iFd = link::OpenChannel(rpc::OP_HA_REGISTER, 0, request.data(), request.size(), &reply);
            if (iFd >= 0 && !rpc::Decode(reply.data(), reply.size(), stState)) {
                close(iFd);
                return -1;
            }
            if (iFd >= 0) {
                g_channels[iFd] = Channel{stState, *pstCallbacks};
            }
            return iFd;
        },
        [&] {
            return Json{{"module", TextOf(pcModule)}, {"arg1", uiArg1}, {"name", TextOf(pcName)},
                        {"arg2", uiArg2}, {"arg3", uiArg3}, {"ident", HexOf(pvIdent, sizeof(rpc::HaIdent))},
                        {"master", stState.uiMaster}, {"standby", stState.uiPeer}};
        });
}

extern "C" u32 HA_Exit(i32 iHandle)
{
    return Journaled(
        "HA_Exit",
        [&]() -> u32 {
            if (g_channels.erase(iHandle) != 1) {
                return 1;
            }
            close(iHandle);
            return 0;
        },
        [&] { return Json{{"handle", iHandle}}; });
}

extern "C" u32 HA_GetMTU(i32 iHandle)
{
    return FromCache<u32>("HA_GetMTU", iHandle, [](const rpc::HaState &st) { return st.uiMtu; });
}

extern "C" void *HA_AllocMsg(u32 uiSize)
{
    return Emulated(
        "HA_AllocMsg", static_cast<void *>(nullptr), [&] { return std::malloc(uiSize != 0 ? uiSize : 1); },
        [&] { return Json{{"size", uiSize}}; });
}

extern "C" void HA_FreeMsg(void *pvMsg)
{
    /* Journaled before the free, while the address still names the message. */
    Journaled("HA_FreeMsg", [] {}, [&] { return Json{{"msg", PtrOf(pvMsg)}}; });
    std::free(pvMsg);
}

extern "C" u16 HA_IsMaster(i32 iHandle)
{
    return FromCache<u16>("HA_IsMaster", iHandle, [](const rpc::HaState &st) { return st.uiMaster; });
}

extern "C" u16 HA_IsExistSlaveService(i32 iHandle)
{
    return FromCache<u16>("HA_IsExistSlaveService", iHandle, [](const rpc::HaState &st) { return st.uiPeer; });
}

extern "C" u32 HA_Dispatch(u32 uiEvents, u64 ulData)
{
    i32 iFd = static_cast<i32>(ulData);
    bool bRan = false;
    Push push;
    return Emulated(
        "HA_Dispatch", u32{1},
        [&]() -> u32 {
            bRan = true;
            Channel *pst = Lookup(iFd);
            if (pst == nullptr) {
                return 1;
            }
            std::vector<uint8_t> buf(rpc::kMaxMsg);
            ssize_t n = rpc::RecvMsg(iFd, buf.data(), buf.size(), MSG_DONTWAIT);
            if (n < 0 && errno == EAGAIN && (uiEvents & (EPOLLERR | EPOLLHUP)) == 0) {
                return 0; /* nothing pending */
            }
            if (n <= 0) {
                /* chassisd's HA service is gone: keep the descriptor number
                 * for HA_Exit but stop it from waking the event loop. */
                link::Neutralize(iFd);
                return 1;
            }
            rpc::Hdr h;
            const uint8_t *pucBody = nullptr;
            size_t len = 0;
            (void)rpc::DecodeHead(buf.data(), static_cast<size_t>(n), h, pucBody, len); /* RecvMsg checked the size */
            return Deliver(*pst, h, pucBody, len, push);
        },
        [&] {
            Json args{{"events", uiEvents}, {"fd", iFd}};
            if (bRan) {
                args["kind"] = push.uiKind;
                args["value"] = push.uiValue;
            }
            return args;
        });
}

extern "C" u32 HA_Response(i32 iHandle, u32 uiEvent, void *pvData)
{
    rpc::HaResponseData stData{0};
    return Emulated(
        "HA_Response", u32{1},
        [&]() -> u32 {
            if (pvData != nullptr) {
                std::memcpy(&stData, pvData, sizeof(stData));
            }
            return SendOnChannel<rpc::OP_HA_RESPONSE>(iHandle, uiEvent, pvData != nullptr ? &stData : nullptr,
                                                      pvData != nullptr ? sizeof(stData) : 0);
        },
        [&] {
            return Json{{"handle", iHandle}, {"event", uiEvent},
                        {"data", pvData != nullptr ? Json(stData.uiData) : Json()}};
        });
}

extern "C" u32 HA_SendMsgSync(i32 iHandle, void *pvBuf, u16 usLen, u32 uiFlag)
{
    return Emulated(
        "HA_SendMsgSync", u32{1},
        [&]() -> u32 {
            if (pvBuf == nullptr || usLen == 0) {
                return 1;
            }
            return SendOnChannel<rpc::OP_HA_SEND>(iHandle, uiFlag, pvBuf, usLen);
        },
        [&] {
            return Json{{"handle", iHandle}, {"len", usLen}, {"flag", uiFlag}, {"msg", HexOf(pvBuf, usLen)}};
        });
}
