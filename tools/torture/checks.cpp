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

} // namespace

void CheckKernel(const Json &k, const BndTable &table, PointReport &rep)
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

namespace {

/* LSM and PS entries: each must name a bundle of the table that has
 * members, and PS's pair must be members of that bundle. */
void CheckDownload(const Json &lsm, const Json &ps, const BndTable &table, PointReport &rep)
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

/* One target's entries against what the bundle table asks for: a missing
 * or different entry fails; an entry nothing asks for fails only when
 * strict (a full resynchronisation leaves none), else the stale check
 * above reports it. */
void CompareTarget(const char *target, const Sigs &want, const Sigs &held, bool strict, PointReport &rep)
{
    for (const auto &[name, sig] : want) {
        auto it = held.find(name);
        if (it == held.end()) {
            rep.failures.push_back(std::string(target) + " lacks " + name + " ('" + sig + "')");
        } else if (it->second != sig) {
            rep.failures.push_back(std::string(target) + " entry of " + name + " is '" + it->second + "', not '" +
                                   sig + "'");
        }
    }
    for (const auto &[name, sig] : held) {
        if (strict && want.count(name) == 0) {
            rep.failures.push_back(std::string(target) + " holds a stale entry of " + name + " ('" + sig + "')");
        }
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

/* The download has had time to finish: LSM and PS must be complete, not
 * only free of contradictions. */
void Check(const Options &opt, tbdl::ctl::Client &ctl, tc::Client &cfg, const Facts &facts, PointReport &rep,
           Downloads want)
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
    const BndTable table = ByName(walk->bundles);
    Json k;
    Json lsm;
    Json ps;
    if (!DumpTables(ctl, opt.board, k, lsm, ps)) {
        rep.failures.push_back("chassisd does not dump its tables");
        return;
    }
    CheckKernel(k, table, rep);
    CheckDownload(lsm, ps, table, rep);
    const DownloadSigs wanted = WantedDownloads(walk->bundles);
    const DownloadSigs held = HeldDownloads(lsm, ps);
    CompareTarget("LSM", wanted.lsm, held.lsm, want == Downloads::EXACT, rep);
    CompareTarget("PS", wanted.ps, held.ps, want == Downloads::EXACT, rep);
}

} // namespace

BndTable ByName(const std::vector<tc::BndDetail> &bundles)
{
    BndTable table;
    for (const tc::BndDetail &d : bundles) {
        table[Name(d.uiBndNum)] = d;
    }
    return table;
}

void CheckSettled(const Options &opt, tbdl::ctl::Client &ctl, tc::Client &cfg, const Facts &facts, PointReport &rep,
                  Downloads want, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        PointReport round;
        Check(opt, ctl, cfg, facts, round, want);
        if (round.failures.empty() || std::chrono::steady_clock::now() >= deadline) {
            rep.failures.insert(rep.failures.end(), round.failures.begin(), round.failures.end());
            rep.findings.insert(rep.findings.end(), round.findings.begin(), round.findings.end());
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); /* poll interval, bounded by the deadline */
    }
}

} // namespace torture
