/* HA service: board role, standby presence, events and backup messages
 * between the master and the standby board. */
#ifndef PLAT_HA_H
#define PLAT_HA_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

/* Events delivered to the event callback. */
#define HA_EV_DEACTIVATE 0u
#define HA_EV_BATCH_BACKUP 1u
#define HA_EV_UPGRADE 2u
#define HA_EV_ACK_ONLY 3u

/* Receive callback: a message from the peer board, its length and its send
 * flag (1 real time, 0 batch). The callback owns pvMsg and returns it with
 * HA_FreeMsg. */
typedef u32 (*HA_RECV_CB_PF)(void *pvMsg, u16 usLen, u32 uiType);
/* Event callback: one HA event. */
typedef u32 (*HA_EVENT_CB_PF)(u32 uiEvent);

typedef struct tagHA_CALLBACKS {
    HA_RECV_CB_PF pfnRecv;
    HA_EVENT_CB_PF pfnEvent;
} HA_CALLBACKS_S;

/* Joins the HA service. pvIdent: 8-byte identity record. Returns a handle
 * that is a descriptor for the event loop, or a negative value. */
i32 HA_Init(const char *pcModule, u32 uiArg1, const char *pcName, u32 uiArg2,
            u32 uiArg3, const void *pvIdent, const HA_CALLBACKS_S *pstCallbacks);
u32 HA_Exit(i32 iHandle);
/* Largest message the channel carries. */
u32 HA_GetMTU(i32 iHandle);
/* Message buffers (also the ones handed to the receive callback). */
void *HA_AllocMsg(u32 uiSize);
void HA_FreeMsg(void *pvMsg);
/* 1 when this board is master. */
u16 HA_IsMaster(i32 iHandle);
/* 1 when a standby service is there to receive backups. */
u16 HA_IsExistSlaveService(i32 iHandle);
/* Reads the channel (uiEvents: the epoll mask, ulData: the handle) and calls
 * the receive or event callback for what it read. */
u32 HA_Dispatch(u32 uiEvents, u64 ulData);
/* Answers event uiEvent, with optional data. 0 on success. */
u32 HA_Response(i32 iHandle, u32 uiEvent, void *pvData);
/* Sends one message to the peer board; uiFlag 1 real time, 0 batch. */
u32 HA_SendMsgSync(i32 iHandle, void *pvBuf, u16 usLen, u32 uiFlag);

PLAT_EXTERN_C_END

#endif
