/* chassisctl commands: JSON request {"cmd":...} in, JSON reply out, one
 * table from command name to handler. "dump_<name>" commands come from the
 * table of services. Commands that take time (stop, reboot, board restart)
 * answer once their stop phase is over; chassisctl then waits for the
 * boards itself. */
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "chassis_env.h"
#include "chassisd.h"
#include "plat_service.h"

namespace chassis {

namespace {

/* Gives the reply now (true) or answers later through ReplyCtl (false). */
using CtlFn = bool (*)(int fd, const Json &req, Json &reply);

Json Ok(Json data = Json::object())
{
    data["ok"] = true;
    return data;
}

Json Error(const std::string &msg) { return {{"ok", false}, {"error", msg}}; }

/* Ok with the interface a command changed, or the error. */
Json Changed(bool ok, const Json &interface, const std::string &err)
{
    return ok ? Ok({{"interface", interface}}) : Error(err);
}

bool BoardArg(const Json &req, int &b, std::string &err)
{
    if (!req.contains("board") || !req["board"].is_number_integer()) {
        err = "a board number is needed";
        return false;
    }
    b = req["board"].get<int>();
    if (!ValidBoard(b)) {
        err = "board " + std::to_string(b) + " is not part of this chassis";
        return false;
    }
    return true;
}

void ReplyLater(int fd, const Json &reply)
{
    if (FindConn(fd) != nullptr) {
        ReplyCtl(fd, reply);
    }
}

bool Status(int, const Json &, Json &reply)
{
    reply = Ok({{"chassisd_pid", getpid()},
                {"dir", g_opt.dir},
                {"socket", tbdl::plat::ChassisSocketPathOf(g_opt.dir)},
                {"daemon", g_opt.daemonPath},
                {"journal", g_opt.journal},
                {"ps_lib", g_opt.psLibPath},
                {"no_ps_lib", g_opt.noPsLibBoards},
                {"master_board", HaMaster()},
                {"busy", SvcBusy()},
                {"settings", Json::parse(tbdl::plat::SettingsToJson(g_opt.settings))},
                {"boards", SvcStatusJson()},
                {"lib_calls", LibCallCounts()}});
    return true;
}

/* Stops every board in order; a reboot then clears the boards' state and
 * starts them again with start cause system boot. */
bool StopOrReboot(int fd, bool reboot, Json &reply)
{
    if (SvcBusy()) {
        reply = Error("the chassis is already stopping or rebooting");
        return true;
    }
    SvcSetBusy(true);
    Log(reboot ? "rebooting the chassis on request" : "stopping the chassis on request");
    SvcStop(SvcStopOrder(), [fd, reboot] {
        if (reboot) {
            for (int x : g_opt.settings.boards) {
                BoardDown(x, ClearReason::REBOOT);
            }
            SvcStartAll(SERVICE_CAUSE_SYSTEM_BOOT);
            for (int x : g_opt.settings.boards) {
                BoardUp(x);
            }
            SvcSetBusy(false);
        }
        ReplyLater(fd, Ok({{"chassisd_pid", getpid()}}));
        if (!reboot) {
            ExitLoop(0);
        }
    });
    return false;
}

bool Stop(int fd, const Json &, Json &reply) { return StopOrReboot(fd, false, reply); }
bool Reboot(int fd, const Json &, Json &reply) { return StopOrReboot(fd, true, reply); }

bool BoardRestart(int fd, const Json &req, Json &reply)
{
    std::string err;
    int b = 0;
    if (!BoardArg(req, b, err)) {
        reply = Error(err);
        return true;
    }
    if (SvcBusy()) {
        reply = Error("the chassis is stopping or rebooting");
        return true;
    }
    Log("board " + std::to_string(b) + ": restarting on request");
    SvcStop({b}, [fd, b] {
        g_boards[b].startFailures = 0;
        g_boards[b].restarts++;
        SvcStartBoard(b, SERVICE_CAUSE_PROCESS_RESTART);
        ReplyLater(fd, Ok());
    });
    return false;
}

bool BoardKill(int, const Json &req, Json &reply)
{
    std::string err;
    int b = 0;
    reply = BoardArg(req, b, err) && SvcKill(b, err) ? Ok() : Error(err);
    return true;
}

bool IfAddCmd(int, const Json &req, Json &reply)
{
    std::string err;
    Json out;
    bool ok = IfAdd(req, out, err);
    reply = Changed(ok, out, err);
    return true;
}

bool IfSetCmd(int, const Json &req, Json &reply)
{
    std::string err;
    Json out;
    bool ok = IfSet(req, out, err);
    reply = Changed(ok, out, err);
    return true;
}

bool IfDelCmd(int, const Json &req, Json &reply)
{
    std::string err;
    Json out;
    bool ok = IfDel(req.at("name").get<std::string>(), out, err);
    reply = Changed(ok, out, err);
    return true;
}

bool VrfBindCmd(int, const Json &req, Json &reply)
{
    uint32_t vrf = req.at("vrf").get<uint32_t>();
    if (vrf == 0) {
        reply = Error("VRF index 0 means no VRF; use vrf unbind");
        return true;
    }
    std::string err;
    Json out;
    bool ok = VrfBind(req.at("name").get<std::string>(), vrf, out, err);
    reply = Changed(ok, out, err);
    return true;
}

bool VrfUnbindCmd(int, const Json &req, Json &reply)
{
    std::string err;
    Json out;
    bool ok = VrfBind(req.at("name").get<std::string>(), 0, out, err);
    reply = Changed(ok, out, err);
    return true;
}

/* "fail": the next count calls (or every call) of a board's daemon to a
 * platform call, after skip calls let through, fail or crash the daemon. */
bool Fail(int, const Json &req, Json &reply)
{
    std::string err;
    int b = 0;
    if (!BoardArg(req, b, err)) {
        reply = Error(err);
        return true;
    }
    tbdl::rpc::FailEntry e;
    e.call = req.at("call").get<std::string>();
    e.count = req.value("always", false) ? -1 : req.value("count", 1);
    e.skip = req.value("skip", 0);
    std::optional<tbdl::rpc::FailKind> kind = tbdl::rpc::FailKindOf(req.value("kind", std::string("fail")));
    e.hasResult = req.contains("result") && !req["result"].is_null();
    e.result = e.hasResult ? req["result"].get<int64_t>() : 0;
    if (e.count == 0 || e.count < -1 || e.skip < 0 || !kind) {
        reply = Error(!kind ? "unknown kind '" + req.value("kind", std::string()) + "'"
                            : "the count must be at least 1 and the skip at least 0");
        return true;
    }
    e.kind = *kind;
    if (!tbdl::rpc::FailPlanSet(g_boards[b].failPlan, e)) {
        reply = Error("cannot plan a failure of '" + e.call + "' (name too long or plan full)");
        return true;
    }
    Log("board " + std::to_string(b) + ": platform call " + e.call + " " +
        (e.kind == tbdl::rpc::FailKind::FAIL ? "fails" : std::string(tbdl::rpc::FailKindName(e.kind))) + " " +
        (e.count < 0 ? "always" : std::to_string(e.count) + " time(s)") +
        (e.skip > 0 ? " after " + std::to_string(e.skip) + " call(s)" : ""));
    reply = Ok();
    return true;
}

bool FailClear(int, const Json &req, Json &reply)
{
    for (Board &bd : g_boards) {
        if (bd.present && (!req.contains("board") || req["board"].get<int>() == bd.num)) {
            tbdl::rpc::FailPlanClear(bd.failPlan);
        }
    }
    Log("planned failures cleared");
    reply = Ok();
    return true;
}

bool HaEvent(int, const Json &req, Json &reply)
{
    std::string err;
    int b = 0;
    uint32_t ev = req.at("event").get<uint32_t>();
    reply = BoardArg(req, b, err) && HaInjectEvent(b, ev, err) ? Ok() : Error(err);
    return true;
}

/* Interface events, L3VPN and the service port. */
bool IfHangupCmd(int, const Json &req, Json &reply)
{
    std::string err;
    int b = 0;
    reply = BoardArg(req, b, err) && IfevHangup(b, err) ? Ok() : Error(err);
    return true;
}

bool SvcPortCmd(int, const Json &req, Json &reply)
{
    std::string err;
    reply = SvcPortSet(req.at("state").get<std::string>(), err) ? Ok() : Error(err);
    return true;
}

/* "role": which board is master now and which boards the chassis has, so a
 * configuration tool can find the master board's socket after a change of
 * master. */
bool Role(int, const Json &, Json &reply)
{
    Json boards = Json::array();
    for (int b : g_opt.settings.boards) {
        boards.push_back({{"board", b}, {"state", BoardStateName(g_boards[b].state)}});
    }
    reply = Ok({{"master", HaMaster()}, {"boards", boards}});
    return true;
}

/* ---- the HA pair: switchover, board failure and recovery, HA link ---- */

bool Switchover(int fd, const Json &, Json &reply)
{
    std::string err;
    if (SvcBusy()) {
        reply = Error("the chassis is stopping or rebooting");
        return true;
    }
    if (!HaSwitchover(fd, err)) {
        reply = Error(err);
        return true;
    }
    return false; /* answered when the switchover ends */
}

bool BoardFailOrRecover(const Json &req, Json &reply, bool fail)
{
    std::string err;
    int b = 0;
    if (!BoardArg(req, b, err)) {
        reply = Error(err);
    } else if (SvcBusy()) {
        reply = Error("the chassis is stopping or rebooting");
    } else {
        reply = (fail ? SvcFailBoard(b, err) : SvcRecoverBoard(b, err)) ? Ok() : Error(err);
    }
    return true;
}

bool BoardFail(int, const Json &req, Json &reply) { return BoardFailOrRecover(req, reply, true); }
bool BoardRecover(int, const Json &req, Json &reply) { return BoardFailOrRecover(req, reply, false); }

bool HaLink(bool cut, Json &reply)
{
    std::string err;
    reply = HaCut(cut, err) ? Ok() : Error(err);
    return true;
}

bool HaCutCmd(int, const Json &, Json &reply) { return HaLink(true, reply); }
bool HaRestoreCmd(int, const Json &, Json &reply) { return HaLink(false, reply); }

struct CtlCommand {
    const char *name;
    CtlFn fn;
};

const CtlCommand kCommands[] = {
    {"status", Status},         {"stop", Stop},          {"reboot", Reboot},
    {"board_restart", BoardRestart}, {"board_kill", BoardKill}, {"if_add", IfAddCmd},
    {"if_set", IfSetCmd},       {"if_del", IfDelCmd},    {"vrf_bind", VrfBindCmd},
    {"vrf_unbind", VrfUnbindCmd}, {"fail", Fail},         {"fail_clear", FailClear},
    {"ha_event", HaEvent},
    {"role", Role},
    {"switchover", Switchover}, {"board_fail", BoardFail}, {"board_recover", BoardRecover},
    {"ha_cut", HaCutCmd}, {"ha_restore", HaRestoreCmd},
    {"if_hangup", IfHangupCmd}, {"svcport", SvcPortCmd},
};

/* "dump_<name>": the dump of the service that declares that name. */
bool Dump(const Service &s, const Json &req, Json &reply)
{
    std::string err;
    int b = -1;
    if (s.dumpNeedsBoard && !BoardArg(req, b, err)) {
        reply = Error(err);
        return true;
    }
    Json dump = s.dumpWith != nullptr ? s.dumpWith(b, req) : s.dump(b);
    /* A dump that could not be taken says why instead of showing nothing. */
    reply = dump.contains("error") ? Error(dump.value("error", "")) : Ok(dump);
    return true;
}

/* "<service>_stop" / "<service>_start": one board, or every board. */
bool StopStart(const Service &s, bool stop, const Json &req, Json &reply)
{
    std::string err;
    int b = -1;
    if (req.contains("board") && !BoardArg(req, b, err)) {
        reply = Error(err);
        return true;
    }
    for (int x : g_opt.settings.boards) {
        if (b < 0 || x == b) {
            s.setStopped(x, stop);
            Log("board " + std::to_string(x) + ": " + s.name + (stop ? " stopped" : " started") + " on request");
        }
    }
    reply = Ok();
    return true;
}

} // namespace

namespace {

/* Every number chassisctl sends is an integer; a fraction, or one too large
 * to be read as an integer at all, arrives as a floating-point value. */
bool HasFraction(const Json &j)
{
    if (j.is_number_float()) {
        return true;
    }
    if (j.is_structured()) {
        for (const Json &v : j) {
            if (HasFraction(v)) {
                return true;
            }
        }
    }
    return false;
}

} // namespace

bool CtlHandle(int fd, const Json &req, Json &reply)
{
    if (HasFraction(req)) {
        reply = Error("numbers must be integers");
        return true;
    }
    const std::string cmd = req["cmd"].get<std::string>();
    for (const CtlCommand &c : kCommands) {
        if (cmd == c.name) {
            return c.fn(fd, req, reply);
        }
    }
    static const std::string kDump = "dump_";
    if (cmd.rfind(kDump, 0) == 0) {
        if (const Service *s = FindDump(cmd.substr(kDump.size())); s != nullptr) {
            return Dump(*s, req, reply);
        }
    }
    for (const char *verb : {"_stop", "_start"}) {
        size_t at = cmd.size() - std::min(cmd.size(), std::strlen(verb));
        if (cmd.compare(at, std::string::npos, verb) == 0) {
            if (const Service *s = FindDump(cmd.substr(0, at)); s != nullptr && s->setStopped != nullptr) {
                return StopStart(*s, std::strcmp(verb, "_stop") == 0, req, reply);
            }
        }
    }
    reply = Error("unknown command '" + cmd + "'");
    return true;
}

} // namespace chassis
