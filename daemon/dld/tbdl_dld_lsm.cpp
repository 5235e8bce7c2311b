/* The LSM connection: registration as a client protocol, full
 * resynchronisation inside a graceful-restart cycle, and one LSP entry per
 * bundle that has members. */
#include <string.h>

#include "dld/tbdl_dld_priv.h"
#include "plat_bitmap.h"
#include "tbdl_bas.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"

#define TBDL_DLD_ROLE_BACKUP 1u

static u32 tbdl_dld_LsmModeCode(u8 ucMode)
{
    switch (ucMode) {
    case TBDL_MODE_ONETOONE:
        return LSM_LSP_MODE_ONE_TO_ONE;
    case TBDL_MODE_ONEPLUSONE:
        return LSM_LSP_MODE_ONE_PLUS_ONE;
    default:
        return LSM_LSP_MODE_LOAD_BALANCE;
    }
}

static void tbdl_dld_SendLsmGr(i32 iHandle, u32 uiType)
{
    u32 uiRet = LSM_SendGrEvent(iHandle, uiType);
    TBDL_DBG_Output(TBDL_DBG_EVENT, "Sent smooth (Type: %u) event to LSM. Result: %lu.\r\n", uiType,
                    (unsigned long)uiRet);
}

/* LSM delivers its messages to this handler; the module needs none. */
u32 tbdl_dld_LsmMsgHandler(u32 uiArg, void *pvMsg, u32 uiLen)
{
    (void)pvMsg;
    (void)uiLen;
    return uiArg;
}

/* Entry key and the pointers to the path array and attribute block. */
static void tbdl_dld_FillLspKey(u32 uiIfIndex, const TBDL_BND_INFO_S *pstInfo, TBDL_DLD_LSP_ENTRY_S *pstEntry,
                                TBDL_DLD_LSP_PATH_S *pstPaths, TBDL_DLD_LSP_ATTR_S *pstAttr)
{
    pstEntry->stKey.usKeyType = LSM_LSP_KEY_TYPE;
    pstEntry->stKey.uiIfIndex = uiIfIndex;
    memcpy(pstEntry->stKey.aucAddr, pstInfo->stAddr.aucAddr, sizeof(pstEntry->stKey.aucAddr));
    pstEntry->stKey.usVrfIndex = pstInfo->usVrfIndex;
    pstEntry->pstPaths = pstPaths;
    pstEntry->pstAttr = pstAttr;
}

static void tbdl_dld_FillLspHalf(const TBDL_MEMB_INFO_S *pstMemb, LSM_LSP_HALF_S *pstHalf)
{
    pstHalf->usType = LSM_LSP_PATH_TYPE;
    pstHalf->uiLabel = LSM_LSP_NO_LABEL;
    pstHalf->uiIfIndex = pstMemb->uiIfIndex;
    pstHalf->usWeight = pstMemb->usWeight;
}

/* One member fills path 0 whatever its role. Of several, a role-1 member is
 * path 0's backup half (a later one replaces an earlier one) and every
 * other member the primary half of the next path. Returns the path count. */
static u16 tbdl_dld_FillLspPaths(const TBDL_BND_INFO_S *pstInfo, TBDL_DLD_LSP_PATH_S *pstPaths)
{
    const TBDL_MEMB_INFO_S *pstMemb = pstInfo->pstMembInfo;
    u16 usPaths = 0;

    if (pstInfo->usMembNum == 1) {
        tbdl_dld_FillLspHalf(&pstMemb[0], &pstPaths[0].stPrimary);
        return 1;
    }
    for (u16 usIdx = 0; usIdx < pstInfo->usMembNum && usIdx < TBDL_SNAPSHOT_MEMB_MAX; usIdx++) {
        if (pstMemb[usIdx].ucRole == TBDL_DLD_ROLE_BACKUP) {
            tbdl_dld_FillLspHalf(&pstMemb[usIdx], &pstPaths[0].stBackup);
            pstPaths[0].stPrimary.usFlags = LSM_LSP_FLAG_HAS_BACKUP;
            continue;
        }
        tbdl_dld_FillLspHalf(&pstMemb[usIdx], &pstPaths[usPaths].stPrimary);
        usPaths++;
    }
    return usPaths;
}

void tbdl_dld_BuildLspEntry(const TBDL_BND_INFO_S *pstInfo, TBDL_DLD_LSP_ENTRY_S *pstEntry,
                            TBDL_DLD_LSP_PATH_S *pstPaths, TBDL_DLD_LSP_ATTR_S *pstAttr)
{
    u32 uiMode = tbdl_dld_LsmModeCode(pstInfo->ucMode);

    memset(pstEntry, 0, sizeof(*pstEntry));
    memset(pstPaths, 0, sizeof(TBDL_DLD_LSP_PATH_S) * LSM_LSP_PATH_MAX);
    memset(pstAttr, 0, sizeof(*pstAttr));
    pstEntry->uiMode = uiMode;
    pstEntry->uiProtocol = TBDL_DLD_LSM_PROTOCOL;
    tbdl_dld_FillLspKey(pstInfo->uiIfIndex, pstInfo, pstEntry, pstPaths, pstAttr);
    pstEntry->uiLabel = LSM_LSP_NO_LABEL;
    pstAttr->uiIfIndex = pstInfo->uiIfIndex;
    pstAttr->usOne = LSM_LSP_ATTR_ONE;
    pstAttr->usMode = (u16)uiMode;
    pstAttr->ucFlag = LSM_LSP_ATTR_FLAG;
    if (pstInfo->pstMembInfo != NULL && pstInfo->usMembNum != 0) {
        pstEntry->usPathNum = tbdl_dld_FillLspPaths(pstInfo, pstPaths);
    }
}

u32 tbdl_dld_AddLspEntry(const TBDL_BND_INFO_S *pstInfo)
{
    TBDL_DLD_LSP_ENTRY_S stEntry;
    TBDL_DLD_LSP_PATH_S astPaths[LSM_LSP_PATH_MAX];
    TBDL_DLD_LSP_ATTR_S stAttr;

    tbdl_dld_BuildLspEntry(pstInfo, &stEntry, astPaths, &stAttr);
    u32 uiRet = LSM_AddLspEntry(g_stTbdlDldGVar.aiSockFd[TBDL_DLD_TARGET_LSM], 0, &stEntry, 1, pstInfo->uiIfIndex,
                                LSM_LSP_NO_LABEL);
    if (uiRet == TBDL_OK) {
        TBDL_DBG_Output(TBDL_DBG_EVENT, "Sent bundle update event of tunnel bundle interface %d to LSM.\r\n",
                        (int)pstInfo->uiIfIndex);
    }
    return uiRet;
}

/* The current state is sent: an entry while the bundle has members, else a
 * delete keyed by the ifindex the node was queued with. */
u32 tbdl_dld_Download2Lsm(const TBDL_DLD_NODE_S *pstNode)
{
    TBDL_MEMB_INFO_S astMemb[TBDL_SNAPSHOT_MEMB_MAX];
    TBDL_BND_INFO_S stInfo;

    TBDL_BND_InitSnapshot(&stInfo, astMemb);
    if (TBDL_BND_GetBndInfo(pstNode->uiBndNum, &stInfo) == TBDL_OK && stInfo.usMembNum != 0) {
        return tbdl_dld_AddLspEntry(&stInfo);
    }

    /* A bundle that is gone left the snapshot zero: no address, no VRF. */
    TBDL_DLD_LSP_ENTRY_S stEntry;
    TBDL_DLD_LSP_PATH_S astPaths[LSM_LSP_PATH_MAX];
    TBDL_DLD_LSP_ATTR_S stAttr;
    memset(&stEntry, 0, sizeof(stEntry));
    memset(astPaths, 0, sizeof(astPaths));
    memset(&stAttr, 0, sizeof(stAttr));
    tbdl_dld_FillLspKey(pstNode->uiIfIndex, &stInfo, &stEntry, astPaths, &stAttr);
    u32 uiAddr = 0;
    memcpy(&uiAddr, stEntry.stKey.aucAddr, sizeof(uiAddr));
    u32 uiRet = LSM_DeleteLspEntry(g_stTbdlDldGVar.aiSockFd[TBDL_DLD_TARGET_LSM], 0, &stEntry.stKey,
                                   LSM_LSP_KEY_TYPE, uiAddr);
    if (uiRet == TBDL_OK) {
        TBDL_DBG_Output(TBDL_DBG_EVENT, "Sent bundle delete event of tunnel bundle interface %d to LSM.\r\n",
                        (int)pstNode->uiIfIndex);
    }
    return uiRet;
}

/* Sends the entry of every bundle that has members; a refused entry gets
 * one more try after the batch so far is flushed. */
static void tbdl_dld_SyncLsm(i32 iHandle)
{
    TBDL_MEMB_INFO_S astMemb[TBDL_SNAPSHOT_MEMB_MAX];
    TBDL_BND_INFO_S stInfo;
    u32 uiRet;

    TBDL_BND_InitSnapshot(&stInfo, astMemb);
    uiRet = TBDL_BND_GetFirstBndInfo(&stInfo);
    while (uiRet == TBDL_OK) {
        if (stInfo.usMembNum != 0 && tbdl_dld_AddLspEntry(&stInfo) != TBDL_OK) {
            (void)LSM_FlushLspEntry(iHandle);
            (void)tbdl_dld_AddLspEntry(&stInfo);
        }
        u32 uiBndNum = stInfo.uiBndNum;
        TBDL_BND_InitSnapshot(&stInfo, astMemb);
        uiRet = TBDL_BND_GetNextBndInfo(uiBndNum, &stInfo);
    }
}

u32 tbdl_dld_ConnectLsm(void)
{
    TBDL_DLD_GVAR_S *pstG = &g_stTbdlDldGVar;
    LSM_REG_S stReg;

    memset(&stReg, 0, sizeof(stReg));
    stReg.uiProtocol = TBDL_DLD_LSM_PROTOCOL;
    i32 iHandle = LSM_RegProtocolHandler(&stReg, tbdl_dld_LsmMsgHandler, TBDL_DLD_LSM_PROTOCOL);
    if (iHandle == TBDL_INVALID_FD) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to register to LSM.\r\n");
        return TBDL_E_FAILED;
    }
    TBDL_EPOLL_CB_S stCb = {TBDL_DLD_EPOLL_WATCH_OFF, (u64)(i64)iHandle, tbdl_dld_LsmSockCb};
    if (TBDL_BAS_EpollCtl(pstG->iEpollFd, EPOLL_CTL_ADD, iHandle, &stCb) != 0) {
        (void)LSM_DeregProtocolHandler(iHandle);
        return TBDL_E_FAILED;
    }
    pstG->aiSockFd[TBDL_DLD_TARGET_LSM] = iHandle;
    tbdl_dld_SendLsmGr(iHandle, LSM_GR_BEGIN);
    tbdl_dld_SyncLsm(iHandle);
    (void)LSM_FlushLspEntry(iHandle);
    tbdl_dld_SendLsmGr(iHandle, LSM_GR_END);
    return TBDL_OK;
}

/* With usWithdraw 1 an empty graceful-restart cycle first makes LSM drop
 * every entry of this protocol. */
void tbdl_dld_DisconnectLsm(u16 usWithdraw)
{
    TBDL_DLD_GVAR_S *pstG = &g_stTbdlDldGVar;
    i32 iHandle = pstG->aiSockFd[TBDL_DLD_TARGET_LSM];

    if (iHandle != TBDL_INVALID_FD) {
        if (usWithdraw == 1) {
            tbdl_dld_SendLsmGr(iHandle, LSM_GR_BEGIN);
            tbdl_dld_SendLsmGr(iHandle, LSM_GR_END);
        }
        (void)TBDL_BAS_EpollCtl(pstG->iEpollFd, EPOLL_CTL_DEL, iHandle, NULL);
        (void)LSM_DeregProtocolHandler(iHandle);
        pstG->aiSockFd[TBDL_DLD_TARGET_LSM] = TBDL_INVALID_FD;
    }
    tbdl_dld_FreeDldList(TBDL_DLD_TARGET_LSM);
}
