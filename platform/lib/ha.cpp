/* HA library: the HA channel is a connection to chassisd's HA service.
 *
 * HA_Init joins the service (the reply gives this board's role, whether a
 * standby is present, and the MTU); the descriptor then carries chassisd's
 * pushes: events 0-3 and messages relayed from the peer board, each with
 * the board's current role and standby presence. HA_IsMaster and
 * HA_IsExistSlaveService answer from that cache, without a round trip; the
 * cache changes when HA_Dispatch reads the push that goes with a change.
 * HA_Response and HA_SendMsgSync are calls on the shared connection, so
 * they never mix with the pushes. Message buffers are malloc'ed. */
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "plat_ha.h"

#include "chassis_link.h"

using namespace tbdl::plat;

namespace {

struct Channel {
    tbdl::rpc::HaState stState;
    HA_CALLBACKS_S stCallbacks;
};

std::mutex g_mutex;
std::map<i32, Channel> g_channels;

bool Lookup(i32 iHandle, Channel &out)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_channels.find(iHandle);
    if (it == g_channels.end()) {
        return false;
    }
    out = it->second;
    return true;
}

} // namespace

extern "C" i32 HA_Init(const char *pcModule, u32 uiArg1, const char *pcName, u32 uiArg2, u32 uiArg3,
                       const void *pvIdent, const HA_CALLBACKS_S *pstCallbacks)
{
    int64_t lValue = -1;
    i32 iFd = -1;
    tbdl::rpc::HaState stState{};
    if (link::Fails("HA_Init", &lValue)) {
        iFd = static_cast<i32>(lValue);
    } else if (pstCallbacks != nullptr) {
        std::vector<uint8_t> reply;
        iFd = link::OpenChannel(tbdl::rpc::OP_HA_REGISTER, 0, pvIdent, pvIdent != nullptr ? 8 : 0, &reply);
        if (iFd >= 0 && reply.size() == sizeof(stState)) {
            std::memcpy(&stState, reply.data(), sizeof(stState));
            std::lock_guard<std::mutex> lock(g_mutex);
            g_channels[iFd] = Channel{stState, *pstCallbacks};
        } else if (iFd >= 0) {
            close(iFd);
            iFd = -1;
        }
    }
    if (JournalEnabled()) {
        JournalRecord("HA_Init",
                      {{"module", pcModule != nullptr ? pcModule : ""}, {"arg1", uiArg1},
                       {"name", pcName != nullptr ? pcName : ""}, {"arg2", uiArg2}, {"arg3", uiArg3},
                       {"ident", HexOf(pvIdent, pvIdent != nullptr ? 8 : 0)},
                       {"master", stState.uiMaster}, {"standby", stState.uiPeer}},
                      iFd);
    }
    return iFd;
}

extern "C" u32 HA_Exit(i32 iHandle)
{
    u32 uiRet;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        uiRet = g_channels.erase(iHandle) == 1 ? 0 : 1;
    }
    if (uiRet == 0) {
        close(iHandle);
    }
    if (JournalEnabled()) {
        JournalRecord("HA_Exit", {{"handle", iHandle}}, uiRet);
    }
    return uiRet;
}

extern "C" u32 HA_GetMTU(i32 iHandle)
{
    int64_t lValue = 0;
    u32 uiMtu = 0;
    Channel st;
    if (link::Fails("HA_GetMTU", &lValue)) {
        uiMtu = static_cast<u32>(lValue);
    } else if (Lookup(iHandle, st)) {
        uiMtu = st.stState.uiMtu;
    }
    if (JournalEnabled()) {
        JournalRecord("HA_GetMTU", {{"handle", iHandle}}, uiMtu);
    }
    return uiMtu;
}

extern "C" void *HA_AllocMsg(u32 uiSize)
{
    void *pv = nullptr;
    if (!link::Fails("HA_AllocMsg")) {
        pv = std::malloc(uiSize != 0 ? uiSize : 1);
    }
    if (JournalEnabled()) {
        JournalRecord("HA_AllocMsg", {{"size", uiSize}}, PtrOf(pv));
    }
    return pv;
}

extern "C" void HA_FreeMsg(void *pvMsg)
{
    if (JournalEnabled()) {
        JournalRecord("HA_FreeMsg", {{"msg", PtrOf(pvMsg)}}, nullptr);
    }
    std::free(pvMsg);
}

extern "C" u16 HA_IsMaster(i32 iHandle)
{
    int64_t lValue = 0;
    u16 usRet = 0;
    Channel st;
    if (link::Fails("HA_IsMaster", &lValue)) {
        usRet = static_cast<u16>(lValue);
    } else if (Lookup(iHandle, st)) {
        usRet = static_cast<u16>(st.stState.uiMaster);
    }
    if (JournalEnabled()) {
        JournalRecord("HA_IsMaster", {{"handle", iHandle}}, usRet);
    }
    return usRet;
}

extern "C" u16 HA_IsExistSlaveService(i32 iHandle)
{
    int64_t lValue = 0;
    u16 usRet = 0;
    Channel st;
    if (link::Fails("HA_IsExistSlaveService", &lValue)) {
        usRet = static_cast<u16>(lValue);
    } else if (Lookup(iHandle, st)) {
        usRet = static_cast<u16>(st.stState.uiPeer);
    }
    if (JournalEnabled()) {
        JournalRecord("HA_IsExistSlaveService", {{"handle", iHandle}}, usRet);
    }
    return usRet;
}

extern "C" u32 HA_Dispatch(u32 uiEvents, u64 ulData)
{
    i32 iFd = static_cast<i32>(ulData);
    int64_t lValue = 1;
    if (link::Fails("HA_Dispatch", &lValue)) {
        if (JournalEnabled()) {
            JournalRecord("HA_Dispatch", {{"events", uiEvents}, {"fd", iFd}}, lValue);
        }
        return static_cast<u32>(lValue);
    }
    Channel st;
    u32 uiRet = 0;
    u32 uiKind = 0;
    u32 uiValue = 0;
    std::vector<uint8_t> buf(tbdl::rpc::kMaxMsg);
    ssize_t n = -1;
    if (!Lookup(iFd, st)) {
        uiRet = 1;
    } else {
        n = tbdl::rpc::RecvMsg(iFd, buf.data(), buf.size(), MSG_DONTWAIT);
        if (n < 0 && errno == EAGAIN && (uiEvents & (EPOLLERR | EPOLLHUP)) == 0) {
            uiRet = 0; /* nothing pending */
        } else if (n <= 0) {
            /* chassisd's HA service is gone: keep the descriptor number for
             * HA_Exit but stop it from waking the event loop. */
            link::Neutralize(iFd);
            uiRet = 1;
        } else {
            tbdl::rpc::Hdr h;
            std::memcpy(&h, buf.data(), sizeof(h));
            size_t len = static_cast<size_t>(n) - sizeof(h);
            if (h.usOp != tbdl::rpc::OP_HA_PUSH || len < sizeof(tbdl::rpc::HaState)) {
                uiRet = 1;
            } else {
                tbdl::rpc::HaState stNew;
                std::memcpy(&stNew, buf.data() + sizeof(h), sizeof(stNew));
                {
                    std::lock_guard<std::mutex> lock(g_mutex);
                    auto it = g_channels.find(iFd);
                    if (it != g_channels.end()) {
                        it->second.stState = stNew;
                    }
                }
                uiKind = h.uiArg;
                uiValue = stNew.uiValue;
                const uint8_t *pucData = buf.data() + sizeof(h) + sizeof(stNew);
                size_t dataLen = len - sizeof(stNew);
                if (uiKind == tbdl::rpc::HA_PUSH_EVENT && st.stCallbacks.pfnEvent != nullptr) {
                    uiRet = st.stCallbacks.pfnEvent(uiValue);
                } else if (uiKind == tbdl::rpc::HA_PUSH_MSG && st.stCallbacks.pfnRecv != nullptr) {
                    void *pvMsg = HA_AllocMsg(static_cast<u32>(dataLen));
                    if (pvMsg == nullptr) {
                        uiRet = 1;
                    } else {
                        std::memcpy(pvMsg, pucData, dataLen);
                        uiRet = st.stCallbacks.pfnRecv(pvMsg, static_cast<u16>(dataLen), uiValue);
                    }
                }
            }
        }
    }
    if (JournalEnabled()) {
        JournalRecord("HA_Dispatch", {{"events", uiEvents}, {"fd", iFd}, {"kind", uiKind}, {"value", uiValue}}, uiRet);
    }
    return uiRet;
}

extern "C" u32 HA_Response(i32 iHandle, u32 uiEvent, void *pvData)
{
    int64_t lValue = 1;
    u32 uiRet;
    u32 uiData = 0;
    if (link::Fails("HA_Response", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else {
        if (pvData != nullptr) {
            std::memcpy(&uiData, pvData, 4);
        }
        uiRet = link::Call(tbdl::rpc::OP_HA_RESPONSE, uiEvent, pvData != nullptr ? &uiData : nullptr,
                           pvData != nullptr ? 4 : 0) == 0 ? 0 : 1;
    }
    if (JournalEnabled()) {
        JournalRecord("HA_Response",
                      {{"handle", iHandle}, {"event", uiEvent}, {"data", pvData != nullptr ? nlohmann::json(uiData) : nlohmann::json()}},
                      uiRet);
    }
    return uiRet;
}

extern "C" u32 HA_SendMsgSync(i32 iHandle, void *pvBuf, u16 usLen, u32 uiFlag)
{
    int64_t lValue = 1;
    u32 uiRet;
    if (link::Fails("HA_SendMsgSync", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else if (pvBuf == nullptr || usLen == 0) {
        uiRet = 1;
    } else {
        uiRet = link::Call(tbdl::rpc::OP_HA_SEND, uiFlag, pvBuf, usLen) == 0 ? 0 : 1;
    }
    if (JournalEnabled()) {
        JournalRecord("HA_SendMsgSync",
                      {{"handle", iHandle}, {"len", usLen}, {"flag", uiFlag}, {"msg", HexOf(pvBuf, pvBuf != nullptr ? usLen : 0)}},
                      uiRet);
    }
    return uiRet;
}
