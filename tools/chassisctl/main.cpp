/* chassisctl: starts, drives, inspects and breaks an emulated chassis.
 *
 *   chassisctl [--dir DIR] [--json] COMMAND ...
 *
 * DIR defaults to $TBDL_CHASSIS_DIR, else ./chassis. Every command prints
 * text for people or, with --json, one JSON document. An error is one line
 * on stderr ("chassisctl: ...") and a non-zero exit status.
 *
 * The commands are one table: each row names the command, sets up its
 * options, runs it (through the typed control client for what chassisd
 * does) and prints its answer as text. */
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <thread>

#include <CLI/CLI.hpp>

#include "chassis_env.h"
#include "chassisctl.h"
#include "ctl_client.h"
#include "dbm_store.h"

namespace chassisctl {

namespace {

using Clock = std::chrono::steady_clock;
using tbdl::ctl::Answer;

struct Globals {
    std::string dir;
    bool json = false;
} g;

[[noreturn]] void Die(const std::string &msg)
{
    std::fprintf(stderr, "chassisctl: %s\n", msg.c_str());
    std::exit(1);
}

std::string SocketPath() { return tbdl::plat::ChassisSocketPathOf(g.dir); }

tbdl::ctl::Client Ctl(int timeoutMs = 10000) { return tbdl::ctl::Client(SocketPath(), timeoutMs); }

/* chassisd's answer, or dies with why there is none. */
Json Expect(const Answer &a)
{
    if (a.status == Answer::Status::UNREACHABLE && access(SocketPath().c_str(), F_OK) != 0) {
        Die("chassisd is not running on " + g.dir);
    }
    if (!a) {
        Die(a.error);
    }
    return a.reply;
}

bool Running() { return Ctl(2000).Status().status != Answer::Status::UNREACHABLE; }

/* Waits until the boards are up (status 2), a board has failed at start-up,
 * or the deadline. only >= 0 limits the wait to one board. */
Json WaitBoardsUp(int timeoutS, int only = -1)
{
    auto deadline = Clock::now() + std::chrono::seconds(timeoutS);
    Json st;
    for (;;) {
        st = Expect(Ctl().Status());
        bool allUp = !st["busy"].get<bool>();
        for (const Json &b : st["boards"]) {
            if (only >= 0 && b["board"].get<int>() != only) {
                continue;
            }
            std::string state = b["state"].get<std::string>();
            if (state == "failed") {
                Die("board " + std::to_string(b["board"].get<int>()) + ": the daemon failed at start-up (" +
                    b["last_exit"].get<std::string>() + "); see " + tbdl::plat::ChassisLogPathOf(g.dir));
            }
            if (state != "up") {
                allUp = false;
            }
        }
        if (allUp) {
            return st;
        }
        if (Clock::now() >= deadline) {
            std::string which;
            for (const Json &b : st["boards"]) {
                if (b["state"] != "up" && (only < 0 || b["board"].get<int>() == only)) {
                    if (!which.empty()) {
                        which += ", ";
                    }
                    which += "board " + std::to_string(b["board"].get<int>()) + " " + b["state"].get<std::string>();
                }
            }
            Die("boards not up within " + std::to_string(timeoutS) + " s (" + which + "); see " +
                tbdl::plat::ChassisLogPathOf(g.dir));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::string ExeDir()
{
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0) {
        return ".";
    }
    std::string s(buf, static_cast<size_t>(n));
    return s.substr(0, s.rfind('/'));
}

/* chassisd of this build (<build>/platform/chassisd next to
 * <build>/tools/chassisctl), else next to chassisctl, else from PATH. */
std::string ChassisdPath()
{
    for (const std::string &p : {ExeDir() + "/../platform/chassisd", ExeDir() + "/chassisd"}) {
        if (access(p.c_str(), X_OK) == 0) {
            return p;
        }
    }
    return "chassisd";
}

bool ProcessGone(pid_t pid)
{
    if (kill(pid, 0) != 0) {
        return errno == ESRCH;
    }
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(in, line);
    auto p = line.rfind(')');
    return p != std::string::npos && p + 2 < line.size() && line[p + 2] == 'Z';
}

Json CmdStart(const std::vector<std::string> &extra, const std::string &chassisd, int timeoutS)
{
    struct stat st{};
    if (stat(g.dir.c_str(), &st) != 0) {
        if (mkdir(g.dir.c_str(), 0755) != 0) {
            Die("cannot create chassis directory " + g.dir + ": " + std::strerror(errno));
        }
    }
    if (Running()) {
        Die("chassisd is already running on " + g.dir);
    }
    std::vector<std::string> args{chassisd.empty() ? ChassisdPath() : chassisd, "--dir", g.dir};
    args.insert(args.end(), extra.begin(), extra.end());
    std::vector<char *> argv;
    for (auto &a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    /* chassisd's own error line (if any) is passed on inside ours. */
    int errPipe[2];
    if (pipe2(errPipe, O_CLOEXEC) != 0) {
        Die(std::string("pipe: ") + std::strerror(errno));
    }
    pid_t pid = fork();
    if (pid == 0) {
        dup2(errPipe[1], 2);
        execvp(argv[0], argv.data());
        std::fprintf(stderr, "chassisctl: cannot run %s: %s\n", argv[0], std::strerror(errno));
        _exit(127);
    }
    if (pid < 0) {
        Die(std::string("fork: ") + std::strerror(errno));
    }
    close(errPipe[1]);
    int ws = 0;
    while (waitpid(pid, &ws, 0) < 0 && errno == EINTR) {
    }
    fcntl(errPipe[0], F_SETFL, O_NONBLOCK);
    std::string errText;
    char buf[1024];
    ssize_t n;
    while ((n = read(errPipe[0], buf, sizeof(buf))) > 0) {
        errText.append(buf, static_cast<size_t>(n));
    }
    close(errPipe[0]);
    if (!WIFEXITED(ws) || WEXITSTATUS(ws) != 0) {
        errText = errText.substr(0, errText.find('\n'));
        if (errText.rfind("chassisd: ", 0) == 0) {
            errText.erase(0, 10);
        }
        Die("chassisd did not start on " + g.dir + (errText.empty() ? "" : ": " + errText));
    }
    return WaitBoardsUp(timeoutS);
}

Json CmdStop(int timeoutS)
{
    if (!Running()) {
        Die("chassisd is not running on " + g.dir);
    }
    Json reply = Expect(Ctl(timeoutS * 1000).Stop());
    pid_t pid = reply["chassisd_pid"].get<pid_t>();
    auto deadline = Clock::now() + std::chrono::seconds(timeoutS);
    while (!ProcessGone(pid)) {
        if (Clock::now() >= deadline) {
            Die("chassisd (pid " + std::to_string(pid) + ") did not exit within " + std::to_string(timeoutS) + " s");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return reply;
}

void CmdLog(std::optional<int> board)
{
    std::string path = board ? tbdl::plat::BoardLogPathOf(g.dir, *board) : tbdl::plat::ChassisLogPathOf(g.dir);
    std::ifstream in(path);
    if (!in) {
        Die("cannot read " + path);
    }
    std::stringstream ss;
    ss << in.rdbuf();
    if (g.json) {
        Json lines = Json::array();
        std::string line;
        while (std::getline(ss, line)) {
            lines.push_back(line);
        }
        std::cout << Json{{"path", path}, {"lines", lines}}.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
    } else {
        std::cout << ss.str();
    }
}

void CmdDb()
{
    std::string err;
    std::string out = tbdl::plat::DumpDatabase(tbdl::plat::DatabasePathOf(g.dir), g.json, err, ReadStoredRecord);
    if (!err.empty()) {
        Die(err);
    }
    std::cout << out;
    if (!out.empty() && out.back() != '\n') {
        std::cout << "\n";
    }
}

/* Every option of every command; a run reads the ones of its command. */
struct Args {
    int timeoutS = 30;
    std::string chassisd;
    CLI::App *start = nullptr; /* its extras go to chassisd */
    int board = -1;
    std::optional<int> optBoard;
    std::string ifName, state;
    std::vector<std::string> moreIfNames; /* if set: further interfaces */
    std::optional<std::string> mode;
    std::optional<uint32_t> vrf;
    uint32_t vrfIndex = 0;
    std::string call;
    int count = 1;
    bool always = false;
    std::optional<int64_t> result;
    bool crashBefore = false; /* fail --crash */
    bool crashAfter = false;  /* fail --crash-after */
    int skip = 0;             /* fail --skip */
    uint32_t event = 0;
    bool sends = false;
};

/* One command: its words ("dump if"), help, options, what it does (the
 * answer to print, or none when it printed already) and its text form. */
struct Command {
    const char *path;
    const char *help;
    void (*setup)(CLI::App &cmd, Args &a);
    std::optional<Json> (*run)(const Args &a);
    void (*text)(const Json &answer, const Args &a);
};

void Print(const Json &answer, const Args &a, void (*text)(const Json &, const Args &))
{
    if (g.json) {
        Json out = answer;
        out.erase("ok");
        std::cout << out.dump(2) << "\n";
    } else if (text != nullptr) {
        text(answer, a);
    }
}

void NoOptions(CLI::App &, Args &) {}
void TimeoutOption(CLI::App &c, Args &a) { c.add_option("--timeout", a.timeoutS, "seconds to wait"); }
void BoardOption(CLI::App &c, Args &a) { c.add_option("--board", a.board, "board")->required(); }
void BoardArg(CLI::App &c, Args &a) { c.add_option("N", a.board, "board")->required(); }
void OptBoardOption(CLI::App &c, Args &a) { c.add_option("--board", a.optBoard, "board (default: every board)"); }
void ServiceText(const Json &, const Args &) { std::cout << "done\n"; }

void StatusText(const Json &s, const Args &) { PrintStatusText(s); }

/* The interface an if/vrf command changed: its name, what was done, and
 * its record as chassisd keeps it now. */
Json Done(const Answer &answer, const std::string &name, const char *action)
{
    Json reply = Expect(answer);
    Json out = {{"interface", name}, {"action", action}};
    if (reply.contains("interface") && reply["interface"].is_array()) {
        out["interfaces"] = reply["interface"]; /* if set of several */
    } else if (reply.contains("interface") && reply["interface"].is_object()) {
        for (const auto &[key, value] : reply["interface"].items()) {
            if (key != "name") {
                out[key] = value;
            }
        }
    }
    return out;
}

tbdl::ctl::IfChange IfChangeOf(const Args &a, bool set)
{
    tbdl::ctl::IfChange c;
    c.name = a.ifName;
    c.more = a.moreIfNames;
    if (a.mode && *a.mode == "none" && set) {
        c.clearMode = true;
    } else if (a.mode) {
        try {
            size_t used = 0;
            unsigned long m = std::stoul(*a.mode, &used, 0);
            if (used != a.mode->size() || m > UINT32_MAX) {
                throw std::invalid_argument("mode");
            }
            c.mode = static_cast<uint32_t>(m);
        } catch (const std::exception &) {
            Die("--mode " + *a.mode + ": expected a number" + std::string(set ? " or none" : ""));
        }
    }
    if (!a.state.empty()) {
        c.state = a.state;
    }
    c.vrf = a.vrf;
    return c;
}

void IfOptions(CLI::App &c, Args &a)
{
    c.add_option("NAME", a.ifName, "Tunnel<N>")->required();
    c.add_option("--mode", a.mode, "tunnel mode (number; 'none' on set removes it)");
    c.add_option("--state", a.state, "up or down")->check(CLI::IsMember({"up", "down"}));
    c.add_option("--vrf", a.vrf, "VRF index");
}

/* "if set" takes several interfaces: they change at once, and their events
 * go out as one packet. */
void IfSetOptions(CLI::App &c, Args &a)
{
    IfOptions(c, a);
    c.add_option("MORE", a.moreIfNames, "further interfaces changed alike, at once");
}

void IfText(const Json &r, const Args &a)
{
    std::string names = a.ifName;
    for (const std::string &n : a.moreIfNames) {
        names += ", " + n;
    }
    std::cout << (a.moreIfNames.empty() ? "interface " : "interfaces ") << names << " "
              << r["action"].get<std::string>() << "\n";
}

void FailOptions(CLI::App &c, Args &a)
{
    c.add_option("CALL", a.call, "platform call name, or clear")->required();
    c.add_option("--board", a.optBoard, "board (default 0; all boards for clear)");
    auto *countOpt = c.add_option("--count", a.count, "fail the next K calls (default 1)");
    c.add_flag("--always", a.always, "fail every call until cleared")->excludes(countOpt);
    auto *resultOpt = c.add_option("--result", a.result, "value the call returns (default: the call's own failure)");
    /* Crashes: the daemon dies as a kill -9 would, before or after the call takes effect. */
    auto *crash = c.add_flag("--crash", a.crashBefore, "kill the daemon before the call takes effect");
    c.add_flag("--crash-after", a.crashAfter, "kill the daemon once the call took effect")
        ->excludes(crash)
        ->excludes(resultOpt);
    crash->excludes(resultOpt);
    c.add_option("--skip", a.skip, "let N calls through before the first hit (default 0)")
        ->check(CLI::NonNegativeNumber);
}

const char *FailKindArg(const Args &a)
{
    return a.crashBefore ? "crash-before" : a.crashAfter ? "crash-after" : "fail";
}

std::optional<Json> FailRun(const Args &a)
{
    if (a.call == "clear") {
        return Expect(Ctl().FailClear(a.optBoard));
    }
    if (!a.always && a.count < 1) {
        Die("--count must be at least 1");
    }
    return Expect(Ctl().Fail({a.optBoard.value_or(0), a.call, a.always, a.count, a.result, FailKindArg(a), a.skip}));
}

void FailText(const Json &, const Args &a)
{
    if (a.call == "clear") {
        std::cout << "planned failures cleared\n";
        return;
    }
    std::cout << a.call << (a.crashBefore ? " crashes the daemon (before) on board "
                            : a.crashAfter ? " crashes the daemon (after) on board "
                                           : " fails on board ")
              << a.optBoard.value_or(0) << " "
              << (a.always ? std::string("always") : std::to_string(a.count) + " time(s)")
              << (a.skip > 0 ? " after " + std::to_string(a.skip) + " call(s)" : "") << "\n";
}

const Command kCommands[] = {
    {"start", "start chassisd and wait for the boards (other options go to chassisd)",
     [](CLI::App &c, Args &a) {
         a.start = &c;
         c.allow_extras();
         c.fallthrough(false); /* what chassisctl does not know goes to chassisd */
         c.add_option("--dir", g.dir, "chassis directory");
         c.add_option("--timeout", a.timeoutS, "seconds to wait for the boards");
         c.add_option("--chassisd", a.chassisd, "chassisd program");
     },
     [](const Args &a) -> std::optional<Json> { return CmdStart(a.start->remaining(), a.chassisd, a.timeoutS); },
     [](const Json &s, const Args &) {
         std::cout << "chassis " << g.dir << " started (chassisd pid " << s["chassisd_pid"] << ")\n";
         PrintStatusText(s);
     }},
    {"stop", "stop the boards in order and chassisd", TimeoutOption,
     [](const Args &a) -> std::optional<Json> { return CmdStop(a.timeoutS); },
     [](const Json &, const Args &) { std::cout << "chassis " << g.dir << " stopped\n"; }},
    {"status", "boards, roles, pids, status, start cause, sockets", NoOptions,
     [](const Args &) -> std::optional<Json> { return Expect(Ctl().Status()); }, StatusText},
    {"reboot", "reboot the whole chassis (start cause system boot)",
     [](CLI::App &c, Args &a) { c.add_option("--timeout", a.timeoutS, "seconds to wait for the boards"); },
     [](const Args &a) -> std::optional<Json> {
         Expect(Ctl(a.timeoutS * 1000).Reboot());
         return WaitBoardsUp(a.timeoutS);
     },
     [](const Json &s, const Args &) {
         std::cout << "chassis " << g.dir << " rebooted\n";
         PrintStatusText(s);
     }},
    {"board restart", "stop and start the board's daemon (start cause restart)",
     [](CLI::App &c, Args &a) {
         BoardArg(c, a);
         c.add_option("--timeout", a.timeoutS, "seconds to wait for the board");
     },
     [](const Args &a) -> std::optional<Json> {
         Expect(Ctl(a.timeoutS * 1000).BoardRestart(a.board));
         return WaitBoardsUp(a.timeoutS, a.board);
     },
     StatusText},
    {"board kill", "kill the board's daemon with SIGKILL (chassisd restarts it)", BoardArg,
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().BoardKill(a.board)); },
     [](const Json &, const Args &) { std::cout << "board daemon killed; chassisd restarts it\n"; }},
    {"dump log", "chassisd's log, or a board's log with --board",
     [](CLI::App &c, Args &a) { c.add_option("--board", a.optBoard, "board"); },
     [](const Args &a) -> std::optional<Json> {
         CmdLog(a.optBoard);
         return std::nullopt;
     },
     nullptr},
    {"dump db", "the platform database", NoOptions,
     [](const Args &) -> std::optional<Json> {
         CmdDb();
         return std::nullopt;
     },
     nullptr},
    {"dump if", "interfaces", NoOptions,
     [](const Args &) -> std::optional<Json> { return Expect(Ctl().Dump("if")); },
     [](const Json &r, const Args &) { PrintIfText(r); }},
    {"dump vrf", "VRF bindings", NoOptions,
     [](const Args &) -> std::optional<Json> { return Expect(Ctl().Dump("vrf")); },
     [](const Json &r, const Args &) { PrintVrfText(r); }},
    {"dump ktbdl", "a board's kernel bundle table", BoardOption,
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().Dump("ktbdl", a.board)); },
     [](const Json &r, const Args &) { PrintKtbdlText(r); }},
    {"dump lsm", "a board's LSM entries", BoardOption,
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().Dump("lsm", a.board)); },
     [](const Json &r, const Args &) { PrintLsmText(r); }},
    {"dump ps", "a board's PS bundles (--sends: the bytes of its recent sends)",
     [](CLI::App &c, Args &a) {
         BoardOption(c, a);
         c.add_flag("--sends", a.sends, "show each kept send's size and bytes");
     },
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().DumpPs(a.board, a.sends)); },
     [](const Json &r, const Args &) { PrintPsText(r); }},
    {"lsm stop", "close LSM's connections on a board (or all) and refuse registrations", OptBoardOption,
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().ServiceStop("lsm", a.optBoard)); },
     ServiceText},
    {"lsm start", "accept LSM registrations again", OptBoardOption,
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().ServiceStart("lsm", a.optBoard)); },
     ServiceText},
    {"ps stop", "close PS's connections on a board (or all) and refuse registrations", OptBoardOption,
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().ServiceStop("ps", a.optBoard)); },
     ServiceText},
    {"ps start", "accept PS registrations again", OptBoardOption,
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().ServiceStart("ps", a.optBoard)); },
     ServiceText},
    {"dump ha", "HA roles, registrations, responses", NoOptions,
     [](const Args &) -> std::optional<Json> { return Expect(Ctl().Dump("ha")); },
     [](const Json &r, const Args &) { PrintHaText(r); }},
    {"dump fail", "planned failures", NoOptions,
     [](const Args &) -> std::optional<Json> { return Expect(Ctl().Dump("fail")); },
     [](const Json &r, const Args &) { PrintFailText(r); }},
    {"if add", "add Tunnel<N>", IfOptions,
     [](const Args &a) -> std::optional<Json> { return Done(Ctl().IfAdd(IfChangeOf(a, false)), a.ifName, "added"); },
     IfText},
    {"if set", "change one or more interfaces", IfSetOptions,
     [](const Args &a) -> std::optional<Json> { return Done(Ctl().IfSet(IfChangeOf(a, true)), a.ifName, "changed"); },
     IfText},
    {"if del", "delete an interface",
     [](CLI::App &c, Args &a) { c.add_option("NAME", a.ifName, "interface")->required(); },
     [](const Args &a) -> std::optional<Json> { return Done(Ctl().IfDel(a.ifName), a.ifName, "deleted"); },
     IfText},
    {"vrf bind", "bind an interface to a VRF",
     [](CLI::App &c, Args &a) {
         c.add_option("IFNAME", a.ifName, "interface")->required();
         c.add_option("VRF", a.vrfIndex, "VRF index")->required();
     },
     [](const Args &a) -> std::optional<Json> { return Done(Ctl().VrfBind(a.ifName, a.vrfIndex), a.ifName, "bound"); },
     [](const Json &, const Args &a) { std::cout << a.ifName << " bound to VRF " << a.vrfIndex << "\n"; }},
    {"vrf unbind", "unbind an interface from its VRF",
     [](CLI::App &c, Args &a) { c.add_option("IFNAME", a.ifName, "interface")->required(); },
     [](const Args &a) -> std::optional<Json> { return Done(Ctl().VrfUnbind(a.ifName), a.ifName, "unbound"); },
     [](const Json &, const Args &a) { std::cout << a.ifName << " unbound\n"; }},
    {"if hangup", "close a board's interface-event channel (its daemon subscribes again)", BoardOption,
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().IfHangup(a.board)); },
     [](const Json &, const Args &a) { std::cout << "interface-event channel of board " << a.board << " closed\n"; }},
    {"l3vpn stop", "hang up L3VPN's registrations on a board (or all) and refuse new ones", OptBoardOption,
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().ServiceStop("vrf", a.optBoard)); },
     ServiceText},
    {"l3vpn start", "accept L3VPN registrations again", OptBoardOption,
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().ServiceStart("vrf", a.optBoard)); },
     ServiceText},
    {"svcport", "the service behind port 2168: up, down or absent",
     [](CLI::App &c, Args &a) {
         c.add_option("STATE", a.state, "up, down or absent")->required()->check(CLI::IsMember({"up", "down", "absent"}));
     },
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().SvcPort(a.state)); },
     [](const Json &, const Args &a) { std::cout << "service port 2168 " << a.state << "\n"; }},
    {"dump svcport", "the service port's state and subscriptions", NoOptions,
     [](const Args &) -> std::optional<Json> { return Expect(Ctl().Dump("svcport")); },
     [](const Json &r, const Args &) { PrintSvcPortText(r); }},
    {"fail", "make a platform call fail on a board ('fail clear' clears all)", FailOptions, FailRun, FailText},
    {"ha event", "deliver HA event N to a board's daemon",
     [](CLI::App &c, Args &a) {
         c.add_option("N", a.event, "event")->required();
         BoardOption(c, a);
     },
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().HaEvent(a.board, a.event)); },
     [](const Json &, const Args &a) { std::cout << "HA event " << a.event << " sent to board " << a.board << "\n"; }},
    /* ---- the HA pair ---- */
    {"switchover", "planned switchover: the standby becomes master (refused without a joined standby)",
     TimeoutOption,
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl(a.timeoutS * 1000).Switchover()); },
     [](const Json &r, const Args &) { PrintStepsText("switchover", r["steps"]); }},
    {"board fail", "fail a board: its daemon is killed and not restarted, its state lost", BoardArg,
     [](const Args &a) -> std::optional<Json> { return Expect(Ctl().BoardFail(a.board)); },
     [](const Json &, const Args &a) { std::cout << "board " << a.board << " failed\n"; }},
    {"board recover", "boot a failed board again (start cause system boot) and wait for it",
     [](CLI::App &c, Args &a) {
         BoardArg(c, a);
         c.add_option("--timeout", a.timeoutS, "seconds to wait for the board");
     },
     [](const Args &a) -> std::optional<Json> {
         Expect(Ctl().BoardRecover(a.board));
         return WaitBoardsUp(a.timeoutS, a.board);
     },
     StatusText},
    {"ha cut", "cut the HA link: relayed messages are dropped, the master sees no standby", NoOptions,
     [](const Args &) -> std::optional<Json> { return Expect(Ctl().HaLink(true)); },
     [](const Json &, const Args &) { std::cout << "HA link cut\n"; }},
    {"ha restore", "restore the HA link: the standby rejoins and gets a batch backup", NoOptions,
     [](const Args &) -> std::optional<Json> { return Expect(Ctl().HaLink(false)); },
     [](const Json &, const Args &) { std::cout << "HA link restored\n"; }},
};

/* Commands of two words hang under a group that needs one of them. */
struct Group {
    const char *name;
    const char *help;
};
const Group kGroups[] = {
    {"board", "one board's daemon"}, {"dump", "show a service's state"}, {"if", "tunnel interfaces"},
    {"vrf", "L3VPN bindings"},       {"ha", "HA service"},
    {"lsm", "LSM service"},          {"ps", "PS service"},
    {"l3vpn", "L3VPN service"},
};

CLI::App *GroupOf(CLI::App &app, const std::string &name)
{
    static std::map<std::string, CLI::App *> made;
    if (auto it = made.find(name); it != made.end()) {
        return it->second;
    }
    for (const Group &gr : kGroups) {
        if (name == gr.name) {
            CLI::App *sub = app.add_subcommand(gr.name, gr.help);
            sub->require_subcommand(1);
            made[name] = sub;
            return sub;
        }
    }
    Die("no command group " + name);
}

/* Adds a command's subcommand under its group; returns it. */
CLI::App *AddCommand(CLI::App &app, const Command &cmd, Args &a)
{
    std::string path = cmd.path;
    auto space = path.find(' ');
    CLI::App *parent = space == std::string::npos ? &app : GroupOf(app, path.substr(0, space));
    CLI::App *sub = parent->add_subcommand(space == std::string::npos ? path : path.substr(space + 1), cmd.help);
    cmd.setup(*sub, a);
    return sub;
}

} // namespace

int Main(int argc, char **argv)
{
    CLI::App app{"chassisctl: start, drive, inspect and break an emulated chassis"};
    app.allow_extras(); /* reported below as one line */
    app.fallthrough(); /* global options may follow the command */
    const char *envDir = std::getenv(tbdl::plat::kEnvChassisDir);
    g.dir = envDir != nullptr && *envDir != '\0' ? envDir : "./chassis";
    app.add_option("--dir", g.dir, "chassis directory (default $TBDL_CHASSIS_DIR or ./chassis)");
    app.add_flag("--json", g.json, "print JSON");

    Args args;
    std::vector<CLI::App *> subs;
    for (const Command &cmd : kCommands) {
        subs.push_back(AddCommand(app, cmd, args));
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        std::fprintf(stderr, "chassisctl: %s\n", e.what());
        return 2;
    }

    if (!app.remaining().empty()) {
        Die("unknown command or argument '" + app.remaining().front() + "' (see --help)");
    }
    if (app.get_subcommands().empty()) {
        Die("a command is needed (see --help)");
    }
    for (size_t i = 0; i < subs.size(); ++i) {
        if (subs[i]->parsed()) {
            if (std::optional<Json> answer = kCommands[i].run(args)) {
                Print(*answer, args, kCommands[i].text);
            }
            break;
        }
    }
    return 0;
}

} // namespace chassisctl

int main(int argc, char **argv) { return chassisctl::Main(argc, argv); }
