/* Forwarding download benchmark. Board 0 holds N load-balancing bundles of
 * M members (LSM entries of M paths) and P one-to-one bundles of two
 * members (LSM entries with a backup, and the protection pairs PS is told
 * of). One run prints:
 *   - baselines: the median round trip of a counters-only dump of chassisd
 *     (the cost of one poll below) and of a display request to the daemon;
 *   - full resynchronisation to LSM and to PS, each service stopped and
 *     started again a few times: from the start command to the service's
 *     counters showing the cycle ended, the cycle's own length as the
 *     service measured it (smoothing begin to end), and what the cycle
 *     carried (LSM adds and flushes; PS sends and updates);
 *   - the latency of a member change: from the bind's answer on the
 *     configuration socket to LSM and to PS counting the bundle's new
 *     download, with the counts one change costs.
 * Figures only: nothing here passes or fails on time. */
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "bench_chassis.h"

namespace tc = tbdl::client;
using namespace tbdl::bench;
using Json = nlohmann::json;

namespace {

struct Options {
    std::string binDir;
    std::uint32_t bundles = 1024;
    std::uint32_t members = 8;
    std::uint32_t pairs = 1024;
    int resyncs = 3;
    int changes = 200;
    int baseline = 500;
    bool keep = false;
};

constexpr std::uint32_t kFirstTunnel = 1000;

/* The chassis of the run, its control client and a client of board 0. */
class Bench {
public:
    Bench(Options opt, std::string dir)
        : m_opt(std::move(opt)), m_dir(std::move(dir)), m_ctl(m_dir + "/chassisd.sock", 60000)
    {
    }

    void Start()
    {
        const std::uint32_t slots = std::max<std::uint32_t>(1024, m_opt.bundles + m_opt.pairs);
        StartChassis(m_opt.binDir, m_dir, "--bundle-slots " + std::to_string(slots), m_opt.keep);
        m_client.emplace(ConnectBoard(m_dir, 0, 10000));
    }

    tc::Client &Client() { return *m_client; }
    tbdl::ctl::Client &Ctl() { return m_ctl; }

    Json Counters(const char *service)
    {
        tbdl::ctl::Answer a = m_ctl.DumpCounters(service, 0);
        if (!a) {
            Die(std::string("no ") + service + " counters: " + a.error);
        }
        return a.reply;
    }

    /* Polls the service's counters until cond holds; the time it first did. */
    Clock::time_point WaitCounters(const char *service, const std::function<bool(const Json &)> &cond, int timeoutS = 60)
    {
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(timeoutS);
        while (!cond(Counters(service))) {
            if (Clock::now() > deadline) {
                Die(std::string(service) + " did not get there: " + Counters(service).dump());
            }
        }
        return Clock::now();
    }

    /* The seeded table (see SeedTable), once LSM and PS hold all of it. */
    void Seed()
    {
        SeedTable(m_ctl, *m_client, kFirstTunnel, m_opt.bundles, m_opt.members, m_opt.pairs);
        WaitCounters("lsm", [&](const Json &j) { return j["entry_count"] == m_opt.bundles + m_opt.pairs; });
        WaitCounters("ps", [&](const Json &j) { return j["bundle_count"] == m_opt.pairs; });
    }

    /* Tunnel number of the protection member of pair bundle b. */
    std::uint32_t ProtectionTunnel(std::uint32_t b) const
    {
        return kFirstTunnel + m_opt.bundles * m_opt.members + 2 * (b - m_opt.bundles) + 1;
    }

    const Options &opt() const { return m_opt; }

private:
    Options m_opt;
    std::string m_dir;
    tbdl::ctl::Client m_ctl;
    std::optional<tc::Client> m_client;
};

std::uint64_t U(const Json &j, const char *key) { return j.value(key, std::uint64_t{0}); }

/* Stops and starts the service on board 0, then waits for the daemon's
 * next full cycle to end. countA and countB: counters shown per cycle, as
 * "counter (what it counts)". */
void Resync(Bench &bench, const char *service, const char *countA, const char *countB, const char *whatA,
            const char *whatB)
{
    std::vector<double> wall, cycle;
    std::uint64_t a = 0, b = 0;
    for (int i = 0; i < bench.opt().resyncs; i++) {
        const Json before = bench.Counters(service);
        if (!bench.Ctl().ServiceStop(service, 0)) {
            Die(std::string(service) + " stop failed");
        }
        const Clock::time_point t0 = Clock::now();
        if (!bench.Ctl().ServiceStart(service, 0)) {
            Die(std::string(service) + " start failed");
        }
        const Clock::time_point t1 =
            bench.WaitCounters(service, [&](const Json &j) { return U(j, "cycles") > U(before, "cycles"); });
        const Json after = bench.Counters(service);
        wall.push_back(Micros(t1 - t0) / 1e3);
        cycle.push_back(static_cast<double>(U(after, "last_cycle_us")) / 1e3);
        a = U(after, countA) - U(before, countA);
        b = U(after, countB) - U(before, countB);
    }
    std::printf("%-3s resync: start -> cycle ended, median of %d     : %8.1f ms (min %.1f, max %.1f)\n", service,
                bench.opt().resyncs, Median(wall), Percentile(wall, 0), Percentile(wall, 1));
    std::printf("%-3s resync: the cycle itself (begin -> end)        : %8.2f ms (min %.2f, max %.2f)\n", service,
                Median(cycle), Percentile(cycle, 0), Percentile(cycle, 1));
    std::printf("%-3s resync: per cycle                              : %llu %s, %llu %s\n", service,
                static_cast<unsigned long long>(a), whatA, static_cast<unsigned long long>(b), whatB);
}

/* Unbinds and binds again the protection member of pair bundles in turn;
 * each bind is timed from its answer until LSM and PS counted the bundle's
 * download. */
void ChangeLatency(Bench &bench, double pollUs)
{
    std::vector<double> lsm, ps;
    Json l0 = bench.Counters("lsm"), p0 = bench.Counters("ps");
    for (int i = 0; i < bench.opt().changes; i++) {
        const std::uint32_t b = bench.opt().bundles + static_cast<std::uint32_t>(i) % bench.opt().pairs;
        const std::uint32_t tnl = bench.ProtectionTunnel(b);
        const Json l1 = bench.Counters("lsm"), p1 = bench.Counters("ps");
        Expect(bench.Client().RemoveMember(b, tnl), "unbind");
        bench.WaitCounters("lsm", [&](const Json &j) { return U(j, "adds") > U(l1, "adds"); });
        bench.WaitCounters("ps", [&](const Json &j) { return U(j, "deletes") > U(p1, "deletes"); });
        const Json l2 = bench.Counters("lsm"), p2 = bench.Counters("ps");
        Expect(bench.Client().AddMember(b, {tnl, 2, 1}), "bind");
        const Clock::time_point acked = Clock::now();
        /* Each poll is one round trip; the order alternates so neither
         * service's figure carries the other's poll. */
        std::optional<Clock::time_point> lsmAt, psAt;
        auto poll = [&](const char *service, const Json &base, const char *key, std::optional<Clock::time_point> &at) {
            if (!at && U(bench.Counters(service), key) > U(base, key)) {
                at = Clock::now();
            }
        };
        const Clock::time_point deadline = acked + std::chrono::seconds(30);
        while (!lsmAt || !psAt) {
            if (i % 2 == 0) {
                poll("lsm", l2, "adds", lsmAt);
                poll("ps", p2, "updates", psAt);
            } else {
                poll("ps", p2, "updates", psAt);
                poll("lsm", l2, "adds", lsmAt);
            }
            if (Clock::now() > deadline) {
                Die("a bind did not reach LSM and PS");
            }
        }
        lsm.push_back(Micros(*lsmAt - acked));
        ps.push_back(Micros(*psAt - acked));
    }
    const Json l9 = bench.Counters("lsm"), p9 = bench.Counters("ps");
    const double n = bench.opt().changes;
    std::printf("bind answered -> LSM counts it, median of %d      : %8.1f us (p90 %.1f) = %.1f x poll\n",
                bench.opt().changes, Median(lsm), Percentile(lsm, 0.9), Median(lsm) / pollUs);
    std::printf("bind answered -> PS counts it, median of %d       : %8.1f us (p90 %.1f) = %.1f x poll\n",
                bench.opt().changes, Median(ps), Percentile(ps, 0.9), Median(ps) / pollUs);
    std::printf("per unbind+bind                                  : %.2f LSM adds, %.2f LSM batch messages, "
                "%.2f PS sends (%.2f updates, %.2f deletes)\n",
                static_cast<double>(U(l9, "adds") - U(l0, "adds")) / n,
                static_cast<double>(U(l9, "flushes") - U(l0, "flushes")) / n,
                static_cast<double>(U(p9, "received") - U(p0, "received")) / n,
                static_cast<double>(U(p9, "updates") - U(p0, "updates")) / n,
                static_cast<double>(U(p9, "deletes") - U(p0, "deletes")) / n);
}

Options ParseOptions(int argc, char **argv)
{
    Options opt;
    CLI::App app{"bench_download: times full resynchronisations and member changes reaching LSM and PS"};
    AddCommonOptions(app, opt.binDir, opt.keep);
    app.add_option("--bundles", opt.bundles, "load-balancing bundles")->capture_default_str();
    app.add_option("--members", opt.members, "members of each load-balancing bundle")->capture_default_str();
    app.add_option("--pairs", opt.pairs, "1:1 bundles of two members (at least 1)")->capture_default_str();
    app.add_option("--resyncs", opt.resyncs, "stops and starts of each service (at least 1)")->capture_default_str();
    app.add_option("--changes", opt.changes, "timed member changes")->capture_default_str();
    ParseOrExit(app, argc, argv);
    opt.pairs = std::max(1u, opt.pairs);
    opt.resyncs = std::max(1, opt.resyncs);
    return opt;
}

}  // namespace

int main(int argc, char **argv)
{
    g_name = "bench_download";
    const Options opt = ParseOptions(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0); /* each figure as soon as it is known */
    char tmpl[] = "/tmp/tbdl-bench-dld-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr) {
        Die("cannot make a directory");
    }
    Bench bench(opt, tmpl);
    std::printf("bench_download: build %s, chassis %s\n", opt.binDir.c_str(), tmpl);
    bench.Start();

    const Clock::time_point s0 = Clock::now();
    bench.Seed();
    std::printf("table: %u load-balancing bundles x %u members, %u 1:1 bundles x 2 members (seeded and downloaded "
                "in %.1f s)\n",
                opt.bundles, opt.members, opt.pairs, Micros(Clock::now() - s0) / 1e6);

    const double pollUs = BaselineMicros(opt.baseline, [&] { (void)bench.Counters("lsm"); });
    const double displayUs = BaselineMicros(opt.baseline, [&] {
        if (!bench.Client().GetLimits()) {
            Die("display failed");
        }
    });
    std::printf("baseline: counters-only dump round trip (a poll)  : %8.1f us\n", pollUs);
    std::printf("baseline: daemon display round trip               : %8.1f us\n", displayUs);

    Resync(bench, "lsm", "adds", "flushes", "entries added", "batch messages (one flush, cut in chunks)");
    Resync(bench, "ps", "received", "updates", "sends", "bundle updates");
    ChangeLatency(bench, pollUs);

    CleanUp();
    return 0;
}
