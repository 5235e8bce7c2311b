/* Service manager: status reports and the cause of the current start. */
#ifndef PLAT_SERVICE_H
#define PLAT_SERVICE_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

#define SERVICE_STATUS_UP 2u
#define SERVICE_CAUSE_SYSTEM_BOOT 0u
#define SERVICE_CAUSE_PROCESS_RESTART 1u

/* Reports the service's status (2 = up). 0 on success. */
u32 SERVICE_SetStatus(u32 uiStatus);
/* Writes the start cause (0 = the whole system booted, other values: the
 * process alone was restarted) and a detail word. 0 on success. */
u32 SERVICE_GetStartCause(u32 *puiCause, u32 *puiDetail);

PLAT_EXTERN_C_END

#endif
