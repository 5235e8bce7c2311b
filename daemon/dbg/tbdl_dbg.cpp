/* Debug switches, ERROR counting and log output. Every ERROR output is
 * counted, in total and per distinct format string, whether or not output
 * is switched on; output of a type reaches the platform log only while its
 * switch bit is set. */
#include <stdarg.h>
#include <string.h>

#include "tbdl_bas.h"
#include "dbg/tbdl_dbg_priv.h"
#include "plat_log.h"

#define TBDL_DBG_IDENT "TBDL"
#define TBDL_DBG_LOG_OPTION 4      /* LOG_ODELAY */
#define TBDL_DBG_LOG_FACILITY 184  /* LOG_LOCAL7 */
#define TBDL_DBG_PRIORITY 0x010000BF /* LOG_LOCAL7 | LOG_DEBUG, typed line */
#define TBDL_DBG_TYPE_COUNT 2u

TBDL_LOG_VAR_S g_stTbdlLogVar = {0, 0};
char *g_apcTbdlErrStr[TBDL_DBG_ERRSTR_SLOTS];
u16 g_ausTbdlErrCnt[TBDL_DBG_ERRSTR_SLOTS];

static const char *const g_apcTbdlDbgTypeName[TBDL_DBG_TYPE_COUNT] = {"ERROR", "EVENT"};

u32 TBDL_DBG_Init(void)
{
    openlog(TBDL_DBG_IDENT, TBDL_DBG_LOG_OPTION, TBDL_DBG_LOG_FACILITY);
    g_stTbdlLogVar.uiDebugSwitch = 0;
    g_stTbdlLogVar.uiErrTotal = 0;
    memset(g_apcTbdlErrStr, 0, sizeof(g_apcTbdlErrStr));
    memset(g_ausTbdlErrCnt, 0, sizeof(g_ausTbdlErrCnt));
    return TBDL_OK;
}

void TBDL_DBG_Fini(void)
{
    closelog2(TBDL_DBG_IDENT);
    g_stTbdlLogVar.uiDebugSwitch = 0;
    g_stTbdlLogVar.uiErrTotal = 0;
    for (u32 i = 0; i < TBDL_DBG_ERRSTR_SLOTS; i++) {
        TBDL_BAS_Free(g_apcTbdlErrStr[i]);
        g_apcTbdlErrStr[i] = NULL;
        g_ausTbdlErrCnt[i] = 0;
    }
}

/* Counts one ERROR output under its format string. The used slots are a
 * prefix of the table: the first empty slot ends the scan. */
static void tbdl_dbg_CountError(const char *pcFormat)
{
    g_stTbdlLogVar.uiErrTotal++;
    if (pcFormat == NULL) {
        return;
    }
    for (u32 i = 0; i < TBDL_DBG_ERRSTR_SLOTS; i++) {
        if (g_apcTbdlErrStr[i] == NULL) {
            size_t ulLen = strlen(pcFormat) + 1;
            char *pcCopy = (char *)TBDL_BAS_Zalloc(ulLen);
            if (pcCopy == NULL) {
                return;
            }
            memcpy(pcCopy, pcFormat, ulLen);
            g_apcTbdlErrStr[i] = pcCopy;
            g_ausTbdlErrCnt[i] = 1;
            return;
        }
        if (strcmp(g_apcTbdlErrStr[i], pcFormat) == 0) {
            g_ausTbdlErrCnt[i]++;
            return;
        }
    }
}

void TBDL_DBG_Output(u32 uiType, const char *pcFormat, ...)
{
    if (uiType == TBDL_DBG_ERROR) {
        tbdl_dbg_CountError(pcFormat);
    }
    if (TBDL_DBG_IsOpen(uiType) != 1 || pcFormat == NULL || pcFormat[0] == '\0') {
        return;
    }
    va_list args;
    va_start(args, pcFormat);
    vsyslog2(TBDL_DBG_PRIORITY, TBDL_DBG_IDENT, g_apcTbdlDbgTypeName[uiType], pcFormat, args);
    va_end(args);
}

u16 TBDL_DBG_IsOpen(u32 uiType)
{
    if (uiType >= TBDL_DBG_TYPE_COUNT) {
        return 0;
    }
    return (u16)((g_stTbdlLogVar.uiDebugSwitch >> uiType) & 1u);
}

u32 TBDL_DBG_SetDebug(u16 usUndo, const TBDL_CFG_KEY_S *pstKey, u16 usOperType, void *pOperData)
{
    (void)pstKey;
    (void)usOperType;
    u32 uiType = 0;
    memcpy(&uiType, pOperData, sizeof(uiType));
    if (uiType > TBDL_DBG_ALL) {
        return TBDL_E_INVALID_PARAM;
    }
    u32 uiBits = (uiType == TBDL_DBG_ALL) ? 3u : (1u << uiType);
    if (usUndo == TBDL_CFG_OPER_UNDO) {
        g_stTbdlLogVar.uiDebugSwitch &= ~uiBits;
    } else {
        g_stTbdlLogVar.uiDebugSwitch |= uiBits;
    }
    return TBDL_OK;
}

u32 TBDL_DBG_GetDebug(void)
{
    return g_stTbdlLogVar.uiDebugSwitch;
}

void TBDL_DBG_ClearRunning(void)
{
    g_stTbdlLogVar.uiDebugSwitch = 0;
}
