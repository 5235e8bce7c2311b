/* Helpers of the configuration-channel and display tests: byte builders for
 * requests, replies and TLVs, and a driver of the daemon's event loop. */
#ifndef CFG_TEST_UTIL_H
#define CFG_TEST_UTIL_H

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_platform.h"
#include "tbdl_bas.h"
#include "tbdl_bnd.h"
#include "tbdl_cfg.h"
#include "dbg/tbdl_dbg_priv.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"

namespace cfgtest {

using Bytes = std::vector<uint8_t>;

inline Bytes Be16(uint16_t v) { return {uint8_t(v >> 8), uint8_t(v)}; }
inline Bytes Be32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }

/* A value in host order, as the handlers' records hold it. */
template <typename T>
Bytes Host(T v)
{
    Bytes b(sizeof(T));
    memcpy(b.data(), &v, sizeof(T));
    return b;
}

inline uint32_t GetBe32(const Bytes &b, size_t at)
{
    return (uint32_t(b.at(at)) << 24) | (uint32_t(b.at(at + 1)) << 16) | (uint32_t(b.at(at + 2)) << 8) | b.at(at + 3);
}

inline Bytes Cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

/* One TLV; lenOverride announces a different value length. */
inline Bytes Tlv(uint16_t type, const Bytes &value, std::optional<uint16_t> lenOverride = {})
{
    return Cat({Be16(type), Be16(lenOverride.value_or(static_cast<uint16_t>(value.size()))), value});
}

/* The 12-byte header of requests and replies. */
inline Bytes Head(uint16_t cls, uint16_t len, uint32_t result, uint16_t type, uint16_t oper)
{
    return Cat({Be16(cls), Be16(len), Be32(result), Be16(type), Be16(oper)});
}

/* A request; dataLen defaults to the payload size. */
inline Bytes Request(uint16_t cls, uint16_t type, uint16_t oper, const Bytes &payload = {},
                     std::optional<uint16_t> dataLen = {})
{
    return Cat({Head(cls, dataLen.value_or(static_cast<uint16_t>(payload.size())), 0, type, oper), payload});
}

inline uint32_t ResultOf(const Bytes &reply) { return reply.size() >= 12 ? GetBe32(reply, 4) : 0xDEADu; }

/* Key and operation TLVs that create bundle `bnd`. */
inline Bytes BndCreateTlvs(uint32_t bnd, uint16_t mode = 1, uint16_t tnlMode = 0)
{
    return Cat({Tlv(2, Be32(bnd)), Tlv(202, Cat({Be16(mode), Be16(tnlMode)}))});
}

/* Reads one message without waiting; nullopt when none is queued. */
inline std::optional<Bytes> TryRecv(int fd)
{
    uint8_t buf[4096];
    ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
    return n < 0 ? std::nullopt : std::optional<Bytes>(Bytes(buf, buf + n));
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

/* Runs the daemon's loop, one event per wait, until cond holds or the
 * deadline passes. */
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

inline void PumpReady(int epfd)
{
    PumpUntil(epfd, [epfd] { return !Readable(epfd); });
}

inline int Connect(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

inline int OpenFdCount()
{
    int n = 0;
    for (int fd = 0; fd < 1024; fd++) {
        n += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    }
    return n;
}

/* One field of every recorded call of a platform function, in call order. */
template <typename T>
std::vector<T> CallField(const std::string &name, T fake::Call::*field)
{
    std::vector<T> out;
    for (const fake::Call &c : fake::CallsOf(name)) {
        out.push_back(c.*field);
    }
    return out;
}

/* The modules a configuration request reaches, on the test's own epoll
 * descriptor, against a freshly reset fake. */
class CfgModules : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        m_epfd = epoll_create1(0);
        TBDL_SPEC_S spec = {1024, 8, 1, 1, 1};
        ASSERT_EQ(TBDL_DBG_Init(), 0u);
        ASSERT_EQ(TBDL_DBM_Init(), 0u);
        ASSERT_EQ(TBDL_BND_Init(&spec, nullptr, m_epfd), 0u);
        ASSERT_EQ(TBDL_INTF_Init(m_epfd), 0u);
        ASSERT_EQ(TBDL_CFG_Init(static_cast<u32>(m_epfd)), 0u);
    }
    void TearDown() override
    {
        TBDL_CFG_Deactivate();
        TBDL_BND_ClearRunning();
        TBDL_INTF_Fini();
        TBDL_BND_Fini();
        TBDL_CFG_Fini();
        TBDL_DBM_Fini();
        TBDL_DBG_Fini();
        close(m_epfd);
    }
    static bool HasBnd(uint32_t bnd, TBDL_BND_INFO_S *info = nullptr)
    {
        TBDL_BND_INFO_S local = {};
        return TBDL_BND_GetBndInfo(bnd, info != nullptr ? info : &local) == 0;
    }

    int m_epfd = -1;
};

} // namespace cfgtest

#endif
