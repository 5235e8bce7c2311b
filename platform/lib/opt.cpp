/* Option reader: the three work-mode options come from the chassis
 * settings. */
#include "plat_opt.h"

#include <cstring>

#include "chassis_env.h"
#include "emulated_call.h"
#include "lib_log.h"

using namespace tbdl::plat;

namespace {

/* Writes v into a destination of ulSize bytes (1, 2, 4 or 8) in host
 * order. false for any other size. */
bool WriteSwitch(void *pvDest, u64 ulSize, u64 v)
{
    switch (ulSize) {
    case 1: {
        u8 b = static_cast<u8>(v);
        std::memcpy(pvDest, &b, 1);
        return true;
    }
    case 2: {
        u16 s = static_cast<u16>(v);
        std::memcpy(pvDest, &s, 2);
        return true;
    }
    case 4: {
        u32 w = static_cast<u32>(v);
        std::memcpy(pvDest, &w, 4);
        return true;
    }
    case 8:
        std::memcpy(pvDest, &v, 8);
        return true;
    default:
        return false;
    }
}

/* The switch an option name stands for, or nullptr for an unknown name. */
const bool *ModeOf(const ChassisSettings &s, const char *pcName)
{
    if (pcName == nullptr) {
        return nullptr;
    }
    if (std::strcmp(pcName, kModeLoadBalancing) == 0) {
        return &s.modeLoadBalancing;
    }
    if (std::strcmp(pcName, kModeOneToOne) == 0) {
        return &s.modeOneToOne;
    }
    if (std::strcmp(pcName, kModeOnePlusOne) == 0) {
        return &s.modeOnePlusOne;
    }
    return nullptr;
}

} // namespace

extern "C" u32 TBDL_Opt_Parse(u64 ulRowCount, TBDL_OPT_ROW_S *pstRows)
{
    Json rows = Json::array();
    return Emulated(
        "TBDL_Opt_Parse", u32{1}, /* a planned failure fills no row */
        [&]() -> u32 {
            ChassisSettings stSettings;
            std::string strErr;
            if (!LoadChassisSettings(stSettings, strErr)) {
                LibLogError("TBDL_Opt_Parse: %s", strErr.c_str());
                return 1;
            }
            if (pstRows == nullptr && ulRowCount != 0) {
                return 1;
            }
            u32 uiRet = 0;
            for (u64 i = 0; i < ulRowCount; ++i) {
                TBDL_OPT_ROW_S &stRow = pstRows[i];
                const bool *pbMode = ModeOf(stSettings, stRow.pcName);
                if (pbMode != nullptr &&
                    (stRow.pvDest == nullptr || !WriteSwitch(stRow.pvDest, stRow.ulSize, *pbMode))) {
                    uiRet = 1; /* a known option that could not be filled */
                }
                if (JournalEnabled()) {
                    rows.push_back({{"name", TextOf(stRow.pcName)},
                                    {"size", stRow.ulSize},
                                    {"value", pbMode != nullptr ? Json(*pbMode ? 1 : 0) : Json()}});
                }
            }
            return uiRet;
        },
        [&] { return Json{{"count", ulRowCount}, {"rows", rows}}; });
}
