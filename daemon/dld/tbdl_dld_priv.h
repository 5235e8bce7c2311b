/* Download module internals shared by the files of the dld module.
 *
 * tbdl_dld.cpp        the module state, init/fini, activation and the
 *                     bundle and member change entry points
 * tbdl_dld_queue.cpp  per-target pending lists and bitmaps, the write
 *                     watch, draining, reconnect timers, connection
 *                     callbacks
 * tbdl_dld_lsm.cpp    the LSM connection and the LSP entry of a bundle
 * tbdl_dld_ps.cpp     the PS library binding, connection and messages */
#ifndef TBDL_DLD_PRIV_H
#define TBDL_DLD_PRIV_H

#include <stddef.h>
#include <sys/types.h>

#include "plat_lsm.h"
#include "tbdl_dld.h"

/* Download targets: index of every per-target field. */
#define TBDL_DLD_TARGET_PS 0u
#define TBDL_DLD_TARGET_LSM 1u
#define TBDL_DLD_TARGET_NUM 2u

#define TBDL_DLD_RECONN_MS 3000u

/* Event masks of the connections. */
#define TBDL_DLD_EPOLL_OUT 4u          /* EPOLLOUT */
#define TBDL_DLD_EPOLL_ERRHUP 24u      /* EPOLLERR | EPOLLHUP */
#define TBDL_DLD_EPOLL_WATCH_ON 29u    /* EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP */
#define TBDL_DLD_EPOLL_WATCH_OFF 25u   /* EPOLLIN | EPOLLERR | EPOLLHUP */

/* One queued bundle of one target. */
typedef struct tagTBDL_DLD_NODE TBDL_DLD_NODE_S;
struct tagTBDL_DLD_NODE {
    TBDL_DLD_NODE_S *pstNext;
    TBDL_DLD_NODE_S **ppstPrev;  /* the link that points to this node */
    u32 uiIfIndex;               /* bundle ifindex when queued */
    u32 uiBndNum;                /* also the bit in the target's bitmap */
};

/* The module's state; -1 = no descriptor or timer, NULL = none. */
typedef struct tagTBDL_DLD_GVAR {
    void *apvBitmap[TBDL_DLD_TARGET_NUM];
    void *pvPsLib;
    TBDL_DLD_NODE_S *apstDldList[TBDL_DLD_TARGET_NUM];
    i32 aiTimerFd[TBDL_DLD_TARGET_NUM];
    i32 aiSockFd[TBDL_DLD_TARGET_NUM];  /* [0] PS descriptor, [1] LSM handle */
    i32 iEpollFd;
} TBDL_DLD_GVAR_S;

extern TBDL_DLD_GVAR_S g_stTbdlDldGVar;

/* LSP entry, path array and attribute block as LSM takes them. */
typedef LSM_LSP_ENTRY_S TBDL_DLD_LSP_ENTRY_S;
typedef LSM_LSP_PATH_S TBDL_DLD_LSP_PATH_S;
typedef LSM_LSP_ATTR_S TBDL_DLD_LSP_ATTR_S;

/* This module's protocol number at LSM. */
#define TBDL_DLD_LSM_PROTOCOL 13u

/* Queue. */
u32 tbdl_dld_AddDldNode(u32 uiTarget, u32 uiBndNum, const u32 *puiIfIndex);
u32 tbdl_dld_SetWriteWatch(u16 usOn, u32 uiTarget);
void tbdl_dld_FreeDldList(u32 uiTarget);
void tbdl_dld_ProcLsmDldNode(void);
void tbdl_dld_ProcPsDldNode(void);
u32 tbdl_dld_StartReconnTimer(u32 uiTarget);
void tbdl_dld_StopReconnTimer(u32 uiTarget);
u32 tbdl_dld_ReconnTimerCb(u32 uiEvents, u64 ulData);
u32 tbdl_dld_LsmSockCb(u32 uiEvents, u64 ulData);
u32 tbdl_dld_PsSockCb(u32 uiEvents, u64 ulData);
ssize_t tbdl_dld_Send(i32 iFd, const void *pBuf, size_t ulLen);

/* LSM. */
u32 tbdl_dld_ConnectLsm(void);
void tbdl_dld_DisconnectLsm(u16 usWithdraw);
u32 tbdl_dld_AddLspEntry(const TBDL_BND_INFO_S *pstInfo);
u32 tbdl_dld_Download2Lsm(const TBDL_DLD_NODE_S *pstNode);
u32 tbdl_dld_LsmMsgHandler(u32 uiArg, void *pvMsg, u32 uiLen);
/* Fills the entry, path array and attribute block of a bundle snapshot. */
void tbdl_dld_BuildLspEntry(const TBDL_BND_INFO_S *pstInfo, TBDL_DLD_LSP_ENTRY_S *pstEntry,
                            TBDL_DLD_LSP_PATH_S *pstPaths, TBDL_DLD_LSP_ATTR_S *pstAttr);

/* PS. */
u32 tbdl_dld_ConnectPs(void);
void tbdl_dld_DisconnectPs(u16 usWithdraw);
u32 tbdl_dld_SyncPs(void);
void tbdl_dld_SendPsSmooth(u32 uiType);
u16 tbdl_dld_EncAddMsg(u16 usRoom, u8 *pucBuf, const TBDL_BND_INFO_S *pstInfo);
u16 tbdl_dld_EncDelMsg(u8 *pucBuf, u32 uiBndNum);
u16 tbdl_dld_EncSmoothMsg(u8 *pucBuf, u32 uiType);
u32 tbdl_dld_Download2Ps(const TBDL_DLD_NODE_S *pstNode);

#endif
