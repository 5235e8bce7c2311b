/* Member interfaces: module state, its life cycle, the system-boot flag and
 * the free callback of the per-interface private data. */
#include "intf/tbdl_intf_priv.h"

#include "plat_if.h"
#include "tbdl_bas.h"

TBDL_INTF_GLOBAL_S g_stIntfGlobalVar = {
    TBDL_INTF_PD_NONE, /* ulPdInstance */
    0,                 /* uiIfEvHandle */
    TBDL_INVALID_FD,   /* iIfEvFd */
    TBDL_INVALID_FD,   /* iEpollFd */
    0,                 /* cVrfMark */
    0,                 /* usSystemBoot */
};

static void tbdl_intf_ResetState(i32 iEpollFd)
{
    g_stIntfGlobalVar.ulPdInstance = TBDL_INTF_PD_NONE;
    g_stIntfGlobalVar.uiIfEvHandle = 0;
    g_stIntfGlobalVar.iIfEvFd = TBDL_INVALID_FD;
    g_stIntfGlobalVar.iEpollFd = iEpollFd;
    g_stIntfGlobalVar.cVrfMark = 0;
    g_stIntfGlobalVar.usSystemBoot = 0;
}

u32 TBDL_INTF_Init(i32 iEpollFd)
{
    tbdl_intf_ResetState(iEpollFd);

    u64 ulInstance = IF_CreatePDInstance(TBDL_INTF_PD_KIND, TBDL_INTF_PD_FLAGS, ~(u64)0, ~(u32)0);
    if (ulInstance == TBDL_INTF_PD_NONE) {
        return TBDL_E_NOMEM;
    }
    g_stIntfGlobalVar.ulPdInstance = ulInstance;
    return 0;
}

void TBDL_INTF_Fini(void)
{
    if (g_stIntfGlobalVar.ulPdInstance != TBDL_INTF_PD_NONE) {
        /* The store frees every private data record it still holds. */
        (void)IF_DestroyPDInstance(g_stIntfGlobalVar.ulPdInstance, tbdl_intf_FreePrivateData);
    }
    tbdl_intf_ResetState(TBDL_INVALID_FD);
}

void TBDL_INTF_SetSystemBoot(u16 usFlag)
{
    g_stIntfGlobalVar.usSystemBoot = usFlag;
}

u16 TBDL_INTF_IsSystemBoot(void)
{
    return g_stIntfGlobalVar.usSystemBoot;
}

void tbdl_intf_FreePrivateData(void *pData)
{
    if (pData != NULL) {
        TBDL_BAS_Free(pData);
    }
}
