/* Bundle table records: limits, address block, bundle and member records,
 * snapshots, and the L3VPN event data the table consumes. */
#ifndef TBDL_BND_REC_H
#define TBDL_BND_REC_H

#include <stddef.h>

#include "plat_l3vpn.h"
#include "tbdl_types.h"

/* Device limits and supported work modes. */
typedef struct tagTBDL_SPEC {
    u32 uiMaxBndNum;
    u32 uiMaxMembNum;
    u16 usLoadBalancing;
    u16 usProtectionOnetoone;
    u16 usProtectionOneplusone;
} TBDL_SPEC_S;

#define TBDL_SPEC_DEF_MAX_BND 1024u
#define TBDL_SPEC_DEF_MAX_MEMB 8u

/* Bundle address block: family in host order, two carried bytes and the
 * address bytes as received. */
typedef struct tagTBDL_ADDR {
    u16 usFamily;
    u8 aucCarried[2];
    u8 aucAddr[16];
} TBDL_ADDR_S;
static_assert(sizeof(TBDL_ADDR_S) == 20, "address block is 20 bytes");
#define TBDL_ADDR_FAMILY_IPV4 2u

typedef struct tagTBDL_MEMB TBDL_MEMB_S;
struct tagTBDL_MEMB {
    TBDL_MEMB_S *pstNext;
    TBDL_MEMB_S **ppstPrev;
    u32 uiIfIndex;
    u16 usWeight;
    u8 ucRole;
    u8 ucState;
};

typedef struct tagTBDL_BND {
    TBDL_ADDR_S stAddr;
    TBDL_MEMB_S *pstMembList;
    u32 uiBndNum;
    u32 uiIfIndex;
    u16 usVrfIndex;
    u8 ucMode;
    u8 ucTnlMode;
    u8 ucState;
    i8 cVrfMark;
} TBDL_BND_S;

/* Member entry exchanged with other modules. */
typedef struct tagTBDL_MEMB_INFO {
    u32 uiIfIndex;
    u16 usWeight;
    u8 ucRole;
    u8 ucState;
} TBDL_MEMB_INFO_S;
static_assert(sizeof(TBDL_MEMB_INFO_S) == 8, "member entry is 8 bytes");

/* Snapshot of one bundle. */
typedef struct tagTBDL_BND_INFO {
    TBDL_MEMB_INFO_S *pstMembInfo;
    TBDL_ADDR_S stAddr;
    u32 uiBndNum;
    u32 uiIfIndex;
    u16 usVrfIndex;
    u16 usMembNum;
    u8 ucMode;
    u8 ucTnlMode;
    u8 ucState;
} TBDL_BND_INFO_S;

/* Room of the member arrays callers hand to the snapshot operations. */
#define TBDL_SNAPSHOT_MEMB_MAX 32u

/* Bundle change events. */
#define TBDL_BND_EV_ADD 0u
#define TBDL_BND_EV_UPDATE 1u
#define TBDL_BND_EV_DEL 2u

/* Member events. */
#define TBDL_MEMB_EV_ADD 0u
#define TBDL_MEMB_EV_DEL 1u
#define TBDL_MEMB_EV_WEIGHT 2u
#define TBDL_MEMB_EV_UP 3u
#define TBDL_MEMB_EV_DOWN 4u

typedef void (*TBDL_BND_EV_CB_PF)(u32 uiEvent, u32 uiBndNum);

/* L3VPN event data and events. */
typedef struct tagTBDL_L3V_EVT {
    u16 usVrfIndex;
    u16 usResv;
    u32 uiIfIndex;
} TBDL_L3V_EVT_S;
static_assert(offsetof(TBDL_L3V_EVT_S, uiIfIndex) == 4, "L3VPN event ifindex at offset 4");

#define TBDL_L3V_EV_VRF_BIND L3VPN_EV_VRF_BIND
#define TBDL_L3V_EV_VRF_UNBIND L3VPN_EV_VRF_UNBIND
#define TBDL_L3V_EV_BATCH_BEGIN L3VPN_EV_BATCH_BEGIN
#define TBDL_L3V_EV_BATCH_END L3VPN_EV_BATCH_END

#endif
