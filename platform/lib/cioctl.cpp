/* Kernel control: the command and its payload go to chassisd, which keeps
 * this board's kernel tunnel-bundle table and answers 0 when the module
 * took the command. */
#include <cstring>

#include "plat_cioctl.h"

#include "chassis_link.h"

using namespace tbdl::plat;

namespace {
constexpr u32 kMaxPayload = 4096;
}

extern "C" u32 CIOCTL(u32 uiDev, u32 uiCmd, u32 uiLen, void *pvBuf, u32 uiArg1, u32 uiArg2, u32 uiArg3)
{
    int64_t lValue = 1;
    u32 uiRet;
    if (link::Fails("CIOCTL", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else if (uiLen > kMaxPayload || (uiLen > 0 && pvBuf == nullptr)) {
        uiRet = 22; /* the module would refuse the buffer */
    } else {
        uint8_t aucReq[sizeof(tbdl::rpc::CioctlReq) + kMaxPayload];
        tbdl::rpc::CioctlReq stReq{uiDev, uiCmd, {uiArg1, uiArg2, uiArg3}};
        std::memcpy(aucReq, &stReq, sizeof(stReq));
        if (uiLen > 0) {
            std::memcpy(aucReq + sizeof(stReq), pvBuf, uiLen);
        }
        uiRet = link::Call(tbdl::rpc::OP_CIOCTL, 0, aucReq, sizeof(stReq) + uiLen);
    }
    if (JournalEnabled()) {
        JournalRecord("CIOCTL",
                      {{"dev", uiDev}, {"cmd", uiCmd}, {"len", uiLen}, {"payload", HexOf(pvBuf, pvBuf != nullptr ? uiLen : 0)}},
                      uiRet);
    }
    return uiRet;
}
