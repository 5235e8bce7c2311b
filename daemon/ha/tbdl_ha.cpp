/* HA channel: joins the HA service, sets up the message buffer, registers
 * the channel on the event loop and hands the HA hooks to the daemon core;
 * answers the role queries. */
#include <string.h>

#include "ha/tbdl_ha_priv.h"

#include "plat_ha.h"
#include "tbdl_bas.h"

TBDL_HA_VAR_S g_stTbdlHaVar = {
    TBDL_INVALID_FD, /* iEpollFd */
    TBDL_INVALID_FD, /* iHaFd */
    NULL,            /* pucMsgBuf */
    0,               /* usMsgBufSize */
    0,               /* usMsgLen */
};

/* Callbacks the HA library calls from HA_Dispatch. */
static const HA_CALLBACKS_S g_stTbdlHaCallbacks = {tbdl_ha_RecvMsg, tbdl_ha_ProcEvent};

/* Hooks through which the bundle table reaches HA. */
static const TBDL_BAS_HA_FUNC_S g_stTbdlHaHooks = {
    tbdl_ha_EncMsg,
    TBDL_HA_IsMaster,
    tbdl_ha_SendMsg,
    tbdl_ha_IsExistSlaveService,
};

static void tbdl_ha_ResetState(void)
{
    g_stTbdlHaVar.iEpollFd = TBDL_INVALID_FD;
    g_stTbdlHaVar.iHaFd = TBDL_INVALID_FD;
    g_stTbdlHaVar.pucMsgBuf = NULL;
    g_stTbdlHaVar.usMsgBufSize = 0;
    g_stTbdlHaVar.usMsgLen = 0;
}

/* Joins the HA service; returns the handle or a negative value. */
static i32 tbdl_ha_Join(void)
{
    TBDL_HA_IDENT_S stIdent;
    memset(&stIdent, 0, sizeof(stIdent));
    stIdent.usId0 = TBDL_HA_IDENT_ID0;
    stIdent.usId1 = TBDL_HA_IDENT_ID1;
    return HA_Init(TBDL_HA_MODULE_NAME, TBDL_HA_INIT_ARG1, TBDL_HA_MODULE_NAME, TBDL_HA_INIT_ARG2,
                   TBDL_HA_INIT_ARG3, &stIdent, &g_stTbdlHaCallbacks);
}

u32 TBDL_HA_Init(i32 iEpollFd)
{
    tbdl_ha_ResetState();

    i32 iHaFd = tbdl_ha_Join();
    if (iHaFd < 0) {
        return TBDL_E_FAILED;
    }

    u32 uiMtu = HA_GetMTU(iHaFd);
    u8 *pucBuf = (u8 *)HA_AllocMsg(uiMtu);
    if (pucBuf == NULL) {
        (void)HA_Exit(iHaFd);
        return TBDL_E_FAILED;
    }
    memset(pucBuf, 0, uiMtu);

    TBDL_EPOLL_CB_S stCb;
    stCb.uiEvents = TBDL_EPOLL_IN_ERRHUP;
    stCb.ulData = (u64)(u32)iHaFd;
    stCb.pfnCallback = tbdl_ha_Dispatch;
    if (TBDL_BAS_EpollCtl(iEpollFd, EPOLL_CTL_ADD, iHaFd, &stCb) != 0) {
        HA_FreeMsg(pucBuf);
        (void)HA_Exit(iHaFd);
        return TBDL_E_FAILED;
    }

    TBDL_BAS_RegHAFunc(&g_stTbdlHaHooks);

    g_stTbdlHaVar.iEpollFd = iEpollFd;
    g_stTbdlHaVar.iHaFd = iHaFd;
    g_stTbdlHaVar.pucMsgBuf = pucBuf;
    /* The capacity field is 16 bits wide; the whole MTU was zeroed above. */
    g_stTbdlHaVar.usMsgBufSize = (u16)(uiMtu & 0xFFFFu);
    g_stTbdlHaVar.usMsgLen = 0;
    return 0;
}

void TBDL_HA_Fini(void)
{
    TBDL_BAS_DeregHAFunc();

    if (g_stTbdlHaVar.iHaFd != TBDL_INVALID_FD) {
        (void)TBDL_BAS_EpollCtl(g_stTbdlHaVar.iEpollFd, EPOLL_CTL_DEL, g_stTbdlHaVar.iHaFd, NULL);
        (void)HA_Exit(g_stTbdlHaVar.iHaFd);
    }
    if (g_stTbdlHaVar.pucMsgBuf != NULL) {
        HA_FreeMsg(g_stTbdlHaVar.pucMsgBuf);
    }
    tbdl_ha_ResetState();
}

u16 TBDL_HA_IsMaster(void)
{
    return HA_IsMaster(g_stTbdlHaVar.iHaFd);
}

u16 tbdl_ha_IsExistSlaveService(void)
{
    return HA_IsExistSlaveService(g_stTbdlHaVar.iHaFd);
}

u32 tbdl_ha_Dispatch(u32 uiEvents, u64 ulData)
{
    return HA_Dispatch(uiEvents, ulData);
}
