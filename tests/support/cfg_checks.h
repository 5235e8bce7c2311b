/* Checks shared by the configuration system tests: the daemon's bundle
 * table (as displayed) compared with a board's kernel table and with the
 * stored records. Header-only: only system test binaries link the client. */
#ifndef TBDL_TEST_CFG_CHECKS_H
#define TBDL_TEST_CFG_CHECKS_H

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
    if (!got) {
        return testing::AssertionFailure() << got.error();
    }
    if (*got != want) {
        return testing::AssertionFailure() << "answered " << tc::DescribeResult(*got) << ", expected "
                                           << tc::DescribeResult(want);
    }
    return testing::AssertionSuccess();
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

/* A client on the chassis's master board. */
inline tc::Outcome<tc::Client> Connect(const Chassis &chassis) { return tc::Client::Connect(chassis.dir(), std::nullopt); }

/* Waits until the master board's configuration socket answers a display. */
inline bool WaitCfgAnswers(const Chassis &chassis, int timeoutMs = 15000)
{
    return systest::WaitUntil(
        [&] {
            tc::Outcome<tc::Client> c = tc::Client::Connect(chassis.dir(), std::nullopt, 500);
            return c && c->GetLimits();
        },
        timeoutMs, 5);
}

/* chassisctl if add Tunnel<n> --mode m --state up|down [--vrf v]. */
inline testing::AssertionResult AddTunnel(const Chassis &chassis, std::uint32_t n, std::uint32_t mode = 0,
                                          bool up = true, std::uint16_t vrf = 0)
{
    std::vector<std::string> args{"if",      "add", "Tunnel" + std::to_string(n), "--mode", std::to_string(mode),
                                  "--state", up ? "up" : "down"};
    if (vrf != 0) {
        args.push_back("--vrf");
        args.push_back(std::to_string(vrf));
    }
    return Exited(chassis.Ctl(args), 0);
}

/* name -> interface index of every interface of the chassis. */
inline std::map<std::string, std::uint32_t> IfIndexes(const Chassis &chassis)
{
    std::map<std::string, std::uint32_t> m;
    Json j = chassis.CtlJson({"dump", "if"});
    if (j.is_object() && j.contains("interfaces")) {
        for (const Json &i : j["interfaces"]) {
            m[i.at("name").get<std::string>()] = i.at("ifindex").get<std::uint32_t>();
        }
    }
    return m;
}

inline std::string BndName(std::uint32_t n) { return "Tunnel-Bundle" + std::to_string(n); }
inline std::string TnlName(std::uint32_t n) { return "Tunnel" + std::to_string(n); }

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

/* The board's kernel table agrees with the daemon's bundle table: every
 * bundle was pushed with its state, tunnel mode and address, and holds
 * exactly the bundle's members; a kernel entry of an interface that is no
 * longer a bundle of the daemon holds no members. Bundles in skip are
 * left out. */
inline testing::AssertionResult KtbdlMatches(const Chassis &chassis, tc::Client &client, int board = 0,
                                             const std::set<std::uint32_t> &skip = {})
{
    std::optional<std::map<std::uint32_t, tc::BndDetail>> table = Table(client);
    if (!table) {
        return testing::AssertionFailure() << "no bundle table";
    }
    const std::map<std::string, std::uint32_t> ifs = IfIndexes(chassis);
    Json k = chassis.CtlJson({"dump", "ktbdl", "--board", std::to_string(board)});
    if (!k.is_object() || !k.contains("bundles")) {
        return testing::AssertionFailure() << "no kernel table of board " << board;
    }
    std::map<std::uint32_t, Json> kernel;
    for (const Json &e : k["bundles"]) {
        kernel[e.at("ifindex").get<std::uint32_t>()] = e;
    }
    std::ostringstream bad;
    std::set<std::uint32_t> bundleIdx;
    for (const auto &[n, d] : *table) {
        auto idx = ifs.find(BndName(n));
        if (idx == ifs.end()) {
            bad << BndName(n) << " has no interface; ";
            continue;
        }
        bundleIdx.insert(idx->second);
        if (skip.count(n) != 0) {
            continue;
        }
        auto e = kernel.find(idx->second);
        if (e == kernel.end() || !e->second.value("updated", false)) {
            bad << BndName(n) << " never reached the kernel; ";
            continue;
        }
        const Json &j = e->second;
        /* state / tunnel mode / family / address */
        auto sig = [](auto st, auto tm, auto fam, const std::string &addr) {
            return std::to_string(st) + "/" + std::to_string(tm) + "/" + std::to_string(fam) + "/" + addr;
        };
        const std::string inKernel = sig(j.at("state").get<std::uint32_t>(), j.at("tnl_mode").get<std::uint32_t>(),
                                         j.at("family").get<std::uint32_t>(), j.at("address").get<std::string>());
        const std::string shown = sig(std::uint32_t{d.ucState}, std::uint32_t{d.usTnlMode},
                                      std::uint32_t{d.stAddr.usFamily}, tc::FormatAddr(d.stAddr));
        if (inKernel != shown) {
            bad << BndName(n) << " is " << inKernel << " in the kernel, " << shown << " shown; ";
        }
        std::set<std::uint32_t> want;
        for (const tc::MembDetail &m : d.members) {
            auto mi = ifs.find(TnlName(m.uiTnlNum));
            want.insert(mi == ifs.end() ? 0 : mi->second);
        }
        std::vector<std::uint32_t> got = j.at("members").get<std::vector<std::uint32_t>>();
        if (std::set<std::uint32_t>(got.begin(), got.end()) != want || got.size() != want.size()) {
            bad << BndName(n) << " members " << j["members"] << " in the kernel, " << want.size() << " shown; ";
        }
    }
    for (const auto &[idx, j] : kernel) {
        if (bundleIdx.count(idx) == 0 && !j.at("members").empty()) {
            bad << "kernel entry " << idx << " (" << j.value("name", "") << ") of no bundle holds members "
                << j["members"] << "; ";
        }
    }
    return bad.str().empty() ? testing::AssertionSuccess() : testing::AssertionFailure() << bad.str();
}

/* Stored records, decoded from chassisctl's database dump. */
struct StoredBnd {
    std::uint16_t usFamily = 0;
    std::string addr; /* 4 address bytes as hex */
    std::uint8_t ucMode = 0;
    std::uint8_t ucTnlMode = 0;
    std::uint16_t usVrf = 0;
};
struct StoredMemb {
    std::uint16_t usWeight = 0;
    std::uint8_t ucRole = 0;
    std::uint16_t usVrf = 0;
};
struct Stored {
    std::map<std::uint32_t, StoredBnd> bundles;
    std::map<std::uint32_t, std::map<std::uint32_t, StoredMemb>> members; /* bundle -> tunnel -> record */
};

inline std::optional<Stored> ReadStored(const Chassis &chassis)
{
    Json j = chassis.CtlJson({"dump", "db"});
    if (!j.is_object() || !j.contains("databases")) {
        return std::nullopt;
    }
    auto be = [](const tc::Bytes &b, std::size_t off, std::size_t len) {
        std::uint32_t v = 0;
        for (std::size_t i = 0; i < len; i++) {
            v = (v << 8) | b[off + i];
        }
        return v;
    };
    Stored s;
    for (const Json &db : j["databases"]) {
        if (db.value("name", "") != "eTBDL") {
            continue;
        }
        for (const Json &list : db["lists"]) {
            std::optional<tc::Bytes> key = tc::FromHex(list.at("key").get<std::string>());
            if (!key || key->empty()) {
                return std::nullopt;
            }
            for (const Json &rec : list["records"]) {
                std::optional<tc::Bytes> r = tc::FromHex(rec.get<std::string>());
                if (!r) {
                    return std::nullopt;
                }
                if ((*key)[0] == 1 && key->size() == 1 && r->size() == 32) {
                    StoredBnd b;
                    b.usFamily = static_cast<std::uint16_t>(be(*r, 0, 2));
                    b.addr = tc::ToHex(r->data() + 4, 4);
                    b.ucMode = (*r)[24];
                    b.ucTnlMode = (*r)[25];
                    b.usVrf = static_cast<std::uint16_t>(be(*r, 28, 2));
                    s.bundles[be(*r, 20, 4)] = b;
                } else if ((*key)[0] == 2 && key->size() == 5 && r->size() == 12) {
                    StoredMemb m;
                    m.usWeight = static_cast<std::uint16_t>(be(*r, 4, 2));
                    m.ucRole = (*r)[6];
                    m.usVrf = static_cast<std::uint16_t>(be(*r, 8, 2));
                    s.members[be(*key, 1, 4)][be(*r, 0, 4)] = m;
                } else {
                    return std::nullopt;
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
    std::optional<Stored> stored = ReadStored(chassis);
    if (!table || !stored) {
        return testing::AssertionFailure() << "cannot read the table or the database";
    }
    std::ostringstream bad;
    for (const auto &[n, d] : *table) {
        auto b = stored->bundles.find(n);
        if (b == stored->bundles.end()) {
            bad << BndName(n) << " is not stored; ";
            continue;
        }
        if (b->second.ucMode != d.ucMode || b->second.ucTnlMode != d.usTnlMode ||
            b->second.usFamily != d.stAddr.usFamily || b->second.addr != tc::ToHex(d.stAddr.aucAddr.data(), 4)) {
            bad << BndName(n) << " stored differently; ";
        }
        std::map<std::uint32_t, StoredMemb> members;
        if (auto m = stored->members.find(n); m != stored->members.end()) {
            members = m->second;
        }
        if (members.size() != d.members.size()) {
            bad << BndName(n) << " has " << members.size() << " stored members, " << d.members.size()
                << " shown; ";
        }
        for (const tc::MembDetail &m : d.members) {
            auto sm = members.find(m.uiTnlNum);
            if (sm == members.end() || sm->second.usWeight != m.usWeight || sm->second.ucRole != m.ucRole) {
                bad << TnlName(m.uiTnlNum) << " of " << BndName(n) << " stored differently; ";
            }
        }
    }
    for (const auto &[n, b] : stored->bundles) {
        if (table->count(n) == 0) {
            bad << "stored " << BndName(n) << " is not in the table; ";
        }
    }
    for (const auto &[n, m] : stored->members) {
        if (table->count(n) == 0 && !m.empty()) {
            bad << "members of " << BndName(n) << " stored without the bundle; ";
        }
    }
    return bad.str().empty() ? testing::AssertionSuccess() : testing::AssertionFailure() << bad.str();
}

/* Starts a chassis with the real board daemon and waits until the master's
 * configuration socket answers. */
inline testing::AssertionResult StartWithDaemon(Chassis &chassis, const std::vector<std::string> &args = {})
{
    if (!Chassis::HaveRealDaemon()) {
        return testing::AssertionFailure() << "no board daemon at " << Chassis::RealDaemon();
    }
    chassis.UseDaemon(Chassis::RealDaemon());
    ProcRun run = chassis.Start(args);
    if (run.status != 0) {
        return testing::AssertionFailure() << "chassis did not start: " << run.err << run.out;
    }
    if (!WaitCfgAnswers(chassis)) {
        return testing::AssertionFailure() << "the configuration socket does not answer";
    }
    return testing::AssertionSuccess();
}

}  // namespace tbdl::cfgtest

#endif
