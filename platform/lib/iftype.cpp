/* Interface data by interface type: the number of bundle slots comes from
 * the chassis settings. */
#include "plat_if.h"

#include <cstring>

#include "chassis_env.h"
#include "chassis_link.h"
#include "journal.h"
#include "lib_log.h"

extern "C" u32 IF_GetDataByIfType(u32 uiIfType, u32 uiDataType, void *pvOut)
{
    u32 uiRet = 1;
    u32 uiValue = 0;
    int64_t lValue = 1;
    bool bPlanned = tbdl::plat::link::Fails("IF_GetDataByIfType", &lValue);
    if (bPlanned) {
        uiRet = static_cast<u32>(lValue); /* the output is left alone */
    } else if (uiIfType == IF_TYPE_TUNNEL_BUNDLE && uiDataType == IF_DATA_MAX_COUNT && pvOut != nullptr) {
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
                                   {"value", uiRet == 0 && !bPlanned ? nlohmann::json(uiValue) : nlohmann::json()}},
                                  uiRet);
    }
    return uiRet;
}
