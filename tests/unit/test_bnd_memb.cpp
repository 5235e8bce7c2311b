/* Member events, VRF events with the batch sweep, refresh and clearing. */
#include "bnd_fixture.h"

using namespace bndtest;

namespace {

class BndMemb : public BndTest {};

struct AdmitStep {
    u8 role;
    u32 expect;
};

struct AdmitRow {
    const char *what;
    u16 mode;
    u32 limit;
    std::vector<AdmitStep> steps;
};

TEST_F(BndMemb, AdmissionByModeRoleAndLimit)
{
    std::vector<AdmitStep> lb;
    lb.push_back({1, TBDL_E_MEMB_ROLE}); /* role 1 refused while there is room */
    for (int i = 0; i < 7; i++) {
        lb.push_back({0, TBDL_OK});
    }
    lb.push_back({1, TBDL_E_MEMB_ROLE});
    lb.push_back({0, TBDL_OK});          /* the 8th */
    lb.push_back({0, TBDL_E_MEMB_FULL}); /* the 9th */
    lb.push_back({1, TBDL_E_MEMB_FULL});
    const std::vector<AdmitStep> prot = {
        {1, TBDL_OK}, {1, TBDL_E_MEMB_ROLE}, {0, TBDL_OK}, {0, TBDL_E_MEMB_FULL}, {2, TBDL_E_MEMB_FULL},
    };
    const AdmitRow rows[] = {
        {"load balancing, limit 8", 1, 8, lb},
        {"one-to-one", 2, 8, prot},
        {"one-plus-one", 4, 8, prot},
        {"protection ignores the balancing limit", 2, 1, prot},
        /* A full balancing bundle falls back to the pair rule. */
        {"load balancing, limit 1", 1, 1,
         {{1, TBDL_E_MEMB_ROLE}, {0, TBDL_OK}, {0, TBDL_E_MEMB_ROLE}, {1, TBDL_OK}, {0, TBDL_E_MEMB_FULL}}},
    };
    u32 tnl = 1;
    for (const AdmitRow &r : rows) {
        SCOPED_TRACE(r.what);
        Init(1, 1, 1, 1024, r.limit);
        ASSERT_EQ(Create(0, r.mode), TBDL_OK);
        fake::ClearJournal();
        size_t admitted = 0;
        for (const AdmitStep &s : r.steps) {
            SCOPED_TRACE(tnl);
            EXPECT_EQ(AddMemb(0, tnl++, s.role, 0), s.expect);
            admitted += (s.expect == TBDL_OK) ? 1 : 0;
        }
        std::vector<TBDL_MEMB_INFO_S> m;
        Snap(0, &m);
        EXPECT_EQ(m.size(), admitted);
        EXPECT_EQ(fake::CountOf("CIOCTL"), admitted) << "refused members send nothing";
        TBDL_BND_ClearRunning();
        TBDL_BND_Fini();
    }
}

TEST_F(BndMemb, TunnelModeMustMatch)
{
    Init();
    ASSERT_EQ(Create(0, 1, 2), TBDL_OK);
    Mark();
    EXPECT_EQ(AddMemb(0, 1, 0, 1, 1, 3), TBDL_E_TNL_MODE_MISMATCH);
    /* Only the low byte of the tunnel mode counts. */
    EXPECT_EQ(AddMemb(0, 2, 0, 1, 1, 0x102), TBDL_OK);
    /* An interface without a tunnel mode never matches a mode-0 bundle. */
    ASSERT_EQ(Create(1, 1, 0), TBDL_OK);
    TBDL_MEMB_INFO_S unknown{0x7777, 1, 0, 1};
    EXPECT_EQ(TBDL_BND_ProcMembEv(1, TBDL_MEMB_EV_ADD, &unknown), TBDL_E_TNL_MODE_MISMATCH);
}

TEST_F(BndMemb, AddingUpMemberPushesMemberThenBundle)
{
    Init();
    ASSERT_EQ(Create(4, 1), TBDL_OK);
    u32 bndIf = g_stTbdlGlobalVar.ppstBnd[4]->uiIfIndex;
    Mark();
    u32 m1;
    ASSERT_EQ(AddMemb(4, 1, 0, 1, 5, 0, &m1), TBDL_OK);
    EXPECT_EQ(g_trace, (Trace{"K7c0003", "HA2", "HAF", "HA1", "HAF", "K7c0002"}));
    auto add = fake::CallsOf("CIOCTL").at(0);
    EXPECT_EQ(add.args.at(2), 8u);
    EXPECT_EQ(add.data, g_haPayloads.at(0));
    TBDL_KMEMB_S km;
    memcpy(&km, add.data.data(), sizeof(km));
    EXPECT_EQ(km.uiBndIfIndex, bndIf);
    EXPECT_EQ(km.uiMembIfIndex, m1);
    EXPECT_EQ(LastKbnd().uiState, 1u);
    EXPECT_TRUE(Logged("EVENT Notified KTBDL to add the member interface " + std::to_string(m1) +
                       " to the tunnel bundle interface " + std::to_string(bndIf) + ".\r\n"));

    Mark();
    ASSERT_EQ(AddMemb(4, 2, 0, 1), TBDL_OK);
    EXPECT_EQ(g_trace, (Trace{"K7c0003", "HA2", "HAF"})) << "already up: no bundle update";

    Mark();
    ASSERT_EQ(AddMemb(4, 3, 0, 0), TBDL_OK);
    EXPECT_EQ(g_trace, (Trace{"K7c0003", "HA2", "HAF"}));
}

TEST_F(BndMemb, KtbdlRefusalKeepsMemberAndSkipsHa)
{
    Init();
    ASSERT_EQ(Create(4, 1), TBDL_OK);
    Mark();
    fake::FailOnce("CIOCTL", 1);
    ASSERT_EQ(AddMemb(4, 1, 0, 0), TBDL_OK);
    EXPECT_EQ(g_trace, (Trace{"K7c0003"}));
    EXPECT_EQ(Snap(4).ucState, 0);
    std::vector<TBDL_MEMB_INFO_S> m;
    Snap(4, &m);
    ASSERT_EQ(m.size(), 1u);

    Mark();
    size_t logs = fake::LogLines().size();
    fake::FailOnce("CIOCTL", 1);
    EXPECT_EQ(TBDL_BND_ProcMembEv(4, TBDL_MEMB_EV_DEL, &m[0]), TBDL_OK);
    EXPECT_EQ(g_trace, (Trace{"K7c0004"}));
    EXPECT_EQ(fake::LogLines().size(), logs);
}

TEST_F(BndMemb, RemovingLastUpMemberPushesBundleBeforeMemberDeletion)
{
    Init();
    ASSERT_EQ(Create(4, 1), TBDL_OK);
    u32 up, down;
    ASSERT_EQ(AddMemb(4, 1, 0, 1, 1, 0, &up), TBDL_OK);
    ASSERT_EQ(AddMemb(4, 2, 0, 0, 1, 0, &down), TBDL_OK);
    Mark();
    TBDL_MEMB_INFO_S m{up, 0, 0, 0};
    EXPECT_EQ(TBDL_BND_ProcMembEv(4, TBDL_MEMB_EV_DEL, &m), TBDL_OK);
    EXPECT_EQ(g_trace, (Trace{"HA1", "HAF", "K7c0002", "K7c0004", "HA3", "HAF"}));
    EXPECT_EQ(LastKbnd().uiState, 0u);

    Mark();
    EXPECT_EQ(TBDL_BND_ProcMembEv(4, TBDL_MEMB_EV_DEL, &m), TBDL_E_NOTEXIST);
    m.uiIfIndex = down;
    EXPECT_EQ(TBDL_BND_ProcMembEv(4, TBDL_MEMB_EV_DEL, &m), TBDL_OK);
    EXPECT_EQ(g_trace, (Trace{"K7c0004", "HA3", "HAF"})) << "state unchanged: no bundle update";
}

struct WeightRow {
    const char *what;
    u16 mode;
    u8 role;     /* role given with the change */
    u16 weight;
    u32 expect;
    u16 stored;
};

TEST_F(BndMemb, WeightChange)
{
    const WeightRow rows[] = {
        {"new weight", 1, 0, 9, TBDL_OK, 9},
        {"same weight", 1, 0, 5, TBDL_E_NOCHANGE, 5},
        {"other role", 1, 1, 9, TBDL_E_MEMB_ROLE, 5},
        {"protection bundle", 2, 0, 9, TBDL_E_NOCHANGE, 5},
    };
    u32 tnl = 1;
    for (const WeightRow &r : rows) {
        SCOPED_TRACE(r.what);
        Init();
        ASSERT_EQ(Create(4, r.mode), TBDL_OK);
        u32 idx;
        ASSERT_EQ(AddMemb(4, tnl++, 0, 1, 5, 0, &idx), TBDL_OK);
        Mark();
        TBDL_MEMB_INFO_S m{idx, r.weight, r.role, 0};
        EXPECT_EQ(TBDL_BND_ProcMembEv(4, TBDL_MEMB_EV_WEIGHT, &m), r.expect);
        std::vector<TBDL_MEMB_INFO_S> got;
        Snap(4, &got);
        EXPECT_EQ(got.at(0).usWeight, r.stored);
        EXPECT_EQ(got.at(0).ucState, 1) << "state is not taken from a weight change";
        EXPECT_TRUE(g_trace.empty());
        TBDL_BND_ClearRunning();
        TBDL_BND_Fini();
    }
    Init();
    ASSERT_EQ(Create(4, 1), TBDL_OK);
    TBDL_MEMB_INFO_S stranger{0x999, 1, 0, 0};
    EXPECT_EQ(TBDL_BND_ProcMembEv(4, TBDL_MEMB_EV_WEIGHT, &stranger), TBDL_E_FAILED);
}

TEST_F(BndMemb, StateEventsDriveBundleState)
{
    Init();
    ASSERT_EQ(Create(4, 1), TBDL_OK);
    u32 a, b;
    ASSERT_EQ(AddMemb(4, 1, 0, 0, 1, 0, &a), TBDL_OK);
    ASSERT_EQ(AddMemb(4, 2, 0, 0, 1, 0, &b), TBDL_OK);
    struct {
        u32 ev;
        u32 idx;
        u8 state;
        u8 bundle;
        bool pushed;
    } steps[] = {
        {TBDL_MEMB_EV_UP, a, 1, 1, true},
        {TBDL_MEMB_EV_UP, b, 1, 1, false},
        {TBDL_MEMB_EV_DOWN, a, 0, 1, false},
        {TBDL_MEMB_EV_DOWN, b, 0, 0, true},
        {TBDL_MEMB_EV_DOWN, b, 0, 0, false},
    };
    for (const auto &s : steps) {
        Mark();
        TBDL_MEMB_INFO_S m{s.idx, 0, 0, s.state};
        EXPECT_EQ(TBDL_BND_ProcMembEv(4, s.ev, &m), TBDL_OK);
        EXPECT_EQ(Snap(4).ucState, s.bundle);
        EXPECT_EQ(g_trace, (s.pushed ? Trace{"HA1", "HAF", "K7c0002"} : Trace{}));
    }
}

TEST_F(BndMemb, VrfChangeFlushesMembersAndPushesDownBundle)
{
    Init(1, 1, 1, 16);
    ASSERT_EQ(Create(4, 1), TBDL_OK);
    ASSERT_EQ(AddMemb(4, 1, 0, 1), TBDL_OK);
    ASSERT_EQ(AddMemb(4, 2, 0, 1), TBDL_OK);
    Mark();
    EXPECT_EQ(TBDL_BND_ProcL3vEv(4, TBDL_L3V_EV_VRF_BIND, 33), TBDL_OK);
    EXPECT_EQ(g_trace,
              (Trace{"K7c0004", "HA3", "HAF", "K7c0004", "HA3", "HAF", "HA1", "HAF", "K7c0002", "EV2:4", "DB+4"}));
    TBDL_KBND_S kb = LastKbnd();
    EXPECT_EQ(kb.uiState, 0u);
    EXPECT_EQ(kb.usVrfIndex, 33);
    EXPECT_EQ(fake::CallsOf("DBM_InsertSortList").at(0).rec.at(29), 33);
    std::vector<TBDL_MEMB_INFO_S> m;
    TBDL_BND_INFO_S info = Snap(4, &m);
    EXPECT_TRUE(m.empty());
    EXPECT_EQ(info.usVrfIndex, 33);

    Mark();
    EXPECT_EQ(TBDL_BND_ProcL3vEv(4, TBDL_L3V_EV_VRF_BIND, 33), TBDL_E_NOCHANGE);
    EXPECT_TRUE(g_trace.empty());
    EXPECT_EQ(TBDL_BND_ProcL3vEv(4, TBDL_L3V_EV_VRF_UNBIND, 33), TBDL_OK);
    EXPECT_EQ(Snap(4).usVrfIndex, 0);
    /* Unlike member events, VRF events report an invalid number. */
    size_t logs = fake::LogLines().size();
    TBDL_MEMB_INFO_S m16{1, 0, 0, 1};
    EXPECT_EQ(TBDL_BND_ProcMembEv(16, TBDL_MEMB_EV_ADD, &m16), TBDL_E_INVALID_BND);
    EXPECT_EQ(fake::LogLines().size(), logs);
    EXPECT_EQ(TBDL_BND_ProcL3vEv(16, TBDL_L3V_EV_VRF_BIND, 1), TBDL_E_INVALID_BND);
    EXPECT_TRUE(Logged("ERROR The tunnel bundle interface number (16) is invalid.\r\n"));
    EXPECT_EQ(TBDL_BND_ProcL3vEv(0xFFFFFFFF, 0x1234, 0), TBDL_OK);
}

TEST_F(BndMemb, SweepClearsVrfOfBundlesTheBatchDidNotMention)
{
    Init();
    for (u32 n : {1u, 2u, 3u}) {
        ASSERT_EQ(Create(n, 1), TBDL_OK);
    }
    ASSERT_EQ(TBDL_BND_ProcL3vEv(1, TBDL_L3V_EV_VRF_BIND, 5), TBDL_OK);
    ASSERT_EQ(TBDL_BND_ProcL3vEv(2, TBDL_L3V_EV_VRF_BIND, 6), TBDL_OK);
    ASSERT_EQ(AddMemb(2, 1), TBDL_OK);
    g_stTbdlGlobalVar.cVrfMark = 127; /* the mark wraps */

    Mark();
    EXPECT_EQ(TBDL_BND_ProcL3vEv(0xFFFFFFFF, TBDL_L3V_EV_BATCH_BEGIN, 0), TBDL_OK);
    EXPECT_EQ(g_stTbdlGlobalVar.cVrfMark, -128);
    EXPECT_EQ(TBDL_BND_ProcL3vEv(1, TBDL_L3V_EV_VRF_BIND, 5), TBDL_E_NOCHANGE);
    EXPECT_EQ(TBDL_BND_ProcL3vEv(0xFFFFFFFF, TBDL_L3V_EV_BATCH_END, 0), TBDL_OK);

    EXPECT_EQ(Snap(1).usVrfIndex, 5) << "mentioned in the batch";
    std::vector<TBDL_MEMB_INFO_S> m;
    EXPECT_EQ(Snap(2, &m).usVrfIndex, 0) << "not mentioned";
    EXPECT_EQ(m.size(), 1u) << "the sweep keeps members";
    EXPECT_EQ(Snap(3).usVrfIndex, 0);
    for (u32 n : {1u, 2u, 3u}) {
        EXPECT_EQ(g_stTbdlGlobalVar.ppstBnd[n]->cVrfMark, -128);
    }
    EXPECT_TRUE(g_trace.empty()) << "the sweep sends and writes nothing";
}

TEST_F(BndMemb, RefreshPushesOnlyDownBundlesInOrder)
{
    Init();
    for (u32 n : {9u, 2u, 5u}) {
        ASSERT_EQ(Create(n, 1), TBDL_OK);
    }
    ASSERT_EQ(AddMemb(5, 1, 0, 1), TBDL_OK);
    Mark();
    TBDL_BND_RefreshBnd();
    EXPECT_EQ(g_trace, (Trace{"HA1", "HAF", "K7c0002", "HA1", "HAF", "K7c0002"}));
    auto calls = fake::CallsOf("CIOCTL");
    TBDL_KBND_S k2, k9;
    memcpy(&k2, calls.at(0).data.data(), sizeof(k2));
    memcpy(&k9, calls.at(1).data.data(), sizeof(k9));
    EXPECT_EQ(k2.uiIfIndex, g_stTbdlGlobalVar.ppstBnd[2]->uiIfIndex);
    EXPECT_EQ(k9.uiIfIndex, g_stTbdlGlobalVar.ppstBnd[9]->uiIfIndex);

    ASSERT_EQ(AddMemb(2, 2, 0, 1), TBDL_OK);
    ASSERT_EQ(AddMemb(9, 3, 0, 1), TBDL_OK);
    Mark();
    TBDL_BND_RefreshBnd();
    EXPECT_TRUE(g_trace.empty());
}

TEST_F(BndMemb, ClearRunningEmptiesTableSilently)
{
    Init();
    ASSERT_EQ(Create(1, 1), TBDL_OK);
    ASSERT_EQ(Create(2, 2), TBDL_OK);
    ASSERT_EQ(AddMemb(1, 1), TBDL_OK);
    ASSERT_EQ(AddMemb(2, 2, 1), TBDL_OK);
    g_stTbdlGlobalVar.cVrfMark = 7;
    Mark();
    TBDL_BND_ClearRunning();
    EXPECT_TRUE(g_trace.empty());
    EXPECT_EQ(g_stTbdlGlobalVar.uiBndCnt, 0u);
    EXPECT_EQ(g_stTbdlGlobalVar.cVrfMark, 7);
    TBDL_BND_INFO_S info{};
    EXPECT_EQ(TBDL_BND_GetFirstBndInfo(&info), TBDL_E_NOTEXIST);
}

} // namespace
