/* Bundle table internals shared by the files of the bnd module.
 *
 * tbdl_bnd_table.cpp   the table global, init/fini, snapshots and walks,
 *                      member list primitives
 * tbdl_bnd_cfg.cpp     bundle create/delete, address, the hold timer
 * tbdl_bnd_ktbdl.cpp   kernel commands with their HA mirror, derived state,
 *                      database record, refresh and clearing of the table
 * tbdl_bnd_memb.cpp    member events and VRF events with the batch sweep
 * tbdl_bnd_recover.cpp rebuilding bundles from stored records */
#ifndef TBDL_BND_PRIV_H
#define TBDL_BND_PRIV_H

#include "tbdl_bnd.h"

/* Bundle count while the hold after the deletion of the last bundle runs. */
#define TBDL_BND_CNT_HOLD 0xFFFFFFFFu

/* The module's state: the bundle slots, the change callback, the hold
 * timer, the limits and the VRF sweep mark. */
typedef struct tagTBDL_BND_GLOBAL {
    TBDL_BND_S **ppstBnd;
    TBDL_BND_EV_CB_PF pfBndEvCb;
    i32 iEpollFd;
    i32 iTimerFd;
    u32 uiMaxBndNum;
    u32 uiMaxMembNum;
    u32 uiBndCnt;
    u8 ucModeFlags;
    i8 cVrfMark;
} TBDL_BND_GLOBAL_S;

extern TBDL_BND_GLOBAL_S g_stTbdlGlobalVar;

/* Hold after the deletion of the last bundle. */
#define TBDL_BND_HOLD_MS 30000u

/* Message shared by every operation that checks a bundle number. */
#define TBDL_BND_MSG_INVALID_NUM "The tunnel bundle interface number (%d) is invalid.\r\n"

/* --- tbdl_bnd_table.cpp --- */
void tbdl_bnd_FillInfo(const TBDL_BND_S *pstBnd, TBDL_BND_INFO_S *pstInfo);
/* Record of an existing bundle, NULL when the number is out of range or the
 * slot is empty. Never logs. */
TBDL_BND_S *tbdl_bnd_Get(u32 uiBndNum);
/* Inserts a node at the head of the bundle's member list. */
void tbdl_bnd_LinkMemb(TBDL_BND_S *pstBnd, TBDL_MEMB_S *pstMemb);
/* Takes a node out of the list it is in (does not free it). */
void tbdl_bnd_UnlinkMemb(TBDL_MEMB_S *pstMemb);
/* Member node by interface index, NULL when not a member. */
TBDL_MEMB_S *tbdl_bnd_FindMemb(const TBDL_BND_S *pstBnd, u32 uiIfIndex);
/* Removes and frees every member, newest first; with usNotify 1 each one is
 * first deleted from KTBDL (and the standby). */
void tbdl_bnd_FlushMemb(TBDL_BND_S *pstBnd, u16 usNotify);
/* Formats "Tunnel-Bundle%d" and asks the interface manager for its index
 * (created on demand); 0 when there is none. */
u32 tbdl_bnd_GetBndIfIndex(u32 uiBndNum);
/* Calls the bundle change callback when one is set. */
void tbdl_bnd_Notify(u32 uiEvent, u32 uiBndNum);

/* --- tbdl_bnd_cfg.cpp --- */
u32 tbdl_bnd_HoldTimerCb(u32 uiEvents, u64 ulData);

/* --- tbdl_bnd_ktbdl.cpp --- */
u32 tbdl_bnd_UpdateKtbdl(const TBDL_BND_S *pstBnd);
u32 tbdl_bnd_AddMembKtbdl(u32 uiMembIfIndex, u32 uiBndIfIndex);
u32 tbdl_bnd_DelMembKtbdl(u32 uiMembIfIndex, u32 uiBndIfIndex);
void tbdl_bnd_RefreshState(TBDL_BND_S *pstBnd);
u32 tbdl_bnd_SaveBnd(u16 usDel, u32 uiBndNum);

/* --- tbdl_bnd_memb.cpp --- */
u32 tbdl_bnd_SetVrf(u32 uiBndNum, u16 usVrfIndex);

#endif
