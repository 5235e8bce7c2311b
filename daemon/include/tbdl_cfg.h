/* Configuration channel: server, dispatch, recovery of stored
 * configuration. */
#ifndef TBDL_CFG_H
#define TBDL_CFG_H

#include "tbdl_cfg_msg.h"

u32 TBDL_CFG_Init(u32 uiEpfd);
void TBDL_CFG_Fini(void);
u32 TBDL_CFG_Activate(void);
void TBDL_CFG_Deactivate(void);
void TBDL_CFG_Recovery(void);

#endif
