/* Bundle table: snapshots and the member list. */
#include "bnd_fixture.h"

using namespace bndtest;

namespace {

class BndTable : public BndTest {};

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
