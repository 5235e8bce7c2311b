/* Helpers the benchmarks share: dying with the chassis cleaned up, timing,
 * medians and percentiles, running a tool, checking a daemon answer, and
 * the options every benchmark takes. */
#pragma once

#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "tbdl_client.h"
#include "tbdl_errcode.h"

namespace tbdl::bench {

using Clock = std::chrono::steady_clock;

/* Name printed before a fatal message, and what undoes the run's setup. */
inline std::string g_name = "bench";
inline std::function<void()> g_cleanup;

[[noreturn]] inline void Die(const std::string &why)
{
    std::fprintf(stderr, "%s: %s\n", g_name.c_str(), why.c_str());
    if (std::function<void()> cleanup = std::move(g_cleanup)) {
        g_cleanup = nullptr;
        cleanup();
    }
    std::exit(1);
}

/* Runs the cleanup once, if there is one. */
inline void CleanUp()
{
    if (std::function<void()> cleanup = std::move(g_cleanup)) {
        g_cleanup = nullptr;
        cleanup();
    }
}

inline double Micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

inline double Percentile(std::vector<double> v, double p)
{
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size())))];
}

inline double Median(const std::vector<double> &v) { return Percentile(v, 0.5); }

/* Runs a command line; its output is shown only when it fails. */
inline int Run(const std::string &cmd)
{
    std::string out;
    FILE *p = ::popen((cmd + " 2>&1").c_str(), "r");
    if (p == nullptr) {
        return -1;
    }
    char buf[512];
    while (std::fgets(buf, sizeof(buf), p) != nullptr) {
        out += buf;
    }
    const int status = ::pclose(p);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (code != 0) {
        std::fprintf(stderr, "%s\n%s", cmd.c_str(), out.c_str());
    }
    return code;
}

inline void Expect(const client::Outcome<std::uint32_t> &r, const std::string &what)
{
    if (!r) {
        Die(what + ": " + r.error());
    }
    if (*r != TBDL_OK) {
        Die(what + ": " + client::DescribeResult(*r));
    }
}

/* Median of n timed round trips, after n/10 unmeasured ones. */
inline double BaselineMicros(int n, const std::function<void()> &trip)
{
    std::vector<double> v;
    for (int i = 0; i < n + n / 10; i++) {
        const Clock::time_point t0 = Clock::now();
        trip();
        if (i >= n / 10) {
            v.push_back(Micros(Clock::now() - t0));
        }
    }
    return Median(v);
}

/* The build directory this program runs from (bench/ is one below it). */
inline std::string DefaultBinDir()
{
    std::error_code ec;
    std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? "." : exe.parent_path().parent_path().string();
}

/* The options every benchmark takes: where the build is, and whether the
 * chassis directory stays after the run. */
inline void AddCommonOptions(CLI::App &app, std::string &binDir, bool &keep)
{
    binDir = DefaultBinDir();
    app.add_option("--bin-dir", binDir, "build directory holding daemon/, platform/ and tools/")->capture_default_str();
    app.add_flag("--keep", keep, "keep the chassis directory after the run");
}

/* Parses the command line; --help prints the options and exits 0, a wrong
 * option is reported and exits 2. */
inline void ParseOrExit(CLI::App &app, int argc, char **argv)
{
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        std::exit(app.exit(e) == 0 ? 0 : 2);
    }
}

} // namespace tbdl::bench
