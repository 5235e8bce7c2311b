/* L3VPN watch. */
#ifndef TBDL_L3V_H
#define TBDL_L3V_H

#include "tbdl_types.h"

void TBDL_L3V_Init(i32 iEpollFd);
void TBDL_L3V_Fini(void);
u32 TBDL_L3V_Activate(void);
void TBDL_L3V_Deactivate(void);
void TBDL_L3V_Rib4ServicePort(u32 uiState);

#endif
