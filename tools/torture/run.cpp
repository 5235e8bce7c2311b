/* The torture loop: per crash point, plan the crash, send the stream,
 * follow every restart, clear the plan and check the tables. */
#include <chrono>
#include <iomanip>
#include <fstream>
#include <iostream>
#include <set>
#include <thread>

#include "chassis_env.h"
#include "tbdl_errcode.h"
#include "torture.h"

namespace torture {

namespace {

using Clock = std::chrono::steady_clock;

int64_t MsSince(Clock::time_point t)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

/* "[standby:]CALL:before" for a crash point, "CALL KIND" for a failover round. */
std::string Label(const CrashPoint &p)
{
    const std::string call = (p.standby ? "standby:" : "") + p.call;
    return p.kind.rfind("crash-", 0) == 0 ? call + ":" + p.kind.substr(6) : call + " " + p.kind;
}

} // namespace

tc::Outcome<uint32_t> Send(tc::Client &c, const Request &r)
{
    switch (r.op) {
    case Request::Op::CREATE: return c.CreateBundle(r.bnd, r.mode, 0);
    case Request::Op::DELETE: return c.DeleteBundle(r.bnd);
    case Request::Op::SET_ADDR: {
        tc::AddrBlock a{tc::kFamilyIpv4, {}, {10, 0, 0, r.addr}};
        return c.SetAddress(r.bnd, a);
    }
    case Request::Op::DEL_ADDR: return c.RemoveAddress(r.bnd);
    case Request::Op::ADD_MEMB: return c.AddMember(r.bnd, {r.tnl, r.weight, r.role});
    case Request::Op::DEL_MEMB: return c.RemoveMember(r.bnd, r.tnl);
    }
    return tc::Fail("unknown request");
}

/* The request took effect: the bundle of a delete answered "last bundle
 * deleted" is gone all the same. */
bool Acknowledged(const Request &r, uint32_t result)
{
    return result == TBDL_OK || (r.op == Request::Op::DELETE && result == TBDL_E_LAST_BND_DELETED);
}

Json BoardStatus(tbdl::ctl::Client &ctl, int board)
{
    tbdl::ctl::Answer a = ctl.Status();
    for (const Json &b : a ? a.reply.value("boards", Json::array()) : Json::array()) {
        if (b.value("board", -1) == board) {
            return b;
        }
    }
    return nullptr;
}

/* A client of the board's daemon once it reported status 2 and answers a
 * display; nullopt after timeoutMs. A daemon that chassisd gave up on
 * (it died at start-up too often) is restarted. */
std::optional<tc::Client> WaitServing(const Options &opt, tbdl::ctl::Client &ctl, int timeoutMs)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < deadline) {
        Json st = BoardStatus(ctl, opt.board);
        if (st.is_object() && st.value("state", "") == "failed") {
            ctl.BoardRestart(opt.board);
        } else if (st.is_object() && st.value("status", 0) == 2) {
            tc::Outcome<tc::Client> c = tc::Client::Connect(opt.dir, opt.board, 500);
            if (c && c->GetLimits()) {
                return std::move(*c);
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); /* poll interval, bounded by the deadline */
    }
    return std::nullopt;
}

int WaitMaster(tbdl::ctl::Client &ctl, int notBoard, int timeoutMs)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < deadline) {
        tbdl::ctl::Answer a = ctl.Role();
        const int m = a ? a.reply.value("master", -1) : -1;
        if (m >= 0 && m != notBoard) {
            return m;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); /* poll interval, bounded by the deadline */
    }
    return -1;
}

bool SendAndBook(tc::Client &cfg, const Request &r, Facts &facts, PointReport &rep, std::ostream &log)
{
    rep.sent++;
    tc::Outcome<uint32_t> got = Send(cfg, r);
    log << Label(rep.point) << " " << Describe(r) << " -> "
        << (got ? tc::ResultHex(*got) : "no answer: " + got.error()) << "\n";
    if (!got) {
        rep.lost++;
        facts.Unknown(r);
        return false;
    }
    Acknowledged(r, *got) ? (rep.acked++, facts.Acked(r)) : (void)rep.refused++;
    return true;
}

bool Refill(const Options &opt, tc::Client &cfg, Facts &facts, std::ostream &log)
{
    PointReport scratch; /* the point's counts are those of its own stream */
    scratch.point = {"fill", "before the point", ""};
    return SendFill(opt, cfg, facts, scratch, log);
}

bool SendFill(const Options &opt, tc::Client &cfg, Facts &facts, PointReport &rep, std::ostream &log)
{
    static const uint16_t kModes[] = {2, 4, 1}; /* 1:1, 1+1, load balancing */
    std::vector<Request> fill;
    for (uint32_t b = 1; b <= opt.bundles; b++) {
        fill.push_back({Request::Op::CREATE, b, kModes[b % 3]});
    }
    for (uint32_t b = 1; b <= opt.bundles && 2 * b <= opt.tunnels; b++) {
        fill.push_back({Request::Op::ADD_MEMB, b, 0, 2 * b - 1, 1, 0});
        fill.push_back({Request::Op::ADD_MEMB, b, 0, 2 * b, 1, 1});
    }
    for (const Request &r : fill) {
        if (!SendAndBook(cfg, r, facts, rep, log)) {
            return false;
        }
    }
    return true;
}

/* One hit per crash. */
int Hits(tbdl::ctl::Client &ctl, int board, const CrashPoint &p)
{
    tbdl::ctl::Answer a = ctl.Dump("fail");
    for (const Json &b : a ? a.reply.value("boards", Json::array()) : Json::array()) {
        for (const Json &c : b.value("board", -1) == board ? b["calls"] : Json::array()) {
            if (c.value("call", "") == p.call) {
                return c.value("hits", 0);
            }
        }
    }
    return 0;
}

void NoteRecovery(PointReport &rep, Clock::time_point since)
{
    rep.recoveryMs = std::max(rep.recoveryMs, MsSince(since));
}

void SendStream(const Options &opt, tbdl::ctl::Client &ctl, std::mt19937 &rng, Facts &facts, PointReport &rep,
                std::ostream &log, std::optional<tc::Client> &cfg)
{
    for (int i = 0; i < opt.requests && cfg; i++) {
        if (SendAndBook(*cfg, RandomRequest(rng, opt, facts), facts, rep, log)) {
            continue;
        }
        const auto lostAt = Clock::now();
        cfg = WaitServing(opt, ctl);
        NoteRecovery(rep, lostAt);
    }
}

namespace {

void RunPoint(const Options &opt, tbdl::ctl::Client &ctl, std::mt19937 &rng, Facts &facts, PointReport &rep,
              std::ostream &log)
{
    std::optional<tc::Client> cfg = WaitServing(opt, ctl);
    tbdl::ctl::FailSpec spec{opt.board, rep.point.call, false, 1, std::nullopt, rep.point.kind,
                             static_cast<int>(std::uniform_int_distribution<int>(0, opt.skipMax)(rng))};
    if (!cfg || !Refill(opt, *cfg, facts, log) || !ctl.Fail(spec)) {
        rep.failures.push_back(!cfg ? "the daemon does not serve before the point" : "cannot plan the crash");
        return;
    }
    SendStream(opt, ctl, rng, facts, rep, log, cfg);
    /* Not reached by requests: restarts run recovery, download and HA
     * start-up, where the other points are; the calls let through first
     * may take one restart each. */
    for (int k = 0; k <= spec.skip && cfg && Hits(ctl, opt.board, rep.point) == 0; k++) {
        const auto killedAt = Clock::now();
        cfg.reset();
        ctl.BoardKill(opt.board);
        cfg = WaitServing(opt, ctl);
        NoteRecovery(rep, killedAt);
    }
    rep.crashes = Hits(ctl, opt.board, rep.point);
    ctl.FailClear(opt.board);
    cfg = WaitServing(opt, ctl);
    if (!cfg) {
        rep.failures.push_back("the daemon does not serve after the point");
        return;
    }
    /* The restarted daemon resynchronised LSM and PS: nothing the table
     * needs may be missing from them. */
    CheckSettled(opt, ctl, *cfg, facts, rep, Downloads::COMPLETE);
}

/* A finding is reported at the first point that shows it; the entry stays
 * behind for the next points. */
void KeepNewFindings(PointReport &rep, std::set<std::string> &known)
{
    std::vector<std::string> fresh;
    for (const std::string &f : rep.findings) {
        if (known.insert(f).second) {
            fresh.push_back(f);
        }
    }
    rep.findings = std::move(fresh);
}

} // namespace

void PrintSummary(const std::vector<PointReport> &reps)
{
    std::cout << std::left << std::setw(40) << "CRASH POINT" << std::setw(10) << "PATH" << "SENT ACKED REFUSED LOST "
              << "CRASHES RECOVERY_MS RESULT FINDINGS\n";
    for (const PointReport &r : reps) {
        std::cout << std::left << std::setw(40) << Label(r.point) << std::setw(10)
                  << r.point.path << std::setw(5) << r.sent << std::setw(6) << r.acked << std::setw(8) << r.refused
                  << std::setw(5) << r.lost << std::setw(8) << r.crashes << std::setw(12) << r.recoveryMs
                  << std::setw(7) << (r.failures.empty() ? (r.crashes > 0 ? "ok" : "ok-not-reached") : "FAIL")
                  << r.findings.size() << "\n";
    }
    for (const PointReport &r : reps) {
        for (const std::string &f : r.failures) {
            std::cout << "FAILURE " << Label(r.point) << ": " << f << "\n";
        }
        for (const std::string &f : r.findings) {
            std::cout << "FINDING " << Label(r.point) << ": " << f << "\n";
        }
    }
}

int Run(const Options &opt)
{
    if (opt.soakSeconds > 0) {
        return RunSoak(opt);
    }
    tbdl::ctl::Client ctl(tbdl::plat::ChassisSocketPathOf(opt.dir));
    for (uint32_t t = 1; t <= opt.tunnels; t++) {
        ctl.IfAdd({"Tunnel" + std::to_string(t), 0u, false, std::string("up"), std::nullopt, {}}); /* may exist */
    }
    std::ofstream logFile;
    if (!opt.log.empty()) {
        logFile.open(opt.log);
    }
    std::ostream log(logFile.is_open() ? logFile.rdbuf() : nullptr);
    std::mt19937 rng(opt.seed);
    Facts facts;
    std::set<std::string> known;
    std::vector<PointReport> reps;
    for (const CrashPoint &p : opt.points) {
        reps.emplace_back();
        reps.back().point = p;
        p.standby ? RunStandbyPoint(opt, ctl, rng, facts, reps.back(), log)
                  : RunPoint(opt, ctl, rng, facts, reps.back(), log);
        KeepNewFindings(reps.back(), known);
    }
    RunFailover(opt, ctl, rng, facts, reps, log);
    PrintSummary(reps);
    size_t failed = 0;
    size_t findings = 0;
    for (const PointReport &r : reps) {
        failed += r.failures.empty() ? 0 : 1;
        findings += r.findings.size();
    }
    std::cout << "torture: " << reps.size() << (opt.failover > 0 ? " rounds, " : " crash points, ") << failed << " failed, " << findings
              << " findings (seed " << opt.seed << ")\n";
    return failed == 0 ? 0 : 1;
}

} // namespace torture
