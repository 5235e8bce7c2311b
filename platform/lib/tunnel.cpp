/* Tunnel library: the tunnel mode of a tunnel interface, as set with
 * chassisctl (an interface without a mode leaves *puiMode as it was), read
 * from chassisd's shared interface table, or asked of chassisd when that
 * cannot be read. */
#include "plat_tunnel.h"

#include "chassis_link.h"
#include "emulated_call.h"
#include "ifmap.h"

using namespace tbdl::plat;

namespace {

/* 0 with the mode, or 1 for an unknown interface or one without a mode. */
u32 ModeOf(u32 uiIfIndex, tbdl::rpc::U32Value &stMode)
{
    IfMapSlot stSlot;
    switch (IfMapLocalIndex(uiIfIndex, stSlot)) {
    case IfMapRead::FOUND:
        stMode.uiValue = stSlot.ucHasMode != 0 ? stSlot.uiTnlMode : 0;
        return stSlot.ucHasMode != 0 ? 0 : 1;
    case IfMapRead::ABSENT: return 1;
    case IfMapRead::UNKNOWN: break;
    }
    return link::CallOp<tbdl::rpc::OP_TUNNEL_GET_MODE>(0, {uiIfIndex}, &stMode) != 0 ? 1 : 0;
}

} // namespace

extern "C" u32 TUNNEL_GetMode(u32 uiIfIndex, u32 *puiMode)
{
    tbdl::rpc::U32Value stMode{0};
    return Emulated(
        "TUNNEL_GetMode", u32{1},
        [&]() -> u32 {
            if (puiMode == nullptr || ModeOf(uiIfIndex, stMode) != 0) {
                return 1;
            }
            *puiMode = stMode.uiValue;
            return 0;
        },
        [&](u32 uiRet) {
            return Json{{"ifindex", uiIfIndex}, {"mode", uiRet == 0 ? Json(stMode.uiValue) : Json()}};
        });
}
