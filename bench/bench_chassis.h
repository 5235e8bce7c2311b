/* The chassis the benchmarks run on: starting it with its cleanup, adding
 * tunnel interfaces, reaching a board's configuration socket and seeding a
 * table of bundles. Every failure is fatal to the run (Die). */
#pragma once

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

#include "bench_util.h"
#include "ctl_client.h"

namespace tbdl::bench {

/* The reply of a chassis control request; dies when there is none. */
inline nlohmann::json Reply(const ctl::Answer &a, const std::string &what)
{
    if (!a) {
        Die(what + ": " + a.error);
    }
    return a.reply;
}

/* Starts a chassis in dir from the build in binDir, the daemon given
 * daemonArgs; from then on the cleanup stops it and, unless keep, removes
 * dir. */
inline void StartChassis(const std::string &binDir, const std::string &dir, const std::string &daemonArgs, bool keep)
{
    const std::string ctl = binDir + "/tools/chassisctl --dir " + dir;
    g_cleanup = [ctl, dir, keep] {
        Run(ctl + " stop");
        if (!keep) {
            std::error_code ec;
            std::filesystem::remove_all(dir, ec);
        }
    };
    if (Run(ctl + " start --chassisd " + binDir + "/platform/chassisd --daemon " + binDir + "/daemon/tbdld " +
            daemonArgs) != 0) {
        Die("the chassis did not start");
    }
}

/* Adds interface TunnelN, up. */
inline void AddTunnel(ctl::Client &ctl, std::uint32_t n)
{
    ctl::IfChange change;
    change.name = "Tunnel" + std::to_string(n);
    change.mode = 0;
    change.state = "up";
    Reply(ctl.IfAdd(change), "cannot add " + change.name);
}

/* Polls until the board's configuration socket answers a display; the time
 * it first did. */
inline Clock::time_point WaitAnswers(const std::string &dir, int board)
{
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(120);
    while (Clock::now() < deadline) {
        client::Outcome<client::Client> c = client::Client::Connect(dir, board, 1000);
        if (c) {
            client::Outcome<client::Shown<client::Limits>> l = c->GetLimits();
            if (l && l->uiResult == TBDL_OK) {
                return Clock::now();
            }
        }
        ::poll(nullptr, 0, 1);
    }
    Die("board " + std::to_string(board) + "'s configuration socket does not answer");
}

inline client::Client ConnectBoard(const std::string &dir, int board, int timeoutMs)
{
    client::Outcome<client::Client> c = client::Client::Connect(dir, board, timeoutMs);
    if (!c) {
        Die(c.error());
    }
    return std::move(*c);
}

/* Interfaces first..first+N*M+2P-1, all up; bundles 0..N-1 load balancing
 * with M members, N..N+P-1 one-to-one with a working (role 0) and a
 * protection (role 1) member, in that order. */
inline void SeedTable(ctl::Client &ctl, client::Client &c, std::uint32_t first, std::uint32_t bundles,
                      std::uint32_t members, std::uint32_t pairs)
{
    for (std::uint32_t t = 0; t < bundles * members + 2 * pairs; t++) {
        AddTunnel(ctl, first + t);
    }
    std::uint32_t tnl = first;
    for (std::uint32_t b = 0; b < bundles + pairs; b++) {
        const bool lb = b < bundles;
        const std::string where = "seeding bundle " + std::to_string(b);
        Expect(c.CreateBundle(b, lb ? TBDL_MODE_LOADBALANCING : TBDL_MODE_ONETOONE, 0), where);
        for (std::uint32_t m = 0; m < (lb ? members : 2); m++) {
            Expect(c.AddMember(b, {tnl++, static_cast<std::uint16_t>(m + 1), static_cast<std::uint8_t>(lb ? 0 : m)}),
                   where);
        }
    }
}

} // namespace tbdl::bench
