/* Periodic timers: timer descriptors on the event loop. A timer fires one
 * period after it was started and then every period; its owner keeps the
 * descriptor and stops it. */
#include <string.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include "tbdl_bas.h"
#include "tbdl_dbg.h"

#define TBDL_BAS_MS_PER_S 1000u
#define TBDL_BAS_NS_PER_MS 1000000u

/* The same period for the first expiry and for the interval. */
static void tbdl_bas_MsToTimerSpec(u32 uiIntervalMs, struct itimerspec *pstSpec)
{
    memset(pstSpec, 0, sizeof(*pstSpec));
    pstSpec->it_value.tv_sec = (time_t)(uiIntervalMs / TBDL_BAS_MS_PER_S);
    pstSpec->it_value.tv_nsec = (long)(uiIntervalMs % TBDL_BAS_MS_PER_S) * TBDL_BAS_NS_PER_MS;
    pstSpec->it_interval = pstSpec->it_value;
}

i32 TBDL_BAS_StartTimer(u32 uiEpfd, TBDL_EPOLL_CB_PF pfnCallback, u32 uiIntervalMs, u32 uiData)
{
    int iFd = timerfd_create(CLOCK_MONOTONIC, 0);
    if (iFd == -1) {
        return -1;
    }
    TBDL_EPOLL_CB_S stCb = {TBDL_EPOLL_IN, (u64)uiData, pfnCallback};
    if (TBDL_BAS_EpollCtl((int)uiEpfd, EPOLL_CTL_ADD, iFd, &stCb) != 0) {
        close(iFd);
        return -1;
    }
    struct itimerspec stSpec;
    tbdl_bas_MsToTimerSpec(uiIntervalMs, &stSpec);
    if (timerfd_settime(iFd, 0, &stSpec, NULL) != 0) {
        (void)TBDL_BAS_EpollCtl((int)uiEpfd, EPOLL_CTL_DEL, iFd, NULL);
        close(iFd);
        return -1;
    }
    return iFd;
}

void TBDL_BAS_StopTimer(u32 uiEpfd, i32 iTimerFd)
{
    struct itimerspec stSpec;
    memset(&stSpec, 0, sizeof(stSpec));
    if (timerfd_settime(iTimerFd, 0, &stSpec, NULL) != 0) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to set the timer.\r\n");
    }
    (void)TBDL_BAS_EpollCtl((int)uiEpfd, EPOLL_CTL_DEL, iTimerFd, NULL);
    close(iTimerFd);
}

u32 TBDL_BAS_TIMERFD_Read(u32 uiEvents, i32 iTimerFd)
{
    if ((uiEvents & TBDL_EPOLL_IN) == 0) {
        return TBDL_E_FAILED;
    }
    u64 ulExpiries = 0;
    ssize_t lRead = read(iTimerFd, &ulExpiries, sizeof(ulExpiries));
    return lRead > 0 ? TBDL_OK : TBDL_E_FAILED;
}
