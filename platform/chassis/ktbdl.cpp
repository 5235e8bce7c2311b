/* Each board's kernel tunnel-bundle module: a table of bundles by interface
 * index and their members, changed by the three commands a daemon sends
 * with CIOCTL (payloads in host order):
 *   0x7c0002 bundle update, 36 bytes: address block (20), ifindex, tunnel
 *            mode, state (u32 each), VRF (u16), 2 zero bytes;
 *   0x7c0003 member add, 8 bytes: bundle ifindex, member ifindex;
 *   0x7c0004 member delete, 8 bytes: the same.
 * A member may be added before the bundle's first update (recovery pushes
 * members first); the bundle then shows no update yet. The table lives as
 * long as the board's kernel: a daemon restart keeps it, a chassis reboot
 * clears it. */
#include <arpa/inet.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "chassisd.h"

namespace chassis {

namespace {

constexpr uint32_t kDev = 0xFFFF8000u;
constexpr uint32_t kCmdBndUpdate = 0x7c0002u;
constexpr uint32_t kCmdMembAdd = 0x7c0003u;
constexpr uint32_t kCmdMembDel = 0x7c0004u;
/* Answers for commands the module does not take (errno-like values). */
constexpr uint32_t kNoDevice = 19;
constexpr uint32_t kInvalid = 22;

struct KBnd {
    uint16_t usFamily;
    uint8_t aucCarried[2];
    uint8_t aucAddr[16];
    uint32_t uiIfIndex;
    uint32_t uiTnlMode;
    uint32_t uiState;
    uint16_t usVrfIndex;
    uint16_t usResv;
};
static_assert(sizeof(KBnd) == 36, "bundle update is 36 bytes");
static_assert(offsetof(KBnd, uiIfIndex) == 20 && offsetof(KBnd, uiTnlMode) == 24 &&
                  offsetof(KBnd, uiState) == 28 && offsetof(KBnd, usVrfIndex) == 32,
              "bundle update layout");

struct KMemb {
    uint32_t uiBndIfIndex;
    uint32_t uiMembIfIndex;
};
static_assert(sizeof(KMemb) == 8, "member command is 8 bytes");

struct KBundle {
    bool updated = false;
    KBnd last{};
    std::vector<uint32_t> members; /* in the order added */
};

struct Table {
    std::map<uint32_t, KBundle> bundles;
    uint64_t counts[3] = {};
    uint64_t refused = 0;
};
Table g_tables[tbdl::plat::kMaxBoards];

std::string AddrText(const KBnd &b)
{
    if (b.usFamily == 2) {
        char buf[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, b.aucAddr, buf, sizeof(buf));
        return buf;
    }
    return b.usFamily == 0 ? "" : "family " + std::to_string(b.usFamily);
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

uint32_t KtbdlCommand(int board, uint32_t dev, uint32_t cmd, const uint8_t *p, size_t len)
{
    Table &t = g_tables[board];
    if (dev != kDev) {
        t.refused++;
        return kNoDevice;
    }
    if (cmd == kCmdBndUpdate && len == sizeof(KBnd)) {
        KBnd b;
        std::memcpy(&b, p, sizeof(b));
        KBundle &kb = t.bundles[b.uiIfIndex];
        kb.updated = true;
        kb.last = b;
        t.counts[0]++;
        return 0;
    }
    if ((cmd == kCmdMembAdd || cmd == kCmdMembDel) && len == sizeof(KMemb)) {
        KMemb m;
        std::memcpy(&m, p, sizeof(m));
        auto &members = t.bundles[m.uiBndIfIndex].members;
        auto it = std::find(members.begin(), members.end(), m.uiMembIfIndex);
        if (cmd == kCmdMembAdd) {
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

void KtbdlClear(int board) { g_tables[board] = Table{}; }

void KtbdlForgetIndex(uint32_t ifIndex)
{
    for (Table &t : g_tables) {
        t.bundles.erase(ifIndex);
    }
}

Json KtbdlDumpJson(int board)
{
    const Table &t = g_tables[board];
    Json bundles = Json::array();
    for (const auto &[idx, kb] : t.bundles) {
        Interface *i = IfFind(idx);
        Json j = {{"ifindex", idx}, {"name", i != nullptr ? i->name : ""}, {"updated", kb.updated},
                  {"members", kb.members}};
        if (kb.updated) {
            j["family"] = kb.last.usFamily;
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
            {"commands", {{"bundle_update", t.counts[0]}, {"member_add", t.counts[1]}, {"member_delete", t.counts[2]}, {"refused", t.refused}}}};
}

} // namespace chassis
