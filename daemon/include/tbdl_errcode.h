/* Result codes of the tunnel-bundle daemon: one catalogue of {code, name,
 * meaning}. The daemon returns the codes and puts them in its logs and in
 * its replies on the configuration channel; the operator tool tbdlctl shows
 * a refused request's code with its name and sentence from here; the tests
 * assert on the codes by name. */
#ifndef TBDL_ERRCODE_H
#define TBDL_ERRCODE_H

#include "plat_types.h"

#define TBDL_OK 0x00000000u
#define TBDL_E_FAILED 0x40010001u
#define TBDL_E_NOTEXIST 0x40010005u
#define TBDL_E_NOCHANGE 0x40010006u
#define TBDL_E_NOTSUPPORT 0x40010008u
#define TBDL_E_NOMEM 0x4001000fu
#define TBDL_E_INVALID_PARAM 0x20010002u
#define TBDL_E_INVALID_BND 0x2001000cu
#define TBDL_E_INVALID_MSG 0x60010004u

#define TBDL_E_LAST_BND_DELETED 0x65140001u
#define TBDL_E_BND_MODE_CONFLICT 0x65140002u
#define TBDL_E_TNL_MODE_MISMATCH 0x65140003u
#define TBDL_E_VRF_MISMATCH 0x65140004u
#define TBDL_E_MEMB_IN_OTHER_BND 0x65140005u
#define TBDL_E_MODE_NOTSUPPORT 0x65140006u
#define TBDL_E_BND_HOLD 0x65140007u
#define TBDL_E_MEMB_FULL 0x65140008u
#define TBDL_E_MEMB_ROLE 0x65140009u

typedef struct tagTBDL_ERRCODE_DESC {
    u32 uiCode;
    const char *pcName;
    const char *pcMeaning;
} TBDL_ERRCODE_DESC_S;

static const TBDL_ERRCODE_DESC_S g_astTbdlErrCodeDesc[] = {
    {TBDL_OK, "TBDL_OK", "The request succeeded."},
    {TBDL_E_FAILED, "TBDL_E_FAILED", "The operation failed."},
    {TBDL_E_NOTEXIST, "TBDL_E_NOTEXIST", "The object does not exist."},
    {TBDL_E_NOCHANGE, "TBDL_E_NOCHANGE", "The setting is already in effect; nothing changed."},
    {TBDL_E_NOTSUPPORT, "TBDL_E_NOTSUPPORT", "The operation is not supported."},
    {TBDL_E_NOMEM, "TBDL_E_NOMEM", "The daemon ran out of memory."},
    {TBDL_E_INVALID_PARAM, "TBDL_E_INVALID_PARAM", "A parameter of the request is invalid."},
    {TBDL_E_INVALID_BND, "TBDL_E_INVALID_BND", "The tunnel bundle number is out of range on this device."},
    {TBDL_E_INVALID_MSG, "TBDL_E_INVALID_MSG", "The request is malformed or of an unsupported type."},
    {TBDL_E_LAST_BND_DELETED, "TBDL_E_LAST_BND_DELETED",
     "The last tunnel bundle was deleted; no tunnel bundle can be created for the next 30 seconds."},
    {TBDL_E_BND_MODE_CONFLICT, "TBDL_E_BND_MODE_CONFLICT",
     "The tunnel bundle already exists with a different work mode."},
    {TBDL_E_TNL_MODE_MISMATCH, "TBDL_E_TNL_MODE_MISMATCH",
     "The tunnel mode of the member differs from the tunnel mode of the bundle."},
    {TBDL_E_VRF_MISMATCH, "TBDL_E_VRF_MISMATCH",
     "The VPN instance of the tunnel interface differs from that of the bundle."},
    {TBDL_E_MEMB_IN_OTHER_BND, "TBDL_E_MEMB_IN_OTHER_BND",
     "The tunnel interface is already a member of another tunnel bundle."},
    {TBDL_E_MODE_NOTSUPPORT, "TBDL_E_MODE_NOTSUPPORT", "The work mode is not enabled on this device."},
    {TBDL_E_BND_HOLD, "TBDL_E_BND_HOLD",
     "A tunnel bundle cannot be created within 30 seconds after the last one was deleted."},
    {TBDL_E_MEMB_FULL, "TBDL_E_MEMB_FULL", "The tunnel bundle has no room for another member."},
    {TBDL_E_MEMB_ROLE, "TBDL_E_MEMB_ROLE", "The member role is not allowed in this tunnel bundle."},
};

/* The catalogue entry of a code, or NULL when the code is not listed. */
static inline const TBDL_ERRCODE_DESC_S *TBDL_ERRCODE_Find(u32 uiCode)
{
    for (size_t i = 0; i < sizeof(g_astTbdlErrCodeDesc) / sizeof(g_astTbdlErrCodeDesc[0]); i++) {
        if (g_astTbdlErrCodeDesc[i].uiCode == uiCode) {
            return &g_astTbdlErrCodeDesc[i];
        }
    }
    return NULL;
}

#endif
