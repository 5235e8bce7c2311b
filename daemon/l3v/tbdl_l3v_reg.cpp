/* L3VPN registration: the event descriptor on the loop, the batch request
 * after each registration, the retry timer and the descriptor callback. */
#include "l3v/tbdl_l3v_priv.h"
#include "tbdl_bas.h"
#include "tbdl_dbg.h"

#define TBDL_L3V_EPOLL_ERR 8u  /* EPOLLERR */
#define TBDL_L3V_EPOLL_HUP 16u /* EPOLLHUP */

u32 tbdl_l3v_Reg(void)
{
    TBDL_L3V_GLOBAL_S *pstG = &g_stTbdlL3vGlobal;
    if (pstG->iEvtFd != TBDL_INVALID_FD) {
        return TBDL_OK;
    }
    i32 iFd = L3VPN_RegEvt(TBDL_L3V_CLIENT_NAME, TBDL_L3V_EVT_MASK, 0, tbdl_l3v_ProcEvt, 0);
    if (iFd == TBDL_INVALID_FD) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to register to L3VPN.\r\n");
        return TBDL_E_FAILED;
    }
    TBDL_EPOLL_CB_S stCb = {TBDL_EPOLL_IN_ERRHUP, (u64)(i64)iFd, tbdl_l3v_SockCb};
    if (TBDL_BAS_EpollCtl(pstG->iEpollFd, EPOLL_CTL_ADD, iFd, &stCb) != 0) {
        (void)L3VPN_DeregEvent(iFd);
        TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to register to L3VPN.\r\n");
        return TBDL_E_FAILED;
    }
    pstG->iEvtFd = iFd;
    /* Every binding is reported again, so the bundle and member modules
     * resynchronise whatever changed while unregistered. */
    (void)L3VPN_RequestBatch(iFd, TBDL_L3V_BATCH_ALL_VRF);
    return TBDL_OK;
}

void tbdl_l3v_Dereg(void)
{
    TBDL_L3V_GLOBAL_S *pstG = &g_stTbdlL3vGlobal;
    if (pstG->iEvtFd == TBDL_INVALID_FD) {
        return;
    }
    (void)TBDL_BAS_EpollCtl(pstG->iEpollFd, EPOLL_CTL_DEL, pstG->iEvtFd, NULL);
    (void)L3VPN_DeregEvent(pstG->iEvtFd);
    pstG->iEvtFd = TBDL_INVALID_FD;
}

u32 tbdl_l3v_StartRetryTimer(void)
{
    TBDL_L3V_GLOBAL_S *pstG = &g_stTbdlL3vGlobal;
    if (pstG->iTimerFd != TBDL_INVALID_FD) {
        return TBDL_OK;
    }
    i32 iFd = TBDL_BAS_StartTimer((u32)pstG->iEpollFd, tbdl_l3v_RetryTimerCb, TBDL_L3V_RETRY_MS,
                                  (u32)pstG->iEvtFd);
    if (iFd == TBDL_INVALID_FD) {
        return TBDL_E_FAILED;
    }
    pstG->iTimerFd = iFd;
    return TBDL_OK;
}

void tbdl_l3v_StopRetryTimer(void)
{
    TBDL_L3V_GLOBAL_S *pstG = &g_stTbdlL3vGlobal;
    if (pstG->iTimerFd == TBDL_INVALID_FD) {
        return;
    }
    TBDL_BAS_StopTimer((u32)pstG->iEpollFd, pstG->iTimerFd);
    pstG->iTimerFd = TBDL_INVALID_FD;
}

/* One attempt per expiry until one succeeds or the timer is stopped. */
u32 tbdl_l3v_RetryTimerCb(u32 uiEvents, u64 ulData)
{
    (void)ulData;
    if (TBDL_BAS_TIMERFD_Read(uiEvents, g_stTbdlL3vGlobal.iTimerFd) != TBDL_OK) {
        return TBDL_E_FAILED;
    }
    u32 uiRet = tbdl_l3v_Reg();
    if (uiRet == TBDL_OK) {
        tbdl_l3v_StopRetryTimer();
    }
    return uiRet;
}

/* A hang-up means the service went away: wait for the service-port watch
 * to report it back. A read failure or an error is retried on the timer;
 * with both, the retry wins. */
u32 tbdl_l3v_SockCb(u32 uiEvents, u64 ulData)
{
    u32 uiRet = TBDL_OK;
    if ((uiEvents & TBDL_EPOLL_IN) != 0) {
        uiRet = L3VPN_ProcEvt((i32)ulData);
    }
    if ((uiEvents & TBDL_L3V_EPOLL_HUP) != 0) {
        tbdl_l3v_Dereg();
        tbdl_l3v_StopRetryTimer();
    }
    if (uiRet != TBDL_OK || (uiEvents & TBDL_L3V_EPOLL_ERR) != 0) {
        tbdl_l3v_Dereg();
        (void)tbdl_l3v_StartRetryTimer();
    }
    return uiRet;
}
