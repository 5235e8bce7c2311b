/* Configuration path benchmark. One run prints:
 *   - the median round trip of a bare SOCK_SEQPACKET echo (the baseline),
 *     through the same client code that talks to the daemon;
 *   - the median round trip of bundle create+delete pairs and of member
 *     bind+unbind pairs through the daemon, and their ratio to the echo;
 *   - the daemon's CPU time per request over those loops;
 *   - with 1024 bundles x 8 members stored, the time from the start of a
 *     restarted daemon to its configuration socket answering a display,
 *     and the daemon's resident memory with that table loaded.
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
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "ctl_client.h"
#include "tbdl_client.h"
#include "tbdl_errcode.h"

namespace tc = tbdl::client;
using Clock = std::chrono::steady_clock;

namespace {

struct Options {
    std::string binDir;
    int echoTrips = 5000;
    int pairs = 2000;
    std::uint32_t bundles = 1024;
    std::uint32_t members = 8;
    bool keep = false;
};

/* Stops the chassis and removes its directory; set once the chassis runs. */
std::function<void()> g_cleanup;

[[noreturn]] void Die(const std::string &why)
{
    std::fprintf(stderr, "bench_config: %s\n", why.c_str());
    if (g_cleanup) {
        std::function<void()> cleanup = std::move(g_cleanup);
        g_cleanup = nullptr;
        cleanup();
    }
    std::exit(1);
}

double Micros(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

double Median(std::vector<double> v)
{
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double Percentile(std::vector<double> v, double p)
{
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size())))];
}

/* Runs a command line, returns its exit status; its output is shown only
 * when it fails. */
int Run(const std::string &cmd)
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
    int status = ::pclose(p);
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (code != 0) {
        std::fprintf(stderr, "%s\n%s", cmd.c_str(), out.c_str());
    }
    return code;
}

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

/* ---- baseline: a thread echoing on a listening SOCK_SEQPACKET socket ---- */

double EchoMedianMicros(const std::string &dir, int trips)
{
    const std::string path = dir + "/echo.sock";
    int lfd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    if (lfd < 0 || ::bind(lfd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 || ::listen(lfd, 1) != 0) {
        Die("cannot open the echo socket");
    }
    std::thread echo([lfd] {
        int c = ::accept(lfd, nullptr, nullptr);
        char buf[2048];
        for (ssize_t n; (n = ::recv(c, buf, sizeof(buf), 0)) > 0;) {
            (void)!::send(c, buf, static_cast<std::size_t>(n), 0);
        }
        ::close(c);
    });
    std::vector<double> samples;
    {
        tc::Outcome<tc::Connection> conn = tc::Connection::Open(path);
        if (!conn) {
            Die(conn.error());
        }
        const tc::Bytes request = tc::EncodeRequest(TBDL_CFG_MSG_DISPLAY, TBDL_DISP_TYPE_SPEC, 0, {});
        for (int i = 0; i < trips + trips / 10; i++) {
            Clock::time_point t0 = Clock::now();
            tc::Outcome<tc::Bytes> reply = conn->Exchange(request);
            Clock::time_point t1 = Clock::now();
            if (!reply) {
                Die(reply.error());
            }
            if (i >= trips / 10) {
                samples.push_back(Micros(t1 - t0));
            }
        }
    }
    echo.join();
    ::close(lfd);
    return Median(samples);
}

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
        if (Run(Ctl("start --chassisd " + m_opt.binDir + "/platform/chassisd --daemon " + m_opt.binDir +
                    "/daemon/tbdld --boards 0")) != 0) {
            Die("the chassis did not start");
        }
        WaitAnswers();
    }

    void Stop() { Run(Ctl("stop")); }

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

    /* Polls until board 0's configuration socket answers a display. */
    Clock::time_point WaitAnswers()
    {
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(120);
        while (Clock::now() < deadline) {
            tc::Outcome<tc::Client> c = tc::Client::Connect(m_dir, 0, 1000);
            if (c) {
                tc::Outcome<tc::Shown<tc::Limits>> l = c->GetLimits();
                if (l && l->uiResult == TBDL_OK) {
                    return Clock::now();
                }
            }
            ::poll(nullptr, 0, 1);
        }
        Die("the configuration socket does not answer");
    }

    tc::Client Connect() const
    {
        tc::Outcome<tc::Client> c = tc::Client::Connect(m_dir, 0, 10000);
        if (!c) {
            Die(c.error());
        }
        return std::move(*c);
    }

    /* Interfaces through the chassis's control socket, without a process
     * per interface. */
    void AddTunnel(std::uint32_t n) const
    {
        tbdl::ctl::IfChange change;
        change.name = "Tunnel" + std::to_string(n);
        change.mode = 0;
        change.state = "up";
        tbdl::ctl::Answer a = Control().IfAdd(change);
        if (!a) {
            Die("cannot add " + change.name + ": " + a.error);
        }
    }

    tbdl::ctl::Client Control() const { return tbdl::ctl::Client(m_dir + "/chassisd.sock"); }

    const std::string &dir() const { return m_dir; }
    const Options &opt() const { return m_opt; }

private:
    Options m_opt;
    std::string m_dir;
};

void Expect(const tc::Outcome<std::uint32_t> &r, std::uint32_t want, const char *what)
{
    if (!r) {
        Die(std::string(what) + ": " + r.error());
    }
    if (*r != want) {
        Die(std::string(what) + ": " + tc::DescribeResult(*r));
    }
}

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
    std::vector<double> samples;
    for (int i = 0; i < pairs; i++) {
        Clock::time_point t0 = Clock::now();
        pair(client);
        samples.push_back(Micros(Clock::now() - t0));
    }
    const unsigned long long ticks = CpuTicks(pid) - cpu0;
    return {Median(samples), Percentile(samples, 0.9), static_cast<double>(ticks) * TickMicros() / (2.0 * pairs),
            ticks, 2 * pairs};
}

std::string DefaultBinDir()
{
    std::error_code ec;
    std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? "." : exe.parent_path().parent_path().string();
}

Options ParseOptions(int argc, char **argv)
{
    Options opt;
    opt.binDir = DefaultBinDir();
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) {
                Die("missing value after " + a);
            }
            return argv[++i];
        };
        if (a == "--bin-dir") {
            opt.binDir = next();
        } else if (a == "--pairs") {
            opt.pairs = std::stoi(next());
        } else if (a == "--echo") {
            opt.echoTrips = std::stoi(next());
        } else if (a == "--bundles") {
            opt.bundles = static_cast<std::uint32_t>(std::stoul(next()));
        } else if (a == "--members") {
            opt.members = static_cast<std::uint32_t>(std::stoul(next()));
        } else if (a == "--keep") {
            opt.keep = true;
        } else {
            Die("usage: bench_config [--bin-dir DIR] [--pairs N] [--echo N] [--bundles N] [--members N] [--keep]");
        }
    }
    return opt;
}

}  // namespace

int main(int argc, char **argv)
{
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

    const double echoUs = EchoMedianMicros(dir, opt.echoTrips);
    std::printf("SOCK_SEQPACKET echo round trip, median of %d     : %8.1f us\n", opt.echoTrips, echoUs);

    Bench bench(opt, dir);
    g_cleanup = [&bench, &opt, &dir] {
        bench.Stop();
        if (!opt.keep) {
            std::error_code ec;
            std::filesystem::remove_all(dir, ec);
        }
    };
    bench.Start();
    tc::Client client = bench.Connect();
    const pid_t pid0 = bench.DaemonPid();
    const long rssEmpty = StatusKb(pid0, "VmRSS:");

    /* Bundle 0 stays, so that deleting bundle 1 never starts the hold. */
    Expect(client.CreateBundle(0, TBDL_MODE_LOADBALANCING, 0), TBDL_OK, "create keeper bundle");
    PairFigures bnd = TimePairs(bench, client, opt.pairs, [](tc::Client &c) {
        Expect(c.CreateBundle(1, TBDL_MODE_LOADBALANCING, 0), TBDL_OK, "create");
        Expect(c.DeleteBundle(1), TBDL_OK, "delete");
    });
    bench.AddTunnel(1);
    PairFigures memb = TimePairs(bench, client, opt.pairs, [](tc::Client &c) {
        Expect(c.AddMember(0, {1, 1, 0}), TBDL_OK, "bind");
        Expect(c.RemoveMember(0, 1), TBDL_OK, "unbind");
    });
    std::printf("bundle create+delete pair, median of %d         : %8.1f us  (p90 %.1f us) = %.1f x echo, "
                "%.1f x per request\n",
                opt.pairs, bnd.medianUs, bnd.p90Us, bnd.medianUs / echoUs, bnd.medianUs / (2 * echoUs));
    std::printf("member bind+unbind pair, median of %d           : %8.1f us  (p90 %.1f us) = %.1f x echo, "
                "%.1f x per request\n",
                opt.pairs, memb.medianUs, memb.p90Us, memb.medianUs / echoUs, memb.medianUs / (2 * echoUs));
    std::printf("daemon CPU per request, bundle create/delete     : %8.1f us  (%llu ticks of %.0f us over %d)\n",
                bnd.cpuUsPerRequest, bnd.ticks, TickMicros(), bnd.requests);
    std::printf("daemon CPU per request, member bind/unbind       : %8.1f us  (%llu ticks of %.0f us over %d)\n",
                memb.cpuUsPerRequest, memb.ticks, TickMicros(), memb.requests);

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
            Expect(client.CreateBundle(b, TBDL_MODE_LOADBALANCING, 0), TBDL_OK, where.c_str());
        }
        for (std::uint32_t m = 0; m < opt.members; m++) {
            const tc::MembOp memb{firstTnl + b * opt.members + m, static_cast<std::uint16_t>(m + 1), 0};
            Expect(client.AddMember(b, memb), TBDL_OK, (where + ", member Tunnel" + std::to_string(memb.uiTnlNum)).c_str());
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
    const long rssLoaded = StatusKb(newPid, "VmRSS:");
    std::printf("daemon VmRSS, empty table                        : %8ld kB\n", rssEmpty);
    std::printf("daemon VmRSS, table loaded                       : %8ld kB (+%ld kB, VmHWM %ld kB)\n", rssLoaded,
                rssLoaded - rssEmpty, StatusKb(newPid, "VmHWM:"));

    std::function<void()> cleanup = std::move(g_cleanup);
    g_cleanup = nullptr;
    cleanup();
    return 0;
}
