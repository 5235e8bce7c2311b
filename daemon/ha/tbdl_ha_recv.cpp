/* Standby side of the HA backup: walks the TLVs of a received message and
 * issues the same kernel command the master issued. The standby's bundle
 * table, database and downloads are left alone. */
#include <string.h>

#include "ha/tbdl_ha_priv.h"

#include "plat_cioctl.h"
#include "plat_ha.h"
#include "plat_stlv.h"
#include "tbdl_dbg.h"

static const TBDL_HA_APPLY_PF g_apfTbdlHaApply[TBDL_HA_MSG_TYPE_MAX + 1] = {
    NULL,
    tbdl_ha_ApplyBndUpdate,
    tbdl_ha_ApplyMembAdd,
    tbdl_ha_ApplyMembDel,
};

/* Copies a TLV value into a zero-filled payload of uiSize bytes: a shorter
 * value is zero-padded, a longer one cut. */
static void tbdl_ha_TakeValue(u16 usLen, const void *pValue, void *pPayload, u32 uiSize)
{
    memset(pPayload, 0, uiSize);
    u32 uiCopy = (usLen > uiSize) ? uiSize : usLen;
    memcpy(pPayload, pValue, uiCopy);
}

u32 tbdl_ha_ApplyBndUpdate(u16 usLen, const void *pValue)
{
    TBDL_KBND_S stBnd;
    tbdl_ha_TakeValue(usLen, pValue, &stBnd, sizeof(stBnd));
    tbdl_ha_BndToHost(&stBnd);
    return CIOCTL(TBDL_KTBDL_DEV, TBDL_KCMD_BND_UPDATE, sizeof(stBnd), &stBnd, 0, 0, 0);
}

static u32 tbdl_ha_ApplyMemb(u32 uiCmd, u16 usLen, const void *pValue)
{
    TBDL_KMEMB_S stMemb;
    tbdl_ha_TakeValue(usLen, pValue, &stMemb, sizeof(stMemb));
    tbdl_ha_MembToHost(&stMemb);
    return CIOCTL(TBDL_KTBDL_DEV, uiCmd, sizeof(stMemb), &stMemb, 0, 0, 0);
}

u32 tbdl_ha_ApplyMembAdd(u16 usLen, const void *pValue)
{
    return tbdl_ha_ApplyMemb(TBDL_KCMD_MEMB_ADD, usLen, pValue);
}

u32 tbdl_ha_ApplyMembDel(u16 usLen, const void *pValue)
{
    return tbdl_ha_ApplyMemb(TBDL_KCMD_MEMB_DEL, usLen, pValue);
}

u32 tbdl_ha_RecvMsg(void *pMsg, u16 usLen, u32 uiType)
{
    TBDL_DBG_Output(TBDL_DBG_EVENT, "Received an HA message (Type %d).\r\n", (int)uiType);

    const u8 *pucEnd = (const u8 *)pMsg + ((pMsg != NULL) ? usLen : 0);
    u16 usTlvType = 0;
    u16 usTlvLen = 0;
    const void *pValue = NULL;
    if (pMsg != NULL) {
        (void)STLV_Get(pMsg, usLen, &usTlvType, &usTlvLen, &pValue);
    }

    while (pValue != NULL) {
        if (usTlvType >= 1 && usTlvType <= TBDL_HA_MSG_TYPE_MAX) {
            (void)g_apfTbdlHaApply[usTlvType](usTlvLen, pValue);
        }
        const u8 *pucNext = (const u8 *)pValue + usTlvLen;
        pValue = NULL;
        (void)STLV_Get(pucNext, (u32)(pucEnd - pucNext), &usTlvType, &usTlvLen, &pValue);
    }

    HA_FreeMsg(pMsg);
    return 0;
}
