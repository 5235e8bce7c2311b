/* Harness of the chassis system tests (see chassis_harness.h). */
#include "chassis_harness.h"

#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

namespace tbdl::systest {

/* Output goes to unlinked temporary files rather than pipes: daemons the
 * program leaves behind may keep them open without holding up the run. */
ProcRun RunProcess(const std::vector<std::string> &argv, const std::vector<std::string> &env, int timeoutMs)
{
    ProcRun run;
    char outPath[] = "/tmp/tbdl-run-XXXXXX", errPath[] = "/tmp/tbdl-run-XXXXXX";
    int out = mkstemp(outPath), err = mkstemp(errPath);
    std::vector<std::string> envStore(env), argStore(argv);
    std::vector<char *> args;
    for (std::string &a : argStore) {
        args.push_back(a.data());
    }
    args.push_back(nullptr);
    pid_t pid = out >= 0 && err >= 0 ? fork() : -1;
    if (pid == 0) {
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(out, 1);
        dup2(err, 2);
        for (std::string &kv : envStore) {
            putenv(kv.data());
        }
        execv(args[0], args.data());
        _exit(127);
    }
    int ws = 0;
    bool exited = pid > 0 && WaitUntil([&] { return waitpid(pid, &ws, WNOHANG) == pid; }, timeoutMs, 2);
    if (pid > 0 && !exited) {
        run.timedOut = true;
        kill(pid, SIGKILL);
        waitpid(pid, &ws, 0);
    }
    run.out = ReadFile(outPath);
    run.err = ReadFile(errPath);
    for (const char *path : {outPath, errPath}) {
        unlink(path);
    }
    close(out);
    close(err);
    run.status = exited && WIFEXITED(ws) ? WEXITSTATUS(ws) : -1;
    return run;
}

std::string BuildPath(const std::string &rel) { return std::string(TBDL_BIN_DIR) + "/" + rel; }

bool WaitUntil(const std::function<bool()> &cond, int timeoutMs, int pollMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(pollMs));
    }
    return true;
}

std::string ReadFile(const std::string &path)
{
    std::stringstream ss;
    ss << std::ifstream(path).rdbuf();
    return ss.str();
}

size_t CountOccurrences(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + what.size())) {
        ++n;
    }
    return n;
}

bool ProcessAlive(pid_t pid)
{
    if (pid <= 0 || kill(pid, 0) != 0) {
        return false;
    }
    std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    auto p = stat.rfind(')');
    return !(p != std::string::npos && p + 2 < stat.size() && stat[p + 2] == 'Z');
}

Chassis::Chassis(const std::string &tag) : daemon_(FakeDaemon())
{
    std::string tmpl = "/tmp/tbdl-" + tag + "-XXXXXX";
    char *d = mkdtemp(tmpl.data());
    dir_ = d != nullptr ? d : "";
}

Chassis::~Chassis()
{
    Stop();
    if (!dir_.empty() && std::getenv("TBDL_KEEP_CHASSIS") == nullptr) {
        nftw(dir_.c_str(), [](const char *p, const struct stat *, int, FTW *) { return remove(p); }, 16,
             FTW_DEPTH | FTW_PHYS);
    }
}

std::string Chassis::FakeDaemon() { return BuildPath("tests/fake_tbdld"); }

ProcRun Chassis::Start(const std::vector<std::string> &chassisdArgs, int timeoutMs)
{
    if (access(daemon_.c_str(), X_OK) != 0) {
        ADD_FAILURE() << "no board daemon at " << daemon_;
        return ProcRun{};
    }
    std::vector<std::string> argv{BuildPath("tools/chassisctl"), "--dir", dir_, "start",
                                  "--timeout", std::to_string(timeoutMs / 1000), "--daemon", daemon_};
    argv.insert(argv.end(), chassisdArgs.begin(), chassisdArgs.end());
    return RunProcess(argv, env_, timeoutMs + 5000);
}

ProcRun Chassis::Tool(const std::string &tool, const std::vector<std::string> &args, int timeoutMs) const
{
    std::vector<std::string> argv{BuildPath(tool), "--dir", dir_};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProcess(argv, {}, timeoutMs);
}

Json Chassis::CtlJson(const std::vector<std::string> &args) const
{
    std::vector<std::string> a{"--json"};
    a.insert(a.end(), args.begin(), args.end());
    ProcRun r = Ctl(a, 10000);
    Json j = r.status == 0 ? Json::parse(r.out, nullptr, false) : Json();
    return j.is_discarded() ? Json() : j;
}

Json Chassis::Board(int board) const
{
    Json st = CtlJson({"status"});
    for (const Json &b : st.is_object() ? st.value("boards", Json::array()) : Json::array()) {
        if (b["board"] == board) {
            return b;
        }
    }
    return Json();
}

pid_t Chassis::BoardPid(int board) const
{
    Json b = Board(board);
    return b.is_object() ? b["pid"].get<pid_t>() : -1;
}

pid_t Chassis::ChassisdPid() const
{
    std::string text = ReadFile(Path("chassisd.pid"));
    return text.empty() ? -1 : static_cast<pid_t>(std::atoi(text.c_str()));
}

bool Chassis::WaitBoard(int board, const std::function<bool(const Json &)> &cond, int timeoutMs) const
{
    return WaitUntil([&] {
        Json b = Board(board);
        return b.is_object() && cond(b);
    }, timeoutMs, 20);
}

bool Chassis::WaitFile(const std::string &rel, const std::string &text, int timeoutMs) const
{
    return WaitUntil([&] { return ReadFile(Path(rel)).find(text) != std::string::npos; }, timeoutMs);
}

bool Chassis::Stop()
{
    pid_t pid = ChassisdPid();
    if (!ProcessAlive(pid)) {
        return true;
    }
    ProcRun r = Ctl({"stop", "--timeout", "20"}, 25000);
    bool orderly = r.status == 0 && WaitUntil([&] { return !ProcessAlive(pid); }, 5000);
    if (!orderly) {
        /* The board daemons die with chassisd (parent-death signal). */
        kill(pid, SIGKILL);
        WaitUntil([&] { return !ProcessAlive(pid); }, 5000);
    }
    return orderly;
}

} // namespace tbdl::systest
