/* Service manager: the start cause chassisd gave this process
 * (TBDL_START_CAUSE: 0 system boot, 1 process restart). */
#include "plat_service.h"

#include "chassis_env.h"
#include "emulated_call.h"

using namespace tbdl::plat;

extern "C" u32 SERVICE_GetStartCause(u32 *puiCause, u32 *puiDetail)
{
    const ChassisEnv &stEnv = GetChassisEnv();
    bool bFilled = false;
    return Emulated(
        "SERVICE_GetStartCause", u32{1},
        [&]() -> u32 {
            if (!stEnv.hasStartCause || puiCause == nullptr || puiDetail == nullptr) {
                return 1; /* not started by a service manager */
            }
            *puiCause = stEnv.startCause;
            *puiDetail = 0;
            bFilled = true;
            return 0;
        },
        [&] {
            return Json{{"cause", bFilled ? Json(stEnv.startCause) : Json()}, {"detail", bFilled ? Json(0) : Json()}};
        });
}
