/* Service-port watch. */
#include "tbdl_servicewatch.h"

/* Placeholder: the service-port watch comes later; until then every entry
 * point accepts its call and does nothing. */

u32 TBDL_SERVICEWATCH_Init(i32 iEpollFd)
{
    (void)iEpollFd;
    return 0;
}

void TBDL_SERVICEWATCH_Fini(void) {}

u32 TBDL_SERVICEWATCH_Activate(void)
{
    return 0;
}

void TBDL_SERVICEWATCH_Deactivate(void) {}
