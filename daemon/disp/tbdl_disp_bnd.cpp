/* Bundle display: the details of one bundle (by number, first, next) and
 * bundle counts, each answered as one TLV. */
#include <arpa/inet.h>
#include <string.h>

#include "disp/tbdl_disp_priv.h"
#include "plat_if.h"
#include "plat_stlv.h"
#include "tbdl_bnd.h"

#define TBDL_DISP_CNT_TOTAL 0u
#define TBDL_DISP_CNT_UP 1u
#define TBDL_DISP_CNT_DOWN 2u

static u32 tbdl_disp_TakeSnapshot(u16 usOper, u32 uiBndNum, TBDL_BND_INFO_S *pstInfo)
{
    switch (usOper) {
    case TBDL_DISP_OPER_ONE:
        return TBDL_BND_GetBndInfo(uiBndNum, pstInfo);
    case TBDL_DISP_OPER_FIRST:
        return TBDL_BND_GetFirstBndInfo(pstInfo);
    case TBDL_DISP_OPER_NEXT:
        return TBDL_BND_GetNextBndInfo(uiBndNum, pstInfo);
    default:
        return TBDL_E_FAILED;
    }
}

u16 tbdl_disp_GetBndInfo(u16 usOper, u32 uiBndNum, u16 usRoom, u8 *pucValue)
{
    TBDL_MEMB_INFO_S astMemb[TBDL_SNAPSHOT_MEMB_MAX];
    TBDL_BND_INFO_S stInfo;

    TBDL_BND_InitSnapshot(&stInfo, astMemb);
    stInfo.uiBndNum = TBDL_DISP_ALL_BND;
    if (tbdl_disp_TakeSnapshot(usOper, uiBndNum, &stInfo) != TBDL_OK) {
        return 0;
    }

    u16 usMembNum = (stInfo.usMembNum > TBDL_SNAPSHOT_MEMB_MAX) ? (u16)TBDL_SNAPSHOT_MEMB_MAX : stInfo.usMembNum;
    u16 usLen = (u16)((usMembNum + 4) * TBDL_DISP_BND_MEMB_LEN);
    if (usRoom < usLen) {
        return 0;
    }

    /* A member whose interface number cannot be read shows the number read
     * before it (0 for the first). */
    u32 uiTnlNum = 0;
    for (u16 i = 0; i < usMembNum; i++) {
        const TBDL_MEMB_INFO_S *pstMemb = &astMemb[i];
        (void)IF_GetDataByIfIndex(pstMemb->uiIfIndex, IF_DATA_NUMBER, &uiTnlNum);
        TBDL_DISP_MEMB_VAL_S stMembVal;
        stMembVal.uiTnlNum = uiTnlNum;
        stMembVal.usWeight = pstMemb->usWeight;
        stMembVal.ucRole = pstMemb->ucRole;
        stMembVal.ucState = pstMemb->ucState;
        memcpy(pucValue + TBDL_DISP_BND_FIXED_LEN + i * TBDL_DISP_BND_MEMB_LEN, &stMembVal,
               sizeof(stMembVal));
    }

    TBDL_DISP_BND_VAL_S stVal;
    static_assert(sizeof(stInfo.stAddr) == sizeof(stVal.usFamily) + sizeof(stVal.aucAddrRest),
                  "address block fills the first 20 bytes");
    memcpy(&stVal, &stInfo.stAddr, sizeof(stInfo.stAddr));
    stVal.uiBndNum = stInfo.uiBndNum;
    stVal.uiMembNum = usMembNum;
    stVal.usTnlMode = stInfo.ucTnlMode;
    stVal.ucState = stInfo.ucState;
    stVal.ucMode = stInfo.ucMode;
    memcpy(pucValue, &stVal, sizeof(stVal));
    return usLen;
}

/* Converts the numbers of a TLV 402 value to big-endian in place. */
static void tbdl_disp_BndInfoToWire(u8 *pucValue)
{
    TBDL_DISP_BND_VAL_S stVal;
    memcpy(&stVal, pucValue, sizeof(stVal));
    u32 uiMembNum = stVal.uiMembNum;

    for (u32 i = 0; i < uiMembNum; i++) {
        u8 *pucMemb = pucValue + TBDL_DISP_BND_FIXED_LEN + i * TBDL_DISP_BND_MEMB_LEN;
        TBDL_DISP_MEMB_VAL_S stMembVal;
        memcpy(&stMembVal, pucMemb, sizeof(stMembVal));
        stMembVal.uiTnlNum = htonl(stMembVal.uiTnlNum);
        stMembVal.usWeight = htons(stMembVal.usWeight);
        memcpy(pucMemb, &stMembVal, sizeof(stMembVal));
    }
    stVal.usFamily = htons(stVal.usFamily);
    stVal.uiBndNum = htonl(stVal.uiBndNum);
    stVal.uiMembNum = htonl(stVal.uiMembNum);
    stVal.usTnlMode = htons(stVal.usTnlMode);
    memcpy(pucValue, &stVal, sizeof(stVal));
}

static void tbdl_disp_CountOne(const TBDL_BND_INFO_S *pstInfo, u32 auiCnt[3])
{
    auiCnt[TBDL_DISP_CNT_TOTAL]++;
    if (pstInfo->ucState != 0) {
        auiCnt[TBDL_DISP_CNT_UP]++;
    } else {
        auiCnt[TBDL_DISP_CNT_DOWN]++;
    }
}

void tbdl_disp_GetBndStatistic(u32 uiBndNum, u32 auiCnt[3])
{
    TBDL_MEMB_INFO_S astMemb[TBDL_SNAPSHOT_MEMB_MAX];
    TBDL_BND_INFO_S stInfo;

    TBDL_BND_InitSnapshot(&stInfo, astMemb);
    if (uiBndNum != TBDL_DISP_ALL_BND) {
        if (TBDL_BND_GetBndInfo(uiBndNum, &stInfo) == TBDL_OK) {
            tbdl_disp_CountOne(&stInfo, auiCnt);
        }
        return;
    }

    u32 uiRet = TBDL_BND_GetFirstBndInfo(&stInfo);
    while (uiRet == TBDL_OK) {
        tbdl_disp_CountOne(&stInfo, auiCnt);
        u32 uiPrev = stInfo.uiBndNum;
        TBDL_BND_InitSnapshot(&stInfo, astMemb);
        uiRet = TBDL_BND_GetNextBndInfo(uiPrev, &stInfo);
    }
}

static u32 tbdl_disp_BndCount(const TBDL_CFG_KEY_S *pstKey, u16 usBufLen, u8 *pucBuf, u16 *pusOutLen)
{
    u32 auiCnt[3] = {0, 0, 0};
    tbdl_disp_GetBndStatistic(pstKey->uiBndNum, auiCnt);

    TBDL_DISP_COUNT_VAL_S stVal;
    stVal.uiTotal = htonl(auiCnt[TBDL_DISP_CNT_TOTAL]);
    stVal.uiUp = htonl(auiCnt[TBDL_DISP_CNT_UP]);
    stVal.uiDown = htonl(auiCnt[TBDL_DISP_CNT_DOWN]);
    u32 uiWritten = STLV_Set(pucBuf, usBufLen, TBDL_TLV_DISP_COUNT, sizeof(stVal), &stVal);
    if (uiWritten == 0) {
        return TBDL_E_FAILED;
    }
    *pusOutLen = (u16)uiWritten;
    return TBDL_OK;
}

static u32 tbdl_disp_BndDetails(u16 usOper, const TBDL_CFG_KEY_S *pstKey, u16 usBufLen, u8 *pucBuf,
                                u16 *pusOutLen)
{
    /* The value is built behind the room of the TLV header. */
    u16 usRoom = (usBufLen > STLV_HEAD_LEN) ? (u16)(usBufLen - STLV_HEAD_LEN) : 0;
    u16 usLen = tbdl_disp_GetBndInfo(usOper, pstKey->uiBndNum, usRoom, pucBuf + STLV_HEAD_LEN);
    if (usLen == 0) {
        return TBDL_E_FAILED;
    }
    tbdl_disp_BndInfoToWire(pucBuf + STLV_HEAD_LEN);

    u32 uiWritten = STLV_Set(pucBuf, usBufLen, TBDL_TLV_DISP_BND, usLen, NULL);
    if (uiWritten == 0) {
        return TBDL_E_FAILED;
    }
    *pusOutLen = (u16)uiWritten;
    return TBDL_OK;
}

u32 TBDL_DISP_TnlBnd(u16 usOper, const TBDL_CFG_KEY_S *pstKey, u16 usBufLen, u8 *pucBuf,
                     u16 *pusOutLen)
{
    if (usOper == TBDL_DISP_OPER_COUNT) {
        return tbdl_disp_BndCount(pstKey, usBufLen, pucBuf, pusOutLen);
    }
    return tbdl_disp_BndDetails(usOper, pstKey, usBufLen, pucBuf, pusOutLen);
}
