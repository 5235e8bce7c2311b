/* The listening endpoint of the configuration channel on a Linux host: an
 * AF_UNIX SOCK_SEQPACKET socket (connection-oriented, message boundaries
 * kept, like the device's own family) bound to the path the platform maps
 * from port 2681.
 *
 * The socket file is for the daemon's user and group only, whatever the
 * umask. Out of descriptors, accept fails and the connection stays queued,
 * so the listening socket stays readable and the loop would spin on it: a
 * spare descriptor is held while listening, given up to take such a
 * connection and close it at once (the peer sees it closed), then taken
 * back. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "cfg/tbdl_cfg_priv.h"
#include "plat_lipc.h"
#include "tbdl_dbg.h"

#define TBDL_CFG_PEER_ADDR_LEN 16u
#define TBDL_CFG_SOCK_MODE 0660

/* The host endpoint's own state: the spare descriptor (-1 when none) and
 * the connections refused in the current burst (the first one is logged). */
typedef struct tagTBDL_CFG_HOST {
    i32 iReserveFd;
    u32 uiRefused;
} TBDL_CFG_HOST_S;

static TBDL_CFG_HOST_S g_stTbdlCfgHostVar = {TBDL_INVALID_FD, 0};

static u32 tbdl_cfg_GetHostAddr(struct sockaddr_un *pstAddr)
{
    memset(pstAddr, 0, sizeof(*pstAddr));
    pstAddr->sun_family = AF_UNIX;
    return LIPC_GetHostPath((u16)TBDL_CFG_PORT, pstAddr->sun_path, sizeof(pstAddr->sun_path));
}

static void tbdl_cfg_HoldReserve(void)
{
    if (g_stTbdlCfgHostVar.iReserveFd == TBDL_INVALID_FD) {
        g_stTbdlCfgHostVar.iReserveFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
}

static void tbdl_cfg_DropReserve(void)
{
    if (g_stTbdlCfgHostVar.iReserveFd != TBDL_INVALID_FD) {
        (void)close(g_stTbdlCfgHostVar.iReserveFd);
        g_stTbdlCfgHostVar.iReserveFd = TBDL_INVALID_FD;
    }
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
    /* No peer can connect before listen, so the mode holds from the first
     * connection on. */
    if (chmod(stAddr.sun_path, TBDL_CFG_SOCK_MODE) != 0 || listen(iFd, TBDL_CFG_LISTEN_BACKLOG) != 0) {
        (void)close(iFd);
        (void)unlink(stAddr.sun_path);
        return TBDL_INVALID_FD;
    }
    tbdl_cfg_HoldReserve();
    return iFd;
}

void tbdl_cfg_CloseListenSocket(i32 iFd)
{
    struct sockaddr_un stAddr;
    (void)close(iFd);
    tbdl_cfg_DropReserve();
    if (tbdl_cfg_GetHostAddr(&stAddr) == 0 && stAddr.sun_path[0] != '\0') {
        (void)unlink(stAddr.sun_path);
    }
}

static void tbdl_cfg_RefuseConn(i32 iListenFd)
{
    tbdl_cfg_DropReserve();
    int iConn = accept4(iListenFd, NULL, NULL, SOCK_CLOEXEC);
    if (iConn >= 0) {
        (void)close(iConn);
    }
    if (g_stTbdlCfgHostVar.uiRefused++ == 0) {
        TBDL_DBG_Output(TBDL_DBG_ERROR, "Out of descriptors: refusing configuration connections.\r\n");
    }
    tbdl_cfg_HoldReserve();
}

i32 tbdl_cfg_AcceptConn(i32 iListenFd)
{
    u8 aucPeer[TBDL_CFG_PEER_ADDR_LEN];
    socklen_t uiPeerLen = sizeof(aucPeer);
    int iConn = accept4(iListenFd, (struct sockaddr *)aucPeer, &uiPeerLen, SOCK_NONBLOCK);
    if (iConn < 0) {
        if (errno == EMFILE || errno == ENFILE) {
            tbdl_cfg_RefuseConn(iListenFd);
        }
        return TBDL_INVALID_FD;
    }
    g_stTbdlCfgHostVar.uiRefused = 0;
    return iConn;
}
