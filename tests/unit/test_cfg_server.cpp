/* The configuration server: the listening socket's life, connections on the
 * daemon's event loop, and what happens on hang-up, error and after the
 * server stops listening. Clients connect to the real socket. */
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>

#include <gtest/gtest.h>

#include "cfg/tbdl_cfg_priv.h"
#include "cfg_test_util.h"
#include "fake_platform.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"
#include "tbdl_intf.h"

using namespace cfgtest;

namespace {

Bytes BndCreate(uint32_t bnd)
{
    return Request(0, 1, 0, Cat({Tlv(2, Be32(bnd)), Tlv(202, Cat({Be16(1), Be16(0)}))}));
}

bool BundleExists(uint32_t bnd)
{
    TBDL_BND_INFO_S info = {};
    return TBDL_BND_GetBndInfo(bnd, &info) == 0;
}

bool IsSocketPath(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

/* Bytes this client sent that the server has not read yet. */
int Unread(int fd)
{
    int n = -1;
    return ioctl(fd, SIOCOUTQ, &n) == 0 ? n : -1;
}

bool PathExists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

class CfgServer : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        m_path = fake::HostPath(TBDL_CFG_PORT);
        m_epfd = epoll_create1(0);
        ASSERT_GE(m_epfd, 0);
        TBDL_SPEC_S spec = {1024, 8, 1, 1, 1};
        ASSERT_EQ(TBDL_DBG_Init(), 0u);
        ASSERT_EQ(TBDL_BND_Init(&spec, nullptr, m_epfd), 0u);
        ASSERT_EQ(TBDL_INTF_Init(m_epfd), 0u);
        ASSERT_EQ(TBDL_CFG_Init(static_cast<u32>(m_epfd)), 0u);
        m_baseFds = OpenFdCount();
    }

    void TearDown() override
    {
        for (int fd : m_clients) {
            close(fd);
        }
        PumpReady(m_epfd);
        TBDL_CFG_Deactivate();
        TBDL_BND_ClearRunning();
        TBDL_INTF_Fini();
        TBDL_BND_Fini();
        TBDL_CFG_Fini();
        TBDL_DBG_Fini();
        close(m_epfd);
    }

    /* Connects a client and lets the loop accept it. */
    int Client()
    {
        int before = OpenFdCount();
        int fd = Connect(m_path);
        EXPECT_GE(fd, 0);
        m_clients.push_back(fd);
        /* client + accepted connection */
        EXPECT_TRUE(PumpUntil(m_epfd, [&] { return OpenFdCount() == before + 2; }));
        return fd;
    }

    Reply Exchange(int fd, const Bytes &msg)
    {
        EXPECT_TRUE(Send(fd, msg));
        EXPECT_TRUE(PumpUntil(m_epfd, [&] { return Readable(fd); }));
        return Decode(TryRecv(fd).value_or(Bytes{}));
    }

    void CloseClient(int fd)
    {
        close(fd);
        m_clients.erase(std::find(m_clients.begin(), m_clients.end(), fd));
    }

    std::string m_path;
    int m_epfd = -1;
    int m_baseFds = 0;
    std::vector<int> m_clients;
};

TEST_F(CfgServer, ActivateNeedsTheEpollDescriptor)
{
    TBDL_CFG_Fini();
    EXPECT_EQ(TBDL_CFG_Activate(), TBDL_E_FAILED);
    EXPECT_EQ(g_stTbdlCfgGlobalVar.iListenFd, -1);
    EXPECT_FALSE(PathExists(m_path));
}

TEST_F(CfgServer, ListensOnTheBoardPathAndAnswersRequests)
{
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    EXPECT_NE(g_stTbdlCfgGlobalVar.iListenFd, -1);
    EXPECT_TRUE(IsSocketPath(m_path));
    ASSERT_EQ(fake::CountOf("LIPC_GetHostPath"), 1u);
    EXPECT_EQ(fake::CallsOf("LIPC_GetHostPath")[0].args[0], TBDL_CFG_PORT);

    int a = Client();
    int b = Client();
    Reply r = Exchange(a, BndCreate(3));
    EXPECT_EQ(r.result, 0u);
    EXPECT_EQ(r.type, 1u);
    EXPECT_EQ(Exchange(b, BndCreate(3)).result, TBDL_E_NOCHANGE);
    EXPECT_EQ(Exchange(a, BndCreate(4)).result, 0u);
}

TEST_F(CfgServer, StalePathIsReplaced)
{
    FILE *f = fopen(m_path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    EXPECT_TRUE(IsSocketPath(m_path));
}

TEST_F(CfgServer, FailedActivationLeavesNothingOpen)
{
    fake::FailAlways("LIPC_GetHostPath", 1);
    EXPECT_EQ(TBDL_CFG_Activate(), TBDL_E_FAILED);
    EXPECT_EQ(g_stTbdlCfgGlobalVar.iListenFd, -1);
    EXPECT_EQ(OpenFdCount(), m_baseFds);
    fake::ClearFailures();

    /* The loop refuses the registration: socket closed, path removed. */
    int notEpoll = eventfd(0, 0);
    TBDL_CFG_Init(static_cast<u32>(notEpoll));
    EXPECT_EQ(TBDL_CFG_Activate(), TBDL_E_FAILED);
    EXPECT_EQ(g_stTbdlCfgGlobalVar.iListenFd, -1);
    EXPECT_EQ(OpenFdCount(), m_baseFds + 1);
    EXPECT_FALSE(PathExists(m_path));
    close(notEpoll);
    TBDL_CFG_Init(static_cast<u32>(m_epfd));
}

TEST_F(CfgServer, DeactivateClosesTheListenerAndSilencesOpenConnections)
{
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    int fd = Client();
    ASSERT_EQ(Exchange(fd, BndCreate(1)).result, 0u);

    TBDL_CFG_Deactivate();
    EXPECT_EQ(g_stTbdlCfgGlobalVar.iListenFd, -1);
    EXPECT_FALSE(PathExists(m_path));
    EXPECT_LT(Connect(m_path), 0);

    /* The request is read and dropped: no reply, no effect. */
    ASSERT_TRUE(Send(fd, BndCreate(2)));
    EXPECT_TRUE(PumpUntil(m_epfd, [&] { return Unread(fd) == 0; }));
    EXPECT_FALSE(Readable(fd));
    EXPECT_FALSE(BundleExists(2));

    /* The peer's close still ends the connection. */
    CloseClient(fd);
    EXPECT_TRUE(PumpUntil(m_epfd, [&] { return OpenFdCount() == m_baseFds; }));

    TBDL_CFG_Deactivate(); /* a second time does nothing */
    EXPECT_EQ(g_stTbdlCfgGlobalVar.iListenFd, -1);

    /* Listening again on the same path. */
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    EXPECT_EQ(Exchange(Client(), BndCreate(8)).result, 0u);
}

TEST_F(CfgServer, PeerThatConnectsAndClosesIsForgotten)
{
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    int listenFds = OpenFdCount();
    int fd = Client();
    CloseClient(fd);
    EXPECT_TRUE(PumpUntil(m_epfd, [&] { return OpenFdCount() == listenFds; }));
}

TEST_F(CfgServer, RequestFollowedByCloseIsHandledAndTheFailedReplyLogged)
{
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    int listenFds = OpenFdCount();
    int fd = Client();
    ASSERT_TRUE(Send(fd, BndCreate(6)));
    CloseClient(fd);
    EXPECT_TRUE(PumpUntil(m_epfd, [&] { return BundleExists(6) && OpenFdCount() == listenFds; }));
    EXPECT_EQ(g_stTbdlLogVar.uiErrTotal, 1u);
    ASSERT_NE(g_apcTbdlErrStr[0], nullptr);
    EXPECT_STREQ(g_apcTbdlErrStr[0], "Failed to send configuration response message.\r\n");
}

TEST_F(CfgServer, PeerThatNeverReadsDoesNotStopTheLoop)
{
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    int fd = Client();
    /* Far more replies than a connection queues: once the peer's queue is
     * full the replies are dropped with an ERROR, every request is still
     * handled, and the loop keeps serving other connections. */
    const Bytes showDebug = Request(1, 1, 0);
    const uint32_t kRequests = 2000;
    for (uint32_t i = 0; i < kRequests; i++) {
        ASSERT_TRUE(Send(fd, showDebug));
        ASSERT_TRUE(PumpUntil(m_epfd, [&] { return Unread(fd) == 0; }));
    }
    ASSERT_GT(g_stTbdlLogVar.uiErrTotal, 0u);
    EXPECT_STREQ(g_apcTbdlErrStr[0], "Failed to send display response message.\r\n");
    int other = Client();
    EXPECT_EQ(Exchange(other, BndCreate(7)).result, 0u);
    uint32_t queued = 0;
    while (TryRecv(fd)) {
        queued++;
    }
    EXPECT_EQ(queued + g_stTbdlLogVar.uiErrTotal, kRequests);
}

struct EventCase {
    const char *what;
    u32 events;
    bool answered;
    bool closed;
};

TEST_F(CfgServer, ConnectionEventMasks)
{
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    const EventCase cases[] = {
        {"in", EPOLLIN, true, false},
        {"in and hang-up: answered, then closed", EPOLLIN | EPOLLHUP, true, true},
        {"in and error: answered, then closed", EPOLLIN | EPOLLERR, true, true},
        {"hang-up alone: closed unread", EPOLLHUP, false, true},
        {"error alone: closed unread", EPOLLERR, false, true},
    };
    uint32_t bnd = 100;
    for (const EventCase &c : cases) {
        SCOPED_TRACE(c.what);
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
        ASSERT_TRUE(Send(fds[0], BndCreate(bnd)));
        EXPECT_EQ(tbdl_cfg_RecvMsg(c.events, static_cast<u64>(fds[1])), 0u);
        EXPECT_EQ(BundleExists(bnd), c.answered);
        std::optional<Bytes> first = TryRecv(fds[0]);
        if (c.answered) {
            ASSERT_TRUE(first.has_value());
            EXPECT_EQ(first->size(), 12u);
            EXPECT_EQ(Decode(*first).result, 0u);
        }
        EXPECT_EQ(fcntl(fds[1], F_GETFD) == -1, c.closed);
        if (c.closed) {
            /* End of file, or a reset when the request was left unread. */
            uint8_t b;
            EXPECT_LE(recv(fds[0], &b, 1, MSG_DONTWAIT), 0);
            EXPECT_NE(errno, EAGAIN);
        } else {
            EXPECT_FALSE(TryRecv(fds[0]).has_value());
            close(fds[1]);
        }
        close(fds[0]);
        bnd++;
    }
}

TEST_F(CfgServer, ReceiveOfNothingClosesTheConnection)
{
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
    /* Readable event but nothing queued: the receive fails. */
    EXPECT_EQ(tbdl_cfg_RecvMsg(EPOLLIN, static_cast<u64>(fds[1])), 0u);
    EXPECT_EQ(fcntl(fds[1], F_GETFD), -1);
    close(fds[0]);
}

TEST_F(CfgServer, ListenerEventsOtherThanInAreIgnored)
{
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    int fd = Connect(m_path);
    ASSERT_GE(fd, 0);
    m_clients.push_back(fd);
    int before = OpenFdCount();
    EXPECT_EQ(tbdl_cfg_Accept(EPOLLHUP | EPOLLERR, static_cast<u64>(g_stTbdlCfgGlobalVar.iListenFd)), 0u);
    EXPECT_EQ(OpenFdCount(), before);

    int notSocket = eventfd(0, 0);
    EXPECT_EQ(tbdl_cfg_Accept(EPOLLIN, static_cast<u64>(notSocket)), TBDL_E_FAILED);
    close(notSocket);
}

TEST_F(CfgServer, AcceptedConnectionThatCannotBeRegisteredIsClosed)
{
    ASSERT_EQ(TBDL_CFG_Activate(), 0u);
    int fd = Connect(m_path);
    ASSERT_GE(fd, 0);
    m_clients.push_back(fd);
    int before = OpenFdCount();
    int listenFd = g_stTbdlCfgGlobalVar.iListenFd;
    g_stTbdlCfgGlobalVar.iEpollFd = -1;
    EXPECT_EQ(tbdl_cfg_Accept(EPOLLIN, static_cast<u64>(listenFd)), TBDL_E_FAILED);
    g_stTbdlCfgGlobalVar.iEpollFd = m_epfd;
    EXPECT_EQ(OpenFdCount(), before);
    std::optional<Bytes> eof = TryRecv(fd);
    ASSERT_TRUE(eof.has_value());
    EXPECT_TRUE(eof->empty());
}

} // namespace
