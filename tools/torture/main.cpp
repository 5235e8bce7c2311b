/* torture: drives a running chassis (real board daemon) through crash
 * points while a random configuration stream runs; see README. */
#include <iostream>

#include <CLI/CLI.hpp>

#include "torture.h"

int main(int argc, char **argv)
{
    torture::Options opt;
    std::vector<std::string> points;
    CLI::App app{"torture: crash the board daemon at platform calls under a random configuration stream"};
    app.add_option("--dir", opt.dir, "chassis directory (a running chassis)")->required();
    app.add_option("--seed", opt.seed, "seed of the request stream");
    app.add_option("--requests", opt.requests, "requests per crash point")->check(CLI::PositiveNumber);
    app.add_option("--skip-max", opt.skipMax, "the crash comes after 0..N calls let through")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--log", opt.log, "file that gets every request and its answer");
    app.add_option("--board", opt.board, "board whose daemon takes the requests (the master)");
    app.add_option("--points", points, "crash points CALL[:before|after] (default: the full list)")->delimiter(',');
    app.add_option("--failover", opt.failover, "rounds in which the master board fails under the requests")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--soak", opt.soakSeconds, "seconds of the soak mix (configuration, interface, VRF, LSM/PS, "
                                              "switchover and board failure events) instead of crash points")
        ->check(CLI::NonNegativeNumber);
    CLI11_PARSE(app, argc, argv);
    for (const std::string &t : points) {
        std::optional<torture::CrashPoint> p = torture::ParsePoint(t);
        if (!p) {
            std::cerr << "torture: bad crash point '" << t << "' (CALL[:before|after])\n";
            return 2;
        }
        opt.points.push_back(*p);
    }
    if (opt.points.empty() && opt.failover == 0) {
        opt.points = torture::DefaultPoints();
    }
    return torture::Run(opt);
}
