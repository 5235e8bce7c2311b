/* Tunnel library: the tunnel mode of a tunnel interface, as set with
 * chassisctl (an interface without a mode leaves *puiMode as it was). */
#include "plat_tunnel.h"

#include "chassis_link.h"
#include "emulated_call.h"

using namespace tbdl::plat;

extern "C" u32 TUNNEL_GetMode(u32 uiIfIndex, u32 *puiMode)
{
    tbdl::rpc::U32Value stMode{0};
    return Emulated(
        "TUNNEL_GetMode", u32{1},
        [&]() -> u32 {
            if (puiMode == nullptr || link::CallOp<tbdl::rpc::OP_TUNNEL_GET_MODE>(0, {uiIfIndex}, &stMode) != 0) {
                return 1;
            }
            *puiMode = stMode.uiValue;
            return 0;
        },
        [&](u32 uiRet) {
            return Json{{"ifindex", uiIfIndex}, {"mode", uiRet == 0 ? Json(stMode.uiValue) : Json()}};
        });
}
