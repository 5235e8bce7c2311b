/* Service manager: the daemon reports its status (2 = up) to chassisd,
 * which starts, stops and restarts the boards' daemons. */
#include "plat_service.h"

#include "chassis_link.h"

using namespace tbdl::plat;

extern "C" u32 SERVICE_SetStatus(u32 uiStatus)
{
    int64_t lValue = 1;
    u32 uiRet;
    if (link::Fails("SERVICE_SetStatus", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else {
        uiRet = link::Call(tbdl::rpc::OP_SERVICE_SET_STATUS, uiStatus, nullptr, 0) == 0 ? 0 : 1;
    }
    if (JournalEnabled()) {
        JournalRecord("SERVICE_SetStatus", {{"status", uiStatus}}, uiRet);
    }
    return uiRet;
}
