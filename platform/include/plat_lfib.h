/* Label forwarding information: device capabilities. */
#ifndef PLAT_LFIB_H
#define PLAT_LFIB_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

#define LFIB_INFO_LEN 28u
#define LFIB_INFO_MAX_MEMB_OFFSET 11u /* u8: member limit of a bundle */

/* Fills the 28-byte information record. 0 on success. */
u32 LFIB_GetInfo(void *pvInfo);

PLAT_EXTERN_C_END

#endif
