/* The crash points of a torture run, by path of the daemon. */
#include "torture.h"

namespace torture {

const std::vector<CrashPoint> &DefaultPoints()
{
    static const std::vector<CrashPoint> points = {
        /* request path: store, kernel, mirror to the standby */
        {"DBM_InsertSortList", "crash-before", "request"},
        {"DBM_InsertSortList", "crash-after", "request"},
        {"DBM_RemoveSortList", "crash-before", "request"},
        {"DBM_RemoveSortList", "crash-after", "request"},
        {"DBM_IsKeyExist", "crash-before", "request"},
        {"DBM_SetSortWord", "crash-after", "request"},
        {"DBM_Len", "crash-after", "request"},
        {"CIOCTL", "crash-before", "request"},
        {"CIOCTL", "crash-after", "request"},
        {"DBM_DeleteKey", "crash-after", "request"},
        {"TUNNEL_GetMode", "crash-before", "request"},
        {"IF_GetIfIndexByFullName", "crash-before", "request"},
        /* recovery path: start-up, reading the stored configuration back */
        {"SERVICE_GetStartCause", "crash-before", "recovery"},
        {"DBM_Open", "crash-after", "recovery"},
        {"DBM_BatchGetNextSortList", "crash-before", "recovery"},
        {"DBM_BatchGetNextSortList", "crash-after", "recovery"},
        {"SERVICE_SetStatus", "crash-before", "recovery"},
        /* HA path */
        {"HA_Init", "crash-after", "ha"},
        {"HA_SendMsgSync", "crash-before", "ha"},
        {"HA_SendMsgSync", "crash-after", "ha"},
        {"DBM_Sync", "crash-after", "ha"}, /* on a change of master */
        /* download path: LSM and PS */
        {"LSM_RegProtocolHandler", "crash-after", "download"},
        {"LSM_AddLspEntry", "crash-before", "download"},
        {"LSM_AddLspEntry", "crash-after", "download"},
        {"LSM_DeleteLspEntry", "crash-after", "download"},
        {"PS_Register", "crash-after", "download"},
        /* event path: the registrations made today; the event calls join here
         * (IF_ResponseEventPkt, L3VPN_FinalStatusNotify, ...) as their events
         * come from the chassis */
        {"IF_RegIfEventEx", "crash-after", "event"},
        {"L3VPN_RegEvt", "crash-after", "event"},
        /* standby path: the standby's daemon receiving backups from the
         * master (the HA push, the copy of a message, the kernel commands
         * that apply it) */
        {"HA_Dispatch", "crash-before", "standby", true},
        {"HA_Dispatch", "crash-after", "standby", true},
        {"HA_AllocMsg", "crash-after", "standby", true},
        {"CIOCTL", "crash-before", "standby", true},
        {"CIOCTL", "crash-after", "standby", true},
    };
    return points;
}

std::optional<CrashPoint> ParsePoint(const std::string &given)
{
    static const std::string kStandby = "standby:";
    const bool standby = given.rfind(kStandby, 0) == 0;
    const std::string text = standby ? given.substr(kStandby.size()) : given;
    CrashPoint p{text, "crash-before", standby ? "standby" : "given", standby};
    size_t colon = text.find(':');
    if (colon != std::string::npos) {
        p.call = text.substr(0, colon);
        std::string when = text.substr(colon + 1);
        if (when != "before" && when != "after") {
            return std::nullopt;
        }
        p.kind = "crash-" + when;
    }
    if (p.call.empty()) {
        return std::nullopt;
    }
    for (const CrashPoint &d : DefaultPoints()) {
        if (d.call == p.call && d.standby == p.standby) {
            p.path = d.path;
        }
    }
    return p;
}

} // namespace torture
