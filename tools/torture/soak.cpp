/* The soak: for a set time, a random mix of configuration requests,
 * interface state flips, VRF moves, LSM and PS restarts, switchovers and
 * board failures against a running two-board chassis, with the resident
 * memory of chassisd and of each board's daemon sampled every 10 s. At the
 * end every board and service is brought back and the master's tables are
 * checked as after a failover. Crashes (daemon restarts), memory that grows
 * more than 5% after warm-up (chassisd, and the level each board's daemons
 * hold) and failed checks fail the run. */
#include <algorithm>
#include <chrono>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <set>

#include "chassis_env.h"
#include "torture.h"

namespace torture {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kSampleEvery = std::chrono::seconds(10);
constexpr auto kHaEventGap = std::chrono::seconds(4); /* switchovers and board events at most this often */
constexpr double kRssGrowthLimit = 0.05;
/* Below this length the memory is printed but not judged: in a short run
 * the daemons have not reached their steady level (allocator caches, the
 * sanitizer's quarantine) by the middle third. */
constexpr int kMemoryJudgedFromS = 600;

/* VmRSS of a process in kB, 0 when it is gone. */
long RssKb(int pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    long kb = 0;
    while (in >> key) {
        if (key == "VmRSS:") {
            in >> kb;
            return kb;
        }
        in.ignore(4096, '\n');
    }
    return 0;
}

struct Sample {
    double atS; /* seconds into the run */
    long kb;
    bool hasServed; /* the process has been master (held a table) by then */
};

class Soak {
public:
    Soak(const Options &opt) : m_opt(opt), m_ctl(tbdl::plat::ChassisSocketPathOf(opt.dir)), m_rng(opt.seed)
    {
        m_rep.point = {"soak", std::to_string(opt.soakSeconds) + " s", "all"};
    }
    int Run(std::ostream &log);

private:
    void Step(std::ostream &log);
    void Configure(std::ostream &log);
    void FlipInterfaces();
    void MoveVrf();
    void ToggleService();
    void HaEvent();
    void SampleRss();
    int Restarts();
    void Restore();
    bool MemoryFlat();
    long Level(const std::string &prefix, double fromS, double toS) const;

    std::string Tunnel() { return "Tunnel" + std::to_string(Pick(1, m_opt.tunnels)); }
    uint32_t Pick(uint32_t lo, uint32_t hi) { return std::uniform_int_distribution<uint32_t>(lo, hi)(m_rng); }
    double Elapsed() const { return std::chrono::duration<double>(Clock::now() - m_start).count(); }
    void Count(const std::string &what, const tbdl::ctl::Answer &a) { m_counts[what + (a ? "" : " refused")]++; }

    Options m_opt;
    tbdl::ctl::Client m_ctl;
    std::mt19937 m_rng;
    Facts m_facts;
    PointReport m_rep;
    std::optional<tc::Client> m_cfg;
    int m_failed = -1;                     /* the board failed on purpose, -1 = none */
    std::set<std::pair<std::string, int>> m_stopped; /* services stopped: (lsm|ps, board) */
    std::map<std::string, int> m_counts;
    std::map<std::string, std::vector<Sample>> m_rss; /* "board N pid P" / "chassisd pid P" */
    Clock::time_point m_start = Clock::now();
    Clock::time_point m_lastHa = Clock::now();
};

void Soak::Configure(std::ostream &log)
{
    if (!m_cfg) {
        Options on = m_opt;
        on.board = WaitMaster(m_ctl, -1);
        m_cfg = on.board >= 0 ? WaitServing(on, m_ctl) : std::nullopt;
        if (!m_cfg) {
            m_rep.failures.push_back("no master serves at " + std::to_string(static_cast<int>(Elapsed())) + " s");
            return;
        }
    }
    const bool sent = Pick(0, 199) == 0 ? SendFill(m_opt, *m_cfg, m_facts, m_rep, log)
                                        : SendAndBook(*m_cfg, RandomRequest(m_rng, m_opt, m_facts), m_facts, m_rep, log);
    if (!sent) {
        m_cfg.reset(); /* the master changed or its daemon went away: find it again */
    }
}

/* One to three tunnels at once, all to the same state. */
void Soak::FlipInterfaces()
{
    tbdl::ctl::IfChange c{Tunnel(), std::nullopt, false, Pick(0, 1) ? "up" : "down", std::nullopt, {}};
    for (uint32_t n = Pick(0, 2); n > 0; n--) {
        c.more.push_back(Tunnel());
    }
    Count("interface flips", m_ctl.IfSet(c));
}

void Soak::MoveVrf()
{
    const uint32_t bnd = Pick(1, m_opt.bundles);
    const std::string name = "Tunnel-Bundle" + std::to_string(bnd);
    m_facts.MembersUnknown(bnd);
    Count("vrf moves", Pick(0, 2) ? m_ctl.VrfBind(name, Pick(1, 3)) : m_ctl.VrfUnbind(name));
}

void Soak::ToggleService()
{
    const std::pair<std::string, int> s{Pick(0, 1) ? "lsm" : "ps", static_cast<int>(Pick(0, 1))};
    if (m_stopped.erase(s) != 0) {
        Count(s.first + " starts", m_ctl.ServiceStart(s.first, s.second));
    } else {
        m_stopped.insert(s);
        Count(s.first + " stops", m_ctl.ServiceStop(s.first, s.second));
    }
}

/* A switchover, or a board failure, or the recovery of the failed board. */
void Soak::HaEvent()
{
    m_lastHa = Clock::now();
    m_cfg.reset();
    if (m_failed >= 0) {
        Count("board recoveries", m_ctl.BoardRecover(m_failed));
        m_failed = -1;
    } else if (Pick(0, 1)) {
        Count("switchovers", m_ctl.Switchover());
    } else if (tbdl::ctl::Answer r = m_ctl.Role(); r) {
        m_failed = r.reply.value("master", -1);
        Count("board failures", m_ctl.BoardFail(m_failed));
    }
}

void Soak::Step(std::ostream &log)
{
    const uint32_t p = Pick(0, 19);
    if (p < 12) {
        Configure(log);
    } else if (p < 15) {
        FlipInterfaces();
    } else if (p < 17) {
        MoveVrf();
    } else if (p < 19) {
        ToggleService();
    } else if (Clock::now() - m_lastHa >= kHaEventGap) {
        HaEvent();
    }
}

void Soak::SampleRss()
{
    tbdl::ctl::Answer st = m_ctl.Status();
    if (!st) {
        return;
    }
    const int cpid = st.reply.value("chassisd_pid", -1);
    m_rss["chassisd pid " + std::to_string(cpid)].push_back({Elapsed(), RssKb(cpid), true});
    for (const Json &b : st.reply.value("boards", Json::array())) {
        const int pid = b.value("pid", -1);
        if (pid > 0) {
            std::vector<Sample> &v = m_rss["board " + std::to_string(b.value("board", -1)) + " pid " + std::to_string(pid)];
            const bool served = b.value("role", "") == "master" || (!v.empty() && v.back().hasServed);
            v.push_back({Elapsed(), RssKb(pid), served});
        }
    }
}

int Soak::Restarts()
{
    int n = 0;
    tbdl::ctl::Answer st = m_ctl.Status();
    for (const Json &b : st ? st.reply.value("boards", Json::array()) : Json::array()) {
        n += b.value("restarts", 0) + (b.value("state", "") == "failed" ? 1 : 0);
    }
    return n;
}

/* Every service started, the failed board back, both boards serving. */
void Soak::Restore()
{
    for (const auto &[svc, board] : m_stopped) {
        m_ctl.ServiceStart(svc, board);
    }
    if (m_failed >= 0) {
        m_ctl.BoardRecover(m_failed);
    }
    for (int b = 0; b < 2; b++) {
        if (!WaitStandby(m_ctl, b)) {
            m_rep.failures.push_back("board " + std::to_string(b) + " does not serve at the end");
        }
    }
}

/* The highest sample in [fromS, toS) of the processes whose key starts
 * with prefix, counting only samples taken once the process had served;
 * 0 when there is none. */
long Soak::Level(const std::string &prefix, double fromS, double toS) const
{
    long level = 0;
    for (const auto &[who, samples] : m_rss) {
        if (who.rfind(prefix, 0) != 0) {
            continue;
        }
        for (const Sample &s : samples) {
            if (s.hasServed && s.atS >= fromS && s.atS < toS) {
                level = std::max(level, s.kb);
            }
        }
    }
    return level;
}

/* chassisd lives the whole run: its first sample after warm-up (a third of
 * the run, at least 20 s) against its last. A daemon's memory rises until
 * it has held a table as master for a while (allocator caches, the
 * sanitizer's quarantine), and board failures start new daemons all
 * through the run, so a daemon is not judged from its own first sample:
 * per board, the level its daemons reach in the middle third of the run is
 * the base, and the level of the last third must stay within 5% of it. A
 * leak in a daemon that lives on shows as a last-third level above every
 * daemon before it. */
bool Soak::MemoryFlat()
{
    const double runS = m_opt.soakSeconds;
    const double warmUp = std::max(20.0, runS / 3.0);
    const double lastThird = runS * 2.0 / 3.0;
    bool flat = true;
    auto judge = [&](const std::string &who, long from, long to, const std::string &what) {
        if (from == 0 || to == 0) {
            std::cout << "  " << std::left << std::setw(22) << who << "not enough samples\n";
            return;
        }
        const double growth = double(to - from) / double(from);
        const bool ok = growth <= kRssGrowthLimit;
        flat = flat && ok;
        std::cout << "  " << std::left << std::setw(22) << who << from << " -> " << to << " (" << std::fixed
                  << std::setprecision(1) << growth * 100 << "%)" << what << (ok ? "" : " GROWS") << "\n";
    };
    std::cout << "RSS (kB)\n";
    for (const auto &[who, samples] : m_rss) {
        if (who.rfind("chassisd", 0) != 0) {
            continue;
        }
        auto first = std::find_if(samples.begin(), samples.end(), [&](const Sample &s) { return s.atS >= warmUp; });
        judge(who, first == samples.end() ? 0 : first->kb, samples.back().kb, ", first after warm-up -> last");
    }
    for (int b = 0; b < 2; b++) {
        const std::string prefix = "board " + std::to_string(b) + " ";
        const long daemons = std::count_if(m_rss.begin(), m_rss.end(),
                                           [&](const auto &e) { return e.first.rfind(prefix, 0) == 0; });
        judge("board " + std::to_string(b) + " daemons", Level(prefix, warmUp, lastThird), Level(prefix, lastThird, runS + 1),
              ", highest of the middle third -> of the last third, " + std::to_string(daemons) + " daemons");
    }
    return flat;
}

int Soak::Run(std::ostream &log)
{
    for (uint32_t t = 1; t <= m_opt.tunnels; t++) {
        m_ctl.IfAdd({"Tunnel" + std::to_string(t), 0u, false, std::string("up"), std::nullopt, {}}); /* may exist */
    }
    const int restartsBefore = Restarts();
    const auto end = m_start + std::chrono::seconds(m_opt.soakSeconds);
    auto nextSample = m_start;
    while (Clock::now() < end && m_rep.failures.empty()) {
        if (Clock::now() >= nextSample) {
            SampleRss();
            nextSample += kSampleEvery;
        }
        Step(log);
    }
    SampleRss();
    Restore();
    Options on = m_opt;
    on.board = WaitMaster(m_ctl, -1);
    std::optional<tc::Client> cfg = on.board >= 0 ? WaitServing(on, m_ctl) : std::nullopt;
    if (cfg) {
        CheckSettled(on, m_ctl, *cfg, m_facts, m_rep);
    } else {
        m_rep.failures.push_back("no master serves at the end");
    }
    const int crashes = Restarts() - restartsBefore;
    std::cout << "soak actions:";
    for (const auto &[what, n] : m_counts) {
        std::cout << " " << what << " " << n << ";";
    }
    std::cout << "\n";
    const bool judged = m_opt.soakSeconds >= kMemoryJudgedFromS;
    const bool flat = MemoryFlat() || !judged;
    std::cout << "requests: " << m_rep.sent << " sent, " << m_rep.acked << " acknowledged, " << m_rep.refused
              << " refused, " << m_rep.lost << " lost\n";
    for (const std::string &f : m_rep.failures) {
        std::cout << "FAILURE " << f << "\n";
    }
    for (const std::string &f : m_rep.findings) {
        std::cout << "FINDING " << f << "\n";
    }
    std::cout << "soak: " << m_opt.soakSeconds << " s, " << crashes << " crashes, " << m_rep.failures.size()
              << " failed checks, memory " << (!judged ? "not judged (run under 10 min)" : flat ? "flat" : "GROWS")
              << " (seed " << m_opt.seed << ")\n";
    return crashes == 0 && m_rep.failures.empty() && flat ? 0 : 1;
}

} // namespace

int RunSoak(const Options &opt)
{
    std::ofstream logFile;
    if (!opt.log.empty()) {
        logFile.open(opt.log);
    }
    std::ostream log(logFile.is_open() ? logFile.rdbuf() : nullptr);
    return Soak(opt).Run(log);
}

} // namespace torture
