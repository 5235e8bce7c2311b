/* The random request stream and what its acknowledged requests establish. */
#include <cstdio>
#include <tuple>

#include "torture.h"

namespace torture {

namespace {
const uint16_t kModes[] = {1, 2, 4}; /* load balancing, 1:1, 1+1 */

std::string BndKey(uint32_t b) { return "B" + std::to_string(b); }
std::string AddrKey(uint32_t b) { return "A" + std::to_string(b); }
std::string MembKey(uint32_t b, uint32_t t) { return "M" + std::to_string(b) + "/" + std::to_string(t); }
std::string BndSig(unsigned mode, unsigned tnlMode) { return std::to_string(mode) + "/" + std::to_string(tnlMode); }
std::string MembSig(unsigned w, unsigned r) { return std::to_string(w) + "/" + std::to_string(r); }
std::string AddrOf(uint8_t last) { return "10.0.0." + std::to_string(last); }
} // namespace

Request RandomRequest(std::mt19937 &rng, const Options &opt, const Facts &facts)
{
    auto pick = [&rng](uint32_t lo, uint32_t hi) { return std::uniform_int_distribution<uint32_t>(lo, hi)(rng); };
    /* Creates and member adds come more often than removals, so tables grow. */
    static const Request::Op kOps[] = {Request::Op::CREATE,   Request::Op::CREATE,   Request::Op::ADD_MEMB,
                                       Request::Op::ADD_MEMB, Request::Op::ADD_MEMB, Request::Op::SET_ADDR,
                                       Request::Op::SET_ADDR, Request::Op::DEL_ADDR, Request::Op::DEL_MEMB,
                                       Request::Op::DELETE};
    Request r{kOps[pick(0, std::size(kOps) - 1)]};
    r.bnd = pick(1, opt.bundles);
    r.mode = kModes[pick(0, 2)];
    r.tnl = pick(1, opt.tunnels);
    r.weight = static_cast<uint16_t>(pick(1, 4));
    r.role = static_cast<uint8_t>(pick(0, 1));
    r.addr = static_cast<uint8_t>(pick(1, 254));
    const std::vector<std::pair<uint32_t, uint32_t>> members = facts.Members();
    if (r.op == Request::Op::DEL_MEMB && !members.empty() && pick(0, 3) != 0) {
        std::tie(r.bnd, r.tnl) = members[pick(0, static_cast<uint32_t>(members.size() - 1))];
    }
    return r;
}

std::vector<std::pair<uint32_t, uint32_t>> Facts::Members() const
{
    std::vector<std::pair<uint32_t, uint32_t>> v;
    for (const auto &[key, val] : m_facts) {
        unsigned b = 0;
        unsigned t = 0;
        if (!val.empty() && std::sscanf(key.c_str(), "M%u/%u", &b, &t) == 2) {
            v.emplace_back(b, t);
        }
    }
    return v;
}

std::string Describe(const Request &r)
{
    const std::string b = "bundle " + std::to_string(r.bnd);
    switch (r.op) {
    case Request::Op::CREATE: return "create " + b + " mode " + std::to_string(r.mode);
    case Request::Op::DELETE: return "delete " + b;
    case Request::Op::SET_ADDR: return "address " + b + " " + AddrOf(r.addr);
    case Request::Op::DEL_ADDR: return "remove address " + b;
    case Request::Op::ADD_MEMB:
        return "member add " + b + " Tunnel" + std::to_string(r.tnl) + " weight " + std::to_string(r.weight) +
               " role " + std::to_string(r.role);
    case Request::Op::DEL_MEMB: return "member remove " + b + " Tunnel" + std::to_string(r.tnl);
    }
    return "?";
}

void Facts::Forget(uint32_t bnd)
{
    for (auto it = m_facts.begin(); it != m_facts.end();) {
        it = it->first.rfind("M" + std::to_string(bnd) + "/", 0) == 0 ? m_facts.erase(it) : std::next(it);
    }
}

void Facts::Acked(const Request &r)
{
    switch (r.op) {
    case Request::Op::CREATE: m_facts[BndKey(r.bnd)] = BndSig(r.mode, 0); break;
    case Request::Op::DELETE:
        Forget(r.bnd);
        m_facts[BndKey(r.bnd)] = "";
        m_facts.erase(AddrKey(r.bnd));
        break;
    case Request::Op::SET_ADDR: m_facts[AddrKey(r.bnd)] = AddrOf(r.addr); break;
    case Request::Op::DEL_ADDR: m_facts[AddrKey(r.bnd)] = ""; break;
    case Request::Op::ADD_MEMB: m_facts[MembKey(r.bnd, r.tnl)] = MembSig(r.weight, r.role); break;
    case Request::Op::DEL_MEMB: m_facts[MembKey(r.bnd, r.tnl)] = ""; break;
    }
}

void Facts::Unknown(const Request &r)
{
    m_facts.erase(BndKey(r.bnd));
    m_facts.erase(AddrKey(r.bnd));
    if (r.op == Request::Op::DELETE) {
        Forget(r.bnd);
    }
    m_facts.erase(MembKey(r.bnd, r.tnl));
}

std::vector<std::string> Facts::Broken(const Sigs &shown) const
{
    std::vector<std::string> broken;
    for (const auto &[key, want] : m_facts) {
        auto it = shown.find(key);
        const std::string got = it == shown.end() ? "" : it->second;
        if (got != want) {
            broken.push_back(key + " acknowledged as '" + want + "', found '" + got + "'");
        }
    }
    return broken;
}

std::optional<Sigs> ShownSigs(const std::vector<tc::BndDetail> &table)
{
    Sigs s;
    for (const tc::BndDetail &d : table) {
        s[BndKey(d.uiBndNum)] = BndSig(d.ucMode, d.usTnlMode);
        if (d.stAddr.usFamily != 0) {
            s[AddrKey(d.uiBndNum)] = tc::FormatAddr(d.stAddr);
        }
        for (const tc::MembDetail &m : d.members) {
            s[MembKey(d.uiBndNum, m.uiTnlNum)] = MembSig(m.usWeight, m.ucRole);
        }
    }
    return s;
}

std::optional<Sigs> StoredSigs(const Json &dump)
{
    Sigs s;
    for (const Json &db : dump.value("databases", Json::array())) {
        for (const Json &list : db.value("name", "") == "eTBDL" ? db["lists"] : Json::array()) {
            for (const Json &r : list.value("decoded", Json::array())) {
                if (!r.is_object()) {
                    return std::nullopt;
                }
                const uint32_t b = r.at("bundle");
                if (r.contains("tunnel")) {
                    s[MembKey(b, r.at("tunnel"))] = MembSig(r.at("weight"), r.at("role"));
                    continue;
                }
                s[BndKey(b)] = BndSig(r.at("mode"), r.at("tnl_mode"));
                if (r.at("family") != 0) {
                    s[AddrKey(b)] = r.at("address").get<std::string>();
                }
            }
        }
    }
    return s;
}

} // namespace torture
