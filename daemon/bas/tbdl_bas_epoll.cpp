/* Event-loop registration. The kernel's epoll datum carries the
 * descriptor; the callback and the registrant's datum are kept here in a
 * table indexed by the descriptor, so a registrant may build its record on
 * its stack. */
#include <errno.h>
#include <string.h>

#include "bas/tbdl_bas_priv.h"

TBDL_BAS_EPOLL_TABLE_S g_stTbdlBasEpollTable = {NULL, 0};

/* Grows the table so that it has an entry for iFd. 0 or TBDL_E_NOMEM. */
static u32 tbdl_bas_EpollReserve(int iFd)
{
    TBDL_BAS_EPOLL_TABLE_S *pstTable = &g_stTbdlBasEpollTable;
    u32 uiWant = (u32)iFd + 1;
    if (uiWant <= pstTable->uiSize) {
        return TBDL_OK;
    }
    u32 uiSize = pstTable->uiSize == 0 ? 64 : pstTable->uiSize;
    while (uiSize < uiWant) {
        uiSize *= 2;
    }
    TBDL_BAS_EPOLL_ENTRY_S *pstNew =
        (TBDL_BAS_EPOLL_ENTRY_S *)TBDL_BAS_Zalloc(sizeof(TBDL_BAS_EPOLL_ENTRY_S) * uiSize);
    if (pstNew == NULL) {
        return TBDL_E_NOMEM;
    }
    if (pstTable->pstEntry != NULL) {
        memcpy(pstNew, pstTable->pstEntry, sizeof(TBDL_BAS_EPOLL_ENTRY_S) * pstTable->uiSize);
        TBDL_BAS_Free(pstTable->pstEntry);
    }
    pstTable->pstEntry = pstNew;
    pstTable->uiSize = uiSize;
    return TBDL_OK;
}

static void tbdl_bas_EpollForget(int iFd)
{
    TBDL_BAS_EPOLL_TABLE_S *pstTable = &g_stTbdlBasEpollTable;
    if (iFd >= 0 && (u32)iFd < pstTable->uiSize) {
        pstTable->pstEntry[iFd].ulData = 0;
        pstTable->pstEntry[iFd].pfnCallback = NULL;
    }
}

int TBDL_BAS_EpollCtl(int iEpfd, int iOp, int iFd, const TBDL_EPOLL_CB_S *pstCb)
{
    if (iFd < 0) {
        errno = EBADF;
        return -1;
    }
    if (iOp == EPOLL_CTL_DEL) {
        int iRet = epoll_ctl(iEpfd, EPOLL_CTL_DEL, iFd, NULL);
        tbdl_bas_EpollForget(iFd);
        return iRet;
    }
    if (pstCb == NULL || (iOp != EPOLL_CTL_ADD && iOp != EPOLL_CTL_MOD)) {
        errno = EINVAL;
        return -1;
    }
    if (tbdl_bas_EpollReserve(iFd) != TBDL_OK) {
        errno = ENOMEM;
        return -1;
    }
    struct epoll_event stEvent;
    memset(&stEvent, 0, sizeof(stEvent));
    stEvent.events = pstCb->uiEvents;
    stEvent.data.fd = iFd;
    if (epoll_ctl(iEpfd, iOp, iFd, &stEvent) != 0) {
        return -1;
    }
    g_stTbdlBasEpollTable.pstEntry[iFd].ulData = pstCb->ulData;
    g_stTbdlBasEpollTable.pstEntry[iFd].pfnCallback = pstCb->pfnCallback;
    return 0;
}

void TBDL_BAS_EpollDispatch(const struct epoll_event *pstEvent)
{
    int iFd = pstEvent->data.fd;
    if (iFd < 0 || (u32)iFd >= g_stTbdlBasEpollTable.uiSize) {
        return;
    }
    /* Copy first: the callback may change or drop its own registration. */
    TBDL_BAS_EPOLL_ENTRY_S stEntry = g_stTbdlBasEpollTable.pstEntry[iFd];
    if (stEntry.pfnCallback != NULL) {
        (void)stEntry.pfnCallback(pstEvent->events, stEntry.ulData);
    }
}
