/* HA hook table: the bundle code reaches the HA module through these four
 * hooks, which the HA module fills while its channel is up. Empty hooks
 * answer 0 and send nothing. */
#include "bas/tbdl_bas_priv.h"

TBDL_BAS_HA_FUNC_S g_stTbdlBasHaFunc = {NULL, NULL, NULL, NULL};

void TBDL_BAS_RegHAFunc(const TBDL_BAS_HA_FUNC_S *pstHooks)
{
    g_stTbdlBasHaFunc = *pstHooks;
}

void TBDL_BAS_DeregHAFunc(void)
{
    g_stTbdlBasHaFunc.pfnEncHAMsg = NULL;
    g_stTbdlBasHaFunc.pfnIsMaster = NULL;
    g_stTbdlBasHaFunc.pfnFlushHAMsg = NULL;
    g_stTbdlBasHaFunc.pfnExistSlaveService = NULL;
}

u16 TBDL_BAS_HAIsMaster(void)
{
    if (g_stTbdlBasHaFunc.pfnIsMaster == NULL) {
        return 0;
    }
    return g_stTbdlBasHaFunc.pfnIsMaster();
}

u16 TBDL_BAS_HAExistSlaveService(void)
{
    if (g_stTbdlBasHaFunc.pfnExistSlaveService == NULL) {
        return 0;
    }
    return g_stTbdlBasHaFunc.pfnExistSlaveService();
}

u32 TBDL_BAS_EncHAMsg(u16 usMsgType, const void *pData)
{
    /* Nothing is encoded unless a standby is there to receive it. */
    if (TBDL_BAS_HAExistSlaveService() != 1 || g_stTbdlBasHaFunc.pfnEncHAMsg == NULL) {
        return TBDL_OK;
    }
    return g_stTbdlBasHaFunc.pfnEncHAMsg(usMsgType, pData);
}

u32 TBDL_BAS_FlushHAMsg(void)
{
    if (g_stTbdlBasHaFunc.pfnFlushHAMsg == NULL) {
        return TBDL_OK;
    }
    return g_stTbdlBasHaFunc.pfnFlushHAMsg(0);
}
