/* Debug switches and log output: the module's state. */
#ifndef TBDL_DBG_PRIV_H
#define TBDL_DBG_PRIV_H

#include "tbdl_dbg.h"

/* Distinct ERROR format strings counted; later ones count in the total
 * only. */
#define TBDL_DBG_ERRSTR_SLOTS 256u

typedef struct tagTBDL_LOG_VAR {
    u32 uiDebugSwitch; /* bit 0: ERROR output on, bit 1: EVENT output on */
    u32 uiErrTotal;
} TBDL_LOG_VAR_S;

extern TBDL_LOG_VAR_S g_stTbdlLogVar;
/* Copies of the ERROR format strings seen, and how often each was output. */
extern char *g_apcTbdlErrStr[TBDL_DBG_ERRSTR_SLOTS];
extern u16 g_ausTbdlErrCnt[TBDL_DBG_ERRSTR_SLOTS];

#endif
