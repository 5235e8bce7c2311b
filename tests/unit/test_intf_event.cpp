/* Interface and VRF events of members: subscription and restart, event
 * batches, member state, unbinding on VRF changes and the batch sweep. */
#include "bnd_fixture.h"
#include "intf/tbdl_intf_priv.h"

using namespace bndtest;

namespace {

class IntfEvTest : public BndTest {
protected:
    void SetUp() override
    {
        BndTest::SetUp();
        Init();
        ASSERT_EQ(TBDL_INTF_Init(epfd), 0u);
        ASSERT_EQ(TBDL_INTF_Activate(), 0u);
    }
    void TearDown() override
    {
        TBDL_INTF_Deactivate();
        TBDL_INTF_Fini();
        BndTest::TearDown();
    }

    /* Bundle num in the given VRF with "Tunnel<tnl>" members in the same VRF; returns their indexes. */
    static std::vector<u32> BndWith(u32 num, u16 vrf, std::vector<u32> tnls, u32 state = 1)
    {
        EXPECT_EQ(Create(num, TBDL_MODE_LOADBALANCING), TBDL_OK);
        g_stTbdlGlobalVar.ppstBnd[num]->usVrfIndex = vrf;
        std::vector<u32> idx;
        for (u32 tnl : tnls) {
            idx.push_back(fake::AddTunnel(tnl, 0, state, vrf));
            TBDL_CFG_KEY_S key{num};
            TBDL_MEMB_CFG_S cfg{tnl, 1, 0, 0, 0, 0};
            EXPECT_EQ(TBDL_INTF_Configure(0, &key, TBDL_TLV_OP_MEMB, &cfg), 0u) << "Tunnel" << tnl;
        }
        return idx;
    }
    static u32 L3v(u32 type, u32 ev, u32 ifIndex = 0, u16 vrf = 0)
    {
        TBDL_L3V_EVT_S e{vrf, 0, ifIndex};
        return TBDL_INTF_ProcL3vEv(type, ev, &e);
    }
    static bool IsMemb(u32 ifIndex) { return fake::PrivateData().count(ifIndex) != 0; }
    static bool Subscribed()
    {
        return fake::IfEventHandle() != 0 && g_stIntfGlobalVar.uiIfEvHandle == fake::IfEventHandle() &&
               g_stIntfGlobalVar.iIfEvFd == fake::IfEventFd();
    }
};

TEST_F(IntfEvTest, SubscriptionTakesTunnelEventsAndActivationFailuresLeaveNothing)
{
    auto reg = fake::CallsOf("IF_RegIfEventEx").at(0);
    EXPECT_EQ(reg.args, (std::vector<uint64_t>{0x5140000, 0x20000064, 64, 0}));
    EXPECT_EQ(fake::CallsOf("IF_Select_Init").at(0).args.at(0), 5u);
    EXPECT_EQ(fake::CallsOf("IF_SelectType_Set").at(0).args.at(0), 39u);
    EXPECT_TRUE(Subscribed());
    TBDL_INTF_Deactivate();
    EXPECT_EQ(fake::CallsOf("IF_UnRegEvent").at(0).args, (std::vector<uint64_t>{reg.result, 0x20000064}));
    EXPECT_EQ(std::make_pair(g_stIntfGlobalVar.uiIfEvHandle, g_stIntfGlobalVar.iIfEvFd), std::make_pair(0u, -1));
    EXPECT_EQ(fake::IfEventFd(), -1) << "descriptor closed";

    const struct { const char *fail; std::vector<std::string> release; } cases[] = {
        {"IF_Event_Init", {}},
        {"IF_RegIfEventEx", {"IF_Event_Fini"}},
        {"epoll", {"IF_UnRegEvent", "IF_Event_Fini"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fail);
        Mark();
        TBDL_INTF_SetSystemBoot(1);
        if (std::string(c.fail) == "epoll") {
            g_stIntfGlobalVar.iEpollFd = -1;
        } else {
            fake::FailOnce(c.fail, std::string(c.fail) == "IF_Event_Init" ? ~0ull : 0);
        }
        EXPECT_EQ(TBDL_INTF_Activate(), TBDL_E_FAILED);
        g_stIntfGlobalVar.iEpollFd = epfd;
        EXPECT_EQ(fake::Names({"IF_UnRegEvent", "IF_Event_Fini"}), c.release);
        EXPECT_EQ(std::make_pair(g_stIntfGlobalVar.uiIfEvHandle, g_stIntfGlobalVar.iIfEvFd), std::make_pair(0u, -1));
        EXPECT_EQ(TBDL_INTF_IsSystemBoot(), 1) << "only a successful activation clears it";
    }
    EXPECT_EQ(TBDL_INTF_Activate(), 0u);
    EXPECT_EQ(TBDL_INTF_IsSystemBoot(), 0);
}

TEST_F(IntfEvTest, EventCodeSetsMemberStateOrUnbinds)
{
    const struct { u32 ev; u8 before; int after; } cases[] = {
        {0x20000020, 0, 1}, {0x20000040, 1, 0}, {0x20000064, 1, 0}, {0x1, 1, 0}, {0x20000004, 1, -1},
    };
    u32 tnl = 10;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.ev);
        u32 num = tnl;
        u32 ifIndex = BndWith(num, 0, {tnl++}, c.before).at(0);
        ASSERT_EQ(Members(num).at(0).ucState, c.before);
        EXPECT_EQ(tbdl_intf_ProcIfEvent(ifIndex, c.ev), 0u);
        auto m = Members(num);
        EXPECT_EQ(m.empty() ? -1 : m.at(0).ucState, c.after);
        EXPECT_EQ(IsMemb(ifIndex), c.after >= 0);
        EXPECT_EQ(fake::Db()[cfgtest::MembKey(num)].size(), c.after >= 0 ? 1u : 0u) << "stored member";
    }
}

TEST_F(IntfEvTest, BatchOfThreeIsLoggedPerEntryAndAcknowledgedOnce)
{
    u32 memb = BndWith(3, 0, {7}, 1).at(0);
    u32 other = fake::AddTunnel(8);
    Mark();
    fake::IfEventPush(0x20000040, {other, memb, 0x999});
    Pump();
    EXPECT_EQ(Members(3).at(0).ucState, 0);
    for (u32 i : {other, memb, 0x999u}) {
        EXPECT_TRUE(Logged("EVENT Received an interface event (0x20000040) on interface " + std::to_string(i) +
                           ".\r\n"));
    }
    auto lines = fake::LogLines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string &l) { return l.find("Received an interface event") != l.npos; }),
              3);
    auto ack = fake::CallsOf("IF_NotifyFinalStatus");
    ASSERT_EQ(ack.size(), 1u);
    EXPECT_EQ(ack[0].args, (std::vector<uint64_t>{fake::IfEventHandle(), 0x20000040, 3, 0}));
    EXPECT_EQ(ack[0].data.size(), 24u);
}

TEST_F(IntfEvTest, BundleVrfChangeUnbindsAllMembersBeforeTheBundleTakesIt)
{
    auto idx = BndWith(3, 5, {7, 8});
    u32 bndIf = Snap(3).uiIfIndex;
    EXPECT_EQ(L3v(96, TBDL_L3V_EV_VRF_BIND, bndIf, 5), 0u) << "same VRF";
    EXPECT_TRUE(IsMemb(idx[0]) && IsMemb(idx[1]));
    EXPECT_EQ(L3v(96, TBDL_L3V_EV_VRF_BIND, bndIf, 6), 0u);
    EXPECT_FALSE(IsMemb(idx[0]) || IsMemb(idx[1]));
    EXPECT_TRUE(fake::Db()[cfgtest::MembKey(3)].empty());
    EXPECT_EQ(TBDL_BND_ProcL3vEv(3, TBDL_L3V_EV_VRF_BIND, 6), 0u);
    EXPECT_TRUE(Members(3).empty());
    EXPECT_EQ(L3v(96, TBDL_L3V_EV_VRF_UNBIND, 0x4242), TBDL_E_NOTEXIST) << "unknown interface";
}

/* Bundle 3 in VRF 5 with Tunnel1-3, bundle 4 in VRF 0 with Tunnel4: a batch confirms Tunnel1 only. */
TEST_F(IntfEvTest, BatchEndDropsUnconfirmedMembersInAVrf)
{
    auto b3 = BndWith(3, 5, {1, 2, 3});
    auto b4 = BndWith(4, 0, {4});
    EXPECT_EQ(L3v(256, TBDL_L3V_EV_BATCH_BEGIN), 0u);
    EXPECT_EQ(L3v(39, TBDL_L3V_EV_VRF_BIND, b3[0], 5), 0u);
    EXPECT_EQ(L3v(39, TBDL_L3V_EV_VRF_BIND, b3[2], 9), 0u) << "moved to another VRF";
    EXPECT_FALSE(IsMemb(b3[2]));
    EXPECT_EQ(L3v(256, TBDL_L3V_EV_BATCH_END), 0u);
    EXPECT_TRUE(IsMemb(b3[0]));
    EXPECT_FALSE(IsMemb(b3[1]));
    EXPECT_EQ(Members(3).size(), 1u);
    ASSERT_TRUE(IsMemb(b4[0]));
    auto pd = static_cast<TBDL_INTF_PD_S *>(fake::PrivateData().at(b4[0]));
    EXPECT_EQ(pd->cVrfMark, g_stIntfGlobalVar.cVrfMark) << "walk went on past the deleted entry";

    /* A member whose bundle is gone counts as in a bundle of no VRF. */
    u32 orphan = fake::AddTunnel(20);
    auto orphanPd = static_cast<TBDL_INTF_PD_S *>(TBDL_BAS_Zalloc(sizeof(TBDL_INTF_PD_S)));
    *orphanPd = {9, 5, g_stIntfGlobalVar.cVrfMark};
    fake::PrivateData()[orphan] = orphanPd;
    Mark();
    EXPECT_EQ(L3v(256, TBDL_L3V_EV_BATCH_END), 0u);
    EXPECT_EQ(fake::CallsOf("IF_GetIfIndexByFullName").size(), 1u) << "unbinding of Tunnel20 tried";
}

TEST_F(IntfEvTest, TwoHundredFiftySixBatchesBringTheMarkBack)
{
    auto idx = BndWith(3, 0, {1});
    const i8 start = g_stIntfGlobalVar.cVrfMark;
    for (int i = 1; i <= 256; i++) {
        L3v(256, TBDL_L3V_EV_BATCH_BEGIN);
        L3v(256, TBDL_L3V_EV_BATCH_END);
        ASSERT_EQ(g_stIntfGlobalVar.cVrfMark == start, i == 256) << i;
    }
    EXPECT_TRUE(IsMemb(idx[0])) << "VRF 0 needs no confirmation";
}

TEST_F(IntfEvTest, TroubleOnTheDescriptorRestartsTheSubscription)
{
    const struct { const char *what; u32 events; bool failRead; bool restart; } cases[] = {
        {"input", 1, false, false}, {"hang-up", 16, false, true}, {"error with input", 9, false, true},
        {"failed read", 1, true, true},
    };
    u32 num = 30;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        auto idx = BndWith(num, 0, {num});
        num++;
        Mark();
        if (c.failRead) {
            fake::FailOnce("IF_ResponseEventPkt", 1);
        }
        EXPECT_EQ(tbdl_intf_ProcEventFd(c.events, (u64)fake::IfEventFd()), 0u);
        EXPECT_EQ(fake::CountOf("IF_Event_Init"), c.restart ? 1u : 0u);
        EXPECT_TRUE(Subscribed());
        EXPECT_EQ(IsMemb(idx[0]), !c.restart) << "a restart drops every private data record";
    }

    /* Through the loop: a hang-up, then the fresh descriptor carries events. */
    fake::IfEventHangUp();
    Pump();
    ASSERT_TRUE(Subscribed());
    fake::IfEventPush(0x20000020, {1});
    Pump();
    EXPECT_EQ(fake::CountOf("IF_NotifyFinalStatus"), 1u);
}

} // namespace
