/* The local listening endpoint of the configuration channel.
 *
 * On the device the endpoint is the platform's own local inter-process
 * socket family, port 2681. A Linux host has no such family; there the
 * endpoint is an AF_UNIX SOCK_SEQPACKET socket (connection-oriented, message
 * boundaries kept, like the device's) bound to the path the platform maps
 * from the same port. Everything after the socket is bound is the same on
 * both. */
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "cfg/tbdl_cfg_priv.h"
#include "plat_lipc.h"

#define TBDL_CFG_LISTEN_BACKLOG 1024

#ifdef TBDL_DEVICE_BUILD

/* 16-byte address of the platform family: length, family, port (network
 * order), two platform bytes, zero padding. */
#define TBDL_CFG_LIPC_ADDR_LEN 16u

static void tbdl_cfg_BuildLipcAddr(u8 aucAddr[TBDL_CFG_LIPC_ADDR_LEN])
{
    memset(aucAddr, 0, TBDL_CFG_LIPC_ADDR_LEN);
    aucAddr[0] = (u8)TBDL_CFG_LIPC_ADDR_LEN;
    aucAddr[1] = (u8)LIPC_FAMILY;
    aucAddr[2] = (u8)(TBDL_CFG_PORT >> 8); /* 0x0A */
    aucAddr[3] = (u8)(TBDL_CFG_PORT & 0xFFu); /* 0x79 */
    aucAddr[4] = 0x80;
    aucAddr[5] = 0x00;
}

i32 tbdl_cfg_OpenListenSocket(void)
{
    int iFd = socket(LIPC_FAMILY, LIPC_SOCK_TYPE, LIPC_PROTOCOL);
    if (iFd < 0) {
        return TBDL_INVALID_FD;
    }

    int iOn = 1;
    u8 aucAddr[TBDL_CFG_LIPC_ADDR_LEN];
    tbdl_cfg_BuildLipcAddr(aucAddr);
    if (setsockopt(iFd, 1, LIPC_SO_OPTION, &iOn, sizeof(iOn)) != 0 ||
        bind(iFd, (const struct sockaddr *)aucAddr, TBDL_CFG_LIPC_ADDR_LEN) != 0 ||
        listen(iFd, TBDL_CFG_LISTEN_BACKLOG) != 0) {
        (void)close(iFd);
        return TBDL_INVALID_FD;
    }
    return iFd;
}

void tbdl_cfg_CloseListenSocket(i32 iFd)
{
    (void)close(iFd);
}

#else /* host */

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

#endif
