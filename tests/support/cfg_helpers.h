/* Helpers of the configuration system tests: running a tool with its
 * output captured, scratch directories, and the paths of the built tools. */
#ifndef TBDL_TEST_CFG_HELPERS_H
#define TBDL_TEST_CFG_HELPERS_H

#include <string>
#include <vector>

namespace tbdl::cfgtest {

/* Outcome of one run of a program. */
struct ToolRun {
    int status = -1;  /* exit status; -1 when killed or not started */
    bool timedOut = false;
    std::string out;
    std::string err;
};

/* Runs argv[0] (a path) with its arguments, captures stdout and stderr and
 * waits at most timeoutMs; a program still running then is killed. */
ToolRun RunProgram(const std::vector<std::string> &argv, int timeoutMs = 20000);

/* Path of a program in the build tree, e.g. BinPath("tools/tbdlctl"). */
std::string BinPath(const std::string &rel);

/* tbdlctl --dir dir args... */
ToolRun RunTbdlctl(const std::string &dir, const std::vector<std::string> &args, int timeoutMs = 20000);

/* A fresh directory under /tmp, removed with its contents on destruction. */
class ScratchDir {
public:
    explicit ScratchDir(const std::string &tag = "cfg");
    ~ScratchDir();
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;
    const std::string &path() const { return m_path; }

private:
    std::string m_path;
};

}  // namespace tbdl::cfgtest

#endif
