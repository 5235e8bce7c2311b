/* Bundle table: limits, snapshots, walks and the member list. */
#include "bnd_fixture.h"

using namespace bndtest;

namespace {

class BndTable : public BndTest {};

TEST_F(BndTable, ModeSwitchesOnlyValueOneEnables)
{
    const struct { u16 lb, one2one, one4one; u8 flags; } rows[] = {
        {1, 1, 1, 7}, {1, 2, 1, 5}, {0, 1, 0, 2}, {2, 2, 2, 0}};
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::Message() << r.lb << r.one2one << r.one4one);
        Init(r.lb, r.one2one, r.one4one, 16, 4);
        EXPECT_EQ(g_stTbdlGlobalVar.ucModeFlags, r.flags);
        TBDL_SPEC_S out{};
        TBDL_BND_GetSpec(&out);
        EXPECT_EQ(std::vector<u32>({out.uiMaxBndNum, out.uiMaxMembNum, out.usLoadBalancing, out.usProtectionOnetoone,
                                    out.usProtectionOneplusone}),
                  std::vector<u32>({16, 4, r.flags & 1u, (r.flags >> 1) & 1u, (r.flags >> 2) & 1u}));
    }
}

/* A table without slots, or whose allocation failed, answers every query and ignores refresh and clearing. */
TEST_F(BndTable, EmptyTableAnswersNotExistAndInvalid)
{
    for (int allocFails = 0; allocFails < 2; allocFails++) {
        SCOPED_TRACE(allocFails);
        TBDL_BND_Fini();
        TBDL_SPEC_S s{allocFails ? 1024u : 0u, 8, 1, 1, 1};
        TBDL_BAS_SetAllocFault(0, allocFails);
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
    }
}

/* The walk's order is shown by display paging; here its ends. */
TEST_F(BndTable, WalkEndsQuietlyAtTheLastSlot)
{
    Init();
    ASSERT_EQ(Create(1023, 1), TBDL_OK);
    TBDL_BND_INFO_S info{};
    /* The last slot ends the walk quietly; a number past it is an error. */
    size_t logs = fake::LogLines().size();
    EXPECT_EQ(TBDL_BND_GetNextBndInfo(1023, &info), TBDL_E_NOTEXIST);
    EXPECT_EQ(fake::LogLines().size(), logs);
    EXPECT_EQ(TBDL_BND_GetNextBndInfo(1024, &info), TBDL_E_INVALID_BND);
    EXPECT_TRUE(Logged("ERROR The tunnel bundle interface number (1024) is invalid.\r\n"));
    EXPECT_EQ(TBDL_BND_GetBndInfo(8, &info), TBDL_E_NOTEXIST);
}

/* Snapshots list members newest first; the list stays whole after removals
 * in the middle, at the head and at the tail. */
TEST_F(BndTable, SnapshotAndMemberList)
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

} // namespace
