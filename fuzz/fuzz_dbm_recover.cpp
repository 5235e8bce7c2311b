/* Fuzz target of the recovery of the stored configuration: the database
 * holds what the input says, and a master board starts from it.
 *
 * Input: a head byte, then records. Head bit 0: the start is a system boot;
 * bits 1-3: one platform call made to fail (none, a block read that
 * answers a count beyond the block or an error, a bundle name without an
 * index, a failed removal or interface deletion), bits 4-7: which call of
 * that name fails. Each record is a selector byte, a length byte and that
 * many bytes (a trailing partial record is cut; an empty one is left out). Selector bits 0-1: 0 a
 * bundle record, 1 a member record of bundle (selector >> 2), 2 a record
 * under a key taken from its first bytes (1 + (selector >> 2) % 6 of them,
 * the first forced to the bundle or member list), so keys and records of
 * any length reach the walk; 3 the same as 0.
 *
 * The device takes 16 bundles of 4 load-balancing members, without the 1+1
 * mode; Tunnel10 to Tunnel12 exist in VRF 0, Tunnel13 in VRF 5. After the
 * recovery and the refresh that follows it, the table must respect its
 * limits, every member's private data must name its bundle, and everything
 * in the table must still be stored; with proper keys and no failed call,
 * every stored bundle must be in the table (a bundle that cannot be
 * restored is deleted). */
#include <arpa/inet.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "bnd/tbdl_bnd_priv.h"
#include "fake_platform.h"
#include "fuzz_daemon.h"
#include "intf/tbdl_intf_priv.h"
#include "tbdl_cfg.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"

namespace {

using fuzzd::Check;

using Bytes = std::vector<uint8_t>;

constexpr u32 kMaxBnd = 16;
constexpr u32 kMaxMemb = 4;
const Bytes kBndKey = {TBDL_DBM_KEY_BND};

/* Calls the head byte can make fail, and with what. */
struct Failure {
    const char *pcName;
    uint64_t ulResult;
};
constexpr Failure kFailures[] = {
    {nullptr, 0},
    {"DBM_BatchGetNextSortList", 0x7FFFFFFF},
    {"DBM_BatchGetNextSortList", static_cast<uint64_t>(-1)},
    {"IF_GetIfIndexByFullName", 0},
    {"DBM_RemoveSortList", 1},
    {"IF_DeleteIf", 0},
    {"L3VPN_GetVrfIndexByIfIndex", 1},
    {nullptr, 0},
};


Bytes MembKey(u32 uiBnd)
{
    u8 aucKey[TBDL_DBM_KEY_MEMB_LEN];
    TBDL_DBM_MembKey(uiBnd, aucKey);
    return Bytes(aucKey, aucKey + sizeof(aucKey));
}

/* Fills the database from the records; true when every key is a proper
 * one. */
bool Store(const uint8_t *puc, size_t ulLen)
{
    bool bProper = true;
    for (size_t off = 0; off + 2 <= ulLen;) {
        u8 ucSel = puc[off];
        size_t ulRec = std::min<size_t>(puc[off + 1], ulLen - off - 2);
        Bytes rec(puc + off + 2, puc + off + 2 + ulRec);
        off += 2 + ulRec;
        if (rec.empty()) {
            continue; /* the database stores no empty record */
        }
        switch (ucSel & 3u) {
        case 1:
            fake::DbPut(MembKey(ucSel >> 2), TBDL_DBM_MEMB_SORT_OFFSET, rec);
            break;
        case 2: {
            size_t ulKey = std::min<size_t>(1 + (ucSel >> 2) % 6, rec.size());
            Bytes key(rec.begin(), rec.begin() + static_cast<long>(ulKey));
            key[0] = (ucSel & 4u) ? TBDL_DBM_KEY_MEMB : TBDL_DBM_KEY_BND;
            bProper = bProper && (key[0] == TBDL_DBM_KEY_BND ? key == kBndKey : key.size() == TBDL_DBM_KEY_MEMB_LEN);
            fake::DbPut(key, key[0] == TBDL_DBM_KEY_BND ? TBDL_DBM_BND_SORT_OFFSET : 0, rec);
            break;
        }
        default:
            fake::DbPut(kBndKey, TBDL_DBM_BND_SORT_OFFSET, rec);
            break;
        }
    }
    return bProper;
}

void SetUp(u8 ucHead)
{
    fake::Reset();
    fake::Config().startCause = (ucHead & 1u) ? 0 : 1;
    const Failure &f = kFailures[(ucHead >> 1) & 7u];
    if (f.pcName != nullptr) {
        fake::FailNth(f.pcName, 1 + (ucHead >> 4), f.ulResult);
    }
    for (u32 uiTnl = 10; uiTnl <= 13; uiTnl++) {
        fake::AddTunnel(uiTnl, 0, 1, uiTnl == 13 ? 5 : 0);
    }
    TBDL_SPEC_S stSpec = {kMaxBnd, kMaxMemb, 1, 1, 0};
    (void)TBDL_DBG_Init();
    (void)TBDL_DBM_Init();
    (void)TBDL_BND_Init(&stSpec, nullptr, fuzzd::EventLoop());
    (void)TBDL_INTF_Init(fuzzd::EventLoop());
    (void)TBDL_INTF_Activate();
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

/* Numbers in the sort words of a stored list. */
std::set<u32> SortWords(const std::vector<Bytes> &list, size_t ulAt)
{
    std::set<u32> set;
    for (const Bytes &rec : list) {
        u32 uiBe = 0;
        memcpy(&uiBe, rec.data() + ulAt, std::min<size_t>(sizeof(uiBe), rec.size() > ulAt ? rec.size() - ulAt : 0));
        set.insert(ntohl(uiBe));
    }
    return set;
}

/* Bundle numbers stored under the bundle list's key. */
std::set<u32> StoredBundles()
{
    auto it = fake::Db().find(kBndKey);
    return it == fake::Db().end() ? std::set<u32>{} : SortWords(it->second, TBDL_DBM_BND_SORT_OFFSET);
}

/* Whether a bundle, or one of its members (uiTnl), is stored under any key
 * the walk hands to it. */
bool IsStored(u32 uiBnd, const u32 *puiTnl)
{
    for (const auto &kv : fake::Db()) {
        u8 ucList = puiTnl == nullptr ? TBDL_DBM_KEY_BND : TBDL_DBM_KEY_MEMB;
        if (kv.first[0] != ucList ||
            (puiTnl != nullptr && TBDL_DBM_MembKeyBndNum(kv.first.data(), static_cast<u32>(kv.first.size())) != uiBnd)) {
            continue;
        }
        std::set<u32> set = SortWords(kv.second, puiTnl == nullptr ? TBDL_DBM_BND_SORT_OFFSET : TBDL_DBM_MEMB_SORT_OFFSET);
        if (set.count(puiTnl == nullptr ? uiBnd : *puiTnl) != 0) {
            return true;
        }
    }
    return false;
}

/* Walks the table; returns the bundle numbers found. */
std::set<u32> CheckTable()
{
    std::set<u32> setBnd;
    size_t ulMembers = 0;
    TBDL_MEMB_INFO_S astMemb[TBDL_SNAPSHOT_MEMB_MAX];
    TBDL_BND_INFO_S stInfo;
    TBDL_BND_InitSnapshot(&stInfo, astMemb);
    for (u32 uiRet = TBDL_BND_GetFirstBndInfo(&stInfo); uiRet == TBDL_OK;) {
        Check(stInfo.uiBndNum < kMaxBnd, "bundle numbers stay below the table's size");
        Check((stInfo.ucMode & (TBDL_MODE_LOADBALANCING | 2u)) != 0, "only enabled modes");
        u32 uiLimit = stInfo.ucMode == TBDL_MODE_LOADBALANCING ? kMaxMemb : 2;
        Check(stInfo.usMembNum <= uiLimit, "no more members than the mode takes");
        Check(IsStored(stInfo.uiBndNum, nullptr), "a restored bundle is stored");
        for (u32 i = 0; i < stInfo.usMembNum; i++) {
            auto it = fake::PrivateData().find(astMemb[i].uiIfIndex);
            Check(it != fake::PrivateData().end(), "member without private data");
            Check(static_cast<TBDL_INTF_PD_S *>(it->second)->uiBndNum == stInfo.uiBndNum,
                  "private data names the bundle");
            const fake::Interface *pIf = fake::FindInterface(astMemb[i].uiIfIndex);
            Check(pIf != nullptr && IsStored(stInfo.uiBndNum, &pIf->number), "a bound member is stored");
        }
        ulMembers += stInfo.usMembNum;
        setBnd.insert(stInfo.uiBndNum);
        u32 uiBnd = stInfo.uiBndNum;
        TBDL_BND_InitSnapshot(&stInfo, astMemb);
        uiRet = TBDL_BND_GetNextBndInfo(uiBnd, &stInfo);
    }
    Check(setBnd.size() == g_stTbdlGlobalVar.uiBndCnt, "the bundle count counts the bundles");
    Check(ulMembers == fake::PrivateData().size(), "private data without a member");
    return setBnd;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize)
{
    if (ulSize < 1) {
        return 0;
    }
    SetUp(pucData[0]);
    bool bProper = Store(pucData + 1, ulSize - 1);

    TBDL_CFG_Recovery();
    TBDL_BND_RefreshBnd();

    std::set<u32> setBnd = CheckTable();
    if (bProper && kFailures[(pucData[0] >> 1) & 7u].pcName == nullptr) {
        Check(StoredBundles() == setBnd, "every stored bundle is restored or deleted");
    }
    TearDown();
    return 0;
}
