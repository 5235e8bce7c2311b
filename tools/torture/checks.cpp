/* After a crash point: the displayed table, the stored records, the facts
 * acknowledged, the master's kernel table, LSM and PS, compared. A table
 * entry that no bundle explains is a finding (the daemon may leave one when
 * it dies between two steps); any other disagreement is a failure. */
#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

#include "chassis_env.h"
#include "chassisctl.h"
#include "dbm_store.h"
#include "torture.h"

namespace torture {

namespace {

std::string Name(uint32_t bnd) { return "Tunnel-Bundle" + std::to_string(bnd); }

void CompareSigs(const Sigs &shown, const Sigs &stored, PointReport &rep)
{
    for (const auto &[k, v] : shown) {
        auto it = stored.find(k);
        if (it == stored.end() || it->second != v) {
            rep.failures.push_back(k + " displayed as '" + v + "', stored as '" +
                                   (it == stored.end() ? "nothing" : it->second) + "'");
        }
    }
    for (const auto &[k, v] : stored) {
        if (shown.count(k) == 0) {
            rep.failures.push_back(k + " stored as '" + v + "' is not displayed");
        }
    }
}

std::set<std::string> MemberNames(const tc::BndDetail &d)
{
    std::set<std::string> s;
    for (const tc::MembDetail &m : d.members) {
        s.insert("Tunnel" + std::to_string(m.uiTnlNum));
    }
    return s;
}

void CheckKernel(const Json &k, const std::map<std::string, tc::BndDetail> &table, PointReport &rep)
{
    std::set<std::string> seen;
    for (const Json &e : k.value("bundles", Json::array())) {
        const std::string name = e.value("name", "");
        std::set<std::string> members;
        for (const Json &m : e.value("member_names", Json::array())) {
            members.insert(m.get<std::string>());
        }
        auto it = table.find(name);
        if (it == table.end()) {
            if (!members.empty()) {
                rep.findings.push_back("kernel entry " + name + " (ifindex " + e.value("ifindex", Json()).dump() +
                                       ") holds members no bundle explains");
            }
            continue;
        }
        seen.insert(name);
        const tc::BndDetail &d = it->second;
        std::set<std::string> want = MemberNames(d);
        std::string extra;
        for (const std::string &m : members) {
            extra += want.count(m) == 0 ? " " + m : "";
        }
        if (!extra.empty()) {
            rep.findings.push_back("kernel entry " + name + " holds" + extra + ", which no member of the bundle explains");
        }
        const bool missing = !std::includes(members.begin(), members.end(), want.begin(), want.end());
        if (!e.value("updated", false) || missing || e.value("state", 0u) != d.ucState ||
            e.value("address", std::string()) != tc::FormatAddr(d.stAddr)) {
            rep.failures.push_back("kernel entry of " + name + " disagrees with the bundle table (state " +
                                   std::to_string(d.ucState) + ", address '" + tc::FormatAddr(d.stAddr) + "', " +
                                   std::to_string(want.size()) + " member(s)): " + e.dump());
        }
    }
    for (const auto &[name, d] : table) {
        if (seen.count(name) == 0) {
            rep.failures.push_back(name + " has no kernel entry");
        }
    }
}

/* LSM and PS entries: each must name a bundle of the table that has
 * members, and PS's pair must be members of that bundle. */
void CheckDownload(const Json &lsm, const Json &ps, const std::map<std::string, tc::BndDetail> &table, PointReport &rep)
{
    for (const Json &e : lsm.value("entries", Json::array())) {
        auto it = table.find(e.value("name", ""));
        if (it == table.end() || it->second.members.empty()) {
            rep.findings.push_back("LSM entry " + e.value("name", "") + " " + e.value("address", "") +
                                   " no bundle with members explains");
        }
    }
    for (const Json &b : ps.value("bundles", Json::array())) {
        auto it = table.find(Name(b.value("bundle", 0u)));
        if (it == table.end()) {
            rep.findings.push_back("PS entry of bundle " + b.value("bundle", Json()).dump() + " no bundle explains");
            continue;
        }
        std::set<std::string> members = MemberNames(it->second);
        for (const char *side : {"working", "protection"}) {
            const std::string m = b.at(side).value("name", "");
            if (!m.empty() && members.count(m) == 0) {
                rep.failures.push_back("PS " + std::string(side) + " path of " + it->first + " is " + m +
                                       ", not a member");
            }
        }
    }
}

/* Primary paths of a bundle's LSM entry: a lone member whatever its role,
 * else one per member that is not a backup (role 1). */
size_t LsmPaths(const tc::BndDetail &d)
{
    if (d.members.size() <= 1) {
        return d.members.size();
    }
    return static_cast<size_t>(
        std::count_if(d.members.begin(), d.members.end(), [](const tc::MembDetail &m) { return m.ucRole != 1; }));
}

/* What a full resynchronisation leaves: an LSM entry with its paths for
 * every bundle with members, a PS entry for every protection
 * bundle with exactly two members, and nothing else. */
void CheckResynced(const Json &lsm, const Json &ps, const std::map<std::string, tc::BndDetail> &table,
                   PointReport &rep)
{
    std::map<std::string, size_t> inLsm;
    for (const Json &e : lsm.value("entries", Json::array())) {
        inLsm[e.value("name", "")] = e.value("path_count", 0u);
    }
    std::set<std::string> inPs;
    for (const Json &b : ps.value("bundles", Json::array())) {
        inPs.insert(Name(b.value("bundle", 0u)));
    }
    for (const auto &[name, d] : table) {
        const bool wantLsm = !d.members.empty();
        const bool wantPs = d.ucMode != 1 && d.members.size() == 2;
        auto it = inLsm.find(name);
        if (wantLsm != (it != inLsm.end())) {
            rep.failures.push_back("LSM " + std::string(wantLsm ? "lacks " : "holds ") + name);
        } else if (wantLsm && it->second != LsmPaths(d)) {
            rep.failures.push_back("LSM entry of " + name + " has " + std::to_string(it->second) + " path(s), not " +
                                   std::to_string(LsmPaths(d)));
        }
        if (wantPs != (inPs.count(name) != 0)) {
            rep.failures.push_back("PS " + std::string(wantPs ? "lacks " : "holds ") + name + " (mode " +
                                   std::to_string(d.ucMode) + ", " + std::to_string(d.members.size()) +
                                   " member(s))");
        }
        inLsm.erase(name);
        inPs.erase(name);
    }
    for (const auto &[name, paths] : inLsm) {
        rep.failures.push_back("LSM holds a stale entry '" + name + "'");
    }
    for (const std::string &name : inPs) {
        rep.failures.push_back("PS holds a stale entry of " + name);
    }
}

bool DumpTables(tbdl::ctl::Client &ctl, int board, Json &k, Json &lsm, Json &ps)
{
    tbdl::ctl::Answer ka = ctl.Dump("ktbdl", board);
    tbdl::ctl::Answer la = ctl.Dump("lsm", board);
    tbdl::ctl::Answer pa = ctl.DumpPs(board, false);
    k = ka.reply;
    lsm = la.reply;
    ps = pa.reply;
    return ka && la && pa;
}

} // namespace

namespace {

/* settled: the download has had time to finish, so LSM and PS must be
 * complete, not only free of contradictions. */
void Check(const Options &opt, tbdl::ctl::Client &ctl, tc::Client &cfg, const Facts &facts, PointReport &rep,
           bool settled)
{
    tc::Outcome<tc::BndWalk> walk = cfg.WalkBundles();
    if (!walk) {
        rep.failures.push_back("the display does not answer: " + walk.error());
        return;
    }
    std::string err;
    std::string dump = tbdl::plat::DumpDatabase(tbdl::plat::DatabasePathOf(opt.dir), true, err,
                                                chassisctl::ReadStoredRecord);
    std::optional<Sigs> stored = err.empty() ? StoredSigs(Json::parse(dump, nullptr, false)) : std::nullopt;
    std::optional<Sigs> shown = ShownSigs(walk->bundles);
    if (!stored) {
        rep.failures.push_back("cannot read the database: " + err);
        return;
    }
    CompareSigs(*shown, *stored, rep);
    for (const std::string &b : facts.Broken(*shown)) {
        rep.failures.push_back("acknowledged request lost: " + b);
    }
    std::map<std::string, tc::BndDetail> table;
    for (const tc::BndDetail &d : walk->bundles) {
        table[Name(d.uiBndNum)] = d;
    }
    Json k;
    Json lsm;
    Json ps;
    if (!DumpTables(ctl, opt.board, k, lsm, ps)) {
        rep.failures.push_back("chassisd does not dump its tables");
        return;
    }
    CheckKernel(k, table, rep);
    CheckDownload(lsm, ps, table, rep);
    if (rep.failures.empty() && settled) {
        CheckResynced(lsm, ps, table, rep);
    }
}

} // namespace

void CheckTables(const Options &opt, tbdl::ctl::Client &ctl, tc::Client &cfg, const Facts &facts, PointReport &rep)
{
    Check(opt, ctl, cfg, facts, rep, false);
}

void CheckSettled(const Options &opt, tbdl::ctl::Client &ctl, tc::Client &cfg, const Facts &facts, PointReport &rep,
                  int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        PointReport round;
        Check(opt, ctl, cfg, facts, round, true);
        if (round.failures.empty() || std::chrono::steady_clock::now() >= deadline) {
            rep.failures.insert(rep.failures.end(), round.failures.begin(), round.failures.end());
            rep.findings.insert(rep.findings.end(), round.findings.begin(), round.findings.end());
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); /* poll interval, bounded by the deadline */
    }
}

} // namespace torture
