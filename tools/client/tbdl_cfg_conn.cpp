/* Connection to a configuration socket (AF_UNIX, SOCK_SEQPACKET). */
#include "tbdl_cfg_conn.h"

#include <poll.h>
#include <sys/time.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace tbdl::client {

namespace {

/* Larger than any reply the daemon sends (1500 bytes at most); a bigger
 * one is reported. */
constexpr std::size_t kRecvRoom = 8192;

std::string Errno(int err)
{
    return std::strerror(err);
}

/* A local connect waits while the daemon's queue of new connections is
 * full, as long as the socket's send time-out allows: a daemon that is
 * bound but no longer accepting fails it with EAGAIN at the deadline. The
 * time-out is cleared again afterwards (replies have their own wait). */
bool ConnectWithin(int fd, const sockaddr_un &addr, int timeoutMs)
{
    timeval tv{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    int rc;
    do {
        rc = ::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr));
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        return false;
    }
    timeval none{};
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &none, sizeof(none));
    return true;
}

/* The peer is gone: a request cut off this way may or may not have been
 * carried out, so it is never reported as a result. */
bool PeerGone(int err)
{
    return err == ECONNRESET || err == EPIPE || err == ENOTCONN;
}

std::string LostText(const std::string &path)
{
    return "the connection to " + path + " was lost before the reply; the request may or may not have been carried out";
}

}  // namespace

Connection::~Connection()
{
    close();
}

Connection::Connection(Connection &&other) noexcept
    : m_fd(other.m_fd), m_timeoutMs(other.m_timeoutMs), m_broke(other.m_broke), m_path(std::move(other.m_path))
{
    other.m_fd = -1;
}

Connection &Connection::operator=(Connection &&other) noexcept
{
    if (this != &other) {
        close();
        m_fd = other.m_fd;
        m_timeoutMs = other.m_timeoutMs;
        m_broke = other.m_broke;
        m_path = std::move(other.m_path);
        other.m_fd = -1;
    }
    return *this;
}

void Connection::close()
{
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

Outcome<Connection> Connection::Open(const std::string &path, int timeoutMs)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        return Fail("socket path too long: " + path);
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return Fail("cannot create a socket: " + Errno(errno));
    }
    if (!ConnectWithin(fd, addr, timeoutMs)) {
        int err = errno;
        ::close(fd);
        if (err == EAGAIN) {
            return Fail("cannot connect to " + path + ": no answer within " + std::to_string(timeoutMs) + " ms");
        }
        return Fail("cannot connect to " + path + ": " + Errno(err));
    }
    Connection conn;
    conn.m_fd = fd;
    conn.m_timeoutMs = timeoutMs;
    conn.m_path = path;
    return conn;
}

Outcome<Bytes> Connection::Exchange(const Bytes &request)
{
    m_broke = Break::NONE;
    if (m_fd < 0) {
        return Fail("not connected");
    }
    ssize_t sent;
    do {
        sent = ::send(m_fd, request.data(), request.size(), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0 && PeerGone(errno)) {
        m_broke = Break::LOST;
        return Fail(LostText(m_path));
    }
    if (sent < 0) {
        return Fail("cannot send to " + m_path + ": " + Errno(errno));
    }
    if (static_cast<std::size_t>(sent) != request.size()) {
        return Fail("short send to " + m_path);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_timeoutMs);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                          std::chrono::steady_clock::now());
        if (left.count() < 0) {
            left = std::chrono::milliseconds(0);
        }
        pollfd pfd{m_fd, POLLIN, 0};
        int n = ::poll(&pfd, 1, static_cast<int>(left.count()));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return Fail("cannot wait for a reply: " + Errno(errno));
        }
        if (n == 0) {
            m_broke = Break::SILENT;
            return Fail("no reply from " + m_path + " within " + std::to_string(m_timeoutMs) + " ms");
        }
        std::uint8_t buf[kRecvRoom];
        ssize_t got = ::recv(m_fd, buf, sizeof(buf), MSG_TRUNC);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got == 0 || (got < 0 && PeerGone(errno))) {
            m_broke = Break::LOST;
            return Fail(LostText(m_path));
        }
        if (got < 0) {
            return Fail("cannot receive from " + m_path + ": " + Errno(errno));
        }
        if (static_cast<std::size_t>(got) > sizeof(buf)) {
            return Fail("reply of " + std::to_string(got) + " bytes is too large");
        }
        return Bytes(buf, buf + got);
    }
}

Outcome<Message> Connection::Transact(const Bytes &request)
{
    Outcome<Bytes> reply = Exchange(request);
    if (!reply) {
        return Fail(reply.error());
    }
    std::string err;
    std::optional<Message> msg = DecodeMessage(reply->data(), reply->size(), &err);
    if (!msg) {
        return Fail(err);
    }
    return std::move(*msg);
}

}  // namespace tbdl::client
