/* Label forwarding information: the member limit of a bundle comes from
 * the chassis settings. */
#include "plat_lfib.h"

#include <cstring>

#include "chassis_env.h"
#include "chassis_link.h"
#include "journal.h"
#include "lib_log.h"

extern "C" u32 LFIB_GetInfo(void *pvInfo)
{
    tbdl::plat::ChassisSettings stSettings;
    std::string strErr;
    u32 uiRet = 1;
    int64_t lValue = 1;
    bool bPlanned = tbdl::plat::link::Fails("LFIB_GetInfo", &lValue);
    if (bPlanned) {
        uiRet = static_cast<u32>(lValue); /* the record is left alone */
    } else if (pvInfo == nullptr) {
        strErr = "no record";
    } else if (tbdl::plat::LoadChassisSettings(stSettings, strErr)) {
        auto *pucInfo = static_cast<u8 *>(pvInfo);
        std::memset(pucInfo, 0, LFIB_INFO_LEN);
        pucInfo[LFIB_INFO_MAX_MEMB_OFFSET] = static_cast<u8>(stSettings.memberLimit);
        uiRet = 0;
    }
    if (uiRet != 0 && !bPlanned) {
        tbdl::plat::LibLogError("LFIB_GetInfo: %s", strErr.c_str());
    }
    if (tbdl::plat::JournalEnabled()) {
        bool bFilled = uiRet == 0 && !bPlanned;
        tbdl::plat::JournalRecord("LFIB_GetInfo", {{"info", bFilled ? tbdl::plat::HexOf(pvInfo, LFIB_INFO_LEN) : ""}},
                                  uiRet);
    }
    return uiRet;
}
