/* HA module, internal operations.
 *
 * tbdl_ha.cpp       channel set-up and teardown, role queries, dispatch
 * tbdl_ha_role.cpp  HA events, responses, activation and deactivation of
 *                   all modules
 * tbdl_ha_codec.cpp host <-> wire form of the backup payloads
 * tbdl_ha_send.cpp  encoding into the message buffer, sending, batch backup
 * tbdl_ha_recv.cpp  receive callback and the appliers of the standby */
#ifndef TBDL_HA_PRIV_H
#define TBDL_HA_PRIV_H

#include "tbdl_ha.h"

/* The module's state: the loop's descriptor, the HA channel and the one
 * message buffer backups are encoded into. */
typedef struct tagTBDL_HA_VAR {
    i32 iEpollFd;
    i32 iHaFd;
    u8 *pucMsgBuf;
    u16 usMsgBufSize;
    u16 usMsgLen;
} TBDL_HA_VAR_S;

extern TBDL_HA_VAR_S g_stTbdlHaVar;

/* Arguments of HA_Init. */
#define TBDL_HA_MODULE_NAME "TBDL"
#define TBDL_HA_INIT_ARG1 0u
#define TBDL_HA_INIT_ARG2 1u
#define TBDL_HA_INIT_ARG3 2u
#define TBDL_HA_IDENT_ID0 2682u
#define TBDL_HA_IDENT_ID1 2681u

/* Identity record handed to HA_Init: 8 bytes, zero-filled, a 16-bit value
 * at byte 0 and another at byte 4. */
typedef struct tagTBDL_HA_IDENT {
    u16 usId0;
    u16 usResv0;
    u16 usId1;
    u16 usResv1;
} TBDL_HA_IDENT_S;
static_assert(sizeof(TBDL_HA_IDENT_S) == 8, "HA identity record is 8 bytes");
static_assert(offsetof(TBDL_HA_IDENT_S, usId1) == 4, "second identity value at 4");

/* Highest backup message type; the encoder and applier tables are indexed
 * by type, entry 0 empty. */
#define TBDL_HA_MSG_TYPE_MAX TBDL_HA_MSG_MEMB_DEL

typedef u32 (*TBDL_HA_ENC_PF)(const void *pPayload);
typedef u32 (*TBDL_HA_APPLY_PF)(u16 usLen, const void *pValue);

/* Role and presence. */
u16 tbdl_ha_IsExistSlaveService(void);

/* Events. */
u32 tbdl_ha_ProcEvent(u32 uiEvent);
void tbdl_ha_Response(u32 uiEvent, void *pData);
u32 tbdl_ha_Dispatch(u32 uiEvents, u64 ulData);

/* Wire form of the payloads: numeric fields in network order; bytes 2-19
 * of the bundle update as they are. The encoder zeroes bytes 34-35. */
void tbdl_ha_BndToWire(const TBDL_KBND_S *pstHost, TBDL_KBND_S *pstWire);
void tbdl_ha_BndToHost(TBDL_KBND_S *pstPayload);
void tbdl_ha_MembToWire(const TBDL_KMEMB_S *pstHost, TBDL_KMEMB_S *pstWire);
void tbdl_ha_MembToHost(TBDL_KMEMB_S *pstPayload);

/* Sending. */
u32 tbdl_ha_EncMsg(u16 usType, const void *pPayload);
u32 tbdl_ha_EncBndUpdate(const void *pPayload);
u32 tbdl_ha_EncMembAdd(const void *pPayload);
u32 tbdl_ha_EncMembDel(const void *pPayload);
u32 tbdl_ha_SendMsg(u16 usBatch);
u32 tbdl_ha_EncBnd(const TBDL_BND_INFO_S *pstInfo);
u32 tbdl_ha_BatchBackup(void);

/* Receiving. */
u32 tbdl_ha_RecvMsg(void *pMsg, u16 usLen, u32 uiType);
u32 tbdl_ha_ApplyBndUpdate(u16 usLen, const void *pValue);
u32 tbdl_ha_ApplyMembAdd(u16 usLen, const void *pValue);
u32 tbdl_ha_ApplyMembDel(u16 usLen, const void *pValue);

#endif
