/* Fuzz target of the L3VPN and service-port watches: each input is a run
 * of events as the libraries hand them over, L3VPN event records and
 * service-port event records, each delivered with an event mask taken from
 * the input, so registrations, hang-ups, errors and retries interleave.
 *
 * Every input starts from the same state: bundles 1 and 2 with members
 * Tunnel10 and Tunnel11 in bundle 1, the service-port subscription made and
 * the L3VPN service reported up. Interface indexes below 8 in an L3VPN
 * record name those interfaces (0-3 Tunnel10-13, 4-7 the first bundle
 * interfaces), so that events reach both modules. Besides the sanitizers,
 * every L3VPN event handed to the daemon must be acknowledged once. */
#include <sys/epoll.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fake_platform.h"
#include "fuzz_daemon.h"
#include "l3v/tbdl_l3v_priv.h"
#include "servicewatch/tbdl_servicewatch_priv.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"

namespace {

using fuzzd::Check;
using fuzzd::Configure;

/* One step: kind (bit 0: service port), event mask, then the record. */
constexpr size_t kStepHead = 2;
constexpr u32 kEvents[] = {TBDL_L3V_EV_VRF_BIND, TBDL_L3V_EV_VRF_UNBIND, TBDL_L3V_EV_BATCH_BEGIN,
                           TBDL_L3V_EV_BATCH_END};


/* Masks as the loop reports them: EPOLLIN, EPOLLERR and EPOLLHUP. */
u32 Mask(u8 ucSel)
{
    return (ucSel & 1u ? EPOLLIN : 0u) | (ucSel & 2u ? EPOLLERR : 0u) | (ucSel & 4u ? EPOLLHUP : 0u);
}

void SetUp()
{
    fuzzd::StartCore(fuzzd::kDefaultSpec, fuzzd::EventLoop());
    TBDL_L3V_Init(fuzzd::EventLoop());
    (void)TBDL_SERVICEWATCH_Init(fuzzd::EventLoop());
    const u16 ausMode[2] = {1, 0};
    Configure(TBDL_BND_Configure, 1, TBDL_TLV_OP_BND, ausMode, sizeof(ausMode));
    Configure(TBDL_BND_Configure, 2, TBDL_TLV_OP_BND, ausMode, sizeof(ausMode));
    for (u32 uiTnl = 10; uiTnl <= 13; uiTnl++) {
        fake::AddTunnel(uiTnl);
    }
    for (u32 uiTnl : {10u, 11u}) {
        TBDL_MEMB_CFG_S stCfg = {};
        stCfg.uiTnlNum = uiTnl;
        stCfg.usWeight = 1;
        Configure(TBDL_INTF_Configure, 1, TBDL_TLV_OP_MEMB, &stCfg, sizeof(stCfg));
    }
    (void)TBDL_SERVICEWATCH_Activate();
    fake::SvcPortPush(SVCPORT_STATE_UP, TBDL_SVCPORT_L3VPN);
    (void)tbdl_servicewatch_SockCb(EPOLLIN, static_cast<u64>(g_stTbldPortGlobal.iSubFd));
}

void TearDown()
{
    TBDL_SERVICEWATCH_Deactivate();
    TBDL_BND_ClearRunning();
    TBDL_L3V_Deactivate();
    TBDL_INTF_Fini();
    TBDL_L3V_Fini();
    TBDL_SERVICEWATCH_Fini();
    TBDL_BND_Fini();
    TBDL_DBM_Fini();
    TBDL_DBG_Fini();
}

/* Record: u8 event selector (index into kEvents, else the raw event 2),
 * u8 "has data", then the 8-byte event data. */
void L3vStep(u32 uiMask, const u8 *puc)
{
    L3VPN_EVT_S stEvt;
    memcpy(&stEvt, puc + 2, sizeof(stEvt));
    if (stEvt.uiIfIndex < 8) {
        stEvt.uiIfIndex = stEvt.uiIfIndex < 4 ? 0x100 + stEvt.uiIfIndex : 0x1000 + stEvt.uiIfIndex - 4;
    }
    u32 uiEvent = puc[0] < 4 ? kEvents[puc[0]] : puc[0];
    fake::L3vPush(uiEvent, (puc[1] & 1u) ? &stEvt : nullptr);
    i32 iFd = g_stTbdlL3vGlobal.iEvtFd;
    if (iFd == TBDL_INVALID_FD) {
        return;
    }
    size_t ulPending = fake::L3vPending();
    fake::ClearJournal();
    (void)tbdl_l3v_SockCb(uiMask, static_cast<u64>(iFd));
    size_t ulAcks = fake::CountOf("L3VPN_FinalStatusNotify");
    Check(ulAcks == ((uiMask & EPOLLIN) ? ulPending : 0), "one acknowledgement per event read");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize)
{
    SetUp();
    fake::ClearJournal();
    for (size_t ulOff = 0; ulOff + kStepHead + sizeof(SVCPORT_EVT_S) <= ulSize;
         ulOff += kStepHead + sizeof(SVCPORT_EVT_S)) {
        const u8 *puc = pucData + ulOff;
        u32 uiMask = Mask(puc[1]);
        if ((puc[0] & 1u) == 0) {
            L3vStep(uiMask, puc + kStepHead);
            continue;
        }
        SVCPORT_EVT_S stEvt;
        memcpy(&stEvt, puc + kStepHead, sizeof(stEvt));
        fake::SvcPortPush(stEvt.uiState, stEvt.usPort);
        if (g_stTbldPortGlobal.iSubFd != TBDL_INVALID_FD) {
            (void)tbdl_servicewatch_SockCb(uiMask, static_cast<u64>(g_stTbldPortGlobal.iSubFd));
        }
    }
    TearDown();
    return 0;
}
