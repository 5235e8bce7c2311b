/* Fuzz target of the configuration channel's request path: each input is
 * one message sent on a configuration connection (a SEQPACKET socket pair)
 * and taken by the connection callback with the real handlers behind it.
 *
 * Every input starts from the same state: the daemon's modules freshly set
 * up against the recording fake, with a few bundles and members in place
 * so that configuration and display requests have something to act on.
 * Besides the sanitizers, the reply is checked: at most one message, a
 * well-formed header whose length matches, the request's type and oper
 * copied back, and TLVs that fit exactly in a display reply. */
#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cfg/tbdl_cfg_priv.h"
#include "fake_platform.h"
#include "fuzz_daemon.h"
#include "plat_stlv.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"

namespace {

using fuzzd::Check;
using fuzzd::Configure;

bool g_bVerbose = false; /* TBDL_FUZZ_VERBOSE set: print each reply header */

/* Bundle 1 (load balancing, address, two members), bundle 2 (1:1, one
 * member), bundle 3 (1+1, empty); tunnels 10-13 exist, 13 unbound. */
void Populate()
{
    const u16 aus1[2] = {1, 0};
    const u16 aus2[2] = {2, 0};
    const u16 aus4[2] = {4, 0};
    (void)Configure(TBDL_BND_Configure, 1, TBDL_TLV_OP_BND, aus1, sizeof(aus1));
    (void)Configure(TBDL_BND_Configure, 2, TBDL_TLV_OP_BND, aus2, sizeof(aus2));
    (void)Configure(TBDL_BND_Configure, 3, TBDL_TLV_OP_BND, aus4, sizeof(aus4));

    u8 aucAddr[20] = {};
    const u16 usFamily = 2;
    memcpy(aucAddr, &usFamily, sizeof(usFamily));
    aucAddr[4] = 10;
    aucAddr[7] = 1;
    (void)Configure(TBDL_BND_Configure, 1, TBDL_TLV_OP_ADDR, aucAddr, sizeof(aucAddr));

    for (u32 uiTnl = 10; uiTnl <= 13; uiTnl++) {
        fake::AddTunnel(uiTnl);
    }
    const struct {
        u32 uiBnd;
        u32 uiTnl;
        u8 ucRole;
    } astMemb[] = {{1, 10, 0}, {1, 11, 0}, {2, 12, 1}};
    for (const auto &m : astMemb) {
        TBDL_MEMB_CFG_S stCfg = {};
        stCfg.uiTnlNum = m.uiTnl;
        stCfg.usWeight = 1;
        stCfg.ucRole = m.ucRole;
        (void)Configure(TBDL_INTF_Configure, m.uiBnd, TBDL_TLV_OP_MEMB, &stCfg, sizeof(stCfg));
    }
}

void SetUp()
{
    fuzzd::StartCore(fuzzd::kDefaultSpec, fuzzd::EventLoop());
    /* The listening socket is opened once and kept: requests are served
     * only while it is open, and opening it per input cost a fifth of each
     * execution. Activate is a no-op while it is open. */
    static const bool bListening = [] {
        (void)TBDL_CFG_Init(static_cast<u32>(fuzzd::EventLoop()));
        return TBDL_CFG_Activate() == TBDL_OK;
    }();
    if (!bListening) {
        fprintf(stderr, "configuration socket could not be opened\n");
        abort();
    }
    Populate();
    /* Switch output on so that the log paths are exercised too. */
    alignas(8) TBDL_CFG_OPER_DATA_S stData = {};
    const u32 uiAll = TBDL_DBG_ALL;
    memcpy(stData.aucData, &uiAll, sizeof(uiAll));
    (void)TBDL_DBG_SetDebug(0, nullptr, TBDL_TLV_OP_U32, &stData);
}

void TearDown()
{
    TBDL_BND_ClearRunning();
    TBDL_INTF_Fini();
    TBDL_BND_Fini();
    TBDL_DBM_Fini();
    TBDL_DBG_Fini();
}

u16 Be16(const u8 *puc)
{
    return static_cast<u16>((puc[0] << 8) | puc[1]);
}

/* The TLVs of a display reply fill its payload exactly. */
void CheckTlvs(const u8 *pucTlvs, u32 uiLen)
{
    u32 uiOff = 0;
    while (uiOff < uiLen) {
        u16 usType = 0;
        u16 usLen = 0;
        const void *pValue = nullptr;
        (void)STLV_Get(pucTlvs + uiOff, uiLen - uiOff, &usType, &usLen, &pValue);
        Check(pValue != nullptr, "display payload is not whole TLVs");
        Check(usType >= TBDL_TLV_DISP_BND && usType <= TBDL_TLV_DISP_SPEC, "display TLV type");
        uiOff += STLV_HEAD_LEN + usLen;
    }
}

void CheckReply(const u8 *pucReq, size_t ulReqLen, const u8 *pucRep, ssize_t lRepLen)
{
    Check(lRepLen >= static_cast<ssize_t>(TBDL_CFG_MSG_HEAD_LEN), "reply shorter than a header");
    u16 usClass = Be16(pucRep);
    u16 usDataLen = Be16(pucRep + 2);
    Check(usClass <= 1, "reply class");
    Check(static_cast<ssize_t>(usDataLen) + TBDL_CFG_MSG_HEAD_LEN == lRepLen, "reply length field");
    Check(usDataLen <= TBDL_CFG_DISP_TLV_ROOM, "reply payload room");
    if (usClass == 0) {
        Check(usDataLen == 0, "configuration reply with payload");
    } else {
        CheckTlvs(pucRep + TBDL_CFG_MSG_HEAD_LEN, usDataLen);
    }
    if (ulReqLen >= TBDL_CFG_MSG_HEAD_LEN) {
        Check(memcmp(pucRep + 8, pucReq + 8, 4) == 0, "type and oper copied from the request");
    } else {
        Check(Be16(pucRep + 8) == 0 && Be16(pucRep + 10) == 0, "type and oper of a short request");
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    g_bVerbose = getenv("TBDL_FUZZ_VERBOSE") != nullptr;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize)
{
    int aiFds[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, aiFds) != 0) {
        abort();
    }
    SetUp();

    /* A zero-length message reads as the peer's close; the connection is
     * then closed by the daemon. */
    bool bSent = send(aiFds[0], pucData, ulSize, 0) == static_cast<ssize_t>(ulSize);
    if (bSent) {
        (void)tbdl_cfg_RecvMsg(EPOLLIN, static_cast<u64>(aiFds[1]));
        static u8 aucReply[4096];
        ssize_t lLen = recv(aiFds[0], aucReply, sizeof(aucReply), MSG_DONTWAIT);
        if (ulSize == 0) {
            Check(lLen <= 0, "reply to an empty message");
        } else {
            CheckReply(pucData, ulSize, aucReply, lLen);
            if (g_bVerbose) {
                fprintf(stderr, "reply class %u type %u oper %u result 0x%08x, %zd bytes\n", Be16(aucReply),
                        Be16(aucReply + 8), Be16(aucReply + 10), ntohl(*reinterpret_cast<u32 *>(aucReply + 4)),
                        lLen);
            }
            Check(recv(aiFds[0], aucReply, sizeof(aucReply), MSG_DONTWAIT) < 0, "more than one reply");
        }
    }

    TearDown();
    close(aiFds[0]);
    if (!bSent || ulSize != 0) {
        close(aiFds[1]);
    }
    return 0;
}
