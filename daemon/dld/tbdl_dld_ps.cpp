/* The PS connection: the library loaded at run time, registration, full
 * resynchronisation between two smooth events, and the update, delete and
 * smooth messages. */
#include <arpa/inet.h>
#include <dlfcn.h>
#include <string.h>

#include "dld/tbdl_dld_priv.h"
#include "plat_bitmap.h"
#include "plat_ps.h"
#include "plat_stlv.h"
#include "tbdl_bas.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"
#include "tbdl_ps_msg.h"

#define TBDL_DLD_PS_BND_MSG_LEN ((u16)sizeof(TBDL_PS_BND_MSG_S))

/* Entry points of the PS library, looked up anew at each use. */
static PS_REGISTER_PF tbdl_dld_PsRegisterFn(void)
{
    if (g_stTbdlDldGVar.pvPsLib == NULL) {
        return NULL;
    }
    return (PS_REGISTER_PF)dlsym(g_stTbdlDldGVar.pvPsLib, "PS_Register");
}

static PS_DEREGISTER_PF tbdl_dld_PsDeregisterFn(void)
{
    if (g_stTbdlDldGVar.pvPsLib == NULL) {
        return NULL;
    }
    return (PS_DEREGISTER_PF)dlsym(g_stTbdlDldGVar.pvPsLib, "PS_Deregister");
}

/* Header in front of a TLV already written at pucBuf + 4. */
static u16 tbdl_dld_SetPsHead(u8 *pucBuf, u16 usType, u32 uiTlvLen)
{
    TBDL_PS_MSG_HEAD_S stHead;
    stHead.usMsgType = htons(usType);
    stHead.usLen = htons((u16)uiTlvLen);
    memcpy(pucBuf, &stHead, sizeof(stHead));
    return (u16)(TBDL_PS_MSG_HEAD_LEN + uiTlvLen);
}

static u32 tbdl_dld_SendResult(ssize_t lSent)
{
    return (lSent > 0) ? TBDL_OK : TBDL_E_FAILED;
}

u16 tbdl_dld_EncSmoothMsg(u8 *pucBuf, u32 uiType)
{
    u32 uiValue = htonl(uiType);
    u32 uiTlvLen = STLV_Set(pucBuf + TBDL_PS_MSG_HEAD_LEN, TBDL_PS_MSG_BUF_LEN - TBDL_PS_MSG_HEAD_LEN,
                            TBDL_PS_TLV_SMOOTH, sizeof(uiValue), &uiValue);
    return tbdl_dld_SetPsHead(pucBuf, TBDL_PS_MSG_SMOOTH, uiTlvLen);
}

void tbdl_dld_SendPsSmooth(u32 uiType)
{
    u8 aucBuf[TBDL_PS_MSG_BUF_LEN];

    memset(aucBuf, 0, sizeof(aucBuf));
    u16 usLen = tbdl_dld_EncSmoothMsg(aucBuf, uiType);
    ssize_t lSent = tbdl_dld_Send(g_stTbdlDldGVar.aiSockFd[TBDL_DLD_TARGET_PS], aucBuf, usLen);
    TBDL_DBG_Output(TBDL_DBG_EVENT, "Sent smooth (Type: %u) event to PS. Result: %lu.\r\n", uiType,
                    (unsigned long)tbdl_dld_SendResult(lSent));
}

/* The working member (role 0) and the protection member of a pair. */
u16 tbdl_dld_EncAddMsg(u16 usRoom, u8 *pucBuf, const TBDL_BND_INFO_S *pstInfo)
{
    TBDL_PS_BND_VAL_S stVal;

    if (usRoom < TBDL_DLD_PS_BND_MSG_LEN) {
        return 0;
    }
    memset(&stVal, 0, sizeof(stVal));
    stVal.uiBndNum = htonl(pstInfo->uiBndNum);
    stVal.ucProtKind = (pstInfo->ucMode == TBDL_MODE_ONEPLUSONE) ? TBDL_PS_PROT_ONE_PLUS_ONE : TBDL_PS_PROT_ONE_TO_ONE;
    for (u32 uiIdx = 0; uiIdx < 2; uiIdx++) {
        const TBDL_MEMB_INFO_S *pstMemb = &pstInfo->pstMembInfo[uiIdx];
        u8 ucUp = (pstMemb->ucState == 1) ? 1 : 0;
        if (pstMemb->ucRole == 0) {
            stVal.uiWorkIfIndex = htonl(pstMemb->uiIfIndex);
            stVal.ucWorkUp = ucUp;
        } else {
            stVal.uiProtIfIndex = htonl(pstMemb->uiIfIndex);
            stVal.ucProtUp = ucUp;
        }
    }
    memcpy(pucBuf + offsetof(TBDL_PS_BND_MSG_S, stVal), &stVal, sizeof(stVal));
    u32 uiTlvLen = STLV_Set(pucBuf + TBDL_PS_MSG_HEAD_LEN, (u32)usRoom - TBDL_PS_MSG_HEAD_LEN, TBDL_PS_TLV_BND,
                            sizeof(stVal), NULL);
    if (uiTlvLen == 0) {
        return 0;
    }
    return tbdl_dld_SetPsHead(pucBuf, TBDL_PS_MSG_BND_UPDATE, uiTlvLen);
}

u16 tbdl_dld_EncDelMsg(u8 *pucBuf, u32 uiBndNum)
{
    TBDL_PS_BND_VAL_S stVal;

    memset(&stVal, 0, sizeof(stVal));
    stVal.uiBndNum = htonl(uiBndNum);
    u32 uiTlvLen = STLV_Set(pucBuf + TBDL_PS_MSG_HEAD_LEN, TBDL_PS_MSG_BUF_LEN - TBDL_PS_MSG_HEAD_LEN,
                            TBDL_PS_TLV_BND, sizeof(stVal), &stVal);
    return tbdl_dld_SetPsHead(pucBuf, TBDL_PS_MSG_BND_DELETE, uiTlvLen);
}

static bool tbdl_dld_IsPsPair(const TBDL_BND_INFO_S *pstInfo)
{
    return pstInfo->ucMode != TBDL_MODE_LOADBALANCING && pstInfo->usMembNum == 2;
}

/* Updates of every protection pair, packed into sends of at most 1500
 * bytes, between a smooth begin and a smooth end. */
u32 tbdl_dld_SyncPs(void)
{
    i32 iFd = g_stTbdlDldGVar.aiSockFd[TBDL_DLD_TARGET_PS];
    u8 aucBuf[TBDL_PS_SEND_MAX];
    TBDL_MEMB_INFO_S astMemb[TBDL_SNAPSHOT_MEMB_MAX];
    TBDL_BND_INFO_S stInfo;
    u16 usPos = 0;
    u32 uiSum = 0;

    tbdl_dld_SendPsSmooth(TBDL_PS_SMOOTH_BEGIN);
    memset(aucBuf, 0, sizeof(aucBuf));
    TBDL_BND_InitSnapshot(&stInfo, astMemb);
    u32 uiRet = TBDL_BND_GetFirstBndInfo(&stInfo);
    while (uiRet == TBDL_OK) {
        if (tbdl_dld_IsPsPair(&stInfo)) {
            u16 usLen = tbdl_dld_EncAddMsg((u16)(TBDL_PS_SEND_MAX - usPos), aucBuf + usPos, &stInfo);
            if (usLen == 0) {
                uiSum += (u32)tbdl_dld_Send(iFd, aucBuf, usPos);
                usPos = 0;
                usLen = tbdl_dld_EncAddMsg(TBDL_PS_SEND_MAX, aucBuf, &stInfo);
            }
            usPos = (u16)(usPos + usLen);
        }
        u32 uiBndNum = stInfo.uiBndNum;
        TBDL_BND_InitSnapshot(&stInfo, astMemb);
        uiRet = TBDL_BND_GetNextBndInfo(uiBndNum, &stInfo);
    }
    if (usPos != 0) {
        uiSum += (u32)tbdl_dld_Send(iFd, aucBuf, usPos);
    }
    tbdl_dld_SendPsSmooth(TBDL_PS_SMOOTH_END);
    return uiSum;
}

u32 tbdl_dld_Download2Ps(const TBDL_DLD_NODE_S *pstNode)
{
    TBDL_MEMB_INFO_S astMemb[TBDL_SNAPSHOT_MEMB_MAX];
    TBDL_BND_INFO_S stInfo;
    u8 aucBuf[TBDL_PS_MSG_BUF_LEN];
    u16 usLen;

    TBDL_BND_InitSnapshot(&stInfo, astMemb);
    memset(aucBuf, 0, sizeof(aucBuf));
    if (TBDL_BND_GetBndInfo(pstNode->uiBndNum, &stInfo) == TBDL_OK && tbdl_dld_IsPsPair(&stInfo)) {
        usLen = tbdl_dld_EncAddMsg(TBDL_PS_MSG_BUF_LEN, aucBuf, &stInfo);
        TBDL_DBG_Output(TBDL_DBG_EVENT, "Sent bundle update event of tunnel bundle interface %d to PS.\r\n",
                        (int)pstNode->uiIfIndex);
    } else {
        usLen = tbdl_dld_EncDelMsg(aucBuf, pstNode->uiBndNum);
        TBDL_DBG_Output(TBDL_DBG_EVENT, "Sent bundle delete event of tunnel bundle interface %d to PS.\r\n",
                        (int)pstNode->uiIfIndex);
    }
    return tbdl_dld_SendResult(tbdl_dld_Send(g_stTbdlDldGVar.aiSockFd[TBDL_DLD_TARGET_PS], aucBuf, usLen));
}

u32 tbdl_dld_ConnectPs(void)
{
    PS_REGISTER_PF pfnRegister = tbdl_dld_PsRegisterFn();
    PS_DEREGISTER_PF pfnDeregister = tbdl_dld_PsDeregisterFn();

    if (pfnRegister == NULL || pfnDeregister == NULL) {
        return TBDL_E_FAILED;
    }
    i32 iFd = pfnRegister(0);
    if (iFd == TBDL_INVALID_FD) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to register to PS.\r\n");
        return TBDL_E_FAILED;
    }
    TBDL_EPOLL_CB_S stCb = {TBDL_DLD_EPOLL_ERRHUP, (u64)(i64)iFd, tbdl_dld_PsSockCb};
    if (TBDL_BAS_EpollCtl(g_stTbdlDldGVar.iEpollFd, EPOLL_CTL_ADD, iFd, &stCb) != 0) {
        pfnDeregister(iFd);
        return TBDL_E_FAILED;
    }
    g_stTbdlDldGVar.aiSockFd[TBDL_DLD_TARGET_PS] = iFd;
    (void)tbdl_dld_SyncPs();
    return TBDL_OK;
}

/* With usWithdraw 1 an empty smoothing cycle first makes PS drop every
 * pair this module gave it. */
void tbdl_dld_DisconnectPs(u16 usWithdraw)
{
    TBDL_DLD_GVAR_S *pstG = &g_stTbdlDldGVar;
    PS_DEREGISTER_PF pfnDeregister = tbdl_dld_PsDeregisterFn();

    if (pfnDeregister == NULL) {
        return;
    }
    i32 iFd = pstG->aiSockFd[TBDL_DLD_TARGET_PS];
    if (iFd != TBDL_INVALID_FD) {
        if (usWithdraw == 1) {
            tbdl_dld_SendPsSmooth(TBDL_PS_SMOOTH_BEGIN);
            tbdl_dld_SendPsSmooth(TBDL_PS_SMOOTH_END);
        }
        (void)TBDL_BAS_EpollCtl(pstG->iEpollFd, EPOLL_CTL_DEL, iFd, NULL);
        pfnDeregister(iFd);
        pstG->aiSockFd[TBDL_DLD_TARGET_PS] = TBDL_INVALID_FD;
    }
    tbdl_dld_FreeDldList(TBDL_DLD_TARGET_PS);
}
