/* Interface manager and L3VPN bindings of the chassis.
 *
 * Tunnel interfaces ("Tunnel<N>", IF_TYPE_TUNNEL) are made, changed and
 * removed by the operator (chassisctl); tunnel bundle interfaces
 * ("Tunnel-Bundle<N>", IF_TYPE_TUNNEL_BUNDLE) are made on demand when a daemon asks for their index and
 * destroyed by IF_DeleteIf. Indexes are never reused while the chassis
 * exists: tunnels count up from 0x100, bundles from 0x1000, and tunnels
 * beyond 0xFFF continue above the bundles' range. A change of state or a
 * deletion is sent as an interface event (ifevent.cpp), a change of VRF
 * as an L3VPN event (l3vpn.cpp), after the table changed: a daemon that
 * asks on receipt reads the new values. Interfaces, their VRF
 * bindings and the counters are kept in DIR/interfaces.json (rewritten
 * atomically shortly after a change and when chassisd exits), so a restart
 * of chassisd keeps them and their indexes.
 *
 * Every change also goes at once into DIR/interfaces.map (ifmap.h), which
 * the boards' libraries read instead of asking: it is made before the
 * command is answered or any event about the change is pushed, so whoever
 * is told of a change reads it. The mapping holds at most kIfMapCapacity
 * interfaces, and so does the chassis. */
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "chassisd.h"
#include "ifmap.h"

namespace chassis {

namespace {

constexpr uint32_t kFirstTunnelIndex = 0x100;
constexpr uint32_t kFirstBundleIndex = 0x1000;
/* Tunnels fill 0x100-0xFFF first, then go on above every bundle index, so
 * the two kinds never meet: bundles stay below kTunnelOverflowIndex. */
constexpr uint32_t kTunnelOverflowIndex = 0x1000000;
/* Writes of the interface store are gathered for this long, so thousands of
 * interface changes in a row do not rewrite the file thousands of times. */
constexpr auto kSaveDelay = std::chrono::milliseconds(50);
/* IF_DeleteIf's key type: the key is an interface index. */
constexpr uint32_t kIfKeyIndex = 1;

std::map<uint32_t, Interface> g_ifs;
std::map<std::string, uint32_t> g_byName;
uint32_t g_nextTunnel = kFirstTunnelIndex;
uint32_t g_nextBundle = kFirstBundleIndex;

tbdl::plat::IfMapFile *g_ifMap = nullptr; /* nullptr when it could not be made */

std::string StorePath() { return g_opt.dir + "/interfaces.json"; }

bool TableFull() { return g_ifs.size() >= tbdl::plat::kIfMapCapacity; }

/* The interface's record in the shared mapping, replaced or added. */
void Publish(const Interface &i)
{
    if (g_ifMap == nullptr) {
        return;
    }
    tbdl::plat::IfMapSlot s{};
    std::strncpy(s.acName, i.name.c_str(), sizeof(s.acName) - 1);
    s.uiIfIndex = i.ifIndex;
    s.uiType = i.type;
    s.uiNumber = i.number;
    s.uiState = i.state;
    s.uiTnlMode = i.tnlMode.value_or(0);
    s.ucHasMode = i.tnlMode ? 1 : 0;
    s.usVrf = i.vrf;
    s.ucDeleting = i.deleting ? 1 : 0;
    if (!tbdl::plat::IfMapPut(g_ifMap, s)) {
        Log("interface " + i.name + " is missing from the shared interface table");
    }
}

} // namespace

Json IfToJson(const Interface &i)
{
    Json j = {{"name", i.name}, {"ifindex", i.ifIndex}, {"type", i.type}, {"number", i.number},
              {"state", i.state == kIfStateUp ? "up" : "down"}, {"vrf", i.vrf}};
    j["mode"] = i.tnlMode ? Json(*i.tnlMode) : Json(nullptr);
    if (i.deleting) {
        j["deleting"] = true;
    }
    return j;
}

namespace {

void SaveNow()
{
    Json all = {{"next_tunnel", g_nextTunnel}, {"next_bundle", g_nextBundle}, {"interfaces", Json::array()}};
    for (auto &[idx, i] : g_ifs) {
        if (!i.deleting) {
            all["interfaces"].push_back(IfToJson(i));
        }
    }
    std::string tmp = StorePath() + ".tmp";
    std::string text = all.dump() + "\n";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        rename(tmp.c_str(), StorePath().c_str()) != 0) {
        Log("cannot save " + StorePath() + ": " + std::strerror(errno));
    }
    if (fd >= 0) {
        close(fd);
    }
}

bool g_savePending = false;

/* Schedules one write of the interface store; changes made meanwhile go out
 * with it. */
void Save()
{
    if (g_savePending) {
        return;
    }
    g_savePending = true;
    After(kSaveDelay, [] {
        g_savePending = false;
        SaveNow();
    });
}

} // namespace

void IfFlush()
{
    if (g_savePending) {
        g_savePending = false;
        SaveNow();
    }
}

namespace {

void Insert(const Interface &i)
{
    g_ifs[i.ifIndex] = i;
    g_byName[i.name] = i.ifIndex;
    Publish(i);
}

void Erase(uint32_t idx)
{
    auto it = g_ifs.find(idx);
    if (it != g_ifs.end()) {
        g_byName.erase(it->second.name);
        g_ifs.erase(it);
    }
    if (g_ifMap != nullptr) {
        tbdl::plat::IfMapRemove(g_ifMap, idx);
    }
}

bool ParseNumber(const std::string &s, uint32_t &v)
{
    if (s.empty() || s.size() > 10 || s.find_first_not_of("0123456789") != std::string::npos ||
        (s.size() > 1 && s[0] == '0')) {
        return false;
    }
    unsigned long long x = std::stoull(s);
    if (x > UINT32_MAX) {
        return false;
    }
    v = static_cast<uint32_t>(x);
    return true;
}

bool ParseState(const Json &req, uint32_t &state, std::string &err)
{
    std::string s = req.at("state").get<std::string>();
    if (s == "up") {
        state = kIfStateUp;
    } else if (s == "down") {
        state = kIfStateDown;
    } else {
        err = "state must be up or down, not '" + s + "'";
        return false;
    }
    return true;
}

bool ParseVrf(const Json &v, uint16_t &vrf, std::string &err)
{
    int64_t x = v.get<int64_t>();
    if (x < 0 || x > 65535) {
        err = "VRF index must be 0..65535";
        return false;
    }
    vrf = static_cast<uint16_t>(x);
    return true;
}

} // namespace

bool ParseIfName(const std::string &name, uint32_t &type, uint32_t &number)
{
    static const std::string kBundle = "Tunnel-Bundle";
    static const std::string kTunnel = "Tunnel";
    if (name.rfind(kBundle, 0) == 0) {
        type = IF_TYPE_TUNNEL_BUNDLE;
        return ParseNumber(name.substr(kBundle.size()), number);
    }
    if (name.rfind(kTunnel, 0) == 0) {
        type = IF_TYPE_TUNNEL;
        return ParseNumber(name.substr(kTunnel.size()), number);
    }
    return false;
}

namespace {

void MapOpen()
{
    std::string path = tbdl::plat::IfMapPathOf(g_opt.dir);
    g_ifMap = tbdl::plat::IfMapCreate(path);
    if (g_ifMap == nullptr) {
        Log("cannot map " + path + ": " + std::strerror(errno) + "; the boards will ask for every interface");
    }
}

void LoadStore()
{
    std::ifstream in(StorePath());
    if (!in) {
        return;
    }
    std::stringstream ss;
    ss << in.rdbuf();
    Json all = Json::parse(ss.str(), nullptr, false);
    if (all.is_discarded() || !all.is_object()) {
        Log("ignoring unreadable " + StorePath());
        return;
    }
    try {
        g_nextTunnel = all.value("next_tunnel", kFirstTunnelIndex);
        g_nextBundle = all.value("next_bundle", kFirstBundleIndex);
        for (const Json &j : all.at("interfaces")) {
            if (TableFull()) {
                Log("interfaces beyond " + std::to_string(tbdl::plat::kIfMapCapacity) + " in " + StorePath() +
                    " ignored");
                break;
            }
            Interface i;
            i.name = j.at("name").get<std::string>();
            i.ifIndex = j.at("ifindex").get<uint32_t>();
            i.type = j.at("type").get<uint32_t>();
            i.number = j.at("number").get<uint32_t>();
            i.state = j.at("state").get<std::string>() == "up" ? kIfStateUp : kIfStateDown;
            i.vrf = j.at("vrf").get<uint16_t>();
            if (!j.at("mode").is_null()) {
                i.tnlMode = j.at("mode").get<uint32_t>();
            }
            Insert(i);
        }
    } catch (const std::exception &e) {
        Log("ignoring damaged " + StorePath() + ": " + e.what());
        g_ifs.clear();
        g_byName.clear();
        if (g_ifMap != nullptr) {
            tbdl::plat::IfMapClear(g_ifMap);
        }
    }
    Log("loaded " + std::to_string(g_ifs.size()) + " interfaces from " + StorePath());
}

} // namespace

void IfLoad()
{
    MapOpen();
    LoadStore();
}

Interface *IfFind(uint32_t ifIndex)
{
    auto it = g_ifs.find(ifIndex);
    return it == g_ifs.end() ? nullptr : &it->second;
}

Interface *IfFindName(const std::string &name)
{
    auto it = g_byName.find(name);
    return it == g_byName.end() ? nullptr : IfFind(it->second);
}


namespace {

uint32_t IfIndexByName(const std::string &name)
{
    auto it = g_byName.find(name);
    if (it != g_byName.end()) {
        return it->second;
    }
    uint32_t type, number;
    if (!ParseIfName(name, type, number) || type != IF_TYPE_TUNNEL_BUNDLE || TableFull()) {
        return 0;
    }
    Interface i;
    i.name = name;
    i.ifIndex = g_nextBundle++;
    i.type = IF_TYPE_TUNNEL_BUNDLE;
    i.number = number;
    i.state = kIfStateDown;
    Insert(i);
    Save();
    return i.ifIndex;
}

bool GetData(uint32_t ifIndex, uint32_t item, uint32_t &value)
{
    Interface *i = IfFind(ifIndex);
    if (i == nullptr) {
        return false;
    }
    switch (item) {
    case IF_DATA_NUMBER: value = i->number; return true;
    case IF_DATA_TYPE: value = i->type; return true;
    case IF_DATA_STATE: value = i->state; return true;
    default: return false;
    }
}

/* IF_DeleteIf: key type 1, the index and 4 zero bytes; only bundle
 * interfaces are destroyed this way. */
bool IfDeleteByKey(uint32_t keyType, const tbdl::rpc::IfDeleteKey &key)
{
    if (keyType != kIfKeyIndex || key.uiResv != 0) {
        return false;
    }
    uint32_t idx = key.uiIfIndex;
    Interface *i = IfFind(idx);
    if (i == nullptr || i->type != IF_TYPE_TUNNEL_BUNDLE) {
        return false;
    }
    Log("interface " + i->name + " (index " + std::to_string(idx) + ") destroyed");
    Erase(idx);
    KtbdlForgetIndex(idx);
    Save();
    return true;
}


void OnIndexByName(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *p, size_t len)
{
    uint32_t idx = IfIndexByName(std::string(reinterpret_cast<const char *>(p), len));
    Reply(c, h, idx != 0 ? 0 : 1, tbdl::rpc::Encode(tbdl::rpc::U32Value{idx}));
}

void OnGetData(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *p, size_t len)
{
    tbdl::rpc::IfRef ref{};
    uint32_t v = 0;
    bool ok = tbdl::rpc::Decode(p, len, ref) && GetData(ref.uiIfIndex, h.uiArg, v);
    Reply(c, h, ok ? 0 : 1, tbdl::rpc::Encode(tbdl::rpc::U32Value{v}));
}

void OnDelete(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *p, size_t len)
{
    tbdl::rpc::IfDeleteKey key{};
    Reply(c, h, tbdl::rpc::Decode(p, len, key) && IfDeleteByKey(h.uiArg, key) ? 1 : 0);
}

void OnTunnelMode(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *p, size_t len)
{
    tbdl::rpc::IfRef ref{};
    Interface *i = tbdl::rpc::Decode(p, len, ref) ? IfFind(ref.uiIfIndex) : nullptr;
    bool has = i != nullptr && i->tnlMode;
    Reply(c, h, has ? 0 : 1, tbdl::rpc::Encode(tbdl::rpc::U32Value{has ? *i->tnlMode : 0}));
}

} // namespace

bool IfAdd(const Json &req, Json &out, std::string &err)
{
    std::string name = req.at("name").get<std::string>();
    uint32_t type, number;
    if (!ParseIfName(name, type, number) || type != IF_TYPE_TUNNEL) {
        err = "'" + name + "' is not a tunnel interface name (Tunnel<N>)";
        return false;
    }
    if (g_byName.count(name) != 0) {
        err = "interface " + name + " already exists";
        return false;
    }
    if (TableFull()) {
        err = "interface table full: at most " + std::to_string(tbdl::plat::kIfMapCapacity) + " interfaces";
        return false;
    }
    Interface i;
    i.name = name;
    i.type = IF_TYPE_TUNNEL;
    i.number = number;
    if (req.contains("mode") && !req["mode"].is_null()) {
        i.tnlMode = req["mode"].get<uint32_t>();
    }
    if (req.contains("state") && !ParseState(req, i.state, err)) {
        return false;
    }
    if (req.contains("vrf") && !ParseVrf(req["vrf"], i.vrf, err)) {
        return false;
    }
    if (g_nextTunnel == kFirstBundleIndex) {
        g_nextTunnel = kTunnelOverflowIndex;
    }
    i.ifIndex = g_nextTunnel++;
    Insert(i);
    Save();
    L3vpnNotify(i.ifIndex, 0, i.vrf);
    out = IfToJson(i);
    Log("interface " + name + " added: " + out.dump());
    return true;
}

namespace {

/* An interface chassisctl may change: it exists and is not going. */
Interface *Editable(const std::string &name, std::string &err)
{
    Interface *i = IfFindName(name);
    if (i == nullptr) {
        err = "no interface " + name;
    } else if (i->deleting) {
        err = "interface " + name + " is being deleted";
        i = nullptr;
    }
    return i;
}

/* The interface as the request would leave it. */
bool Changed(const Json &req, const Interface &cur, Interface &n, std::string &err)
{
    n = cur;
    if (req.contains("mode")) {
        n.tnlMode = req["mode"].is_null() ? std::nullopt : std::optional<uint32_t>(req["mode"].get<uint32_t>());
    }
    return (!req.contains("state") || ParseState(req, n.state, err)) &&
           (!req.contains("vrf") || ParseVrf(req["vrf"], n.vrf, err));
}

std::vector<std::string> NamesOf(const Json &req)
{
    if (req.contains("names")) {
        return req["names"].get<std::vector<std::string>>();
    }
    return {req.at("name").get<std::string>()};
}

} // namespace

/* Several interfaces change at once, or none does. Their state changes go
 * out as one packet per event and interface type. */
bool IfSet(const Json &req, Json &out, std::string &err)
{
    std::vector<Interface> next;
    for (const std::string &name : NamesOf(req)) {
        Interface *i = Editable(name, err);
        Interface n;
        if (i == nullptr || !Changed(req, *i, n, err)) {
            return false;
        }
        next.push_back(n);
    }
    std::map<std::pair<uint32_t, uint32_t>, std::vector<uint32_t>> events; /* (event, type) -> indexes */
    out = Json::array();
    for (const Interface &n : next) {
        Interface &i = *IfFind(n.ifIndex);
        Interface old = i;
        i = n;
        Publish(i);
        if (old.state != n.state) {
            events[{n.state == kIfStateUp ? IF_EV_UP : IF_EV_DOWN, n.type}].push_back(n.ifIndex);
        }
        L3vpnNotify(n.ifIndex, old.vrf, n.vrf);
        out.push_back(IfToJson(n));
        Log("interface " + n.name + " changed: " + out.back().dump());
    }
    Save();
    for (const auto &[key, indexes] : events) {
        IfevSend(key.first, key.second, indexes);
    }
    if (out.size() == 1) {
        out = out[0];
    }
    return true;
}

namespace {

void EraseNow(uint32_t idx)
{
    Interface *i = IfFind(idx);
    if (i == nullptr) {
        return;
    }
    bool bundle = i->type == IF_TYPE_TUNNEL_BUNDLE;
    std::string name = i->name;
    Erase(idx);
    if (bundle) {
        KtbdlForgetIndex(idx);
    }
    Save();
    Log("interface " + name + " (index " + std::to_string(idx) + ") deleted");
}

} // namespace

/* The deletion event goes first; the interface stays readable until the
 * daemons that were told have acknowledged it. */
bool IfDel(const std::string &name, Json &out, std::string &err)
{
    Interface *i = Editable(name, err);
    if (i == nullptr) {
        return false;
    }
    uint32_t idx = i->ifIndex;
    i->deleting = true;
    Publish(*i);
    out = IfToJson(*i);
    out.erase("deleting");
    IfevAwaitAcks(IfevSend(IF_EV_DELETE, i->type, {idx}), IF_EV_DELETE, idx, [idx] { EraseNow(idx); });
    return true;
}

bool VrfBind(const std::string &name, uint32_t vrf, Json &out, std::string &err)
{
    (void)IfIndexByName(name); /* a bundle's index is made on demand */
    Interface *i = Editable(name, err);
    if (i == nullptr) {
        return false;
    }
    if (vrf > 65535) {
        err = "VRF index must be 0..65535";
        return false;
    }
    uint16_t old = i->vrf;
    i->vrf = static_cast<uint16_t>(vrf);
    Publish(*i);
    out = IfToJson(*i);
    Save();
    L3vpnNotify(i->ifIndex, old, i->vrf);
    Log("interface " + name + (vrf == 0 ? " unbound from its VRF" : " bound to VRF " + std::to_string(vrf)));
    return true;
}

namespace {

Json IfDumpJson()
{
    Json a = Json::array();
    for (auto &[idx, i] : g_ifs) {
        a.push_back(IfToJson(i));
    }
    return a;
}

Json IfDump(int) { return {{"interfaces", IfDumpJson()}, {"events", IfevDumpJson()}}; }

} // namespace

Json VrfDumpJson()
{
    Json a = Json::array();
    for (auto &[idx, i] : g_ifs) {
        if (i.vrf != 0) {
            a.push_back({{"name", i.name}, {"ifindex", idx}, {"vrf", i.vrf}});
        }
    }
    return a;
}

const Service &IfService()
{
    static const Service s{.name = "interface manager",
                           .ops = {{tbdl::rpc::OP_IF_INDEX_BY_NAME, OnIndexByName},
                                   {tbdl::rpc::OP_IF_GET_DATA, OnGetData},
                                   {tbdl::rpc::OP_IF_DELETE, OnDelete},
                                   {tbdl::rpc::OP_TUNNEL_GET_MODE, OnTunnelMode}},
                           .dumpName = "if",
                           .dump = IfDump};
    return s;
}

} // namespace chassis
