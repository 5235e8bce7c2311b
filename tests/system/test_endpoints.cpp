/* The local endpoints under hostile or careless use: modes under an open
 * umask, board calls from other processes, running out of descriptors, and
 * clients facing a listener that never accepts. */
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>
#include <sstream>

#include "cfg_checks.h"
#include "ctl_client.h"
#include "rpc.h"

namespace {

using namespace tbdl::systest;
namespace rpc = tbdl::rpc;

void StartOneBoard(Chassis &c)
{
    c.UseRealDaemon();
    ASSERT_EQ(c.Start({"--boards", "0"}).status, 0);
    ASSERT_TRUE(tbdl::cfgtest::WaitCfgAnswers(c));
}

TEST(Endpoints, ModesStayOwnerAndGroupUnderAnOpenUmask)
{
    Chassis c("modes");
    mode_t old = umask(0);
    StartOneBoard(c);
    umask(old);
    for (const char *rel : {".", "chassisd.sock", "board0/ps.sock", "board0/cfg.sock", "dbm.sqlite"}) {
        struct stat st {};
        ASSERT_EQ(stat(c.Path(rel).c_str(), &st), 0) << rel;
        EXPECT_EQ(st.st_mode & 0607, 0600u) << rel << ": mode " << std::oct << st.st_mode;
    }
}

TEST(Endpoints, BoardCallsAreServedOnlyToTheBoardsDaemon)
{
    for (bool trust : {false, true}) {
        SCOPED_TRACE(trust ? "--trust-user" : "default");
        Chassis c("peers");
        ASSERT_EQ(c.Start(trust ? std::vector<std::string>{"--trust-user"} : std::vector<std::string>{}).status, 0);
        ASSERT_TRUE(c.WaitBoard(0, [](const Json &b) { return b.value("state", "") == "up"; }))
            << "the board's own daemon is served";
        ASSERT_EQ(c.Ctl({"if", "add", "Tunnel7"}).status, 0);
        std::string sock = c.Path("chassisd.sock");
        rpc::Client client; /* this process, as board 0 */
        client.SetPath(sock);
        std::vector<uint8_t> reply;
        rpc::U32Value index{0};
        bool served = client.Call(rpc::OP_IF_INDEX_BY_NAME, 0, 0, "Tunnel7", 7, &reply) == 0 &&
                      rpc::Decode(reply.data(), reply.size(), index) && index.uiValue != 0;
        EXPECT_EQ(served, trust);
        EXPECT_EQ(CountOccurrences(ReadFile(c.Path("chassisd.log")), "not that board's daemon"), trust ? 0u : 1u);
        if (!trust && geteuid() == 0) { /* another user cannot even connect */
            pid_t pid = fork();
            if (pid == 0) {
                bool other = setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0;
                _exit(other && rpc::Connect(sock, 1000) < 0 && errno == EACCES ? 0 : 1);
            }
            int ws = -1;
            ASSERT_EQ(waitpid(pid, &ws, 0), pid);
            EXPECT_EQ(ws, 0) << "another user reached the chassis socket";
        }
    }
    if (geteuid() != 0) {
        GTEST_SKIP() << "running a client as another user needs root";
    }
}

long CpuTicks(pid_t pid)
{
    std::istringstream in(ReadFile("/proc/" + std::to_string(pid) + "/stat"));
    std::string field;
    long ticks = 0;
    for (int i = 1; in >> field && i <= 15; ++i) {
        ticks += (i == 14 || i == 15) ? std::stol(field) : 0; /* utime, stime */
    }
    return ticks;
}

/* Sends the request on every connection, then counts those that answered
 * and those that were closed within the deadline. */
std::pair<size_t, size_t> Exchange(const std::vector<int> &fds, const std::vector<uint8_t> &req)
{
    std::vector<pollfd> pfds;
    for (int fd : fds) {
        pfds.push_back({fd, POLLIN, 0});
        (void)send(fd, req.data(), req.size(), MSG_NOSIGNAL);
    }
    size_t answered = 0, closed = 0;
    std::vector<uint8_t> buf(rpc::kMaxMsg);
    WaitUntil([&] {
        for (pollfd &p : pfds) {
            if (p.fd >= 0 && poll(&p, 1, 0) == 1) {
                (recv(p.fd, buf.data(), buf.size(), MSG_DONTWAIT) > 0 ? answered : closed)++;
                p.fd = -1;
            }
        }
        return answered + closed == fds.size();
    }, 5000);
    return {answered, closed};
}

TEST(Endpoints, OutOfDescriptorsConnectionsAreRefusedWithoutSpinning)
{
    constexpr size_t kConns = 200;
    Chassis c("fds");
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    ASSERT_GE(old.rlim_cur, 2 * kConns + 64) << "room for this test's connections";
    rlimit low{128, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0); /* inherited by chassisd and the daemon */
    StartOneBoard(c);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);

    std::string status = R"({"cmd":"status"})";
    std::vector<uint8_t> ctlReq(sizeof(rpc::Hdr));
    rpc::Hdr h{rpc::OP_CTL, 0, 0};
    std::memcpy(ctlReq.data(), &h, sizeof(h));
    ctlReq.insert(ctlReq.end(), status.begin(), status.end());
    struct Endpoint {
        std::string path;
        pid_t pid;
        std::vector<uint8_t> request;
    } endpoints[] = {
        {c.Path("chassisd.sock"), c.ChassisdPid(), ctlReq},
        {c.Path("board0/cfg.sock"), c.BoardPid(0), tbdl::client::EncodeRequest(TBDL_CFG_MSG_DISPLAY, 5, 0, {})},
    };
    for (const Endpoint &e : endpoints) {
        SCOPED_TRACE(e.path);
        std::vector<int> existing{rpc::Connect(e.path, 2000)};
        ASSERT_EQ(Exchange(existing, e.request).first, 1u);
        long before = CpuTicks(e.pid);
        std::vector<int> fds;
        while (fds.size() < kConns && (fds.empty() || fds.back() >= 0)) {
            fds.push_back(rpc::Connect(e.path, 2000));
        }
        ASSERT_GE(fds.back(), 0) << "connect " << fds.size() << ": " << std::strerror(errno);
        auto [answered, closed] = Exchange(fds, e.request);
        EXPECT_EQ(answered + closed, kConns) << "connections left waiting in the queue";
        EXPECT_GT(closed, 0u) << "the limit was never reached";
        EXPECT_GT(answered, 50u) << "connections below the limit are served";
        EXPECT_EQ(Exchange(existing, e.request).first, 1u) << "an existing connection is served";
        /* Spinning on the listening socket burns a core; an idle process
         * stays far below half a second of CPU time over these 2 s. */
        EXPECT_FALSE(WaitUntil([&] { return CpuTicks(e.pid) - before > sysconf(_SC_CLK_TCK) / 2; }, 2000, 50))
            << "CPU ticks: " << CpuTicks(e.pid) - before;
        for (int fd : fds) {
            close(fd);
        }
        close(existing[0]);
    }
    EXPECT_EQ(CountOccurrences(ReadFile(c.Path("chassisd.log")), "refusing new connections"), 1u)
        << "one log line per burst";
}

TEST(Endpoints, ToolsGiveUpOnAListenerThatNeverAccepts)
{
    Chassis c("deaf");
    ASSERT_EQ(mkdir(c.Path("board0").c_str(), 0700), 0);
    std::vector<int> held;
    for (const std::string &path : {c.Path("chassisd.sock"), c.Path("board0/cfg.sock")}) {
        sockaddr_un addr{AF_UNIX, {}};
        std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
        auto *sa = reinterpret_cast<sockaddr *>(&addr);
        /* A queue of one, filled and never taken: the next connect waits. */
        held.push_back(socket(AF_UNIX, SOCK_SEQPACKET, 0));
        ASSERT_TRUE(bind(held.back(), sa, sizeof(addr)) == 0 && listen(held.back(), 0) == 0);
        held.push_back(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0));
        ASSERT_EQ(connect(held.back(), sa, sizeof(addr)), 0);
    }
    /* The control client runs in a child, so that a hang cannot hold up
     * the test. */
    pid_t child = fork();
    if (child == 0) {
        auto answer = tbdl::ctl::Client(c.Path("chassisd.sock"), 300).Status();
        _exit(answer.status == tbdl::ctl::Answer::Status::UNREACHABLE ? 0 : 1);
    }
    int ws = -1;
    EXPECT_TRUE(WaitUntil([&] { return waitpid(child, &ws, WNOHANG) == child; }, 5000)) << "the control client hung";
    if (ws == -1 && kill(child, SIGKILL) == 0) {
        waitpid(child, &ws, 0);
    }
    EXPECT_EQ(ws, 0);
    ProcRun r = c.Tbdlctl({"--board", "0", "--timeout", "300", "show", "limits"}, 5000);
    EXPECT_FALSE(r.timedOut) << "tbdlctl hung in connect";
    /* tbdlctl asks chassisd for the master first: that connect gives up. */
    EXPECT_NE(r.err.find("cannot reach chassisd"), std::string::npos) << r.err;
    for (int fd : held) {
        close(fd);
    }
}

} // namespace
