/* Helpers of the configuration system tests. */
#include "cfg_helpers.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>

namespace tbdl::cfgtest {

namespace {

void ReadSome(int &fd, std::string &into)
{
    char buf[4096];
    ssize_t n = ::read(fd, buf, sizeof(buf));
    if (n > 0) {
        into.append(buf, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
        ::close(fd);
        fd = -1;
    }
}

}  // namespace

ToolRun RunProgram(const std::vector<std::string> &argv, int timeoutMs)
{
    ToolRun run;
    int outPipe[2];
    int errPipe[2];
    if (argv.empty() || ::pipe2(outPipe, O_CLOEXEC) != 0) {
        return run;
    }
    if (::pipe2(errPipe, O_CLOEXEC) != 0) {
        ::close(outPipe[0]);
        ::close(outPipe[1]);
        return run;
    }
    /* Built before the fork: the child of a threaded test may not allocate. */
    std::vector<char *> args;
    for (const std::string &a : argv) {
        args.push_back(const_cast<char *>(a.c_str()));
    }
    args.push_back(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(outPipe[1], 1);
        ::dup2(errPipe[1], 2);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    int fds[2] = {outPipe[0], errPipe[0]};
    if (pid < 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        return run;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (fds[0] >= 0 || fds[1] >= 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            run.timedOut = true;
            ::kill(pid, SIGKILL);
            break;
        }
        pollfd pfd[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
        if (::poll(pfd, 2, static_cast<int>(left.count())) <= 0) {
            continue;
        }
        for (int i = 0; i < 2; i++) {
            if (fds[i] >= 0 && (pfd[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
                ReadSome(fds[i], i == 0 ? run.out : run.err);
            }
        }
    }
    for (int fd : fds) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!run.timedOut && WIFEXITED(status)) {
        run.status = WEXITSTATUS(status);
    }
    return run;
}

std::string BinPath(const std::string &rel)
{
    return std::string(TBDL_BIN_DIR) + "/" + rel;
}

ToolRun RunTbdlctl(const std::string &dir, const std::vector<std::string> &args, int timeoutMs)
{
    std::vector<std::string> argv{BinPath("tools/tbdlctl"), "--dir", dir};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProgram(argv, timeoutMs);
}

ScratchDir::ScratchDir(const std::string &tag)
{
    std::string tmpl = "/tmp/tbdl-" + tag + "-XXXXXX";
    if (::mkdtemp(tmpl.data()) != nullptr) {
        m_path = tmpl;
    }
}

ScratchDir::~ScratchDir()
{
    if (!m_path.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(m_path, ec);
    }
}

}  // namespace tbdl::cfgtest
