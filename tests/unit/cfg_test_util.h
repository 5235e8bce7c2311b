/* Helpers of the configuration-channel and display tests: byte builders for
 * requests, replies and TLVs, and the modules a request reaches. */
#ifndef CFG_TEST_UTIL_H
#define CFG_TEST_UTIL_H

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
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
template <typename T> Bytes Host(T v) { return Bytes((const uint8_t *)&v, (const uint8_t *)&v + sizeof(T)); }

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

inline uint32_t ResultOf(const Bytes &reply)
{
    return reply.size() >= 12 ? uint32_t(reply[4] << 24 | reply[5] << 16 | reply[6] << 8 | reply[7]) : 0xDEADu;
}

/* Database key of bundle bnd's member list. */
inline Bytes MembKey(uint32_t bnd) { return Cat({Bytes{2}, Be32(bnd)}); }

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

/* A client of the configuration socket at path; -1 when it does not connect. */
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

inline bool Send(int fd, const Bytes &m) { return send(fd, m.data(), m.size(), MSG_NOSIGNAL) == ssize_t(m.size()); }

/* The modules a configuration request reaches, on the test's own epoll descriptor, against a freshly reset fake. */
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
