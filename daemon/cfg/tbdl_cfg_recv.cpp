/* Connections of the configuration channel: accept, receive one request
 * per receive, check its framing, dispatch it to the handler table of its
 * class and send the reply on the same connection. */
#include <arpa/inet.h>
#include <errno.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "cfg/tbdl_cfg_priv.h"
#include "tbdl_bas.h"
#include "tbdl_dbg.h"
#include "tbdl_intf.h"

static void tbdl_cfg_CloseConn(i32 iFd)
{
    if (g_stTbdlCfgGlobalVar.iEpollFd != TBDL_INVALID_FD) {
        (void)TBDL_BAS_EpollCtl(g_stTbdlCfgGlobalVar.iEpollFd, EPOLL_CTL_DEL, iFd, NULL);
    }
    (void)close(iFd);
}

/* Sends a whole buffer once; an interrupted send is tried again, a short
 * one is not completed. Returns false when nothing could be sent. */
static bool tbdl_cfg_Send(i32 iFd, const void *pBuf, size_t ulLen)
{
    ssize_t lSent;
    do {
        lSent = send(iFd, pBuf, ulLen, 0);
    } while (lSent < 0 && errno == EINTR);
    return lSent > 0;
}

static void tbdl_cfg_EncodeHead(u8 *pucOut, u16 usMsgClass, u16 usDataLen, u32 uiResult,
                                u16 usMsgType, u16 usOper)
{
    TBDL_CFG_MSG_HEAD_S stHead;
    stHead.usMsgClass = htons(usMsgClass);
    stHead.usDataLen = htons(usDataLen);
    stHead.uiResult = htonl(uiResult);
    stHead.usMsgType = htons(usMsgType);
    stHead.usOper = htons(usOper);
    memcpy(pucOut, &stHead, sizeof(stHead));
}

void tbdl_cfg_SendResponse(i32 iFd, u16 usMsgType, u16 usOper, u32 uiResult)
{
    u8 aucHead[TBDL_CFG_MSG_HEAD_LEN];

    if (iFd == TBDL_INVALID_FD) {
        return;
    }
    tbdl_cfg_EncodeHead(aucHead, TBDL_CFG_MSG_CONFIG, 0, uiResult, usMsgType, usOper);
    if (!tbdl_cfg_Send(iFd, aucHead, sizeof(aucHead))) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to send configuration response message.\r\n");
    }
}

static void tbdl_cfg_ProcConfig(i32 iFd, const TBDL_CFG_MSG_HEAD_S *pstHead, const u8 *pucPayload)
{
    TBDL_CFG_HANDLER_PF pfnHandler = tbdl_cfg_GetCfgHandler(pstHead->usMsgType);
    if (pfnHandler == NULL) {
        tbdl_cfg_SendResponse(iFd, pstHead->usMsgType, pstHead->usOper, TBDL_E_INVALID_MSG);
        return;
    }

    TBDL_CFG_KEY_S stKey;
    /* Handlers read the area as their own records (member configuration,
     * address block), so it is aligned for them. */
    alignas(8) TBDL_CFG_OPER_DATA_S stOperData;
    memset(&stKey, 0, sizeof(stKey));
    memset(&stOperData, 0, sizeof(stOperData));
    u16 usOperType = tbdl_cfg_ParseCfgTlvs(pucPayload, pstHead->usDataLen, &stKey, &stOperData);

    u16 usUndo = (pstHead->usOper == TBDL_CFG_OPER_UNDO) ? 1 : 0;
    if (pstHead->usMsgType == TBDL_CFG_TYPE_BND && usUndo == 1) {
        /* Removing a bundle setting: the member module first lets go of
         * the bundle's members (it acts only on a bundle deletion). */
        (void)TBDL_INTF_Configure(1, &stKey, usOperType, NULL);
    }
    u32 uiResult = pfnHandler(usUndo, &stKey, usOperType, &stOperData);
    tbdl_cfg_SendResponse(iFd, pstHead->usMsgType, pstHead->usOper, uiResult);
}

static void tbdl_cfg_ProcDisplay(i32 iFd, const TBDL_CFG_MSG_HEAD_S *pstHead, const u8 *pucPayload)
{
    TBDL_DISP_HANDLER_PF pfnHandler = tbdl_cfg_GetDispHandler(pstHead->usMsgType);
    if (pfnHandler == NULL) {
        tbdl_cfg_SendResponse(iFd, pstHead->usMsgType, pstHead->usOper, TBDL_E_INVALID_MSG);
        return;
    }

    TBDL_CFG_KEY_S stKey;
    alignas(8) u8 aucReply[TBDL_CFG_DISP_BUF_LEN];
    u16 usOutLen = 0;
    memset(&stKey, 0, sizeof(stKey));
    tbdl_cfg_ParseDispTlvs(pucPayload, pstHead->usDataLen, &stKey);

    u32 uiResult = pfnHandler(pstHead->usOper, &stKey, (u16)TBDL_CFG_DISP_TLV_ROOM,
                              aucReply + TBDL_CFG_MSG_HEAD_LEN, &usOutLen);
    if (usOutLen > TBDL_CFG_DISP_TLV_ROOM) {
        usOutLen = (u16)TBDL_CFG_DISP_TLV_ROOM;
    }
    tbdl_cfg_EncodeHead(aucReply, TBDL_CFG_MSG_DISPLAY, usOutLen, uiResult, pstHead->usMsgType,
                        pstHead->usOper);
    if (!tbdl_cfg_Send(iFd, aucReply, (size_t)usOutLen + TBDL_CFG_MSG_HEAD_LEN)) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to send display response message.\r\n");
    }
}

void tbdl_cfg_ProcRequest(i32 iFd, const u8 *pucMsg, u32 uiLen)
{
    if (uiLen < TBDL_CFG_MSG_HEAD_LEN) {
        tbdl_cfg_SendResponse(iFd, 0, 0, TBDL_E_INVALID_MSG);
        return;
    }

    TBDL_CFG_MSG_HEAD_S stHead;
    memcpy(&stHead, pucMsg, sizeof(stHead));
    stHead.usMsgClass = ntohs(stHead.usMsgClass);
    stHead.usDataLen = ntohs(stHead.usDataLen);
    stHead.usMsgType = ntohs(stHead.usMsgType);
    stHead.usOper = ntohs(stHead.usOper);

    /* One receive is one request: the payload must be exactly what the
     * header announces. */
    if (stHead.usMsgClass > TBDL_CFG_MSG_DISPLAY ||
        (u32)stHead.usDataLen != uiLen - TBDL_CFG_MSG_HEAD_LEN) {
        tbdl_cfg_SendResponse(iFd, stHead.usMsgType, stHead.usOper, TBDL_E_INVALID_MSG);
        return;
    }

    const u8 *pucPayload = pucMsg + TBDL_CFG_MSG_HEAD_LEN;
    if (stHead.usMsgClass == TBDL_CFG_MSG_CONFIG) {
        tbdl_cfg_ProcConfig(iFd, &stHead, pucPayload);
    } else {
        tbdl_cfg_ProcDisplay(iFd, &stHead, pucPayload);
    }
}

u32 tbdl_cfg_Accept(u32 uiEvents, u64 ulData)
{
    /* An error or hang-up on the listening socket is not acted on. */
    if ((uiEvents & EPOLLIN) == 0) {
        return TBDL_OK;
    }

    /* Connections are non-blocking: a peer that sends requests and never
     * reads its replies fills its receive queue, and a reply that cannot be
     * queued is then logged as not sent instead of stopping the loop. */
    i32 iConn = tbdl_cfg_AcceptConn((i32)ulData);
    if (iConn < 0) {
        return TBDL_E_FAILED;
    }

    TBDL_EPOLL_CB_S stCb = {TBDL_EPOLL_IN_ERRHUP, (u64)iConn, tbdl_cfg_RecvMsg};
    if (TBDL_BAS_EpollCtl(g_stTbdlCfgGlobalVar.iEpollFd, EPOLL_CTL_ADD, iConn, &stCb) != 0) {
        (void)close(iConn);
        return TBDL_E_FAILED;
    }
    return TBDL_OK;
}

u32 tbdl_cfg_RecvMsg(u32 uiEvents, u64 ulData)
{
    i32 iFd = (i32)ulData;

    if ((uiEvents & EPOLLIN) != 0) {
        alignas(8) u8 aucMsg[TBDL_CFG_RECV_BUF_LEN];
        ssize_t lLen = recv(iFd, aucMsg, sizeof(aucMsg), MSG_DONTWAIT);
        if (lLen <= 0) {
            tbdl_cfg_CloseConn(iFd);
            return TBDL_OK;
        }
        /* Not listening (standby, or deactivated): the request is dropped
         * without a reply. */
        if (g_stTbdlCfgGlobalVar.iListenFd != TBDL_INVALID_FD) {
            tbdl_cfg_ProcRequest(iFd, aucMsg, (u32)lLen);
        }
    }

    if ((uiEvents & (EPOLLERR | EPOLLHUP)) != 0) {
        tbdl_cfg_CloseConn(iFd);
    }
    return TBDL_OK;
}
