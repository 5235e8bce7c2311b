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
#include "rpc.h"
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
    /* A service that stopped accepting fails the registration at the
     * connect deadline instead of holding the daemon's loop. */
    return tbdl::rpc::Connect(PsSocketPathOf(env.dir, env.board), 0);
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
