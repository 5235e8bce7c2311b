/* Human and JSON renderings of tbdlctl's answers. */
#include "tbdlctl_output.h"

#include <algorithm>

namespace tbdlctl {

namespace tc = tbdl::client;

namespace {

std::string StateName(std::uint8_t ucState)
{
    return ucState == 1 ? "up" : "down";
}

std::string OnOff(bool b)
{
    return b ? "on" : "off";
}

std::string YesNo(std::uint16_t us)
{
    return us == 1 ? "yes" : "no";
}

std::string AddrText(const tc::AddrBlock &a)
{
    std::string s = tc::FormatAddr(a);
    return s.empty() ? "-" : s;
}

std::string MemberList(const BndDetail &d)
{
    if (d.members.empty()) {
        return "-";
    }
    std::string s;
    for (const tc::MembDetail &m : d.members) {
        if (!s.empty()) {
            s += ",";
        }
        s += std::to_string(m.uiTnlNum);
    }
    return s;
}

}  // namespace

void Table::print(std::ostream &out, const std::string &indent) const
{
    std::vector<std::size_t> width;
    for (const auto &row : m_rows) {
        width.resize(std::max(width.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); i++) {
            width[i] = std::max(width[i], row[i].size());
        }
    }
    for (const auto &row : m_rows) {
        std::string line = indent;
        for (std::size_t i = 0; i < row.size(); i++) {
            line += row[i];
            if (i + 1 < row.size()) {
                line += std::string(width[i] - row[i].size() + 2, ' ');
            }
        }
        out << line << "\n";
    }
}

nlohmann::json ResultJson(std::uint32_t uiResult)
{
    return {{"result", uiResult},
            {"result_hex", tc::ResultHex(uiResult)},
            {"name", tc::ResultName(uiResult)},
            {"message", tc::DescribeResult(uiResult)}};
}

nlohmann::json BundleJson(const BndDetail &d)
{
    nlohmann::json members = nlohmann::json::array();
    for (const tc::MembDetail &m : d.members) {
        members.push_back({{"tunnel", m.uiTnlNum},
                           {"weight", m.usWeight},
                           {"role", m.ucRole},
                           {"state", m.ucState},
                           {"up", m.ucState == 1}});
    }
    nlohmann::json addr = nullptr;
    if (d.stAddr.usFamily != 0) {
        addr = tc::FormatAddr(d.stAddr);
    }
    return {{"bundle", d.uiBndNum},
            {"name", "Tunnel-Bundle" + std::to_string(d.uiBndNum)},
            {"mode", d.ucMode},
            {"mode_name", tc::ModeName(d.ucMode)},
            {"tunnel_mode", d.usTnlMode},
            {"state", d.ucState},
            {"up", d.ucState == 1},
            {"family", d.stAddr.usFamily},
            {"address", addr},
            {"members", members}};
}

nlohmann::json CountsJson(const BndCounts &c)
{
    return {{"total", c.uiTotal}, {"up", c.uiUp}, {"down", c.uiDown}};
}

nlohmann::json DebugJson(const DebugSwitch &d)
{
    return {{"switch", d.uiSwitch}, {"error", d.error()}, {"event", d.event()}};
}

nlohmann::json LimitsJson(const Limits &l)
{
    return {{"bundle_slots", l.uiMaxBndNum},
            {"member_limit", l.uiMaxMembNum},
            {"modes",
             {{"LoadBalancing", l.usLoadBalancing == 1},
              {"ProtectionOnetoone", l.usProtectionOnetoone == 1},
              {"ProtectionOneplusone", l.usProtectionOneplusone == 1}}}};
}

nlohmann::json MessageJson(const Message &m)
{
    nlohmann::json tlvs = nlohmann::json::array();
    for (const tc::Tlv &t : m.tlvs) {
        tlvs.push_back({{"type", t.usType}, {"length", t.value.size()}, {"value", tc::ToHex(t.value)}});
    }
    nlohmann::json j = {{"class", m.head.usMsgClass}, {"length", m.head.usDataLen},
                        {"type", m.head.usMsgType},   {"oper", m.head.usOper},
                        {"tlvs", tlvs}};
    j.update(ResultJson(m.head.uiResult));
    return j;
}

void PrintBundle(std::ostream &out, const BndDetail &d)
{
    out << "Tunnel-Bundle" << d.uiBndNum << "\n";
    Table kv({"  Work mode", ": " + tc::ModeName(d.ucMode) + " (" + std::to_string(d.ucMode) + ")"});
    kv.add({"  Tunnel mode", ": " + std::to_string(d.usTnlMode)});
    kv.add({"  State", ": " + StateName(d.ucState)});
    kv.add({"  Address", ": " + AddrText(d.stAddr)});
    kv.add({"  Members", ": " + std::to_string(d.members.size())});
    kv.print(out);
    if (d.members.empty()) {
        return;
    }
    out << "\n";
    Table t({"Member", "Weight", "Role", "State"});
    for (const tc::MembDetail &m : d.members) {
        t.add({"Tunnel" + std::to_string(m.uiTnlNum), std::to_string(m.usWeight), std::to_string(m.ucRole),
               StateName(m.ucState)});
    }
    t.print(out, "  ");
}

void PrintBundles(std::ostream &out, const std::vector<BndDetail> &bundles)
{
    if (bundles.empty()) {
        out << "No tunnel bundles.\n";
        return;
    }
    Table t({"Bundle", "Mode", "TnlMode", "State", "Address", "Members"});
    for (const BndDetail &d : bundles) {
        t.add({std::to_string(d.uiBndNum), tc::ModeName(d.ucMode), std::to_string(d.usTnlMode),
               StateName(d.ucState), AddrText(d.stAddr), MemberList(d)});
    }
    t.print(out);
}

void PrintCounts(std::ostream &out, const BndCounts &c)
{
    Table t({"Total", "Up", "Down"});
    t.add({std::to_string(c.uiTotal), std::to_string(c.uiUp), std::to_string(c.uiDown)});
    t.print(out);
}

void PrintDebug(std::ostream &out, const DebugSwitch &d)
{
    Table t({"Debug", "Output"});
    t.add({"error", OnOff(d.error())});
    t.add({"event", OnOff(d.event())});
    t.print(out);
}

void PrintLimits(std::ostream &out, const Limits &l)
{
    Table t({"Bundle slots", ": " + std::to_string(l.uiMaxBndNum)});
    t.add({"Member limit", ": " + std::to_string(l.uiMaxMembNum)});
    t.add({"LoadBalancing", ": " + YesNo(l.usLoadBalancing)});
    t.add({"ProtectionOnetoone", ": " + YesNo(l.usProtectionOnetoone)});
    t.add({"ProtectionOneplusone", ": " + YesNo(l.usProtectionOneplusone)});
    t.print(out);
}

void PrintMessage(std::ostream &out, const Message &m)
{
    out << "class " << m.head.usMsgClass << "  length " << m.head.usDataLen << "  type " << m.head.usMsgType
        << "  oper " << m.head.usOper << "\n";
    out << "result " << tc::DescribeResult(m.head.uiResult) << "\n";
    for (const tc::Tlv &t : m.tlvs) {
        out << "TLV " << t.usType << " length " << t.value.size() << ": " << tc::ToHex(t.value) << "\n";
    }
}

}  // namespace tbdlctl
