/* Member events, the member list, VRF events with the batch sweep, refresh and clearing. */
#include "bnd_fixture.h"

using namespace bndtest;

namespace {

class BndMemb : public BndTest {};

Trace Join(Trace a, const Trace &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST_F(BndMemb, AdmissionByModeRoleAndLimit)
{
    /* One token per addition: the member's role, then '+' admitted, 'r' refused
     * for its role (0x65140009), 'f' refused as full (0x65140008). */
    const char *prot = "1+ 1r 0+ 0f 2f";
    const struct { const char *what; u16 mode; u32 limit; std::string steps; } rows[] = {
        {"load balancing: role 0 only, eight members", 1, 8, "1r 0+ 0+ 0+ 0+ 0+ 0+ 0+ 1r 0+ 0f 1f"},
        {"one-to-one: a pair of different roles", 2, 8, prot},
        {"one-plus-one", 4, 8, prot},
        {"protection ignores the balancing limit", 2, 1, prot},
        {"a full balancing bundle falls back to the pair rule", 1, 1, "1r 0+ 0r 1+ 0f"},
    };
    u32 tnl = 1;
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        Init(1, 1, 1, 1024, r.limit);
        ASSERT_EQ(Create(0, r.mode), TBDL_OK);
        fake::ClearJournal();
        size_t admitted = 0;
        for (size_t i = 0; i < r.steps.size(); i += 3) {
            char res = r.steps[i + 1];
            AddMemb(0, tnl++, u8(r.steps[i] - '0'), 0, 1, 0,
                    res == '+' ? TBDL_OK : res == 'r' ? TBDL_E_MEMB_ROLE : TBDL_E_MEMB_FULL);
            admitted += res == '+';
        }
        EXPECT_EQ(Members(0).size(), admitted);
        EXPECT_EQ(fake::CountOf("CIOCTL"), admitted) << "refused members send nothing";
    }
}

TEST_F(BndMemb, TunnelModeMustMatch)
{
    Init();
    ASSERT_EQ(Create(0, 1, 2), TBDL_OK);
    Mark();
    AddMemb(0, 1, 0, 1, 1, 3, TBDL_E_TNL_MODE_MISMATCH);
    EXPECT_TRUE(g_trace.empty());
    AddMemb(0, 2, 0, 1, 1, 0x102); /* only the low byte counts */
    /* An interface without a tunnel mode never matches a mode-0 bundle. */
    ASSERT_EQ(Create(1, 1, 0), TBDL_OK);
    EXPECT_EQ(MembEv(1, TBDL_MEMB_EV_ADD, 0x7777, 1), TBDL_E_TNL_MODE_MISMATCH);
}

/* The bundle is up while one of its members is up; each change of that state is pushed, the HA message ahead of the
 * KTBDL command, and a removed member's bundle state ahead of its deletion. Member commands go to KTBDL first and to
 * the standby only when KTBDL took them. */
TEST_F(BndMemb, MemberEventsAndTheirPushes)
{
    Init();
    ASSERT_EQ(Create(4, 1), TBDL_OK);
    const u32 m[4] = {0, fake::AddTunnel(1), fake::AddTunnel(2), fake::AddTunnel(3)};
    const Trace add = {"K7c0003", "HA2", "HAF"}, del = {"K7c0004", "HA3", "HAF"}, bnd = {"HA1", "HAF", "K7c0002"};
    /* Event, member, its state, whether KTBDL refuses, result, pushes, bundle state afterwards. */
    const struct { const char *what; u32 ev; int memb; u8 state; bool kFail; u32 res; Trace trace; u8 bnd; } steps[] = {
        {"up member to a down bundle", TBDL_MEMB_EV_ADD, 1, 1, false, TBDL_OK, Join(add, bnd), 1},
        {"second up member", TBDL_MEMB_EV_ADD, 2, 1, false, TBDL_OK, add, 1},
        {"down member to an up bundle", TBDL_MEMB_EV_ADD, 3, 0, false, TBDL_OK, add, 1},
        {"one of two up members goes down", TBDL_MEMB_EV_DOWN, 1, 0, false, TBDL_OK, {}, 1},
        {"the last up member goes down", TBDL_MEMB_EV_DOWN, 2, 0, false, TBDL_OK, bnd, 0},
        {"down again", TBDL_MEMB_EV_DOWN, 2, 0, false, TBDL_OK, {}, 0},
        {"a member comes up", TBDL_MEMB_EV_UP, 3, 1, false, TBDL_OK, bnd, 1},
        {"removing the only up member", TBDL_MEMB_EV_DEL, 3, 0, false, TBDL_OK, Join(bnd, del), 0},
        {"not a member any more", TBDL_MEMB_EV_DEL, 3, 0, false, TBDL_E_NOTEXIST, {}, 0},
        {"removing a down member", TBDL_MEMB_EV_DEL, 1, 0, false, TBDL_OK, del, 0},
        {"KTBDL refuses a removal", TBDL_MEMB_EV_DEL, 2, 0, true, TBDL_OK, {"K7c0004"}, 0},
        {"KTBDL refuses an addition: member kept", TBDL_MEMB_EV_ADD, 2, 0, true, TBDL_OK, {"K7c0003"}, 0},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.what);
        Mark();
        size_t logs = fake::LogLines().size();
        if (s.kFail) {
            fake::FailOnce("CIOCTL", 1);
        }
        EXPECT_EQ(MembEv(4, s.ev, m[s.memb], s.state), s.res);
        EXPECT_EQ(g_trace, s.trace);
        EXPECT_EQ(Snap(4).ucState, s.bnd);
        if (std::count(s.trace.begin(), s.trace.end(), "HA1") != 0) {
            EXPECT_EQ(LastKbnd().uiState, s.bnd);
        }
        if (s.kFail) {
            EXPECT_EQ(fake::LogLines().size(), logs) << "nothing reported";
        }
    }
    ASSERT_EQ(Members(4).size(), 1u);

    /* Both member commands carry {bundle, member}, the same bytes to KTBDL and the standby. */
    const u32 bndIf = g_stTbdlGlobalVar.ppstBnd[4]->uiIfIndex;
    for (u32 ev : {TBDL_MEMB_EV_DEL, TBDL_MEMB_EV_ADD}) {
        Mark();
        ASSERT_EQ(MembEv(4, ev, m[2], 0), TBDL_OK);
        EXPECT_EQ(fake::CallsOf("CIOCTL").back().data, Host(TBDL_KMEMB_S{bndIf, m[2]}));
        EXPECT_EQ(g_haPayloads.back(), Host(TBDL_KMEMB_S{bndIf, m[2]}));
    }
    EXPECT_TRUE(Logged("EVENT Notified KTBDL to delete the member interface " + std::to_string(m[2]) +
                       " from the tunnel bundle interface " + std::to_string(bndIf) + ".\r\n"));
    EXPECT_TRUE(Logged("EVENT Notified KTBDL to add the member interface " + std::to_string(m[2]) +
                       " to the tunnel bundle interface " + std::to_string(bndIf) + ".\r\n"));
}

TEST_F(BndMemb, WeightChange)
{
    Init();
    ASSERT_EQ(Create(4, 1), TBDL_OK);
    ASSERT_EQ(Create(5, 2), TBDL_OK);
    const u32 lb = AddMemb(4, 1, 0, 1, 5), prot = AddMemb(5, 2, 0, 1, 5);
    const struct { const char *what; u32 num, ifIndex; u8 role; u16 weight; u32 expect; u16 stored; } rows[] = {
        {"same weight", 4, lb, 0, 5, TBDL_E_NOCHANGE, 5},
        {"other role", 4, lb, 1, 9, TBDL_E_MEMB_ROLE, 5},
        {"protection bundle", 5, prot, 0, 9, TBDL_E_NOCHANGE, 5},
        {"not a member", 4, 0x999, 0, 9, TBDL_E_FAILED, 5},
        {"new weight", 4, lb, 0, 9, TBDL_OK, 9},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        Mark();
        EXPECT_EQ(MembEv(r.num, TBDL_MEMB_EV_WEIGHT, r.ifIndex, 0, r.weight, r.role), r.expect);
        /* The state is not taken from a weight change; nothing is pushed. */
        auto m = Members(r.num).at(0);
        EXPECT_EQ(std::make_tuple(m.usWeight, m.ucState, g_trace), std::make_tuple(r.stored, u8(1), Trace{}));
    }
}

/* Snapshots list members newest first; the list stays whole after removals
 * in the middle, at the head and at the tail. */
TEST_F(BndMemb, SnapshotAndMemberList)
{
    Init();
    ASSERT_EQ(Create(5, 1, 3), TBDL_OK);
    TBDL_BND_INFO_S info{};
    info.usMembNum = 0xBEEF;
    ASSERT_EQ(TBDL_BND_GetBndInfo(5, &info), TBDL_OK);
    EXPECT_EQ(info.usMembNum, 0xBEEF) << "the count is written only with a member array";
    EXPECT_EQ(info.ucTnlMode, 3);
    std::vector<u32> idx(5);
    for (u32 i = 0; i < 5; i++) {
        idx[i] = AddMemb(5, i + 1, 0, i % 2, u16(10 + i), 3);
    }
    auto m = Members(5);
    ASSERT_EQ(m.size(), 5u);
    for (u32 i = 0; i < 5; i++) {
        EXPECT_EQ(std::make_tuple(m[i].uiIfIndex, m[i].usWeight, m[i].ucState),
                  std::make_tuple(idx[4 - i], u16(14 - i), u8((4 - i) % 2)));
    }
    /* Every node stays reachable through its back link. */
    auto check = [](std::vector<u32> expect) {
        std::vector<u32> got;
        for (TBDL_MEMB_S *const *pp = &g_stTbdlGlobalVar.ppstBnd[5]->pstMembList; *pp; pp = &(*pp)->pstNext) {
            EXPECT_EQ((*pp)->ppstPrev, pp);
            got.push_back((*pp)->uiIfIndex);
        }
        EXPECT_EQ(got, expect);
    };
    for (u32 gone : {idx[2], idx[4], idx[0]}) {
        ASSERT_EQ(MembEv(5, TBDL_MEMB_EV_DEL, gone), TBDL_OK);
    }
    check({idx[3], idx[1]});
    ASSERT_EQ(MembEv(5, TBDL_MEMB_EV_DEL, idx[3]), TBDL_OK);
    check({idx[1]});
}

/* A batch start moves the mark; its end drops the VRF of the bundles that saw no VRF event meanwhile, silently and
 * keeping their members. A real VRF change flushes the members and pushes the down bundle with its new VRF. */
TEST_F(BndMemb, VrfEventsAndTheBatchSweep)
{
    Init(1, 1, 1, 16);
    for (u32 n : {1u, 2u, 3u}) {
        ASSERT_EQ(Create(n, 1), TBDL_OK);
    }
    ASSERT_EQ(TBDL_BND_ProcL3vEv(1, TBDL_L3V_EV_VRF_BIND, 5), TBDL_OK);
    ASSERT_EQ(TBDL_BND_ProcL3vEv(2, TBDL_L3V_EV_VRF_BIND, 6), TBDL_OK);
    AddMemb(2, 1);
    AddMemb(2, 2);
    g_stTbdlGlobalVar.cVrfMark = 127; /* the mark wraps */
    Mark();
    EXPECT_EQ(TBDL_BND_ProcL3vEv(0xFFFFFFFF, TBDL_L3V_EV_BATCH_BEGIN, 0), TBDL_OK);
    EXPECT_EQ(g_stTbdlGlobalVar.cVrfMark, -128);
    EXPECT_EQ(TBDL_BND_ProcL3vEv(1, TBDL_L3V_EV_VRF_BIND, 5), TBDL_E_NOCHANGE) << "but marked as seen";
    EXPECT_EQ(TBDL_BND_ProcL3vEv(0xFFFFFFFF, TBDL_L3V_EV_BATCH_END, 0), TBDL_OK);
    for (u32 n : {1u, 2u, 3u}) {
        EXPECT_EQ(std::make_pair(Snap(n).usVrfIndex, g_stTbdlGlobalVar.ppstBnd[n]->cVrfMark),
                  std::make_pair(u16(n == 1 ? 5 : 0), i8(-128)));
    }
    EXPECT_EQ(std::make_pair(Members(2).size(), g_trace), std::make_pair(size_t(2), Trace{}));

    EXPECT_EQ(TBDL_BND_ProcL3vEv(2, TBDL_L3V_EV_VRF_BIND, 33), TBDL_OK);
    EXPECT_EQ(g_trace,
              (Trace{"K7c0004", "HA3", "HAF", "K7c0004", "HA3", "HAF", "HA1", "HAF", "K7c0002", "EV2:2", "DB+2"}));
    TBDL_KBND_S kb = LastKbnd();
    EXPECT_EQ(std::make_pair(kb.uiState, kb.usVrfIndex), std::make_pair(0u, u16(33)));
    EXPECT_EQ(fake::CallsOf("DBM_InsertSortList").at(0).rec.at(29), 33);
    EXPECT_EQ(std::make_pair(Snap(2).usVrfIndex, Members(2).size()), std::make_pair(u16(33), size_t(0)));
    EXPECT_EQ(TBDL_BND_ProcL3vEv(2, TBDL_L3V_EV_VRF_UNBIND, 33), TBDL_OK);
    EXPECT_EQ(Snap(2).usVrfIndex, 0);
    EXPECT_EQ(TBDL_BND_ProcL3vEv(0xFFFFFFFF, 0x1234, 0), TBDL_OK) << "other events ignored";

    /* Unlike member events, VRF events report an invalid number. */
    size_t logs = fake::LogLines().size();
    EXPECT_EQ(MembEv(16, TBDL_MEMB_EV_ADD, 1, 1), TBDL_E_INVALID_BND);
    EXPECT_EQ(fake::LogLines().size(), logs);
    EXPECT_EQ(TBDL_BND_ProcL3vEv(16, TBDL_L3V_EV_VRF_BIND, 1), TBDL_E_INVALID_BND);
    EXPECT_TRUE(Logged("ERROR The tunnel bundle interface number (16) is invalid.\r\n"));
}

TEST_F(BndMemb, RefreshPushesOnlyDownBundlesInOrderAndClearRunningIsSilent)
{
    Init();
    for (u32 n : {9u, 2u, 5u}) {
        ASSERT_EQ(Create(n, 1), TBDL_OK);
    }
    AddMemb(5, 1);
    Mark();
    TBDL_BND_RefreshBnd();
    EXPECT_EQ(g_trace, (Trace{"HA1", "HAF", "K7c0002", "HA1", "HAF", "K7c0002"}));
    auto calls = fake::CallsOf("CIOCTL");
    EXPECT_EQ(std::make_pair(Kbnd(calls.at(0).data).uiIfIndex, Kbnd(calls.at(1).data).uiIfIndex),
              std::make_pair(g_stTbdlGlobalVar.ppstBnd[2]->uiIfIndex, g_stTbdlGlobalVar.ppstBnd[9]->uiIfIndex));

    AddMemb(2, 2);
    AddMemb(9, 3);
    g_stTbdlGlobalVar.cVrfMark = 7;
    Mark();
    TBDL_BND_RefreshBnd();
    TBDL_BND_ClearRunning();
    TBDL_BND_INFO_S info{};
    EXPECT_EQ(std::make_tuple(g_trace, g_stTbdlGlobalVar.uiBndCnt, g_stTbdlGlobalVar.cVrfMark,
                              TBDL_BND_GetFirstBndInfo(&info)),
              std::make_tuple(Trace{}, 0u, i8(7), TBDL_E_NOTEXIST));
}

} // namespace
