/* Fake HA service: a real eventfd stands for the channel. Tests push events
 * and messages; HA_Dispatch drains them into the daemon's callbacks. */
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <deque>

#include "fake_internal.h"

using fake::Call;
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

void HaPushEvent(uint32_t event)
{
    HaInput in;
    in.bIsEvent = true;
    in.uiEvent = event;
    Push(std::move(in));
}

void HaPushMessage(const Bytes &msg, uint32_t type)
{
    HaInput in;
    in.msg = msg;
    in.uiType = type;
    Push(std::move(in));
}

const std::vector<HaSent> &HaSentMessages()
{
    return g_vecSent;
}

const std::vector<std::pair<uint32_t, uint32_t>> &HaResponses()
{
    return g_vecResponses;
}

} // namespace fake

using fake::g_dqInput;
using fake::g_iHaFd;
using fake::g_stCallbacks;
using fake::Run;

extern "C" {

i32 HA_Init(const char *pcModule, u32 uiArg1, const char *pcName, u32 uiArg2, u32 uiArg3,
            const void *pvIdent, const HA_CALLBACKS_S *pstCallbacks)
{
    Call c = Mk("HA_Init", {U(uiArg1), U(uiArg2), U(uiArg3)}, Copy(pvIdent, 8));
    c.text = std::string(pcModule != nullptr ? pcModule : "") + "|" + (pcName != nullptr ? pcName : "");
    return static_cast<i32>(Run(c, [&]() -> uint64_t {
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
            fake::Wake();
        }
        return S(g_iHaFd);
    }));
}

u32 HA_Exit(i32 iHandle)
{
    Call c = Mk("HA_Exit", {S(iHandle)});
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        if (iHandle < 0 || iHandle != g_iHaFd) {
            return 1;
        }
        close(g_iHaFd);
        g_iHaFd = -1;
        g_stCallbacks = HA_CALLBACKS_S{};
        return 0;
    }));
}

u32 HA_GetMTU(i32 iHandle)
{
    Call c = Mk("HA_GetMTU", {S(iHandle)});
    return static_cast<u32>(Run(c, []() -> uint64_t { return fake::Config().haMtu; }));
}

void *HA_AllocMsg(u32 uiSize)
{
    Call c = Mk("HA_AllocMsg", {U(uiSize)});
    uint64_t ul = 0;
    void *pv = nullptr;
    if (!Scripted(c.name, &ul)) {
        pv = std::malloc(uiSize == 0 ? 1 : uiSize);
        ul = reinterpret_cast<uintptr_t>(pv);
    } else if (ul != 0) {
        /* A scripted non-zero result still needs a real buffer. */
        pv = std::malloc(uiSize == 0 ? 1 : uiSize);
        ul = reinterpret_cast<uintptr_t>(pv);
    }
    c.result = ul;
    Record(std::move(c));
    return pv;
}

void HA_FreeMsg(void *pvMsg)
{
    Call c = Mk("HA_FreeMsg", {});
    std::free(pvMsg);
    Record(std::move(c));
}

u16 HA_IsMaster(i32 iHandle)
{
    Call c = Mk("HA_IsMaster", {S(iHandle)});
    return static_cast<u16>(Run(c, []() -> uint64_t { return fake::Config().master ? 1 : 0; }));
}

u16 HA_IsExistSlaveService(i32 iHandle)
{
    Call c = Mk("HA_IsExistSlaveService", {S(iHandle)});
    return static_cast<u16>(
        Run(c, []() -> uint64_t { return fake::Config().slavePresent ? 1 : 0; }));
}

u32 HA_Dispatch(u32 uiEvents, u64 ulData)
{
    Call c = Mk("HA_Dispatch", {U(uiEvents), U(ulData)});
    uint64_t ul = 0;
    bool bScripted = Scripted(c.name, &ul);
    if (!bScripted && (g_iHaFd < 0 || static_cast<i32>(ulData) != g_iHaFd)) {
        ul = 1;
        bScripted = true;
    }
    c.result = ul;
    Record(std::move(c));
    if (bScripted) {
        return static_cast<u32>(ul);
    }
    uint64_t ulCount = 0;
    ssize_t n = read(g_iHaFd, &ulCount, sizeof(ulCount));
    (void)n;
    /* Drain everything queued, including input a callback pushes. */
    while (!g_dqInput.empty()) {
        fake::HaInput in = std::move(g_dqInput.front());
        g_dqInput.pop_front();
        if (in.bIsEvent) {
            if (g_stCallbacks.pfnEvent != nullptr) {
                g_stCallbacks.pfnEvent(in.uiEvent);
            }
            continue;
        }
        void *pv = std::malloc(in.msg.empty() ? 1 : in.msg.size());
        if (!in.msg.empty()) {
            std::memcpy(pv, in.msg.data(), in.msg.size());
        }
        if (g_stCallbacks.pfnRecv != nullptr) {
            g_stCallbacks.pfnRecv(pv, static_cast<u16>(in.msg.size()), in.uiType);
        } else {
            std::free(pv);
        }
    }
    return 0;
}

u32 HA_Response(i32 iHandle, u32 uiEvent, void *pvData)
{
    Call c = Mk("HA_Response", {S(iHandle), U(uiEvent)}, Copy(pvData, pvData != nullptr ? 4 : 0));
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        u32 ui = 0xFFFFFFFFu;
        if (pvData != nullptr) {
            std::memcpy(&ui, pvData, sizeof(ui));
        }
        fake::g_vecResponses.emplace_back(uiEvent, ui);
        return 0;
    }));
}

u32 HA_SendMsgSync(i32 iHandle, void *pvBuf, u16 usLen, u32 uiFlag)
{
    Call c = Mk("HA_SendMsgSync", {S(iHandle), U(usLen), U(uiFlag)}, Copy(pvBuf, usLen));
    fake::Bytes msg = c.data;
    return static_cast<u32>(Run(c, [&]() -> uint64_t {
        fake::g_vecSent.push_back(fake::HaSent{msg, uiFlag});
        return 0;
    }));
}

} // extern "C"
