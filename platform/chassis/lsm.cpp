/* LSM of each board: the LSP entries its client protocols downloaded, with
 * graceful-restart cycles.
 *
 * An entry is known by its bundle interface index (the key's uiIfIndex): an
 * add replaces the entry of the same index, a delete removes it. A cycle
 * begins with LSM_GR_BEGIN; at LSM_GR_END the protocol's entries that were
 * not added during the cycle are dropped. Entries stay when a client's
 * connection goes (the forwarding plane keeps forwarding); the next
 * registration's cycle refreshes them. */
#include <cstdio>

#include "chassisd.h"

namespace chassis {

namespace {

using tbdl::rpc::Decode;
using tbdl::rpc::DecodeHead;

struct LspEntry {
    uint32_t protocol = 0;
    LSM_LSP_ENTRY_S entry{}; /* pointers zeroed */
    LSM_LSP_ATTR_S attr{};
    std::vector<LSM_LSP_PATH_S> paths;
    bool refreshed = false;
};

struct LsmTable {
    std::map<uint32_t, LspEntry> entries;
    std::map<uint32_t, bool> inCycle; /* per protocol */
    uint64_t adds = 0, deletes = 0, flushes = 0, cycles = 0, dropped = 0, refused = 0;
    /* When the open cycle began, and how long the last one lasted: the time
     * a client's full resynchronisation took, as LSM saw it. */
    Clock::time_point cycleBegan;
    uint64_t lastCycleUs = 0;
};
LsmTable g_lsm[tbdl::plat::kMaxBoards];
/* Boards whose LSM is stopped (chassisctl lsm stop): no registrations. */
bool g_stopped[tbdl::plat::kMaxBoards];

/* The rest of a batch, read one record at a time. */
struct Cursor {
    const uint8_t *p;
    size_t left;

    template <class T> bool Next(T &out)
    {
        return DecodeHead(p, left, out, p, left);
    }
};

uint32_t Gr(Conn &c, uint32_t type)
{
    LsmTable &t = g_lsm[c.board];
    if (type == LSM_GR_BEGIN) {
        t.inCycle[c.protocol] = true;
        t.cycleBegan = Clock::now();
        for (auto &[idx, e] : t.entries) {
            if (e.protocol == c.protocol) {
                e.refreshed = false;
            }
        }
        return 0;
    }
    if (type == LSM_GR_END) {
        if (!t.inCycle[c.protocol]) {
            return 1;
        }
        t.inCycle[c.protocol] = false;
        t.cycles++;
        t.lastCycleUs = static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t.cycleBegan).count());
        size_t dropped = 0;
        for (auto it = t.entries.begin(); it != t.entries.end();) {
            if (it->second.protocol == c.protocol && !it->second.refreshed) {
                it = t.entries.erase(it);
                ++dropped;
            } else {
                ++it;
            }
        }
        t.dropped += dropped;
        if (dropped > 0) {
            Log("board " + std::to_string(c.board) + ": LSM dropped " + std::to_string(dropped) +
                " entries of protocol " + std::to_string(c.protocol) + " at the end of a smoothing cycle");
        }
        return 0;
    }
    return 1;
}

/* An add: the entry, its attribute block and usPaths paths. */
bool ReadAdd(Cursor &in, uint16_t paths, LspEntry &e)
{
    if (paths > tbdl::rpc::kLsmMaxPaths ||
        in.left < sizeof(e.entry) + sizeof(e.attr) + size_t{paths} * sizeof(LSM_LSP_PATH_S)) {
        return false;
    }
    in.Next(e.entry);
    in.Next(e.attr);
    e.paths.resize(paths);
    for (LSM_LSP_PATH_S &pa : e.paths) {
        in.Next(pa);
    }
    e.refreshed = true;
    return true;
}

uint32_t Batch(Conn &c, const uint8_t *p, size_t len)
{
    LsmTable &t = g_lsm[c.board];
    Cursor in{p, len};
    tbdl::rpc::LsmChangeHead h{};
    while (in.Next(h)) {
        if (h.usKind == tbdl::rpc::LSM_CHANGE_ADD) {
            LspEntry e;
            e.protocol = c.protocol;
            if (!ReadAdd(in, h.usPaths, e)) {
                return tbdl::rpc::kResultBadRequest;
            }
            uint32_t idx = e.entry.stKey.uiIfIndex;
            t.entries[idx] = std::move(e);
            t.adds++;
        } else if (h.usKind == tbdl::rpc::LSM_CHANGE_DEL) {
            LSM_LSP_KEY_S key{};
            if (!in.Next(key)) {
                return tbdl::rpc::kResultBadRequest;
            }
            t.entries.erase(key.uiIfIndex);
            t.deletes++;
        } else {
            return tbdl::rpc::kResultBadRequest;
        }
    }
    t.flushes++;
    return in.left == 0 ? 0 : tbdl::rpc::kResultBadRequest;
}

/* LSM_RegProtocolHandler: the connection becomes the protocol's channel,
 * unless LSM is stopped on the board. */
void OnRegister(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *, size_t)
{
    if (ValidBoard(h.usBoard) && g_stopped[h.usBoard]) {
        Reply(c, h, 1);
        return;
    }
    OpenChannel(c, Channel::LSM, h.usBoard);
    c.protocol = h.uiArg;
    Reply(c, h, 0);
}

void OnGr(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *, size_t)
{
    Reply(c, h, c.channel == Channel::LSM ? Gr(c, h.uiArg) : tbdl::rpc::kResultBadRequest);
}

/* A batch is one-way on the protocol's channel: LSM takes it in order and
 * answers nothing; one it cannot read is logged and counted. */
void OnBatch(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *p, size_t len)
{
    if (c.channel != Channel::LSM) {
        Reply(c, h, tbdl::rpc::kResultBadRequest);
    } else if (Batch(c, p, len) != 0) {
        g_lsm[c.board].refused++;
        Log("board " + std::to_string(c.board) + ": LSM refused an unreadable batch of " + std::to_string(len) +
            " bytes from protocol " + std::to_string(c.protocol));
    }
}

/* A protocol whose channel goes leaves its cycle open no longer; its
 * entries stay. */
void OnClose(Conn &c, bool)
{
    if (c.channel == Channel::LSM && c.board >= 0) {
        g_lsm[c.board].inCycle[c.protocol] = false;
    }
}

void Clear(int board, ClearReason) { g_lsm[board] = LsmTable{}; }

/* Stopping closes the board's channels: their clients see a hang-up. */
void SetStopped(int board, bool stopped)
{
    g_stopped[board] = stopped;
    if (stopped) {
        std::vector<int> fds;
        Subscribers(Channel::LSM).ForBoard(board, [&fds](Conn &c) { fds.push_back(c.fd); });
        for (int fd : fds) {
            Drop(fd);
        }
    }
}

/* Names of the dump: interfaces by the interface manager's table. */
std::string IfName(uint32_t ifIndex)
{
    const Interface *i = IfFind(ifIndex);
    return i != nullptr ? i->name : "";
}

const char *ModeName(uint32_t modeCode)
{
    switch (modeCode) {
    case LSM_LSP_MODE_ONE_TO_ONE: return "1:1";
    case LSM_LSP_MODE_ONE_PLUS_ONE: return "1+1";
    case LSM_LSP_MODE_LOAD_BALANCE: return "load balancing";
    default: return "?";
    }
}

/* The flag bits of a path half, by name; bits without a name as a number. */
Json FlagNames(uint16_t flags)
{
    Json names = Json::array();
    if (flags & LSM_LSP_FLAG_HAS_BACKUP) {
        names.push_back("has-backup");
    }
    if (uint16_t other = flags & ~LSM_LSP_FLAG_HAS_BACKUP) {
        names.push_back(std::to_string(other));
    }
    return names;
}

Json HalfJson(const LSM_LSP_HALF_S &h)
{
    return {{"ifindex", h.uiIfIndex}, {"name", IfName(h.uiIfIndex)}, {"weight", h.usWeight}};
}

/* One entry as LSM uses it: the primary halves of the first path_count
 * paths, and path 0's backup half when path 0 says it has one (or when one
 * was filled in without the flag, which the dump shows so it is seen). */
Json EntryJson(const LspEntry &e)
{
    const LSM_LSP_KEY_S &k = e.entry.stKey;
    const Interface *bnd = IfFind(k.uiIfIndex);
    Json paths = Json::array();
    for (size_t i = 0; i < e.paths.size() && i < e.entry.usPathNum; ++i) {
        paths.push_back(HalfJson(e.paths[i].stPrimary));
    }
    const uint16_t flags = e.paths.empty() ? 0 : e.paths[0].stPrimary.usFlags;
    char addr[16];
    std::snprintf(addr, sizeof(addr), "%u.%u.%u.%u", k.aucAddr[0], k.aucAddr[1], k.aucAddr[2], k.aucAddr[3]);
    Json j = {{"ifindex", k.uiIfIndex},
              {"name", bnd != nullptr ? bnd->name : ""},
              {"bundle", bnd != nullptr && bnd->type == IF_TYPE_TUNNEL_BUNDLE ? Json(bnd->number) : Json()},
              {"protocol", e.protocol},
              {"mode_code", e.entry.uiMode},
              {"mode", ModeName(e.entry.uiMode)},
              {"path_count", e.entry.usPathNum},
              {"address", addr},
              {"vrf", k.usVrfIndex},
              {"flags", flags},
              {"flag_names", FlagNames(flags)},
              {"paths", paths},
              {"attribute", {{"ifindex", e.attr.uiIfIndex}, {"mode_code", e.attr.usMode}, {"flag", e.attr.ucFlag}}}};
    if (!e.paths.empty() && ((flags & LSM_LSP_FLAG_HAS_BACKUP) || e.paths[0].stBackup.usType != 0)) {
        j["backup"] = HalfJson(e.paths[0].stBackup);
    }
    return j;
}

/* With "counters_only", the counters and the number of entries without the
 * entries themselves: cheap enough to poll while a table is being sent. */
Json Dump(int board, const Json &req)
{
    const LsmTable &t = g_lsm[board];
    Json out = {{"board", board},
                {"stopped", g_stopped[board]},
                {"entry_count", t.entries.size()},
                {"adds", t.adds},
                {"deletes", t.deletes},
                {"flushes", t.flushes},
                {"refused", t.refused},
                {"cycles", t.cycles},
                {"dropped", t.dropped},
                {"last_cycle_us", t.lastCycleUs}};
    if (!req.value("counters_only", false)) {
        Json entries = Json::array();
        for (const auto &[idx, e] : t.entries) {
            entries.push_back(EntryJson(e));
        }
        out["entries"] = std::move(entries);
    }
    return out;
}

} // namespace

const Service &LsmService()
{
    static const Service s{.name = "LSM",
                           .ops = {{tbdl::rpc::OP_LSM_REGISTER, OnRegister},
                                   {tbdl::rpc::OP_LSM_GR, OnGr},
                                   {tbdl::rpc::OP_LSM_BATCH, OnBatch}},
                           .onClose = OnClose,
                           .clearBoard = Clear,
                           .dumpName = "lsm",
                           .dumpNeedsBoard = true,
                           .dumpWith = Dump,
                           .setStopped = SetStopped};
    return s;
}

} // namespace chassis
