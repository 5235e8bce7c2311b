/* The platform library's link to chassisd (see chassis_link.h). */
#include "chassis_link.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "chassis_env.h"

namespace tbdl::plat::link {

namespace {
tbdl::rpc::Client &SharedClient()
{
    static tbdl::rpc::Client *client = new tbdl::rpc::Client(); /* lives for the process */
    return *client;
}
} // namespace

uint32_t Call(uint16_t op, uint32_t arg, const void *payload, size_t len, std::vector<uint8_t> *reply)
{
    const ChassisEnv &env = GetChassisEnv();
    if (!env.inChassis) {
        return tbdl::rpc::kResultNoChassis;
    }
    tbdl::rpc::Client &c = SharedClient();
    c.SetPath(ChassisSocketPathOf(env.dir));
    return c.Call(op, static_cast<uint16_t>(env.board), arg, payload, len, reply);
}

int OpenChannel(uint16_t op, uint32_t arg, const void *payload, size_t len, std::vector<uint8_t> *reply)
{
    const ChassisEnv &env = GetChassisEnv();
    if (!env.inChassis) {
        return -1;
    }
    int fd = tbdl::rpc::Connect(ChassisSocketPathOf(env.dir));
    if (fd < 0) {
        return -1;
    }
    std::vector<uint8_t> buf(tbdl::rpc::kMaxMsg);
    if (tbdl::rpc::SendMsg(fd, op, static_cast<uint16_t>(env.board), arg, payload, len) == 0) {
        ssize_t n = tbdl::rpc::RecvMsg(fd, buf.data(), buf.size());
        tbdl::rpc::Hdr h;
        const uint8_t *body = nullptr;
        size_t bodyLen = 0;
        if (n > 0 && tbdl::rpc::DecodeHead(buf.data(), static_cast<size_t>(n), h, body, bodyLen) && h.uiArg == 0 &&
            h.usOp == op) {
            if (reply != nullptr) {
                reply->assign(body, body + bodyLen);
            }
            return fd;
        }
    }
    close(fd);
    return -1;
}

void Neutralize(int fd)
{
    int quiet = eventfd(0, EFD_CLOEXEC);
    if (quiet >= 0) {
        dup3(quiet, fd, O_CLOEXEC);
        close(quiet);
    }
}

int SendOneWay(int fd, uint16_t op, uint32_t arg, const std::vector<uint8_t> &body)
{
    return tbdl::rpc::SendMsg(fd, op, static_cast<uint16_t>(GetChassisEnv().board), arg, body.data(), body.size(),
                              MSG_DONTWAIT | MSG_NOSIGNAL);
}

uint32_t SendWaiting(int fd, uint16_t op, uint32_t arg, const std::vector<uint8_t> &body,
                     std::chrono::milliseconds wait)
{
    const auto deadline = std::chrono::steady_clock::now() + wait;
    for (;;) {
        int rc = SendOneWay(fd, op, arg, body);
        if (rc != EAGAIN && rc != EWOULDBLOCK) {
            return rc == 0 ? 0 : 1;
        }
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd stPoll{fd, POLLOUT, 0};
        if (left.count() <= 0 || (poll(&stPoll, 1, static_cast<int>(left.count())) < 0 && errno != EINTR)) {
            return 1;
        }
    }
}

PushRead ReadPush(int fd, std::vector<uint8_t> &buf, tbdl::rpc::Hdr &h, const uint8_t *&body, size_t &len)
{
    buf.resize(tbdl::rpc::kMaxMsg);
    ssize_t n = tbdl::rpc::RecvMsg(fd, buf.data(), buf.size(), MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        return PushRead::NONE;
    }
    if (n <= 0) {
        return PushRead::GONE;
    }
    /* RecvMsg took only messages of a whole header. */
    (void)tbdl::rpc::DecodeHead(buf.data(), static_cast<size_t>(n), h, body, len);
    return PushRead::MESSAGE;
}

void Reset()
{
    SharedClient().Close();
}

} // namespace tbdl::plat::link
