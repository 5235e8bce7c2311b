/* Local inter-process sockets.
 *
 * On the device the platform has its own socket family (37) whose
 * addresses name a port. A host has no such family: there a local endpoint
 * of the same properties (connection-oriented, message boundaries kept) is
 * an AF_UNIX SOCK_SEQPACKET socket bound to a path that the platform maps
 * from the port. */
#ifndef PLAT_LIPC_H
#define PLAT_LIPC_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

#define LIPC_FAMILY 37
#define LIPC_SOCK_TYPE 2
#define LIPC_PROTOCOL 1
#define LIPC_SO_OPTION 512

/* Host only: writes the AF_UNIX path that stands for local port usPort of
 * this board into pcPath (uiLen bytes, zero-terminated). 0 on success. */
u32 LIPC_GetHostPath(u16 usPort, char *pcPath, u32 uiLen);

PLAT_EXTERN_C_END

#endif
