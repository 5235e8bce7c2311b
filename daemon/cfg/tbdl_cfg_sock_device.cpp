/* The listening endpoint of the configuration channel on the device: the
 * platform's own local inter-process socket family, bound to port 2681.
 * Built into the daemon when TBDL_DEVICE_BUILD is on; a host build only
 * compiles it, since a Linux host has no such family. */
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "cfg/tbdl_cfg_priv.h"
#include "plat_lipc.h"

/* 16-byte address of the platform family: length, family, port (network
 * order), two platform bytes, zero padding. */
#define TBDL_CFG_LIPC_ADDR_LEN 16u
/* Level of the platform's socket option: the socket level. */
#define TBDL_CFG_LIPC_OPT_LEVEL 1

static void tbdl_cfg_BuildLipcAddr(u8 aucAddr[TBDL_CFG_LIPC_ADDR_LEN])
{
    memset(aucAddr, 0, TBDL_CFG_LIPC_ADDR_LEN);
    aucAddr[0] = (u8)TBDL_CFG_LIPC_ADDR_LEN;
    aucAddr[1] = (u8)LIPC_FAMILY;
    aucAddr[2] = (u8)(TBDL_CFG_PORT >> 8);    /* 0x0A */
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
    if (setsockopt(iFd, TBDL_CFG_LIPC_OPT_LEVEL, LIPC_SO_OPTION, &iOn, sizeof(iOn)) != 0 ||
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

i32 tbdl_cfg_AcceptConn(i32 iListenFd)
{
    u8 aucPeer[TBDL_CFG_LIPC_ADDR_LEN];
    socklen_t uiPeerLen = sizeof(aucPeer);
    return accept4(iListenFd, (struct sockaddr *)aucPeer, &uiPeerLen, SOCK_NONBLOCK);
}
