/* Local ports on a host: each port of a board is an AF_UNIX path in the
 * board's directory of the chassis. */
#include "plat_lipc.h"

#include <sys/un.h>

#include <cstring>

#include "chassis_env.h"
#include "emulated_call.h"

using namespace tbdl::plat;

extern "C" u32 LIPC_GetHostPath(u16 usPort, char *pcPath, u32 uiLen)
{
    std::string strPath;
    return Emulated(
        "LIPC_GetHostPath", u32{1},
        [&]() -> u32 {
            const ChassisEnv &stEnv = GetChassisEnv();
            if (!stEnv.inChassis) {
                return 1;
            }
            strPath = LipcPathOf(stEnv.dir, stEnv.board, usPort);
            /* The path must fit both the caller's buffer and a socket address. */
            if (pcPath == nullptr || strPath.size() >= uiLen || strPath.size() >= sizeof(sockaddr_un::sun_path)) {
                return 1;
            }
            std::memcpy(pcPath, strPath.c_str(), strPath.size() + 1);
            return 0;
        },
        [&] { return Json{{"port", usPort}, {"len", uiLen}, {"path", strPath}}; });
}
