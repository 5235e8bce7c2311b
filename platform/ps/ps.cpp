/* Emulated PS client library: a registration is a connection to the PS
 * service of this process's board in chassisd (DIR/board<N>/ps.sock). The
 * connection keeps each send's boundaries, so the service sees the sends as
 * the caller made them. */
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "plat_ps.h"

#include "chassis_env.h"
#include "emulated_call.h"
#include "ps_socket.h"

using namespace tbdl::plat;

namespace {

i32 Connect()
{
    const ChassisEnv &env = GetChassisEnv();
    if (!env.inChassis) {
        return -1;
    }
    std::string path = PsSocketPathOf(env.dir, env.board);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
        close(fd);
        fd = -1;
    }
    return fd;
}

} // namespace

i32 PS_Register(u32 uiArg)
{
    return Emulated("PS_Register", i32{-1}, [] { return Connect(); },
                    [&] { return Json{{"arg", uiArg}}; });
}

void PS_Deregister(i32 iFd)
{
    Journaled("PS_Deregister", [&] { close(iFd); }, [&] { return Json{{"fd", iFd}}; });
}
