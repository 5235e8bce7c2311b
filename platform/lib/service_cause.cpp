/* Service manager: the start cause chassisd gave this process
 * (TBDL_START_CAUSE: 0 system boot, 1 process restart). */
#include "plat_service.h"

#include "chassis_env.h"
#include "chassis_link.h"
#include "journal.h"

extern "C" u32 SERVICE_GetStartCause(u32 *puiCause, u32 *puiDetail)
{
    const tbdl::plat::ChassisEnv &stEnv = tbdl::plat::GetChassisEnv();
    u32 uiRet = 1; /* not started by a service manager */
    int64_t lValue = 1;
    bool bPlanned = tbdl::plat::link::Fails("SERVICE_GetStartCause", &lValue);
    if (bPlanned) {
        uiRet = static_cast<u32>(lValue); /* the outputs are left alone */
    } else if (stEnv.hasStartCause && puiCause != nullptr && puiDetail != nullptr) {
        *puiCause = stEnv.startCause;
        *puiDetail = 0;
        uiRet = 0;
    }
    if (tbdl::plat::JournalEnabled()) {
        bool bFilled = uiRet == 0 && !bPlanned;
        tbdl::plat::JournalRecord("SERVICE_GetStartCause",
                                  {{"cause", bFilled ? nlohmann::json(stEnv.startCause) : nlohmann::json()},
                                   {"detail", bFilled ? nlohmann::json(0) : nlohmann::json()}},
                                  uiRet);
    }
    return uiRet;
}
