/* L3VPN watch internals shared by the files of the l3v module.
 *
 * tbdl_l3v.cpp      the module state, init/fini, activation and the
 *                   service states that switch registration on and off
 * tbdl_l3v_reg.cpp  registration, the retry timer and the descriptor
 *                   callback
 * tbdl_l3v_evt.cpp  the event handler L3VPN calls once per event */
#ifndef TBDL_L3V_PRIV_H
#define TBDL_L3V_PRIV_H

#include "plat_l3vpn.h"
#include "tbdl_bnd_rec.h"
#include "tbdl_l3v.h"

/* The name this client registers under, the events it selects (bind and
 * unbind) and the VRF index that asks for the batch of every binding. */
#define TBDL_L3V_CLIENT_NAME "TBDL"
#define TBDL_L3V_EVT_MASK (TBDL_L3V_EV_VRF_BIND | TBDL_L3V_EV_VRF_UNBIND)
#define TBDL_L3V_BATCH_ALL_VRF 0xFFFFFFFFu

#define TBDL_L3V_RETRY_MS 1000u

/* Acknowledged VRF index and bundle number of events that carry none. */
#define TBDL_L3V_NO_VRF 0xFFFFu
#define TBDL_L3V_ALL_BND 0xFFFFFFFFu
/* Interface type handed on with batch events and preset before a type is
 * read, so that a failed read is told apart from both known types. */
#define TBDL_L3V_IF_TYPE_NONE 256u

/* Service states of the L3VPN service port. */
#define TBDL_L3V_SVC_UP 1u
#define TBDL_L3V_SVC_DOWN 2u
#define TBDL_L3V_SVC_UNKNOWN 3u

/* The module's state; -1 = no descriptor or timer. */
typedef struct tagTBDL_L3V_GLOBAL {
    i32 iEpollFd;
    i32 iEvtFd;   /* the L3VPN registration */
    i32 iTimerFd; /* the registration retry timer */
} TBDL_L3V_GLOBAL_S;

extern TBDL_L3V_GLOBAL_S g_stTbdlL3vGlobal;

u32 tbdl_l3v_Reg(void);
void tbdl_l3v_Dereg(void);
u32 tbdl_l3v_StartRetryTimer(void);
void tbdl_l3v_StopRetryTimer(void);
u32 tbdl_l3v_RetryTimerCb(u32 uiEvents, u64 ulData);
u32 tbdl_l3v_SockCb(u32 uiEvents, u64 ulData);
u32 tbdl_l3v_ProcEvt(u32 uiEvent, const void *pvEvt);

#endif
