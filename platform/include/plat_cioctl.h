/* Kernel control: commands to kernel modules. */
#ifndef PLAT_CIOCTL_H
#define PLAT_CIOCTL_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

/* Sends command uiCmd with uiLen payload bytes to the kernel module selected
 * by uiDev (0xFFFF8000 for the tunnel-bundle module). 0 = accepted. */
u32 CIOCTL(u32 uiDev, u32 uiCmd, u32 uiLen, void *pvBuf, u32 uiArg1, u32 uiArg2,
           u32 uiArg3);

PLAT_EXTERN_C_END

#endif
