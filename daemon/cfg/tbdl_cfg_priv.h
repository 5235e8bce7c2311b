/* Configuration channel, module-internal interfaces.
 *
 * tbdl_cfg_main.cpp        - module state, Init/Fini/Activate/Deactivate
 * tbdl_cfg_sock_host.cpp   - the local listening endpoint on a Linux host
 * tbdl_cfg_sock_device.cpp - the same on the device (TBDL_DEVICE_BUILD)
 * tbdl_cfg_recv.cpp        - accept, receive, framing checks, dispatch, replies
 * tbdl_cfg_parse.cpp       - TLV walk into the key record and operation data
 * tbdl_cfg_table.cpp       - handler tables of the two message classes
 * tbdl_cfg_recover.cpp     - replay of the stored configuration at activation
 */
#ifndef TBDL_CFG_PRIV_H
#define TBDL_CFG_PRIV_H

#include "plat_dbm.h"
#include "tbdl_cfg.h"

/* The module's state: the loop's descriptor and the listening socket (-1
 * when not listening). Connections live only in their loop registration. */
typedef struct tagTBDL_CFG_GLOBAL {
    i32 iEpollFd;
    i32 iListenFd;
} TBDL_CFG_GLOBAL_S;

extern TBDL_CFG_GLOBAL_S g_stTbdlCfgGlobalVar;

/* ---- tbdl_cfg_sock_host.cpp or tbdl_cfg_sock_device.cpp: listening
 * endpoint; the build links exactly one of them ---- */

#define TBDL_CFG_LISTEN_BACKLOG 1024

/* Opens, binds and listens; returns the socket or -1 (nothing left open). */
i32 tbdl_cfg_OpenListenSocket(void);
/* Closes a socket opened by tbdl_cfg_OpenListenSocket and releases its
 * address. */
void tbdl_cfg_CloseListenSocket(i32 iFd);
/* Accepts one connection, non-blocking (16-byte peer address buffer);
 * returns it or -1. A connection that cannot be taken for want of
 * descriptors is closed rather than left queued. */
i32 tbdl_cfg_AcceptConn(i32 iListenFd);

/* ---- tbdl_cfg_recv.cpp: connections and requests ---- */

u32 tbdl_cfg_Accept(u32 uiEvents, u64 ulData);
u32 tbdl_cfg_RecvMsg(u32 uiEvents, u64 ulData);
void tbdl_cfg_SendResponse(i32 iFd, u16 usMsgType, u16 usOper, u32 uiResult);
/* Handles one received request of uiLen bytes (any length) on iFd: checks
 * the framing, dispatches and replies. */
void tbdl_cfg_ProcRequest(i32 iFd, const u8 *pucMsg, u32 uiLen);

/* ---- tbdl_cfg_parse.cpp: TLV walk ---- */

/* Walks the TLVs of a configuration request. The caller zeroes the key and
 * the operation data; the operation type is returned (0: none). */
u16 tbdl_cfg_ParseCfgTlvs(const u8 *pucPayload, u32 uiLen, TBDL_CFG_KEY_S *pstKey,
                          TBDL_CFG_OPER_DATA_S *pstOperData);
/* Walks the TLVs of a display request into the (zeroed) key. */
void tbdl_cfg_ParseDispTlvs(const u8 *pucPayload, u32 uiLen, TBDL_CFG_KEY_S *pstKey);

/* ---- tbdl_cfg_table.cpp: handler tables ---- */

#define TBDL_CFG_CONFIG_TYPE_NUM 3u
#define TBDL_CFG_DISPLAY_TYPE_NUM 6u

typedef struct tagTBDL_CFG_OPS {
    TBDL_CFG_HANDLER_PF pfnHandler;
} TBDL_CFG_OPS_S;

typedef struct tagTBDL_DISP_OPS {
    TBDL_DISP_HANDLER_PF pfnHandler; /* NULL: the type has no handler */
} TBDL_DISP_OPS_S;

extern const TBDL_CFG_OPS_S g_astTbdlCfgOps[TBDL_CFG_CONFIG_TYPE_NUM];
extern const TBDL_DISP_OPS_S g_astTbdlDispOps[TBDL_CFG_DISPLAY_TYPE_NUM];

/* The handler of a message type, or NULL when the type has none. */
TBDL_CFG_HANDLER_PF tbdl_cfg_GetCfgHandler(u16 usMsgType);
TBDL_DISP_HANDLER_PF tbdl_cfg_GetDispHandler(u16 usMsgType);

/* ---- tbdl_cfg_recover.cpp: batch walk callbacks ---- */

#define TBDL_CFG_RECOVER_BLOCK 10u

u32 tbdl_cfg_RecoverBndCb(u64 ulHandle, const void *pvKey, u32 uiKeyLen);
u32 tbdl_cfg_RecoverMembCb(u64 ulHandle, const void *pvKey, u32 uiKeyLen);

#endif
