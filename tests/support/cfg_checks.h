/* Checks shared by the configuration system tests: the daemon's bundle
 * table (as displayed) compared with a board's kernel table and with the
 * stored records. Header-only: only system test binaries link the client. */
#ifndef TBDL_TEST_CFG_CHECKS_H
#define TBDL_TEST_CFG_CHECKS_H

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "chassis_harness.h"
#include "tbdl_client.h"
#include "tbdl_errcode.h"

namespace tbdl::cfgtest {

namespace tc = tbdl::client;
using systest::Chassis;
using systest::Json;
using systest::ProcRun;

/* The daemon answered exactly want. */
inline testing::AssertionResult Answers(const tc::Outcome<std::uint32_t> &got, std::uint32_t want)
{
    if (got && *got == want) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << (got ? "answered " + tc::DescribeResult(*got) : got.error())
                                       << ", expected " << tc::DescribeResult(want);
}

/* A program run ended with the status. */
inline testing::AssertionResult Exited(const ProcRun &run, int status)
{
    if (run.status == status) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "exit status " << run.status << " (expected " << status << ")\nstdout: "
                                       << run.out << "\nstderr: " << run.err;
}

/* Waits until the master board's configuration socket answers a display. */
inline bool WaitCfgAnswers(const Chassis &chassis, int timeoutMs = 15000)
{
    auto answers = [&] {
        tc::Outcome<tc::Client> c = tc::Client::Connect(chassis.dir(), std::nullopt, 500);
        return c && c->GetLimits();
    };
    return systest::WaitUntil(answers, timeoutMs, 5);
}

/* chassisctl if add Tunnel<n> --mode m --state up|down. */
inline testing::AssertionResult AddTunnel(const Chassis &chassis, std::uint32_t n, std::uint32_t mode = 0, bool up = true)
{
    return Exited(chassis.Ctl({"if", "add", "Tunnel" + std::to_string(n), "--mode", std::to_string(mode), "--state",
                               up ? "up" : "down"}),
                  0);
}

/* name -> interface index of every interface of the chassis. */
inline std::map<std::string, std::uint32_t> IfIndexes(const Chassis &chassis)
{
    std::map<std::string, std::uint32_t> m;
    Json j = chassis.CtlJson({"dump", "if"});
    for (const Json &i : j.is_object() ? j.value("interfaces", Json::array()) : Json::array()) {
        m[i.at("name").get<std::string>()] = i.at("ifindex").get<std::uint32_t>();
    }
    return m;
}

inline std::string BndName(std::uint32_t n) { return "Tunnel-Bundle" + std::to_string(n); }

/* The daemon's table as its paged display shows it, by bundle number. */
inline std::optional<std::map<std::uint32_t, tc::BndDetail>> Table(tc::Client &client)
{
    tc::Outcome<tc::BndWalk> walk = client.WalkBundles();
    if (!walk) {
        ADD_FAILURE() << walk.error();
        return std::nullopt;
    }
    std::map<std::uint32_t, tc::BndDetail> m;
    for (tc::BndDetail &d : walk->bundles) {
        m[d.uiBndNum] = std::move(d);
    }
    return m;
}

/* Signatures by name, as shown and as found. */
using Sigs = std::map<std::string, std::string>;

/* Every name has the same signature in found as shown, and nothing else is found. */
inline testing::AssertionResult SameSigs(const Sigs &shown, const Sigs &found)
{
    std::ostringstream bad;
    for (const auto &[name, sig] : shown) {
        auto f = found.find(name);
        if (f == found.end() || f->second != sig) {
            bad << name << " shown as '" << sig << "', found " << (f == found.end() ? "nothing" : f->second) << "; ";
        }
    }
    for (const auto &[name, sig] : found) {
        if (shown.count(name) == 0) {
            bad << name << " found as '" << sig << "' is not shown; ";
        }
    }
    return bad.str().empty() ? testing::AssertionSuccess() : testing::AssertionFailure() << bad.str();
}

/* "state/tunnel mode/family/address members m1 m2 ..." with the members
 * sorted (the order they reach the kernel may differ). */
inline std::string KernelSig(std::uint32_t st, std::uint32_t tm, std::uint32_t fam, const std::string &addr,
                             std::vector<std::string> members)
{
    std::sort(members.begin(), members.end());
    std::string s = std::to_string(st) + "/" + std::to_string(tm) + "/" + std::to_string(fam) + "/" + addr + " members";
    for (const std::string &m : members) {
        s += " " + m;
    }
    return s;
}

/* The board's kernel table agrees with the daemon's bundle table: every
 * bundle was pushed with its state, tunnel mode and address, and holds
 * exactly the bundle's members; a kernel entry of an interface that is no
 * longer a bundle of the daemon holds no members. Bundles in skip are
 * left out. */
inline testing::AssertionResult KtbdlMatches(const Chassis &chassis, tc::Client &client, int board = 0,
                                             const std::set<std::uint32_t> &skip = {})
{
    std::optional<std::map<std::uint32_t, tc::BndDetail>> table = Table(client);
    Json k = chassis.CtlJson({"dump", "ktbdl", "--board", std::to_string(board)});
    if (!table || !k.is_object() || !k.contains("bundles")) {
        return testing::AssertionFailure() << "no bundle table or no kernel table of board " << board;
    }
    Sigs shown, found;
    std::set<std::string> bundles;
    for (const auto &[n, d] : *table) {
        bundles.insert(BndName(n));
        std::vector<std::string> members;
        for (const tc::MembDetail &m : d.members) {
            members.push_back("Tunnel" + std::to_string(m.uiTnlNum));
        }
        if (skip.count(n) == 0) {
            shown[BndName(n)] = KernelSig(d.ucState, d.usTnlMode, d.stAddr.usFamily, tc::FormatAddr(d.stAddr), members);
        }
    }
    /* The dump names each index; an unnamed one stands as its number. */
    auto named = [](const Json &name, const Json &idx) {
        return name.get<std::string>().empty() ? "interface " + idx.dump() : name.get<std::string>();
    };
    for (const Json &e : k["bundles"]) {
        const std::string name = named(e.at("name"), e.at("ifindex"));
        std::vector<std::string> members;
        for (std::size_t i = 0; i < e.at("members").size(); i++) {
            members.push_back(named(e.at("member_names").at(i), e["members"][i]));
        }
        if (bundles.count(name) == 0 && !members.empty()) {
            found["kernel entry of " + name] = KernelSig(0, 0, 0, "", members);
        } else if (shown.count(name) != 0 && e.value("updated", false)) {
            found[name] = KernelSig(e.at("state"), e.at("tnl_mode"), e.at("family"), e.at("address"), members);
        }
    }
    return SameSigs(shown, found);
}

/* Stored records, as chassisctl's database dump reads them, by name:
 * "Tunnel-Bundle<n>" -> "mode M tnl T family F addr A" and
 * "Tunnel-Bundle<n> Tunnel<t>" -> "weight W role R". */
inline std::string BndSig(unsigned mode, unsigned tnlMode, unsigned family, const std::string &addr)
{
    return "mode " + std::to_string(mode) + " tnl " + std::to_string(tnlMode) + " family " + std::to_string(family) +
           " addr " + addr;
}

inline std::string MembKey(std::uint32_t bnd, std::uint32_t tnl) { return BndName(bnd) + " Tunnel" + std::to_string(tnl); }
inline std::string MembSig(unsigned weight, unsigned role)
{
    return "weight " + std::to_string(weight) + " role " + std::to_string(role);
}

inline std::optional<Sigs> ReadStored(const Chassis &chassis)
{
    Json j = chassis.CtlJson({"dump", "db"});
    if (!j.is_object() || !j.contains("databases")) {
        return std::nullopt;
    }
    Sigs s;
    for (const Json &db : j["databases"]) {
        for (const Json &list : db.value("name", "") == "eTBDL" ? db["lists"] : Json::array()) {
            if (list.at("decoded").size() != list.at("records").size()) {
                return std::nullopt;
            }
            for (const Json &r : list["decoded"]) {
                if (!r.is_object()) {
                    return std::nullopt;
                }
                if (r.contains("tunnel")) {
                    s[MembKey(r.at("bundle"), r.at("tunnel"))] = MembSig(r.at("weight"), r.at("role"));
                } else {
                    s[BndName(r.at("bundle"))] = BndSig(r.at("mode"), r.at("tnl_mode"), r.at("family"), r.at("address"));
                }
            }
        }
    }
    return s;
}

/* The stored records describe exactly the daemon's table: one bundle record
 * per bundle with its mode, tunnel mode and address, one member record per
 * member with its weight and role, nothing else. */
inline testing::AssertionResult StoreMatches(const Chassis &chassis, tc::Client &client)
{
    std::optional<std::map<std::uint32_t, tc::BndDetail>> table = Table(client);
    std::optional<Sigs> stored = ReadStored(chassis);
    if (!table || !stored) {
        return testing::AssertionFailure() << "cannot read the table or the database";
    }
    Sigs want;
    for (const auto &[n, d] : *table) {
        want[BndName(n)] = BndSig(d.ucMode, d.usTnlMode, d.stAddr.usFamily, tc::FormatAddr(d.stAddr));
        for (const tc::MembDetail &m : d.members) {
            want[MembKey(n, m.uiTnlNum)] = MembSig(m.usWeight, m.ucRole);
        }
    }
    return SameSigs(want, *stored);
}

/* The kernel table of board 0 and the stored records agree with the table. */
inline testing::AssertionResult Consistent(const Chassis &chassis, tc::Client &client)
{
    testing::AssertionResult k = KtbdlMatches(chassis, client);
    return k ? StoreMatches(chassis, client) : k;
}

/* Starts a chassis with the real board daemon and waits until the master's
 * configuration socket answers. */
inline testing::AssertionResult StartWithDaemon(Chassis &chassis, const std::vector<std::string> &args = {})
{
    chassis.UseRealDaemon();
    ProcRun run = chassis.Start(args);
    if (run.status != 0) {
        return testing::AssertionFailure() << "chassis did not start: " << run.err << run.out;
    }
    if (!WaitCfgAnswers(chassis)) {
        return testing::AssertionFailure() << "the configuration socket does not answer";
    }
    return testing::AssertionSuccess();
}

/* A chassis with the real board daemon per test, started with the
 * chassisd options given, and a client on its master board. */
class DaemonTest : public testing::Test {
protected:
    explicit DaemonTest(const std::string &tag, std::vector<std::string> args = {})
        : m_chassis(tag), m_args(std::move(args))
    {
    }
    void SetUp() override
    {
        ASSERT_TRUE(StartWithDaemon(m_chassis, m_args));
        ASSERT_TRUE(Reconnect());
    }
    /* A fresh client, for a new daemon process. */
    testing::AssertionResult Reconnect()
    {
        m_client.reset();
        tc::Outcome<tc::Client> c = tc::Client::Connect(m_chassis.dir(), std::nullopt);
        if (!c) {
            return testing::AssertionFailure() << c.error();
        }
        m_client.emplace(std::move(*c));
        return testing::AssertionSuccess();
    }

    Chassis m_chassis;
    std::vector<std::string> m_args;
    std::optional<tc::Client> m_client;
};

}  // namespace tbdl::cfgtest

#endif
