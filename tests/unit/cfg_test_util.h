/* Helpers shared by the configuration-channel and display tests: request
 * and TLV builders, a small driver of the daemon's event loop with
 * deadlines, and reply readers. */
#ifndef CFG_TEST_UTIL_H
#define CFG_TEST_UTIL_H

#include <arpa/inet.h>
#include <poll.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tbdl_bas.h"
#include "tbdl_cfg_msg.h"

namespace cfgtest {

using Bytes = std::vector<uint8_t>;

inline Bytes Be16(uint16_t v)
{
    return {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
}

inline Bytes Be32(uint32_t v)
{
    return {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
            static_cast<uint8_t>(v)};
}

inline Bytes Cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

/* One STLV TLV; lenOverride announces a different value length. */
inline Bytes Tlv(uint16_t type, const Bytes &value, std::optional<uint16_t> lenOverride = {})
{
    return Cat({Be16(type), Be16(lenOverride.value_or(static_cast<uint16_t>(value.size()))), value});
}

/* A request: header then payload; dataLen defaults to the payload size. */
inline Bytes Request(uint16_t cls, uint16_t type, uint16_t oper, const Bytes &payload = {},
                     std::optional<uint16_t> dataLen = {})
{
    return Cat({Be16(cls), Be16(dataLen.value_or(static_cast<uint16_t>(payload.size()))), Be32(0),
                Be16(type), Be16(oper), payload});
}

struct Reply {
    uint16_t cls = 0xFFFF;
    uint16_t dataLen = 0xFFFF;
    uint32_t result = 0;
    uint16_t type = 0xFFFF;
    uint16_t oper = 0xFFFF;
    Bytes payload;
    size_t size = 0;
};

inline Reply Decode(const Bytes &b)
{
    Reply r;
    r.size = b.size();
    if (b.size() >= 12) {
        r.cls = static_cast<uint16_t>((b[0] << 8) | b[1]);
        r.dataLen = static_cast<uint16_t>((b[2] << 8) | b[3]);
        r.result = (uint32_t(b[4]) << 24) | (uint32_t(b[5]) << 16) | (uint32_t(b[6]) << 8) | b[7];
        r.type = static_cast<uint16_t>((b[8] << 8) | b[9]);
        r.oper = static_cast<uint16_t>((b[10] << 8) | b[11]);
        r.payload.assign(b.begin() + 12, b.end());
    }
    return r;
}

/* Reads one message without waiting; nullopt when none is queued. */
inline std::optional<Bytes> TryRecv(int fd)
{
    uint8_t buf[4096];
    ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
    if (n < 0) {
        return std::nullopt;
    }
    return Bytes(buf, buf + n);
}

inline bool Readable(int fd)
{
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0;
}

inline bool Send(int fd, const Bytes &msg)
{
    return send(fd, msg.data(), msg.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(msg.size());
}

/* Runs the daemon's loop (one event per wait, as the daemon does) until
 * cond holds or the deadline passes. */
inline bool PumpUntil(int epfd, const std::function<bool()> &cond, int timeoutMs = 3000)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        struct epoll_event ev;
        if (epoll_wait(epfd, &ev, 1, 20) == 1) {
            TBDL_BAS_EpollDispatch(&ev);
        }
    }
    return true;
}

/* Dispatches the events that are ready now, without waiting. */
inline void PumpReady(int epfd)
{
    struct epoll_event ev;
    while (epoll_wait(epfd, &ev, 1, 0) == 1) {
        TBDL_BAS_EpollDispatch(&ev);
    }
}

inline int Connect(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

/* Number of descriptors open in this process. */
inline int OpenFdCount()
{
    int n = 0;
    for (int fd = 0; fd < 1024; fd++) {
        if (fcntl(fd, F_GETFD) != -1) {
            n++;
        }
    }
    return n;
}

} // namespace cfgtest

#endif
