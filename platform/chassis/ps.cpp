/* PS of each board: the bundles the board's daemon downloaded, keyed by
 * bundle number, with smoothing cycles.
 *
 * A client connects to DIR/board<N>/ps.sock (the PS library does) and
 * writes sends of one or more messages (ps_msg.h). A send is checked whole
 * before any of it is applied; a malformed one is counted, logged with its
 * bytes and otherwise ignored. Smooth 0 begins a cycle, smooth 1 ends it and
 * drops the bundles the cycle did not update. The table stays when a
 * client's connection goes; reboot and board failure empty it. */
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "chassis_env.h"
#include "chassisd.h"
#include "ps_msg.h"
#include "ps_socket.h"
#include "tbdl_ps_msg.h"

namespace chassis {

namespace {

constexpr size_t kKeptSends = 256;
constexpr size_t kRecvMax = 65536;

struct PsBundle {
    PsBundleValue v;
    bool refreshed = false;
};

struct PsTable {
    std::map<uint32_t, PsBundle> bundles;
    bool inCycle = false;
    uint64_t updates = 0, deletes = 0, cycles = 0, dropped = 0, malformed = 0, received = 0;
    std::deque<Bytes> sends;
    /* When the open cycle began, and how long the last one lasted. */
    Clock::time_point cycleBegan;
    uint64_t lastCycleUs = 0;
};

struct PsBoard {
    int listenFd = -1;
    std::vector<int> conns;
    bool stopped = false;
    PsTable table;
};
PsBoard g_ps[tbdl::plat::kMaxBoards];

void Smooth(int board, PsTable &t, uint32_t type)
{
    if (type == TBDL_PS_SMOOTH_BEGIN) {
        t.inCycle = true;
        t.cycleBegan = Clock::now();
        for (auto &[num, b] : t.bundles) {
            b.refreshed = false;
        }
        return;
    }
    if (!t.inCycle) {
        Log("board " + std::to_string(board) + ": PS smoothing end without a beginning, ignored");
        return;
    }
    t.inCycle = false;
    t.cycles++;
    t.lastCycleUs = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t.cycleBegan).count());
    size_t dropped = std::erase_if(t.bundles, [](const auto &kv) { return !kv.second.refreshed; });
    t.dropped += dropped;
    if (dropped > 0) {
        Log("board " + std::to_string(board) + ": PS dropped " + std::to_string(dropped) +
            " bundles at the end of a smoothing cycle");
    }
}

void Apply(int board, const std::vector<PsMsg> &msgs)
{
    PsTable &t = g_ps[board].table;
    for (const PsMsg &m : msgs) {
        if (m.type == TBDL_PS_MSG_BND_UPDATE) {
            t.bundles[m.bundle] = PsBundle{m.value, true};
            t.updates++;
        } else if (m.type == TBDL_PS_MSG_BND_DELETE) {
            t.bundles.erase(m.bundle);
            t.deletes++;
        } else {
            Smooth(board, t, m.smooth);
        }
    }
}

std::string Hex(const Bytes &b)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string s;
    for (uint8_t x : b) {
        s += kDigits[x >> 4];
        s += kDigits[x & 15];
    }
    return s;
}

/* truncated: the send was longer than the receive buffer (and than any
 * well-formed send); its first bytes are kept. */
void Receive(int board, const Bytes &send, bool truncated)
{
    PsTable &t = g_ps[board].table;
    t.received++;
    t.sends.push_back(send);
    if (t.sends.size() > kKeptSends) {
        t.sends.pop_front();
    }
    std::vector<PsMsg> msgs;
    std::string why;
    if (truncated) {
        why = "longer than " + std::to_string(kRecvMax) + " bytes";
    }
    if (truncated || !ParsePsSend(send.data(), send.size(), msgs, why)) {
        t.malformed++;
        Log("board " + std::to_string(board) + ": PS ignored a malformed send (" + why + "): " + Hex(send));
        return;
    }
    Apply(board, msgs);
}

void CloseConn(int board, int fd)
{
    UnwatchFd(fd);
    close(fd);
    std::erase(g_ps[board].conns, fd);
    g_ps[board].table.inCycle = false; /* a cycle left open ends with its client */
}

/* A zero-length send reads like the end of the connection; only the
 * hang-up flags tell them apart. */
void OnConnReady(int board, int fd, uint32_t events)
{
    const bool hungUp = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
    if (events & EPOLLIN) {
        Bytes buf(kRecvMax);
        ssize_t n = recv(fd, buf.data(), buf.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (n > 0 || (n == 0 && !hungUp)) {
            buf.resize(std::min(static_cast<size_t>(n), buf.size()));
            Receive(board, buf, static_cast<size_t>(n) > kRecvMax);
            return;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
    }
    if (hungUp || (events & EPOLLIN)) {
        CloseConn(board, fd);
    }
}

void OnAccept(int board)
{
    int fd = accept4(g_ps[board].listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        return;
    }
    /* Only the board's own daemon feeds its table. */
    ucred cred{};
    socklen_t credLen = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &credLen) != 0 || !PeerMaySpeakFor(cred.pid, cred.uid, board)) {
        Log("PS of board " + std::to_string(board) + ": refused a connection from pid " + std::to_string(cred.pid) +
            ": not that board's daemon");
        close(fd);
        return;
    }
    g_ps[board].conns.push_back(fd);
    WatchFd(fd, EPOLLIN | EPOLLRDHUP, [board, fd](uint32_t ev) { OnConnReady(board, fd, ev); });
}

std::string SocketPath(int board) { return tbdl::plat::PsSocketPathOf(g_opt.dir, board); }

bool Listen(int board, std::string &err)
{
    std::string path = SocketPath(board);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (!tbdl::plat::EnsureBoardDir(g_opt.dir, board) || path.size() >= sizeof(addr.sun_path)) {
        err = "cannot place the PS socket " + path;
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 ||
        chmod(path.c_str(), kChassisSocketMode) != 0 || listen(fd, 8) != 0) {
        err = "cannot listen on " + path + ": " + std::strerror(errno);
        return false;
    }
    g_ps[board].listenFd = fd;
    WatchFd(fd, EPOLLIN, [board](uint32_t) { OnAccept(board); });
    return true;
}

bool Init(std::string &err)
{
    for (int b : g_opt.settings.boards) {
        if (!Listen(b, err)) {
            return false;
        }
    }
    return true;
}

/* Stopped, the board's socket is gone (registrations fail) and its
 * connections are closed (their clients see a hang-up). */
void SetStopped(int board, bool stopped)
{
    PsBoard &ps = g_ps[board];
    if (stopped == ps.stopped) {
        return;
    }
    ps.stopped = stopped;
    std::string err;
    if (!stopped) {
        if (!Listen(board, err)) {
            Log("board " + std::to_string(board) + ": PS cannot start: " + err);
        }
        return;
    }
    UnwatchFd(ps.listenFd);
    close(ps.listenFd);
    ps.listenFd = -1;
    unlink(SocketPath(board).c_str());
    for (int fd : std::vector<int>(ps.conns)) {
        CloseConn(board, fd);
    }
}

void Clear(int board, ClearReason) { g_ps[board].table = PsTable{}; }

std::string IfName(uint32_t ifIndex)
{
    const Interface *i = IfFind(ifIndex);
    return i != nullptr ? i->name : "";
}

/* With "counters_only", no bundles: cheap enough to poll. */
Json Dump(int board, const Json &req)
{
    const PsTable &t = g_ps[board].table;
    Json out = {{"board", board},         {"stopped", g_ps[board].stopped}, {"connections", g_ps[board].conns.size()},
                {"bundle_count", t.bundles.size()}, {"updates", t.updates}, {"deletes", t.deletes},
                {"cycles", t.cycles},     {"dropped", t.dropped},           {"malformed", t.malformed},
                {"received", t.received}, {"last_cycle_us", t.lastCycleUs}};
    if (!req.value("counters_only", false)) {
        Json bundles = Json::array();
        for (const auto &[num, b] : t.bundles) {
            bundles.push_back({{"bundle", num},
                               {"working", {{"ifindex", b.v.workIfIndex}, {"name", IfName(b.v.workIfIndex)}, {"up", b.v.workUp}}},
                               {"protection", {{"ifindex", b.v.protIfIndex}, {"name", IfName(b.v.protIfIndex)}, {"up", b.v.protUp}}},
                               {"protection_kind", b.v.protKind == TBDL_PS_PROT_ONE_PLUS_ONE ? "1+1"
                                                   : b.v.protKind == TBDL_PS_PROT_ONE_TO_ONE ? "1:1"
                                                                                            : std::to_string(b.v.protKind)}});
        }
        out["bundles"] = std::move(bundles);
    }
    if (req.value("sends", false)) {
        Json sends = Json::array();
        for (const Bytes &s : t.sends) {
            sends.push_back({{"size", s.size()}, {"bytes", Hex(s)}});
        }
        out["sends"] = sends;
    }
    return out;
}

} // namespace

const Service &PsService()
{
    static const Service s{.name = "PS",
                           .ops = {},
                           .clearBoard = Clear,
                           .dumpName = "ps",
                           .dumpNeedsBoard = true,
                           .dumpWith = Dump,
                           .init = Init,
                           .setStopped = SetStopped};
    return s;
}

} // namespace chassis
