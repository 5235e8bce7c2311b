/* Protocol service client library, loaded at run time with dlopen. The
 * daemon looks its two entry points up by name. */
#ifndef PLAT_PS_H
#define PLAT_PS_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

/* Library path on the device. A host build is given the path of the
 * emulated library at build time (TBDL_PS_LIB_PATH). */
#define PS_LIB_DEVICE_PATH "/lib/libps.so"

/* Returns a connected socket descriptor to the PS service, or -1. */
typedef i32 (*PS_REGISTER_PF)(u32 uiArg);
/* Closes the registration made by PS_Register. */
typedef void (*PS_DEREGISTER_PF)(i32 iFd);

i32 PS_Register(u32 uiArg);
void PS_Deregister(i32 iFd);

PLAT_EXTERN_C_END

#endif
