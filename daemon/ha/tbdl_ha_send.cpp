/* Master side of the HA backup: encodes backup messages as STLV TLVs into
 * the one MTU-sized buffer, sends the buffer, and sends the whole bundle
 * table when the standby asks for it. A TLV that does not fit makes the
 * buffer go out first, so TLVs are never split and keep their order. */
#include <string.h>

#include "ha/tbdl_ha_priv.h"

#include "plat_ha.h"
#include "plat_stlv.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"

static const TBDL_HA_ENC_PF g_apfTbdlHaEnc[TBDL_HA_MSG_TYPE_MAX + 1] = {
    NULL,
    tbdl_ha_EncBndUpdate,
    tbdl_ha_EncMembAdd,
    tbdl_ha_EncMembDel,
};

/* Appends one TLV to the buffer; TBDL_E_FAILED when it does not fit. */
static u32 tbdl_ha_Append(u16 usType, u16 usLen, const void *pValue)
{
    if (g_stTbdlHaVar.pucMsgBuf == NULL || g_stTbdlHaVar.usMsgLen > g_stTbdlHaVar.usMsgBufSize) {
        return TBDL_E_FAILED;
    }
    u32 uiRoom = (u32)g_stTbdlHaVar.usMsgBufSize - g_stTbdlHaVar.usMsgLen;
    u32 uiWritten = STLV_Set(g_stTbdlHaVar.pucMsgBuf + g_stTbdlHaVar.usMsgLen, uiRoom, usType, usLen,
                             pValue);
    if (uiWritten == 0) {
        return TBDL_E_FAILED;
    }
    g_stTbdlHaVar.usMsgLen = (u16)(g_stTbdlHaVar.usMsgLen + uiWritten);
    return 0;
}

u32 tbdl_ha_EncBndUpdate(const void *pPayload)
{
    TBDL_KBND_S stHost;
    TBDL_KBND_S stWire;
    memcpy(&stHost, pPayload, sizeof(stHost));
    tbdl_ha_BndToWire(&stHost, &stWire);
    return tbdl_ha_Append(TBDL_HA_MSG_BND_UPDATE, TBDL_HA_MSG_BND_UPDATE_LEN, &stWire);
}

static u32 tbdl_ha_EncMemb(u16 usType, const void *pPayload)
{
    TBDL_KMEMB_S stHost;
    TBDL_KMEMB_S stWire;
    memcpy(&stHost, pPayload, sizeof(stHost));
    tbdl_ha_MembToWire(&stHost, &stWire);
    return tbdl_ha_Append(usType, TBDL_HA_MSG_MEMB_LEN, &stWire);
}

u32 tbdl_ha_EncMembAdd(const void *pPayload)
{
    return tbdl_ha_EncMemb(TBDL_HA_MSG_MEMB_ADD, pPayload);
}

u32 tbdl_ha_EncMembDel(const void *pPayload)
{
    return tbdl_ha_EncMemb(TBDL_HA_MSG_MEMB_DEL, pPayload);
}

u32 tbdl_ha_EncMsg(u16 usType, const void *pPayload)
{
    /* Only the master sends backups. */
    if (TBDL_HA_IsMaster() != 1) {
        return 0;
    }
    if (usType == 0 || usType > TBDL_HA_MSG_TYPE_MAX) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, "Invalid HA message type.\r\n");
        return TBDL_E_FAILED;
    }

    TBDL_HA_ENC_PF pfnEnc = g_apfTbdlHaEnc[usType];
    if (pfnEnc(pPayload) == 0) {
        return 0;
    }
    (void)tbdl_ha_SendMsg(0);
    return pfnEnc(pPayload);
}

u32 tbdl_ha_SendMsg(u16 usBatch)
{
    if (g_stTbdlHaVar.usMsgLen == 0) {
        return 0;
    }

    u32 uiFlag = (usBatch == 1) ? TBDL_HA_SEND_BATCH : TBDL_HA_SEND_REALTIME;
    TBDL_DBG_Output(TBDL_DBG_EVENT, "Sent an HA message (Type %d).\r\n", (int)uiFlag);
    /* A failed send is not detected; the buffer is emptied anyway. */
    (void)HA_SendMsgSync(g_stTbdlHaVar.iHaFd, g_stTbdlHaVar.pucMsgBuf, g_stTbdlHaVar.usMsgLen, uiFlag);

    memset(g_stTbdlHaVar.pucMsgBuf, 0, g_stTbdlHaVar.usMsgLen);
    g_stTbdlHaVar.usMsgLen = 0;
    return 0;
}

u32 tbdl_ha_EncBnd(const TBDL_BND_INFO_S *pstInfo)
{
    TBDL_KBND_S stBnd;
    memset(&stBnd, 0, sizeof(stBnd));
    stBnd.stAddr = pstInfo->stAddr;
    stBnd.uiIfIndex = pstInfo->uiIfIndex;
    stBnd.uiTnlMode = pstInfo->ucTnlMode;
    stBnd.uiState = pstInfo->ucState;
    stBnd.usVrfIndex = pstInfo->usVrfIndex;

    u32 uiRet = tbdl_ha_EncBndUpdate(&stBnd);
    if (uiRet != 0) {
        return uiRet;
    }

    u32 uiCount = pstInfo->usMembNum;
    if (uiCount > TBDL_SNAPSHOT_MEMB_MAX) {
        uiCount = TBDL_SNAPSHOT_MEMB_MAX;
    }
    for (u32 i = 0; i < uiCount; i++) {
        TBDL_KMEMB_S stMemb;
        stMemb.uiBndIfIndex = pstInfo->uiIfIndex;
        stMemb.uiMembIfIndex = pstInfo->pstMembInfo[i].uiIfIndex;
        if (tbdl_ha_EncMembAdd(&stMemb) != 0) {
            (void)tbdl_ha_SendMsg(1);
            (void)tbdl_ha_EncMembAdd(&stMemb);
        }
    }
    return 0;
}

u32 tbdl_ha_BatchBackup(void)
{
    TBDL_MEMB_INFO_S astMemb[TBDL_SNAPSHOT_MEMB_MAX];
    TBDL_BND_INFO_S stInfo;
    TBDL_BND_InitSnapshot(&stInfo, astMemb);

    u32 uiRet = TBDL_BND_GetFirstBndInfo(&stInfo);
    while (uiRet == 0) {
        if (tbdl_ha_EncBnd(&stInfo) != 0) {
            (void)tbdl_ha_SendMsg(1);
            (void)tbdl_ha_EncBnd(&stInfo);
        }
        u32 uiBndNum = stInfo.uiBndNum;
        TBDL_BND_InitSnapshot(&stInfo, astMemb);
        uiRet = TBDL_BND_GetNextBndInfo(uiBndNum, &stInfo);
    }

    (void)tbdl_ha_SendMsg(1);
    return 0;
}
