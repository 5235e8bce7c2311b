/* The configuration server: the listening socket's life, connections on the daemon's event loop, hang-up, error, a peer
 * that never reads, and what happens after the server stops listening. Clients use the real socket. */
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "cfg/tbdl_cfg_priv.h"
#include "cfg_test_util.h"

using namespace cfgtest;

namespace {

bool Readable(int fd)
{
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0;
}

/* Runs the daemon's loop, one event per wait, until cond holds or the deadline passes. */
bool PumpUntil(int epfd, const std::function<bool()> &cond)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (!cond() && std::chrono::steady_clock::now() < deadline) {
        struct epoll_event ev;
        if (epoll_wait(epfd, &ev, 1, 20) == 1) {
            TBDL_BAS_EpollDispatch(&ev);
        }
    }
    return cond();
}

int OpenFdCount()
{
    int n = 0;
    for (int fd = 0; fd < 1024; fd++) {
        n += fcntl(fd, F_GETFD) != -1;
    }
    return n;
}

/* 0: no such path; otherwise the file type bits. */
mode_t PathType(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & S_IFMT) : 0;
}

/* Bytes this client sent that the server has not read yet. */
int Unread(int fd)
{
    int n = -1;
    return ioctl(fd, SIOCOUTQ, &n) == 0 ? n : -1;
}

class CfgServer : public CfgModules {
protected:
    void SetUp() override
    {
        CfgModules::SetUp();
        m_path = fake::HostPath(TBDL_CFG_PORT);
        m_baseFds = OpenFdCount();
    }
    void TearDown() override
    {
        for (int fd : m_clients) {
            close(fd);
        }
        PumpUntil(m_epfd, [this] { return !Readable(m_epfd); });
        CfgModules::TearDown();
    }

    /* Connects a client and lets the loop accept it. */
    int Client()
    {
        int before = OpenFdCount();
        int fd = Connect(m_path);
        EXPECT_GE(fd, 0);
        m_clients.push_back(fd);
        EXPECT_TRUE(PumpUntil(m_epfd, [&] { return OpenFdCount() == before + 2; }));
        return fd;
    }

    Bytes Exchange(int fd, const Bytes &msg)
    {
        EXPECT_TRUE(Send(fd, msg));
        EXPECT_TRUE(PumpUntil(m_epfd, [&] { return Readable(fd); }));
        return TryRecv(fd).value_or(Bytes{});
    }

    void CloseClient(int fd)
    {
        close(fd);
        m_clients.erase(std::find(m_clients.begin(), m_clients.end(), fd));
    }
    void ExpectNotListening()
    {
        EXPECT_EQ(g_stTbdlCfgGlobalVar.iListenFd, -1);
        EXPECT_EQ(PathType(m_path), 0u);
    }

    std::string m_path;
    int m_baseFds = 0;
    std::vector<int> m_clients;
};

const Bytes kCreate3 = Request(0, 1, 0, BndCreateTlvs(3));

TEST_F(CfgServer, ListensOnTheBoardPathReplacingAStaleFileAndServesSeveralClients)
{
    FILE *f = fopen(m_path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    EXPECT_EQ(PathType(m_path), S_IFSOCK);
    EXPECT_EQ(fake::CallsOf("LIPC_GetHostPath").at(0).args.at(0), TBDL_CFG_PORT);

    int a = Client();
    int b = Client();
    EXPECT_EQ(Exchange(a, kCreate3), Head(0, 0, 0, 1, 0));
    EXPECT_EQ(Exchange(b, kCreate3), Head(0, 0, TBDL_E_NOCHANGE, 1, 0));
    EXPECT_EQ(ResultOf(Exchange(a, Request(0, 1, 0, BndCreateTlvs(4)))), 0u);
}

TEST_F(CfgServer, FailedActivationLeavesNothingOpen)
{
    /* No epoll descriptor. */
    TBDL_CFG_Fini();
    EXPECT_EQ(TBDL_CFG_Activate(), TBDL_E_FAILED);
    ExpectNotListening();

    /* No endpoint. */
    TBDL_CFG_Init(static_cast<u32>(m_epfd));
    fake::FailAlways("LIPC_GetHostPath", 1);
    EXPECT_EQ(TBDL_CFG_Activate(), TBDL_E_FAILED);
    EXPECT_EQ(g_stTbdlCfgGlobalVar.iListenFd, -1);
    EXPECT_EQ(OpenFdCount(), m_baseFds);
    fake::ClearFailures();

    /* The loop refuses the registration: socket closed, path removed. */
    int notEpoll = eventfd(0, 0);
    TBDL_CFG_Init(static_cast<u32>(notEpoll));
    EXPECT_EQ(TBDL_CFG_Activate(), TBDL_E_FAILED);
    ExpectNotListening();
    EXPECT_EQ(OpenFdCount(), m_baseFds + 1);
    close(notEpoll);
    TBDL_CFG_Init(static_cast<u32>(m_epfd));
}

TEST_F(CfgServer, DeactivateClosesTheListenerAndSilencesOpenConnections)
{
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    int fd = Client();
    ASSERT_EQ(ResultOf(Exchange(fd, Request(0, 1, 0, BndCreateTlvs(1)))), 0u);

    TBDL_CFG_Deactivate();
    ExpectNotListening();
    EXPECT_LT(Connect(m_path), 0);

    /* The request is read and dropped: no reply, no effect. */
    ASSERT_TRUE(Send(fd, Request(0, 1, 0, BndCreateTlvs(2))));
    EXPECT_TRUE(PumpUntil(m_epfd, [&] { return Unread(fd) == 0; }));
    EXPECT_EQ(std::make_pair(Readable(fd), HasBnd(2)), std::make_pair(false, false));

    /* The peer's close still ends the connection. */
    CloseClient(fd);
    EXPECT_TRUE(PumpUntil(m_epfd, [&] { return OpenFdCount() == m_baseFds; }));
    TBDL_CFG_Deactivate(); /* a second time does nothing */

    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    EXPECT_EQ(ResultOf(Exchange(Client(), Request(0, 1, 0, BndCreateTlvs(8)))), 0u);
}

TEST_F(CfgServer, FailedRepliesAreLoggedAndTheLoopGoesOn)
{
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    /* A request followed by the peer's close is handled; its reply fails. */
    int listenFds = OpenFdCount();
    int fd = Client();
    ASSERT_TRUE(Send(fd, kCreate3));
    CloseClient(fd);
    EXPECT_TRUE(PumpUntil(m_epfd, [&] { return HasBnd(3) && OpenFdCount() == listenFds; }));
    EXPECT_EQ(g_stTbdlLogVar.uiErrTotal, 1u);
    EXPECT_STREQ(g_apcTbdlErrStr[0], "Failed to send configuration response message.\r\n");

    /* A peer that never reads, sent far more requests than a connection queues replies: once its queue is full the
     * replies are dropped with an ERROR, every request is still handled, and the loop keeps serving others. */
    fd = Client();
    const uint32_t kRequests = 2000;
    for (uint32_t i = 0; i < kRequests; i++) {
        ASSERT_TRUE(Send(fd, Request(1, 1, 0)));
        ASSERT_TRUE(PumpUntil(m_epfd, [&] { return Unread(fd) == 0; }));
    }
    ASSERT_GT(g_stTbdlLogVar.uiErrTotal, 1u);
    EXPECT_STREQ(g_apcTbdlErrStr[1], "Failed to send display response message.\r\n");
    EXPECT_EQ(ResultOf(Exchange(Client(), Request(0, 1, 0, BndCreateTlvs(4)))), 0u);
    uint32_t queued = 0;
    while (TryRecv(fd)) {
        queued++;
    }
    EXPECT_EQ(queued + g_stTbdlLogVar.uiErrTotal - 1, kRequests);
}

TEST_F(CfgServer, ConnectionEventMasks)
{
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    const struct { const char *what; u32 events; bool sent, answered, closed; } cases[] = {
        {"in", EPOLLIN, true, true, false},
        {"in and hang-up: answered, then closed", EPOLLIN | EPOLLHUP, true, true, true},
        {"in and error: answered, then closed", EPOLLIN | EPOLLERR, true, true, true},
        {"hang-up alone: closed unread", EPOLLHUP, true, false, true},
        {"error alone: closed unread", EPOLLERR, true, false, true},
        {"in with nothing queued: the failed receive closes", EPOLLIN, false, false, true},
    };
    uint32_t bnd = 100;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
        ASSERT_TRUE(!c.sent || Send(fds[0], Request(0, 1, 0, BndCreateTlvs(++bnd))));
        EXPECT_EQ(tbdl_cfg_RecvMsg(c.events, static_cast<u64>(fds[1])), 0u);
        EXPECT_EQ(HasBnd(bnd), c.answered);
        if (c.answered) {
            EXPECT_EQ(TryRecv(fds[0]), Head(0, 0, 0, 1, 0));
        }
        EXPECT_EQ(fcntl(fds[1], F_GETFD) == -1, c.closed);
        if (c.closed) {
            /* End of file, or a reset when the request was left unread. */
            uint8_t b;
            errno = 0;
            EXPECT_LE(recv(fds[0], &b, 1, MSG_DONTWAIT), 0);
            EXPECT_NE(errno, EAGAIN);
        } else {
            EXPECT_FALSE(TryRecv(fds[0]).has_value());
            close(fds[1]);
        }
        close(fds[0]);
    }
}

} // namespace
