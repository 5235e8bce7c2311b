/* Download queues to LSM and PS against the recording fake: queueing and draining, which change reaches which target,
 * reconnection, the LSP entry and the PS messages byte for byte. The PS library's entry points are the fake's own,
 * found in this executable; LSM and PS connections are socket pairs the test owns. */
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include "bnd_fixture.h"
#include "dld/tbdl_dld_priv.h"

namespace {

using namespace bndtest;

class DldTest : public BndTest {
protected:
    int lsm[2] = {-1, -1}, ps[2] = {-1, -1}; /* [0] the daemon's end, [1] the test's */

    void SetUp() override
    {
        BndTest::SetUp();
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, lsm), 0);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ps), 0);
        TBDL_SPEC_S spec{1024, 8, 1, 1, 1};
        ASSERT_EQ(TBDL_BND_Init(&spec, TBDL_DLD_ProcBndEv, epfd), TBDL_OK);
        ASSERT_EQ(TBDL_DLD_Init(&spec, epfd), TBDL_OK);
    }
    void TearDown() override
    {
        TBDL_DLD_Deactivate(0);
        TBDL_DLD_Fini();
        for (int fd : {lsm[0], lsm[1], ps[0], ps[1]}) {
            close(fd);
        }
        BndTest::TearDown();
    }
    /* Both targets reachable: LSM registers, the PS library is this executable. */
    void Connect(bool withPs = true)
    {
        fake::FailAlways("LSM_RegProtocolHandler", uint64_t(int64_t(lsm[0])));
        if (withPs) {
            g_stTbdlDldGVar.pvPsLib = dlopen(nullptr, RTLD_LAZY);
            fake::FailAlways("PS_Register", uint64_t(int64_t(ps[0])));
        }
        ASSERT_EQ(TBDL_DLD_Activate(), TBDL_OK);
    }
    /* Bundle with members of the given roles (first listed last in the snapshot, the table inserts at the head). */
    static void MakeBnd(u32 num, u16 mode, std::initializer_list<u8> roles, u32 tnlBase)
    {
        ASSERT_EQ(Create(num, mode), TBDL_OK);
        u32 tnl = tnlBase;
        for (u8 role : roles) {
            AddMemb(num, tnl++, role);
        }
    }
    /* Bytes the test's end of the PS pair received, one read per send. */
    std::vector<Bytes> PsSends()
    {
        std::vector<Bytes> out;
        uint8_t buf[4096];
        ssize_t n;
        while ((n = recv(ps[1], buf, sizeof(buf), 0)) > 0) {
            out.emplace_back(buf, buf + n);
        }
        return out;
    }
    static bool Queued(u32 target, u32 num)
    {
        for (auto *p = g_stTbdlDldGVar.apstDldList[target]; p != nullptr; p = p->pstNext) {
            if (p->uiBndNum == num) {
                return Bitmap_Check(g_stTbdlDldGVar.apvBitmap[target], num) == 1;
            }
        }
        return false;
    }
    /* Descriptors the loop reports ready right now (only a write-watched connection can be). */
    int Ready()
    {
        struct epoll_event ev[4];
        return epoll_wait(epfd, ev, 4, 0);
    }
    static std::vector<uint64_t> AddedIfIndexes()
    {
        std::vector<uint64_t> v;
        for (const auto &c : fake::CallsOf("LSM_AddLspEntry")) {
            v.push_back(c.args.at(3));
        }
        return v;
    }
};

Bytes Le(std::initializer_list<std::pair<size_t, uint64_t>> fields, size_t len, std::initializer_list<size_t> widths)
{
    Bytes b(len, 0);
    auto w = widths.begin();
    for (const auto &f : fields) {
        for (size_t i = 0; i < *w; i++) {
            b[f.first + i] = uint8_t(f.second >> (8 * i));
        }
        ++w;
    }
    return b;
}

/* A path half: 68, flags, no label, member, weight. */
Bytes Half(u32 ifIndex, u16 weight, u16 flags = 0)
{
    return Le({{0, 68}, {2, flags}, {4, 0xFFFFFFFF}, {8, ifIndex}, {14, weight}}, 32, {2, 2, 4, 4, 2});
}

TEST_F(DldTest, QueueIsDedupedLifoAndDrainedWithOneFlush)
{
    Connect(false);
    EXPECT_EQ(fake::Names({"LSM_RegProtocolHandler", "LSM_SendGrEvent", "LSM_AddLspEntry", "LSM_FlushLspEntry"}),
              (std::vector<std::string>{"LSM_RegProtocolHandler", "LSM_SendGrEvent", "LSM_FlushLspEntry",
                                        "LSM_SendGrEvent"}))
        << "an empty table: a smoothing cycle with nothing in it";
    EXPECT_EQ(fake::CallsOf("LSM_SendGrEvent").at(1).args.at(1), 2u);
    EXPECT_NE(g_stTbdlDldGVar.aiTimerFd[TBDL_DLD_TARGET_PS], -1) << "no PS library: PS retries, LSM works";
    for (u32 num : {5u, 7u, 9u}) {
        MakeBnd(num, 1, {0}, num * 10);
        EXPECT_EQ(TBDL_DLD_ProcIntfEv(TBDL_MEMB_EV_ADD, num), TBDL_OK);
    }
    u32 ifIndex = 0;
    EXPECT_EQ(tbdl_dld_AddDldNode(TBDL_DLD_TARGET_LSM, 5, &ifIndex), 1u) << "already queued";
    EXPECT_FALSE(Queued(TBDL_DLD_TARGET_PS, 5)) << "a disconnected target queues nothing";
    u32 if5 = Snap(5).uiIfIndex, if7 = Snap(7).uiIfIndex, if9 = Snap(9).uiIfIndex;

    /* A failure in the middle: the first is gone, the rest stay queued, no flush, the watch stays on. */
    fake::ClearJournal();
    fake::FailNth("LSM_AddLspEntry", 2, 1);
    Pump();
    EXPECT_EQ(AddedIfIndexes(), (std::vector<uint64_t>{if9, if7}));
    EXPECT_EQ(fake::CountOf("LSM_FlushLspEntry"), 0u);
    EXPECT_EQ(std::make_tuple(Queued(1, 9), Queued(1, 7), Queued(1, 5)), std::make_tuple(false, true, true));
    EXPECT_NE(Ready(), 0u);

    fake::ClearJournal();
    Pump();
    EXPECT_EQ(AddedIfIndexes(), (std::vector<uint64_t>{if7, if5}));
    EXPECT_EQ(fake::Names({"LSM_AddLspEntry", "LSM_FlushLspEntry"}).back(), "LSM_FlushLspEntry");
    EXPECT_EQ(fake::CountOf("LSM_FlushLspEntry"), 1u);
    EXPECT_EQ(g_stTbdlDldGVar.apstDldList[TBDL_DLD_TARGET_LSM], nullptr);
    EXPECT_EQ(Ready(), 0u) << "write interest off after a complete drain";

    /* A failed flush is reported; the nodes are gone anyway. */
    (void)TBDL_DLD_ProcIntfEv(TBDL_MEMB_EV_WEIGHT, 5);
    fake::FailOnce("LSM_FlushLspEntry", 1);
    Pump();
    EXPECT_TRUE(Logged("ERROR Failed to flush to LSM.\r\n"));
    EXPECT_EQ(g_stTbdlDldGVar.apstDldList[TBDL_DLD_TARGET_LSM], nullptr);
}

TEST_F(DldTest, EachChangeReachesItsTargets)
{
    enum Kind { BND, INTF };
    const struct { const char *what; u16 mode; std::initializer_list<u8> roles; Kind kind; u32 ev; bool lsm, ps; }
    cases[] = {
        {"bundle created", 2, {0, 1}, BND, TBDL_BND_EV_ADD, false, false},
        {"address changed", 2, {0, 1}, BND, TBDL_BND_EV_UPDATE, true, false},
        {"protection bundle deleted", 4, {0, 1}, BND, TBDL_BND_EV_DEL, true, true},
        {"load-balancing bundle deleted", 1, {0, 0}, BND, TBDL_BND_EV_DEL, true, false},
        {"pair completed", 2, {0, 1}, INTF, TBDL_MEMB_EV_ADD, true, true},
        {"first member bound", 2, {0}, INTF, TBDL_MEMB_EV_ADD, true, false},
        {"pair broken", 4, {0}, INTF, TBDL_MEMB_EV_DEL, true, true},
        {"last member unbound", 2, {}, INTF, TBDL_MEMB_EV_DEL, true, false},
        {"weight of a pair member", 2, {0, 1}, INTF, TBDL_MEMB_EV_WEIGHT, true, false},
        {"load balancing never reaches PS", 1, {0, 0}, INTF, TBDL_MEMB_EV_ADD, true, false},
    };
    Connect();
    u32 tnl = 1;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        MakeBnd(3, c.mode, c.roles, tnl);
        tnl += 2;
        tbdl_dld_FreeDldList(TBDL_DLD_TARGET_LSM);
        tbdl_dld_FreeDldList(TBDL_DLD_TARGET_PS);
        if (c.kind == BND) {
            TBDL_DLD_ProcBndEv(c.ev, 3);
        } else {
            EXPECT_EQ(TBDL_DLD_ProcIntfEv(c.ev, 3), TBDL_OK);
        }
        EXPECT_EQ(std::make_pair(Queued(TBDL_DLD_TARGET_LSM, 3), Queued(TBDL_DLD_TARGET_PS, 3)),
                  std::make_pair(c.lsm, c.ps));
        TBDL_BND_ClearRunning();
    }
    EXPECT_EQ(TBDL_DLD_ProcIntfEv(TBDL_MEMB_EV_ADD, 4), TBDL_E_NOTEXIST) << "no such bundle";
}

TEST_F(DldTest, LspEntryOfEachModeByteForByte)
{
    const TBDL_MEMB_INFO_S a{0x101, 5, 0, 1}, b{0x102, 6, 0, 1}, c{0x103, 7, 0, 0}, bk{0x104, 9, 1, 1};
    const struct { const char *what; u8 mode; std::vector<TBDL_MEMB_INFO_S> membs; u32 code; Bytes paths; } cases[] = {
        {"load balancing, three members", 1, {a, b, c}, 8,
         Cat({Half(0x101, 5), Bytes(32, 0), Half(0x102, 6), Bytes(32, 0), Half(0x103, 7), Bytes(32, 0)})},
        {"1+1, backup listed first", 4, {bk, a}, 2, Cat({Half(0x101, 5, 2), Half(0x104, 9)})},
        {"1:1, backup listed last", 2, {a, bk}, 1, Cat({Half(0x101, 5, 2), Half(0x104, 9)})},
        {"only a role-1 member", 2, {bk}, 1, Cat({Half(0x104, 9), Bytes(32, 0)})},
    };
    g_stTbdlDldGVar.aiSockFd[TBDL_DLD_TARGET_LSM] = 77;
    for (const auto &t : cases) {
        SCOPED_TRACE(t.what);
        fake::ClearJournal();
        auto membs = t.membs;
        TBDL_BND_INFO_S info{};
        info.pstMembInfo = membs.data();
        info.usMembNum = u16(membs.size());
        info.uiIfIndex = 0x1005;
        info.usVrfIndex = 0x0203;
        info.ucMode = t.mode;
        memcpy(info.stAddr.aucAddr, "\x0a\x00\x00\x01\x09", 5);
        ASSERT_EQ(tbdl_dld_AddLspEntry(&info), TBDL_OK);
        auto call = fake::CallsOf("LSM_AddLspEntry").at(0);
        EXPECT_EQ(call.args, (std::vector<uint64_t>{77, 0, 1, 0x1005, 0xFFFFFFFF}));
        Bytes entry = Le({{0, t.code}, {4, 13}, {8, t.paths.size() / 64}, {12, 24}, {16, 0x1005}, {20, 0x0100000a},
                          {24, 0x0203}, {40, 0xFFFFFFFF}},
                         96, {4, 4, 2, 2, 4, 4, 2, 4});
        std::fill(call.data.begin() + 56, call.data.begin() + 64, 0); /* the two pointers */
        std::fill(call.data.begin() + 72, call.data.begin() + 80, 0);
        EXPECT_EQ(call.data, entry);
        Bytes attr = Le({{0, 0x1005}, {4, 1}, {6, t.code}, {12, 0xFF}}, 16, {4, 2, 2, 1});
        EXPECT_EQ(call.rec, Cat({t.paths, attr}));
        EXPECT_TRUE(Logged("EVENT Sent bundle update event of tunnel bundle interface 4101 to LSM.\r\n"));
    }
    g_stTbdlDldGVar.aiSockFd[TBDL_DLD_TARGET_LSM] = -1;
}

/* A bundle without members, or one that is gone, is deleted by the ifindex it was queued with. */
TEST_F(DldTest, LsmDeleteIsKeyedByTheQueuedIfIndex)
{
    Connect(false);
    ASSERT_EQ(Create(2, 1), TBDL_OK);
    const struct { const char *what; u32 num; u32 ifIndex; u16 vrf; } cases[] = {
        {"no members", 2, Snap(2).uiIfIndex, 0}, {"bundle gone", 6, 0x4321, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        fake::ClearJournal();
        TBDL_DLD_NODE_S node{nullptr, nullptr, c.ifIndex, c.num};
        ASSERT_EQ(tbdl_dld_Download2Lsm(&node), TBDL_OK);
        auto call = fake::CallsOf("LSM_DeleteLspEntry").at(0);
        EXPECT_EQ(call.data, Le({{0, 24}, {4, c.ifIndex}}, 28, {2, 4}));
        EXPECT_EQ(call.args, (std::vector<uint64_t>{uint64_t(lsm[0]), 0, 24, 0}));
    }
    EXPECT_EQ(fake::CountOf("LSM_AddLspEntry"), 0u);
}

TEST_F(DldTest, LostConnectionIsRetriedEveryPeriodUntilItSucceeds)
{
    Connect();
    MakeBnd(1, 2, {0, 1}, 1);
    (void)TBDL_DLD_ProcIntfEv(TBDL_MEMB_EV_ADD, 1);
    EXPECT_EQ(tbdl_dld_LsmSockCb(EPOLLHUP, uint64_t(lsm[0] + 100)), TBDL_E_FAILED) << "a foreign descriptor";
    EXPECT_TRUE(Queued(TBDL_DLD_TARGET_LSM, 1));

    fake::ClearJournal();
    fake::FailAlways("LSM_RegProtocolHandler", uint64_t(-1));
    EXPECT_EQ(tbdl_dld_LsmSockCb(EPOLLHUP, uint64_t(lsm[0])), TBDL_OK);
    EXPECT_EQ(fake::Names(), (std::vector<std::string>{"LSM_DeregProtocolHandler"}))
        << "no withdrawal after a lost connection";
    EXPECT_EQ(std::make_pair(Queued(TBDL_DLD_TARGET_LSM, 1), Queued(TBDL_DLD_TARGET_PS, 1)),
              std::make_pair(false, true));
    tbdl_dld_ProcPsDldNode(); /* PS done with, so that only the timer wakes the loop */
    int timer = g_stTbdlDldGVar.aiTimerFd[TBDL_DLD_TARGET_LSM];
    ASSERT_NE(timer, -1);
    struct itimerspec spec{};
    ASSERT_EQ(timerfd_gettime(timer, &spec), 0);
    EXPECT_EQ(std::make_pair(spec.it_interval.tv_sec, spec.it_interval.tv_nsec), std::make_pair(time_t(3), 0L));

    /* Expire the timer now rather than waiting the period out: a failed attempt keeps it, a success stops it. */
    for (int attempt : {1, 2}) {
        if (attempt == 2) {
            fake::FailAlways("LSM_RegProtocolHandler", uint64_t(lsm[0]));
        }
        spec.it_value = {0, 1};
        ASSERT_EQ(timerfd_settime(timer, 0, &spec, nullptr), 0);
        Pump();
        EXPECT_EQ(fake::CountOf("LSM_RegProtocolHandler"), size_t(attempt));
    }
    auto log = fake::LogLines();
    EXPECT_EQ(std::count(log.begin(), log.end(), "ERROR Failed to register to LSM.\r\n"), 1);
    EXPECT_EQ(g_stTbdlDldGVar.aiTimerFd[TBDL_DLD_TARGET_LSM], -1);
    EXPECT_EQ(g_stTbdlDldGVar.aiSockFd[TBDL_DLD_TARGET_LSM], lsm[0]);
    EXPECT_EQ(AddedIfIndexes().size(), 1u) << "the whole table is sent again";
}

TEST_F(DldTest, DeactivationWithdrawsOnlyOnOrderlyStop)
{
    for (u16 withdraw : {0, 1}) {
        SCOPED_TRACE(withdraw);
        Connect();
        PsSends();
        fake::ClearJournal();
        TBDL_DLD_Deactivate(withdraw);
        std::vector<std::string> lsmCalls = {"LSM_DeregProtocolHandler"};
        if (withdraw) {
            lsmCalls.insert(lsmCalls.begin(), {"LSM_SendGrEvent", "LSM_SendGrEvent"});
        }
        EXPECT_EQ(fake::Names({"LSM_SendGrEvent", "LSM_DeregProtocolHandler"}), lsmCalls);
        EXPECT_EQ(PsSends().size(), withdraw ? 2u : 0u) << "an empty smoothing cycle";
        EXPECT_EQ(fake::CountOf("PS_Deregister"), 1u);
        EXPECT_EQ(std::make_pair(g_stTbdlDldGVar.aiSockFd[0], g_stTbdlDldGVar.aiSockFd[1]), std::make_pair(-1, -1));
    }
}

TEST_F(DldTest, PsMessagesByteForByte)
{
    const Bytes tlvBnd = {0, 1, 0, 16};
    TBDL_MEMB_INFO_S membs[2] = {{200, 1, 1, 0}, {100, 1, 0, 1}};
    TBDL_BND_INFO_S info{};
    info.pstMembInfo = membs;
    info.usMembNum = 2;
    info.uiBndNum = 7;
    for (u8 mode : {2, 4}) {
        info.ucMode = mode;
        uint8_t buf[32] = {};
        ASSERT_EQ(tbdl_dld_EncAddMsg(24, buf, &info), 24);
        EXPECT_EQ(Bytes(buf, buf + 24), Cat({{0, 2, 0, 0x14}, tlvBnd, Be32(7), Be32(100), Be32(200),
                                             {uint8_t(mode == 4), 1, 0, 0}}));
    }
    uint8_t buf[32] = {};
    EXPECT_EQ(tbdl_dld_EncAddMsg(23, buf, &info), 0) << "no room";

    /* A delete, the smooth events and a resynchronisation of 100 pairs, 62 updates to a send. */
    Connect();
    EXPECT_EQ(PsSends(), (std::vector<Bytes>{{0, 4, 0, 8, 0, 2, 0, 4, 0, 0, 0, 0}, {0, 4, 0, 8, 0, 2, 0, 4, 0, 0, 0, 1}}));
    TBDL_DLD_NODE_S node{nullptr, nullptr, 0x1234, 7};
    EXPECT_EQ(tbdl_dld_Download2Ps(&node), TBDL_OK);
    EXPECT_EQ(PsSends(), (std::vector<Bytes>{Cat({{0, 3, 0, 0x14}, tlvBnd, Be32(7), Bytes(12, 0)})}));
    EXPECT_TRUE(Logged("EVENT Sent bundle delete event of tunnel bundle interface 4660 to PS.\r\n"));
    for (u32 num = 1; num <= 100; num++) {
        MakeBnd(num, 2, {0, 1}, 2 * num);
    }
    MakeBnd(101, 1, {0, 0}, 300);
    (void)tbdl_dld_SyncPs();
    auto sends = PsSends();
    ASSERT_EQ(sends.size(), 4u);
    EXPECT_EQ(std::make_pair(sends[1].size(), sends[2].size()), std::make_pair(size_t(1488), size_t(912)));
    EXPECT_EQ(Bytes(sends[2].end() - 24, sends[2].end() - 16), Cat({{0, 2, 0, 0x14}, tlvBnd}));
    EXPECT_EQ(Bytes(sends[2].end() - 16, sends[2].end() - 12), Be32(100));
}

} // namespace
