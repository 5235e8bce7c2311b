/* Wire protocol between chassisd and its clients: message send/receive,
 * the request/reply client and chassisctl's JSON call. */
#include "rpc.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tbdl::rpc {

namespace {

/* Deadline of a connect when the caller gives no time-out of its own. */
constexpr int kConnectTimeoutMs = 10000;

/* A local connect waits while the listener's queue is full, for as long as
 * the socket's send time-out: a listener that is bound but no longer
 * accepting (stopped, hung, out of descriptors) fails the connect with
 * ETIMEDOUT at the deadline instead of holding the caller for ever. The
 * time-out is cleared again afterwards, so sends keep blocking as before. */
bool ConnectWithin(int fd, const sockaddr_un &addr, int timeoutMs)
{
    timeval tv{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    int rc;
    do {
        rc = connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr));
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        if (errno == EAGAIN) {
            errno = ETIMEDOUT;
        }
        return false;
    }
    timeval none{};
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &none, sizeof(none));
    return true;
}

} // namespace

int SendMsg(int fd, uint16_t op, uint16_t board, uint32_t arg, const void *payload, size_t len,
            int flags)
{
    Hdr hdr{op, board, arg};
    iovec iov[2] = {{&hdr, sizeof(hdr)}, {const_cast<void *>(payload), len}};
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = (payload != nullptr && len > 0) ? 2 : 1;
    for (;;) {
        ssize_t n = sendmsg(fd, &msg, flags | MSG_NOSIGNAL);
        if (n >= 0) {
            return static_cast<size_t>(n) == sizeof(hdr) + (msg.msg_iovlen == 2 ? len : 0) ? 0 : EIO;
        }
        if (errno != EINTR) {
            return errno;
        }
    }
}

ssize_t RecvMsg(int fd, void *buf, size_t cap, int flags)
{
    for (;;) {
        ssize_t n = recv(fd, buf, cap, flags);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n > 0 && static_cast<size_t>(n) < sizeof(Hdr)) {
            errno = EPROTO;
            return -1;
        }
        return n;
    }
}

int Connect(const std::string &socketPath, int recvTimeoutMs)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(addr.sun_path, socketPath.c_str(), socketPath.size() + 1);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    if (!ConnectWithin(fd, addr, recvTimeoutMs > 0 ? recvTimeoutMs : kConnectTimeoutMs)) {
        int e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    if (recvTimeoutMs > 0) {
        timeval tv{recvTimeoutMs / 1000, (recvTimeoutMs % 1000) * 1000};
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    }
    return fd;
}

Client::~Client() { Close(); }

void Client::Close()
{
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

void Client::SetPath(const std::string &path)
{
    if (path != path_) {
        Close();
        path_ = path;
    }
}

bool Client::Exchange(uint16_t op, uint16_t board, uint32_t arg, const void *payload, size_t len,
                      uint32_t &result, std::vector<uint8_t> *reply)
{
    if (fd_ < 0) {
        fd_ = Connect(path_);
        if (fd_ < 0) {
            return false;
        }
    }
    if (SendMsg(fd_, op, board, arg, payload, len) != 0) {
        Close();
        return false;
    }
    if (buf_.size() < kMaxMsg) {
        buf_.resize(kMaxMsg);
    }
    ssize_t n = RecvMsg(fd_, buf_.data(), buf_.size());
    if (n <= 0) {
        Close();
        return false;
    }
    Hdr hdr;
    std::memcpy(&hdr, buf_.data(), sizeof(hdr));
    result = hdr.uiArg;
    if (reply != nullptr) {
        reply->assign(buf_.begin() + sizeof(Hdr), buf_.begin() + n);
    }
    return true;
}

uint32_t Client::Call(uint16_t op, uint16_t board, uint32_t arg, const void *payload, size_t len,
                      std::vector<uint8_t> *reply)
{
    uint32_t result = kResultNoChassis;
    if (path_.empty()) {
        return result;
    }
    /* A connection that broke since the last call (chassisd restarted) is
     * opened again once; a second failure means chassisd is not there. */
    bool hadConnection = fd_ >= 0;
    if (Exchange(op, board, arg, payload, len, result, reply)) {
        return result;
    }
    if (hadConnection && Exchange(op, board, arg, payload, len, result, reply)) {
        return result;
    }
    return kResultNoChassis;
}

std::string CtlCall(const std::string &socketPath, const std::string &requestJson, std::string &err,
                    int timeoutMs)
{
    int fd = Connect(socketPath, timeoutMs);
    if (fd < 0) {
        err = "cannot reach chassisd at " + socketPath + ": " + std::strerror(errno);
        return "";
    }
    std::string out;
    if (SendMsg(fd, OP_CTL, 0, 0, requestJson.data(), requestJson.size()) != 0) {
        err = "cannot send to chassisd: " + std::string(std::strerror(errno));
    } else {
        std::vector<char> buf(kMaxMsg);
        for (;;) {
            ssize_t n = RecvMsg(fd, buf.data(), buf.size());
            if (n <= 0) {
                out.clear();
                if (n == 0) {
                    err = "chassisd closed the connection";
                } else {
                    err = errno == EAGAIN ? "chassisd did not answer in time"
                                          : "cannot read chassisd's answer: " + std::string(std::strerror(errno));
                }
                break;
            }
            Hdr hdr;
            std::memcpy(&hdr, buf.data(), sizeof(hdr));
            out.append(buf.data() + sizeof(Hdr), buf.data() + n);
            if (hdr.uiArg != kCtlMore) {
                break;
            }
        }
    }
    close(fd);
    return out;
}

} // namespace tbdl::rpc
