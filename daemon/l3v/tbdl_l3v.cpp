/* L3VPN watch. */
#include "tbdl_l3v.h"

/* Placeholder: the L3VPN watch comes later; until then every entry point
 * accepts its call and does nothing. */

void TBDL_L3V_Init(i32 iEpollFd)
{
    (void)iEpollFd;
}

void TBDL_L3V_Fini(void) {}

u32 TBDL_L3V_Activate(void)
{
    return 0;
}

void TBDL_L3V_Deactivate(void) {}

void TBDL_L3V_Rib4ServicePort(u32 uiState)
{
    (void)uiState;
}
