/* Interface data by interface type: the number of bundle slots comes from
 * the chassis settings. */
#include "plat_if.h"

#include <cstring>

#include "chassis_env.h"
#include "emulated_call.h"
#include "lib_log.h"

using namespace tbdl::plat;

extern "C" u32 IF_GetDataByIfType(u32 uiIfType, u32 uiDataType, void *pvOut)
{
    u32 uiValue = 0;
    bool bFilled = false;
    return Emulated(
        "IF_GetDataByIfType", u32{1},
        [&]() -> u32 {
            if (uiIfType != IF_TYPE_TUNNEL_BUNDLE || uiDataType != IF_DATA_MAX_COUNT || pvOut == nullptr) {
                return 1;
            }
            ChassisSettings stSettings;
            std::string strErr;
            if (!LoadChassisSettings(stSettings, strErr)) {
                LibLogError("IF_GetDataByIfType: %s", strErr.c_str());
                return 1;
            }
            uiValue = stSettings.bundleSlots;
            std::memcpy(pvOut, &uiValue, sizeof(uiValue));
            bFilled = true;
            return 0;
        },
        [&] {
            return Json{{"if_type", uiIfType}, {"data_type", uiDataType}, {"value", bFilled ? Json(uiValue) : Json()}};
        });
}
