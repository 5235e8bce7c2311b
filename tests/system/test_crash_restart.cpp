/* kill -9 in the middle of a configuration stream, of the daemon alone and
 * of the whole chassis (chassisd and every board's daemon, then started
 * again on the same directory): every request answered 0 before the kill
 * is stored and displayed after the restart. */
#include <gtest/gtest.h>

#include <signal.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "cfg_checks.h"

namespace tc = tbdl::client;
using namespace tbdl::cfgtest;
using tbdl::systest::ProcessAlive;
using tbdl::systest::WaitUntil;

namespace {

constexpr std::uint32_t kTunnels = 30; /* per stream: bundle base+i binds Tunnel<base+i>, i <= kTunnels */
constexpr std::size_t kAckedBeforeKill = 20;

using Acked = std::map<std::uint32_t, std::set<std::uint32_t>>; /* bundle -> bound tunnels */

/* Creates bundles base+1, base+2, ... and binds Tunnel<base+i> to bundle
 * base+i, on its own connection, until a request is not answered 0. */
class Stream {
public:
    Stream(tc::Client client, std::uint32_t base)
        : m_client(std::move(client)), m_base(base), m_thread([this] { Run(); })
    {
    }
    ~Stream() { Join(); }

    std::size_t Count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_acked.size();
    }
    /* Waits for the end and adds what was answered 0 to acked. */
    void Join(Acked *acked = nullptr)
    {
        if (m_thread.joinable()) {
            m_thread.join();
        }
        for (const auto &[bnd, tnl] : acked != nullptr ? m_acked : decltype(m_acked){}) {
            std::set<std::uint32_t> &members = (*acked)[bnd];
            (void)(tnl != 0 && members.insert(tnl).second);
        }
    }
    bool EndedEarly() const { return m_endedEarly; }

private:
    bool Ack(std::uint32_t bnd, std::uint32_t tnl, const tc::Outcome<std::uint32_t> &r)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (r && *r == TBDL_OK) {
            m_acked.emplace_back(bnd, tnl);
        }
        return r && *r == TBDL_OK;
    }
    void Run()
    {
        for (std::uint32_t i = 1; i < 500; i++) {
            const std::uint32_t n = m_base + i;
            if (!Ack(n, 0, m_client.CreateBundle(n, TBDL_MODE_LOADBALANCING, 0)) ||
                (i <= kTunnels && !Ack(n, n, m_client.AddMember(n, {n, 1, 0})))) {
                m_endedEarly = true;
                return;
            }
        }
        /* Every bundle is made: displays keep the connection busy until the
         * kill ends it, however fast the daemon went. */
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (std::chrono::steady_clock::now() < deadline) {
            if (!m_client.ShowBundle(m_base + 1)) {
                m_endedEarly = true;
                return;
            }
        }
    }

    tc::Client m_client;
    std::uint32_t m_base;
    std::mutex m_mutex;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> m_acked; /* (bundle, tunnel or 0) */
    std::atomic<bool> m_endedEarly{false};
    std::thread m_thread;
};

class CrashRestart : public DaemonTest {
protected:
    CrashRestart() : DaemonTest("crash") {}

    /* Every board daemon, then chassisd, by the PIDs the chassis reports. */
    void KillChassis()
    {
        std::vector<pid_t> pids = {m_chassis.ChassisdPid()};
        for (int board = 0; board < 2; board++) {
            pids.push_back(m_chassis.BoardPid(board));
        }
        for (pid_t pid : pids) {
            ASSERT_TRUE(pid <= 0 || kill(pid, SIGKILL) == 0) << pid;
        }
        for (pid_t pid : pids) {
            ASSERT_TRUE(pid <= 0 || WaitUntil([pid] { return !ProcessAlive(pid); })) << pid;
        }
        ASSERT_TRUE(StartWithDaemon(m_chassis, m_args));
    }
    void KillDaemon()
    {
        const pid_t pid = m_chassis.BoardPid(0);
        ASSERT_EQ(kill(pid, SIGKILL), 0);
        ASSERT_TRUE(m_chassis.WaitBoard(0, [pid](const Json &b) { return b["pid"] != pid && b["state"] == "up"; }));
        ASSERT_TRUE(WaitCfgAnswers(m_chassis));
    }
};

TEST_F(CrashRestart, EveryAnsweredRequestSurvivesKill9)
{
    const std::uint32_t bases[] = {0, 500};
    for (std::uint32_t base : bases) {
        for (std::uint32_t t = base + 1; t <= base + kTunnels; t++) {
            ASSERT_TRUE(AddTunnel(m_chassis, t));
        }
    }
    ASSERT_TRUE(m_chassis.WaitFile("interfaces.json", "\"Tunnel" + std::to_string(bases[1] + kTunnels) + "\""));
    /* The second round also checks that the first round's table survives. */
    Acked acked;
    for (std::uint32_t base : bases) {
        const bool wholeChassis = base != 0;
        SCOPED_TRACE(wholeChassis ? "kill -9 of the chassis" : "kill -9 of the daemon");
        tc::Outcome<tc::Client> conn = tc::Client::Connect(m_chassis.dir(), std::nullopt);
        ASSERT_TRUE(conn) << conn.error();
        Stream stream(std::move(*conn), base);
        ASSERT_TRUE(WaitUntil([&] { return stream.Count() >= kAckedBeforeKill; }, 30000, 1));
        if (wholeChassis) {
            ASSERT_NO_FATAL_FAILURE(KillChassis());
        } else {
            ASSERT_NO_FATAL_FAILURE(KillDaemon());
        }
        stream.Join(&acked);
        ASSERT_TRUE(stream.EndedEarly()) << "the kill came after the stream's end";
        ASSERT_TRUE(Reconnect());
        std::map<std::uint32_t, tc::BndDetail> shown =
            Table(*m_client).value_or(std::map<std::uint32_t, tc::BndDetail>{});
        for (const auto &[bnd, tunnels] : acked) {
            ASSERT_EQ(shown.count(bnd), 1u) << "bundle " << bnd << " was answered 0 and is gone";
            std::set<std::uint32_t> members;
            for (const tc::MembDetail &m : shown[bnd].members) {
                members.insert(m.uiTnlNum);
            }
            EXPECT_TRUE(std::includes(members.begin(), members.end(), tunnels.begin(), tunnels.end())) << bnd;
        }
        EXPECT_TRUE(StoreMatches(m_chassis, *m_client));
    }
}

} // namespace
