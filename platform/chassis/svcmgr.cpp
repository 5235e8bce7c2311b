/* Service manager: starts each running board's daemon with its chassis
 * environment, records the status it reports, restarts a daemon that died,
 * and stops boards in order.
 *
 * Restart policy:
 *  - a daemon that dies after it reported status 2 (up) is started again at
 *    once with start cause 1 (process restart);
 *  - a daemon that dies before reporting status 2 (for example exit status
 *    255: its start-up failed) is a start-up failure. It is started again
 *    after a back-off of 250 ms, 500 ms, 1 s; after the fourth failure in a
 *    row the board is left FAILED (logged) until `chassisctl board restart`
 *    or a chassis reboot, so a daemon that cannot start never loops;
 *  - a daemon chassisd stopped itself is never restarted;
 *  - nor is the daemon of a failed board (chassisctl board fail): the board
 *    stays DOWN until `chassisctl board recover`, which boots it again.
 * Stop: sigqueue(pid, SIGRTMIN + 1, 3), then SIGKILL when the daemon is
 * still there after the stop time-out. */
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "chassis_env.h"
#include "chassisd.h"
#include "plat_service.h"
#include "ps_socket.h"

extern char **environ;

namespace chassis {

Board g_boards[tbdl::plat::kMaxBoards];

namespace {

constexpr int kMaxStartFailures = 4;
bool g_busy = false;

/* The running stop sequence (one at a time; a second request is chained). */
struct StopJob {
    std::vector<int> boards;
    size_t next = 0;
    std::function<void()> done;
};
std::deque<StopJob> g_stopJobs;

std::string ExitText(int ws)
{
    if (WIFEXITED(ws)) {
        return "exited with status " + std::to_string(WEXITSTATUS(ws));
    }
    if (WIFSIGNALED(ws)) {
        return "killed by signal " + std::to_string(WTERMSIG(ws)) + " (" + strsignal(WTERMSIG(ws)) + ")";
    }
    return "ended (wait status " + std::to_string(ws) + ")";
}

std::string Name(int b) { return "board " + std::to_string(b); }

void StopStep();

void BeginStop(int b)
{
    Board &bd = g_boards[b];
    Cancel(bd.timer);
    bd.timer = 0;
    if (bd.pid <= 0) {
        bd.state = BoardState::OFF;
        StopStep();
        return;
    }
    bd.stopRequested = true;
    bd.state = BoardState::STOPPING;
    union sigval v{};
    v.sival_int = 3;
    if (sigqueue(bd.pid, SIGRTMIN + 1, v) != 0) {
        Log(Name(b) + ": cannot send the stop signal to pid " + std::to_string(bd.pid) + ": " + std::strerror(errno));
    } else {
        Log(Name(b) + ": stopping tbdld (pid " + std::to_string(bd.pid) + ") with signal SIGRTMIN+1, value 3");
    }
    bd.timer = After(std::chrono::milliseconds(g_opt.stopTimeoutMs), [b] {
        Board &x = g_boards[b];
        x.timer = 0;
        if (x.pid > 0 && x.state == BoardState::STOPPING) {
            Log(Name(b) + ": tbdld (pid " + std::to_string(x.pid) + ") did not stop within " +
                std::to_string(g_opt.stopTimeoutMs) + " ms; sending SIGKILL");
            x.killSent = true;
            kill(x.pid, SIGKILL);
        }
    });
}

/* Moves the current stop job on: stops its next board, or finishes it. */
void StopStep()
{
    while (!g_stopJobs.empty()) {
        StopJob &job = g_stopJobs.front();
        if (job.next > 0) {
            int prev = job.boards[job.next - 1];
            if (g_boards[prev].pid > 0) {
                return; /* still waiting for it */
            }
        }
        if (job.next < job.boards.size()) {
            int b = job.boards[job.next++];
            BeginStop(b);
            return;
        }
        auto done = std::move(job.done);
        g_stopJobs.pop_front();
        if (done) {
            done();
        }
    }
}

void ScheduleRestart(int b)
{
    Board &bd = g_boards[b];
    int delayMs = 250 << (bd.startFailures - 1);
    bd.state = BoardState::BACKOFF;
    Log(Name(b) + ": starting tbdld again in " + std::to_string(delayMs) + " ms (attempt " +
        std::to_string(bd.startFailures + 1) + " of " + std::to_string(kMaxStartFailures) + ")");
    bd.timer = After(std::chrono::milliseconds(delayMs), [b] {
        g_boards[b].timer = 0;
        if (g_boards[b].state == BoardState::BACKOFF) {
            g_boards[b].restarts++;
            SvcStartBoard(b, SERVICE_CAUSE_PROCESS_RESTART);
        }
    });
}

/* Gives the board's files the PS library (a link to chassisd's), or takes
 * it away when the board is to run without it; the daemon loads it, if it is
 * there, from the same path relative to the board's directory. */
void InstallPsLib(int b)
{
    const std::string link = tbdl::plat::PsLibPathOf(g_opt.dir, b);
    const std::string libDir = link.substr(0, link.rfind('/'));
    const bool wanted = !g_opt.psLibPath.empty() && std::find(g_opt.noPsLibBoards.begin(),
                                                              g_opt.noPsLibBoards.end(), b) == g_opt.noPsLibBoards.end();
    if (unlink(link.c_str()) != 0 && errno != ENOENT) {
        Log(Name(b) + ": cannot remove " + link + ": " + std::strerror(errno));
    }
    if (!wanted) {
        Log(Name(b) + ": starts without the PS library");
        return;
    }
    if ((mkdir(libDir.c_str(), 0755) != 0 && errno != EEXIST) || symlink(g_opt.psLibPath.c_str(), link.c_str()) != 0) {
        Log(Name(b) + ": cannot install the PS library at " + link + ": " + std::strerror(errno));
    }
}

} // namespace

const char *BoardStateName(BoardState s)
{
    switch (s) {
    case BoardState::OFF: return "off";
    case BoardState::STARTING: return "starting";
    case BoardState::UP: return "up";
    case BoardState::STOPPING: return "stopping";
    case BoardState::BACKOFF: return "backoff";
    case BoardState::FAILED: return "failed";
    case BoardState::DOWN: return "down";
    }
    return "?";
}

bool SvcInit(std::string &err)
{
    for (int b = 0; b < tbdl::plat::kMaxBoards; ++b) {
        g_boards[b] = Board{};
        g_boards[b].num = b;
    }
    for (int b : g_opt.settings.boards) {
        g_boards[b].present = true;
        if (!tbdl::plat::EnsureBoardDir(g_opt.dir, b)) {
            err = "cannot create " + tbdl::plat::BoardDirOf(g_opt.dir, b);
            return false;
        }
        g_boards[b].failPlan = tbdl::rpc::FailPlanCreate(tbdl::rpc::FailPlanPathOf(g_opt.dir, b));
        if (g_boards[b].failPlan == nullptr) {
            err = "cannot create " + tbdl::rpc::FailPlanPathOf(g_opt.dir, b) + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

void SvcStartBoard(int b, uint32_t cause)
{
    Board &bd = g_boards[b];
    std::string boardDir = tbdl::plat::BoardDirOf(g_opt.dir, b);
    std::string console = boardDir + "/console.log";
    std::vector<std::string> env;
    for (char **e = environ; *e != nullptr; ++e) {
        std::string kv(*e);
        if (kv.rfind("TBDL_CHASSIS_DIR=", 0) == 0 || kv.rfind("TBDL_BOARD=", 0) == 0 ||
            kv.rfind("TBDL_START_CAUSE=", 0) == 0 || kv.rfind("TBDL_JOURNAL=", 0) == 0) {
            continue;
        }
        env.push_back(std::move(kv));
    }
    env.push_back(std::string(tbdl::plat::kEnvChassisDir) + "=" + g_opt.dir);
    env.push_back(std::string(tbdl::plat::kEnvBoard) + "=" + std::to_string(b));
    env.push_back(std::string(tbdl::plat::kEnvStartCause) + "=" + std::to_string(cause));
    if (g_opt.journal) {
        env.push_back(std::string(tbdl::plat::kEnvJournal) + "=1");
    }
    std::vector<char *> envp;
    for (auto &kv : env) {
        envp.push_back(kv.data());
    }
    envp.push_back(nullptr);
    char *argv[] = {const_cast<char *>(g_opt.daemonPath.c_str()), nullptr};
    InstallPsLib(b);
    pid_t parent = getpid();

    pid_t pid = fork();
    if (pid == 0) {
        /* The daemon dies with chassisd: a chassis without its platform
         * services makes no sense. */
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        signal(SIGPIPE, SIG_DFL);
        int in = open("/dev/null", O_RDONLY);
        int out = open(console.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
        if (in >= 0) dup2(in, 0);
        if (out >= 0) {
            dup2(out, 1);
            dup2(out, 2);
        }
        if (chdir(boardDir.c_str()) != 0) {
            _exit(127);
        }
        execve(argv[0], argv, envp.data());
        _exit(127);
    }
    if (pid < 0) {
        Log(Name(b) + ": cannot start tbdld: fork: " + std::strerror(errno));
        bd.state = BoardState::FAILED;
        return;
    }
    bd.pid = pid;
    bd.state = BoardState::STARTING;
    bd.status = 0;
    bd.startCause = cause;
    bd.stopRequested = false;
    bd.killSent = false;
    bd.startedAt = Clock::now();
    Log(Name(b) + ": started tbdld (pid " + std::to_string(pid) + ", start cause " + std::to_string(cause) +
        (cause == SERVICE_CAUSE_SYSTEM_BOOT ? " system boot" : " process restart") + ")");
}

void SvcStartAll(uint32_t cause)
{
    for (int b : g_opt.settings.boards) {
        g_boards[b].startFailures = 0;
        SvcStartBoard(b, cause);
    }
}

void SvcStop(std::vector<int> boards, std::function<void()> done)
{
    g_stopJobs.push_back(StopJob{std::move(boards), 0, std::move(done)});
    if (g_stopJobs.size() == 1) {
        StopStep();
    }
}

bool SvcKill(int b, std::string &err)
{
    Board &bd = g_boards[b];
    if (bd.pid <= 0) {
        err = Name(b) + " has no running daemon";
        return false;
    }
    Log(Name(b) + ": killing tbdld (pid " + std::to_string(bd.pid) + ") with SIGKILL on request");
    kill(bd.pid, SIGKILL);
    return true;
}

void SvcOnChildExit(pid_t pid, int ws)
{
    for (Board &bd : g_boards) {
        if (bd.pid != pid) {
            continue;
        }
        int b = bd.num;
        bd.pid = -1;
        bd.lastExit = ExitText(ws);
        Cancel(bd.timer);
        bd.timer = 0;
        if (bd.stopRequested) {
            if (bd.state != BoardState::DOWN) {
                bd.state = BoardState::OFF;
            }
            Log(Name(b) + ": tbdld (pid " + std::to_string(pid) + ") stopped: " + bd.lastExit);
            StopStep();
            return;
        }
        if (bd.status != SERVICE_STATUS_UP) {
            bd.startFailures++;
            bool startupExit = WIFEXITED(ws) && WEXITSTATUS(ws) == 255;
            Log(Name(b) + ": tbdld (pid " + std::to_string(pid) + ") failed at start-up: " + bd.lastExit +
                (startupExit ? " (start-up failed)" : "") + " before reporting status 2");
            if (bd.startFailures >= kMaxStartFailures) {
                bd.state = BoardState::FAILED;
                Log(Name(b) + ": tbdld failed at start-up " + std::to_string(bd.startFailures) +
                    " times in a row; not starting it again (chassisctl board restart " + std::to_string(b) +
                    " tries again)");
                return;
            }
            ScheduleRestart(b);
            return;
        }
        Log(Name(b) + ": tbdld (pid " + std::to_string(pid) + ") died: " + bd.lastExit + "; restarting it");
        bd.restarts++;
        SvcStartBoard(b, SERVICE_CAUSE_PROCESS_RESTART);
        return;
    }
}

namespace {

uint32_t SetStatus(int board, pid_t pid, uint32_t status)
{
    Board &bd = g_boards[board];
    if (pid != bd.pid) {
        Log(Name(board) + ": status " + std::to_string(status) + " reported by pid " + std::to_string(pid) +
            ", which is not the board's daemon; ignored");
        return 0;
    }
    bd.status = status;
    if (status == SERVICE_STATUS_UP && bd.state == BoardState::STARTING) {
        bd.state = BoardState::UP;
        bd.startFailures = 0;
    }
    Log(Name(board) + ": tbdld (pid " + std::to_string(pid) + ") reported status " + std::to_string(status) +
        (status == SERVICE_STATUS_UP ? " (up)" : ""));
    return 0;
}

/* SERVICE_SetStatus: the status in the argument, the caller known by the
 * connection's peer credentials. */
void OnSetStatus(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *, size_t)
{
    Reply(c, h, SetStatus(h.usBoard, c.pid, h.uiArg));
}

Json FailDump(int) { return {{"boards", FailDumpJson()}}; }

} // namespace

const Service &SvcService()
{
    /* The fault plans are the service manager's: it maps one per board
     * before the board's daemon starts. */
    static const Service s{.name = "service manager",
                           .ops = {{tbdl::rpc::OP_SERVICE_SET_STATUS, OnSetStatus}},
                           .dumpName = "fail",
                           .dump = FailDump};
    return s;
}

Json FailDumpJson()
{
    Json boards = Json::array();
    for (const Board &bd : g_boards) {
        if (!bd.present || bd.failPlan == nullptr) {
            continue;
        }
        Json calls = Json::array();
        for (const auto &sl : bd.failPlan->astSlot) {
            if (sl.acName[0] == '\0') {
                continue;
            }
            Json j = {{"call", std::string(sl.acName)}, {"left", sl.iLeft.load()}, {"hits", sl.uiHits.load()}};
            j["result"] = sl.uiHasResult ? Json(sl.lResult) : Json(nullptr);
            /* Crashes and skips only: a plain failure's entry reads as before. */
            if (sl.uiKind != 0) {
                j["kind"] = tbdl::rpc::FailKindName(static_cast<tbdl::rpc::FailKind>(sl.uiKind));
            }
            if (sl.iSkip.load() > 0) {
                j["skip"] = sl.iSkip.load();
            }
            calls.push_back(j);
        }
        boards.push_back({{"board", bd.num}, {"calls", calls}});
    }
    return boards;
}

bool ValidBoard(int b) { return b >= 0 && b < tbdl::plat::kMaxBoards && g_boards[b].present; }

void BoardDown(int board, ClearReason why)
{
    for (const Service *s : Services()) {
        if (s->clearBoard != nullptr) {
            s->clearBoard(board, why);
        }
    }
    HaBoardDown(board, why);
}

void BoardUp(int board) { HaBoardUp(board); }

bool SvcFailBoard(int b, std::string &err)
{
    Board &bd = g_boards[b];
    if (bd.state == BoardState::DOWN) {
        err = Name(b) + " has failed already";
        return false;
    }
    Cancel(bd.timer);
    bd.timer = 0;
    bd.state = BoardState::DOWN;
    bd.stopRequested = true; /* its daemon's end is no reason to restart it */
    Log(Name(b) + ": board failure on request" +
        (bd.pid > 0 ? "; killing tbdld (pid " + std::to_string(bd.pid) + ")" : ""));
    if (bd.pid > 0) {
        kill(bd.pid, SIGKILL);
    }
    BoardDown(b, ClearReason::BOARD_FAILED);
    return true;
}

bool SvcRecoverBoard(int b, std::string &err)
{
    Board &bd = g_boards[b];
    if (bd.state != BoardState::DOWN) {
        err = Name(b) + " has not failed";
        return false;
    }
    Log(Name(b) + ": recovering; it boots with an empty kernel table");
    BoardDown(b, ClearReason::REBOOT); /* what the dying daemon still sent is gone too */
    bd.startFailures = 0;
    SvcStartBoard(b, SERVICE_CAUSE_SYSTEM_BOOT);
    BoardUp(b);
    return true;
}

std::vector<int> SvcStopOrder()
{
    std::vector<int> order;
    int master = HaMaster();
    for (int b : g_opt.settings.boards) {
        if (b != master) {
            order.push_back(b);
        }
    }
    for (int b : g_opt.settings.boards) {
        if (b == master) {
            order.push_back(b);
        }
    }
    return order;
}

bool SvcBusy() { return g_busy; }
void SvcSetBusy(bool busy) { g_busy = busy; }

Json SvcStatusJson()
{
    Json boards = Json::array();
    int master = HaMaster();
    for (const Board &bd : g_boards) {
        if (!bd.present) {
            continue;
        }
        boards.push_back({
            {"board", bd.num},
            {"role", bd.num == master ? "master" : "standby"},
            {"pid", bd.pid},
            {"state", BoardStateName(bd.state)},
            {"status", bd.status},
            {"start_cause", bd.startCause},
            {"start_cause_name", bd.startCause == SERVICE_CAUSE_SYSTEM_BOOT ? "system boot" : "process restart"},
            {"restarts", bd.restarts},
            {"start_failures", bd.startFailures},
            {"last_exit", bd.lastExit},
            {"cfg_socket", tbdl::plat::LipcPathOf(g_opt.dir, bd.num, tbdl::plat::kCfgPort)},
            {"log", tbdl::plat::BoardLogPathOf(g_opt.dir, bd.num)},
        });
    }
    return boards;
}

} // namespace chassis
