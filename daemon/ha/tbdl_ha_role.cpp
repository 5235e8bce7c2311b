/* HA events and the switching of the board between the active (master)
 * and inactive (standby) states: activation and deactivation of every
 * module in a fixed order. */
#include "ha/tbdl_ha_priv.h"

#include "plat_ha.h"
#include "tbdl_bnd.h"
#include "tbdl_cfg.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"
#include "tbdl_dld.h"
#include "tbdl_intf.h"
#include "tbdl_l3v.h"
#include "tbdl_servicewatch.h"

u32 TBDL_HA_Activate(void)
{
    /* Every step runs whatever the earlier ones answered. Interface events
     * are subscribed before recovery binds the stored members, and the
     * configuration socket opens only after recovery. */
    u64 ulSum = 0;
    ulSum += TBDL_INTF_Activate();
    ulSum += TBDL_L3V_Activate();
    TBDL_CFG_Recovery();
    TBDL_BND_RefreshBnd();
    ulSum += TBDL_CFG_Activate();
    ulSum += TBDL_DLD_Activate();
    ulSum += TBDL_SERVICEWATCH_Activate();

    /* The caller only tests for non-zero; keep a non-zero sum non-zero in
     * 32 bits. */
    u32 uiRet = (u32)ulSum;
    if (uiRet == 0 && ulSum != 0) {
        uiRet = TBDL_E_FAILED;
    }
    return uiRet;
}

void TBDL_HA_Deactivate(u16 usNormalStop)
{
    TBDL_SERVICEWATCH_Deactivate();
    TBDL_INTF_Deactivate();
    TBDL_BND_ClearRunning();
    TBDL_L3V_Deactivate();
    TBDL_CFG_Deactivate();
    TBDL_DLD_Deactivate(usNormalStop);
    TBDL_DBG_ClearRunning();
}

void tbdl_ha_Response(u32 uiEvent, void *pData)
{
    if (HA_Response(g_stTbdlHaVar.iHaFd, uiEvent, pData) != 0) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to respond to HA. Event: %d.\r\n", (int)uiEvent);
    }
}

u32 tbdl_ha_ProcEvent(u32 uiEvent)
{
    switch (uiEvent) {
    case TBDL_HA_EV_DEACTIVATE: {
        TBDL_HA_Deactivate(0);
        u32 uiZero = 0;
        tbdl_ha_Response(uiEvent, &uiZero);
        break;
    }
    case TBDL_HA_EV_BATCH_BACKUP:
        (void)tbdl_ha_BatchBackup();
        tbdl_ha_Response(uiEvent, NULL);
        break;
    case TBDL_HA_EV_UPGRADE:
        (void)TBDL_DBM_HASync();
        if (TBDL_HA_Activate() != 0) {
            TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to process HA upgrade event because activating "
                                            "some modules failed.\r\n");
        }
        tbdl_ha_Response(uiEvent, NULL);
        break;
    case TBDL_HA_EV_ACK_ONLY:
        tbdl_ha_Response(uiEvent, NULL);
        break;
    default:
        /* Events this daemon does not know are neither handled nor
         * answered. */
        break;
    }
    return 0;
}
