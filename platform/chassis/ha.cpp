/* HA service of the chassis: which board is master, which boards' daemons
 * have joined the HA service (HA_Init opens a channel connection), events
 * 0-3 pushed to a board's daemon, the responses it gives, and the relay of
 * backup messages from one board's daemon to the other's.
 *
 * Every push carries the board's current role and standby presence, so the
 * library's cached answers to HA_IsMaster / HA_IsExistSlaveService change
 * exactly when the daemon reads the message that goes with the change.
 *
 * When a master and a standby daemon are both joined and one of them has
 * just joined, the master is asked for a batch backup (event 1) so the
 * standby's kernel table follows the master's.
 *
 * The role lives in g_master alone: switchover, failover and cuts of the
 * HA link change it (or the relay) in one place. */
#include <cstring>

#include "chassisd.h"
#include "journal.h"

namespace chassis {

namespace {

int g_master = -1;
int g_haFd[tbdl::plat::kMaxBoards] = {-1, -1};

struct HaRecord {
    std::string time;
    int board;
    uint32_t event;
    int64_t data; /* -1: no data */
};
std::deque<HaRecord> g_responses;
uint64_t g_relayed = 0;
uint64_t g_dropped = 0;
uint64_t g_events[4] = {};

int Peer(int b) { return 1 - b; }

tbdl::rpc::HaState StateOf(int b, uint32_t value)
{
    tbdl::rpc::HaState s{};
    s.uiMaster = b == HaMaster() ? 1 : 0;
    s.uiPeer = (s.uiMaster == 1 && g_boards[Peer(b)].present && g_haFd[Peer(b)] >= 0) ? 1 : 0;
    s.uiMtu = g_opt.settings.haMtu;
    s.uiValue = value;
    return s;
}

void PushTo(int b, uint32_t kind, uint32_t value, const uint8_t *data = nullptr, size_t len = 0)
{
    if (g_haFd[b] < 0) {
        return;
    }
    Bytes m(sizeof(tbdl::rpc::HaState) + len);
    tbdl::rpc::HaState s = StateOf(b, value);
    std::memcpy(m.data(), &s, sizeof(s));
    if (len > 0) {
        std::memcpy(m.data() + sizeof(s), data, len);
    }
    Push(g_haFd[b], tbdl::rpc::OP_HA_PUSH, static_cast<uint16_t>(b), kind, m.data(), m.size());
}

void PushEvent(int b, uint32_t event)
{
    if (event < 4) {
        g_events[event]++;
    }
    PushTo(b, tbdl::rpc::HA_PUSH_EVENT, event);
}

} // namespace

int HaMaster()
{
    if (g_master < 0 || !g_boards[g_master].present) {
        const auto &s = g_opt.settings;
        g_master = s.masterBoard;
        if (!g_boards[g_master].present && !s.boards.empty()) {
            g_master = s.boards[0];
        }
    }
    return g_master;
}

void HaRegister(Conn &c)
{
    int b = c.board;
    if (g_haFd[b] >= 0 && g_haFd[b] != c.fd) {
        Log("board " + std::to_string(b) + ": HA channel replaced by a new one");
    }
    g_haFd[b] = c.fd;
    tbdl::rpc::HaState s = StateOf(b, 0);
    Push(c.fd, tbdl::rpc::OP_HA_REGISTER, static_cast<uint16_t>(b), 0, &s, sizeof(s));
    Log("board " + std::to_string(b) + ": joined the HA service as " + (s.uiMaster ? "master" : "standby"));
    int m = HaMaster();
    int standby = Peer(m);
    if (g_boards[standby].present && g_haFd[m] >= 0 && g_haFd[standby] >= 0) {
        if (b == standby) {
            PushTo(m, tbdl::rpc::HA_PUSH_STATE, 0);
        }
        Log("board " + std::to_string(m) + ": asked for a batch backup (HA event 1) for board " +
            std::to_string(standby));
        PushEvent(m, 1);
    }
}

void HaUnregister(Conn &c)
{
    int b = c.board;
    if (b < 0 || g_haFd[b] != c.fd) {
        return;
    }
    g_haFd[b] = -1;
    Log("board " + std::to_string(b) + ": left the HA service");
    int m = HaMaster();
    if (b != m) {
        PushTo(m, tbdl::rpc::HA_PUSH_STATE, 0);
    }
}

uint32_t HaResponse(int board, uint32_t event, const uint8_t *data, size_t len)
{
    int64_t v = -1;
    if (len == 4) {
        uint32_t u;
        std::memcpy(&u, data, 4);
        v = u;
    }
    g_responses.push_back({tbdl::plat::IsoTimeNow(), board, event, v});
    if (g_responses.size() > 64) {
        g_responses.pop_front();
    }
    Log("board " + std::to_string(board) + ": HA response to event " + std::to_string(event) +
        (v < 0 ? "" : " with data " + std::to_string(v)));
    return 0;
}

uint32_t HaSend(int board, uint32_t flag, const uint8_t *msg, size_t len)
{
    int peer = Peer(board);
    if (!g_boards[peer].present || g_haFd[peer] < 0 || len == 0 || len > 65535) {
        g_dropped++;
        return 1;
    }
    g_relayed++;
    PushTo(peer, tbdl::rpc::HA_PUSH_MSG, flag, msg, len);
    return 0;
}

bool HaInjectEvent(int board, uint32_t event, std::string &err)
{
    if (g_haFd[board] < 0) {
        err = "board " + std::to_string(board) + "'s daemon has not joined the HA service";
        return false;
    }
    Log("board " + std::to_string(board) + ": HA event " + std::to_string(event) + " on request");
    PushEvent(board, event);
    return true;
}

Json HaDumpJson()
{
    Json boards = Json::array();
    for (const Board &bd : g_boards) {
        if (!bd.present) {
            continue;
        }
        tbdl::rpc::HaState s = StateOf(bd.num, 0);
        boards.push_back({{"board", bd.num},
                          {"role", s.uiMaster ? "master" : "standby"},
                          {"joined", g_haFd[bd.num] >= 0},
                          {"standby_present", s.uiPeer == 1}});
    }
    Json responses = Json::array();
    for (const auto &r : g_responses) {
        Json j = {{"time", r.time}, {"board", r.board}, {"event", r.event}};
        j["data"] = r.data < 0 ? Json(nullptr) : Json(r.data);
        responses.push_back(j);
    }
    return {{"master", HaMaster()},
            {"mtu", g_opt.settings.haMtu},
            {"boards", boards},
            {"events_sent", {g_events[0], g_events[1], g_events[2], g_events[3]}},
            {"messages_relayed", g_relayed},
            {"messages_dropped", g_dropped},
            {"responses", responses}};
}

} // namespace chassis
