/* LSM of each board: the LSP entries its client protocols downloaded, with
 * graceful-restart cycles.
 *
 * An entry is known by its bundle interface index (entry bytes 16-19, part
 * of the key that starts at byte 12): an add replaces the entry of the same
 * index, a delete removes it. A cycle begins with GR event 1; at GR event
 * 2 the protocol's entries that were not added during the cycle are
 * dropped. Entries stay when a client's connection goes (the forwarding
 * plane keeps forwarding); the next registration's cycle refreshes them. */
#include <cstring>

#include "chassisd.h"

namespace chassis {

namespace {

struct LspEntry {
    uint32_t protocol = 0;
    Bytes entry; /* 96 bytes, pointers zeroed */
    Bytes attr;  /* 16 bytes */
    std::vector<Bytes> paths;
    bool refreshed = false;
};

struct LsmTable {
    std::map<uint32_t, LspEntry> entries;
    std::map<uint32_t, bool> inCycle; /* per protocol */
    uint64_t adds = 0, deletes = 0, flushes = 0, cycles = 0;
};
LsmTable g_lsm[tbdl::plat::kMaxBoards];

uint32_t U32(const uint8_t *p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}
uint16_t U16(const uint8_t *p)
{
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}

} // namespace

uint32_t LsmGr(Conn &c, uint32_t type)
{
    LsmTable &t = g_lsm[c.board];
    if (type == 1) {
        t.inCycle[c.protocol] = true;
        for (auto &[idx, e] : t.entries) {
            if (e.protocol == c.protocol) {
                e.refreshed = false;
            }
        }
        return 0;
    }
    if (type == 2) {
        if (!t.inCycle[c.protocol]) {
            return 1;
        }
        t.inCycle[c.protocol] = false;
        t.cycles++;
        size_t dropped = 0;
        for (auto it = t.entries.begin(); it != t.entries.end();) {
            if (it->second.protocol == c.protocol && !it->second.refreshed) {
                it = t.entries.erase(it);
                ++dropped;
            } else {
                ++it;
            }
        }
        if (dropped > 0) {
            Log("board " + std::to_string(c.board) + ": LSM dropped " + std::to_string(dropped) +
                " entries of protocol " + std::to_string(c.protocol) + " at the end of a smoothing cycle");
        }
        return 0;
    }
    return 1;
}

uint32_t LsmBatch(Conn &c, const uint8_t *p, size_t len)
{
    using namespace tbdl::rpc;
    LsmTable &t = g_lsm[c.board];
    size_t off = 0;
    while (off + sizeof(LsmChangeHead) <= len) {
        LsmChangeHead h;
        std::memcpy(&h, p + off, sizeof(h));
        off += sizeof(h);
        if (h.usKind == 1) {
            size_t need = kLsmEntryLen + kLsmAttrLen + size_t{h.usPaths} * kLsmPathLen;
            if (h.usPaths > kLsmMaxPaths || off + need > len) {
                return kResultBadRequest;
            }
            LspEntry e;
            e.protocol = c.protocol;
            e.entry.assign(p + off, p + off + kLsmEntryLen);
            e.attr.assign(p + off + kLsmEntryLen, p + off + kLsmEntryLen + kLsmAttrLen);
            for (size_t i = 0; i < h.usPaths; ++i) {
                const uint8_t *q = p + off + kLsmEntryLen + kLsmAttrLen + i * kLsmPathLen;
                e.paths.emplace_back(q, q + kLsmPathLen);
            }
            e.refreshed = true;
            t.entries[U32(e.entry.data() + 16)] = std::move(e);
            t.adds++;
            off += need;
        } else if (h.usKind == 2) {
            if (off + kLsmKeyLen > len) {
                return kResultBadRequest;
            }
            /* Key bytes 4-7 (entry bytes 16-19) hold the bundle index. */
            t.entries.erase(U32(p + off + 4));
            t.deletes++;
            off += kLsmKeyLen;
        } else {
            return kResultBadRequest;
        }
    }
    t.flushes++;
    return off == len ? 0 : kResultBadRequest;
}

void LsmUnregister(Conn &c)
{
    if (c.board >= 0) {
        g_lsm[c.board].inCycle[c.protocol] = false;
    }
}

void LsmClear(int board) { g_lsm[board] = LsmTable{}; }

Json LsmDumpJson(int board)
{
    const LsmTable &t = g_lsm[board];
    Json entries = Json::array();
    for (const auto &[idx, e] : t.entries) {
        const uint8_t *en = e.entry.data();
        Json paths = Json::array();
        for (const Bytes &pa : e.paths) {
            Json pj = {{"ifindex", U32(pa.data() + 8)}, {"weight", U16(pa.data() + 14)}, {"flags", U16(pa.data() + 2)}};
            if (U16(pa.data() + 32) != 0) {
                pj["backup"] = {{"ifindex", U32(pa.data() + 40)}, {"weight", U16(pa.data() + 46)}};
            }
            paths.push_back(pj);
        }
        char addr[16];
        std::snprintf(addr, sizeof(addr), "%u.%u.%u.%u", en[20], en[21], en[22], en[23]);
        entries.push_back({{"ifindex", idx},
                           {"protocol", e.protocol},
                           {"mode_code", U32(en)},
                           {"path_count", U16(en + 8)},
                           {"address", addr},
                           {"vrf", U16(en + 24)},
                           {"paths", paths}});
    }
    return {{"board", board},
            {"entries", entries},
            {"adds", t.adds},
            {"deletes", t.deletes},
            {"flushes", t.flushes},
            {"cycles", t.cycles}};
}

} // namespace chassis
