/* chassisctl commands: JSON request {"cmd":...} in, JSON reply out.
 * Commands that take time (stop, reboot, board restart) answer once their
 * stop phase is over; chassisctl then waits for the boards itself. */
#include <unistd.h>

#include "chassis_env.h"
#include "chassisd.h"

namespace chassis {

namespace {

Json Ok(Json data = Json::object())
{
    data["ok"] = true;
    return data;
}

Json Error(const std::string &msg) { return {{"ok", false}, {"error", msg}}; }

bool BoardArg(const Json &req, int &b, std::string &err)
{
    if (!req.contains("board") || !req["board"].is_number_integer()) {
        err = "a board number is needed";
        return false;
    }
    b = req["board"].get<int>();
    if (b < 0 || b >= tbdl::plat::kMaxBoards || !g_boards[b].present) {
        err = "board " + std::to_string(b) + " is not part of this chassis";
        return false;
    }
    return true;
}

Json FailDump()
{
    Json boards = Json::array();
    for (const Board &bd : g_boards) {
        if (!bd.present || bd.failPlan == nullptr) {
            continue;
        }
        Json calls = Json::array();
        for (const auto &s : bd.failPlan->astSlot) {
            if (s.acName[0] == '\0') {
                continue;
            }
            Json j = {{"call", std::string(s.acName)}, {"left", s.iLeft.load()}, {"hits", s.uiHits.load()}};
            j["result"] = s.uiHasResult ? Json(s.lResult) : Json(nullptr);
            calls.push_back(j);
        }
        boards.push_back({{"board", bd.num}, {"calls", calls}});
    }
    return boards;
}

} // namespace

bool CtlHandle(int fd, const Json &req, Json &reply)
{
    const std::string cmd = req["cmd"].get<std::string>();
    std::string err;
    int b = 0;

    if (cmd == "status") {
        reply = Ok({{"chassisd_pid", getpid()},
                    {"dir", g_opt.dir},
                    {"socket", tbdl::plat::ChassisSocketPathOf(g_opt.dir)},
                    {"daemon", g_opt.daemonPath},
                    {"journal", g_opt.journal},
                    {"master_board", HaMaster()},
                    {"busy", SvcBusy()},
                    {"settings", Json::parse(tbdl::plat::SettingsToJson(g_opt.settings))},
                    {"boards", SvcStatusJson()}});
        return true;
    }
    if (cmd == "stop" || cmd == "reboot") {
        if (SvcBusy()) {
            reply = Error("the chassis is already stopping or rebooting");
            return true;
        }
        SvcSetBusy(true);
        bool reboot = cmd == "reboot";
        Log(reboot ? "rebooting the chassis on request" : "stopping the chassis on request");
        SvcStop(SvcStopOrder(), [fd, reboot] {
            if (reboot) {
                for (int x : g_opt.settings.boards) {
                    KtbdlClear(x);
                    LsmClear(x);
                }
                SvcStartAll(0);
                SvcSetBusy(false);
            }
            if (FindConn(fd) != nullptr) {
                ReplyCtl(fd, Ok({{"chassisd_pid", getpid()}}));
            }
            if (!reboot) {
                ExitLoop(0);
            }
        });
        return false;
    }
    if (cmd == "board_restart") {
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
            SvcStartBoard(b, 1);
            if (FindConn(fd) != nullptr) {
                ReplyCtl(fd, Ok());
            }
        });
        return false;
    }
    if (cmd == "board_kill") {
        reply = BoardArg(req, b, err) && SvcKill(b, err) ? Ok() : Error(err);
        return true;
    }
    if (cmd == "dump_if") {
        reply = Ok({{"interfaces", IfDumpJson()}});
        return true;
    }
    if (cmd == "dump_vrf") {
        reply = Ok({{"bindings", VrfDumpJson()}});
        return true;
    }
    if (cmd == "dump_ktbdl" || cmd == "dump_lsm") {
        if (!BoardArg(req, b, err)) {
            reply = Error(err);
        } else {
            reply = Ok(cmd == "dump_ktbdl" ? KtbdlDumpJson(b) : LsmDumpJson(b));
        }
        return true;
    }
    if (cmd == "dump_ha") {
        reply = Ok(HaDumpJson());
        return true;
    }
    if (cmd == "dump_fail") {
        reply = Ok({{"boards", FailDump()}});
        return true;
    }
    if (cmd == "if_add" || cmd == "if_set") {
        bool ok = cmd == "if_add" ? IfAdd(req, err) : IfSet(req, err);
        reply = ok ? Ok() : Error(err);
        return true;
    }
    if (cmd == "if_del") {
        reply = IfDel(req.at("name").get<std::string>(), err) ? Ok() : Error(err);
        return true;
    }
    if (cmd == "vrf_bind" || cmd == "vrf_unbind") {
        uint32_t vrf = cmd == "vrf_bind" ? req.at("vrf").get<uint32_t>() : 0;
        if (cmd == "vrf_bind" && vrf == 0) {
            reply = Error("VRF index 0 means no VRF; use vrf unbind");
            return true;
        }
        reply = VrfBind(req.at("name").get<std::string>(), vrf, err) ? Ok() : Error(err);
        return true;
    }
    if (cmd == "fail") {
        if (!BoardArg(req, b, err)) {
            reply = Error(err);
            return true;
        }
        std::string call = req.at("call").get<std::string>();
        int32_t count = req.value("always", false) ? -1 : req.value("count", 1);
        if (count == 0 || count < -1) {
            reply = Error("the count must be at least 1");
            return true;
        }
        bool hasResult = req.contains("result") && !req["result"].is_null();
        int64_t result = hasResult ? req["result"].get<int64_t>() : 0;
        if (!tbdl::rpc::FailPlanSet(g_boards[b].failPlan, call, count, hasResult, result)) {
            reply = Error("cannot plan a failure of '" + call + "' (name too long or plan full)");
            return true;
        }
        Log("board " + std::to_string(b) + ": platform call " + call + " fails " +
            (count < 0 ? "always" : std::to_string(count) + " time(s)"));
        reply = Ok();
        return true;
    }
    if (cmd == "fail_clear") {
        for (Board &bd : g_boards) {
            if (bd.present && (!req.contains("board") || req["board"].get<int>() == bd.num)) {
                tbdl::rpc::FailPlanClear(bd.failPlan);
            }
        }
        Log("planned failures cleared");
        reply = Ok();
        return true;
    }
    if (cmd == "ha_event") {
        uint32_t ev = req.at("event").get<uint32_t>();
        reply = BoardArg(req, b, err) && HaInjectEvent(b, ev, err) ? Ok() : Error(err);
        return true;
    }
    reply = Error("unknown command '" + cmd + "'");
    return true;
}

} // namespace chassis
