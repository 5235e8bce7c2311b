/* HA role, module activation and backup messages. */
#ifndef TBDL_HA_H
#define TBDL_HA_H

#include "tbdl_ha_msg.h"

u32 TBDL_HA_Init(i32 iEpollFd);
void TBDL_HA_Fini(void);
u16 TBDL_HA_IsMaster(void);
u32 TBDL_HA_Activate(void);
void TBDL_HA_Deactivate(u16 usNormalStop);

#endif
