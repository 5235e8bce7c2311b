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
 * A board's daemon sends its responses and backup messages one-way on its
 * HA channel (the shared connection's request/reply form is served too):
 * one stream per board, read in the order the daemon issued them, so a
 * master's last backups are relayed before the response that lets a
 * switchover go on. Nothing is answered on the channel but pushes.
 *
 * The role lives in g_master alone. The pair's procedures change it:
 *  - switchover (on request): event 0 to the master, its response, the
 *    roles change, event 2 to the new master, its response, the old master
 *    reported as standby, event 1 (batch backup) to the new master, its
 *    response;
 *  - failover (the master board failed): the roles change at once and the
 *    standby gets event 2.
 * chassisd never blocks: each wait for a response is a deadline timer on
 * the loop, and a missed deadline is logged and the procedure goes on.
 * While the HA link is cut, relayed messages are dropped and the master
 * sees no standby; on restore the standby rejoins with an empty kernel
 * table and the master is asked for a batch backup. */
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
uint64_t g_batchSends = 0;
uint64_t g_events[kHaEvents] = {};
bool g_cut = false;      /* the HA link between the boards is cut */
bool g_hidePeer = false; /* the new master has not been told of its standby yet */

/* The steps of the last switchover or failover, each with its time. */
struct Procedure {
    int from = -1;
    int to = -1;
    Clock::time_point start;
    Json steps = Json::array();
    bool done = false;
};
Procedure g_switchover;
Procedure g_failover;

/* The response the running procedure waits for. */
struct Wait {
    Procedure *proc = nullptr; /* null: no procedure runs */
    int board = -1;
    uint32_t event = 0;
    uint64_t timer = 0;
    int ctlFd = -1; /* chassisctl waiting for the end of a switchover */
    std::function<void()> next;
};
Wait g_wait;

int Peer(int b) { return 1 - b; }

SubscriberList &Joined() { return Subscribers(Channel::HA); }

bool Up(int b)
{
    return b >= 0 && b < tbdl::plat::kMaxBoards && g_boards[b].present && g_boards[b].state != BoardState::DOWN;
}

/* The master's daemon may count on a standby: it has joined and the link
 * carries messages to it. */
bool StandbyVisible(int master)
{
    int s = Peer(master);
    return !g_cut && !g_hidePeer && Up(s) && Joined().Has(s);
}

tbdl::rpc::HaState StateOf(int b, uint32_t value)
{
    tbdl::rpc::HaState s{};
    s.uiMaster = b == HaMaster() ? 1 : 0;
    s.uiPeer = (s.uiMaster == 1 && StandbyVisible(b)) ? 1 : 0;
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

std::string Name(int b) { return "board " + std::to_string(b); }

/* ---- procedures ---- */

void Step(Procedure &p, const std::string &what)
{
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - p.start).count();
    p.steps.push_back({{"time", tbdl::plat::IsoTimeNow()}, {"ms", ms}, {"step", what}});
}

void Begin(Procedure &p, int from, int to)
{
    p = Procedure{from, to, Clock::now(), Json::array(), false};
}

void EventStep(Procedure &p, int b, uint32_t event)
{
    Step(p, "event " + std::to_string(event) + " to " + Name(b));
    PushEvent(b, event);
}

/* Waits for the board's response to the event; next runs on the response
 * or when the deadline passes. */
void WaitFor(Procedure &p, int b, uint32_t event, std::function<void()> next)
{
    g_wait.proc = &p;
    g_wait.board = b;
    g_wait.event = event;
    g_wait.next = std::move(next);
    uint32_t ms = g_opt.settings.haResponseMs;
    g_wait.timer = After(std::chrono::milliseconds(ms), [b, event, ms] {
        g_wait.timer = 0;
        Log(Name(b) + ": no response to HA event " + std::to_string(event) + " within " + std::to_string(ms) +
            " ms; going on without it");
        Step(*g_wait.proc, "no response from " + Name(b) + " to event " + std::to_string(event) + " within " +
                               std::to_string(ms) + " ms");
        auto next = std::move(g_wait.next);
        next();
    });
}

/* Ends the running procedure; a waiting chassisctl gets the steps, or the
 * error when the procedure was cut short. */
void Finish(const std::string &error = "")
{
    Procedure *p = g_wait.proc;
    Cancel(g_wait.timer);
    int fd = g_wait.ctlFd;
    g_wait = Wait{};
    if (p == nullptr) {
        return;
    }
    Step(*p, error.empty() ? "done" : error);
    p->done = error.empty();
    if (fd >= 0 && FindConn(fd) != nullptr) {
        ReplyCtl(fd, error.empty() ? Json{{"ok", true}, {"steps", p->steps}} : Json{{"ok", false}, {"error", error}});
    }
}

void AskBatchBackup(Procedure *p, int master)
{
    Log(Name(master) + ": asked for a batch backup (HA event 1) for " + Name(Peer(master)));
    if (p != nullptr) {
        EventStep(*p, master, HA_EV_BATCH_BACKUP);
    } else {
        PushEvent(master, HA_EV_BATCH_BACKUP);
    }
}

void SwitchoverBackup()
{
    int to = g_switchover.to;
    g_hidePeer = false;
    PushTo(to, tbdl::rpc::HA_PUSH_STATE, 0);
    Step(g_switchover, Name(g_switchover.from) + " reported to " + Name(to) + " as standby");
    AskBatchBackup(&g_switchover, to);
    WaitFor(g_switchover, to, HA_EV_BATCH_BACKUP, [] { Finish(); });
}

void SwitchoverRoles()
{
    int from = g_switchover.from;
    int to = g_switchover.to;
    g_master = to;
    g_hidePeer = true; /* until the new master has answered event 2 */
    Log("switchover: " + Name(to) + " is master, " + Name(from) + " standby");
    Step(g_switchover, "roles changed: " + Name(to) + " master, " + Name(from) + " standby");
    PushTo(from, tbdl::rpc::HA_PUSH_STATE, 0);
    EventStep(g_switchover, to, HA_EV_UPGRADE);
    WaitFor(g_switchover, to, HA_EV_UPGRADE, SwitchoverBackup);
}

/* The response a procedure waits for has come. */
void Answered(int board, uint32_t event)
{
    if (g_wait.proc == nullptr || g_wait.board != board || g_wait.event != event) {
        return;
    }
    Cancel(g_wait.timer);
    g_wait.timer = 0;
    Step(*g_wait.proc, Name(board) + " responded to event " + std::to_string(event));
    auto next = std::move(g_wait.next);
    next();
}

/* The master board failed: the standby is master at once and activates. */
void Failover(int failed)
{
    int to = Peer(failed);
    if (!Up(to)) {
        Log(Name(failed) + ": the master board failed and there is no standby board to take over");
        return;
    }
    g_master = to;
    g_hidePeer = false;
    Begin(g_failover, failed, to);
    Step(g_failover, Name(failed) + " failed");
    Step(g_failover, "roles changed: " + Name(to) + " master");
    Log("failover: " + Name(failed) + " failed; " + Name(to) + " is master");
    if (!Joined().Has(to)) {
        Step(g_failover, "done: " + Name(to) + "'s daemon activates when it joins as master");
        g_failover.done = true;
        return;
    }
    EventStep(g_failover, to, HA_EV_UPGRADE);
    WaitFor(g_failover, to, HA_EV_UPGRADE, [] { Finish(); });
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
        Log(Name(b) + ": HA channel replaced by a new one");
        Joined().Remove(*old);
    }
    OpenChannel(c, Channel::HA, b);
    tbdl::rpc::HaState s = StateOf(b, 0);
    Reply(c, h, 0, tbdl::rpc::Encode(s));
    Log(Name(b) + ": joined the HA service as " + (s.uiMaster ? "master" : "standby"));
    int m = HaMaster();
    if (Joined().Has(m) && StandbyVisible(m)) {
        if (b != m) {
            PushTo(m, tbdl::rpc::HA_PUSH_STATE, 0);
        }
        AskBatchBackup(nullptr, m);
    }
}

/* The board's HA channel closed: it has left the HA service. */
void OnClose(Conn &c, bool wasSubscriber)
{
    if (c.channel != Channel::HA || !wasSubscriber) {
        return;
    }
    int b = c.board;
    Log(Name(b) + ": left the HA service");
    int m = HaMaster();
    if (b != m) {
        PushTo(m, tbdl::rpc::HA_PUSH_STATE, 0);
    }
}

/* HA_Response: the event in the argument, optional data. */
uint32_t Response(int board, uint32_t event, const uint8_t *data, size_t len)
{
    if (!Up(board)) {
        return 0; /* a late word of a board that failed */
    }
    int64_t v = -1;
    if (tbdl::rpc::HaResponseData d{}; tbdl::rpc::Decode(data, len, d)) {
        v = d.uiData;
    }
    g_responses.push_back({tbdl::plat::IsoTimeNow(), board, event, v});
    if (g_responses.size() > 64) {
        g_responses.pop_front();
    }
    Log(Name(board) + ": HA response to event " + std::to_string(event) +
        (v < 0 ? "" : " with data " + std::to_string(v)));
    Answered(board, event);
    return 0;
}

/* HA_SendMsgSync: relayed to the peer board's channel. What the link
 * cannot carry, or what a failed board sent before it died, is dropped
 * and counted. */
uint32_t Send(int board, uint32_t flag, const uint8_t *msg, size_t len)
{
    int peer = Peer(board);
    if (!Up(board) || g_cut || !Up(peer) || !Joined().Has(peer) || len == 0 || len > 65535) {
        g_dropped++;
        return 1;
    }
    g_relayed++;
    if (flag == 0) {
        g_batchSends++;
    }
    PushTo(peer, tbdl::rpc::HA_PUSH_MSG, flag, msg, len);
    return 0;
}

/* A request on the shared connection is answered; the same message on the
 * HA channel is one-way. */
void Answer(Conn &c, const tbdl::rpc::Hdr &h, uint32_t result)
{
    if (!HaOneWay(c, h.usOp)) {
        Reply(c, h, result);
    }
}

void OnResponse(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *p, size_t len)
{
    Answer(c, h, Response(h.usBoard, h.uiArg, p, len));
}

void OnSend(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *p, size_t len)
{
    Answer(c, h, Send(h.usBoard, h.uiArg, p, len));
}

} // namespace

bool HaOneWay(const Conn &c, uint16_t op)
{
    return c.channel == Channel::HA && (op == tbdl::rpc::OP_HA_SEND || op == tbdl::rpc::OP_HA_RESPONSE);
}

bool HaInjectEvent(int board, uint32_t event, std::string &err)
{
    if (!Joined().Has(board)) {
        err = Name(board) + "'s daemon has not joined the HA service";
        return false;
    }
    Log(Name(board) + ": HA event " + std::to_string(event) + " on request");
    PushEvent(board, event);
    return true;
}

bool HaSwitchover(int ctlFd, std::string &err)
{
    if (g_wait.proc != nullptr) {
        err = "a switchover or failover is still running";
        return false;
    }
    int from = HaMaster();
    int to = Peer(from);
    if (!Up(from) || !StandbyVisible(from)) {
        err = "no standby has joined the HA service; there is nothing to switch over to";
        return false;
    }
    Log("switchover from " + Name(from) + " to " + Name(to) + " on request");
    Begin(g_switchover, from, to);
    g_wait.ctlFd = ctlFd;
    EventStep(g_switchover, from, HA_EV_DEACTIVATE);
    WaitFor(g_switchover, from, HA_EV_DEACTIVATE, SwitchoverRoles);
    return true;
}

bool HaCut(bool cut, std::string &err)
{
    if (g_cut == cut) {
        err = cut ? "the HA link is already cut" : "the HA link is not cut";
        return false;
    }
    g_cut = cut;
    int m = HaMaster();
    int s = Peer(m);
    Log(cut ? "HA link cut on request" : "HA link restored on request");
    if (!cut && Up(s)) {
        /* The standby missed what was dropped: it starts again from an
         * empty kernel table and a full batch. */
        KtbdlService().clearBoard(s, ClearReason::REBOOT);
        Log(Name(s) + ": kernel table reset; rejoining the master");
    }
    PushTo(m, tbdl::rpc::HA_PUSH_STATE, 0);
    if (!cut && Joined().Has(m) && StandbyVisible(m)) {
        AskBatchBackup(nullptr, m);
    }
    return true;
}

void HaBoardDown(int board, ClearReason why)
{
    if (why != ClearReason::BOARD_FAILED) {
        return;
    }
    if (g_wait.proc != nullptr && (g_wait.proc->from == board || g_wait.proc->to == board)) {
        Finish(Name(board) + " failed during the " + (g_wait.proc == &g_switchover ? "switchover" : "failover"));
    }
    if (Conn *c = Joined().First(board); c != nullptr) {
        Drop(c->fd); /* the board's HA channel is gone with it */
    }
    if (board == HaMaster()) {
        Failover(board);
    }
}

void HaBoardUp(int board)
{
    if (!Up(HaMaster()) && Up(board)) {
        g_master = board; /* the only running board is master */
        Log(Name(board) + " is master: the other board is down");
    }
}

namespace {

Json ProcedureJson(const Procedure &p)
{
    if (p.from < 0) {
        return nullptr;
    }
    return {{"from", p.from}, {"to", p.to}, {"done", p.done}, {"steps", p.steps}};
}

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
            {"response_ms", g_opt.settings.haResponseMs},
            {"link", g_cut ? "cut" : "up"},
            {"boards", boards},
            {"events_sent", g_events},
            {"messages_relayed", g_relayed},
            {"messages_dropped", g_dropped},
            {"batch_sends", g_batchSends},
            {"switchover", ProcedureJson(g_switchover)},
            {"failover", ProcedureJson(g_failover)},
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
