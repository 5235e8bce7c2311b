/* Option reader: the three work-mode options come from the chassis
 * settings. */
#include "plat_opt.h"

#include <cstring>

#include "chassis_env.h"
#include "chassis_link.h"
#include "journal.h"
#include "lib_log.h"

namespace {

using tbdl::plat::ChassisSettings;

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
    if (std::strcmp(pcName, tbdl::plat::kModeLoadBalancing) == 0) {
        return &s.modeLoadBalancing;
    }
    if (std::strcmp(pcName, tbdl::plat::kModeOneToOne) == 0) {
        return &s.modeOneToOne;
    }
    if (std::strcmp(pcName, tbdl::plat::kModeOnePlusOne) == 0) {
        return &s.modeOnePlusOne;
    }
    return nullptr;
}

} // namespace

extern "C" u32 TBDL_Opt_Parse(u64 ulRowCount, TBDL_OPT_ROW_S *pstRows)
{
    ChassisSettings stSettings;
    std::string strErr;
    u32 uiRet = 0;
    nlohmann::json rows = nlohmann::json::array();
    int64_t lValue = 1;
    if (tbdl::plat::link::Fails("TBDL_Opt_Parse", &lValue)) {
        uiRet = static_cast<u32>(lValue); /* no row is filled */
    } else if (!tbdl::plat::LoadChassisSettings(stSettings, strErr)) {
        tbdl::plat::LibLogError("TBDL_Opt_Parse: %s", strErr.c_str());
        uiRet = 1;
    } else if (pstRows == nullptr && ulRowCount != 0) {
        uiRet = 1;
    } else {
        for (u64 i = 0; i < ulRowCount; ++i) {
            TBDL_OPT_ROW_S &stRow = pstRows[i];
            const bool *pbMode = ModeOf(stSettings, stRow.pcName);
            if (pbMode != nullptr && (stRow.pvDest == nullptr || !WriteSwitch(stRow.pvDest, stRow.ulSize, *pbMode))) {
                uiRet = 1; /* a known option that could not be filled */
            }
            if (tbdl::plat::JournalEnabled()) {
                rows.push_back({{"name", stRow.pcName != nullptr ? stRow.pcName : ""},
                                {"size", stRow.ulSize},
                                {"value", pbMode != nullptr ? nlohmann::json(*pbMode ? 1 : 0) : nlohmann::json()}});
            }
        }
    }
    if (tbdl::plat::JournalEnabled()) {
        tbdl::plat::JournalRecord("TBDL_Opt_Parse", {{"count", ulRowCount}, {"rows", rows}}, uiRet);
    }
    return uiRet;
}
