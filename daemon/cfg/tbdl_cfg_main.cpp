/* Configuration channel: module state and its life (Init/Fini for the
 * process, Activate/Deactivate for the master role). */
#include <sys/epoll.h>

#include "cfg/tbdl_cfg_priv.h"
#include "tbdl_bas.h"

TBDL_CFG_GLOBAL_S g_stTbdlCfgGlobalVar = {TBDL_INVALID_FD, TBDL_INVALID_FD};

u32 TBDL_CFG_Init(u32 uiEpfd)
{
    g_stTbdlCfgGlobalVar.iEpollFd = (i32)uiEpfd;
    g_stTbdlCfgGlobalVar.iListenFd = TBDL_INVALID_FD;
    return TBDL_OK;
}

void TBDL_CFG_Fini(void)
{
    /* The listening socket was closed by TBDL_CFG_Deactivate already. */
    g_stTbdlCfgGlobalVar.iEpollFd = TBDL_INVALID_FD;
    g_stTbdlCfgGlobalVar.iListenFd = TBDL_INVALID_FD;
}

u32 TBDL_CFG_Activate(void)
{
    if (g_stTbdlCfgGlobalVar.iEpollFd == TBDL_INVALID_FD) {
        return TBDL_E_FAILED;
    }
    /* Listening already: a second socket would take over the address of
     * the first and leak it. */
    if (g_stTbdlCfgGlobalVar.iListenFd != TBDL_INVALID_FD) {
        return TBDL_OK;
    }

    i32 iFd = tbdl_cfg_OpenListenSocket();
    if (iFd == TBDL_INVALID_FD) {
        return TBDL_E_FAILED;
    }

    TBDL_EPOLL_CB_S stCb = {TBDL_EPOLL_IN_ERRHUP, (u64)iFd, tbdl_cfg_Accept};
    if (TBDL_BAS_EpollCtl(g_stTbdlCfgGlobalVar.iEpollFd, EPOLL_CTL_ADD, iFd, &stCb) != 0) {
        tbdl_cfg_CloseListenSocket(iFd);
        return TBDL_E_FAILED;
    }

    g_stTbdlCfgGlobalVar.iListenFd = iFd;
    return TBDL_OK;
}

void TBDL_CFG_Deactivate(void)
{
    i32 iFd = g_stTbdlCfgGlobalVar.iListenFd;
    if (iFd == TBDL_INVALID_FD) {
        return;
    }
    if (g_stTbdlCfgGlobalVar.iEpollFd != TBDL_INVALID_FD) {
        (void)TBDL_BAS_EpollCtl(g_stTbdlCfgGlobalVar.iEpollFd, EPOLL_CTL_DEL, iFd, NULL);
    }
    tbdl_cfg_CloseListenSocket(iFd);
    /* Connections accepted earlier stay registered; their requests are
     * dropped from now on (see tbdl_cfg_RecvMsg). */
    g_stTbdlCfgGlobalVar.iListenFd = TBDL_INVALID_FD;
}
