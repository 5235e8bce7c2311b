/* L3VPN watch: the module state, its life cycle and the service states of
 * the L3VPN service port, which switch the registration on and off. */
#include "l3v/tbdl_l3v_priv.h"

TBDL_L3V_GLOBAL_S g_stTbdlL3vGlobal = {TBDL_INVALID_FD, TBDL_INVALID_FD, TBDL_INVALID_FD};

void TBDL_L3V_Init(i32 iEpollFd)
{
    g_stTbdlL3vGlobal.iEpollFd = iEpollFd;
    g_stTbdlL3vGlobal.iEvtFd = TBDL_INVALID_FD;
    g_stTbdlL3vGlobal.iTimerFd = TBDL_INVALID_FD;
}

void TBDL_L3V_Fini(void)
{
    g_stTbdlL3vGlobal.iEpollFd = TBDL_INVALID_FD;
    g_stTbdlL3vGlobal.iEvtFd = TBDL_INVALID_FD;
    g_stTbdlL3vGlobal.iTimerFd = TBDL_INVALID_FD;
}

/* Registration waits for the service-port watch, which is set up last. */
u32 TBDL_L3V_Activate(void)
{
    return TBDL_OK;
}

void TBDL_L3V_Deactivate(void)
{
    tbdl_l3v_Dereg();
    tbdl_l3v_StopRetryTimer();
}

static void tbdl_l3v_ServiceUp(void)
{
    if (tbdl_l3v_Reg() != TBDL_OK) {
        (void)tbdl_l3v_StartRetryTimer();
        return;
    }
    /* A timer left from an unknown service state would only find the
     * registration in place on its next expiry; stopping it now puts the
     * module in its registered state at once instead of up to a second
     * later. */
    tbdl_l3v_StopRetryTimer();
}

void TBDL_L3V_Rib4ServicePort(u32 uiState)
{
    switch (uiState) {
        case TBDL_L3V_SVC_UP:
            tbdl_l3v_ServiceUp();
            break;
        case TBDL_L3V_SVC_DOWN:
            tbdl_l3v_StopRetryTimer();
            tbdl_l3v_Dereg();
            break;
        case TBDL_L3V_SVC_UNKNOWN:
            /* A registration in place is kept: the timer's first attempt
             * finds it and stops the timer. */
            (void)tbdl_l3v_StartRetryTimer();
            break;
        default:
            break;
    }
}
