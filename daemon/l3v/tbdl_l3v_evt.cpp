/* The L3VPN event handler: each event goes to the bundle module, the
 * member-interface module or both, by the type of the interface it is
 * about, and is acknowledged to L3VPN whatever the outcome. */
#include "l3v/tbdl_l3v_priv.h"
#include "tbdl_bnd.h"
#include "tbdl_intf.h"

/* The event data as L3VPN hands it over. */
static_assert(sizeof(TBDL_L3V_EVT_S) == sizeof(L3VPN_EVT_S), "L3VPN event data size");
static_assert(offsetof(TBDL_L3V_EVT_S, usVrfIndex) == offsetof(L3VPN_EVT_S, usVrfIndex), "VRF index offset");
static_assert(offsetof(TBDL_L3V_EVT_S, uiIfIndex) == offsetof(L3VPN_EVT_S, uiIfIndex), "ifindex offset");

static bool tbdl_l3v_IsBatchEvt(u32 uiEvent)
{
    return uiEvent == TBDL_L3V_EV_BATCH_BEGIN || uiEvent == TBDL_L3V_EV_BATCH_END;
}

static bool tbdl_l3v_IsVrfEvt(u32 uiEvent)
{
    return uiEvent == TBDL_L3V_EV_VRF_BIND || uiEvent == TBDL_L3V_EV_VRF_UNBIND;
}

/* Batch begin and end reach both modules, which mark and sweep on them. */
static u32 tbdl_l3v_ProcBatchEvt(u32 uiEvent)
{
    u32 uiRet = TBDL_BND_ProcL3vEv(TBDL_L3V_ALL_BND, uiEvent, 0);
    uiRet += TBDL_INTF_ProcL3vEv(TBDL_L3V_IF_TYPE_NONE, uiEvent, NULL);
    return uiRet;
}

/* A binding of a tunnel concerns its membership; a binding of a bundle
 * interface concerns the bundle and its members both. */
static u32 tbdl_l3v_ProcVrfEvt(u32 uiEvent, const TBDL_L3V_EVT_S *pstEvt)
{
    u32 uiIfType = TBDL_L3V_IF_TYPE_NONE;
    (void)IF_GetDataByIfIndex(pstEvt->uiIfIndex, IF_DATA_TYPE, &uiIfType);
    if (uiIfType == TBDL_IF_TYPE_TUNNEL) {
        return TBDL_INTF_ProcL3vEv(TBDL_IF_TYPE_TUNNEL, uiEvent, pstEvt);
    }
    if (uiIfType != TBDL_IF_TYPE_BUNDLE) {
        return TBDL_E_FAILED;
    }
    u32 uiBndNum = 0;
    (void)IF_GetDataByIfIndex(pstEvt->uiIfIndex, IF_DATA_NUMBER, &uiBndNum);
    u32 uiRet = TBDL_INTF_ProcL3vEv(TBDL_IF_TYPE_BUNDLE, uiEvent, pstEvt);
    uiRet += TBDL_BND_ProcL3vEv(uiBndNum, uiEvent, pstEvt->usVrfIndex);
    return uiRet;
}

u32 tbdl_l3v_ProcEvt(u32 uiEvent, const void *pvEvt)
{
    const TBDL_L3V_EVT_S *pstEvt = (const TBDL_L3V_EVT_S *)pvEvt;
    u16 usVrfIndex = TBDL_L3V_NO_VRF;
    u32 uiRet = TBDL_OK;
    if (tbdl_l3v_IsBatchEvt(uiEvent)) {
        uiRet = tbdl_l3v_ProcBatchEvt(uiEvent);
    } else if (tbdl_l3v_IsVrfEvt(uiEvent) && pstEvt != NULL) {
        usVrfIndex = pstEvt->usVrfIndex;
        uiRet = tbdl_l3v_ProcVrfEvt(uiEvent, pstEvt);
    }
    (void)L3VPN_FinalStatusNotify(g_stTbdlL3vGlobal.iEvtFd, usVrfIndex, uiEvent);
    return uiRet;
}
