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
 * just joined, the master is asked for a batch backup (HA_EV_BATCH_BACKUP)
 * so the standby's kernel table follows the master's.
 *
 * A board's channel is its one subscriber on the HA list; a newer channel
 * of the same board takes the place of the older one.
 *
 * The role lives in g_master alone: switchover, failover and cuts of the
 * HA link change it (or the relay) in one place. */
#include "chassisd.h"
#include "journal.h"
#include "plat_ha.h"

namespace chassis {

namespace {

int g_master = -1;
constexpr uint32_t kHaEvents = HA_EV_ACK_ONLY + 1;

struct HaRecord {
    std::string time;
    int board;
    uint32_t event;
    int64_t data; /* -1: no data */
};
std::deque<HaRecord> g_responses;
uint64_t g_relayed = 0;
uint64_t g_dropped = 0;
uint64_t g_events[kHaEvents] = {};

int Peer(int b) { return 1 - b; }

SubscriberList &Joined() { return Subscribers(Channel::HA); }

tbdl::rpc::HaState StateOf(int b, uint32_t value)
{
    tbdl::rpc::HaState s{};
    s.uiMaster = b == HaMaster() ? 1 : 0;
    s.uiPeer = (s.uiMaster == 1 && g_boards[Peer(b)].present && Joined().Has(Peer(b))) ? 1 : 0;
    s.uiMtu = g_opt.settings.haMtu;
    s.uiValue = value;
    return s;
}

void PushTo(int b, uint32_t kind, uint32_t value, const uint8_t *data = nullptr, size_t len = 0)
{
    if (!Joined().Has(b)) {
        return;
    }
    Publish(Channel::HA, b, tbdl::rpc::OP_HA_PUSH, kind, tbdl::rpc::Encode(StateOf(b, value), data, len));
}

void PushEvent(int b, uint32_t event)
{
    if (event < kHaEvents) {
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

namespace {

/* HA_Init: the connection becomes the board's HA channel; the reply
 * carries the HA state. */
void OnRegister(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *, size_t)
{
    int b = h.usBoard;
    if (Conn *old = Joined().First(b); old != nullptr && old != &c) {
        Log("board " + std::to_string(b) + ": HA channel replaced by a new one");
        Joined().Remove(*old);
    }
    OpenChannel(c, Channel::HA, b);
    tbdl::rpc::HaState s = StateOf(b, 0);
    Reply(c, h, 0, tbdl::rpc::Encode(s));
    Log("board " + std::to_string(b) + ": joined the HA service as " + (s.uiMaster ? "master" : "standby"));
    int m = HaMaster();
    int standby = Peer(m);
    if (g_boards[standby].present && Joined().Has(m) && Joined().Has(standby)) {
        if (b == standby) {
            PushTo(m, tbdl::rpc::HA_PUSH_STATE, 0);
        }
        Log("board " + std::to_string(m) + ": asked for a batch backup (HA event 1) for board " +
            std::to_string(standby));
        PushEvent(m, HA_EV_BATCH_BACKUP);
    }
}

/* The board's HA channel closed: it has left the HA service. */
void OnClose(Conn &c, bool wasSubscriber)
{
    if (c.channel != Channel::HA || !wasSubscriber) {
        return;
    }
    int b = c.board;
    Log("board " + std::to_string(b) + ": left the HA service");
    int m = HaMaster();
    if (b != m) {
        PushTo(m, tbdl::rpc::HA_PUSH_STATE, 0);
    }
}

/* HA_Response: the event in the argument, optional data. */
uint32_t Response(int board, uint32_t event, const uint8_t *data, size_t len)
{
    int64_t v = -1;
    if (tbdl::rpc::HaResponseData d{}; tbdl::rpc::Decode(data, len, d)) {
        v = d.uiData;
    }
    g_responses.push_back({tbdl::plat::IsoTimeNow(), board, event, v});
    if (g_responses.size() > 64) {
        g_responses.pop_front();
    }
    Log("board " + std::to_string(board) + ": HA response to event " + std::to_string(event) +
        (v < 0 ? "" : " with data " + std::to_string(v)));
    return 0;
}

/* HA_SendMsgSync: relayed to the peer board's channel. */
uint32_t Send(int board, uint32_t flag, const uint8_t *msg, size_t len)
{
    int peer = Peer(board);
    if (!g_boards[peer].present || !Joined().Has(peer) || len == 0 || len > 65535) {
        g_dropped++;
        return 1;
    }
    g_relayed++;
    PushTo(peer, tbdl::rpc::HA_PUSH_MSG, flag, msg, len);
    return 0;
}

void OnResponse(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *p, size_t len)
{
    Reply(c, h, Response(h.usBoard, h.uiArg, p, len));
}

void OnSend(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *p, size_t len)
{
    Reply(c, h, Send(h.usBoard, h.uiArg, p, len));
}

} // namespace

bool HaInjectEvent(int board, uint32_t event, std::string &err)
{
    if (!Joined().Has(board)) {
        err = "board " + std::to_string(board) + "'s daemon has not joined the HA service";
        return false;
    }
    Log("board " + std::to_string(board) + ": HA event " + std::to_string(event) + " on request");
    PushEvent(board, event);
    return true;
}

/* Promotion of the standby when the master board fails, and the return
 * of a board to the pair, are the HA pair's work; until it is built a
 * board going down or coming back changes no role here. */
void HaBoardDown(int, ClearReason) {}
void HaBoardUp(int) {}

namespace {

Json Dump(int)
{
    Json boards = Json::array();
    for (const Board &bd : g_boards) {
        if (!bd.present) {
            continue;
        }
        tbdl::rpc::HaState s = StateOf(bd.num, 0);
        boards.push_back({{"board", bd.num},
                          {"role", s.uiMaster ? "master" : "standby"},
                          {"joined", Joined().Has(bd.num)},
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
            {"events_sent", g_events},
            {"messages_relayed", g_relayed},
            {"messages_dropped", g_dropped},
            {"responses", responses}};
}

} // namespace

const Service &HaService()
{
    static const Service s{.name = "HA",
                           .ops = {{tbdl::rpc::OP_HA_RESPONSE, OnResponse},
                                   {tbdl::rpc::OP_HA_SEND, OnSend},
                                   {tbdl::rpc::OP_HA_REGISTER, OnRegister}},
                           .onClose = OnClose,
                           .dumpName = "ha",
                           .dump = Dump};
    return s;
}

} // namespace chassis
