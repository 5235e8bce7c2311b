/* Fuzz target of the member interfaces' event callback: each input is one
 * interface event as the interface library hands it over, a 32-bit event
 * code (host order) followed by 8-byte entries whose first word is an
 * interface index; a trailing partial entry is dropped.
 *
 * Every input starts from the same state: the daemon's modules freshly set
 * up against the recording fake, subscribed to interface events, with
 * Tunnel10 and Tunnel11 members of bundle 1, Tunnel12 of bundle 2 and
 * Tunnel13 unbound (interface indexes 0x100 to 0x103). Besides the
 * sanitizers, the outcome is checked: one log line per entry, one
 * acknowledgement of the whole event, and every interface with private data
 * listed as a member of the bundle it names, and no other member. */
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fake_platform.h"
#include "fuzz_daemon.h"
#include "intf/tbdl_intf_priv.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"

namespace {

using fuzzd::Check;
using fuzzd::Configure;


void Populate()
{
    const u16 aus1[2] = {1, 0};
    const u16 aus2[2] = {2, 0};
    (void)Configure(TBDL_BND_Configure, 1, TBDL_TLV_OP_BND, aus1, sizeof(aus1));
    (void)Configure(TBDL_BND_Configure, 2, TBDL_TLV_OP_BND, aus2, sizeof(aus2));
    for (u32 uiTnl = 10; uiTnl <= 13; uiTnl++) {
        fake::AddTunnel(uiTnl);
    }
    const u32 aauiMemb[][2] = {{1, 10}, {1, 11}, {2, 12}};
    for (const auto &m : aauiMemb) {
        TBDL_MEMB_CFG_S stCfg = {};
        stCfg.uiTnlNum = m[1];
        stCfg.usWeight = 1;
        (void)Configure(TBDL_INTF_Configure, m[0], TBDL_TLV_OP_MEMB, &stCfg, sizeof(stCfg));
    }
}

void SetUp()
{
    fuzzd::StartCore(fuzzd::kDefaultSpec, fuzzd::EventLoop());
    if (TBDL_INTF_Activate() != TBDL_OK) {
        fprintf(stderr, "interface events could not be subscribed\n");
        abort();
    }
    Populate();
    alignas(8) TBDL_CFG_OPER_DATA_S stData = {};
    const u32 uiAll = TBDL_DBG_ALL;
    memcpy(stData.aucData, &uiAll, sizeof(uiAll));
    (void)TBDL_DBG_SetDebug(0, nullptr, TBDL_TLV_OP_U32, &stData);
}

void TearDown()
{
    TBDL_INTF_Deactivate();
    TBDL_BND_ClearRunning();
    TBDL_INTF_Fini();
    TBDL_BND_Fini();
    TBDL_DBM_Fini();
    TBDL_DBG_Fini();
}

/* Private data and the bundles' member lists name the same interfaces. */
void CheckMembership()
{
    size_t ulMembers = 0;
    for (u32 uiBnd : {1u, 2u}) {
        TBDL_MEMB_INFO_S astMemb[TBDL_SNAPSHOT_MEMB_MAX];
        TBDL_BND_INFO_S stInfo;
        TBDL_BND_InitSnapshot(&stInfo, astMemb);
        Check(TBDL_BND_GetBndInfo(uiBnd, &stInfo) == TBDL_OK, "bundle still readable");
        for (u32 i = 0; i < stInfo.usMembNum; i++) {
            auto it = fake::PrivateData().find(astMemb[i].uiIfIndex);
            Check(it != fake::PrivateData().end(), "member without private data");
            Check(static_cast<TBDL_INTF_PD_S *>(it->second)->uiBndNum == uiBnd, "private data names the bundle");
        }
        ulMembers += stInfo.usMembNum;
    }
    Check(ulMembers == fake::PrivateData().size(), "private data without a member");
}

size_t EventLines()
{
    size_t ulCount = 0;
    for (const std::string &strLine : fake::LogLines()) {
        ulCount += strLine.rfind("EVENT Received an interface event", 0) == 0;
    }
    return ulCount;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize)
{
    if (ulSize < sizeof(u32)) {
        return 0;
    }
    u32 uiEvent = 0;
    memcpy(&uiEvent, pucData, sizeof(uiEvent));
    u32 uiCount = static_cast<u32>((ulSize - sizeof(u32)) / sizeof(IF_EVENT_ENTRY_S));
    /* An exact-size heap copy, so the sanitizers see any read past the end. */
    std::vector<IF_EVENT_ENTRY_S> vecEntries(uiCount);
    if (uiCount != 0) {
        memcpy(vecEntries.data(), pucData + sizeof(u32), uiCount * sizeof(IF_EVENT_ENTRY_S));
    }

    SetUp();
    size_t ulLinesBefore = EventLines();
    fake::ClearJournal();
    (void)tbdl_intf_IfEventCallback(uiEvent, vecEntries.data(), uiCount, 0x5A);

    Check(EventLines() - ulLinesBefore == uiCount, "one log line per entry");
    auto vecAck = fake::CallsOf("IF_NotifyFinalStatus");
    Check(vecAck.size() == 1, "one acknowledgement");
    Check(vecAck[0].args == std::vector<uint64_t>{fake::IfEventHandle(), uiEvent, uiCount, 0x5A},
          "acknowledgement of this event");
    Check(vecAck[0].data.size() == uiCount * sizeof(IF_EVENT_ENTRY_S) &&
              (uiCount == 0 || memcmp(vecAck[0].data.data(), vecEntries.data(), vecAck[0].data.size()) == 0),
          "acknowledged entries are the event's");
    CheckMembership();
    TearDown();
    return 0;
}
