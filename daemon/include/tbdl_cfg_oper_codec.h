/* Codec of the values of the operation TLVs 202, 203 and 204 and of the
 * u32 values (TLV 2, TLV 398) of the configuration channel: big-endian on
 * the wire, host order in the records. The front end encodes with it and
 * the daemon's parser decodes with it, so both sides share one layout.
 * Header-only, so that the front end needs none of the daemon's code. */
#ifndef TBDL_CFG_OPER_CODEC_H
#define TBDL_CFG_OPER_CODEC_H

#include <arpa/inet.h>
#include <string.h>

#include "tbdl_cfg_msg.h"

/* Copies a received value into a zero-filled wire record of uiWidth bytes:
 * a value shorter than the record reads as padded with zero bytes, a longer
 * one is cut. Nothing past usLen bytes is read. */
static inline void TBDL_CFG_TakeValue(const void *pValue, u16 usLen, void *pvRec, u32 uiWidth)
{
    memset(pvRec, 0, uiWidth);
    memcpy(pvRec, pValue, (usLen < uiWidth) ? usLen : uiWidth);
}

/* u32 value: bundle number (TLV 2) or TLV 398. */
static inline u32 TBDL_CFG_DecU32Val(const void *pValue, u16 usLen)
{
    TBDL_CFG_U32_VAL_S stVal;
    TBDL_CFG_TakeValue(pValue, usLen, &stVal, TBDL_CFG_U32_VAL_LEN);
    return ntohl(stVal.uiValue);
}

static inline u16 TBDL_CFG_EncU32Val(u32 uiValue, u8 *pucOut)
{
    TBDL_CFG_U32_VAL_S stVal = {htonl(uiValue)};
    memcpy(pucOut, &stVal, TBDL_CFG_U32_VAL_LEN);
    return TBDL_CFG_U32_VAL_LEN;
}

/* TLV 202: work mode and tunnel mode. */
static inline TBDL_CFG_BND_VAL_S TBDL_CFG_DecBndVal(const void *pValue, u16 usLen)
{
    TBDL_CFG_BND_VAL_S stVal;
    TBDL_CFG_TakeValue(pValue, usLen, &stVal, TBDL_CFG_BND_VAL_LEN);
    stVal.usMode = ntohs(stVal.usMode);
    stVal.usTnlMode = ntohs(stVal.usTnlMode);
    return stVal;
}

static inline u16 TBDL_CFG_EncBndVal(const TBDL_CFG_BND_VAL_S *pstVal, u8 *pucOut)
{
    TBDL_CFG_BND_VAL_S stWire = {htons(pstVal->usMode), htons(pstVal->usTnlMode)};
    memcpy(pucOut, &stWire, TBDL_CFG_BND_VAL_LEN);
    return TBDL_CFG_BND_VAL_LEN;
}

/* TLV 203: the address block; only the family is converted, the other 18
 * bytes travel as they are. */
static inline TBDL_ADDR_S TBDL_CFG_DecAddrVal(const void *pValue, u16 usLen)
{
    TBDL_ADDR_S stVal;
    TBDL_CFG_TakeValue(pValue, usLen, &stVal, TBDL_CFG_ADDR_VAL_LEN);
    stVal.usFamily = ntohs(stVal.usFamily);
    return stVal;
}

static inline u16 TBDL_CFG_EncAddrVal(const TBDL_ADDR_S *pstVal, u8 *pucOut)
{
    TBDL_ADDR_S stWire = *pstVal;
    stWire.usFamily = htons(pstVal->usFamily);
    memcpy(pucOut, &stWire, TBDL_CFG_ADDR_VAL_LEN);
    return TBDL_CFG_ADDR_VAL_LEN;
}

/* TLV 204: tunnel number, weight and role, the first bytes of a member
 * record; the record's other fields decode as 0. */
static inline TBDL_MEMB_CFG_S TBDL_CFG_DecMembVal(const void *pValue, u16 usLen)
{
    TBDL_MEMB_CFG_S stVal;
    memset(&stVal, 0, sizeof(stVal));
    TBDL_CFG_TakeValue(pValue, usLen, &stVal, TBDL_CFG_MEMB_VAL_LEN);
    stVal.uiTnlNum = ntohl(stVal.uiTnlNum);
    stVal.usWeight = ntohs(stVal.usWeight);
    return stVal;
}

static inline u16 TBDL_CFG_EncMembVal(const TBDL_MEMB_CFG_S *pstVal, u8 *pucOut)
{
    TBDL_MEMB_CFG_S stWire;
    memset(&stWire, 0, sizeof(stWire));
    stWire.uiTnlNum = htonl(pstVal->uiTnlNum);
    stWire.usWeight = htons(pstVal->usWeight);
    stWire.ucRole = pstVal->ucRole;
    memcpy(pucOut, &stWire, TBDL_CFG_MEMB_VAL_LEN);
    return TBDL_CFG_MEMB_VAL_LEN;
}

#endif
