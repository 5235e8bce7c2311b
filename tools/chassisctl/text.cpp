/* chassisctl's text output: aligned tables of the JSON answers. */
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "chassisctl.h"

namespace chassisctl {

namespace {

/* A table printed with each column as wide as its widest cell. */
class Table {
public:
    explicit Table(std::vector<std::string> head) { rows_.push_back(std::move(head)); }
    void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    void Print() const
    {
        std::vector<size_t> w(rows_[0].size(), 0);
        for (const auto &r : rows_) {
            for (size_t i = 0; i < r.size() && i < w.size(); ++i) {
                w[i] = std::max(w[i], r[i].size());
            }
        }
        for (const auto &r : rows_) {
            std::string line;
            for (size_t i = 0; i < r.size(); ++i) {
                line += r[i];
                if (i + 1 < r.size()) {
                    line += std::string(w[i] - r[i].size() + 2, ' ');
                }
            }
            std::cout << line << "\n";
        }
    }

private:
    std::vector<std::vector<std::string>> rows_;
};

std::string S(const Json &j)
{
    if (j.is_null()) {
        return "-";
    }
    if (j.is_string()) {
        std::string s = j.get<std::string>();
        return s.empty() ? "-" : s;
    }
    return j.dump();
}

std::string Hex(const Json &j)
{
    char buf[16];
    std::snprintf(buf, sizeof(buf), "0x%x", j.get<uint32_t>());
    return buf;
}

} // namespace

void PrintStatusText(const Json &s)
{
    std::cout << "chassis " << S(s["dir"]) << ": chassisd pid " << S(s["chassisd_pid"]) << ", master board "
              << S(s["master_board"]) << (s.value("journal", false) ? ", journal on" : "");
    for (const Json &b : s.value("no_ps_lib", Json::array())) {
        std::cout << ", board " << S(b) << " without the PS library";
    }
    std::cout << "\n";
    Table t({"BOARD", "ROLE", "STATE", "PID", "STATUS", "START CAUSE", "RESTARTS", "CFG SOCKET"});
    for (const Json &b : s["boards"]) {
        t.Add({S(b["board"]), S(b["role"]), S(b["state"]), b["pid"].get<int>() > 0 ? S(b["pid"]) : "-",
               S(b["status"]), S(b["start_cause_name"]), S(b["restarts"]), S(b["cfg_socket"])});
    }
    t.Print();
    for (const Json &b : s["boards"]) {
        if (!b["last_exit"].get<std::string>().empty()) {
            std::cout << "board " << S(b["board"]) << " last exit: " << S(b["last_exit"]) << "\n";
        }
    }
}

void PrintIfText(const Json &r)
{
    Table t({"IFINDEX", "NAME", "TYPE", "NUMBER", "MODE", "STATE", "VRF"});
    for (const Json &i : r["interfaces"]) {
        t.Add({Hex(i["ifindex"]), S(i["name"]), S(i["type"]), S(i["number"]), S(i["mode"]),
               i.value("deleting", false) ? "deleting" : S(i["state"]), S(i["vrf"])});
    }
    t.Print();
    std::cout << "\ninterface events\n";
    Table e({"BOARD", "SUBSCRIPTIONS (HANDLE/MASK/TYPE)", "PACKETS", "ENTRIES", "ACKS", "ACKED", "HANGUPS"});
    for (const Json &b : r["events"]) {
        std::string subs;
        for (const Json &s : b["subscriptions"]) {
            subs += (subs.empty() ? "" : " ") + S(s["handle"]) + "/" + Hex(s["mask"]) + "/" + S(s["type"]);
        }
        e.Add({S(b["board"]), subs.empty() ? "-" : subs, S(b["packets_sent"]), S(b["entries_sent"]), S(b["acks"]),
               S(b["entries_acked"]), S(b["hangups"])});
    }
    e.Print();
}

void PrintVrfText(const Json &r)
{
    Table t({"NAME", "IFINDEX", "VRF"});
    for (const Json &i : r["bindings"]) {
        t.Add({S(i["name"]), Hex(i["ifindex"]), S(i["vrf"])});
    }
    t.Print();
    std::cout << "\nL3VPN registrations\n";
    Table g({"BOARD", "NAME", "MASK", "EVENTS SENT", "BATCHES", "ACKS"});
    for (const Json &x : r["registrations"]) {
        g.Add({S(x["board"]), S(x["name"]), Hex(x["mask"]), S(x["events_sent"]), S(x["batches"]), S(x["acks"])});
    }
    g.Print();
    for (const Json &x : r["service"]) {
        std::cout << "board " << S(x["board"]) << ": L3VPN " << (x["stopped"].get<bool>() ? "stopped" : "running")
                  << ", " << S(x["refused"]) << " registrations refused\n";
    }
}

void PrintSvcPortText(const Json &r)
{
    std::cout << "service port " << S(r["port"]) << ": " << S(r["state"]) << "\n";
    Table t({"BOARD", "SUBSCRIPTIONS", "EVENTS SENT", "REFUSED"});
    for (const Json &b : r["boards"]) {
        t.Add({S(b["board"]), S(b["subscriptions"]), S(b["events_sent"]), S(b["refused"])});
    }
    t.Print();
}

void PrintKtbdlText(const Json &r)
{
    const Json &c = r["commands"];
    std::cout << "board " << S(r["board"]) << " kernel bundle table: " << S(c["bundle_update"]) << " bundle updates, "
              << S(c["member_add"]) << " member adds, " << S(c["member_delete"]) << " member deletes, "
              << S(c["refused"]) << " refused\n";
    Table t({"IFINDEX", "NAME", "STATE", "TNL MODE", "VRF", "ADDRESS", "MEMBERS"});
    for (const Json &b : r["bundles"]) {
        std::string members;
        const Json names = b.value("member_names", Json::array());
        for (size_t i = 0; i < b["members"].size(); ++i) {
            if (!members.empty()) {
                members += ',';
            }
            members += Hex(b["members"][i]);
            if (i < names.size() && !names[i].get<std::string>().empty()) {
                members += ' ' + names[i].get<std::string>();
            }
        }
        bool up = b.value("updated", false);
        t.Add({Hex(b["ifindex"]), S(b["name"]), up ? S(b["state"]) : "-", up ? S(b["tnl_mode"]) : "-",
               up ? S(b["vrf"]) : "-", up ? S(b["address"]) : "-", members.empty() ? "-" : members});
    }
    t.Print();
}

/* "Tunnel20 0x101 w1": a path half's member, interface index and weight. */
static std::string LsmHalf(const Json &h)
{
    return S(h["name"]) + " " + Hex(h["ifindex"]) + " w" + S(h["weight"]);
}

void PrintLsmText(const Json &r)
{
    std::cout << "board " << S(r["board"]) << " LSM" << (r.value("stopped", false) ? " (stopped)" : "") << ": "
              << S(r["adds"]) << " adds, " << S(r["deletes"]) << " deletes, " << S(r["flushes"]) << " flushes, "
              << S(r["cycles"]) << " GR cycles (the last " << S(r["last_cycle_us"]) << " us), " << S(r["dropped"])
              << " entries dropped at their ends\n";
    Table t({"BUNDLE", "IFINDEX", "PROTOCOL", "MODE", "ADDRESS", "VRF", "PATHS", "PATH 0 FLAGS", "PRIMARY", "BACKUP"});
    for (const Json &e : r["entries"]) {
        std::string primary, flags = S(e["flags"]);
        for (const Json &p : e["paths"]) {
            primary += (primary.empty() ? "" : ", ") + LsmHalf(p);
        }
        for (const Json &f : e["flag_names"]) {
            flags += " " + S(f);
        }
        t.Add({e["bundle"].is_null() ? S(e["name"]) : S(e["bundle"]), Hex(e["ifindex"]), S(e["protocol"]),
               S(e["mode_code"]) + " (" + S(e["mode"]) + ")", S(e["address"]), S(e["vrf"]), S(e["path_count"]), flags,
               primary.empty() ? "-" : primary, e.contains("backup") ? LsmHalf(e["backup"]) : "-"});
    }
    t.Print();
}

void PrintPsText(const Json &r)
{
    std::cout << "board " << S(r["board"]) << " PS" << (r["stopped"].get<bool>() ? " (stopped)" : "") << ": "
              << S(r["updates"]) << " updates, " << S(r["deletes"]) << " deletes, " << S(r["cycles"])
              << " smoothing cycles, " << S(r["dropped"]) << " dropped at their ends, " << S(r["malformed"])
              << " malformed of " << S(r["received"]) << " sends received\n";
    Table t({"BUNDLE", "KIND", "WORKING", "UP", "PROTECTION", "UP"});
    auto member = [](const Json &m) { return Hex(m["ifindex"]) + " " + S(m["name"]); };
    auto up = [](const Json &m) { return m["up"].get<bool>() ? "yes" : "no"; };
    for (const Json &b : r["bundles"]) {
        t.Add({S(b["bundle"]), S(b["protection_kind"]), member(b["working"]), up(b["working"]),
               member(b["protection"]), up(b["protection"])});
    }
    t.Print();
    if (r.contains("sends")) {
        std::cout << "kept sends:\n";
        for (const Json &x : r["sends"]) {
            std::cout << "  " << S(x["size"]) << " bytes: " << S(x["bytes"]) << "\n";
        }
    }
}

void PrintHaText(const Json &r)
{
    std::cout << "master board " << S(r["master"]) << ", MTU " << S(r["mtu"]) << ", messages relayed "
              << S(r["messages_relayed"]) << ", dropped " << S(r["messages_dropped"]) << ", batch sends "
              << S(r["batch_sends"]) << ", events sent " << S(r["events_sent"]) << ", link " << S(r["link"]) << "\n";
    Table t({"BOARD", "ROLE", "JOINED", "STANDBY PRESENT"});
    for (const Json &b : r["boards"]) {
        t.Add({S(b["board"]), S(b["role"]), b["joined"].get<bool>() ? "yes" : "no", b["standby_present"].get<bool>() ? "yes" : "no"});
    }
    t.Print();
    for (const char *what : {"switchover", "failover"}) {
        if (r.contains(what) && r[what].is_object()) {
            PrintStepsText(std::string("last ") + what + " (board " + S(r[what]["from"]) + " to board " +
                               S(r[what]["to"]) + ")",
                           r[what]["steps"]);
        }
    }
    if (!r["responses"].empty()) {
        std::cout << "responses:\n";
        for (const Json &x : r["responses"]) {
            std::cout << "  " << S(x["time"]) << " board " << S(x["board"]) << " event " << S(x["event"])
                      << (x["data"].is_null() ? "" : " data " + S(x["data"])) << "\n";
        }
    }
}

void PrintStepsText(const std::string &what, const Json &steps)
{
    std::cout << what << ":\n";
    for (const Json &x : steps) {
        char ms[32];
        std::snprintf(ms, sizeof(ms), "%9.1f ms", x["ms"].get<double>());
        std::cout << "  " << S(x["time"]) << " " << ms << "  " << S(x["step"]) << "\n";
    }
}

void PrintFailText(const Json &r)
{
    Table t({"BOARD", "CALL", "KIND", "SKIP", "LEFT", "HITS", "RESULT"});
    for (const Json &b : r["boards"]) {
        for (const Json &c : b["calls"]) {
            int left = c["left"].get<int>();
            t.Add({S(b["board"]), S(c["call"]), c.value("kind", "fail"), std::to_string(c.value("skip", 0)), left < 0 ? "always" : std::to_string(left),
                   S(c["hits"]), S(c["result"])});
        }
    }
    t.Print();
}

} // namespace chassisctl
