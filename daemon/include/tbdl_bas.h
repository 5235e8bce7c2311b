/* Daemon base services: event-loop registration, periodic timers, the HA
 * hook table and zero-filled allocation. */
#ifndef TBDL_BAS_H
#define TBDL_BAS_H

#include <sys/epoll.h>

#include "tbdl_types.h"

/* Event-loop registration. op is EPOLL_CTL_ADD, EPOLL_CTL_MOD or
 * EPOLL_CTL_DEL (pstCb ignored for DEL). The callback and datum of each
 * descriptor are kept by the loop, so the caller's record may live on its
 * stack. Returns 0 or -1 like epoll_ctl. */
int TBDL_BAS_EpollCtl(int iEpfd, int iOp, int iFd, const TBDL_EPOLL_CB_S *pstCb);
/* Calls the registered callback of the descriptor an event reports. */
void TBDL_BAS_EpollDispatch(const struct epoll_event *pstEvent);

/* Timers. */
i32 TBDL_BAS_StartTimer(u32 uiEpfd, TBDL_EPOLL_CB_PF pfnCallback, u32 uiIntervalMs, u32 uiData);
void TBDL_BAS_StopTimer(u32 uiEpfd, i32 iTimerFd);
u32 TBDL_BAS_TIMERFD_Read(u32 uiEvents, i32 iTimerFd);

/* HA hook table. */
typedef struct tagTBDL_BAS_HA_FUNC {
    u32 (*pfnEncHAMsg)(u16 usMsgType, const void *pData);
    u16 (*pfnIsMaster)(void);
    u32 (*pfnFlushHAMsg)(u16 usBatch);
    u16 (*pfnExistSlaveService)(void);
} TBDL_BAS_HA_FUNC_S;

void TBDL_BAS_RegHAFunc(const TBDL_BAS_HA_FUNC_S *pstHooks);
void TBDL_BAS_DeregHAFunc(void);
u16 TBDL_BAS_HAIsMaster(void);
u16 TBDL_BAS_HAExistSlaveService(void);
u32 TBDL_BAS_EncHAMsg(u16 usMsgType, const void *pData);
u32 TBDL_BAS_FlushHAMsg(void);

/* Zero-filled heap block; NULL when allocation fails. Every record of the
 * daemon is allocated here, so tests can make allocations fail. */
void *TBDL_BAS_Zalloc(size_t ulSize);
void TBDL_BAS_Free(void *pv);
/* Test aid: after uiSkip more successful allocations, the next uiCount
 * allocations fail (uiCount 0xFFFFFFFF: all of them). (0, 0) turns it off. */
void TBDL_BAS_SetAllocFault(u32 uiSkip, u32 uiCount);
/* Test aid: blocks from TBDL_BAS_Zalloc not yet given back. */
u32 TBDL_BAS_LiveAllocs(void);

#endif
