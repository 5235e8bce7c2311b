/* Interface events of the chassis: each board daemon's event channel, the
 * subscriptions made on it (event mask and interface type), the packets of
 * events sent to it and the acknowledgements it returns.
 *
 * A packet goes to a channel when one of its subscriptions selects the
 * event and the interfaces' type; it holds every interface of that type the
 * change concerns. The interface manager changes its table before it sends;
 * a deletion sends first and removes the interface once every channel it
 * went to has acknowledged (or closed, or a deadline passed), so a daemon
 * can still read the interface while it handles the event. */
#include <algorithm>
#include <cstring>
#include <set>

#include "chassisd.h"

namespace chassis {

namespace {

namespace rpc = tbdl::rpc;

/* Longest wait for the acknowledgements of a deletion. */
constexpr auto kAckDeadline = std::chrono::seconds(3);

struct Counters {
    uint64_t packets = 0, entries = 0, acks = 0, ackedEntries = 0, hangups = 0;
};

/* Acknowledgements a deletion waits for. */
struct AckWait {
    std::set<int> fds;
    uint32_t event;
    uint32_t ifIndex;
    std::function<void()> done;
    uint64_t timer = 0;
};

struct IfevState {
    std::map<int, std::vector<rpc::IfevSub>> subs; /* by channel descriptor */
    Counters count[tbdl::plat::kMaxBoards];
    std::map<uint64_t, AckWait> waits;
    uint64_t nextWait = 1;
};
IfevState g_ev;

SubscriberList &Channels() { return Subscribers(Channel::IFEV); }

bool Selects(int fd, uint32_t event, uint32_t ifType)
{
    auto it = g_ev.subs.find(fd);
    if (it == g_ev.subs.end()) {
        return false;
    }
    return std::any_of(it->second.begin(), it->second.end(), [&](const rpc::IfevSub &s) {
        return (s.uiMask & event) == event && (s.uiIfType == 0 || s.uiIfType == ifType);
    });
}

void Finish(uint64_t id)
{
    auto it = g_ev.waits.find(id);
    if (it == g_ev.waits.end()) {
        return;
    }
    std::function<void()> done = std::move(it->second.done);
    Cancel(it->second.timer);
    g_ev.waits.erase(it);
    done();
}

/* A channel no longer owes acknowledgements (it gave one, or it closed). */
void Release(int fd, const std::function<bool(const AckWait &)> &concerns)
{
    std::vector<uint64_t> finished;
    for (auto &[id, w] : g_ev.waits) {
        if (concerns(w) && w.fds.erase(fd) == 1 && w.fds.empty()) {
            finished.push_back(id);
        }
    }
    for (uint64_t id : finished) {
        Finish(id);
    }
}

void OnRegister(Conn &c, const rpc::Hdr &h, const uint8_t *, size_t)
{
    OpenChannel(c, Channel::IFEV, h.usBoard);
    g_ev.subs[c.fd];
    Reply(c, h, 0);
}

/* Subscribe and unsubscribe come one-way on the channel: no reply. */
void OnSubscribe(Conn &c, const rpc::Hdr &h, const uint8_t *p, size_t len)
{
    rpc::IfevSub sub{};
    if (c.channel != Channel::IFEV || !rpc::Decode(p, len, sub)) {
        return;
    }
    std::vector<rpc::IfevSub> &subs = g_ev.subs[c.fd];
    bool unsubscribe = h.usOp == rpc::OP_IFEV_UNSUBSCRIBE;
    std::erase_if(subs, [&](const rpc::IfevSub &s) { return s.uiHandle == sub.uiHandle; });
    if (!unsubscribe) {
        subs.push_back(sub);
    }
}

void OnAck(Conn &c, const rpc::Hdr &h, const uint8_t *p, size_t len)
{
    rpc::IfevAckHead head{};
    const uint8_t *entries = nullptr;
    size_t entriesLen = 0;
    if (c.channel != Channel::IFEV || !rpc::DecodeHead(p, len, head, entries, entriesLen) ||
        entriesLen != size_t{head.uiCount} * rpc::kIfevEntryLen) {
        return;
    }
    Counters &n = g_ev.count[c.board];
    n.acks++;
    n.ackedEntries += head.uiCount;
    std::set<uint32_t> acked;
    for (size_t k = 0; k < head.uiCount; ++k) {
        IF_EVENT_ENTRY_S e{};
        std::memcpy(&e, entries + k * rpc::kIfevEntryLen, sizeof(e));
        acked.insert(e.uiIfIndex);
    }
    Release(c.fd, [&](const AckWait &w) { return w.event == h.uiArg && acked.count(w.ifIndex) != 0; });
}

void OnClose(Conn &c, bool)
{
    if (c.channel != Channel::IFEV) {
        return;
    }
    g_ev.subs.erase(c.fd);
    Release(c.fd, [](const AckWait &) { return true; });
}

void Clear(int board, ClearReason) { g_ev.count[board] = Counters{}; }

} // namespace

std::vector<int> IfevSend(uint32_t event, uint32_t ifType, const std::vector<uint32_t> &ifIndexes)
{
    std::vector<int> sentTo;
    if (ifIndexes.empty()) {
        return sentTo;
    }
    std::vector<IF_EVENT_ENTRY_S> entries;
    for (uint32_t idx : ifIndexes) {
        entries.push_back(IF_EVENT_ENTRY_S{idx, 0});
    }
    rpc::IfevPushHead head{static_cast<uint32_t>(entries.size()), ifType};
    Bytes body = rpc::Encode(head, entries.data(), entries.size() * sizeof(IF_EVENT_ENTRY_S));
    for (int b : g_opt.settings.boards) {
        Channels().ForBoard(b, [&](Conn &c) {
            if (Selects(c.fd, event, ifType)) {
                Push(c.fd, rpc::OP_IFEV_PUSH, static_cast<uint16_t>(b), event, body.data(), body.size());
                g_ev.count[b].packets++;
                g_ev.count[b].entries += entries.size();
                sentTo.push_back(c.fd);
            }
        });
    }
    return sentTo;
}

void IfevAwaitAcks(const std::vector<int> &fds, uint32_t event, uint32_t ifIndex, std::function<void()> done)
{
    if (fds.empty()) {
        done();
        return;
    }
    uint64_t id = g_ev.nextWait++;
    AckWait &w = g_ev.waits[id];
    w.fds.insert(fds.begin(), fds.end());
    w.event = event;
    w.ifIndex = ifIndex;
    w.done = std::move(done);
    w.timer = After(kAckDeadline, [id] { Finish(id); });
}

bool IfevHangup(int board, std::string &err)
{
    std::vector<int> fds;
    Channels().ForBoard(board, [&fds](Conn &c) { fds.push_back(c.fd); });
    if (fds.empty()) {
        err = "board " + std::to_string(board) + " has no interface-event channel";
        return false;
    }
    for (int fd : fds) {
        Drop(fd);
    }
    g_ev.count[board].hangups++;
    return true;
}

Json IfevDumpJson()
{
    Json boards = Json::array();
    for (int b : g_opt.settings.boards) {
        Json subs = Json::array();
        Channels().ForBoard(b, [&](Conn &c) {
            for (const rpc::IfevSub &s : g_ev.subs[c.fd]) {
                subs.push_back({{"handle", s.uiHandle}, {"mask", s.uiMask}, {"type", s.uiIfType}});
            }
        });
        const Counters &n = g_ev.count[b];
        boards.push_back({{"board", b},
                          {"subscriptions", subs},
                          {"packets_sent", n.packets},
                          {"entries_sent", n.entries},
                          {"acks", n.acks},
                          {"entries_acked", n.ackedEntries},
                          {"hangups", n.hangups}});
    }
    return boards;
}

const Service &IfEventService()
{
    static const Service s{.name = "interface events",
                           .ops = {{rpc::OP_IFEV_REGISTER, OnRegister},
                                   {rpc::OP_IFEV_SUBSCRIBE, OnSubscribe},
                                   {rpc::OP_IFEV_UNSUBSCRIBE, OnSubscribe},
                                   {rpc::OP_IFEV_ACK, OnAck}},
                           .onClose = OnClose,
                           .clearBoard = Clear};
    return s;
}

} // namespace chassis
