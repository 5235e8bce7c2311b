/* Configuration path benchmark. One run prints:
 *   - the median round trip of a bare SOCK_SEQPACKET echo (the baseline),
 *     through the same client code that talks to the daemon;
 *   - the median round trip of bundle create+delete pairs and of member
 *     bind+unbind pairs through the daemon, and their ratio to the echo;
 *   - single creates and binds timed interleaved with the baseline "echo
 *     round trip + one database commit" (A, B, A, B, ...), and a bundle's
 *     first bind, which makes two commits, against echo + two commits;
 *   - the daemon's CPU time per request over those loops;
 *   - the round trips the daemon makes to chassisd per create, delete,
 *     bind and unbind, and per recovered member (counted by chassisd);
 *   - with 1024 bundles x 8 members stored, the time from the start of a
 *     restarted daemon to its configuration socket answering a display,
 *     the daemon's resident memory with that table loaded, and its
 *     wake-ups while idle;
 *   - a closing table of every figure beside its baseline and goal.
 * Figures only: nothing here passes or fails on time. */
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "bench_chassis.h"
#include "dbm_store.h"

namespace tc = tbdl::client;
using namespace tbdl::bench;

namespace {

struct Options {
    std::string binDir;
    int echoTrips = 5000;
    int pairs = 2000;
    std::uint32_t bundles = 1024;
    std::uint32_t members = 8;
    int interleaved = 1000;
    int counted = 20;
    int idleSeconds = 10;
    std::string testTime = "n/a";
    bool keep = false;
};

/* /proc/<pid>/stat fields after the command name: index 0 is field 3. */
std::vector<std::string> StatFields(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::string> f;
    std::size_t close = all.rfind(')');
    if (close == std::string::npos) {
        return f;
    }
    std::istringstream rest(all.substr(close + 1));
    for (std::string s; rest >> s;) {
        f.push_back(s);
    }
    return f;
}

/* utime + stime in clock ticks. */
unsigned long long CpuTicks(pid_t pid)
{
    std::vector<std::string> f = StatFields(pid);
    if (f.size() < 13) {
        Die("cannot read /proc/" + std::to_string(pid) + "/stat");
    }
    return std::stoull(f[11]) + std::stoull(f[12]);
}

/* Time on CPU in nanoseconds (first field of /proc/PID/schedstat) and the
 * number of times the process was put on a CPU (third field). */
std::pair<unsigned long long, unsigned long long> SchedStat(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/schedstat");
    unsigned long long ns = 0, wait = 0, runs = 0;
    if (!(in >> ns >> wait >> runs)) {
        Die("cannot read /proc/" + std::to_string(pid) + "/schedstat");
    }
    return {ns, runs};
}

double TickMicros()
{
    return 1e6 / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

/* Process start in seconds since boot (resolution one clock tick). */
double StartSinceBoot(pid_t pid)
{
    std::vector<std::string> f = StatFields(pid);
    if (f.size() < 20) {
        Die("cannot read the start time of " + std::to_string(pid));
    }
    return static_cast<double>(std::stoull(f[19])) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double NowSinceBoot()
{
    timespec ts{};
    ::clock_gettime(CLOCK_BOOTTIME, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

bool ProcessExists(pid_t pid)
{
    return std::filesystem::exists("/proc/" + std::to_string(pid));
}

long StatusKb(pid_t pid, const char *key)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(key, 0) == 0) {
            return std::atol(line.c_str() + std::strlen(key));
        }
    }
    return -1;
}

/* ---- baselines: a thread echoing on a SOCK_SEQPACKET socket, and one
 * commit to a store of its own in the chassis directory ---- */

class Echo {
public:
    explicit Echo(const std::string &dir)
    {
        const std::string path = dir + "/echo.sock";
        m_lfd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
        if (m_lfd < 0 || ::bind(m_lfd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 ||
            ::listen(m_lfd, 1) != 0) {
            Die("cannot open the echo socket");
        }
        m_thread = std::thread([lfd = m_lfd] {
            int c = ::accept(lfd, nullptr, nullptr);
            char buf[2048];
            for (ssize_t n; (n = ::recv(c, buf, sizeof(buf), 0)) > 0;) {
                (void)!::send(c, buf, static_cast<std::size_t>(n), 0);
            }
            ::close(c);
        });
        tc::Outcome<tc::Connection> conn = tc::Connection::Open(path);
        if (!conn) {
            Die(conn.error());
        }
        m_conn.emplace(std::move(*conn));
    }
    ~Echo()
    {
        m_conn.reset(); /* the echo thread sees the end and returns */
        m_thread.join();
        ::close(m_lfd);
    }
    Echo(const Echo &) = delete;
    Echo &operator=(const Echo &) = delete;

    /* One timed exchange, in microseconds. */
    double Trip()
    {
        Clock::time_point t0 = Clock::now();
        tc::Outcome<tc::Bytes> reply = m_conn->Exchange(m_request);
        Clock::time_point t1 = Clock::now();
        if (!reply) {
            Die(reply.error());
        }
        return Micros(t1 - t0);
    }

private:
    int m_lfd = -1;
    std::thread m_thread;
    std::optional<tc::Connection> m_conn;
    const tc::Bytes m_request = tc::EncodeRequest(TBDL_CFG_MSG_DISPLAY, TBDL_DISP_TYPE_SPEC, 0, {});
};

double EchoMedianMicros(Echo &echo, int trips)
{
    std::vector<double> samples;
    for (int i = 0; i < trips + trips / 10; i++) {
        const double us = echo.Trip();
        if (i >= trips / 10) {
            samples.push_back(us);
        }
    }
    return Median(samples);
}

/* Each Once() stores a new 12-byte record: one commit of the same store
 * code and settings the daemon's database calls use. */
class Commit {
public:
    explicit Commit(const std::string &dir)
    {
        std::string err;
        m_store = tbdl::plat::DbmStore::Open(dir + "/commit-baseline.sqlite", "bench", "bench", err);
        if (!m_store || m_store->SetSortWord(m_key, 0, 4) != tbdl::plat::DbmStatus::Ok) {
            Die("cannot open the baseline store: " + err);
        }
    }
    double Once() { return Store(m_next++); }
    /* Stores the last record again: bytes equal to the stored ones. */
    double Again() { return Store(m_next - 1); }

private:
    double Store(std::uint32_t n)
    {
        std::string rec(12, '\0');
        for (int i = 0; i < 4; i++) {
            rec[static_cast<std::size_t>(i)] = static_cast<char>(n >> (24 - 8 * i));
        }
        Clock::time_point t0 = Clock::now();
        const tbdl::plat::DbmStatus st = m_store->Insert(m_key, rec);
        Clock::time_point t1 = Clock::now();
        if (st != tbdl::plat::DbmStatus::Ok) {
            Die("baseline commit failed: " + m_store->LastError());
        }
        return Micros(t1 - t0);
    }

    std::unique_ptr<tbdl::plat::DbmStore> m_store;
    const std::string m_key = "\x02";
    std::uint32_t m_next = 0;
};

/* ---- the chassis ---- */

class Bench {
public:
    Bench(Options opt, std::string dir) : m_opt(std::move(opt)), m_dir(std::move(dir)) {}

    std::string Ctl(const std::string &args) const
    {
        return m_opt.binDir + "/tools/chassisctl --dir " + m_dir + " " + args;
    }

    void Start()
    {
        /* One board: no HA backups in these figures. */
        StartChassis(m_opt.binDir, m_dir, "--boards 0", m_opt.keep);
        WaitAnswers();
    }

    pid_t DaemonPid() const
    {
        tbdl::ctl::Answer st = Control().Status();
        if (!st || !st.reply.contains("boards")) {
            Die("no chassis status: " + st.error);
        }
        for (const auto &b : st.reply["boards"]) {
            if (b.value("board", -1) == 0) {
                return b.value("pid", -1);
            }
        }
        Die("no board 0");
    }

    Clock::time_point WaitAnswers() const { return tbdl::bench::WaitAnswers(m_dir, 0); }

    tc::Client Connect() const { return ConnectBoard(m_dir, 0, 10000); }

    /* Interfaces through the chassis's control socket, without a process
     * per interface. */
    void AddTunnel(std::uint32_t n) const
    {
        tbdl::ctl::Client ctl = Control();
        tbdl::bench::AddTunnel(ctl, n);
    }

    tbdl::ctl::Client Control() const { return tbdl::ctl::Client(m_dir + "/chassisd.sock"); }

    /* Platform calls chassisd has served to board 0's library so far. */
    std::uint64_t LibCalls() const
    {
        tbdl::ctl::Answer st = Control().Status();
        if (!st || !st.reply.contains("lib_calls")) {
            Die("no platform call counts in the chassis status: " + st.error);
        }
        for (const auto &b : st.reply["lib_calls"]) {
            if (b.value("board", -1) == 0) {
                return b.value("calls", std::uint64_t{0});
            }
        }
        return 0;
    }

    const std::string &dir() const { return m_dir; }
    const Options &opt() const { return m_opt; }

private:
    Options m_opt;
    std::string m_dir;
};

struct PairFigures {
    double medianUs = 0;
    double p90Us = 0;
    double cpuUsPerRequest = 0;
    unsigned long long ticks = 0;
    int requests = 0;
};

PairFigures TimePairs(Bench &bench, tc::Client &client, int pairs,
                      const std::function<void(tc::Client &)> &pair)
{
    for (int i = 0; i < pairs / 10; i++) {
        pair(client);
    }
    const pid_t pid = bench.DaemonPid();
    const unsigned long long cpu0 = CpuTicks(pid);
    const unsigned long long ns0 = SchedStat(pid).first;
    std::vector<double> samples;
    for (int i = 0; i < pairs; i++) {
        Clock::time_point t0 = Clock::now();
        pair(client);
        samples.push_back(Micros(Clock::now() - t0));
    }
    const unsigned long long ticks = CpuTicks(pid) - cpu0;
    const double ns = static_cast<double>(SchedStat(pid).first - ns0);
    return {Median(samples), Percentile(samples, 0.9), ns / 1e3 / (2.0 * pairs), ticks, 2 * pairs};
}

/* Round trips to chassisd per request, counted around each of n requests
 * (undo, not counted, puts things back for the next one). */
double CallsPerRequest(const Bench &bench, int n, const std::function<void()> &request,
                       const std::function<void()> &undo)
{
    std::uint64_t calls = 0;
    for (int i = 0; i < n; i++) {
        const std::uint64_t before = bench.LibCalls();
        request();
        calls += bench.LibCalls() - before;
        undo();
    }
    return static_cast<double>(calls) / n;
}

/* Medians of a timed request (A) and of the baseline (B), taken in turn
 * so that both see the same machine. */
std::pair<double, double> Interleaved(int n, const std::function<double()> &a, const std::function<double()> &b)
{
    std::vector<double> as, bs;
    for (int i = 0; i < n; i++) {
        as.push_back(a());
        bs.push_back(b());
    }
    return {Median(as), Median(bs)};
}

/* Times one request; undo, not timed, puts things back. */
double TimedMicros(const std::function<void()> &request, const std::function<void()> &undo)
{
    Clock::time_point t0 = Clock::now();
    request();
    const double us = Micros(Clock::now() - t0);
    undo();
    return us;
}

/* Context switches of an idle process over a period: each is a wake-up. */
struct Idle {
    long switches = 0;
    unsigned long long runs = 0;
};

Idle IdleOver(pid_t pid, int seconds)
{
    auto switches = [pid] {
        return StatusKb(pid, "voluntary_ctxt_switches:") + StatusKb(pid, "nonvoluntary_ctxt_switches:");
    };
    const long s0 = switches();
    const unsigned long long r0 = SchedStat(pid).second;
    ::poll(nullptr, 0, seconds * 1000); /* the measured period itself */
    return {switches() - s0, SchedStat(pid).second - r0};
}

Options ParseOptions(int argc, char **argv)
{
    Options opt;
    CLI::App app{"bench_config: times the configuration path, restart, recovery and idle daemon"};
    AddCommonOptions(app, opt.binDir, opt.keep);
    app.add_option("--pairs", opt.pairs, "timed create+delete and bind+unbind pairs")->capture_default_str();
    app.add_option("--echo", opt.echoTrips, "timed echo round trips")->capture_default_str();
    app.add_option("--bundles", opt.bundles, "bundles stored for the restart")->capture_default_str();
    app.add_option("--members", opt.members, "members of each stored bundle")->capture_default_str();
    app.add_option("--interleaved", opt.interleaved, "requests timed in turn with the baseline")->capture_default_str();
    app.add_option("--counted", opt.counted, "requests whose chassis round trips are counted")->capture_default_str();
    app.add_option("--idle", opt.idleSeconds, "seconds the idle daemon is watched")->capture_default_str();
    app.add_option("--test-time", opt.testTime, "test suite time shown in the closing table")->capture_default_str();
    ParseOrExit(app, argc, argv);
    return opt;
}

}  // namespace

/* The closing table: each figure of this run beside its baseline. */
struct Figures {
    double echoUs = 0, createUs = 0, createBaseUs = 0, bindUs = 0, bindBaseUs = 0, commitUs = 0, sameUs = 0;
    double cpuCreateUs = 0, cpuBindUs = 0;
    double bindFirstUs = 0, bindFirstBaseUs = 0, cpuBindFirstUs = 0; /* a bundle's first member: two commits */
    double tripsCreate = 0, tripsDelete = 0, tripsBind = 0, tripsUnbind = 0, tripsPerMember = 0;
    double startToAnswerMs = 0;
    long rssEmpty = 0, rssLoaded = 0;
    long anonEmpty = 0, anonLoaded = 0; /* the daemon's own memory, without the chassis's shared files */
    Idle idle;
    int idleSeconds = 0;
};

void PrintTable(const Figures &f, const Options &opt)
{
    const double perSecond = 1.0 / std::max(1, f.idleSeconds);
    std::printf("\n%-52s %14s   %s\n", "figure", "this run", "baseline / goal");
    auto row = [](const std::string &what, const std::string &value, const std::string &base) {
        std::printf("%-52s %14s   %s\n", what.c_str(), value.c_str(), base.c_str());
    };
    auto num = [](const char *fmt, double v) {
        char buf[64];
        std::snprintf(buf, sizeof(buf), fmt, v);
        return std::string(buf);
    };
    row("chassis round trips per bundle create", num("%.2f", f.tripsCreate), "goal 0 (was 2)");
    row("chassis round trips per bundle delete", num("%.2f", f.tripsDelete), "goal 0");
    row("chassis round trips per member bind", num("%.2f", f.tripsBind), "goal 0 (was 5-6)");
    row("chassis round trips per member unbind", num("%.2f", f.tripsUnbind), "goal 0 (was 2-3)");
    row("chassis round trips per recovered member", num("%.2f", f.tripsPerMember), "goal 0 (was ~5.4)");
    row("create round trip / (echo + commit), interleaved", num("%.2f x", f.createUs / f.createBaseUs),
        num("goal <= 1.2 x; %.1f us / ", f.createUs) + num("%.1f us", f.createBaseUs));
    row("bind round trip / (echo + commit), interleaved", num("%.2f x", f.bindUs / f.bindBaseUs),
        num("goal <= 1.2 x; %.1f us / ", f.bindUs) + num("%.1f us", f.bindBaseUs));
    row("  a bundle's first bind / (echo + 2 commits)", num("%.2f x", f.bindFirstUs / f.bindFirstBaseUs),
        num("%.1f us / ", f.bindFirstUs) + num("%.1f us", f.bindFirstBaseUs));
    row("daemon CPU per request, create/delete", num("%.1f us", f.cpuCreateUs), "goal <= 40 us");
    row("daemon CPU per request, bind/unbind", num("%.1f us", f.cpuBindUs), "goal <= 40 us");
    row("  a bundle's first bind / last unbind", num("%.1f us", f.cpuBindFirstUs), "two commits each");
    row("start -> display answered, " + std::to_string(opt.bundles) + " x " + std::to_string(opt.members) +
            " stored",
        num("%.1f ms", f.startToAnswerMs), "goal <= 100 ms (was 2530 ms)");
    row("planned switchover, 1024 x 8", "see bench_ha", "goal <= 150 ms");
    row("RSS growth, empty -> " + std::to_string(opt.bundles) + " x " + std::to_string(opt.members),
        num("%.0f kB", static_cast<double>(f.rssLoaded - f.rssEmpty)),
        num("goal <= 1024 kB; total %.0f kB", static_cast<double>(f.rssLoaded)));
    row("  of it the daemon's own memory (RssAnon)", num("%.0f kB", static_cast<double>(f.anonLoaded - f.anonEmpty)),
        num("the rest: pages read from the shared interface and kernel tables; total %.0f kB",
            static_cast<double>(f.anonLoaded)));
    row("idle daemon wake-ups per second over " + std::to_string(f.idleSeconds) + " s",
        num("%.1f", static_cast<double>(f.idle.switches) * perSecond),
        num("goal 0; %.1f runs/s on a CPU", static_cast<double>(f.idle.runs) * perSecond));
    row("storing bytes already stored (no commit)", num("%.1f us", f.sameUs), num("one commit %.1f us", f.commitUs));
    row("test command, total time", opt.testTime, "");
    row("(baselines: echo round trip, one commit)", num("%.1f us", f.echoUs), num("%.1f us", f.commitUs));
}

/* Round trips per create, delete, bind and unbind; bundle 0 and Tunnel1
 * must exist, bundle 1 must not, Tunnel1 must be free. */
void CountRequests(const Bench &bench, tc::Client &client, int n, Figures &f)
{
    auto create = [&] { Expect(client.CreateBundle(1, TBDL_MODE_LOADBALANCING, 0), "create"); };
    auto del = [&] { Expect(client.DeleteBundle(1), "delete"); };
    auto bind = [&] { Expect(client.AddMember(0, {1, 1, 0}), "bind"); };
    auto unbind = [&] { Expect(client.RemoveMember(0, 1), "unbind"); };
    f.tripsCreate = CallsPerRequest(bench, n, create, del);
    create();
    f.tripsDelete = CallsPerRequest(bench, n, del, create);
    del();
    f.tripsBind = CallsPerRequest(bench, n, bind, unbind);
    bind();
    f.tripsUnbind = CallsPerRequest(bench, n, unbind, bind);
    unbind();
}

int main(int argc, char **argv)
{
    g_name = "bench_config";
    const Options opt = ParseOptions(argc, argv);
    char tmpl[] = "/tmp/tbdl-bench-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr) {
        Die("cannot make a directory");
    }
    const std::string dir = tmpl;
    g_cleanup = [&dir] {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    };
    std::printf("bench_config: build %s, chassis %s\n", opt.binDir.c_str(), dir.c_str());
    Figures fig;
    fig.idleSeconds = opt.idleSeconds;

    Echo echo(dir);
    Commit commit(dir);
    fig.echoUs = EchoMedianMicros(echo, opt.echoTrips);
    std::printf("SOCK_SEQPACKET echo round trip, median of %d     : %8.1f us\n", opt.echoTrips, fig.echoUs);
    std::vector<double> commits, sames;
    for (int i = 0; i < opt.interleaved; i++) {
        commits.push_back(commit.Once());
        sames.push_back(commit.Again());
    }
    fig.commitUs = Median(commits);
    fig.sameUs = Median(sames);
    std::printf("one database commit, median of %d               : %8.1f us\n", opt.interleaved, fig.commitUs);
    std::printf("storing the stored bytes again, median of %d    : %8.1f us\n", opt.interleaved, fig.sameUs);
    const double echoUs = fig.echoUs;

    Bench bench(opt, dir);
    bench.Start();
    tc::Client client = bench.Connect();
    const pid_t pid0 = bench.DaemonPid();
    fig.rssEmpty = StatusKb(pid0, "VmRSS:");
    fig.anonEmpty = StatusKb(pid0, "RssAnon:");

    /* Bundle 0 stays, so that deleting bundle 1 never starts the hold. */
    Expect(client.CreateBundle(0, TBDL_MODE_LOADBALANCING, 0), "create keeper bundle");
    PairFigures bnd = TimePairs(bench, client, opt.pairs, [](tc::Client &c) {
        Expect(c.CreateBundle(1, TBDL_MODE_LOADBALANCING, 0), "create");
        Expect(c.DeleteBundle(1), "delete");
    });
    /* Tunnel2 stays bound to bundle 0 while binds are timed, so that the
     * bundle's member list exists, as for every bind but a bundle's first:
     * such a bind stores one record (one commit). A bundle's first bind also
     * sets the new list's sort word, and the unbind of its last member
     * deletes the list: two commits each, timed after against two. */
    bench.AddTunnel(1);
    bench.AddTunnel(2);
    Expect(client.AddMember(0, {2, 1, 0}), "bind the keeper member");
    auto bindPair = [](tc::Client &c) {
        Expect(c.AddMember(0, {1, 1, 0}), "bind");
        Expect(c.RemoveMember(0, 1), "unbind");
    };
    PairFigures memb = TimePairs(bench, client, opt.pairs, bindPair);
    fig.cpuCreateUs = bnd.cpuUsPerRequest;
    fig.cpuBindUs = memb.cpuUsPerRequest;
    std::printf("bundle create+delete pair, median of %d         : %8.1f us  (p90 %.1f us) = %.1f x echo, "
                "%.1f x per request\n",
                opt.pairs, bnd.medianUs, bnd.p90Us, bnd.medianUs / echoUs, bnd.medianUs / (2 * echoUs));
    std::printf("member bind+unbind pair, median of %d           : %8.1f us  (p90 %.1f us) = %.1f x echo, "
                "%.1f x per request\n",
                opt.pairs, memb.medianUs, memb.p90Us, memb.medianUs / echoUs, memb.medianUs / (2 * echoUs));
    std::printf("daemon CPU per request, bundle create/delete     : %8.1f us  (schedstat; %llu ticks over %d)\n",
                bnd.cpuUsPerRequest, bnd.ticks, bnd.requests);
    std::printf("daemon CPU per request, member bind/unbind       : %8.1f us  (schedstat; %llu ticks over %d)\n",
                memb.cpuUsPerRequest, memb.ticks, memb.requests);

    auto baseline = [&] { return echo.Trip() + commit.Once(); };
    auto timedBind = [&] {
        return TimedMicros([&] { Expect(client.AddMember(0, {1, 1, 0}), "bind"); },
                           [&] { Expect(client.RemoveMember(0, 1), "unbind"); });
    };
    std::tie(fig.createUs, fig.createBaseUs) = Interleaved(
        opt.interleaved,
        [&] {
            return TimedMicros([&] { Expect(client.CreateBundle(1, TBDL_MODE_LOADBALANCING, 0), "create"); },
                               [&] { Expect(client.DeleteBundle(1), "delete"); });
        },
        baseline);
    std::tie(fig.bindUs, fig.bindBaseUs) = Interleaved(opt.interleaved, timedBind, baseline);
    std::printf("create, interleaved with echo + commit, median %d : %8.1f us vs %.1f us\n", opt.interleaved,
                fig.createUs, fig.createBaseUs);
    std::printf("bind, interleaved with echo + commit, median %d   : %8.1f us vs %.1f us\n", opt.interleaved,
                fig.bindUs, fig.bindBaseUs);

    Expect(client.RemoveMember(0, 2), "unbind the keeper member");
    PairFigures first = TimePairs(bench, client, opt.pairs, bindPair);
    fig.cpuBindFirstUs = first.cpuUsPerRequest;
    std::tie(fig.bindFirstUs, fig.bindFirstBaseUs) =
        Interleaved(opt.interleaved, timedBind, [&] { return echo.Trip() + commit.Once() + commit.Once(); });
    std::printf("first member bind, interleaved with echo + 2 commits, median %d: %8.1f us vs %.1f us\n",
                opt.interleaved, fig.bindFirstUs, fig.bindFirstBaseUs);
    std::printf("daemon CPU per request, first bind/last unbind   : %8.1f us  (schedstat; %llu ticks over %d)\n",
                first.cpuUsPerRequest, first.ticks, first.requests);
    CountRequests(bench, client, opt.counted, fig);
    std::printf("chassis round trips per create/delete/bind/unbind: %.2f / %.2f / %.2f / %.2f (over %d each)\n",
                fig.tripsCreate, fig.tripsDelete, fig.tripsBind, fig.tripsUnbind, opt.counted);
    /* Seed the table through the daemon: the tunnel interfaces first (the
     * chassis's work), then the bundles and bindings (the daemon's). */
    const std::uint32_t firstTnl = 1000;
    const std::uint32_t tunnels = opt.bundles * opt.members;
    Clock::time_point s0 = Clock::now();
    for (std::uint32_t t = 0; t < tunnels; t++) {
        bench.AddTunnel(firstTnl + t);
    }
    Clock::time_point s1 = Clock::now();
    for (std::uint32_t b = 0; b < opt.bundles; b++) {
        const std::string where = "seeding bundle " + std::to_string(b);
        if (b != 0) {
            Expect(client.CreateBundle(b, TBDL_MODE_LOADBALANCING, 0), where);
        }
        for (std::uint32_t m = 0; m < opt.members; m++) {
            const tc::MembOp memb{firstTnl + b * opt.members + m, static_cast<std::uint16_t>(m + 1), 0};
            Expect(client.AddMember(b, memb), where + ", member Tunnel" + std::to_string(memb.uiTnlNum));
        }
    }
    Clock::time_point s2 = Clock::now();
    std::printf("seeding: %u tunnel interfaces in the chassis       : %8.2f s\n", tunnels,
                std::chrono::duration<double>(s1 - s0).count());
    std::printf("seeding: %u bundles x %u members through the daemon: %8.2f s (%u requests)\n", opt.bundles,
                opt.members, std::chrono::duration<double>(s2 - s1).count(), opt.bundles * (opt.members + 1) - 1);

    /* Restart the daemon and time its start until it answers. */
    const pid_t oldPid = bench.DaemonPid();
    Clock::time_point r0 = Clock::now();
    const double r0Boot = NowSinceBoot();
    int restartStatus = -1;
    std::thread restarter([&] { restartStatus = Run(bench.Ctl("board restart 0 --timeout 120")); });
    /* Once the new process exists the old one is gone, so whatever answers
     * on the socket is the new daemon. */
    pid_t newPid = -1;
    const Clock::time_point deadline = r0 + std::chrono::seconds(120);
    while ((newPid = bench.DaemonPid()) == oldPid || newPid <= 0) {
        if (Clock::now() > deadline) {
            Die("the daemon was not restarted");
        }
        ::poll(nullptr, 0, 1);
    }
    Clock::time_point answered = bench.WaitAnswers();
    const double answeredBoot = NowSinceBoot();
    restarter.join();
    if (restartStatus != 0) {
        Die("board restart failed");
    }
    const double startBoot = StartSinceBoot(newPid);
    const double startToAnswerMs = (answeredBoot - std::max(startBoot, r0Boot)) * 1e3;
    std::printf("restart, %u x %u stored: daemon start -> answers  : %8.1f ms  (start time known to %.0f ms)\n",
                opt.bundles, opt.members, startToAnswerMs, TickMicros() / 1e3);
    std::printf("restart, %u x %u stored: command -> answers       : %8.1f ms  (old daemon's stop included)\n",
                opt.bundles, opt.members, Micros(answered - r0) / 1e3);

    tc::Client after = bench.Connect();
    tc::Outcome<tc::Shown<tc::BndCounts>> counts = after.Counts(std::nullopt);
    if (!counts || !counts->value) {
        Die("no counts after the restart");
    }
    std::printf("restored table                                   : %u bundles, %u up%s\n", counts->value->uiTotal,
                counts->value->uiUp,
                counts->value->uiTotal == opt.bundles && counts->value->uiUp == opt.bundles
                    ? ""
                    : "  <- NOT the seeded table: the figures above are not comparable");
    fig.startToAnswerMs = startToAnswerMs;
    fig.rssLoaded = StatusKb(newPid, "VmRSS:");
    fig.anonLoaded = StatusKb(newPid, "RssAnon:");
    std::printf("daemon VmRSS, empty table                        : %8ld kB (RssAnon %ld kB)\n", fig.rssEmpty,
                fig.anonEmpty);
    std::printf("daemon VmRSS, table loaded                       : %8ld kB (+%ld kB, VmHWM %ld kB; RssAnon %ld kB, "
                "RssFile %ld kB)\n",
                fig.rssLoaded, fig.rssLoaded - fig.rssEmpty, StatusKb(newPid, "VmHWM:"), fig.anonLoaded,
                StatusKb(newPid, "RssFile:"));

    /* Recovery's round trips: the daemon is killed (it makes no call on its
     * way out) and the service manager starts a new one, which recovers
     * the stored table; counted until it answers and its table is whole. */
    const pid_t killed = newPid;
    const std::uint64_t calls0 = bench.LibCalls();
    if (Run(bench.Ctl("board kill 0")) != 0) {
        Die("cannot kill the daemon");
    }
    const Clock::time_point killDeadline = Clock::now() + std::chrono::seconds(120);
    while ((newPid = bench.DaemonPid()) == killed || newPid <= 0 || !ProcessExists(newPid)) {
        if (Clock::now() > killDeadline) {
            Die("the killed daemon was not started again");
        }
        ::poll(nullptr, 0, 1);
    }
    bench.WaitAnswers();
    const std::uint64_t recoveryCalls = bench.LibCalls() - calls0;
    const double members = static_cast<double>(opt.bundles) * opt.members;
    fig.tripsPerMember = static_cast<double>(recoveryCalls) / members;
    std::printf("recovery of %u x %u: chassis round trips          : %llu (%.2f per member)\n", opt.bundles,
                opt.members, static_cast<unsigned long long>(recoveryCalls), fig.tripsPerMember);

    fig.idle = IdleOver(bench.DaemonPid(), opt.idleSeconds);
    std::printf("idle daemon over %d s: context switches %ld, runs on a CPU %llu\n", opt.idleSeconds,
                fig.idle.switches, fig.idle.runs);
    std::printf("planned switchover: see bench_ha\n");
    PrintTable(fig, opt);
    CleanUp();
    return 0;
}
