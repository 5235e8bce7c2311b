/* Crash points of the standby board's daemon. The standby keeps only its
 * kernel table in step with the master, from the backups the master sends;
 * when its daemon dies and comes back, it rejoins the HA service and the
 * master sends it the whole table again (batch backup). So after the
 * crash: its kernel table must hold every bundle of the master's table with
 * its state, address and members (members that no bundle explains are
 * findings: applying a batch only adds), and a planned switchover to it
 * must serve every acknowledged request with complete LSM and PS. The roles
 * are switched back so that the next point finds the master it expects. */
#include <chrono>
#include <thread>

#include "torture.h"

namespace torture {

namespace {

using Clock = std::chrono::steady_clock;

bool Serves(tbdl::ctl::Client &ctl, int board)
{
    Json st = BoardStatus(ctl, board);
    return st.is_object() && st.value("status", 0) == 2 && st.value("state", "") == "up";
}

/* Both daemons serve and the master counts on its standby (which has
 * joined the HA service again after a restart). */
bool WaitPaired(tbdl::ctl::Client &ctl, int master, int standby, int timeoutMs = 20000)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < deadline) {
        tbdl::ctl::Answer a = ctl.Dump("ha");
        bool paired = a && a.reply.value("master", -1) == master;
        for (const Json &b : a ? a.reply.value("boards", Json::array()) : Json::array()) {
            const int n = b.value("board", -1);
            paired = paired && (n != master || b.value("standby_present", false)) &&
                     (n != standby || b.value("joined", false));
        }
        if (paired && Serves(ctl, standby) && Serves(ctl, master)) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); /* poll interval, bounded by the deadline */
    }
    return false;
}

int Pid(tbdl::ctl::Client &ctl, int board)
{
    Json st = BoardStatus(ctl, board);
    return st.is_object() ? st.value("pid", -1) : -1;
}

/* The standby's daemon was replaced by a new one that serves and rejoined. */
bool WaitRestarted(tbdl::ctl::Client &ctl, int master, int standby, int oldPid, int timeoutMs = 20000)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Pid(ctl, standby) == oldPid && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); /* poll interval, bounded by the deadline */
    }
    return WaitPaired(ctl, master, standby, static_cast<int>(std::max<int64_t>(
                                               0, std::chrono::duration_cast<std::chrono::milliseconds>(
                                                      deadline - Clock::now()).count())));
}

/* Kernel commands the board's kernel module has taken so far. */
uint64_t Commands(tbdl::ctl::Client &ctl, int board)
{
    tbdl::ctl::Answer a = ctl.Dump("ktbdl", board);
    uint64_t n = 0;
    for (const auto &[name, count] : a ? a.reply.value("commands", Json::object()).items() : Json::object().items()) {
        n += name != "refused" && count.is_number() ? count.get<uint64_t>() : 0;
    }
    return n;
}

/* After a restart of the standby's daemon: its batch backup (an update per
 * bundle and an add per member of the master's table) has been applied
 * since `before` commands, or the point has crashed it. */
bool WaitBatchApplied(tbdl::ctl::Client &ctl, tc::Client &cfg, int standby, const CrashPoint &p, uint64_t before,
                      int timeoutMs = 10000)
{
    tc::Outcome<tc::BndWalk> walk = cfg.WalkBundles();
    uint64_t batch = 0;
    for (const tc::BndDetail &d : walk ? walk->bundles : std::vector<tc::BndDetail>{}) {
        batch += 1 + d.members.size();
    }
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < deadline) {
        if (Hits(ctl, standby, p) > 0 || Commands(ctl, standby) >= before + batch) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); /* poll interval, bounded by the deadline */
    }
    return false;
}

/* Messages of the standby's checks say whose table they are about. */
void AddAs(const std::string &who, const PointReport &from, PointReport &to)
{
    for (const std::string &f : from.failures) {
        to.failures.push_back(who + f);
    }
    for (const std::string &f : from.findings) {
        to.findings.push_back(who + f);
    }
}

/* The batch backup runs behind the rejoin: repeated until the standby's
 * kernel table holds the master's bundle table, or timeoutMs. */
void CheckStandbyKernel(tbdl::ctl::Client &ctl, tc::Client &cfg, int standby, PointReport &rep,
                        int timeoutMs = 15000)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        PointReport round;
        tc::Outcome<tc::BndWalk> walk = cfg.WalkBundles();
        tbdl::ctl::Answer k = ctl.Dump("ktbdl", standby);
        if (!walk || !k) {
            round.failures.push_back(!walk ? "the master's display does not answer" : "no kernel table dump");
        } else {
            CheckKernel(k.reply, ByName(walk->bundles), round);
        }
        if (round.failures.empty() || Clock::now() >= deadline) {
            AddAs("standby board " + std::to_string(standby) + ": ", round, rep);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); /* poll interval, bounded by the deadline */
    }
}

/* Switches over to `to` and checks its tables as the master's; then back. */
void CheckAfterSwitchover(const Options &opt, tbdl::ctl::Client &ctl, const Facts &facts, int to, PointReport &rep)
{
    Options on = opt;
    on.board = to;
    tbdl::ctl::Answer sw = WaitPaired(ctl, opt.board, to) ? ctl.Switchover() : tbdl::ctl::Answer{};
    std::optional<tc::Client> cfg = sw ? WaitServing(on, ctl) : std::nullopt;
    if (!cfg) {
        rep.failures.push_back("the switchover to board " + std::to_string(to) + " " +
                               (sw ? "left it not serving" : "was refused: " + sw.error));
        return;
    }
    PointReport after;
    CheckSettled(on, ctl, *cfg, facts, after, Downloads::COMPLETE);
    AddAs("after the switchover to board " + std::to_string(to) + ": ", after, rep);
    cfg.reset();
    if (!WaitPaired(ctl, to, opt.board) || !ctl.Switchover() || !WaitPaired(ctl, opt.board, to)) {
        rep.failures.push_back("cannot switch back to board " + std::to_string(opt.board));
    }
}

} // namespace

void RunStandbyPoint(const Options &opt, tbdl::ctl::Client &ctl, std::mt19937 &rng, Facts &facts, PointReport &rep,
                     std::ostream &log)
{
    const int standby = 1 - opt.board;
    std::optional<tc::Client> cfg = WaitServing(opt, ctl);
    tbdl::ctl::FailSpec spec{standby, rep.point.call, false, 1, std::nullopt, rep.point.kind,
                             static_cast<int>(std::uniform_int_distribution<int>(0, opt.skipMax)(rng))};
    if (!cfg || !WaitPaired(ctl, opt.board, standby) || !Refill(opt, *cfg, facts, log) || !ctl.Fail(spec)) {
        rep.failures.push_back("no master with a standby before the point, or cannot plan the crash");
        return;
    }
    int pid = Pid(ctl, standby); /* the daemon the crash may end */
    SendStream(opt, ctl, rng, facts, rep, log, cfg);
    /* Not reached by the backups of the stream: each restart of the
     * standby's daemon brings a batch backup. */
    for (int k = 0; k <= spec.skip && cfg && Hits(ctl, standby, rep.point) == 0; k++) {
        const auto killedAt = Clock::now();
        const uint64_t before = Commands(ctl, standby);
        ctl.BoardKill(standby);
        if (!WaitRestarted(ctl, opt.board, standby, pid)) {
            break;
        }
        NoteRecovery(rep, killedAt);
        pid = Pid(ctl, standby);
        WaitBatchApplied(ctl, *cfg, standby, rep.point, before);
    }
    rep.crashes = Hits(ctl, standby, rep.point);
    ctl.FailClear(standby);
    if (!cfg) {
        cfg = WaitServing(opt, ctl);
    }
    if (!cfg || !WaitRestarted(ctl, opt.board, standby, rep.crashes > 0 ? pid : -1)) {
        rep.failures.push_back("the master and its standby do not serve after the point");
        return;
    }
    CheckSettled(opt, ctl, *cfg, facts, rep, Downloads::COMPLETE);
    CheckStandbyKernel(ctl, *cfg, standby, rep);
    cfg.reset();
    CheckAfterSwitchover(opt, ctl, facts, standby, rep);
}

} // namespace torture
