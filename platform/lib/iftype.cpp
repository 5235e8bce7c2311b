/* Interface data by interface type: the number of bundle slots comes from
 * the chassis settings. */
#include "plat_if.h"

#include <cstring>

#include "chassis_env.h"
#include "journal.h"
#include "lib_log.h"

extern "C" u32 IF_GetDataByIfType(u32 uiIfType, u32 uiDataType, void *pvOut)
{
    u32 uiRet = 1;
    u32 uiValue = 0;
    if (uiIfType == IF_TYPE_TUNNEL_BUNDLE && uiDataType == IF_DATA_MAX_COUNT && pvOut != nullptr) {
        tbdl::plat::ChassisSettings stSettings;
        std::string strErr;
        if (tbdl::plat::LoadChassisSettings(stSettings, strErr)) {
            uiValue = stSettings.bundleSlots;
            std::memcpy(pvOut, &uiValue, sizeof(uiValue));
            uiRet = 0;
        } else {
            tbdl::plat::LibLogError("IF_GetDataByIfType: %s", strErr.c_str());
        }
    }
    if (tbdl::plat::JournalEnabled()) {
        tbdl::plat::JournalRecord("IF_GetDataByIfType",
                                  {{"if_type", uiIfType}, {"data_type", uiDataType},
                                   {"value", uiRet == 0 ? nlohmann::json(uiValue) : nlohmann::json()}},
                                  uiRet);
    }
    return uiRet;
}
