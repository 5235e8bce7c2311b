/* HA backup messages: TLV encoding, packing into MTU-sized sends, the batch
 * backup and the standby's application of received messages. */
#include <sys/epoll.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_platform.h"
#include "ha/tbdl_ha_priv.h"
#include "tbdl_bas.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"
#include "tbdl_intf.h"

namespace {

using fake::Bytes;

struct Tlv {
    u16 usType;
    Bytes value;
    bool operator==(const Tlv &o) const { return usType == o.usType && value == o.value; }
};

/* Splits a message into TLVs; fails the test when it does not end on a
 * complete TLV. */
std::vector<Tlv> ParseTlvs(const Bytes &msg)
{
    std::vector<Tlv> vec;
    size_t off = 0;
    while (off < msg.size()) {
        EXPECT_GE(msg.size() - off, 4u) << "message ends inside a TLV header";
        if (msg.size() - off < 4) {
            break;
        }
        u16 usType = static_cast<u16>(msg[off] << 8 | msg[off + 1]);
        u16 usLen = static_cast<u16>(msg[off + 2] << 8 | msg[off + 3]);
        EXPECT_LE(off + 4 + usLen, msg.size()) << "message ends inside a TLV value";
        if (off + 4 + usLen > msg.size()) {
            break;
        }
        vec.push_back({usType, Bytes(msg.begin() + off + 4, msg.begin() + off + 4 + usLen)});
        off += 4 + usLen;
    }
    return vec;
}

Bytes Be32(u32 ui)
{
    return {static_cast<uint8_t>(ui >> 24), static_cast<uint8_t>(ui >> 16),
            static_cast<uint8_t>(ui >> 8), static_cast<uint8_t>(ui)};
}

Bytes Cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const auto &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

Bytes BytesOf(const void *pv, size_t len)
{
    const auto *p = static_cast<const uint8_t *>(pv);
    return Bytes(p, p + len);
}

TBDL_KBND_S SampleBnd()
{
    TBDL_KBND_S st;
    std::memset(&st, 0, sizeof(st));
    st.stAddr.usFamily = 2;
    st.stAddr.aucCarried[0] = 0xAB;
    st.stAddr.aucCarried[1] = 0xCD;
    st.stAddr.aucAddr[0] = 10;
    st.stAddr.aucAddr[1] = 1;
    st.stAddr.aucAddr[2] = 2;
    st.stAddr.aucAddr[3] = 3;
    st.stAddr.aucAddr[15] = 0xEE;
    st.uiIfIndex = 0x01020304;
    st.uiTnlMode = 5;
    st.uiState = 1;
    st.usVrfIndex = 0x0A0B;
    st.usResv = 0x1234;
    return st;
}

/* Wire form of SampleBnd() as a TLV of type 1. */
const Bytes kGoldenBnd = {
    0x00, 0x01, 0x00, 0x24,                         /* type 1, length 36 */
    0x00, 0x02, 0xAB, 0xCD,                         /* family (network), carried bytes */
    0x0A, 0x01, 0x02, 0x03, 0x00, 0x00, 0x00, 0x00, /* address bytes as they are */
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xEE, /* */
    0x01, 0x02, 0x03, 0x04,                         /* ifindex */
    0x00, 0x00, 0x00, 0x05,                         /* tunnel mode */
    0x00, 0x00, 0x00, 0x01,                         /* state */
    0x0A, 0x0B, 0x00, 0x00,                         /* VRF, zero */
};

class HaMsgTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        ASSERT_EQ(TBDL_DBG_Init(), 0u);
        g_stTbdlLogVar.uiDebugSwitch = 3;
        m_iEpfd = epoll_create1(EPOLL_CLOEXEC);
        ASSERT_GE(m_iEpfd, 0);
        TBDL_SPEC_S stSpec = {1024, 8, 1, 1, 1};
        ASSERT_EQ(TBDL_BND_Init(&stSpec, nullptr, m_iEpfd), 0u);
        ASSERT_EQ(TBDL_HA_Init(m_iEpfd), 0u);
    }

    void TearDown() override
    {
        TBDL_BND_ClearRunning();
        TBDL_BND_Fini();
        TBDL_HA_Fini();
        TBDL_DBG_Fini();
        close(m_iEpfd);
    }

    void Reinit(u32 uiMtu)
    {
        TBDL_HA_Fini();
        fake::Config().haMtu = uiMtu;
        ASSERT_EQ(TBDL_HA_Init(m_iEpfd), 0u);
    }

    void Pump()
    {
        struct epoll_event stEv;
        int n = epoll_wait(m_iEpfd, &stEv, 1, 5000);
        ASSERT_EQ(n, 1) << "no event on the loop within the deadline";
        TBDL_BAS_EpollDispatch(&stEv);
    }

    static Bytes Buffer() { return BytesOf(g_stTbdlHaVar.pucMsgBuf, g_stTbdlHaVar.usMsgLen); }

    static std::vector<std::string> Logs() { return fake::LogLines(); }

    /* Bundle n in load balancing with the given number of up members; returns
     * the bundle's interface index. */
    static u32 MakeBnd(u32 uiBndNum, u32 uiMembers, std::vector<u32> *pvecMembIf = nullptr)
    {
        TBDL_DBM_BND_S stRec;
        std::memset(&stRec, 0, sizeof(stRec));
        stRec.uiBndNum = uiBndNum;
        stRec.ucMode = TBDL_MODE_LOADBALANCING;
        TBDL_INTF_SetSystemBoot(1);
        EXPECT_EQ(TBDL_BND_RecoverBnd(&stRec), 0u);
        TBDL_INTF_SetSystemBoot(0);
        for (u32 i = 0; i < uiMembers; i++) {
            TBDL_MEMB_INFO_S stMemb = {fake::AddTunnel(uiBndNum * 100 + i), 1, 0, 1};
            EXPECT_EQ(TBDL_BND_ProcMembEv(uiBndNum, TBDL_MEMB_EV_ADD, &stMemb), 0u);
            if (pvecMembIf != nullptr) {
                pvecMembIf->insert(pvecMembIf->begin(), stMemb.uiIfIndex); /* newest first */
            }
        }
        TBDL_BND_INFO_S stInfo;
        std::memset(&stInfo, 0, sizeof(stInfo));
        EXPECT_EQ(TBDL_BND_GetBndInfo(uiBndNum, &stInfo), 0u);
        return stInfo.uiIfIndex;
    }

    int m_iEpfd = -1;
};

TEST_F(HaMsgTest, GoldenBytesOfTheThreeMessageTypes)
{
    TBDL_KBND_S stBnd = SampleBnd();
    TBDL_KMEMB_S stAdd = {0x1000, 0x100};
    TBDL_KMEMB_S stDel = {0x1001, 0x2A0B};
    ASSERT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_BND_UPDATE, &stBnd), 0u);
    ASSERT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_MEMB_ADD, &stAdd), 0u);
    ASSERT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_MEMB_DEL, &stDel), 0u);

    Bytes golden = Cat({kGoldenBnd,
                        {0x00, 0x02, 0x00, 0x08, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x01, 0x00},
                        {0x00, 0x03, 0x00, 0x08, 0x00, 0x00, 0x10, 0x01, 0x00, 0x00, 0x2A, 0x0B}});
    EXPECT_EQ(Buffer(), golden);
    EXPECT_TRUE(fake::HaSentMessages().empty());

    EXPECT_EQ(tbdl_ha_SendMsg(0), 0u);
    ASSERT_EQ(fake::HaSentMessages().size(), 1u);
    EXPECT_EQ(fake::HaSentMessages()[0].msg, golden);
    EXPECT_EQ(fake::HaSentMessages()[0].flag, 1u) << "real-time send";
    EXPECT_EQ(Logs(), std::vector<std::string>{"EVENT Sent an HA message (Type 1).\r\n"});
    EXPECT_EQ(g_stTbdlHaVar.usMsgLen, 0);
    EXPECT_EQ(BytesOf(g_stTbdlHaVar.pucMsgBuf, golden.size()), Bytes(golden.size(), 0))
        << "the sent bytes are cleared";

    /* An empty buffer sends and logs nothing. */
    EXPECT_EQ(tbdl_ha_SendMsg(1), 0u);
    EXPECT_EQ(fake::HaSentMessages().size(), 1u);
    EXPECT_EQ(Logs().size(), 1u);
}

TEST_F(HaMsgTest, OnlyTheMasterEncodesAndOnlyTypesOneToThree)
{
    TBDL_KBND_S stBnd = SampleBnd();

    fake::Config().master = false;
    EXPECT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_BND_UPDATE, &stBnd), 0u);
    EXPECT_EQ(tbdl_ha_EncMsg(4, &stBnd), 0u) << "the role is checked before the type";
    EXPECT_EQ(g_stTbdlHaVar.usMsgLen, 0);
    EXPECT_TRUE(Logs().empty());

    fake::Config().master = true;
    EXPECT_EQ(tbdl_ha_EncMsg(0, &stBnd), TBDL_E_FAILED);
    EXPECT_EQ(tbdl_ha_EncMsg(4, &stBnd), TBDL_E_FAILED);
    EXPECT_EQ(g_stTbdlHaVar.usMsgLen, 0);
    EXPECT_EQ(Logs(), (std::vector<std::string>{"ERROR Invalid HA message type.\r\n",
                                                "ERROR Invalid HA message type.\r\n"}));
}

TEST_F(HaMsgTest, MessageThatDoesNotFitSendsTheBufferFirst)
{
    Reinit(50);
    TBDL_KBND_S stBnd = SampleBnd();
    TBDL_KMEMB_S stAdd = {0x1000, 0x100};
    ASSERT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_BND_UPDATE, &stBnd), 0u);
    ASSERT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_MEMB_ADD, &stAdd), 0u);
    ASSERT_EQ(fake::HaSentMessages().size(), 1u);
    EXPECT_EQ(fake::HaSentMessages()[0].msg, kGoldenBnd);
    EXPECT_EQ(fake::HaSentMessages()[0].flag, 1u);
    EXPECT_EQ(g_stTbdlHaVar.usMsgLen, 12);

    /* A TLV larger than the whole buffer is refused after one send. */
    Reinit(30);
    ASSERT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_MEMB_ADD, &stAdd), 0u);
    EXPECT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_BND_UPDATE, &stBnd), TBDL_E_FAILED);
    EXPECT_EQ(fake::HaSentMessages().size(), 2u);
    EXPECT_EQ(g_stTbdlHaVar.usMsgLen, 0);
}

/* The batch sends every bundle in ascending number, each update followed by
 * its members' additions, packed into as few sends as the MTU allows. */
TEST_F(HaMsgTest, BatchBackupPacksBundlesAndMembersIntoFullSends)
{
    const u32 uiMtu = 200;
    Reinit(uiMtu);
    std::vector<Tlv> expect;
    for (u32 n : {2u, 5u, 6u, 9u, 11u, 12u, 20u, 33u, 34u, 40u}) {
        std::vector<u32> membIf;
        u32 uiBndIf = MakeBnd(n, n % 4, &membIf);
        Tlv bnd{1, Bytes(36, 0)};
        Bytes be = Be32(uiBndIf);
        std::copy(be.begin(), be.end(), bnd.value.begin() + 20);
        bnd.value[31] = 1 * (n % 4 != 0); /* up when it has up members */
        expect.push_back(bnd);
        for (u32 m : membIf) {
            expect.push_back({2, Cat({Be32(uiBndIf), Be32(m)})});
        }
    }
    /* The batch does not depend on the role or standby tests. */
    fake::Config().master = false;
    fake::ClearJournal();

    EXPECT_EQ(tbdl_ha_BatchBackup(), 0u);

    const auto &sent = fake::HaSentMessages();
    ASSERT_GE(sent.size(), 3u);
    std::vector<Tlv> got;
    for (size_t i = 0; i < sent.size(); i++) {
        SCOPED_TRACE("send " + std::to_string(i));
        EXPECT_EQ(sent[i].flag, 0u);
        EXPECT_LE(sent[i].msg.size(), uiMtu);
        auto tlvs = ParseTlvs(sent[i].msg);
        got.insert(got.end(), tlvs.begin(), tlvs.end());
        if (i + 1 < sent.size()) {
            /* Sent only because the next TLV did not fit. */
            size_t next = 4 + ParseTlvs(sent[i + 1].msg).at(0).value.size();
            EXPECT_GT(sent[i].msg.size() + next, uiMtu);
        }
    }
    ASSERT_EQ(got.size(), expect.size());
    for (size_t i = 0; i < got.size(); i++) {
        SCOPED_TRACE("TLV " + std::to_string(i));
        EXPECT_EQ(got[i].usType, expect[i].usType);
        if (got[i].usType == 1) {
            EXPECT_EQ(Bytes(got[i].value.begin() + 20, got[i].value.begin() + 24),
                      Bytes(expect[i].value.begin() + 20, expect[i].value.begin() + 24));
            EXPECT_EQ(got[i].value[31], expect[i].value[31]);
        } else {
            EXPECT_EQ(got[i].value, expect[i].value);
        }
    }
    EXPECT_EQ(g_stTbdlHaVar.usMsgLen, 0);
}

TEST_F(HaMsgTest, StandbyAppliesEachKnownTlvToItsKernel)
{
    Bytes msg = Cat({
        Bytes(kGoldenBnd.begin(), kGoldenBnd.begin() + 4 + 22), /* header says 36 ... */
    });
    msg[3] = 22; /* ... a truncated bundle update of 22 bytes */
    msg = Cat({msg,
               {0x00, 0x09, 0x00, 0x02, 0xFF, 0xFF},             /* unknown type: skipped */
               {0x00, 0x02, 0x00, 0x04, 0x00, 0x00, 0x10, 0x00}, /* member add, 4 bytes */
               {0x00, 0x03, 0x00, 0x0C},                         /* member delete, 12 bytes */
               Be32(0x1000), Be32(0x100), Be32(0xDEADBEEF),
               {0x00, 0x02, 0x00}});                             /* trailing partial header */
    fake::HaPushMessage(msg, 0);
    Pump();

    auto k = fake::CallsOf("CIOCTL");
    ASSERT_EQ(k.size(), 3u);
    for (const auto &c : k) {
        EXPECT_EQ(c.args.at(0), TBDL_KTBDL_DEV);
    }

    TBDL_KBND_S stBnd;
    std::memset(&stBnd, 0, sizeof(stBnd));
    stBnd.stAddr.usFamily = 2;
    stBnd.stAddr.aucCarried[0] = 0xAB;
    stBnd.stAddr.aucCarried[1] = 0xCD;
    stBnd.stAddr.aucAddr[0] = 10;
    stBnd.stAddr.aucAddr[1] = 1;
    stBnd.stAddr.aucAddr[2] = 2;
    stBnd.stAddr.aucAddr[3] = 3;
    stBnd.stAddr.aucAddr[15] = 0xEE;
    stBnd.uiIfIndex = 0x01020000; /* two of its bytes arrived; the rest is zero */
    EXPECT_EQ(k[0].args.at(1), TBDL_KCMD_BND_UPDATE);
    EXPECT_EQ(k[0].data, BytesOf(&stBnd, sizeof(stBnd)));

    TBDL_KMEMB_S stAdd = {0x1000, 0};
    EXPECT_EQ(k[1].args.at(1), TBDL_KCMD_MEMB_ADD);
    EXPECT_EQ(k[1].data, BytesOf(&stAdd, sizeof(stAdd))) << "member index zero-padded";
    TBDL_KMEMB_S stDel = {0x1000, 0x100};
    EXPECT_EQ(k[2].args.at(1), TBDL_KCMD_MEMB_DEL);
    EXPECT_EQ(k[2].data, BytesOf(&stDel, sizeof(stDel))) << "longer value cut to 8 bytes";

    EXPECT_EQ(Logs(), std::vector<std::string>{"EVENT Received an HA message (Type 0).\r\n"});
    EXPECT_EQ(fake::CountOf("HA_FreeMsg"), 1u);
    TBDL_BND_INFO_S stInfo;
    std::memset(&stInfo, 0, sizeof(stInfo));
    EXPECT_EQ(TBDL_BND_GetFirstBndInfo(&stInfo), TBDL_E_NOTEXIST) << "bundle table untouched";
}

TEST_F(HaMsgTest, StandbyKernelGetsWhatTheMasterKernelGot)
{
    /* A payload with non-zero trailing bytes: only those differ. */
    TBDL_KBND_S stBnd = SampleBnd();
    ASSERT_EQ(tbdl_ha_EncMsg(TBDL_HA_MSG_BND_UPDATE, &stBnd), 0u);
    ASSERT_EQ(tbdl_ha_SendMsg(0), 0u);

    /* And one from the bundle table itself: its kernel push and HA mirror. */
    fake::Config().slavePresent = true;
    MakeBnd(7, 1);
    Bytes masterKernel = fake::CallsOf("CIOCTL").back().data; /* bundle went up */
    ASSERT_EQ(fake::CallsOf("CIOCTL").back().args.at(1), TBDL_KCMD_BND_UPDATE);
    const auto sent = fake::HaSentMessages();
    ASSERT_GE(sent.size(), 3u);

    fake::ClearJournal();
    fake::HaPushMessage(sent[0].msg, sent[0].flag);
    fake::HaPushMessage(sent.back().msg, sent.back().flag);
    Pump();

    auto k = fake::CallsOf("CIOCTL");
    ASSERT_EQ(k.size(), 2u);
    Bytes want = BytesOf(&stBnd, sizeof(stBnd));
    want[34] = 0;
    want[35] = 0;
    EXPECT_EQ(k[0].data, want);
    EXPECT_EQ(k[1].data, masterKernel);
}

} // namespace
