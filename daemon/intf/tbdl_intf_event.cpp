/* Member interfaces while the board is active: the subscription to
 * tunnel-interface events, its descriptor on the event loop, and its
 * restart when the descriptor reports trouble. */
#include <stddef.h>
#include <string.h>

#include "intf/tbdl_intf_priv.h"

#include "plat_if.h"
#include "tbdl_bas.h"

/* Selection records the interface library fills in before subscribing. */
typedef struct tagTBDL_INTF_SELECT {
    u8 aucSelect[16];
    u8 aucSelectData[24];
} TBDL_INTF_SELECT_S;
static_assert(sizeof(TBDL_INTF_SELECT_S) == 40, "selection and its data: 16 + 24 bytes");
static_assert(offsetof(TBDL_INTF_SELECT_S, aucSelectData) == 16, "selection data follows the selection");

/* Subscribes to the events of tunnel interfaces; returns the handle,
 * 0 on failure. */
static u32 tbdl_intf_Subscribe(void)
{
    TBDL_INTF_SELECT_S stSel;
    memset(&stSel, 0, sizeof(stSel));
    (void)IF_Select_Init(TBDL_INTF_SELECT_KIND, stSel.aucSelect, stSel.aucSelectData);
    (void)IF_SelectType_Set(TBDL_IF_TYPE_TUNNEL, stSel.aucSelect);
    return IF_RegIfEventEx(TBDL_INTF_EV_MODULE, TBDL_INTF_EV_MASK, TBDL_INTF_EV_PRIORITY, stSel.aucSelect,
                           tbdl_intf_IfEventCallback, 0);
}

u32 TBDL_INTF_Activate(void)
{
    i32 iFd = IF_Event_Init();
    if (iFd < 0) {
        return TBDL_E_FAILED;
    }

    u32 uiHandle = tbdl_intf_Subscribe();
    if (uiHandle == 0) {
        IF_Event_Fini(iFd);
        return TBDL_E_FAILED;
    }

    TBDL_EPOLL_CB_S stCb;
    stCb.uiEvents = TBDL_EPOLL_IN_ERRHUP;
    stCb.ulData = (u64)(u32)iFd;
    stCb.pfnCallback = tbdl_intf_ProcEventFd;
    if (TBDL_BAS_EpollCtl(g_stIntfGlobalVar.iEpollFd, EPOLL_CTL_ADD, iFd, &stCb) != 0) {
        (void)IF_UnRegEvent(uiHandle, TBDL_INTF_EV_MASK);
        IF_Event_Fini(iFd);
        return TBDL_E_FAILED;
    }

    g_stIntfGlobalVar.usSystemBoot = 0;
    g_stIntfGlobalVar.uiIfEvHandle = uiHandle;
    g_stIntfGlobalVar.iIfEvFd = iFd;
    return 0;
}

void TBDL_INTF_Deactivate(void)
{
    u64 ulInstance = g_stIntfGlobalVar.ulPdInstance;
    if (ulInstance != TBDL_INTF_PD_NONE) {
        /* Each entry is deleted before the next is asked for; the store's
         * walk continues above the deleted index. */
        u32 uiIfIndex = 0;
        void *pData = NULL;
        u32 uiRet = IF_GetFirstPrivateData(ulInstance, &uiIfIndex, &pData);
        while (uiRet == 0) {
            (void)IF_DelPrivateData(ulInstance, uiIfIndex, tbdl_intf_FreePrivateData);
            uiRet = IF_GetNextPrivateData(ulInstance, &uiIfIndex, &pData);
        }
    }

    if (g_stIntfGlobalVar.uiIfEvHandle != 0) {
        (void)IF_UnRegEvent(g_stIntfGlobalVar.uiIfEvHandle, TBDL_INTF_EV_MASK);
        g_stIntfGlobalVar.uiIfEvHandle = 0;
    }
    if (g_stIntfGlobalVar.iIfEvFd != TBDL_INVALID_FD) {
        (void)TBDL_BAS_EpollCtl(g_stIntfGlobalVar.iEpollFd, EPOLL_CTL_DEL, g_stIntfGlobalVar.iIfEvFd, NULL);
        IF_Event_Fini(g_stIntfGlobalVar.iIfEvFd);
        g_stIntfGlobalVar.iIfEvFd = TBDL_INVALID_FD;
    }
}

/* A descriptor in trouble is replaced by a fresh subscription. */
static void tbdl_intf_Restart(void)
{
    TBDL_INTF_Deactivate();
    (void)TBDL_INTF_Activate();
}

u32 tbdl_intf_ProcEventFd(u32 uiEvents, u64 ulData)
{
    if ((uiEvents & TBDL_EPOLL_IN) == 0) {
        tbdl_intf_Restart();
        return 0;
    }
    /* The packet's events reach tbdl_intf_IfEventCallback while this runs. */
    u32 uiRet = IF_ResponseEventPkt((i32)ulData);
    if (uiRet != 0 || (uiEvents & TBDL_INTF_EPOLL_ERRHUP) != 0) {
        tbdl_intf_Restart();
    }
    return 0;
}
