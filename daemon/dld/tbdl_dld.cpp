/* The download module's state, its life and activation, and the bundle and
 * member changes that queue bundles for LSM and PS. */
#include <dlfcn.h>
#include <string.h>

#include "dld/tbdl_dld_priv.h"
#include "plat_bitmap.h"
#include "plat_ps.h"
#include "tbdl_bnd.h"

/* A host build is given the path of its PS library when it is built. */
#ifdef TBDL_PS_LIB_PATH
#define TBDL_DLD_PS_LIB TBDL_PS_LIB_PATH
#else
#define TBDL_DLD_PS_LIB PS_LIB_DEVICE_PATH
#endif

TBDL_DLD_GVAR_S g_stTbdlDldGVar = {{NULL, NULL}, NULL, {NULL, NULL}, {-1, -1}, {-1, -1}, -1};

u32 TBDL_DLD_Init(const TBDL_SPEC_S *pstSpec, i32 iEpollFd)
{
    TBDL_DLD_GVAR_S *pstG = &g_stTbdlDldGVar;

    memset(pstG, 0, sizeof(*pstG));
    for (u32 uiTarget = 0; uiTarget < TBDL_DLD_TARGET_NUM; uiTarget++) {
        pstG->aiTimerFd[uiTarget] = TBDL_INVALID_FD;
        pstG->aiSockFd[uiTarget] = TBDL_INVALID_FD;
    }
    pstG->iEpollFd = iEpollFd;
    for (u32 uiTarget = 0; uiTarget < TBDL_DLD_TARGET_NUM; uiTarget++) {
        pstG->apvBitmap[uiTarget] = Bitmap_Create(pstSpec->uiMaxBndNum);
        if (pstG->apvBitmap[uiTarget] == NULL) {
            return TBDL_E_NOMEM;
        }
    }
    /* Without the library PS never connects; LSM works alone. */
    pstG->pvPsLib = dlopen(TBDL_DLD_PS_LIB, RTLD_LAZY);
    return TBDL_OK;
}

void TBDL_DLD_Fini(void)
{
    TBDL_DLD_GVAR_S *pstG = &g_stTbdlDldGVar;

    if (pstG->pvPsLib != NULL) {
        (void)dlclose(pstG->pvPsLib);
        pstG->pvPsLib = NULL;
    }
    for (u32 uiTarget = 0; uiTarget < TBDL_DLD_TARGET_NUM; uiTarget++) {
        if (pstG->apvBitmap[uiTarget] != NULL) {
            Bitmap_Destroy(pstG->apvBitmap[uiTarget]);
            pstG->apvBitmap[uiTarget] = NULL;
        }
        pstG->aiTimerFd[uiTarget] = TBDL_INVALID_FD;
        pstG->aiSockFd[uiTarget] = TBDL_INVALID_FD;
    }
    pstG->iEpollFd = TBDL_INVALID_FD;
}

/* A failed connection is retried by its timer; only a timer that cannot
 * start fails the activation. */
u32 TBDL_DLD_Activate(void)
{
    u32 uiRet = TBDL_OK;

    if (tbdl_dld_ConnectLsm() != TBDL_OK) {
        uiRet = tbdl_dld_StartReconnTimer(TBDL_DLD_TARGET_LSM);
    }
    if (tbdl_dld_ConnectPs() != TBDL_OK) {
        uiRet += tbdl_dld_StartReconnTimer(TBDL_DLD_TARGET_PS);
    }
    return uiRet;
}

void TBDL_DLD_Deactivate(u16 usWithdraw)
{
    tbdl_dld_DisconnectPs(usWithdraw);
    tbdl_dld_StopReconnTimer(TBDL_DLD_TARGET_PS);
    tbdl_dld_DisconnectLsm(usWithdraw);
    tbdl_dld_StopReconnTimer(TBDL_DLD_TARGET_LSM);
}

/* An address change reaches LSM only; a deletion (raised while the record
 * still exists) reaches both, PS only for the protection modes. */
void TBDL_DLD_ProcBndEv(u32 uiEvent, u32 uiBndNum)
{
    TBDL_BND_INFO_S stInfo;

    if (uiEvent == TBDL_BND_EV_ADD) {
        return;
    }
    memset(&stInfo, 0, sizeof(stInfo));
    if (TBDL_BND_GetBndInfo(uiBndNum, &stInfo) != TBDL_OK) {
        return;
    }
    (void)tbdl_dld_AddDldNode(TBDL_DLD_TARGET_LSM, uiBndNum, &stInfo.uiIfIndex);
    if (stInfo.ucMode != TBDL_MODE_LOADBALANCING && uiEvent != TBDL_BND_EV_UPDATE) {
        (void)tbdl_dld_AddDldNode(TBDL_DLD_TARGET_PS, uiBndNum, &stInfo.uiIfIndex);
    }
}

/* PS learns of a protection pair when it is complete or one of its members
 * changed state (two members after an add), and when it is broken (one
 * member left after a removal). */
static bool tbdl_dld_PsConcerned(u32 uiEvent, u16 usMembNum)
{
    switch (uiEvent) {
    case TBDL_MEMB_EV_ADD:
        return usMembNum == 2;
    case TBDL_MEMB_EV_DEL:
        return usMembNum == 1;
    default:
        return false;
    }
}

u32 TBDL_DLD_ProcIntfEv(u32 uiEvent, u32 uiBndNum)
{
    TBDL_MEMB_INFO_S astMemb[TBDL_SNAPSHOT_MEMB_MAX];
    TBDL_BND_INFO_S stInfo;

    TBDL_BND_InitSnapshot(&stInfo, astMemb);
    u32 uiRet = TBDL_BND_GetBndInfo(uiBndNum, &stInfo);
    if (uiRet != TBDL_OK) {
        return uiRet;
    }
    (void)tbdl_dld_AddDldNode(TBDL_DLD_TARGET_LSM, uiBndNum, &stInfo.uiIfIndex);
    if (stInfo.ucMode != TBDL_MODE_LOADBALANCING && tbdl_dld_PsConcerned(uiEvent, stInfo.usMembNum)) {
        (void)tbdl_dld_AddDldNode(TBDL_DLD_TARGET_PS, uiBndNum, &stInfo.uiIfIndex);
    }
    return TBDL_OK;
}
