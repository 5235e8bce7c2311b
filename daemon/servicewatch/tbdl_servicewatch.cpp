/* Service-port watch: a subscription to the state of the L3VPN service
 * port. Without one, the L3VPN watch falls back to retrying on its own. */
#include <string.h>
#include <unistd.h>

#include "servicewatch/tbdl_servicewatch_priv.h"
#include "tbdl_bas.h"
#include "tbdl_l3v.h"

TBDL_PORT_GLOBAL_S g_stTbldPortGlobal = {TBDL_INVALID_FD, TBDL_INVALID_FD};

u32 TBDL_SERVICEWATCH_Init(i32 iEpollFd)
{
    g_stTbldPortGlobal.iSubFd = TBDL_INVALID_FD;
    g_stTbldPortGlobal.iEpollFd = iEpollFd;
    return TBDL_OK;
}

void TBDL_SERVICEWATCH_Fini(void)
{
    g_stTbldPortGlobal.iSubFd = TBDL_INVALID_FD;
    g_stTbldPortGlobal.iEpollFd = TBDL_INVALID_FD;
}

/* The library may take the port and flag from the record or from the
 * arguments; both carry them so that either form is served. */
static i32 tbdl_servicewatch_Subscribe(void)
{
    TBDL_SVCPORT_SUB_S stSub;
    memset(&stSub, 0, sizeof(stSub));
    stSub.uiKind = SVCPORT_SUB_KIND;
    stSub.usPort = TBDL_SVCPORT_L3VPN;
    stSub.usFlag = SVCPORT_SUB_FLAG;
    return SubscribeServicePortEvent(SVCPORT_SUB_KIND, &stSub, TBDL_SVCPORT_L3VPN, SVCPORT_SUB_FLAG);
}

/* Always succeeds: without a subscription the L3VPN watch retries by
 * itself. The first state arrives as an event once subscribed. */
u32 TBDL_SERVICEWATCH_Activate(void)
{
    i32 iFd = tbdl_servicewatch_Subscribe();
    if (iFd == TBDL_INVALID_FD) {
        TBDL_L3V_Rib4ServicePort(TBDL_SVCPORT_STATE_UNKNOWN);
        return TBDL_OK;
    }
    TBDL_EPOLL_CB_S stCb = {TBDL_EPOLL_IN_ERRHUP, (u64)(i64)iFd, tbdl_servicewatch_SockCb};
    if (TBDL_BAS_EpollCtl(g_stTbldPortGlobal.iEpollFd, EPOLL_CTL_ADD, iFd, &stCb) != 0) {
        (void)close(iFd);
        TBDL_L3V_Rib4ServicePort(TBDL_SVCPORT_STATE_UNKNOWN);
        return TBDL_OK;
    }
    g_stTbldPortGlobal.iSubFd = iFd;
    return TBDL_OK;
}

/* The L3VPN watch is deactivated on its own, so it is not told. */
void TBDL_SERVICEWATCH_Deactivate(void)
{
    tbdl_servicewatch_Close();
}

void tbdl_servicewatch_Close(void)
{
    TBDL_PORT_GLOBAL_S *pstG = &g_stTbldPortGlobal;
    if (pstG->iSubFd == TBDL_INVALID_FD) {
        return;
    }
    (void)TBDL_BAS_EpollCtl(pstG->iEpollFd, EPOLL_CTL_DEL, pstG->iSubFd, NULL);
    (void)close(pstG->iSubFd);
    pstG->iSubFd = TBDL_INVALID_FD;
}
