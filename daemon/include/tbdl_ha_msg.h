/* HA backup messages: STLV TLVs whose type is the message type and whose
 * value is the kernel payload with its numeric fields in network order. */
#ifndef TBDL_HA_MSG_H
#define TBDL_HA_MSG_H

#include "plat_ha.h"
#include "tbdl_ktbdl.h"

#define TBDL_HA_MSG_BND_UPDATE 1u
#define TBDL_HA_MSG_MEMB_ADD 2u
#define TBDL_HA_MSG_MEMB_DEL 3u
#define TBDL_HA_MSG_BND_UPDATE_LEN 36u
#define TBDL_HA_MSG_MEMB_LEN 8u
static_assert(sizeof(TBDL_KBND_S) == TBDL_HA_MSG_BND_UPDATE_LEN, "bundle update value is the kernel payload");
static_assert(sizeof(TBDL_KMEMB_S) == TBDL_HA_MSG_MEMB_LEN, "member value is the kernel payload");

/* HA events the daemon handles. */
#define TBDL_HA_EV_DEACTIVATE HA_EV_DEACTIVATE
#define TBDL_HA_EV_BATCH_BACKUP HA_EV_BATCH_BACKUP
#define TBDL_HA_EV_UPGRADE HA_EV_UPGRADE
#define TBDL_HA_EV_ACK_ONLY HA_EV_ACK_ONLY

/* Send flags of HA_SendMsgSync. */
#define TBDL_HA_SEND_BATCH 0u
#define TBDL_HA_SEND_REALTIME 1u

#endif
