/* What LSM and PS must hold for a bundle table, and what a board's LSM and
 * PS dumps show, both as one signature per bundle name, so that a missing
 * or wrong entry is a plain map difference. */
#include <algorithm>

#include "tbdl_types.h"
#include "torture.h"

namespace torture {

namespace {

std::string Name(uint32_t bnd) { return "Tunnel-Bundle" + std::to_string(bnd); }

/* "mode primary TunnelA/wW ... [backup TunnelB/wW]", the primaries sorted
 * (the order of the paths is not part of the entry's meaning). */
std::string LspSig(const std::string &mode, std::vector<std::string> primary, const std::string &backup)
{
    std::sort(primary.begin(), primary.end());
    std::string sig = mode + " primary";
    for (const std::string &p : primary) {
        sig += " " + p;
    }
    return backup.empty() ? sig : sig + " backup " + backup;
}

std::string LsmMode(unsigned mode)
{
    return mode == TBDL_MODE_ONETOONE ? "1:1" : mode == TBDL_MODE_ONEPLUSONE ? "1+1" : "load balancing";
}

/* A lone member is primary whatever its role; otherwise a role-1 member is
 * path 0's backup. */
std::string WantedLsp(const tc::BndDetail &d)
{
    std::vector<std::string> primary;
    std::string backup;
    for (const tc::MembDetail &m : d.members) {
        std::string half = "Tunnel" + std::to_string(m.uiTnlNum) + "/w" + std::to_string(m.usWeight);
        if (m.ucRole == 1 && d.members.size() > 1) {
            backup = half;
        } else {
            primary.push_back(half);
        }
    }
    return LspSig(LsmMode(d.ucMode), primary, backup);
}

std::string PsMember(const tc::MembDetail &m)
{
    return "Tunnel" + std::to_string(m.uiTnlNum) + (m.ucState == 1 ? " up" : " down");
}

/* The working member is the one of role 0. */
std::string WantedPs(const tc::BndDetail &d)
{
    const bool firstWorks = d.members[0].ucRole == 0;
    return std::string(d.ucMode == TBDL_MODE_ONEPLUSONE ? "1+1" : "1:1") + " working " +
           PsMember(d.members[firstWorks ? 0 : 1]) + ", protection " + PsMember(d.members[firstWorks ? 1 : 0]);
}

std::string HeldHalf(const Json &h) { return h.value("name", "") + "/w" + h.value("weight", Json()).dump(); }

std::string HeldPsMember(const Json &m) { return m.value("name", "") + (m.value("up", false) ? " up" : " down"); }

} // namespace

DownloadSigs WantedDownloads(const std::vector<tc::BndDetail> &table)
{
    DownloadSigs want;
    for (const tc::BndDetail &d : table) {
        if (!d.members.empty()) {
            want.lsm[Name(d.uiBndNum)] = WantedLsp(d);
        }
        if (d.ucMode != TBDL_MODE_LOADBALANCING && d.members.size() == 2) {
            want.ps[Name(d.uiBndNum)] = WantedPs(d);
        }
    }
    return want;
}

DownloadSigs HeldDownloads(const Json &lsm, const Json &ps)
{
    DownloadSigs held;
    for (const Json &e : lsm.value("entries", Json::array())) {
        std::vector<std::string> primary;
        for (const Json &p : e.value("paths", Json::array())) {
            primary.push_back(HeldHalf(p));
        }
        std::string sig = LspSig(e.value("mode", ""), primary, e.contains("backup") ? HeldHalf(e["backup"]) : "");
        /* The backup half is used only when path 0 says it has one. */
        if (e.contains("backup") != (e.value("flag_names", Json()) == Json::array({"has-backup"}))) {
            sig += " flags " + e.value("flag_names", Json()).dump();
        }
        held.lsm[e.value("name", "")] = sig;
    }
    for (const Json &b : ps.value("bundles", Json::array())) {
        held.ps[Name(b.value("bundle", 0u))] = b.value("protection_kind", "") + " working " +
                                              HeldPsMember(b.value("working", Json::object())) + ", protection " +
                                              HeldPsMember(b.value("protection", Json::object()));
    }
    return held;
}

} // namespace torture
