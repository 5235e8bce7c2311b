/* L3VPN service of the chassis: the VRF an interface is bound to, and the
 * event service of its clients. The bindings live in the interface records
 * (ifmgr.cpp), where chassisctl's "vrf bind" and "vrf unbind" change them
 * and then call L3vpnNotify.
 *
 * A client registers by name with an event mask; its channel gets a bind
 * (4) or unbind (8) event for every change its mask selects, and on request
 * the batch of every current binding: 0x400000, one event 4 per binding,
 * 0x800000. Acknowledgements are counted per registration. Stopped on a
 * board ("chassisctl l3vpn stop"), the service hangs up every registration
 * there and refuses new ones until started again. */
#include "chassisd.h"
#include "plat_l3vpn.h"

namespace chassis {

namespace {

namespace rpc = tbdl::rpc;

struct Registration {
    std::string name;
    uint32_t mask = 0;
    uint64_t events = 0, batches = 0, acks = 0;
    std::map<uint32_t, uint64_t> acksByEvent;
};

struct L3vpnState {
    std::map<int, Registration> regs; /* by channel descriptor */
    bool stopped[tbdl::plat::kMaxBoards] = {};
    uint64_t refused[tbdl::plat::kMaxBoards] = {};
};
L3vpnState g_l3;

SubscriberList &Clients() { return Subscribers(Channel::L3VPN); }

void OnGetVrf(Conn &c, const rpc::Hdr &h, const uint8_t *p, size_t len)
{
    rpc::IfRef ref{};
    Interface *i = rpc::Decode(p, len, ref) ? IfFind(ref.uiIfIndex) : nullptr;
    uint16_t vrf = i != nullptr ? i->vrf : 0;
    Reply(c, h, i != nullptr ? 0 : 1, rpc::Encode(rpc::VrfValue{vrf}));
}

void Send(Conn &c, uint32_t event, const rpc::L3vpnEvt *evt)
{
    Push(c.fd, rpc::OP_L3VPN_PUSH, static_cast<uint16_t>(c.board), event, evt,
         evt != nullptr ? sizeof(*evt) : 0);
    g_l3.regs[c.fd].events++;
}

void OnRegister(Conn &c, const rpc::Hdr &h, const uint8_t *p, size_t len)
{
    if (g_l3.stopped[h.usBoard] || len == 0 || len > rpc::kMaxL3vpnClientName) {
        g_l3.refused[h.usBoard]++;
        Reply(c, h, 1);
        return;
    }
    OpenChannel(c, Channel::L3VPN, h.usBoard);
    Registration &r = g_l3.regs[c.fd];
    r.name.assign(reinterpret_cast<const char *>(p), len);
    r.mask = h.uiArg;
    Log("board " + std::to_string(c.board) + ": L3VPN client " + r.name + " registered");
    Reply(c, h, 0);
}

/* The batch of every current binding, whatever the client's mask. */
void OnBatch(Conn &c, const rpc::Hdr &, const uint8_t *, size_t)
{
    if (c.channel != Channel::L3VPN) {
        return;
    }
    g_l3.regs[c.fd].batches++;
    Send(c, L3VPN_EV_BATCH_BEGIN, nullptr);
    for (const Json &b : VrfDumpJson()) {
        rpc::L3vpnEvt evt{b["vrf"].get<uint16_t>(), 0, b["ifindex"].get<uint32_t>()};
        Send(c, L3VPN_EV_VRF_BIND, &evt);
    }
    Send(c, L3VPN_EV_BATCH_END, nullptr);
}

void OnAck(Conn &c, const rpc::Hdr &h, const uint8_t *p, size_t len)
{
    rpc::VrfValue vrf{};
    if (c.channel != Channel::L3VPN || !rpc::Decode(p, len, vrf)) {
        return;
    }
    Registration &r = g_l3.regs[c.fd];
    r.acks++;
    r.acksByEvent[h.uiArg]++;
}

void OnClose(Conn &c, bool)
{
    if (c.channel == Channel::L3VPN) {
        g_l3.regs.erase(c.fd);
    }
}

void SetStopped(int board, bool stopped)
{
    g_l3.stopped[board] = stopped;
    if (stopped) {
        std::vector<int> fds;
        Clients().ForBoard(board, [&fds](Conn &c) { fds.push_back(c.fd); });
        for (int fd : fds) {
            Drop(fd);
        }
    }
}

Json Dump(int)
{
    Json regs = Json::array(), stopped = Json::array();
    for (int b : g_opt.settings.boards) {
        Clients().ForBoard(b, [&](Conn &c) {
            const Registration &r = g_l3.regs[c.fd];
            Json acks = Json::object();
            for (const auto &[ev, n] : r.acksByEvent) {
                acks[std::to_string(ev)] = n;
            }
            regs.push_back({{"board", b}, {"name", r.name}, {"mask", r.mask}, {"events_sent", r.events},
                            {"batches", r.batches}, {"acks", r.acks}, {"acks_by_event", acks}});
        });
        stopped.push_back({{"board", b}, {"stopped", g_l3.stopped[b]}, {"refused", g_l3.refused[b]}});
    }
    return {{"bindings", VrfDumpJson()}, {"registrations", regs}, {"service", stopped}};
}

} // namespace

void L3vpnNotify(uint32_t ifIndex, uint16_t oldVrf, uint16_t newVrf)
{
    if (oldVrf == newVrf) {
        return;
    }
    uint32_t event = newVrf != 0 ? L3VPN_EV_VRF_BIND : L3VPN_EV_VRF_UNBIND;
    rpc::L3vpnEvt evt{newVrf != 0 ? newVrf : oldVrf, 0, ifIndex};
    for (int b : g_opt.settings.boards) {
        Clients().ForBoard(b, [&](Conn &c) {
            if ((g_l3.regs[c.fd].mask & event) != 0) {
                Send(c, event, &evt);
            }
        });
    }
}

/* chassisctl "l3vpn stop|start" reaches this row as "vrf_stop|vrf_start",
 * by its dump's name. */
const Service &L3vpnService()
{
    static const Service s{.name = "L3VPN",
                           .ops = {{rpc::OP_L3VPN_GET_VRF, OnGetVrf},
                                   {rpc::OP_L3VPN_REGISTER, OnRegister},
                                   {rpc::OP_L3VPN_BATCH, OnBatch},
                                   {rpc::OP_L3VPN_ACK, OnAck}},
                           .onClose = OnClose,
                           .dumpName = "vrf",
                           .dump = Dump,
                           .setStopped = SetStopped};
    return s;
}

} // namespace chassis
