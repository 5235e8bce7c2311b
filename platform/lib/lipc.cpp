/* Local ports on a host: each port of a board is an AF_UNIX path in the
 * board's directory of the chassis. */
#include "plat_lipc.h"

#include <sys/un.h>

#include <cstring>

#include "chassis_env.h"
#include "chassis_link.h"
#include "journal.h"

extern "C" u32 LIPC_GetHostPath(u16 usPort, char *pcPath, u32 uiLen)
{
    const tbdl::plat::ChassisEnv &stEnv = tbdl::plat::GetChassisEnv();
    std::string strPath;
    u32 uiRet = 1;
    int64_t lValue = 1;
    if (tbdl::plat::link::Fails("LIPC_GetHostPath", &lValue)) {
        uiRet = static_cast<u32>(lValue); /* the buffer is left alone */
    } else if (stEnv.inChassis) {
        strPath = tbdl::plat::LipcPathOf(stEnv.dir, stEnv.board, usPort);
        /* The path must fit both the caller's buffer and a socket address. */
        if (pcPath != nullptr && strPath.size() < uiLen && strPath.size() < sizeof(sockaddr_un::sun_path)) {
            std::memcpy(pcPath, strPath.c_str(), strPath.size() + 1);
            uiRet = 0;
        }
    }
    if (tbdl::plat::JournalEnabled()) {
        tbdl::plat::JournalRecord("LIPC_GetHostPath", {{"port", usPort}, {"len", uiLen}, {"path", strPath}}, uiRet);
    }
    return uiRet;
}
