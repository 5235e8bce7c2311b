/* Tunnel library: tunnel mode of a tunnel interface. */
#ifndef PLAT_TUNNEL_H
#define PLAT_TUNNEL_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

/* Writes the tunnel mode of interface uiIfIndex into *puiMode; leaves it
 * untouched when the interface has none. 0 on success. */
u32 TUNNEL_GetMode(u32 uiIfIndex, u32 *puiMode);

PLAT_EXTERN_C_END

#endif
