/* Kernel control: the command and its payload go to chassisd, which keeps
 * this board's kernel tunnel-bundle table and answers 0 when the module
 * took the command. */
#include "plat_cioctl.h"

#include "chassis_link.h"
#include "emulated_call.h"

using namespace tbdl::plat;

namespace {
constexpr u32 kMaxPayload = 4096;
}

extern "C" u32 CIOCTL(u32 uiDev, u32 uiCmd, u32 uiLen, void *pvBuf, u32 uiArg1, u32 uiArg2, u32 uiArg3)
{
    return Emulated(
        "CIOCTL", u32{1},
        [&]() -> u32 {
            if (uiLen > kMaxPayload || (uiLen > 0 && pvBuf == nullptr)) {
                return 22; /* the module would refuse the buffer */
            }
            tbdl::rpc::CioctlReq stReq{uiDev, uiCmd, {uiArg1, uiArg2, uiArg3}};
            return link::CallOp<tbdl::rpc::OP_CIOCTL>(0, stReq, nullptr, pvBuf, uiLen);
        },
        [&] {
            return Json{{"dev", uiDev}, {"cmd", uiCmd}, {"len", uiLen}, {"payload", HexOf(pvBuf, uiLen)}};
        });
}
