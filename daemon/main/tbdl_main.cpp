/* Start-up and teardown of the process. The limits come from the platform,
 * then the diagnostics, the epoll descriptor, the stop signal and every
 * module's Init; the master activates its modules, the service is
 * reported up and the loop runs until the stop signal. */
#include <signal.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "tbdl_bas.h"
#include "tbdl_bnd.h"
#include "tbdl_cfg.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"
#include "tbdl_dld.h"
#include "tbdl_ha.h"
#include "tbdl_intf.h"
#include "tbdl_l3v.h"
#include "tbdl_servicewatch.h"
#include "main/tbdl_main_priv.h"
#include "platform.h"

#define TBDL_MAIN_OPT_ROWS 3u

i32 g_iTbdlEpollFd = TBDL_INVALID_FD;
i32 g_iTbdlScmSignalFd = TBDL_INVALID_FD;
u16 g_bTbdlIsStopProcess = 0;
u16 g_bTbdlNormalStop = 0;
TBDL_SPEC_S g_stTbdlSpecConf = {TBDL_SPEC_DEF_MAX_BND, TBDL_SPEC_DEF_MAX_MEMB, 0, 0, 0};

/* Completes the limits record from the platform: bundle slots, member
 * limit and the supported work modes. */
static void tbdl_main_ReadSpec(void)
{
    TBDL_SPEC_S stDefault = {TBDL_SPEC_DEF_MAX_BND, TBDL_SPEC_DEF_MAX_MEMB, 0, 0, 0};
    g_stTbdlSpecConf = stDefault;

    /* Item 13 of type 96 lands in uiMaxBndNum, the start of the record; the
     * default stands when nothing is written. */
    (void)IF_GetDataByIfType(TBDL_IF_TYPE_BUNDLE, IF_DATA_MAX_COUNT, &g_stTbdlSpecConf);

    u8 aucLfib[LFIB_INFO_LEN];
    memset(aucLfib, 0, sizeof(aucLfib));
    if (LFIB_GetInfo(aucLfib) == 0) {
        g_stTbdlSpecConf.uiMaxMembNum = aucLfib[LFIB_INFO_MAX_MEMB_OFFSET];
    }

    TBDL_OPT_ROW_S astOpt[TBDL_MAIN_OPT_ROWS] = {
        {"LoadBalancing", 0, &g_stTbdlSpecConf.usLoadBalancing, sizeof(u16)},
        {"ProtectionOnetoone", 0, &g_stTbdlSpecConf.usProtectionOnetoone, sizeof(u16)},
        {"ProtectionOneplusone", 0, &g_stTbdlSpecConf.usProtectionOneplusone, sizeof(u16)},
    };
    (void)TBDL_Opt_Parse(TBDL_MAIN_OPT_ROWS, astOpt);
}

/* Blocks the stop signal and puts its signalfd on the loop. 0, or
 * TBDL_E_FAILED when the descriptor cannot be made or registered. */
static u32 tbdl_main_InitSignal(void)
{
    sigset_t stSet;
    sigemptyset(&stSet);
    sigaddset(&stSet, SIGRTMIN + 1);
    (void)sigprocmask(SIG_BLOCK, &stSet, NULL);

    int iFd = signalfd(-1, &stSet, 0);
    if (iFd == -1) {
        return TBDL_E_FAILED;
    }
    g_iTbdlScmSignalFd = iFd;
    TBDL_EPOLL_CB_S stCb = {TBDL_EPOLL_IN, (u64)(i64)iFd, tbdl_main_SignalCallback};
    if (TBDL_BAS_EpollCtl(g_iTbdlEpollFd, EPOLL_CTL_ADD, iFd, &stCb) != 0) {
        return TBDL_E_FAILED;
    }
    return TBDL_OK;
}

/* Every module's Init, in order, whatever the earlier ones returned. The
 * sum is 0 exactly when every result is 0. */
static u64 tbdl_main_InitModules(void)
{
    i32 iEpfd = g_iTbdlEpollFd;
    u64 ulSum = 0;
    ulSum += TBDL_DBM_Init();
    ulSum += TBDL_HA_Init(iEpfd);
    ulSum += TBDL_DLD_Init(&g_stTbdlSpecConf, iEpfd);
    ulSum += TBDL_INTF_Init(iEpfd);
    TBDL_L3V_Init(iEpfd);
    ulSum += TBDL_BND_Init(&g_stTbdlSpecConf, TBDL_DLD_ProcBndEv, iEpfd);
    ulSum += TBDL_CFG_Init((u32)iEpfd);
    ulSum += TBDL_SERVICEWATCH_Init(iEpfd);
    return ulSum;
}

void tbdl_main_Exit(void)
{
    if (g_iTbdlEpollFd == TBDL_INVALID_FD) {
        return;
    }
    if (TBDL_HA_IsMaster() == 1) {
        TBDL_HA_Deactivate(g_bTbdlNormalStop);
    }
    TBDL_CFG_Fini();
    TBDL_SERVICEWATCH_Fini();
    TBDL_INTF_Fini();
    TBDL_DLD_Fini();
    TBDL_L3V_Fini();
    TBDL_BND_Fini();
    TBDL_DBG_Fini();
    TBDL_DBM_Fini();
    TBDL_HA_Fini();
    if (g_iTbdlScmSignalFd != TBDL_INVALID_FD) {
        (void)TBDL_BAS_EpollCtl(g_iTbdlEpollFd, EPOLL_CTL_DEL, g_iTbdlScmSignalFd, NULL);
        close(g_iTbdlScmSignalFd);
        g_iTbdlScmSignalFd = TBDL_INVALID_FD;
    }
    close(g_iTbdlEpollFd);
    g_iTbdlEpollFd = TBDL_INVALID_FD;
    g_bTbdlNormalStop = 0;
    g_bTbdlIsStopProcess = 0;
}

/* Start-up up to the running loop. 0 when the loop may run. */
static u32 tbdl_main_Start(void)
{
    tbdl_main_ReadSpec();
    g_bTbdlIsStopProcess = 0;
    u64 ulSum = TBDL_DBG_Init();

    g_iTbdlEpollFd = TBDL_INVALID_FD;
    int iEpfd = epoll_create(1);
    if (iEpfd == -1) {
        return TBDL_E_FAILED;
    }
    g_iTbdlEpollFd = iEpfd;

    ulSum += tbdl_main_InitSignal();
    ulSum += tbdl_main_InitModules();
    if (ulSum != 0) {
        return TBDL_E_FAILED;
    }
    if (TBDL_HA_IsMaster() == 1 && TBDL_HA_Activate() != TBDL_OK) {
        return TBDL_E_FAILED;
    }
    (void)SERVICE_SetStatus(SERVICE_STATUS_UP);
    return TBDL_OK;
}

int TBDL_MAIN_Run(int argc, char **argv)
{
    (void)argc;
    (void)argv;
    if (tbdl_main_Start() != TBDL_OK) {
        g_bTbdlNormalStop = 1;
        tbdl_main_Exit();
        return -1;
    }
    tbdl_main_Loop();
    tbdl_main_Exit();
    return 0;
}
