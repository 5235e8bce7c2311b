/* Service manager: the start cause chassisd gave this process
 * (TBDL_START_CAUSE: 0 system boot, 1 process restart). */
#include "plat_service.h"

#include "chassis_env.h"
#include "journal.h"

extern "C" u32 SERVICE_GetStartCause(u32 *puiCause, u32 *puiDetail)
{
    const tbdl::plat::ChassisEnv &stEnv = tbdl::plat::GetChassisEnv();
    u32 uiRet = 1; /* not started by a service manager */
    if (stEnv.hasStartCause && puiCause != nullptr && puiDetail != nullptr) {
        *puiCause = stEnv.startCause;
        *puiDetail = 0;
        uiRet = 0;
    }
    if (tbdl::plat::JournalEnabled()) {
        tbdl::plat::JournalRecord("SERVICE_GetStartCause",
                                  {{"cause", uiRet == 0 ? nlohmann::json(stEnv.startCause) : nlohmann::json()},
                                   {"detail", uiRet == 0 ? nlohmann::json(0) : nlohmann::json()}},
                                  uiRet);
    }
    return uiRet;
}
