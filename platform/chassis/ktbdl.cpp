/* Each board's kernel tunnel-bundle module: a table of bundles by interface
 * index and their members, changed by the three commands a daemon sends
 * with CIOCTL to TBDL_KTBDL_DEV: bundle update (TBDL_KBND_S), member add
 * and member delete (TBDL_KMEMB_S).
 * The table is a shared file per board (ktable.h): the board's library
 * applies its daemon's commands in place, chassisd creates it, clears it,
 * forgets destroyed bundle interfaces and dumps it. Commands that reach
 * chassisd (a library that could not map the table) are applied the same
 * way here. The table lives as long as the board's kernel: a daemon
 * restart keeps it, a chassis reboot clears it. */
#include <arpa/inet.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "chassisd.h"
#include "ktable.h"

namespace chassis {

namespace {

/* Each present board's mapped table (null for a board not in the chassis). */
struct Ktbdl {
    tbdl::plat::KtTable *tables[tbdl::plat::kMaxBoards] = {};
} g_ktbdl;

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

/* chassisd starts the chassis: every board's table starts empty. */
bool Init(std::string &err)
{
    for (int b : g_opt.settings.boards) {
        std::string path = tbdl::plat::KtPathOf(g_opt.dir, b);
        g_ktbdl.tables[b] = tbdl::plat::KtCreate(path);
        if (g_ktbdl.tables[b] == nullptr) {
            err = "cannot create " + path + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

uint32_t Command(int board, uint32_t dev, uint32_t cmd, const uint8_t *p, size_t len)
{
    tbdl::plat::KtTable *t = g_ktbdl.tables[board];
    return t != nullptr ? tbdl::plat::KtCommand(t, dev, cmd, p, len) : tbdl::plat::kKtNoDevice;
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
void Clear(int board, ClearReason)
{
    if (g_ktbdl.tables[board] != nullptr) {
        tbdl::plat::KtClear(g_ktbdl.tables[board]);
    }
}

} // namespace

void KtbdlForgetIndex(uint32_t ifIndex)
{
    for (tbdl::plat::KtTable *t : g_ktbdl.tables) {
        if (t != nullptr) {
            tbdl::plat::KtForget(t, ifIndex);
        }
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
    tbdl::plat::KtSnapshot t;
    if (g_ktbdl.tables[board] != nullptr && !tbdl::plat::KtRead(g_ktbdl.tables[board], t)) {
        return {{"error", "board " + std::to_string(board) + ": the kernel table stayed locked for " +
                              std::to_string(tbdl::plat::kKtLockWaitS) + " s (is its daemon stopped?)"}};
    }
    Json bundles = Json::array();
    for (const tbdl::plat::KtBundle &kb : t.bundles) {
        std::vector<uint32_t> members(kb.auiMemb, kb.auiMemb + kb.uiMembCnt);
        Json names = Json::array();
        for (uint32_t m : members) {
            names.push_back(NameOf(m));
        }
        Json j = {{"ifindex", kb.uiIfIndex}, {"name", NameOf(kb.uiIfIndex)}, {"updated", kb.uiUpdated != 0},
                  {"members", members}, {"member_names", names}};
        if (kb.uiUpdated != 0) {
            j["family"] = kb.stLast.stAddr.usFamily;
            j["address"] = AddrText(kb.stLast);
            j["tnl_mode"] = kb.stLast.uiTnlMode;
            j["state"] = kb.stLast.uiState;
            j["vrf"] = kb.stLast.usVrfIndex;
            j["payload"] = Hex(&kb.stLast, sizeof(kb.stLast));
        }
        bundles.push_back(j);
    }
    return {{"board", board},
            {"bundles", bundles},
            {"commands",
             {{"bundle_update", t.counts[tbdl::plat::KT_CNT_UPDATE]},
              {"member_add", t.counts[tbdl::plat::KT_CNT_ADD]},
              {"member_delete", t.counts[tbdl::plat::KT_CNT_DEL]},
              {"refused", t.counts[tbdl::plat::KT_CNT_REFUSED]}}}};
}

} // namespace

const Service &KtbdlService()
{
    static const Service s{.name = "KTBDL",
                           .ops = {{tbdl::rpc::OP_CIOCTL, OnCioctl}},
                           .clearBoard = Clear,
                           .dumpName = "ktbdl",
                           .dumpNeedsBoard = true,
                           .dump = Dump,
                           .init = Init};
    return s;
}

} // namespace chassis
