/* Failover under load: while the request stream runs, the master board
 * fails; the standby takes over, and once it serves, everything acknowledged
 * must be in its display and database, and its kernel table, LSM and PS must
 * hold exactly what its bundle table asks for after their resynchronisation.
 * The failed board is recovered (it boots as the standby) before the next
 * round. */
#include <chrono>
#include <thread>

#include "chassis_env.h"
#include "torture.h"

namespace torture {

namespace {

using Clock = std::chrono::steady_clock;

} // namespace

bool WaitStandby(tbdl::ctl::Client &ctl, int board, int timeoutMs)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < deadline) {
        Json st = BoardStatus(ctl, board);
        if (st.is_object() && st.value("status", 0) == 2 && st.value("state", "") == "up") {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); /* poll interval, bounded by the deadline */
    }
    return false;
}

namespace {

/* After the request that ends the failed master's answers: a client of the
 * new master, or nullopt with the failure noted. */
std::optional<tc::Client> FollowNewMaster(Options &on, tbdl::ctl::Client &ctl, int failed, PointReport &rep,
                                          Clock::time_point since)
{
    on.board = WaitMaster(ctl, failed);
    std::optional<tc::Client> cfg = on.board >= 0 ? WaitServing(on, ctl) : std::nullopt;
    if (!cfg) {
        rep.failures.push_back("no new master serves after board " + std::to_string(failed) + " failed");
        return std::nullopt;
    }
    rep.crashes = 1;
    rep.recoveryMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
    return cfg;
}

void RunRound(const Options &opt, tbdl::ctl::Client &ctl, std::mt19937 &rng, Facts &facts, PointReport &rep,
              std::ostream &log)
{
    Options on = opt;
    on.board = WaitMaster(ctl, -1);
    std::optional<tc::Client> cfg = on.board >= 0 ? WaitServing(on, ctl) : std::nullopt;
    if (!cfg || !SendFill(opt, *cfg, facts, rep, log)) {
        rep.failures.push_back("no master serves before the round");
        return;
    }
    const int failed = on.board;
    const int failAt = std::uniform_int_distribution<int>(0, opt.requests - 1)(rng);
    std::thread failer;
    Clock::time_point failedAt;
    bool followed = false;
    for (int i = 0; i < opt.requests && cfg; i++) {
        if (i == failAt) {
            /* From its own connection, so the failure lands while requests are in flight. */
            failedAt = Clock::now();
            failer = std::thread([&opt, failed] {
                tbdl::ctl::Client(tbdl::plat::ChassisSocketPathOf(opt.dir)).BoardFail(failed);
            });
        }
        if (!SendAndBook(*cfg, RandomRequest(rng, opt, facts), facts, rep, log)) {
            cfg = i >= failAt ? FollowNewMaster(on, ctl, failed, rep, failedAt) : std::nullopt;
            followed = cfg.has_value();
        }
    }
    if (failer.joinable()) {
        failer.join();
    }
    if (cfg && !followed) { /* every request beat the failure */
        cfg = FollowNewMaster(on, ctl, failed, rep, failedAt);
    }
    if (!cfg) {
        if (rep.failures.empty()) {
            rep.failures.push_back("the master stopped answering before its board failed");
        }
        return;
    }
    CheckSettled(on, ctl, *cfg, facts, rep);
    if (!ctl.BoardRecover(failed) || !WaitStandby(ctl, failed)) {
        rep.failures.push_back("board " + std::to_string(failed) + " does not come back as the standby");
    }
}

} // namespace

void RunFailover(const Options &opt, tbdl::ctl::Client &ctl, std::mt19937 &rng, Facts &facts,
                 std::vector<PointReport> &reps, std::ostream &log)
{
    for (int n = 1; n <= opt.failover; n++) {
        reps.emplace_back();
        reps.back().point = {"board-fail", "round " + std::to_string(n), "ha"};
        RunRound(opt, ctl, rng, facts, reps.back(), log);
    }
}

} // namespace torture
