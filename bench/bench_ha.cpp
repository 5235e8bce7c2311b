/* HA pair benchmark. A two-board chassis holds N load-balancing bundles of
 * M members (1024 x 8 by default). One run prints:
 *   - the median round trip of a display on the master (the baseline);
 *   - planned switchovers: from the command to the new master answering a
 *     display, and where that time goes by the HA service's step times:
 *     the old master's deactivation (event 0 to its response), the new
 *     master's activation with the recovery of the stored configuration
 *     (event 2 to its response) and the rest (role change, this program
 *     noticing the socket); then the batch backup to the old master (event
 *     1 to its response) and its number of HA sends;
 *   - a failure of the master board: from the failure to the new master
 *     answering a display, and the share of the activation in it.
 * Figures only: nothing here passes or fails on time. */
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <future>
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
    int switchovers = 3;
    bool keep = false;
};

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

class Chassis {
public:
    Chassis(Options opt, std::string dir) : m_opt(std::move(opt)), m_dir(std::move(dir)) {}

    void Start() const
    {
        StartChassis(m_opt.binDir, m_dir, "--boards 0,1 --ha-response-ms 60000", m_opt.keep);
    }

    tbdl::ctl::Client Control(int timeoutMs = 60000) const
    {
        return tbdl::ctl::Client(m_dir + "/chassisd.sock", timeoutMs);
    }

    Clock::time_point WaitAnswers(int board) const { return tbdl::bench::WaitAnswers(m_dir, board); }

    tc::Client Connect(int board) const
    {
        WaitAnswers(board);
        return ConnectBoard(m_dir, board, 10000);
    }

    int Master() const { return Reply(Control().Status(), "status").value("master_board", -1); }

    /* Member adds the board's kernel table holds. */
    std::size_t KernelMembers(int board) const
    {
        std::size_t n = 0;
        const Json table = Reply(Control().Dump("ktbdl", board), "dump ktbdl");
        for (const Json &b : table["bundles"]) {
            n += b["members"].size();
        }
        return n;
    }

    Json Ha() const { return Reply(Control().Dump("ha"), "dump ha"); }

    const Options &opt() const { return m_opt; }

private:
    Options m_opt;
    std::string m_dir;
};

void Populate(const Chassis &ch, tc::Client &client)
{
    const std::uint32_t n = ch.opt().bundles, m = ch.opt().members;
    tbdl::ctl::Client ctl = ch.Control();
    for (std::uint32_t t = 0; t < n * m; t++) {
        AddTunnel(ctl, t + 1);
    }
    for (std::uint32_t b = 0; b < n; b++) {
        tc::Outcome<std::uint32_t> r = client.CreateBundle(b, TBDL_MODE_LOADBALANCING, 0);
        for (std::uint32_t i = 0; r && *r == TBDL_OK && i < m; i++) {
            r = client.AddMember(b, {b * m + i + 1, 1, 0});
        }
        if (!r || *r != TBDL_OK) {
            Die("cannot configure bundle " + std::to_string(b) + ": " + (r ? tc::DescribeResult(*r) : r.error()));
        }
    }
}

/* ms of the step whose text starts with prefix, from the procedure's
 * start; -1 when missing. */
double StepMs(const Json &steps, const std::string &prefix)
{
    for (const Json &s : steps) {
        if (s.value("step", "").rfind(prefix, 0) == 0) {
            return s.value("ms", -1.0);
        }
    }
    return -1;
}

void Switchovers(const Chassis &ch)
{
    std::vector<double> answer, deact, act, batch, sends;
    for (int i = 0; i < ch.opt().switchovers; i++) {
        const int from = ch.Master(), to = 1 - from;
        const double sends0 = ch.Ha().value("batch_sends", 0.0);
        const Clock::time_point t0 = Clock::now();
        auto reply = std::async(std::launch::async, [&ch] { return ch.Control().Switchover(); });
        const double answered = Ms(ch.WaitAnswers(to) - t0);
        const Json steps = Reply(reply.get(), "switchover")["steps"];
        const std::string b1 = "board " + std::to_string(to);
        const double ev2 = StepMs(steps, "event 2 to"), ev1 = StepMs(steps, "event 1 to");
        answer.push_back(answered);
        deact.push_back(StepMs(steps, "board " + std::to_string(from) + " responded to event 0"));
        act.push_back(StepMs(steps, b1 + " responded to event 2") - ev2);
        batch.push_back(StepMs(steps, b1 + " responded to event 1") - ev1);
        sends.push_back(ch.Ha().value("batch_sends", 0.0) - sends0);
        std::printf("switchover %d (board %d to %d): display answered after %.1f ms (goal 150 ms): deactivation "
                    "%.1f ms, activation with recovery %.1f ms (%.0f%%); batch backup %.1f ms in %.0f HA sends\n",
                    i + 1, from, to, answered, deact.back(), act.back(), 100 * act.back() / answered, batch.back(),
                    sends.back());
    }
    std::printf("switchover, median of %zu: display answered %.1f ms = deactivation %.1f + activation with recovery "
                "%.1f + rest %.1f; batch backup %.1f ms in %.0f sends\n",
                answer.size(), Median(answer), Median(deact), Median(act),
                Median(answer) - Median(deact) - Median(act), Median(batch), Median(sends));
}

void Failover(const Chassis &ch)
{
    const int from = ch.Master(), to = 1 - from;
    const Clock::time_point t0 = Clock::now();
    Reply(ch.Control().BoardFail(from), "board fail");
    const double answered = Ms(ch.WaitAnswers(to) - t0);
    Json steps;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(120);
    while (!(steps = ch.Ha()["failover"]).value("done", false) && Clock::now() < deadline) {
        ::poll(nullptr, 0, 5);
    }
    const double act = StepMs(steps["steps"], "board " + std::to_string(to) + " responded to event 2") -
                       StepMs(steps["steps"], "event 2 to");
    std::printf("master board failure (board %d): board %d answered a display after %.1f ms; activation with "
                "recovery %.1f ms (%.0f%%)\n",
                from, to, answered, act, 100 * act / answered);
}

Options ParseOptions(int argc, char **argv)
{
    Options opt;
    CLI::App app{"bench_ha: times planned switchovers and a master board failure on a two-board chassis"};
    AddCommonOptions(app, opt.binDir, opt.keep);
    app.add_option("--bundles", opt.bundles, "load-balancing bundles")->capture_default_str();
    app.add_option("--members", opt.members, "members of each bundle")->capture_default_str();
    app.add_option("--switchovers", opt.switchovers, "planned switchovers (at least 1)")->capture_default_str();
    ParseOrExit(app, argc, argv);
    opt.switchovers = std::max(1, opt.switchovers);
    return opt;
}

} // namespace

int main(int argc, char **argv)
{
    g_name = "bench_ha";
    const Options opt = ParseOptions(argc, argv);
    char tmpl[] = "/tmp/tbdl-bench-ha-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr) {
        Die("cannot make a directory");
    }
    const std::string dir = tmpl;
    Chassis ch(opt, dir);
    std::printf("bench_ha: build %s, chassis %s, %u bundles x %u members\n", opt.binDir.c_str(), dir.c_str(),
                opt.bundles, opt.members);
    ch.Start();
    {
        tc::Client client = ch.Connect(0);
        Populate(ch, client);
        std::vector<double> trips;
        for (int i = 0; i < 200; i++) {
            const Clock::time_point t0 = Clock::now();
            (void)client.GetLimits();
            trips.push_back(Ms(Clock::now() - t0));
        }
        std::printf("display round trip on the master, median of 200 : %8.3f ms\n", Median(trips));
    }
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(120);
    while (ch.KernelMembers(1) < std::size_t{opt.bundles} * opt.members) {
        if (Clock::now() > deadline) {
            Die("the standby's kernel table does not follow the master's (" + std::to_string(ch.KernelMembers(1)) +
                " of " + std::to_string(opt.bundles * opt.members) + " members)");
        }
        ::poll(nullptr, 0, 10);
    }
    Switchovers(ch);
    Failover(ch);
    CleanUp();
    return 0;
}
