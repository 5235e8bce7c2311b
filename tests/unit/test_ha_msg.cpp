/* HA backup messages: TLV encoding, packing into MTU-sized sends, the batch
 * backup and the standby's application of received messages. */
#include "bnd_fixture.h"
#include "ha/tbdl_ha_priv.h"

using namespace bndtest;

namespace {

using Tlv = std::pair<u16, Bytes>; /* type, value */

/* Splits a message into TLVs; fails the test when it does not end on a complete TLV. */
std::vector<Tlv> ParseTlvs(const Bytes &msg)
{
    std::vector<Tlv> vec;
    size_t off = 0;
    for (size_t len = 0; off + 4 <= msg.size(); off += 4 + len) {
        len = msg[off + 2] << 8 | msg[off + 3];
        auto end = msg.begin() + std::min(off + 4 + len, msg.size());
        vec.push_back({u16(msg[off] << 8 | msg[off + 1]), Bytes(msg.begin() + off + 4, end)});
    }
    EXPECT_EQ(off, msg.size()) << "message ends inside a TLV";
    return vec;
}

const TBDL_ADDR_S kAddr = {2, {0xAB, 0xCD}, {10, 1, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xEE}};
const TBDL_KBND_S kSampleBnd = {kAddr, 0x01020304, 5, 1, 0x0A0B, 0x1234};
/* Wire form of kSampleBnd as a TLV of type 1: family, ifindex, tunnel mode, state and VRF in network
 * order, the other address bytes as they are, the last two bytes zero. */
const Bytes kGoldenBnd = Cat({{0, 1, 0, 36, 0, 2, 0xAB, 0xCD, 10, 1, 2, 3}, Bytes(11, 0), {0xEE}, Be32(0x01020304),
                              Be32(5), Be32(1), {0x0A, 0x0B, 0, 0}});

class HaMsgTest : public BndTest {
protected:
    void SetUp() override
    {
        BndTest::SetUp();
        Init();
        TBDL_BAS_DeregHAFunc(); /* the real hooks come from TBDL_HA_Init */
        ASSERT_EQ(TBDL_HA_Init(epfd), 0u);
    }
    void TearDown() override
    {
        TBDL_HA_Fini();
        BndTest::TearDown();
    }
    void Reinit(u32 mtu)
    {
        TBDL_HA_Fini();
        fake::Config().haMtu = mtu;
        ASSERT_EQ(TBDL_HA_Init(epfd), 0u);
    }
    static Bytes Buffer() { return Bytes(g_stTbdlHaVar.pucMsgBuf, g_stTbdlHaVar.pucMsgBuf + g_stTbdlHaVar.usMsgLen); }

    /* Bundle n in load balancing with n % 4 up members, as TLVs of a batch. */
    static std::vector<Tlv> MakeBnd(u32 num)
    {
        EXPECT_EQ(Create(num, TBDL_MODE_LOADBALANCING), TBDL_OK);
        u32 bndIf = g_stTbdlGlobalVar.ppstBnd[num]->uiIfIndex;
        std::vector<Tlv> tlvs = {{1, Cat({Bytes(20, 0), Be32(bndIf), Be32(0), Be32(num % 4 != 0), Bytes(4, 0)})}};
        for (u32 i = 0; i < num % 4; i++) {
            u32 membIf = AddMemb(num, num * 100 + i);
            tlvs.insert(tlvs.begin() + 1, {2, Cat({Be32(bndIf), Be32(membIf)})}); /* newest first */
        }
        return tlvs;
    }
};

TEST_F(HaMsgTest, GoldenBytesOfTheThreeMessageTypes)
{
    TBDL_KMEMB_S add = {0x1000, 0x100}, del = {0x1001, 0x2A0B};
    ASSERT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_BND_UPDATE, &kSampleBnd), 0u);
    ASSERT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_MEMB_ADD, &add), 0u);
    ASSERT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_MEMB_DEL, &del), 0u);
    Bytes golden = Cat({kGoldenBnd, {0, 2, 0, 8}, Be32(0x1000), Be32(0x100), {0, 3, 0, 8}, Be32(0x1001), Be32(0x2A0B)});
    EXPECT_EQ(Buffer(), golden);
    EXPECT_TRUE(fake::HaSentMessages().empty());

    EXPECT_EQ(tbdl_ha_SendMsg(0), 0u);
    ASSERT_EQ(fake::HaSentMessages().size(), 1u);
    EXPECT_EQ(fake::HaSentMessages()[0].msg, golden);
    EXPECT_EQ(fake::HaSentMessages()[0].flag, 1u) << "real-time send";
    EXPECT_EQ(fake::LogLines(), std::vector<std::string>{"EVENT Sent an HA message (Type 1).\r\n"});
    EXPECT_EQ(g_stTbdlHaVar.usMsgLen, 0);

    EXPECT_EQ(tbdl_ha_SendMsg(1), 0u) << "an empty buffer sends and logs nothing";
    EXPECT_EQ(fake::HaSentMessages().size(), 1u);
    EXPECT_EQ(fake::LogLines().size(), 1u);
}

TEST_F(HaMsgTest, OnlyTheMasterEncodesAndOnlyTypesOneToThree)
{
    fake::Config().master = false;
    EXPECT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_BND_UPDATE, &kSampleBnd), 0u);
    EXPECT_EQ(tbdl_ha_EncMsg(4, &kSampleBnd), 0u) << "the role is checked before the type";
    EXPECT_EQ(g_stTbdlHaVar.usMsgLen, 0);
    EXPECT_TRUE(fake::LogLines().empty());

    fake::Config().master = true;
    EXPECT_EQ(tbdl_ha_EncMsg(0, &kSampleBnd), TBDL_E_FAILED);
    EXPECT_EQ(tbdl_ha_EncMsg(4, &kSampleBnd), TBDL_E_FAILED);
    EXPECT_EQ(std::make_pair(g_stTbdlHaVar.usMsgLen, fake::LogLines()),
              std::make_pair(u16(0), std::vector<std::string>(2, "ERROR Invalid HA message type.\r\n")));
}

TEST_F(HaMsgTest, MessageThatDoesNotFitSendsTheBufferFirst)
{
    Reinit(50);
    TBDL_KMEMB_S add = {0x1000, 0x100};
    ASSERT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_BND_UPDATE, &kSampleBnd), 0u);
    ASSERT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_MEMB_ADD, &add), 0u);
    ASSERT_EQ(fake::HaSentMessages().size(), 1u);
    EXPECT_EQ(std::make_tuple(fake::HaSentMessages()[0].msg, fake::HaSentMessages()[0].flag, g_stTbdlHaVar.usMsgLen),
              std::make_tuple(kGoldenBnd, 1u, u16(12)));
}

/* The batch sends every bundle in ascending number, each update followed by
 * its members' additions, packed into as few sends as the MTU allows. */
TEST_F(HaMsgTest, BatchBackupPacksBundlesAndMembersIntoFullSends)
{
    const u32 mtu = 200;
    Reinit(mtu);
    std::vector<Tlv> expect;
    for (u32 n : {3u, 7u, 11u, 12u, 20u, 33u, 34u, 40u}) { /* sends after a member of 11 and before 34 */
        auto tlvs = MakeBnd(n);
        expect.insert(expect.end(), tlvs.begin(), tlvs.end());
    }
    fake::Config().master = false; /* the batch does not depend on the role or standby tests */
    fake::ClearJournal();
    EXPECT_EQ(tbdl_ha_BatchBackup(), 0u);

    const auto &sent = fake::HaSentMessages();
    ASSERT_GE(sent.size(), 3u);
    std::vector<Tlv> got;
    for (size_t i = 0; i < sent.size(); i++) {
        SCOPED_TRACE("send " + std::to_string(i));
        EXPECT_EQ(sent[i].flag, 0u);
        EXPECT_LE(sent[i].msg.size(), mtu);
        auto tlvs = ParseTlvs(sent[i].msg);
        got.insert(got.end(), tlvs.begin(), tlvs.end());
        if (i + 1 < sent.size()) {
            /* Sent only because the next TLV did not fit. */
            EXPECT_GT(sent[i].msg.size() + 4 + ParseTlvs(sent[i + 1].msg).at(0).second.size(), mtu);
        }
    }
    EXPECT_EQ(got, expect);
    EXPECT_EQ(g_stTbdlHaVar.usMsgLen, 0);
}

TEST_F(HaMsgTest, StandbyAppliesEachKnownTlvToItsKernel)
{
    Bytes msg(kGoldenBnd.begin(), kGoldenBnd.begin() + 4 + 22);
    msg[3] = 22; /* a bundle update cut to 22 bytes */
    msg = Cat({msg,
               {0x00, 0x09, 0x00, 0x02, 0xFF, 0xFF},             /* unknown type: skipped */
               {0x00, 0x02, 0x00, 0x04, 0x00, 0x00, 0x10, 0x00}, /* member add, 4 bytes */
               {0x00, 0x03, 0x00, 0x0C},                         /* member delete, 12 bytes */
               Be32(0x1000), Be32(0x100), Be32(0xDEADBEEF),
               {0x00, 0x02, 0x00}}); /* trailing partial header */
    fake::HaPushMessage(msg, 0);
    Mark();
    Pump();

    EXPECT_EQ(g_trace, (Trace{"K7c0002", "K7c0003", "K7c0004"}));
    std::vector<Bytes> k;
    for (const fake::Call &c : fake::CallsOf("CIOCTL")) {
        k.push_back(c.data);
    }
    /* Two bytes of the bundle's index arrived, the rest is zero; the member
     * index is zero-padded; a longer value is cut to 8 bytes. */
    const TBDL_KBND_S bnd = {kAddr, 0x01020000, 0, 0, 0, 0};
    EXPECT_EQ(k, (std::vector<Bytes>{Host(bnd), Host(TBDL_KMEMB_S{0x1000, 0}),
                                     Host(TBDL_KMEMB_S{0x1000, 0x100})}));

    EXPECT_EQ(fake::LogLines(), std::vector<std::string>{"EVENT Received an HA message (Type 0).\r\n"});
    EXPECT_EQ(fake::CountOf("HA_FreeMsg"), 1u);
    TBDL_BND_INFO_S info{};
    EXPECT_EQ(TBDL_BND_GetFirstBndInfo(&info), TBDL_E_NOTEXIST) << "bundle table untouched";
}

TEST_F(HaMsgTest, StandbyKernelGetsWhatTheMasterKernelGot)
{
    /* A payload with non-zero trailing bytes: only those differ. */
    ASSERT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_BND_UPDATE, &kSampleBnd), 0u);
    ASSERT_EQ(tbdl_ha_SendMsg(0), 0u);
    /* And one from the bundle table itself: its kernel push and HA mirror. */
    fake::Config().slavePresent = true;
    MakeBnd(1);
    const fake::Call up = fake::CallsOf("CIOCTL").back(); /* the bundle went up */
    ASSERT_EQ(up.args.at(1), TBDL_KCMD_BND_UPDATE);
    const auto sent = fake::HaSentMessages();
    ASSERT_GE(sent.size(), 3u);

    fake::ClearJournal();
    fake::HaPushMessage(sent[0].msg, sent[0].flag);
    fake::HaPushMessage(sent.back().msg, sent.back().flag);
    Pump();
    auto k = fake::CallsOf("CIOCTL");
    ASSERT_EQ(k.size(), 2u);
    Bytes want = Host(kSampleBnd);
    want[34] = want[35] = 0;
    EXPECT_EQ(k[0].data, want);
    EXPECT_EQ(k[1].data, up.data);
}

} // namespace
