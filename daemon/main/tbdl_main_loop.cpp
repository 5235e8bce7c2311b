/* The event loop and the stop signal. One event per wait, no time-out;
 * the stop flag is examined after each event, so the callback that set it
 * finishes and no further event is handled. */
#include <string.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "tbdl_bas.h"
#include "main/tbdl_main_priv.h"

#define TBDL_MAIN_NORMAL_STOP_VALUE 3

u32 tbdl_main_SignalCallback(u32 uiEvents, u64 ulData)
{
    (void)uiEvents;
    struct signalfd_siginfo stInfo;
    memset(&stInfo, 0, sizeof(stInfo));
    ssize_t lRead = read((int)ulData, &stInfo, sizeof(stInfo));
    if (lRead != (ssize_t)sizeof(stInfo)) {
        return TBDL_E_FAILED;
    }
    if (stInfo.ssi_int == TBDL_MAIN_NORMAL_STOP_VALUE) {
        g_bTbdlNormalStop = 1;
    }
    g_bTbdlIsStopProcess = 1;
    return TBDL_OK;
}

void tbdl_main_Loop(void)
{
    for (;;) {
        struct epoll_event stEvent;
        memset(&stEvent, 0, sizeof(stEvent));
        /* An interrupted or failed wait is not an error: wait again. */
        if (epoll_wait(g_iTbdlEpollFd, &stEvent, 1, -1) > 0) {
            TBDL_BAS_EpollDispatch(&stEvent);
        }
        if (g_bTbdlIsStopProcess == 1) {
            break;
        }
    }
}
