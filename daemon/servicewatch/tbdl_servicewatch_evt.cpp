/* Events of the service-port subscription: up and down of the L3VPN
 * service port go to the L3VPN watch; a broken subscription leaves it
 * retrying on its own. */
#include <string.h>

#include "servicewatch/tbdl_servicewatch_priv.h"
#include "tbdl_l3v.h"

#define TBDL_SVCPORT_EPOLL_ERRHUP 24u /* EPOLLERR | EPOLLHUP */

static bool tbdl_servicewatch_IsL3vpnState(const TBDL_SVCPORT_EVT_S *pstEvt)
{
    return pstEvt->usPort == TBDL_SVCPORT_L3VPN &&
           (pstEvt->uiState == SVCPORT_STATE_UP || pstEvt->uiState == SVCPORT_STATE_DOWN);
}

static void tbdl_servicewatch_ReadEvt(i32 iFd)
{
    TBDL_SVCPORT_EVT_S stEvt;
    memset(&stEvt, 0, sizeof(stEvt));
    if (RecvServicePortEvent(iFd, &stEvt) != 0 || !tbdl_servicewatch_IsL3vpnState(&stEvt)) {
        return;
    }
    TBDL_L3V_Rib4ServicePort(stEvt.uiState);
}

/* An event read with a hang-up is applied before the subscription goes. */
u32 tbdl_servicewatch_SockCb(u32 uiEvents, u64 ulData)
{
    if ((uiEvents & TBDL_EPOLL_IN) != 0) {
        tbdl_servicewatch_ReadEvt((i32)ulData);
    }
    if ((uiEvents & TBDL_SVCPORT_EPOLL_ERRHUP) != 0) {
        tbdl_servicewatch_Close();
        TBDL_L3V_Rib4ServicePort(TBDL_SVCPORT_STATE_UNKNOWN);
    }
    return TBDL_OK;
}
