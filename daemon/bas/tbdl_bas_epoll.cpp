/* Event-loop registration. The kernel's epoll datum carries the
 * descriptor; the callback and the registrant's datum are kept here in a
 * table indexed by the descriptor, so a registrant may build its record on
 * its stack. */
#include <errno.h>
#include <string.h>

#include "bas/tbdl_bas_priv.h"

TBDL_BAS_EPOLL_ENTRY_S g_astTbdlBasEpollTable[TBDL_BAS_EPOLL_FD_MAX];

static bool tbdl_bas_EpollFdInRange(int iFd)
{
    return iFd >= 0 && (u32)iFd < TBDL_BAS_EPOLL_FD_MAX;
}

int TBDL_BAS_EpollCtl(int iEpfd, int iOp, int iFd, const TBDL_EPOLL_CB_S *pstCb)
{
    if (!tbdl_bas_EpollFdInRange(iFd)) {
        errno = EBADF;
        return -1;
    }
    if (iOp == EPOLL_CTL_DEL) {
        int iRet = epoll_ctl(iEpfd, EPOLL_CTL_DEL, iFd, NULL);
        g_astTbdlBasEpollTable[iFd].ulData = 0;
        g_astTbdlBasEpollTable[iFd].pfnCallback = NULL;
        return iRet;
    }
    if (pstCb == NULL || (iOp != EPOLL_CTL_ADD && iOp != EPOLL_CTL_MOD)) {
        errno = EINVAL;
        return -1;
    }
    struct epoll_event stEvent;
    memset(&stEvent, 0, sizeof(stEvent));
    stEvent.events = pstCb->uiEvents;
    stEvent.data.fd = iFd;
    if (epoll_ctl(iEpfd, iOp, iFd, &stEvent) != 0) {
        return -1;
    }
    g_astTbdlBasEpollTable[iFd].ulData = pstCb->ulData;
    g_astTbdlBasEpollTable[iFd].pfnCallback = pstCb->pfnCallback;
    return 0;
}

void TBDL_BAS_EpollDispatch(const struct epoll_event *pstEvent)
{
    int iFd = pstEvent->data.fd;
    if (!tbdl_bas_EpollFdInRange(iFd)) {
        return;
    }
    /* Copy first: the callback may change or drop its own registration. */
    TBDL_BAS_EPOLL_ENTRY_S stEntry = g_astTbdlBasEpollTable[iFd];
    if (stEntry.pfnCallback != NULL) {
        (void)stEntry.pfnCallback(pstEvent->events, stEntry.ulData);
    }
}
