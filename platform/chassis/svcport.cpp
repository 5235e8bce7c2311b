/* Service-port state source of the chassis: the service behind port 2168
 * is up, down or absent ("chassisctl svcport up|down|absent"); a chassis
 * starts with it up. A new subscription is told the current state at once,
 * and every change goes to every subscriber. While the port is absent,
 * subscriptions are refused, and those in place are hung up. */
#include "chassisd.h"
#include "plat_svcport.h"

namespace chassis {

namespace {

namespace rpc = tbdl::rpc;

/* The one service port this chassis has. */
constexpr uint16_t kServicePort = 2168;

enum class PortState { UP, DOWN, ABSENT };

struct SvcPortState {
    PortState state = PortState::UP;
    uint64_t sent[tbdl::plat::kMaxBoards] = {};
    uint64_t refused[tbdl::plat::kMaxBoards] = {};
};
SvcPortState g_port;

const char *NameOf(PortState s)
{
    switch (s) {
    case PortState::UP: return "up";
    case PortState::DOWN: return "down";
    case PortState::ABSENT: return "absent";
    }
    return "?";
}

SubscriberList &Watchers() { return Subscribers(Channel::SVCPORT); }

void Tell(Conn &c)
{
    rpc::SvcPortRec evt{SVCPORT_SUB_KIND, g_port.state == PortState::UP ? SVCPORT_STATE_UP : SVCPORT_STATE_DOWN,
                        kServicePort, 0};
    Push(c.fd, rpc::OP_SVCPORT_PUSH, static_cast<uint16_t>(c.board), 0, &evt, sizeof(evt));
    g_port.sent[c.board]++;
}

void OnSubscribe(Conn &c, const rpc::Hdr &h, const uint8_t *p, size_t len)
{
    rpc::SvcPortRec sub{};
    if (!rpc::Decode(p, len, sub) || sub.usPort != kServicePort || g_port.state == PortState::ABSENT) {
        g_port.refused[h.usBoard]++;
        Reply(c, h, 1);
        return;
    }
    OpenChannel(c, Channel::SVCPORT, h.usBoard);
    Reply(c, h, 0);
    Tell(c);
}

void ForEachWatcher(const std::function<void(Conn &)> &fn)
{
    for (int b : g_opt.settings.boards) {
        Watchers().ForBoard(b, fn);
    }
}

Json Dump(int)
{
    Json boards = Json::array();
    for (int b : g_opt.settings.boards) {
        size_t n = 0;
        Watchers().ForBoard(b, [&n](Conn &) { ++n; });
        boards.push_back({{"board", b}, {"subscriptions", n}, {"events_sent", g_port.sent[b]},
                          {"refused", g_port.refused[b]}});
    }
    return {{"port", kServicePort}, {"state", NameOf(g_port.state)}, {"boards", boards}};
}

void Clear(int board, ClearReason)
{
    g_port.sent[board] = 0;
    g_port.refused[board] = 0;
}

} // namespace

bool SvcPortSet(const std::string &state, std::string &err)
{
    PortState next;
    if (state == "up") {
        next = PortState::UP;
    } else if (state == "down") {
        next = PortState::DOWN;
    } else if (state == "absent") {
        next = PortState::ABSENT;
    } else {
        err = "the service port is up, down or absent, not '" + state + "'";
        return false;
    }
    if (next == g_port.state) {
        return true;
    }
    g_port.state = next;
    Log(std::string("service port ") + std::to_string(kServicePort) + " " + NameOf(next));
    std::vector<int> gone;
    ForEachWatcher([&gone](Conn &c) {
        if (g_port.state == PortState::ABSENT) {
            gone.push_back(c.fd);
        } else {
            Tell(c);
        }
    });
    for (int fd : gone) {
        Drop(fd);
    }
    return true;
}

const Service &SvcPortService()
{
    static const Service s{.name = "service port",
                           .ops = {{rpc::OP_SVCPORT_SUBSCRIBE, OnSubscribe}},
                           .clearBoard = Clear,
                           .dumpName = "svcport",
                           .dump = Dump};
    return s;
}

} // namespace chassis
