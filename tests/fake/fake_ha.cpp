/* Fake HA service: a real eventfd stands for the channel. Tests push events
 * and messages; HA_Dispatch drains them into the daemon's callbacks. */
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>

#include "fake_internal.h"

using namespace fake::detail;

namespace fake {
namespace {

struct HaInput {
    bool bIsEvent = false;
    uint32_t uiEvent = 0;
    Bytes msg;
    uint32_t uiType = 0;
};

/* The channel (closed by Reset) and what went through it. */
int g_iHaFd = -1;
struct HaState {
    HA_CALLBACKS_S stCallbacks{};
    std::deque<HaInput> dqInput;
    std::vector<HaSent> vecSent;
    std::vector<std::pair<uint32_t, uint32_t>> vecResponses;
} g_stHa;

void Wake()
{
    if (g_iHaFd >= 0) {
        (void)eventfd_write(g_iHaFd, 1);
    }
}

void Push(HaInput &&in)
{
    g_stHa.dqInput.push_back(std::move(in));
    Wake();
}

} // namespace

void detail::ResetHa()
{
    if (g_iHaFd >= 0) {
        close(g_iHaFd);
    }
    g_iHaFd = -1;
    g_stHa = HaState{};
}

void HaPushEvent(uint32_t event) { Push(HaInput{true, event, {}, 0}); }

void HaPushMessage(const Bytes &msg, uint32_t type) { Push(HaInput{false, 0, msg, type}); }

const std::vector<HaSent> &HaSentMessages() { return g_stHa.vecSent; }

const std::vector<std::pair<uint32_t, uint32_t>> &HaResponses() { return g_stHa.vecResponses; }

} // namespace fake

using namespace fake;

extern "C" {

i32 HA_Init(const char *pcModule, u32 uiArg1, const char *pcName, u32 uiArg2, u32 uiArg3,
            const void *pvIdent, const HA_CALLBACKS_S *pstCallbacks)
{
    Call c = Mk(__func__, {U(uiArg1), U(uiArg2), U(uiArg3)}, Copy(pvIdent, 8));
    return Run<i32>(WithText(std::move(c), Str(pcModule) + "|" + Str(pcName)), [&]() -> uint64_t {
        if (pstCallbacks == nullptr) {
            return S(-1);
        }
        if (g_iHaFd < 0) {
            g_iHaFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
            if (g_iHaFd < 0) {
                return S(-1);
            }
        }
        g_stHa.stCallbacks = *pstCallbacks;
        /* Input pushed before the channel existed is now readable. */
        if (!g_stHa.dqInput.empty()) {
            Wake();
        }
        return S(g_iHaFd);
    });
}

u32 HA_Exit(i32 iHandle)
{
    return Run<u32>(Mk(__func__, {S(iHandle)}), [&]() -> uint64_t {
        if (iHandle < 0 || iHandle != g_iHaFd) {
            return 1;
        }
        close(g_iHaFd);
        g_iHaFd = -1;
        g_stHa.stCallbacks = HA_CALLBACKS_S{};
        return 0;
    });
}

u32 HA_GetMTU(i32 iHandle) { return Run<u32>(Mk(__func__, {S(iHandle)}), [] { return Config().haMtu; }); }

/* A scripted result of 0 makes the allocation fail. */
void *HA_AllocMsg(u32 uiSize)
{
    return Run<void *>(Mk(__func__, {U(uiSize)}),
                       [&] { return reinterpret_cast<uintptr_t>(std::malloc(uiSize == 0 ? 1 : uiSize)); });
}

void HA_FreeMsg(void *pvMsg) { Run<void>(Mk(__func__, {}), [&] { std::free(pvMsg); }); }

u16 HA_IsMaster(i32 iHandle) { return Run<u16>(Mk(__func__, {S(iHandle)}), [] { return Config().master; }); }

u16 HA_IsExistSlaveService(i32 iHandle)
{
    return Run<u16>(Mk(__func__, {S(iHandle)}), [] { return Config().slavePresent; });
}

/* Recorded before the callbacks run; drains everything queued, including
 * input a callback pushes. */
u32 HA_Dispatch(u32 uiEvents, u64 ulData)
{
    bool bDrain = false;
    u32 uiRet = Run<u32>(Mk(__func__, {U(uiEvents), U(ulData)}), [&]() -> uint64_t {
        bDrain = g_iHaFd >= 0 && static_cast<i32>(ulData) == g_iHaFd;
        return bDrain ? 0 : 1;
    });
    if (!bDrain) {
        return uiRet;
    }
    eventfd_t ulCount = 0;
    (void)eventfd_read(g_iHaFd, &ulCount);
    while (!g_stHa.dqInput.empty()) {
        HaInput in = std::move(g_stHa.dqInput.front());
        g_stHa.dqInput.pop_front();
        if (in.bIsEvent && g_stHa.stCallbacks.pfnEvent != nullptr) {
            g_stHa.stCallbacks.pfnEvent(in.uiEvent);
        } else if (!in.bIsEvent && g_stHa.stCallbacks.pfnRecv != nullptr) {
            /* The receiver owns the message buffer. */
            auto *puc = static_cast<uint8_t *>(std::malloc(in.msg.size() + 1));
            std::copy(in.msg.begin(), in.msg.end(), puc);
            g_stHa.stCallbacks.pfnRecv(puc, static_cast<u16>(in.msg.size()), in.uiType);
        }
    }
    return uiRet;
}

u32 HA_Response(i32 iHandle, u32 uiEvent, void *pvData)
{
    return Run<u32>(Mk(__func__, {S(iHandle), U(uiEvent)}, Copy(pvData, 4)), [&] {
        u32 ui = 0xFFFFFFFFu;
        if (pvData != nullptr) {
            std::memcpy(&ui, pvData, sizeof(ui));
        }
        g_stHa.vecResponses.emplace_back(uiEvent, ui);
        return 0;
    });
}

u32 HA_SendMsgSync(i32 iHandle, void *pvBuf, u16 usLen, u32 uiFlag)
{
    return Run<u32>(Mk(__func__, {S(iHandle), U(usLen), U(uiFlag)}, Copy(pvBuf, usLen)), [&](Call &c) {
        g_stHa.vecSent.push_back(HaSent{c.data, uiFlag});
        return 0;
    });
}

} // extern "C"
