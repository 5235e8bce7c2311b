/* Service-port watch. */
#ifndef TBDL_SERVICEWATCH_H
#define TBDL_SERVICEWATCH_H

#include "tbdl_types.h"

u32 TBDL_SERVICEWATCH_Init(i32 iEpollFd);
void TBDL_SERVICEWATCH_Fini(void);
u32 TBDL_SERVICEWATCH_Activate(void);
void TBDL_SERVICEWATCH_Deactivate(void);

#endif
