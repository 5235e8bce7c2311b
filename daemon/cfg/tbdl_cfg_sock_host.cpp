/* The listening endpoint of the configuration channel on a Linux host: an
 * AF_UNIX SOCK_SEQPACKET socket (connection-oriented, message boundaries
 * kept, like the device's own family) bound to the path the platform maps
 * from port 2681. */
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "cfg/tbdl_cfg_priv.h"
#include "plat_lipc.h"

static u32 tbdl_cfg_GetHostAddr(struct sockaddr_un *pstAddr)
{
    memset(pstAddr, 0, sizeof(*pstAddr));
    pstAddr->sun_family = AF_UNIX;
    return LIPC_GetHostPath((u16)TBDL_CFG_PORT, pstAddr->sun_path, sizeof(pstAddr->sun_path));
}

i32 tbdl_cfg_OpenListenSocket(void)
{
    struct sockaddr_un stAddr;
    int iFd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (iFd < 0) {
        return TBDL_INVALID_FD;
    }
    if (tbdl_cfg_GetHostAddr(&stAddr) != 0 || stAddr.sun_path[0] == '\0') {
        (void)close(iFd);
        return TBDL_INVALID_FD;
    }

    /* A path left behind by an earlier process of this board would make
     * the bind fail. */
    (void)unlink(stAddr.sun_path);
    if (bind(iFd, (const struct sockaddr *)&stAddr, sizeof(stAddr)) != 0) {
        (void)close(iFd);
        return TBDL_INVALID_FD;
    }
    if (listen(iFd, TBDL_CFG_LISTEN_BACKLOG) != 0) {
        (void)close(iFd);
        (void)unlink(stAddr.sun_path);
        return TBDL_INVALID_FD;
    }
    return iFd;
}

void tbdl_cfg_CloseListenSocket(i32 iFd)
{
    struct sockaddr_un stAddr;
    (void)close(iFd);
    if (tbdl_cfg_GetHostAddr(&stAddr) == 0 && stAddr.sun_path[0] != '\0') {
        (void)unlink(stAddr.sun_path);
    }
}
