/* Interface event benchmark. Board 0 holds N load-balancing bundles of M
 * member tunnels (1024 x 8 by default) and P one-to-one bundles of two
 * members. One run prints:
 *   - baselines: the round trip of a counters-only dump of chassisd (one
 *     poll below) and of a daemon display;
 *   - rounds of state flips of every load-balancing member (all down, then
 *     all up, ...) sent in bursts of B interfaces per change: from the first
 *     burst to LSM counting every bundle's new entry (and, coarser, to the
 *     interface dump showing every event acknowledged), what travelled
 *     (packets, entries, acknowledgements), what it cost (kernel commands,
 *     LSM adds and batch messages), the CPU time the daemon of board 0 and
 *     chassisd spent meanwhile, and a check that nothing was lost: the
 *     display shows every member in the state it was set to and the kernel
 *     table's bundle states follow the display;
 *   - the latency of one member tunnel of a pair going down or up: from the
 *     change's answer to LSM and to PS counting the bundle's new download,
 *     and PS's up flags checked against the last states at the end.
 * Figures only: nothing here passes or fails on time. */
#include <poll.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <optional>
#include <sstream>
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
    std::uint32_t burst = 512;
    std::uint32_t pairs = 64;
    int rounds = 4;
    int changes = 200;
    int baseline = 300;
    bool keep = false;
};

constexpr std::uint32_t kFirstTunnel = 1000;

std::string TunnelName(std::uint32_t n) { return "Tunnel" + std::to_string(n); }
std::string BundleName(std::uint32_t n) { return "Tunnel-Bundle" + std::to_string(n); }
std::uint64_t U(const Json &j, const char *key) { return j.value(key, std::uint64_t{0}); }

/* User and system CPU time of a process so far, in milliseconds. */
double CpuMs(int pid)
{
    std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    std::istringstream rest(stat.substr(std::min(stat.size(), stat.rfind(')') + 2)));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && rest >> field; i++) {
        ticks += i >= 14 ? std::stod(field) : 0; /* utime and stime are fields 14 and 15 */
    }
    return ticks * 1000.0 / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

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
        m_client.emplace(ConnectBoard(m_dir, 0, 60000));
        const Json status = Reply(m_ctl.Status(), "status");
        m_chassisdPid = status.value("chassisd_pid", 0);
        for (const Json &b : status["boards"]) {
            m_daemonPid = b["board"] == 0 ? b.value("pid", 0) : m_daemonPid;
        }
    }

    /* CPU milliseconds of board 0's daemon and of chassisd so far. */
    std::pair<double, double> Cpu() const { return {CpuMs(m_daemonPid), CpuMs(m_chassisdPid)}; }

    tc::Client &Client() { return *m_client; }
    tbdl::ctl::Client &Ctl() { return m_ctl; }
    const Options &opt() const { return m_opt; }

    Json Counters(const char *service) { return Reply(m_ctl.DumpCounters(service, 0), service); }
    Json Events() { return Reply(m_ctl.Dump("if"), "dump if")["events"][0]; }
    Json Kernel() { return Reply(m_ctl.Dump("ktbdl", 0), "dump ktbdl"); }

    /* Polls cond until it holds, pausing pauseMs between polls so that
     * costly dumps leave chassisd time for the work being measured. */
    Clock::time_point WaitFor(const std::string &what, const std::function<bool()> &cond, int pauseMs = 0)
    {
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(120);
        while (!cond()) {
            if (Clock::now() > deadline) {
                Die(what + " did not happen in time");
            }
            ::poll(nullptr, 0, pauseMs);
        }
        return Clock::now();
    }

    /* Sets the state of tunnels [first, first + count) in one change. */
    void SetState(std::uint32_t first, std::uint32_t count, const char *state)
    {
        tbdl::ctl::IfChange change;
        change.name = TunnelName(first);
        change.state = state;
        for (std::uint32_t t = first + 1; t < first + count; t++) {
            change.more.push_back(TunnelName(t));
        }
        Reply(m_ctl.IfSet(change), "if set " + change.name);
    }

    /* The seeded table (see SeedTable), once LSM and PS hold all of it. */
    void Seed()
    {
        SeedTable(m_ctl, *m_client, kFirstTunnel, m_opt.bundles, m_opt.members, m_opt.pairs);
        WaitFor("the download of the seeded table", [&] {
            return U(Counters("lsm"), "entry_count") == m_opt.bundles + m_opt.pairs &&
                   U(Counters("ps"), "bundle_count") == m_opt.pairs;
        });
    }

    std::uint32_t ProtectionTunnel(std::uint32_t pair) const
    {
        return kFirstTunnel + m_opt.bundles * m_opt.members + 2 * pair + 1;
    }

private:
    Options m_opt;
    std::string m_dir;
    tbdl::ctl::Client m_ctl;
    std::optional<tc::Client> m_client;
    int m_daemonPid = 0, m_chassisdPid = 0;
};

/* Load-balancing bundles whose display or kernel entry disagrees with every
 * member being in state want (1 up, 0 down). */
std::size_t Disagreeing(Bench &bench, unsigned want)
{
    tc::Outcome<tc::BndWalk> walk = bench.Client().WalkBundles();
    if (!walk) {
        Die("display walk: " + walk.error());
    }
    std::map<std::string, unsigned> shown;
    std::size_t bad = 0;
    for (const tc::BndDetail &d : walk->bundles) {
        if (d.uiBndNum >= bench.opt().bundles) {
            continue;
        }
        const bool membersOk = d.members.size() == bench.opt().members &&
                               std::all_of(d.members.begin(), d.members.end(),
                                           [&](const tc::MembDetail &m) { return m.ucState == want; });
        bad += membersOk && d.ucState == want ? 0 : 1;
        shown[BundleName(d.uiBndNum)] = d.ucState;
    }
    bad += bench.opt().bundles - std::min<std::size_t>(bench.opt().bundles, shown.size());
    for (const Json &k : bench.Kernel()["bundles"]) {
        auto it = shown.find(k.value("name", ""));
        if (it != shown.end() && (!k.value("updated", false) || k["state"] != it->second)) {
            bad++;
        }
    }
    return bad;
}

struct Snapshot {
    Json ev, kernel, lsm;
    explicit Snapshot(Bench &bench)
        : ev(bench.Events()), kernel(bench.Kernel()["commands"]), lsm(bench.Counters("lsm"))
    {
    }
};

/* Flips every load-balancing member to state (all down, or all up) in bursts
 * and prints the round's figures. */
void FlipRound(Bench &bench, int round, double pollUs)
{
    const Options &o = bench.opt();
    const std::uint32_t flips = o.bundles * o.members;
    const bool up = round % 2 == 1;
    const Snapshot s0(bench);
    const std::pair<double, double> cpu0 = bench.Cpu();
    const Clock::time_point t0 = Clock::now();
    for (std::uint32_t off = 0; off < flips; off += o.burst) {
        bench.SetState(kFirstTunnel + off, std::min(o.burst, flips - off), up ? "up" : "down");
    }
    const Clock::time_point sent = Clock::now();
    /* The cheap end mark: every bundle's entry re-sent to LSM, which the
     * daemon does once a packet's events are handled (a burst holds whole
     * bundles when it is a multiple of the member count). The interface
     * dump that shows the acknowledgements costs far more than a poll. */
    const Clock::time_point applied = bench.WaitFor("an LSM add of every bundle", [&] {
        return U(bench.Counters("lsm"), "adds") - U(s0.lsm, "adds") >= o.bundles;
    });
    const std::pair<double, double> cpu1 = bench.Cpu();
    const Clock::time_point acked = bench.WaitFor("the acknowledgement of every event", [&] {
        return U(bench.Events(), "entries_acked") - U(s0.ev, "entries_acked") >= flips;
    }, 2);
    const std::size_t bad = Disagreeing(bench, up ? 1 : 0);
    const Snapshot s1(bench);
    auto d = [](const Json &a, const Json &b, const char *key) {
        return static_cast<unsigned long long>(U(b, key) - U(a, key));
    };
    std::printf("round %d (%s): %u flips in bursts of %u, sent in %.1f ms, every bundle in LSM after %.1f ms "
                "(%.1f us a flip, %.2f x poll), acknowledgements seen after %.1f ms\n",
                round + 1, up ? "up" : "down", flips, o.burst, Micros(sent - t0) / 1e3, Micros(applied - t0) / 1e3,
                Micros(applied - t0) / flips, Micros(applied - t0) / flips / pollUs, Micros(acked - t0) / 1e3);
    std::printf("  events: %llu packets, %llu entries sent; %llu acks, %llu entries acknowledged\n",
                d(s0.ev, s1.ev, "packets_sent"), d(s0.ev, s1.ev, "entries_sent"), d(s0.ev, s1.ev, "acks"),
                d(s0.ev, s1.ev, "entries_acked"));
    std::printf("  CPU until then: daemon %.0f ms, chassisd %.0f ms\n", cpu1.first - cpu0.first,
                cpu1.second - cpu0.second);
    std::printf("  kernel: %llu bundle updates, %llu member adds, %llu member deletes; LSM: %llu adds in %llu "
                "batch messages; lost: %zu bundles disagree\n",
                d(s0.kernel, s1.kernel, "bundle_update"), d(s0.kernel, s1.kernel, "member_add"),
                d(s0.kernel, s1.kernel, "member_delete"), d(s0.lsm, s1.lsm, "adds"), d(s0.lsm, s1.lsm, "flushes"),
                bad);
}

/* Takes the protection member of pair bundles down and up again in turn;
 * each change is timed from its answer until LSM and PS counted the
 * bundle's download. */
void ChangeLatency(Bench &bench, double pollUs)
{
    const Options &o = bench.opt();
    std::vector<double> lsm, ps;
    std::vector<bool> upNow(o.pairs, true);
    for (int i = 0; i < o.changes; i++) {
        const std::uint32_t pair = static_cast<std::uint32_t>(i / 2) % o.pairs;
        const Json l0 = bench.Counters("lsm"), p0 = bench.Counters("ps");
        upNow[pair] = !upNow[pair];
        bench.SetState(bench.ProtectionTunnel(pair), 1, upNow[pair] ? "up" : "down");
        const Clock::time_point answered = Clock::now();
        /* Each poll is one round trip; the order alternates so neither
         * service's figure carries the other's poll. */
        std::optional<Clock::time_point> lsmAt, psAt;
        auto poll = [&](const char *service, const Json &base, const char *key, std::optional<Clock::time_point> &at) {
            if (!at && U(bench.Counters(service), key) > U(base, key)) {
                at = Clock::now();
            }
        };
        const Clock::time_point deadline = answered + std::chrono::seconds(30);
        while (!lsmAt || !psAt) {
            poll(i % 2 == 0 ? "lsm" : "ps", i % 2 == 0 ? l0 : p0, i % 2 == 0 ? "adds" : "updates", i % 2 == 0 ? lsmAt : psAt);
            poll(i % 2 == 0 ? "ps" : "lsm", i % 2 == 0 ? p0 : l0, i % 2 == 0 ? "updates" : "adds", i % 2 == 0 ? psAt : lsmAt);
            if (Clock::now() > deadline) {
                Die("a member state change did not reach LSM and PS");
            }
        }
        lsm.push_back(Micros(*lsmAt - answered));
        ps.push_back(Micros(*psAt - answered));
    }
    std::size_t wrong = 0;
    for (const Json &b : Reply(bench.Ctl().Dump("ps", 0), "dump ps")["bundles"]) {
        const std::uint32_t pair = b["bundle"].get<std::uint32_t>() - o.bundles;
        wrong += pair < o.pairs && b["protection"]["up"] == upNow[pair] && b["working"]["up"] == true ? 0 : 1;
    }
    std::printf("member down/up answered -> LSM counts it, median of %d: %8.1f us (p90 %.1f) = %.1f x poll\n",
                o.changes, Median(lsm), Percentile(lsm, 0.9), Median(lsm) / pollUs);
    std::printf("member down/up answered -> PS counts it, median of %d : %8.1f us (p90 %.1f) = %.1f x poll\n",
                o.changes, Median(ps), Percentile(ps, 0.9), Median(ps) / pollUs);
    std::printf("PS up flags not matching the last states: %zu of %u pairs\n", wrong, o.pairs);
}

Options ParseOptions(int argc, char **argv)
{
    Options opt;
    CLI::App app{"bench_watch: times interface events reaching the daemon, LSM and PS"};
    AddCommonOptions(app, opt.binDir, opt.keep);
    app.add_option("--bundles", opt.bundles, "load-balancing bundles")->capture_default_str();
    app.add_option("--members", opt.members, "members of each load-balancing bundle")->capture_default_str();
    app.add_option("--burst", opt.burst, "interfaces per state change sent (at most about 4000 names fit in one)")
        ->capture_default_str();
    app.add_option("--pairs", opt.pairs, "1:1 bundles of two members")->capture_default_str();
    app.add_option("--rounds", opt.rounds, "rounds flipping every load-balancing member")->capture_default_str();
    app.add_option("--changes", opt.changes, "timed member state changes")->capture_default_str();
    ParseOrExit(app, argc, argv);
    /* Every count is at least one. */
    for (std::uint32_t *n : {&opt.bundles, &opt.members, &opt.burst, &opt.pairs}) {
        *n = std::max(1u, *n);
    }
    opt.rounds = std::max(1, opt.rounds);
    opt.changes = std::max(1, opt.changes);
    return opt;
}

} // namespace

int main(int argc, char **argv)
{
    g_name = "bench_watch";
    const Options opt = ParseOptions(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0); /* each figure as soon as it is known */
    char tmpl[] = "/tmp/tbdl-bench-watch-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr) {
        Die("cannot make a directory");
    }
    Bench bench(opt, tmpl);
    std::printf("bench_watch: build %s, chassis %s\n", opt.binDir.c_str(), tmpl);
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
    std::printf("baseline: interface dump round trip (an ack poll) : %8.1f us, polled every 2 ms + that\n",
                BaselineMicros(20, [&] { (void)bench.Events(); }));
    for (int r = 0; r < opt.rounds; r++) {
        FlipRound(bench, r, pollUs);
    }
    ChangeLatency(bench, pollUs);
    CleanUp();
    return 0;
}
