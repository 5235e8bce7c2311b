/* The typed control client: builds each command's JSON request and sorts
 * the reply into an Answer. */
#include "ctl_client.h"

#include <utility>

#include "rpc.h"

namespace tbdl::ctl {

Client::Client(std::string socketPath, int timeoutMs) : path_(std::move(socketPath)), timeoutMs_(timeoutMs) {}

Answer Client::Call(const Json &request)
{
    Answer a;
    std::string text = tbdl::rpc::CtlCall(path_, request.dump(), a.error, timeoutMs_);
    if (text.empty()) {
        a.status = Answer::Status::UNREACHABLE;
        return a;
    }
    a.reply = Json::parse(text, nullptr, false);
    if (a.reply.is_discarded()) {
        a.status = Answer::Status::UNREADABLE;
        a.error = "chassisd sent an unreadable answer";
        return a;
    }
    if (!a.reply.value("ok", false)) {
        a.status = Answer::Status::REFUSED;
        a.error = a.reply.value("error", std::string("chassisd refused the command"));
        return a;
    }
    a.status = Answer::Status::OK;
    a.error.clear();
    return a;
}

Json Client::IfRequest(const char *cmd, const IfChange &change)
{
    Json req = {{"cmd", cmd}, {"name", change.name}};
    if (!change.more.empty()) {
        Json names = {change.name};
        for (const std::string &n : change.more) {
            names.push_back(n);
        }
        req["names"] = names;
    }
    if (change.clearMode) {
        req["mode"] = nullptr;
    } else if (change.mode) {
        req["mode"] = *change.mode;
    }
    if (change.state) {
        req["state"] = *change.state;
    }
    if (change.vrf) {
        req["vrf"] = *change.vrf;
    }
    return req;
}

Answer Client::Status() { return Call({{"cmd", "status"}}); }
Answer Client::Stop() { return Call({{"cmd", "stop"}}); }
Answer Client::Reboot() { return Call({{"cmd", "reboot"}}); }
Answer Client::BoardRestart(int board) { return Call({{"cmd", "board_restart"}, {"board", board}}); }
Answer Client::BoardKill(int board) { return Call({{"cmd", "board_kill"}, {"board", board}}); }
Answer Client::IfAdd(const IfChange &change) { return Call(IfRequest("if_add", change)); }
Answer Client::IfSet(const IfChange &change) { return Call(IfRequest("if_set", change)); }
Answer Client::IfDel(const std::string &name) { return Call({{"cmd", "if_del"}, {"name", name}}); }

Answer Client::VrfBind(const std::string &name, uint32_t vrf)
{
    return Call({{"cmd", "vrf_bind"}, {"name", name}, {"vrf", vrf}});
}

Answer Client::VrfUnbind(const std::string &name) { return Call({{"cmd", "vrf_unbind"}, {"name", name}}); }

Answer Client::BoardCall(const std::string &cmd, std::optional<int> board)
{
    Json req = {{"cmd", cmd}};
    if (board) {
        req["board"] = *board;
    }
    return Call(req);
}

Answer Client::Dump(const std::string &kind, std::optional<int> board) { return BoardCall("dump_" + kind, board); }

Answer Client::DumpPs(int board, bool sends)
{
    return Call({{"cmd", "dump_ps"}, {"board", board}, {"sends", sends}});
}

Answer Client::DumpCounters(const std::string &kind, int board)
{
    return Call({{"cmd", "dump_" + kind}, {"board", board}, {"counters_only", true}});
}

Answer Client::ServiceStop(const std::string &service, std::optional<int> board)
{
    return BoardCall(service + "_stop", board);
}

Answer Client::ServiceStart(const std::string &service, std::optional<int> board)
{
    return BoardCall(service + "_start", board);
}

Answer Client::Fail(const FailSpec &spec)
{
    Json req = {{"cmd", "fail"}, {"call", spec.call}, {"board", spec.board}, {"always", spec.always},
                {"count", spec.count}, {"kind", spec.kind}, {"skip", spec.skip}};
    if (spec.result) {
        req["result"] = *spec.result;
    }
    return Call(req);
}

Answer Client::FailClear(std::optional<int> board)
{
    Json req = {{"cmd", "fail_clear"}};
    if (board) {
        req["board"] = *board;
    }
    return Call(req);
}

Answer Client::HaEvent(int board, uint32_t event)
{
    return Call({{"cmd", "ha_event"}, {"board", board}, {"event", event}});
}

Answer Client::IfHangup(int board) { return Call({{"cmd", "if_hangup"}, {"board", board}}); }

Answer Client::SvcPort(const std::string &state) { return Call({{"cmd", "svcport"}, {"state", state}}); }

Answer Client::Role() { return Call({{"cmd", "role"}}); }
/* ---- the HA pair ---- */
Answer Client::Switchover() { return Call({{"cmd", "switchover"}}); }
Answer Client::BoardFail(int board) { return Call({{"cmd", "board_fail"}, {"board", board}}); }
Answer Client::BoardRecover(int board) { return Call({{"cmd", "board_recover"}, {"board", board}}); }
Answer Client::HaLink(bool cut) { return Call({{"cmd", cut ? "ha_cut" : "ha_restore"}}); }

} // namespace tbdl::ctl
