/* Label forwarding information: the member limit of a bundle comes from
 * the chassis settings. */
#include "plat_lfib.h"

#include <cstring>

#include "chassis_env.h"
#include "emulated_call.h"
#include "lib_log.h"

using namespace tbdl::plat;

extern "C" u32 LFIB_GetInfo(void *pvInfo)
{
    bool bFilled = false;
    return Emulated(
        "LFIB_GetInfo", u32{1},
        [&]() -> u32 {
            ChassisSettings stSettings;
            std::string strErr;
            if (pvInfo == nullptr) {
                strErr = "no record";
            }
            if (pvInfo == nullptr || !LoadChassisSettings(stSettings, strErr)) {
                LibLogError("LFIB_GetInfo: %s", strErr.c_str());
                return 1;
            }
            auto *pucInfo = static_cast<u8 *>(pvInfo);
            std::memset(pucInfo, 0, LFIB_INFO_LEN);
            pucInfo[LFIB_INFO_MAX_MEMB_OFFSET] = static_cast<u8>(stSettings.memberLimit);
            bFilled = true;
            return 0;
        },
        [&] { return Json{{"info", bFilled ? HexOf(pvInfo, LFIB_INFO_LEN) : ""}}; });
}
