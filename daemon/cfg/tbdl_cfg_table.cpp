/* Handler tables of the configuration channel, indexed by message type:
 * configuration (class 0) and display (class 1). */
#include "cfg/tbdl_cfg_priv.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"
#include "tbdl_disp.h"
#include "tbdl_intf.h"

const TBDL_CFG_OPS_S g_astTbdlCfgOps[TBDL_CFG_CONFIG_TYPE_NUM] = {
    /* 0 */ {TBDL_DBG_SetDebug},
    /* 1 */ {TBDL_BND_Configure},
    /* 2 */ {TBDL_INTF_Configure},
};

const TBDL_DISP_OPS_S g_astTbdlDispOps[TBDL_CFG_DISPLAY_TYPE_NUM] = {
    /* 0 */ {TBDL_DISP_TnlBnd},
    /* 1 */ {TBDL_DISP_Debug},
    /* 2 */ {NULL},
    /* 3 */ {NULL},
    /* 4 */ {NULL},
    /* 5 */ {TBDL_DISP_TbdlSpec},
};

TBDL_CFG_HANDLER_PF tbdl_cfg_GetCfgHandler(u16 usMsgType)
{
    if (usMsgType >= TBDL_CFG_CONFIG_TYPE_NUM) {
        return NULL;
    }
    return g_astTbdlCfgOps[usMsgType].pfnHandler;
}

TBDL_DISP_HANDLER_PF tbdl_cfg_GetDispHandler(u16 usMsgType)
{
    if (usMsgType >= TBDL_CFG_DISPLAY_TYPE_NUM) {
        return NULL;
    }
    return g_astTbdlDispOps[usMsgType].pfnHandler;
}
