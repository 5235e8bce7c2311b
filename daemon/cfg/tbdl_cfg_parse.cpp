/* TLV walk of configuration and display requests into the records the
 * handlers receive: the key record (TLV 2) and, for configuration
 * requests, the operation type and the 256-byte operation data (TLVs
 * 201-399).
 *
 * A TLV value shorter than what its decoding reads is taken as padded with
 * zero bytes up to that width: the bytes that are there are copied, the
 * missing ones read as 0. Nothing past the received bytes is ever read, and
 * such a request is handled like any other. */
#include <string.h>

#include "cfg/tbdl_cfg_priv.h"
#include "plat_stlv.h"
#include "tbdl_cfg_oper_codec.h"
#include "tbdl_dbg.h"

/* TLV ranges: 1 is ignored, 2 is the key, 3-199 are unknown keys; 201-399
 * are operations (configuration); 401 is ignored and 402-599 are unknown
 * in display requests. */
#define TBDL_TLV_CFG_IGNORED 1u
#define TBDL_TLV_KEY_MIN 3u
#define TBDL_TLV_KEY_MAX 199u
#define TBDL_TLV_OP_MIN 201u
#define TBDL_TLV_OP_MAX 399u
#define TBDL_TLV_DISP_IGNORED 401u
#define TBDL_TLV_DISP_MIN 402u
#define TBDL_TLV_DISP_MAX 599u

static const char *const g_pcTbdlCfgUnknownTlv = "Received a message with an unknown TLV (type: %d).";

static void tbdl_cfg_ParseBndNum(const void *pValue, u16 usLen, TBDL_CFG_KEY_S *pstKey)
{
    pstKey->uiBndNum = TBDL_CFG_DecU32Val(pValue, usLen);
}

/* Writes the operation data of operation TLV usType; an operation writes
 * only the bytes of its own width, so a later operation TLV overwrites the
 * first bytes of an earlier one. */
static void tbdl_cfg_FillOperData(u16 usType, const void *pValue, u16 usLen, u8 *pucData)
{
    switch (usType) {
    case TBDL_TLV_OP_BND: {
        TBDL_CFG_BND_VAL_S stVal = TBDL_CFG_DecBndVal(pValue, usLen);
        memcpy(pucData, &stVal, TBDL_CFG_BND_VAL_LEN);
        break;
    }
    case TBDL_TLV_OP_ADDR: {
        TBDL_ADDR_S stVal = TBDL_CFG_DecAddrVal(pValue, usLen);
        memcpy(pucData, &stVal, TBDL_CFG_ADDR_VAL_LEN);
        break;
    }
    case TBDL_TLV_OP_MEMB: {
        TBDL_MEMB_CFG_S stVal = TBDL_CFG_DecMembVal(pValue, usLen);
        memcpy(pucData, &stVal, TBDL_CFG_MEMB_VAL_LEN);
        break;
    }
    case TBDL_TLV_OP_U32: {
        u32 uiVal = TBDL_CFG_DecU32Val(pValue, usLen);
        memcpy(pucData, &uiVal, sizeof(uiVal));
        break;
    }
    default: /* 201 carries nothing; the others are not decoded */
        break;
    }
}

static bool tbdl_cfg_IsDecodedOper(u16 usType)
{
    return usType == TBDL_TLV_OP_NONE || usType == TBDL_TLV_OP_BND || usType == TBDL_TLV_OP_ADDR ||
           usType == TBDL_TLV_OP_MEMB || usType == TBDL_TLV_OP_U32;
}

/* Calls pfnVisit for each TLV of the payload, in order. */
template <typename VISIT>
static void tbdl_cfg_WalkTlvs(const u8 *pucPayload, u32 uiLen, VISIT pfnVisit)
{
    const u8 *pucCur = pucPayload;
    u32 uiRemaining = uiLen;

    for (;;) {
        u16 usType = 0;
        u16 usLen = 0;
        const void *pValue = NULL;
        (void)STLV_Get(pucCur, uiRemaining, &usType, &usLen, &pValue);
        if (pValue == NULL) {
            return;
        }
        pfnVisit(usType, usLen, pValue);

        /* The next TLV starts right after this value. */
        const u8 *pucEnd = (const u8 *)pValue + usLen;
        uiRemaining = (u32)((pucPayload + uiLen) - pucEnd);
        pucCur = pucEnd;
    }
}

u16 tbdl_cfg_ParseCfgTlvs(const u8 *pucPayload, u32 uiLen, TBDL_CFG_KEY_S *pstKey,
                          TBDL_CFG_OPER_DATA_S *pstOperData)
{
    u16 usOperType = 0;

    tbdl_cfg_WalkTlvs(pucPayload, uiLen, [&](u16 usType, u16 usLen, const void *pValue) {
        if (usType == TBDL_TLV_CFG_IGNORED) {
            return;
        }
        if (usType == TBDL_TLV_BND_NUM) {
            tbdl_cfg_ParseBndNum(pValue, usLen, pstKey);
        } else if (usType >= TBDL_TLV_KEY_MIN && usType <= TBDL_TLV_KEY_MAX) {
            TBDL_DBG_Output(TBDL_DBG_EVENT, g_pcTbdlCfgUnknownTlv, (int)usType);
        } else if (tbdl_cfg_IsDecodedOper(usType)) {
            usOperType = usType;
            tbdl_cfg_FillOperData(usType, pValue, usLen, pstOperData->aucData);
        } else if (usType >= TBDL_TLV_OP_MIN && usType <= TBDL_TLV_OP_MAX) {
            /* An operation this channel does not decode: its type reaches
             * the handler, which refuses it. */
            usOperType = usType;
            TBDL_DBG_Output(TBDL_DBG_EVENT, g_pcTbdlCfgUnknownTlv, (int)usType);
        }
        /* 0, 200 and 400 upward: skipped without a log. */
    });
    return usOperType;
}

void tbdl_cfg_ParseDispTlvs(const u8 *pucPayload, u32 uiLen, TBDL_CFG_KEY_S *pstKey)
{
    tbdl_cfg_WalkTlvs(pucPayload, uiLen, [&](u16 usType, u16 usLen, const void *pValue) {
        if (usType == TBDL_TLV_CFG_IGNORED || usType == TBDL_TLV_DISP_IGNORED) {
            return;
        }
        if (usType == TBDL_TLV_BND_NUM) {
            tbdl_cfg_ParseBndNum(pValue, usLen, pstKey);
        } else if ((usType >= TBDL_TLV_KEY_MIN && usType <= TBDL_TLV_KEY_MAX) ||
                   (usType >= TBDL_TLV_DISP_MIN && usType <= TBDL_TLV_DISP_MAX)) {
            TBDL_DBG_Output(TBDL_DBG_EVENT, g_pcTbdlCfgUnknownTlv, (int)usType);
        }
        /* Everything else, the operation range 200-399 included: skipped
         * without a log. */
    });
}
