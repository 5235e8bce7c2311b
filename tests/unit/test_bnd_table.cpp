/* Bundle table: limits, snapshots, walks and the member list. */
#include "bnd_fixture.h"

using namespace bndtest;

namespace {

struct ModeRow {
    u16 lb, one2one, one4one;
    u8 flags;
};

class BndTable : public BndTest {};

TEST_F(BndTable, ModeSwitchesOnlyValueOneEnables)
{
    const ModeRow rows[] = {
        {1, 1, 1, 7}, {1, 2, 1, 5}, {0, 1, 0, 2}, {2, 2, 2, 0},
    };
    for (const ModeRow &r : rows) {
        SCOPED_TRACE(testing::Message() << r.lb << r.one2one << r.one4one);
        Init(r.lb, r.one2one, r.one4one, 16, 4);
        EXPECT_EQ(g_stTbdlGlobalVar.ucModeFlags, r.flags);

        TBDL_SPEC_S out{};
        TBDL_BND_GetSpec(&out);
        EXPECT_EQ(out.uiMaxBndNum, 16u);
        EXPECT_EQ(out.uiMaxMembNum, 4u);
        EXPECT_EQ(out.usLoadBalancing, (r.flags & 1) ? 1 : 0);
        EXPECT_EQ(out.usProtectionOnetoone, (r.flags & 2) ? 1 : 0);
        EXPECT_EQ(out.usProtectionOneplusone, (r.flags & 4) ? 1 : 0);
        TBDL_BND_Fini();
    }
    /* Switches whose bit is clear are left as the caller had them. */
    Init(1, 0, 0);
    TBDL_SPEC_S stale{0, 0, 0, 1, 1};
    TBDL_BND_GetSpec(&stale);
    EXPECT_EQ(stale.usProtectionOnetoone, 1);
}

TEST_F(BndTable, EmptyTableAnswersNotExistAndInvalid)
{
    for (int allocFails = 0; allocFails < 2; allocFails++) {
        SCOPED_TRACE(allocFails);
        TBDL_SPEC_S s{allocFails ? 1024u : 0u, 8, 1, 1, 1};
        TBDL_BAS_SetAllocFault(0, allocFails ? 1 : 0);
        EXPECT_EQ(TBDL_BND_Init(&s, BndEv, epfd), allocFails ? TBDL_E_NOMEM : TBDL_OK);
        TBDL_BAS_SetAllocFault(0, 0);

        TBDL_BND_INFO_S info{};
        EXPECT_EQ(TBDL_BND_GetFirstBndInfo(&info), TBDL_E_NOTEXIST);
        EXPECT_EQ(TBDL_BND_GetBndInfo(0, &info), TBDL_E_INVALID_BND);
        EXPECT_EQ(TBDL_BND_GetNextBndInfo(0, &info), TBDL_E_INVALID_BND);
        EXPECT_EQ(Create(0, 1), TBDL_E_INVALID_BND);
        TBDL_BND_RefreshBnd();
        TBDL_BND_ClearRunning();
        EXPECT_EQ(fake::CountOf("CIOCTL"), 0u);
        TBDL_BND_Fini();
    }
}

TEST_F(BndTable, WalkVisitsBundlesInAscendingOrder)
{
    Init();
    for (u32 n : {1023u, 7u, 3u}) {
        ASSERT_EQ(Create(n, 1), TBDL_OK);
    }
    std::vector<u32> seen;
    TBDL_BND_INFO_S info{};
    for (u32 r = TBDL_BND_GetFirstBndInfo(&info); r == TBDL_OK; r = TBDL_BND_GetNextBndInfo(info.uiBndNum, &info)) {
        seen.push_back(info.uiBndNum);
    }
    EXPECT_EQ(seen, (std::vector<u32>{3, 7, 1023}));

    /* The last slot ends the walk quietly; a number past it is an error. */
    size_t before = fake::LogLines().size();
    EXPECT_EQ(TBDL_BND_GetNextBndInfo(1023, &info), TBDL_E_NOTEXIST);
    EXPECT_EQ(fake::LogLines().size(), before);
    EXPECT_EQ(TBDL_BND_GetNextBndInfo(1024, &info), TBDL_E_INVALID_BND);
    EXPECT_TRUE(Logged("ERROR The tunnel bundle interface number (1024) is invalid.\r\n"));
    EXPECT_EQ(TBDL_BND_GetBndInfo(8, &info), TBDL_E_NOTEXIST);
}

TEST_F(BndTable, SnapshotCopiesRecordAndMembersNewestFirst)
{
    Init();
    ASSERT_EQ(Create(5, 1, 3), TBDL_OK);

    TBDL_BND_INFO_S info{};
    info.usMembNum = 0xBEEF;
    ASSERT_EQ(TBDL_BND_GetBndInfo(5, &info), TBDL_OK);
    EXPECT_EQ(info.usMembNum, 0xBEEF) << "no member array: count untouched";
    EXPECT_EQ(info.ucMode, 1);
    EXPECT_EQ(info.ucTnlMode, 3);
    EXPECT_NE(info.uiIfIndex, 0u);

    std::vector<TBDL_MEMB_INFO_S> m;
    EXPECT_EQ(Snap(5, &m).usMembNum, 0);

    u32 a, b, c;
    ASSERT_EQ(AddMemb(5, 1, 0, 1, 10, 3, &a), TBDL_OK);
    ASSERT_EQ(AddMemb(5, 2, 0, 0, 20, 3, &b), TBDL_OK);
    ASSERT_EQ(AddMemb(5, 3, 0, 1, 30, 3, &c), TBDL_OK);
    info = Snap(5, &m);
    ASSERT_EQ(m.size(), 3u);
    EXPECT_EQ(m[0].uiIfIndex, c);
    EXPECT_EQ(m[0].usWeight, 30);
    EXPECT_EQ(m[1].uiIfIndex, b);
    EXPECT_EQ(m[1].ucState, 0);
    EXPECT_EQ(m[2].uiIfIndex, a);
    EXPECT_EQ(info.ucState, 1);
}

/* Every node is reachable through its back link after removals at the head,
 * in the middle and at the tail. */
TEST_F(BndTable, MemberListStaysLinkedAfterRemovals)
{
    Init();
    ASSERT_EQ(Create(2, 1), TBDL_OK);
    std::vector<u32> idx(5);
    for (u32 i = 0; i < 5; i++) {
        ASSERT_EQ(AddMemb(2, i + 1, 0, 1, 1, 0, &idx[i]), TBDL_OK);
    }
    auto check = [](std::vector<u32> expect) {
        const TBDL_BND_S *bnd = g_stTbdlGlobalVar.ppstBnd[2];
        std::vector<u32> got;
        for (TBDL_MEMB_S *const *pp = &bnd->pstMembList; *pp != nullptr; pp = &(*pp)->pstNext) {
            EXPECT_EQ((*pp)->ppstPrev, pp);
            got.push_back((*pp)->uiIfIndex);
        }
        EXPECT_EQ(got, expect);
    };
    for (u32 gone : {idx[2], idx[4], idx[0]}) {
        TBDL_MEMB_INFO_S m{gone, 0, 0, 0};
        ASSERT_EQ(TBDL_BND_ProcMembEv(2, TBDL_MEMB_EV_DEL, &m), TBDL_OK);
    }
    check({idx[3], idx[1]});
    TBDL_MEMB_INFO_S m{idx[3], 0, 0, 0};
    ASSERT_EQ(TBDL_BND_ProcMembEv(2, TBDL_MEMB_EV_DEL, &m), TBDL_OK);
    check({idx[1]});
}

} // namespace
