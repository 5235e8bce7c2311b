/* Interface events of member tunnel interfaces: each entry of an event is
 * logged and handled, and the event acknowledged once. A member that goes
 * up or down changes state in its bundle; a deleted one leaves it. */
#include <string.h>

#include "intf/tbdl_intf_priv.h"

#include "plat_if.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"
#include "tbdl_dld.h"

/* Deleted interface: unbound as by an unbind request. */
static u32 tbdl_intf_ProcIfDelete(u32 uiIfIndex, const TBDL_INTF_PD_S *pstPd)
{
    u32 uiTnlNum = 0;
    u32 uiRet = IF_GetDataByIfIndex(uiIfIndex, IF_DATA_NUMBER, &uiTnlNum);
    if (uiRet != 0) {
        return uiRet;
    }
    TBDL_MEMB_CFG_S stCfg;
    memset(&stCfg, 0, sizeof(stCfg));
    stCfg.uiTnlNum = uiTnlNum;
    return tbdl_intf_UnbindMemb(pstPd->uiBndNum, &stCfg);
}

/* Up for the up event, down for any other. */
static u32 tbdl_intf_ProcIfState(u32 uiIfIndex, u32 uiEvent, u32 uiBndNum)
{
    bool bUp = uiEvent == IF_EV_UP;
    TBDL_MEMB_INFO_S stMemb;
    memset(&stMemb, 0, sizeof(stMemb));
    stMemb.uiIfIndex = uiIfIndex;
    stMemb.ucState = bUp ? 1 : 0;

    u32 uiRet = TBDL_BND_ProcMembEv(uiBndNum, bUp ? TBDL_MEMB_EV_UP : TBDL_MEMB_EV_DOWN, &stMemb);
    if (uiRet != 0) {
        return uiRet;
    }
    return TBDL_DLD_ProcIntfEv(TBDL_MEMB_EV_ADD, uiBndNum);
}

u32 tbdl_intf_ProcIfEvent(u32 uiIfIndex, u32 uiEvent)
{
    void *pData = NULL;
    u32 uiRet = IF_GetPrivateData(g_stIntfGlobalVar.ulPdInstance, uiIfIndex, &pData);
    if (uiRet != 0) {
        return uiRet; /* not a member */
    }
    /* Copied: unbinding frees the record. */
    TBDL_INTF_PD_S stPd;
    memcpy(&stPd, pData, sizeof(stPd));

    if (uiEvent == IF_EV_DELETE) {
        return tbdl_intf_ProcIfDelete(uiIfIndex, &stPd);
    }
    return tbdl_intf_ProcIfState(uiIfIndex, uiEvent, stPd.uiBndNum);
}

u32 tbdl_intf_IfEventCallback(u32 uiEvent, void *pastIf, u32 uiCount, u32 uiArg)
{
    const u8 *pucEntry = (const u8 *)pastIf;
    for (u32 i = 0; i < uiCount; i++) {
        IF_EVENT_ENTRY_S stEntry;
        memcpy(&stEntry, pucEntry + (size_t)i * sizeof(stEntry), sizeof(stEntry));
        TBDL_DBG_Output(TBDL_DBG_EVENT, "Received an interface event (0x%x) on interface %d.\r\n", uiEvent,
                        (int)stEntry.uiIfIndex);
        (void)tbdl_intf_ProcIfEvent(stEntry.uiIfIndex, uiEvent);
    }
    return IF_NotifyFinalStatus(g_stIntfGlobalVar.uiIfEvHandle, uiEvent, pastIf, uiCount, uiArg);
}
