/* Service manager: the daemon reports its status (2 = up) to chassisd,
 * which starts, stops and restarts the boards' daemons. */
#include "plat_service.h"

#include "chassis_link.h"
#include "emulated_call.h"

using namespace tbdl::plat;

extern "C" u32 SERVICE_SetStatus(u32 uiStatus)
{
    return Emulated(
        "SERVICE_SetStatus", u32{1},
        [&]() -> u32 { return link::CallOp<tbdl::rpc::OP_SERVICE_SET_STATUS>(uiStatus, {}) == 0 ? 0 : 1; },
        [&] { return Json{{"status", uiStatus}}; });
}
