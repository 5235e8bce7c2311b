/* Tunnel library: the tunnel mode of a tunnel interface, as set with
 * chassisctl (an interface without a mode leaves *puiMode as it was). */
#include <cstring>

#include "plat_tunnel.h"

#include "chassis_link.h"

using namespace tbdl::plat;

extern "C" u32 TUNNEL_GetMode(u32 uiIfIndex, u32 *puiMode)
{
    int64_t lValue = 1;
    u32 uiRet = 1;
    u32 uiMode = 0;
    if (link::Fails("TUNNEL_GetMode", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else if (puiMode != nullptr) {
        std::vector<uint8_t> reply;
        if (link::Call(tbdl::rpc::OP_TUNNEL_GET_MODE, 0, &uiIfIndex, 4, &reply) == 0 && reply.size() == 4) {
            std::memcpy(&uiMode, reply.data(), 4);
            *puiMode = uiMode;
            uiRet = 0;
        }
    }
    if (JournalEnabled()) {
        JournalRecord("TUNNEL_GetMode",
                      {{"ifindex", uiIfIndex}, {"mode", uiRet == 0 ? nlohmann::json(uiMode) : nlohmann::json()}},
                      uiRet);
    }
    return uiRet;
}
