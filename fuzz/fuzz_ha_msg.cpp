/* Fuzz target of the standby's HA receiver: each input is one HA message as
 * the HA library hands it over, a first byte giving the send flag the
 * message came with (bit 0) and the message bytes after it.
 *
 * Every input starts from the same state: a standby board with bundles 1
 * (two members) and 2 in its table and the HA channel joined. The message is
 * handed to the receive callback in an exact-size heap buffer, as the HA
 * library hands it over, so the sanitizers see any read past its end. Besides the
 * sanitizers, the outcome is checked against a walk of the message's TLVs
 * made here: one kernel command per TLV of a known type, in order, with the
 * value zero-padded or cut to the command's payload and its numbers in host
 * order; the message buffer returned once; and the bundle table, the
 * database, the downloads and the HA sends left alone. */
#include <arpa/inet.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "fuzz_daemon.h"
#include "ha/tbdl_ha_priv.h"
#include "tbdl_bas.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"

namespace {

using fuzzd::Check;
using fuzzd::Configure;

using Bytes = std::vector<uint8_t>;


void SetUp()
{
    fuzzd::StartCore(fuzzd::kDefaultSpec, fuzzd::EventLoop());
    const u16 ausMode[2] = {1, 0};
    Configure(TBDL_BND_Configure, 1, TBDL_TLV_OP_BND, ausMode, sizeof(ausMode));
    Configure(TBDL_BND_Configure, 2, TBDL_TLV_OP_BND, ausMode, sizeof(ausMode));
    for (u32 uiTnl : {10u, 11u}) {
        fake::AddTunnel(uiTnl);
        TBDL_MEMB_CFG_S stCfg = {};
        stCfg.uiTnlNum = uiTnl;
        stCfg.usWeight = 1;
        Configure(TBDL_INTF_Configure, 1, TBDL_TLV_OP_MEMB, &stCfg, sizeof(stCfg));
    }
    /* The board is standby from here on; the HA hooks come from the HA
     * module itself. */
    fake::Config().master = false;
    TBDL_BAS_DeregHAFunc();
    if (TBDL_HA_Init(fuzzd::EventLoop()) != 0) {
        fprintf(stderr, "the HA channel could not be joined\n");
        abort();
    }
    alignas(8) TBDL_CFG_OPER_DATA_S stData = {};
    const u32 uiAll = TBDL_DBG_ALL;
    memcpy(stData.aucData, &uiAll, sizeof(uiAll));
    (void)TBDL_DBG_SetDebug(0, nullptr, TBDL_TLV_OP_U32, &stData);
}

void TearDown()
{
    TBDL_HA_Fini();
    TBDL_BND_ClearRunning();
    TBDL_INTF_Fini();
    TBDL_BND_Fini();
    TBDL_DBM_Fini();
    TBDL_DBG_Fini();
}

/* The bundle table as bytes: every bundle's snapshot with its members. */
Bytes Table()
{
    Bytes out;
    TBDL_MEMB_INFO_S astMemb[TBDL_SNAPSHOT_MEMB_MAX];
    TBDL_BND_INFO_S stInfo;
    TBDL_BND_InitSnapshot(&stInfo, astMemb);
    for (u32 uiRet = TBDL_BND_GetFirstBndInfo(&stInfo); uiRet == TBDL_OK;) {
        stInfo.pstMembInfo = nullptr;
        const auto *puc = reinterpret_cast<const uint8_t *>(&stInfo);
        out.insert(out.end(), puc, puc + sizeof(stInfo));
        puc = reinterpret_cast<const uint8_t *>(astMemb);
        out.insert(out.end(), puc, puc + sizeof(astMemb[0]) * stInfo.usMembNum);
        u32 uiBnd = stInfo.uiBndNum;
        TBDL_BND_InitSnapshot(&stInfo, astMemb);
        uiRet = TBDL_BND_GetNextBndInfo(uiBnd, &stInfo);
    }
    return out;
}

struct Command {
    u32 uiCmd;
    Bytes payload;
};

/* Big-endian 16 and 32-bit fields at the offsets given, turned around in
 * place. */
void ToHost(Bytes &payload, std::initializer_list<size_t> l16, std::initializer_list<size_t> l32)
{
    for (size_t off : l16) {
        u16 us = 0;
        memcpy(&us, &payload[off], sizeof(us));
        us = ntohs(us);
        memcpy(&payload[off], &us, sizeof(us));
    }
    for (size_t off : l32) {
        u32 ui = 0;
        memcpy(&ui, &payload[off], sizeof(ui));
        ui = ntohl(ui);
        memcpy(&payload[off], &ui, sizeof(ui));
    }
}

/* The kernel commands the message must give: TLV heads are a 2-byte type and
 * a 2-byte length, big-endian; the walk stops at the first TLV that does not
 * fit in what is left. */
std::vector<Command> Expected(const uint8_t *puc, size_t ulLen)
{
    std::vector<Command> vec;
    size_t off = 0;
    while (off + 4 <= ulLen) {
        u16 usType = static_cast<u16>(puc[off] << 8 | puc[off + 1]);
        size_t ulTlv = static_cast<size_t>(puc[off + 2] << 8 | puc[off + 3]);
        if (ulTlv > ulLen - off - 4) {
            break;
        }
        const uint8_t *pucValue = puc + off + 4;
        off += 4 + ulTlv;
        if (usType < TBDL_HA_MSG_BND_UPDATE || usType > TBDL_HA_MSG_MEMB_DEL) {
            continue;
        }
        size_t ulSize = usType == TBDL_HA_MSG_BND_UPDATE ? TBDL_HA_MSG_BND_UPDATE_LEN : TBDL_HA_MSG_MEMB_LEN;
        Bytes payload(ulSize, 0);
        memcpy(payload.data(), pucValue, ulTlv < ulSize ? ulTlv : ulSize);
        if (usType == TBDL_HA_MSG_BND_UPDATE) {
            ToHost(payload, {0, 32}, {20, 24, 28});
            vec.push_back({TBDL_KCMD_BND_UPDATE, payload});
        } else {
            ToHost(payload, {}, {0, 4});
            vec.push_back({usType == TBDL_HA_MSG_MEMB_ADD ? TBDL_KCMD_MEMB_ADD : TBDL_KCMD_MEMB_DEL, payload});
        }
    }
    return vec;
}

void CheckCommands(const std::vector<Command> &vecWant)
{
    auto vecCalls = fake::CallsOf("CIOCTL");
    Check(vecCalls.size() == vecWant.size(), "one kernel command per TLV of a known type");
    for (size_t i = 0; i < vecWant.size(); i++) {
        const fake::Call &c = vecCalls[i];
        Check(c.args[0] == TBDL_KTBDL_DEV && c.args[1] == vecWant[i].uiCmd, "the TLV's command, in order");
        Check(c.args[2] == vecWant[i].payload.size() && c.data == vecWant[i].payload, "the TLV's payload");
    }
}

/* Only the receive path's own calls: the standby writes nothing but its
 * kernel commands. */
void CheckNothingElse()
{
    static const std::set<std::string> kAllowed = {"STLV_Get", "CIOCTL", "HA_FreeMsg", "vsyslog2"};
    for (const std::string &strName : fake::Names()) {
        if (kAllowed.count(strName) == 0) {
            fprintf(stderr, "unexpected call %s\n", strName.c_str());
            abort();
        }
    }
    Check(fake::CountOf("HA_FreeMsg") == 1, "the message buffer is returned once");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize)
{
    /* HA messages are at most 65535 bytes long. */
    if (ulSize < 1 || ulSize - 1 > 0xFFFF) {
        return 0;
    }
    const Bytes msg(pucData + 1, pucData + ulSize);
    const u32 uiFlag = pucData[0] & 1u;

    SetUp();
    const Bytes before = Table();
    fake::ClearJournal();
    /* The receiver owns the buffer and returns it with HA_FreeMsg. */
    auto *pucMsg = static_cast<uint8_t *>(malloc(msg.empty() ? 1 : msg.size()));
    Check(pucMsg != nullptr, "message buffer");
    if (!msg.empty()) {
        memcpy(pucMsg, msg.data(), msg.size());
    }
    (void)tbdl_ha_RecvMsg(pucMsg, static_cast<u16>(msg.size()), uiFlag);

    CheckCommands(Expected(msg.data(), msg.size()));
    CheckNothingElse();
    Check(Table() == before, "the standby's bundle table is left alone");
    TearDown();
    return 0;
}
