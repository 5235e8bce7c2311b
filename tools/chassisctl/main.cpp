/* chassisctl: starts, drives, inspects and breaks an emulated chassis.
 *
 *   chassisctl [--dir DIR] [--json] COMMAND ...
 *
 * DIR defaults to $TBDL_CHASSIS_DIR, else ./chassis. Every command prints
 * text for people or, with --json, one JSON document. An error is one line
 * on stderr ("chassisctl: ...") and a non-zero exit status. */
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
#include <sstream>
#include <thread>

#include <CLI/CLI.hpp>

#include "chassis_env.h"
#include "chassisctl.h"
#include "dbm_store.h"
#include "rpc.h"

namespace chassisctl {

namespace {

using Clock = std::chrono::steady_clock;

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

/* One command to chassisd; dies with its error unless allowFail. */
Json Request(const Json &req, int timeoutMs = 10000, bool allowFail = false)
{
    std::string err;
    std::string text = tbdl::rpc::CtlCall(SocketPath(), req.dump(), err, timeoutMs);
    if (text.empty()) {
        if (allowFail) {
            return {{"ok", false}, {"error", err}};
        }
        if (access(SocketPath().c_str(), F_OK) != 0) {
            Die("chassisd is not running on " + g.dir);
        }
        Die(err);
    }
    Json reply = Json::parse(text, nullptr, false);
    if (reply.is_discarded()) {
        Die("chassisd sent an unreadable answer");
    }
    if (!reply.value("ok", false) && !allowFail) {
        Die(reply.value("error", std::string("chassisd refused the command")));
    }
    return reply;
}

bool Running()
{
    std::string err;
    return !tbdl::rpc::CtlCall(SocketPath(), R"({"cmd":"status"})", err, 2000).empty();
}

void Print(const Json &reply, const std::function<void(const Json &)> &text)
{
    if (g.json) {
        Json out = reply;
        out.erase("ok");
        std::cout << out.dump(2) << "\n";
    } else {
        text(reply);
    }
}

/* Waits until the boards are up (status 2), a board has failed at start-up,
 * or the deadline. only >= 0 limits the wait to one board. */
Json WaitBoardsUp(int timeoutS, int only = -1)
{
    auto deadline = Clock::now() + std::chrono::seconds(timeoutS);
    Json st;
    for (;;) {
        st = Request({{"cmd", "status"}});
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
                    which += (which.empty() ? "" : ", ") + std::string("board ") + std::to_string(b["board"].get<int>()) +
                             " " + b["state"].get<std::string>();
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

void CmdStart(const std::vector<std::string> &extra, const std::string &chassisd, int timeoutS)
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
    Json status = WaitBoardsUp(timeoutS);
    Print(status, [](const Json &s) {
        std::cout << "chassis " << g.dir << " started (chassisd pid " << s["chassisd_pid"] << ")\n";
        PrintStatusText(s);
    });
}

void CmdStop(int timeoutS)
{
    if (!Running()) {
        Die("chassisd is not running on " + g.dir);
    }
    Json reply = Request({{"cmd", "stop"}}, timeoutS * 1000);
    pid_t pid = reply["chassisd_pid"].get<pid_t>();
    auto deadline = Clock::now() + std::chrono::seconds(timeoutS);
    while (!ProcessGone(pid)) {
        if (Clock::now() >= deadline) {
            Die("chassisd (pid " + std::to_string(pid) + ") did not exit within " + std::to_string(timeoutS) + " s");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    Print(reply, [](const Json &) { std::cout << "chassis " << g.dir << " stopped\n"; });
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
    std::string out = tbdl::plat::DumpDatabase(tbdl::plat::DatabasePathOf(g.dir), g.json, err);
    if (!err.empty()) {
        Die(err);
    }
    std::cout << out;
    if (!out.empty() && out.back() != '\n') {
        std::cout << "\n";
    }
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

    int timeoutS = 30;
    std::string chassisd;
    auto *start = app.add_subcommand("start", "start chassisd and wait for the boards (other options go to chassisd)");
    start->allow_extras();
    start->fallthrough(false); /* what chassisctl does not know goes to chassisd */
    start->add_option("--dir", g.dir, "chassis directory");
    start->add_option("--timeout", timeoutS, "seconds to wait for the boards");
    start->add_option("--chassisd", chassisd, "chassisd program");

    auto *stop = app.add_subcommand("stop", "stop the boards in order and chassisd");
    stop->add_option("--timeout", timeoutS, "seconds to wait");
    auto *status = app.add_subcommand("status", "boards, roles, pids, status, start cause, sockets");
    auto *reboot = app.add_subcommand("reboot", "reboot the whole chassis (start cause system boot)");
    reboot->add_option("--timeout", timeoutS, "seconds to wait for the boards");

    int board = -1;
    auto *boardCmd = app.add_subcommand("board", "one board's daemon");
    boardCmd->require_subcommand(1);
    auto *bRestart = boardCmd->add_subcommand("restart", "stop and start the board's daemon (start cause restart)");
    bRestart->add_option("N", board, "board")->required();
    bRestart->add_option("--timeout", timeoutS, "seconds to wait for the board");
    auto *bKill = boardCmd->add_subcommand("kill", "kill the board's daemon with SIGKILL (chassisd restarts it)");
    bKill->add_option("N", board, "board")->required();

    std::optional<int> optBoard;
    auto *dump = app.add_subcommand("dump", "show a service's state");
    dump->require_subcommand(1);
    auto *dLog = dump->add_subcommand("log", "chassisd's log, or a board's log with --board");
    dLog->add_option("--board", optBoard, "board");
    auto *dDb = dump->add_subcommand("db", "the platform database");
    auto *dIf = dump->add_subcommand("if", "interfaces");
    auto *dVrf = dump->add_subcommand("vrf", "VRF bindings");
    auto *dKtbdl = dump->add_subcommand("ktbdl", "a board's kernel bundle table");
    dKtbdl->add_option("--board", board, "board")->required();
    auto *dLsm = dump->add_subcommand("lsm", "a board's LSM entries");
    dLsm->add_option("--board", board, "board")->required();
    auto *dHa = dump->add_subcommand("ha", "HA roles, registrations, responses");
    auto *dFail = dump->add_subcommand("fail", "planned failures");

    std::string ifName, state;
    std::optional<std::string> mode;
    std::optional<uint32_t> vrf;
    auto *ifCmd = app.add_subcommand("if", "tunnel interfaces");
    ifCmd->require_subcommand(1);
    auto *ifAdd = ifCmd->add_subcommand("add", "add Tunnel<N>");
    auto *ifSet = ifCmd->add_subcommand("set", "change an interface");
    auto *ifDel = ifCmd->add_subcommand("del", "delete an interface");
    for (auto *c : {ifAdd, ifSet}) {
        c->add_option("NAME", ifName, "Tunnel<N>")->required();
        c->add_option("--mode", mode, "tunnel mode (number; 'none' on set removes it)");
        c->add_option("--state", state, "up or down")->check(CLI::IsMember({"up", "down"}));
        c->add_option("--vrf", vrf, "VRF index");
    }
    ifDel->add_option("NAME", ifName, "interface")->required();

    uint32_t vrfIndex = 0;
    auto *vrfCmd = app.add_subcommand("vrf", "L3VPN bindings");
    vrfCmd->require_subcommand(1);
    auto *vBind = vrfCmd->add_subcommand("bind", "bind an interface to a VRF");
    vBind->add_option("IFNAME", ifName, "interface")->required();
    vBind->add_option("VRF", vrfIndex, "VRF index")->required();
    auto *vUnbind = vrfCmd->add_subcommand("unbind", "unbind an interface from its VRF");
    vUnbind->add_option("IFNAME", ifName, "interface")->required();

    std::string call;
    int count = 1;
    bool always = false;
    std::optional<int64_t> result;
    auto *fail = app.add_subcommand("fail", "make a platform call fail on a board ('fail clear' clears all)");
    fail->add_option("CALL", call, "platform call name, or clear")->required();
    fail->add_option("--board", optBoard, "board (default 0; all boards for clear)");
    auto *countOpt = fail->add_option("--count", count, "fail the next K calls (default 1)");
    fail->add_flag("--always", always, "fail every call until cleared")->excludes(countOpt);
    fail->add_option("--result", result, "value the call returns (default: the call's own failure)");

    uint32_t event = 0;
    auto *ha = app.add_subcommand("ha", "HA service");
    ha->require_subcommand(1);
    auto *haEvent = ha->add_subcommand("event", "deliver HA event N (0-3) to a board's daemon");
    haEvent->add_option("N", event, "event")->required();
    haEvent->add_option("--board", board, "board")->required();

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
    if (*start) {
        CmdStart(start->remaining(), chassisd, timeoutS);
    } else if (*stop) {
        CmdStop(timeoutS);
    } else if (*status) {
        Print(Request({{"cmd", "status"}}), PrintStatusText);
    } else if (*reboot) {
        Request({{"cmd", "reboot"}}, timeoutS * 1000);
        Json st = WaitBoardsUp(timeoutS);
        Print(st, [](const Json &s) {
            std::cout << "chassis " << g.dir << " rebooted\n";
            PrintStatusText(s);
        });
    } else if (*bRestart) {
        Request({{"cmd", "board_restart"}, {"board", board}}, timeoutS * 1000);
        Json st = WaitBoardsUp(timeoutS, board);
        Print(st, PrintStatusText);
    } else if (*bKill) {
        Json r = Request({{"cmd", "board_kill"}, {"board", board}});
        Print(r, [](const Json &) { std::cout << "board daemon killed; chassisd restarts it\n"; });
    } else if (*dLog) {
        CmdLog(optBoard);
    } else if (*dDb) {
        CmdDb();
    } else if (*dIf) {
        Print(Request({{"cmd", "dump_if"}}), PrintIfText);
    } else if (*dVrf) {
        Print(Request({{"cmd", "dump_vrf"}}), PrintVrfText);
    } else if (*dKtbdl) {
        Print(Request({{"cmd", "dump_ktbdl"}, {"board", board}}), PrintKtbdlText);
    } else if (*dLsm) {
        Print(Request({{"cmd", "dump_lsm"}, {"board", board}}), PrintLsmText);
    } else if (*dHa) {
        Print(Request({{"cmd", "dump_ha"}}), PrintHaText);
    } else if (*dFail) {
        Print(Request({{"cmd", "dump_fail"}}), PrintFailText);
    } else if (*ifAdd || *ifSet) {
        Json req = {{"cmd", *ifAdd ? "if_add" : "if_set"}, {"name", ifName}};
        if (mode) {
            if (*mode == "none" && *ifSet) {
                req["mode"] = nullptr;
            } else {
                try {
                    size_t used = 0;
                    unsigned long m = std::stoul(*mode, &used, 0);
                    if (used != mode->size() || m > UINT32_MAX) {
                        throw std::invalid_argument("mode");
                    }
                    req["mode"] = static_cast<uint32_t>(m);
                } catch (const std::exception &) {
                    Die("--mode " + *mode + ": expected a number" + std::string(*ifSet ? " or none" : ""));
                }
            }
        }
        if (!state.empty()) req["state"] = state;
        if (vrf) req["vrf"] = *vrf;
        Print(Request(req), [&](const Json &) { std::cout << "interface " << ifName << (*ifAdd ? " added\n" : " changed\n"); });
    } else if (*ifDel) {
        Print(Request({{"cmd", "if_del"}, {"name", ifName}}), [&](const Json &) { std::cout << "interface " << ifName << " deleted\n"; });
    } else if (*vBind) {
        Print(Request({{"cmd", "vrf_bind"}, {"name", ifName}, {"vrf", vrfIndex}}),
              [&](const Json &) { std::cout << ifName << " bound to VRF " << vrfIndex << "\n"; });
    } else if (*vUnbind) {
        Print(Request({{"cmd", "vrf_unbind"}, {"name", ifName}}), [&](const Json &) { std::cout << ifName << " unbound\n"; });
    } else if (*fail) {
        if (call == "clear") {
            Json req = {{"cmd", "fail_clear"}};
            if (optBoard) req["board"] = *optBoard;
            Print(Request(req), [](const Json &) { std::cout << "planned failures cleared\n"; });
        } else {
            if (!always && count < 1) {
                Die("--count must be at least 1");
            }
            Json req = {{"cmd", "fail"}, {"call", call}, {"board", optBoard.value_or(0)}, {"always", always}, {"count", count}};
            if (result) req["result"] = *result;
            Print(Request(req), [&](const Json &) {
                std::cout << call << " fails on board " << optBoard.value_or(0) << " "
                          << (always ? std::string("always") : std::to_string(count) + " time(s)") << "\n";
            });
        }
    } else if (*haEvent) {
        Print(Request({{"cmd", "ha_event"}, {"board", board}, {"event", event}}),
              [&](const Json &) { std::cout << "HA event " << event << " sent to board " << board << "\n"; });
    }
    return 0;
}

} // namespace chassisctl

int main(int argc, char **argv) { return chassisctl::Main(argc, argv); }
