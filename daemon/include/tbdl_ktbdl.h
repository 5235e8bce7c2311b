/* The kernel tunnel-bundle module KTBDL as the kernel-control call reaches
 * it: its device, its three commands and their payloads, in host byte
 * order. This is the one definition of that interface; whatever plays the
 * module (the emulated chassis, the test fake) includes it too. The same
 * payloads travel as HA backup messages 1-3 (tbdl_ha_msg.h), there with
 * their numeric fields in network order. */
#ifndef TBDL_KTBDL_H
#define TBDL_KTBDL_H

#include <stddef.h>

#include "tbdl_bnd_rec.h"

#define TBDL_KTBDL_DEV 0xFFFF8000u /* -32768 as 32 bits */
#define TBDL_KCMD_BND_UPDATE 0x7c0002u
#define TBDL_KCMD_MEMB_ADD 0x7c0003u
#define TBDL_KCMD_MEMB_DEL 0x7c0004u

typedef struct tagTBDL_KBND {
    TBDL_ADDR_S stAddr;
    u32 uiIfIndex;
    u32 uiTnlMode;
    u32 uiState;
    u16 usVrfIndex;
    u16 usResv;
} TBDL_KBND_S;
static_assert(sizeof(TBDL_KBND_S) == 36, "bundle update payload is 36 bytes");
static_assert(offsetof(TBDL_KBND_S, uiIfIndex) == 20, "ifindex at 20");
static_assert(offsetof(TBDL_KBND_S, uiTnlMode) == 24, "tunnel mode at 24");
static_assert(offsetof(TBDL_KBND_S, uiState) == 28, "state at 28");
static_assert(offsetof(TBDL_KBND_S, usVrfIndex) == 32, "VRF at 32");

typedef struct tagTBDL_KMEMB {
    u32 uiBndIfIndex;
    u32 uiMembIfIndex;
} TBDL_KMEMB_S;
static_assert(sizeof(TBDL_KMEMB_S) == 8, "member payload is 8 bytes");

#endif
