/* Per-target queues of changed bundles. A change sets the bundle's bit and
 * puts a node at the head of the target's list, and switches on write
 * interest on the target's connection; the writable event drains the whole
 * list. Nothing is queued for a target that is not connected: its
 * reconnection resends the whole table. */
#include <errno.h>
#include <sys/socket.h>

#include "dld/tbdl_dld_priv.h"
#include "plat_bitmap.h"
#include "tbdl_bas.h"
#include "tbdl_dbg.h"
#include "tbdl_ps_msg.h"

typedef u32 (*TBDL_DLD_DOWNLOAD_PF)(const TBDL_DLD_NODE_S *pstNode);

u32 tbdl_dld_AddDldNode(u32 uiTarget, u32 uiBndNum, const u32 *puiIfIndex)
{
    TBDL_DLD_GVAR_S *pstG = &g_stTbdlDldGVar;

    /* Already queued: the node keeps its place and its ifindex. */
    if (Bitmap_Check(pstG->apvBitmap[uiTarget], uiBndNum) == 1) {
        return 1;
    }
    if (pstG->apstDldList[uiTarget] == NULL) {
        u32 uiRet = tbdl_dld_SetWriteWatch(1, uiTarget);
        if (uiRet != TBDL_OK) {
            return uiRet;
        }
    }
    TBDL_DLD_NODE_S *pstNode = (TBDL_DLD_NODE_S *)TBDL_BAS_Zalloc(sizeof(TBDL_DLD_NODE_S));
    if (pstNode == NULL) {
        return TBDL_OK;
    }
    pstNode->uiIfIndex = *puiIfIndex;
    pstNode->uiBndNum = uiBndNum;
    pstNode->pstNext = pstG->apstDldList[uiTarget];
    if (pstNode->pstNext != NULL) {
        pstNode->pstNext->ppstPrev = &pstNode->pstNext;
    }
    pstNode->ppstPrev = &pstG->apstDldList[uiTarget];
    pstG->apstDldList[uiTarget] = pstNode;
    return Bitmap_Set(pstG->apvBitmap[uiTarget], uiBndNum);
}

u32 tbdl_dld_SetWriteWatch(u16 usOn, u32 uiTarget)
{
    i32 iFd = g_stTbdlDldGVar.aiSockFd[uiTarget];

    if (iFd == TBDL_INVALID_FD) {
        return TBDL_E_FAILED;
    }
    TBDL_EPOLL_CB_S stCb;
    stCb.uiEvents = (usOn == 1) ? TBDL_DLD_EPOLL_WATCH_ON : TBDL_DLD_EPOLL_WATCH_OFF;
    stCb.ulData = (u64)(i64)iFd;
    stCb.pfnCallback = (uiTarget == TBDL_DLD_TARGET_PS) ? tbdl_dld_PsSockCb : tbdl_dld_LsmSockCb;
    if (TBDL_BAS_EpollCtl(g_stTbdlDldGVar.iEpollFd, EPOLL_CTL_MOD, iFd, &stCb) != 0) {
        return TBDL_E_FAILED;
    }
    return TBDL_OK;
}

static void tbdl_dld_UnlinkNode(TBDL_DLD_NODE_S *pstNode)
{
    *pstNode->ppstPrev = pstNode->pstNext;
    if (pstNode->pstNext != NULL) {
        pstNode->pstNext->ppstPrev = pstNode->ppstPrev;
    }
    TBDL_BAS_Free(pstNode);
}

void tbdl_dld_FreeDldList(u32 uiTarget)
{
    TBDL_DLD_GVAR_S *pstG = &g_stTbdlDldGVar;

    while (pstG->apstDldList[uiTarget] != NULL) {
        tbdl_dld_UnlinkNode(pstG->apstDldList[uiTarget]);
    }
    if (pstG->apvBitmap[uiTarget] != NULL) {
        Bitmap_Zero(pstG->apvBitmap[uiTarget]);
    }
}

/* Downloads from the head until the list is empty or a download fails; a
 * failed node and those after it stay queued, and the write interest stays
 * on so that the next writable event retries. LSM delivers its batch with
 * one flush after a complete drain. */
static void tbdl_dld_Drain(u32 uiTarget, TBDL_DLD_DOWNLOAD_PF pfnDownload)
{
    TBDL_DLD_GVAR_S *pstG = &g_stTbdlDldGVar;
    TBDL_DLD_NODE_S *pstNode = pstG->apstDldList[uiTarget];

    while (pstNode != NULL) {
        TBDL_DLD_NODE_S *pstNext = pstNode->pstNext;
        if (pfnDownload(pstNode) != TBDL_OK) {
            break;
        }
        (void)Bitmap_Clear(pstG->apvBitmap[uiTarget], pstNode->uiBndNum);
        tbdl_dld_UnlinkNode(pstNode);
        if (uiTarget == TBDL_DLD_TARGET_LSM && pstNext == NULL &&
            LSM_FlushLspEntry(pstG->aiSockFd[TBDL_DLD_TARGET_LSM]) != 0) {
            TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to flush to LSM.\r\n");
        }
        pstNode = pstNext;
    }
    if (pstG->apstDldList[uiTarget] == NULL) {
        (void)tbdl_dld_SetWriteWatch(0, uiTarget);
    }
}

void tbdl_dld_ProcLsmDldNode(void)
{
    tbdl_dld_Drain(TBDL_DLD_TARGET_LSM, tbdl_dld_Download2Lsm);
}

void tbdl_dld_ProcPsDldNode(void)
{
    tbdl_dld_Drain(TBDL_DLD_TARGET_PS, tbdl_dld_Download2Ps);
}

u32 tbdl_dld_StartReconnTimer(u32 uiTarget)
{
    TBDL_DLD_GVAR_S *pstG = &g_stTbdlDldGVar;

    if (pstG->aiTimerFd[uiTarget] != TBDL_INVALID_FD) {
        return TBDL_OK;
    }
    i32 iFd = TBDL_BAS_StartTimer((u32)pstG->iEpollFd, tbdl_dld_ReconnTimerCb, TBDL_DLD_RECONN_MS, uiTarget);
    if (iFd == TBDL_INVALID_FD) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to start reconnect timer.\r\n");
        return TBDL_E_FAILED;
    }
    pstG->aiTimerFd[uiTarget] = iFd;
    return TBDL_OK;
}

void tbdl_dld_StopReconnTimer(u32 uiTarget)
{
    TBDL_DLD_GVAR_S *pstG = &g_stTbdlDldGVar;

    if (pstG->aiTimerFd[uiTarget] != TBDL_INVALID_FD) {
        TBDL_BAS_StopTimer((u32)pstG->iEpollFd, pstG->aiTimerFd[uiTarget]);
        pstG->aiTimerFd[uiTarget] = TBDL_INVALID_FD;
    }
}

/* Retries the connection every period until it succeeds, then stops. */
u32 tbdl_dld_ReconnTimerCb(u32 uiEvents, u64 ulData)
{
    u32 uiTarget = (u32)ulData;

    if (uiTarget >= TBDL_DLD_TARGET_NUM ||
        TBDL_BAS_TIMERFD_Read(uiEvents, g_stTbdlDldGVar.aiTimerFd[uiTarget]) != TBDL_OK) {
        return TBDL_E_FAILED;
    }
    u32 uiRet = (uiTarget == TBDL_DLD_TARGET_LSM) ? tbdl_dld_ConnectLsm() : tbdl_dld_ConnectPs();
    if (uiRet == TBDL_OK) {
        tbdl_dld_StopReconnTimer(uiTarget);
    }
    return uiRet;
}

u32 tbdl_dld_LsmSockCb(u32 uiEvents, u64 ulData)
{
    i32 iHandle = g_stTbdlDldGVar.aiSockFd[TBDL_DLD_TARGET_LSM];

    if (iHandle == TBDL_INVALID_FD || (i32)ulData != iHandle) {
        return TBDL_E_FAILED;
    }
    if ((uiEvents & TBDL_EPOLL_IN) != 0) {
        (void)LSM_HandleMsg(iHandle);
    }
    if ((uiEvents & TBDL_DLD_EPOLL_ERRHUP) != 0) {
        tbdl_dld_DisconnectLsm(0);
        (void)tbdl_dld_StartReconnTimer(TBDL_DLD_TARGET_LSM);
    } else if ((uiEvents & TBDL_DLD_EPOLL_OUT) != 0) {
        tbdl_dld_ProcLsmDldNode();
    }
    return TBDL_OK;
}

/* PS is not expected to send anything; whatever arrives anyway is read and
 * dropped so that the readable descriptor does not wake the loop again and
 * again. */
static void tbdl_dld_DiscardPsInput(i32 iFd)
{
    u8 aucScratch[TBDL_PS_MSG_BUF_LEN];

    while (recv(iFd, aucScratch, sizeof(aucScratch), MSG_DONTWAIT) > 0) {
    }
}

u32 tbdl_dld_PsSockCb(u32 uiEvents, u64 ulData)
{
    if ((uiEvents & TBDL_EPOLL_IN) != 0) {
        tbdl_dld_DiscardPsInput((i32)ulData);
    }
    if ((uiEvents & TBDL_DLD_EPOLL_ERRHUP) != 0) {
        tbdl_dld_DisconnectPs(0);
        (void)tbdl_dld_StartReconnTimer(TBDL_DLD_TARGET_PS);
    } else if ((uiEvents & TBDL_DLD_EPOLL_OUT) != 0) {
        tbdl_dld_ProcPsDldNode();
    }
    return TBDL_OK;
}

ssize_t tbdl_dld_Send(i32 iFd, const void *pBuf, size_t ulLen)
{
    ssize_t lRet;

    do {
        lRet = send(iFd, pBuf, ulLen, 0);
    } while (lRet == -1 && errno == EINTR);
    return lRet;
}
