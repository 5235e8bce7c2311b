/* chassisd's event loop: the chassis socket and its connections, child and
 * stop signals, descriptors services watch, timers, and the dispatch of
 * every request to the service that serves its operation.
 *
 * Requests are answered at once. Pushes to the boards' channels (HA,
 * interface events) never block: what the socket does not take is queued
 * and written when the connection becomes writable. */
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <memory>

#include "chassis_env.h"
#include "chassisd.h"

namespace chassis {

namespace {

using tbdl::rpc::Hdr;

int g_epfd = -1;
int g_listenFd = -1;
int g_sigFd = -1;
bool g_running = true;
int g_exitStatus = 0;
std::map<int, std::unique_ptr<Conn>> g_conns;
/* Descriptors other than connections: the listening socket, the signal
 * descriptor, and those services watch. */
std::map<int, std::function<void(uint32_t)>> g_watched;

struct Timer {
    Clock::time_point at;
    std::function<void()> fn;
};
std::map<uint64_t, Timer> g_timers;
uint64_t g_nextTimer = 1;

Bytes g_rx(tbdl::rpc::kMaxMsg);

/* Out of descriptors, accept fails and leaves the connection queued, so the
 * listening socket stays readable and the loop would spin on it. A spare
 * descriptor is held for that moment: it is given up to take the
 * connection and close it at once (the client sees the connection closed),
 * then taken back. */
struct AcceptGuard {
    int reserveFd = -1;
    unsigned refused = 0; /* in the current burst; logged at its start and end */
};
AcceptGuard g_accept;

/* Connections taken per wake-up of the listening socket; the rest wait for
 * the next turn, after the connections' own requests. */
constexpr int kAcceptsPerWake = 16;

void Watch(int fd, uint32_t events, int op = EPOLL_CTL_ADD)
{
    epoll_event ev{};
    ev.events = events;
    ev.data.fd = fd;
    if (epoll_ctl(g_epfd, op, fd, &ev) != 0) {
        Log("epoll_ctl(" + std::to_string(fd) + "): " + std::strerror(errno));
    }
}

void CloseConn(int fd)
{
    auto it = g_conns.find(fd);
    if (it == g_conns.end()) {
        return;
    }
    Conn &c = *it->second;
    bool wasSubscriber = c.channel != Channel::NONE && Subscribers(c.channel).Remove(c);
    for (const Service *s : Services()) {
        if (s->onClose != nullptr) {
            s->onClose(c, wasSubscriber);
        }
    }
    epoll_ctl(g_epfd, EPOLL_CTL_DEL, fd, nullptr);
    close(fd);
    g_conns.erase(it);
}

void HoldReserve()
{
    if (g_accept.reserveFd < 0) {
        g_accept.reserveFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
}

void RefuseOne(int err)
{
    if (g_accept.reserveFd >= 0) {
        close(g_accept.reserveFd);
        g_accept.reserveFd = -1;
    }
    int fd = accept4(g_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
        close(fd);
    }
    if (g_accept.refused++ == 0) {
        Log(std::string("out of descriptors (") + std::strerror(err) + "): refusing new connections");
    }
    HoldReserve();
}

void AddConn(int fd)
{
    auto c = std::make_unique<Conn>();
    c->fd = fd;
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) {
        c->pid = cred.pid;
        c->uid = cred.uid;
    }
    g_conns[fd] = std::move(c);
    Watch(fd, EPOLLIN);
}

void Accept()
{
    for (int i = 0; i < kAcceptsPerWake; ++i) {
        int fd = accept4(g_listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE) {
                RefuseOne(errno);
            }
            return;
        }
        if (g_accept.refused > 0) {
            Log("accepting connections again, after refusing " + std::to_string(g_accept.refused));
            g_accept.refused = 0;
        }
        AddConn(fd);
    }
}

/* Messages from each board's library, by operation: round trips and
 * one-way sends apart. */
struct OpCount {
    uint64_t calls = 0;
    uint64_t sends = 0;
};
std::map<int, std::map<uint16_t, OpCount>> g_libCalls;

/* Messages a library sends without waiting for a reply: those of the
 * event channels, the HA channel's responses and backups, and LSM batches. */
bool OneWay(const Conn &c, uint16_t op)
{
    using namespace tbdl::rpc;
    switch (op) {
    case OP_IFEV_SUBSCRIBE:
    case OP_IFEV_UNSUBSCRIBE:
    case OP_IFEV_ACK:
    case OP_L3VPN_BATCH:
    case OP_L3VPN_ACK: return true;
    case OP_LSM_BATCH: return c.channel == Channel::LSM;
    default: return HaOneWay(c, op);
    }
}

/* One request from a board's platform library, to the service that serves
 * its operation. */
void HandleLibRequest(Conn &c, const Hdr &h, const uint8_t *p, size_t len)
{
    OpHandler handler = FindOp(h.usOp);
    if (!ValidBoard(h.usBoard) || handler == nullptr) {
        Reply(c, h, tbdl::rpc::kResultBadRequest);
        return;
    }
    OpCount &count = g_libCalls[h.usBoard][h.usOp];
    ++(OneWay(c, h.usOp) ? count.sends : count.calls);
    if (!PeerMaySpeakFor(c, h.usBoard)) {
        Log("refused a platform call (op " + std::to_string(h.usOp) + ") of board " + std::to_string(h.usBoard) +
            " from pid " + std::to_string(c.pid) + ", uid " + std::to_string(c.uid) +
            ": not that board's daemon; connection closed");
        Reply(c, h, tbdl::rpc::kResultBadRequest);
        Drop(c.fd);
        return;
    }
    handler(c, h, p, len);
}

void HandleCtl(Conn &c, const uint8_t *p, size_t len)
{
    Json req = Json::parse(p, p + len, nullptr, false);
    Json reply;
    if (req.is_discarded() || !req.is_object() || !req.contains("cmd") || !req["cmd"].is_string()) {
        reply = {{"ok", false}, {"error", "malformed request"}};
    } else {
        try {
            if (!CtlHandle(c.fd, req, reply)) {
                return; /* answered later */
            }
        } catch (const std::exception &e) {
            reply = {{"ok", false}, {"error", std::string("bad request: ") + e.what()}};
        }
    }
    ReplyCtl(c.fd, reply);
}

void ReadConn(int fd)
{
    /* A few messages per wake-up keep one busy client from starving the
     * others. */
    for (int i = 0; i < 16; ++i) {
        auto it = g_conns.find(fd);
        if (it == g_conns.end()) {
            return;
        }
        Conn &c = *it->second;
        ssize_t n = recv(fd, g_rx.data(), g_rx.size(), MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        if (n < static_cast<ssize_t>(sizeof(Hdr))) {
            CloseConn(fd);
            return;
        }
        Hdr h;
        std::memcpy(&h, g_rx.data(), sizeof(h));
        const uint8_t *payload = g_rx.data() + sizeof(h);
        size_t len = static_cast<size_t>(n) - sizeof(h);
        if (h.usOp == tbdl::rpc::OP_CTL) {
            HandleCtl(c, payload, len);
        } else {
            HandleLibRequest(c, h, payload, len);
        }
    }
}

void FlushConn(Conn &c)
{
    while (!c.outq.empty()) {
        const Bytes &m = c.outq.front();
        ssize_t n = send(c.fd, m.data(), m.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EAGAIN) {
                Watch(c.fd, EPOLLIN | EPOLLOUT, EPOLL_CTL_MOD);
                return;
            }
            return; /* the peer is gone; the read side closes it */
        }
        c.outq.pop_front();
    }
    Watch(c.fd, EPOLLIN, EPOLL_CTL_MOD);
}

void ReadSignals(uint32_t)
{
    signalfd_siginfo si;
    while (read(g_sigFd, &si, sizeof(si)) == static_cast<ssize_t>(sizeof(si))) {
        if (si.ssi_signo == SIGCHLD) {
            int ws;
            pid_t pid;
            while ((pid = waitpid(-1, &ws, WNOHANG)) > 0) {
                SvcOnChildExit(pid, ws);
            }
        } else if (!SvcBusy()) {
            Log("signal " + std::to_string(si.ssi_signo) + ": stopping the chassis");
            SvcSetBusy(true);
            SvcStop(SvcStopOrder(), [] { ExitLoop(0); });
        }
    }
}

int NextTimeoutMs()
{
    if (g_timers.empty()) {
        return -1;
    }
    auto next = g_timers.begin()->second.at;
    for (auto &[id, t] : g_timers) {
        next = std::min(next, t.at);
    }
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count();
    return ms < 0 ? 0 : static_cast<int>(ms) + 1;
}

void RunTimers()
{
    auto now = Clock::now();
    std::vector<uint64_t> due;
    for (auto &[id, t] : g_timers) {
        if (t.at <= now) {
            due.push_back(id);
        }
    }
    for (uint64_t id : due) {
        auto it = g_timers.find(id);
        if (it == g_timers.end()) {
            continue;
        }
        auto fn = std::move(it->second.fn);
        g_timers.erase(it);
        fn();
    }
}

} // namespace

bool LoopInit(const Options &opt, std::string &err)
{
    signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    g_sigFd = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    g_epfd = epoll_create1(EPOLL_CLOEXEC);
    if (g_sigFd < 0 || g_epfd < 0) {
        err = std::string("cannot set up the event loop: ") + std::strerror(errno);
        return false;
    }
    std::string path = tbdl::plat::ChassisSocketPathOf(opt.dir);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        err = "socket path too long: " + path;
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    unlink(path.c_str()); /* a leftover of a chassisd that died; we hold the lock */
    g_listenFd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    /* Owner and group may connect, whatever the umask; nobody can connect
     * before listen, so the mode is right before the first client. */
    if (g_listenFd < 0 || bind(g_listenFd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 ||
        chmod(path.c_str(), kChassisSocketMode) != 0 || listen(g_listenFd, 64) != 0) {
        err = "cannot listen on " + path + ": " + std::strerror(errno);
        return false;
    }
    HoldReserve();
    WatchFd(g_listenFd, EPOLLIN, [](uint32_t) { Accept(); });
    WatchFd(g_sigFd, EPOLLIN, ReadSignals);
    return true;
}

int LoopRun()
{
    epoll_event evs[32];
    while (g_running) {
        int n = epoll_wait(g_epfd, evs, 32, NextTimeoutMs());
        for (int i = 0; i < n && g_running; ++i) {
            int fd = evs[i].data.fd;
            if (auto w = g_watched.find(fd); w != g_watched.end()) {
                auto cb = w->second; /* the callback may unwatch its descriptor */
                cb(evs[i].events);
                continue;
            }
            auto it = g_conns.find(fd);
            if (it == g_conns.end()) {
                continue;
            }
            if (evs[i].events & EPOLLOUT) {
                FlushConn(*it->second);
            }
            if (evs[i].events & (EPOLLIN | EPOLLERR | EPOLLHUP)) {
                ReadConn(fd);
            }
        }
        RunTimers();
    }
    /* Answers queued for chassisctl go out before the process ends. */
    for (auto &[fd, c] : g_conns) {
        for (const Bytes &m : c->outq) {
            (void)!send(fd, m.data(), m.size(), MSG_NOSIGNAL);
        }
    }
    return g_exitStatus;
}

void ExitLoop(int status)
{
    g_exitStatus = status;
    g_running = false;
}

uint64_t After(Clock::duration delay, std::function<void()> fn)
{
    uint64_t id = g_nextTimer++;
    g_timers[id] = Timer{Clock::now() + delay, std::move(fn)};
    return id;
}

void Cancel(uint64_t id) { g_timers.erase(id); }

Json LibCallCounts()
{
    Json out = Json::array();
    for (const auto &[board, byOp] : g_libCalls) {
        OpCount total;
        Json calls = Json::object();
        Json sends = Json::object();
        for (const auto &[op, n] : byOp) {
            total.calls += n.calls;
            total.sends += n.sends;
            if (n.calls > 0) {
                calls[std::to_string(op)] = n.calls;
            }
            if (n.sends > 0) {
                sends[std::to_string(op)] = n.sends;
            }
        }
        out.push_back({{"board", board},
                       {"calls", total.calls},
                       {"by_op", calls},
                       {"sends", total.sends},
                       {"sends_by_op", sends}});
    }
    return out;
}

void WatchFd(int fd, uint32_t events, std::function<void(uint32_t events)> cb)
{
    bool known = g_watched.count(fd) != 0;
    g_watched[fd] = std::move(cb);
    Watch(fd, events, known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD);
}

void UnwatchFd(int fd)
{
    if (g_watched.erase(fd) != 0) {
        epoll_ctl(g_epfd, EPOLL_CTL_DEL, fd, nullptr);
    }
}

Conn *FindConn(int fd)
{
    auto it = g_conns.find(fd);
    return it == g_conns.end() ? nullptr : it->second.get();
}

void Push(int fd, uint16_t op, uint16_t board, uint32_t arg, const void *payload, size_t len)
{
    Conn *c = FindConn(fd);
    if (c == nullptr) {
        return;
    }
    if (c->outq.empty()) {
        int rc = tbdl::rpc::SendMsg(fd, op, board, arg, payload, len, MSG_DONTWAIT);
        if (rc != EAGAIN) {
            return; /* sent, or the peer is gone (the read side closes it) */
        }
    }
    Bytes m(sizeof(Hdr) + len);
    Hdr h{op, board, arg};
    std::memcpy(m.data(), &h, sizeof(h));
    if (len > 0) {
        std::memcpy(m.data() + sizeof(h), payload, len);
    }
    c->outq.push_back(std::move(m));
    Watch(fd, EPOLLIN | EPOLLOUT, EPOLL_CTL_MOD);
}

void Reply(Conn &c, const Hdr &req, uint32_t result, const Bytes &body)
{
    Push(c.fd, req.usOp, req.usBoard, result, body.data(), body.size());
}

void Drop(int fd) { CloseConn(fd); }

void ReplyCtl(int fd, const Json &reply)
{
    /* Large answers (dumps) go in chunks; all but the last say "more". */
    std::string text = reply.dump(-1, ' ', false, Json::error_handler_t::replace);
    size_t off = 0;
    while (text.size() - off > tbdl::rpc::kCtlChunk) {
        Push(fd, tbdl::rpc::OP_CTL, 0, tbdl::rpc::kCtlMore, text.data() + off, tbdl::rpc::kCtlChunk);
        off += tbdl::rpc::kCtlChunk;
    }
    Push(fd, tbdl::rpc::OP_CTL, 0, reply.value("ok", false) ? 0 : 1, text.data() + off, text.size() - off);
}

} // namespace chassis
