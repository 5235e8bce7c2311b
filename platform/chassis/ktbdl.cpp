/* Each board's kernel tunnel-bundle module: a table of bundles by interface
 * index and their members, changed by the three commands a daemon sends
 * with CIOCTL to TBDL_KTBDL_DEV: bundle update (TBDL_KBND_S), member add
 * and member delete (TBDL_KMEMB_S).
 * A member may be added before the bundle's first update (recovery pushes
 * members first); the bundle then shows no update yet. The table lives as
 * long as the board's kernel: a daemon restart keeps it, a chassis reboot
 * clears it. */
#include <arpa/inet.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "chassisd.h"
#include "tbdl_ktbdl.h"

namespace chassis {

namespace {

/* Answers for commands the module does not take (errno-like values). */
constexpr uint32_t kNoDevice = 19;
constexpr uint32_t kInvalid = 22;

struct KBundle {
    bool updated = false;
    TBDL_KBND_S last{};
    std::vector<uint32_t> members; /* in the order added */
};

struct Table {
    std::map<uint32_t, KBundle> bundles;
    uint64_t counts[3] = {};
    uint64_t refused = 0;
};
Table g_tables[tbdl::plat::kMaxBoards];

std::string AddrText(const TBDL_KBND_S &b)
{
    const TBDL_ADDR_S &a = b.stAddr;
    if (a.usFamily == TBDL_ADDR_FAMILY_IPV4) {
        char buf[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, a.aucAddr, buf, sizeof(buf));
        return buf;
    }
    return a.usFamily == 0 ? "" : "family " + std::to_string(a.usFamily);
}

std::string Hex(const void *p, size_t n)
{
    static const char *d = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        uint8_t c = static_cast<const uint8_t *>(p)[i];
        s += d[c >> 4];
        s += d[c & 15];
    }
    return s;
}

} // namespace

namespace {

uint32_t Command(int board, uint32_t dev, uint32_t cmd, const uint8_t *p, size_t len)
{
    Table &t = g_tables[board];
    if (dev != TBDL_KTBDL_DEV) {
        t.refused++;
        return kNoDevice;
    }
    TBDL_KBND_S b;
    if (cmd == TBDL_KCMD_BND_UPDATE && tbdl::rpc::Decode(p, len, b)) {
        KBundle &kb = t.bundles[b.uiIfIndex];
        kb.updated = true;
        kb.last = b;
        t.counts[0]++;
        return 0;
    }
    TBDL_KMEMB_S m;
    if ((cmd == TBDL_KCMD_MEMB_ADD || cmd == TBDL_KCMD_MEMB_DEL) && tbdl::rpc::Decode(p, len, m)) {
        auto &members = t.bundles[m.uiBndIfIndex].members;
        auto it = std::find(members.begin(), members.end(), m.uiMembIfIndex);
        if (cmd == TBDL_KCMD_MEMB_ADD) {
            if (it == members.end()) {
                members.push_back(m.uiMembIfIndex);
            }
            t.counts[1]++;
        } else {
            if (it != members.end()) {
                members.erase(it);
            }
            t.counts[2]++;
        }
        return 0;
    }
    t.refused++;
    return kInvalid;
}

void OnCioctl(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *p, size_t len)
{
    tbdl::rpc::CioctlReq r{};
    const uint8_t *payload = nullptr;
    size_t payloadLen = 0;
    if (!tbdl::rpc::DecodeHead(p, len, r, payload, payloadLen)) {
        Reply(c, h, tbdl::rpc::kResultBadRequest);
        return;
    }
    Reply(c, h, Command(h.usBoard, r.uiDev, r.uiCmd, payload, payloadLen));
}

/* The table lives as long as the board's kernel: gone at a reboot or a
 * board failure. */
void Clear(int board, ClearReason) { g_tables[board] = Table{}; }

} // namespace

void KtbdlForgetIndex(uint32_t ifIndex)
{
    for (Table &t : g_tables) {
        t.bundles.erase(ifIndex);
    }
}

namespace {

/* The interface's name, "" for an index the interface manager does not
 * know (any more). */
std::string NameOf(uint32_t ifIndex)
{
    const Interface *i = IfFind(ifIndex);
    return i != nullptr ? i->name : "";
}

/* Bundles by index with their names; members by index, their names beside
 * in the same order. */
Json Dump(int board)
{
    const Table &t = g_tables[board];
    Json bundles = Json::array();
    for (const auto &[idx, kb] : t.bundles) {
        Json names = Json::array();
        for (uint32_t m : kb.members) {
            names.push_back(NameOf(m));
        }
        Json j = {{"ifindex", idx}, {"name", NameOf(idx)}, {"updated", kb.updated},
                  {"members", kb.members}, {"member_names", names}};
        if (kb.updated) {
            j["family"] = kb.last.stAddr.usFamily;
            j["address"] = AddrText(kb.last);
            j["tnl_mode"] = kb.last.uiTnlMode;
            j["state"] = kb.last.uiState;
            j["vrf"] = kb.last.usVrfIndex;
            j["payload"] = Hex(&kb.last, sizeof(kb.last));
        }
        bundles.push_back(j);
    }
    return {{"board", board},
            {"bundles", bundles},
            {"commands",
             {{"bundle_update", t.counts[0]},
              {"member_add", t.counts[1]},
              {"member_delete", t.counts[2]},
              {"refused", t.refused}}}};
}

} // namespace

const Service &KtbdlService()
{
    static const Service s{.name = "KTBDL",
                           .ops = {{tbdl::rpc::OP_CIOCTL, OnCioctl}},
                           .clearBoard = Clear,
                           .dumpName = "ktbdl",
                           .dumpNeedsBoard = true,
                           .dump = Dump};
    return s;
}

} // namespace chassis
