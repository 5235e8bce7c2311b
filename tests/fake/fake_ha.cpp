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

int g_iHaFd = -1;
HA_CALLBACKS_S g_stCallbacks{};
std::deque<HaInput> g_dqInput;
std::vector<HaSent> g_vecSent;
std::vector<std::pair<uint32_t, uint32_t>> g_vecResponses;

void Wake()
{
    if (g_iHaFd >= 0) {
        uint64_t ul = 1;
        ssize_t n = write(g_iHaFd, &ul, sizeof(ul));
        (void)n;
    }
}

void Push(HaInput &&in)
{
    g_dqInput.push_back(std::move(in));
    Wake();
}

} // namespace

namespace detail {
void ResetHa()
{
    if (g_iHaFd >= 0) {
        close(g_iHaFd);
    }
    g_iHaFd = -1;
    g_stCallbacks = HA_CALLBACKS_S{};
    g_dqInput.clear();
    g_vecSent.clear();
    g_vecResponses.clear();
}
} // namespace detail

void HaPushEvent(uint32_t event) { Push(HaInput{true, event, {}, 0}); }

void HaPushMessage(const Bytes &msg, uint32_t type) { Push(HaInput{false, 0, msg, type}); }

const std::vector<HaSent> &HaSentMessages() { return g_vecSent; }

const std::vector<std::pair<uint32_t, uint32_t>> &HaResponses() { return g_vecResponses; }

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
        g_stCallbacks = *pstCallbacks;
        /* Input pushed before the channel existed is now readable. */
        if (!g_dqInput.empty()) {
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
        g_stCallbacks = HA_CALLBACKS_S{};
        return 0;
    });
}

u32 HA_GetMTU(i32 iHandle) { return Run<u32>(Mk(__func__, {S(iHandle)}), [] { return Config().haMtu; }); }

/* A scripted result of 0 makes the allocation fail; any other still yields
 * a real buffer. */
void *HA_AllocMsg(u32 uiSize)
{
    void *pv = nullptr;
    uint64_t ul = Run<uint64_t>(Mk(__func__, {U(uiSize)}), [&] {
        pv = std::malloc(uiSize == 0 ? 1 : uiSize);
        return reinterpret_cast<uintptr_t>(pv);
    });
    return (ul != 0 && pv == nullptr) ? std::malloc(uiSize == 0 ? 1 : uiSize) : pv;
}

void HA_FreeMsg(void *pvMsg)
{
    Run<void>(Mk(__func__, {}), [&] { std::free(pvMsg); });
}

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
    uint64_t ulCount = 0;
    ssize_t n = read(g_iHaFd, &ulCount, sizeof(ulCount));
    (void)n;
    while (!g_dqInput.empty()) {
        HaInput in = std::move(g_dqInput.front());
        g_dqInput.pop_front();
        if (in.bIsEvent && g_stCallbacks.pfnEvent != nullptr) {
            g_stCallbacks.pfnEvent(in.uiEvent);
        } else if (!in.bIsEvent && g_stCallbacks.pfnRecv != nullptr) {
            /* The receiver owns the message buffer. */
            auto *puc = static_cast<uint8_t *>(std::malloc(in.msg.size() + 1));
            std::copy(in.msg.begin(), in.msg.end(), puc);
            g_stCallbacks.pfnRecv(puc, static_cast<u16>(in.msg.size()), in.uiType);
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
        g_vecResponses.emplace_back(uiEvent, ui);
        return 0;
    });
}

u32 HA_SendMsgSync(i32 iHandle, void *pvBuf, u16 usLen, u32 uiFlag)
{
    return Run<u32>(Mk(__func__, {S(iHandle), U(usLen), U(uiFlag)}, Copy(pvBuf, usLen)), [&](Call &c) {
        g_vecSent.push_back(HaSent{c.data, uiFlag});
        return 0;
    });
}

} // extern "C"
