/* chassisd entry: options and settings, the chassis directory, the single
 * instance lock, daemonising, then the event loop.
 *
 * Every error before the loop runs is one line on stderr and a non-zero
 * exit. Without --foreground the process forks: the parent waits until the
 * child has its socket bound and its boards started (or failed to), and
 * exits 0 or 1 accordingly. */
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>

#include <CLI/CLI.hpp>

#include "chassis_env.h"
#include "chassisd.h"
#include "journal.h"
#include "plat_service.h"

namespace chassis {

Options g_opt;

static tbdl::plat::AppendFile g_logFile;

void Log(const std::string &text)
{
    std::string line = tbdl::plat::IsoTimeNow() + " chassisd[" + std::to_string(getpid()) + "]: " + text + "\n";
    (void)g_logFile.Append(tbdl::plat::ChassisLogPathOf(g_opt.dir), line);
    if (g_opt.foreground) {
        std::fputs(line.c_str(), stderr);
    }
}

} // namespace chassis

namespace {

using namespace chassis;

[[noreturn]] void Fail(const std::string &msg)
{
    std::fprintf(stderr, "chassisd: %s\n", msg.c_str());
    std::exit(1);
}

/* The daemon next to this program in the build tree (<build>/daemon/tbdld,
 * chassisd being <build>/platform/chassisd), else one in the same
 * directory. */
std::string DefaultDaemonPath()
{
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0) {
        return "tbdld";
    }
    buf[n] = '\0';
    std::string exeDir(buf);
    exeDir.erase(exeDir.rfind('/'));
    std::string candidate = exeDir + "/../daemon/tbdld";
    if (access(candidate.c_str(), X_OK) == 0) {
        return candidate;
    }
    return exeDir + "/tbdld";
}

/* The PS library of this build (<build>/platform/ps/libps.so), else one in
 * the same directory; "" when neither exists. */
std::string DefaultPsLibPath()
{
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0) {
        return "";
    }
    buf[n] = '\0';
    std::string exeDir(buf);
    exeDir.erase(exeDir.rfind('/'));
    for (const std::string &candidate : {exeDir + "/ps/libps.so", exeDir + "/libps.so"}) {
        if (realpath(candidate.c_str(), buf) != nullptr) {
            return buf;
        }
    }
    return "";
}

bool ParseBoards(const std::string &text, std::vector<int> &boards)
{
    boards.clear();
    std::stringstream ss(text);
    std::string item;
    while (std::getline(ss, item, ',')) {
        if (item != "0" && item != "1") {
            return false;
        }
        boards.push_back(item[0] - '0');
    }
    return !boards.empty();
}

bool ApplyMode(const std::string &spec, tbdl::plat::ChassisSettings &s, std::string &err)
{
    auto eq = spec.find('=');
    std::string name = spec.substr(0, eq);
    std::string val = eq == std::string::npos ? "" : spec.substr(eq + 1);
    bool on;
    if (val == "on") {
        on = true;
    } else if (val == "off") {
        on = false;
    } else {
        err = "--mode " + spec + ": expected NAME=on or NAME=off";
        return false;
    }
    if (name == tbdl::plat::kModeLoadBalancing) {
        s.modeLoadBalancing = on;
    } else if (name == tbdl::plat::kModeOneToOne) {
        s.modeOneToOne = on;
    } else if (name == tbdl::plat::kModeOnePlusOne) {
        s.modeOnePlusOne = on;
    } else {
        err = "--mode " + spec + ": unknown mode '" + name + "' (LoadBalancing, ProtectionOnetoone, ProtectionOneplusone)";
        return false;
    }
    return true;
}

/* Holds DIR/chassisd.pid locked for the life of the process, so a second
 * chassisd on the same directory is refused. */
int LockPidFile(const std::string &dir)
{
    std::string path = tbdl::plat::ChassisPidPathOf(dir);
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        Fail("cannot create " + path + ": " + std::strerror(errno));
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        char buf[32] = {};
        ssize_t n = pread(fd, buf, sizeof(buf) - 1, 0);
        std::string pid = n > 0 ? std::string(buf, strcspn(buf, "\n")) : "?";
        Fail("another chassisd (pid " + pid + ") is running on " + dir);
    }
    return fd;
}

void WritePid(int fd)
{
    std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(fd, 0) != 0 || pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        Log("cannot write the pid file: " + std::string(std::strerror(errno)));
    }
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"chassisd: emulated chassis (service manager and platform services of the boards)"};
    std::string configPath;
    std::optional<uint32_t> bundleSlots, memberLimit, haMtu, haResponseMs;
    std::optional<int> masterBoard;
    std::vector<std::string> modes;
    std::string boardsText;
    /* A later option overrides an earlier one (chassisctl passes defaults
     * first, the operator's options after them). */
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    const char *envDir = std::getenv(tbdl::plat::kEnvChassisDir);
    g_opt.dir = envDir != nullptr && *envDir != '\0' ? envDir : "./chassis";
    app.add_option("--dir", g_opt.dir, "chassis directory (must exist)");
    app.add_option("--config", configPath, "chassis settings file (JSON)");
    app.add_option("--bundle-slots", bundleSlots, "bundle slots of the interface manager");
    app.add_option("--member-limit", memberLimit, "members per bundle (LFIB)");
    app.add_option("--mode", modes, "NAME=on|off for LoadBalancing, ProtectionOnetoone, ProtectionOneplusone")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--ha-mtu", haMtu, "HA channel MTU");
    app.add_option("--ha-response-ms", haResponseMs, "ms the HA service waits for a daemon's response to an event");
    app.add_option("--master-board", masterBoard, "board that starts as master");
    app.add_option("--boards", boardsText, "running boards: 0 or 0,1");
    app.add_option("--daemon", g_opt.daemonPath, "board daemon program (default: tbdld of this build)");
    app.add_option("--ps-lib", g_opt.psLibPath, "PS library given to the boards (default: libps.so of this build)");
    app.add_option("--no-ps-lib", g_opt.noPsLibBoards, "board that starts without the PS library (repeatable)")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->check(CLI::Range(0, tbdl::plat::kMaxBoards - 1));
    app.add_option("--stop-timeout", g_opt.stopTimeoutMs, "ms a board daemon gets to stop before SIGKILL");
    app.add_flag("--journal", g_opt.journal, "journal every platform call of the boards");
    app.add_flag("--foreground", g_opt.foreground, "do not detach; log to stderr too");
    app.add_flag("--trust-user", g_opt.trustUser,
                 "serve the boards' platform calls to any process of this user (tests), not only to the boards' daemons");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        std::fprintf(stderr, "chassisd: %s\n", e.what());
        return 2;
    }

    /* The chassis directory must exist; it is where everything lives. */
    struct stat st{};
    if (stat(g_opt.dir.c_str(), &st) != 0) {
        Fail("chassis directory " + g_opt.dir + ": " + std::strerror(errno));
    }
    if (!S_ISDIR(st.st_mode)) {
        Fail("chassis directory " + g_opt.dir + " is not a directory");
    }
    char real[PATH_MAX];
    if (realpath(g_opt.dir.c_str(), real) == nullptr) {
        Fail("chassis directory " + g_opt.dir + ": " + std::strerror(errno));
    }
    g_opt.dir = real;
    if (access(g_opt.dir.c_str(), W_OK | X_OK) != 0) {
        Fail("chassis directory " + g_opt.dir + " is not writable");
    }
    /* The chassis is for this user and group only, whatever the caller's
     * umask: the directory is closed to others, and what chassisd and the
     * boards' daemons create in it is not opened to them. */
    umask(umask(0) | 007);
    if (chmod(g_opt.dir.c_str(), kChassisDirMode) != 0) {
        Fail("cannot restrict the chassis directory " + g_opt.dir + ": " + std::strerror(errno));
    }

    /* Settings: defaults, then the file (--config, else the settings this
     * chassis directory kept from its last run), then the options. */
    std::string err;
    std::string stored = tbdl::plat::SettingsPathOf(g_opt.dir);
    if (configPath.empty() && access(stored.c_str(), F_OK) == 0) {
        configPath = stored;
    }
    if (!configPath.empty() && !tbdl::plat::LoadSettings(configPath, g_opt.settings, err)) {
        Fail(err);
    }
    auto &s = g_opt.settings;
    if (bundleSlots) s.bundleSlots = *bundleSlots;
    if (memberLimit) s.memberLimit = *memberLimit;
    if (haMtu) s.haMtu = *haMtu;
    if (haResponseMs) s.haResponseMs = *haResponseMs;
    if (masterBoard) s.masterBoard = *masterBoard;
    if (!boardsText.empty() && !ParseBoards(boardsText, s.boards)) {
        Fail("--boards " + boardsText + ": expected 0, 1 or 0,1");
    }
    for (const auto &m : modes) {
        if (!ApplyMode(m, s, err)) {
            Fail(err);
        }
    }
    if (masterBoard == std::nullopt && s.boards.size() == 1 && s.boards[0] != s.masterBoard) {
        s.masterBoard = s.boards[0]; /* a lone board is the master */
    }
    if (!tbdl::plat::ValidateSettings(s, err)) {
        Fail("invalid chassis settings: " + err);
    }
    if (g_opt.daemonPath.empty()) {
        g_opt.daemonPath = DefaultDaemonPath();
    }
    struct stat dst{};
    if (access(g_opt.daemonPath.c_str(), X_OK) != 0 || stat(g_opt.daemonPath.c_str(), &dst) != 0 ||
        !S_ISREG(dst.st_mode) || realpath(g_opt.daemonPath.c_str(), real) == nullptr) {
        Fail("board daemon " + g_opt.daemonPath + " is not an executable program");
    }
    g_opt.daemonPath = real; /* daemons start in their board directory */
    if (g_opt.psLibPath.empty()) {
        g_opt.psLibPath = DefaultPsLibPath();
    } else if (realpath(g_opt.psLibPath.c_str(), real) == nullptr) {
        Fail("PS library " + g_opt.psLibPath + ": " + std::strerror(errno));
    } else {
        g_opt.psLibPath = real;
    }

    int readyPipe[2] = {-1, -1};
    if (!g_opt.foreground) {
        if (pipe2(readyPipe, O_CLOEXEC) != 0) {
            Fail(std::string("pipe: ") + std::strerror(errno));
        }
        pid_t pid = fork();
        if (pid < 0) {
            Fail(std::string("fork: ") + std::strerror(errno));
        }
        if (pid > 0) {
            close(readyPipe[1]);
            char c = 0;
            ssize_t n;
            do {
                n = read(readyPipe[0], &c, 1);
            } while (n < 0 && errno == EINTR);
            return n == 1 && c == '1' ? 0 : 1;
        }
        close(readyPipe[0]);
        setsid();
    }

    int pidFd = LockPidFile(g_opt.dir);
    if (!tbdl::plat::SaveSettings(tbdl::plat::SettingsPathOf(g_opt.dir), s, err)) {
        Fail(err);
    }
    WritePid(pidFd);
    Log("starting on " + g_opt.dir + " with settings " + tbdl::plat::SettingsToJson(s) + ", daemon " +
        g_opt.daemonPath + (g_opt.journal ? ", journal on" : "") + ", PS library " +
        (g_opt.psLibPath.empty() ? "none" : g_opt.psLibPath));
    if (!LoopInit(g_opt, err) || !SvcInit(err) || !ServicesInit(err)) {
        Log("start failed: " + err);
        Fail(err);
    }
    IfLoad();
    SvcStartAll(SERVICE_CAUSE_SYSTEM_BOOT);

    if (!g_opt.foreground) {
        /* Detach from the caller's terminal; stray output goes to the log. */
        int devnull = open("/dev/null", O_RDONLY | O_CLOEXEC);
        int logFd = open(tbdl::plat::ChassisLogPathOf(g_opt.dir).c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (devnull >= 0) {
            dup2(devnull, 0);
            close(devnull);
        }
        if (logFd >= 0) {
            dup2(logFd, 1);
            dup2(logFd, 2);
            close(logFd);
        }
        char c = '1';
        (void)!write(readyPipe[1], &c, 1);
        close(readyPipe[1]);
    }
    int rc = LoopRun();
    IfFlush();
    Log("exiting with status " + std::to_string(rc));
    unlink(tbdl::plat::ChassisSocketPathOf(g_opt.dir).c_str());
    close(pidFd);
    return rc;
}
