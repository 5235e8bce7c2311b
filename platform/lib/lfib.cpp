/* Label forwarding information: the member limit of a bundle comes from
 * the chassis settings. */
#include "plat_lfib.h"

#include <cstring>

#include "chassis_env.h"
#include "journal.h"
#include "lib_log.h"

extern "C" u32 LFIB_GetInfo(void *pvInfo)
{
    tbdl::plat::ChassisSettings stSettings;
    std::string strErr;
    u32 uiRet = 1;
    if (pvInfo == nullptr) {
        strErr = "no record";
    } else if (tbdl::plat::LoadChassisSettings(stSettings, strErr)) {
        auto *pucInfo = static_cast<u8 *>(pvInfo);
        std::memset(pucInfo, 0, LFIB_INFO_LEN);
        pucInfo[LFIB_INFO_MAX_MEMB_OFFSET] = static_cast<u8>(stSettings.memberLimit);
        uiRet = 0;
    }
    if (uiRet != 0) {
        tbdl::plat::LibLogError("LFIB_GetInfo: %s", strErr.c_str());
    }
    if (tbdl::plat::JournalEnabled()) {
        tbdl::plat::JournalRecord("LFIB_GetInfo", {{"info", uiRet == 0 ? tbdl::plat::HexOf(pvInfo, LFIB_INFO_LEN) : ""}},
                                  uiRet);
    }
    return uiRet;
}
