/* Small system helpers of the platform's libsystem. */
#ifndef PLAT_SYS_H
#define PLAT_SYS_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

/* snprintf that returns the number of characters actually written into
 * pcBuf (never more than ulSize - 1); 0 when ulSize is 0. */
int scnprintf(char *pcBuf, size_t ulSize, const char *pcFormat, ...)
    __attribute__((format(printf, 3, 4)));

PLAT_EXTERN_C_END

#endif
