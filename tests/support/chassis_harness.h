/* Harness of the chassis system tests: programs run with captured output
 * and a deadline, and a temporary chassis removed on every path. */
#ifndef TBDL_TEST_CHASSIS_HARNESS_H
#define TBDL_TEST_CHASSIS_HARNESS_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace tbdl::systest {

using Json = nlohmann::json;

struct ProcRun {
    int status = -1; /* exit status; -1 when killed by a signal or not started */
    bool timedOut = false;
    std::string out;
    std::string err;
};

/* Runs argv (argv[0] a path) with extra "NAME=value" environment entries;
 * killed (timedOut set) when still running after timeoutMs. */
ProcRun RunProcess(const std::vector<std::string> &argv, const std::vector<std::string> &env = {},
                   int timeoutMs = 30000);

/* Path of a program in the build tree ("platform/chassisd"). */
std::string BuildPath(const std::string &rel);

/* Polls cond every pollMs until it holds or timeoutMs passed. */
bool WaitUntil(const std::function<bool()> &cond, int timeoutMs = 10000, int pollMs = 10);

std::string ReadFile(const std::string &path); /* "" when missing */
size_t CountOccurrences(const std::string &text, const std::string &what);
bool ProcessAlive(pid_t pid); /* false for zombies too */

class Chassis {
public:
    /* Makes an empty chassis directory under /tmp. */
    explicit Chassis(const std::string &tag = "chassis");
    /* Stops the chassis (orderly, then SIGKILL) and removes the directory. */
    ~Chassis();
    Chassis(const Chassis &) = delete;
    Chassis &operator=(const Chassis &) = delete;

    const std::string &dir() const { return dir_; }
    std::string Path(const std::string &rel) const { return dir_ + "/" + rel; }

    /* Board daemon used by Start: the stand-in by default, or the real one. */
    static std::string FakeDaemon();
    void UseRealDaemon() { daemon_ = BuildPath("daemon/tbdld"); }
    /* Environment of chassisctl start, so of chassisd and the daemons. */
    void SetEnv(std::vector<std::string> env) { env_ = std::move(env); }

    /* chassisctl --dir DIR start --daemon D args...; a missing daemon
     * binary fails the test. */
    ProcRun Start(const std::vector<std::string> &chassisdArgs = {}, int timeoutMs = 30000);
    /* chassisctl or tbdlctl --dir DIR args... */
    ProcRun Ctl(const std::vector<std::string> &args, int timeoutMs = 30000) const
    {
        return Tool("tools/chassisctl", args, timeoutMs);
    }
    ProcRun Tbdlctl(const std::vector<std::string> &args, int timeoutMs = 30000) const
    {
        return Tool("tools/tbdlctl", args, timeoutMs);
    }
    /* chassisctl --json ARGS parsed; a null JSON when the command failed. */
    Json CtlJson(const std::vector<std::string> &args) const;

    Json Board(int board) const;         /* its entry of chassisctl --json status, null if none */
    pid_t BoardPid(int board) const;     /* -1 when none */
    pid_t ChassisdPid() const;           /* from DIR/chassisd.pid, -1 when none */
    /* Waits until the board's status entry satisfies cond. */
    bool WaitBoard(int board, const std::function<bool(const Json &)> &cond, int timeoutMs = 15000) const;
    bool WaitFile(const std::string &rel, const std::string &text, int timeoutMs = 15000) const;

    /* chassisctl stop, then SIGKILL to what is left; true when orderly. */
    bool Stop();

private:
    ProcRun Tool(const std::string &tool, const std::vector<std::string> &args, int timeoutMs) const;

    std::string dir_;
    std::string daemon_;
    std::vector<std::string> env_;
};

} // namespace tbdl::systest

#endif
