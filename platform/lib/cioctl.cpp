/* Kernel control: the command is applied to this board's kernel
 * tunnel-bundle table in place, in the shared file chassisd keeps for the
 * board (ktable.h), as the one system call it is on the device; 0 when the
 * module took it. Only when the table cannot be mapped does the command go
 * to chassisd, which applies it to the same table. */
#include "plat_cioctl.h"

#include "chassis_env.h"
#include "chassis_link.h"
#include "emulated_call.h"
#include "ktable.h"

using namespace tbdl::plat;

namespace {

/* This process's mapping of its board's table, made on first use and
 * made again when the process is pointed at another chassis or board. */
struct LocalTable {
    KtTable *table = nullptr;
    bool tried = false;
    std::string dir;
    int board = 0;
} g_local;

KtTable *BoardTable()
{
    const ChassisEnv &env = GetChassisEnv();
    if (g_local.tried && env.dir == g_local.dir && env.board == g_local.board) {
        return g_local.table;
    }
    KtClose(g_local.table);
    g_local.table = env.inChassis ? KtOpen(KtPathOf(env.dir, env.board)) : nullptr;
    g_local.tried = true;
    g_local.dir = env.dir;
    g_local.board = env.board;
    return g_local.table;
}

} // namespace

extern "C" u32 CIOCTL(u32 uiDev, u32 uiCmd, u32 uiLen, void *pvBuf, u32 uiArg1, u32 uiArg2, u32 uiArg3)
{
    return Emulated(
        "CIOCTL", u32{1},
        [&]() -> u32 {
            if (KtTable *t = BoardTable(); t != nullptr) {
                return KtCommand(t, uiDev, uiCmd, pvBuf, uiLen);
            }
            if (u32 rc = KtCheckBuffer(pvBuf, uiLen); rc != 0) {
                return rc;
            }
            tbdl::rpc::CioctlReq stReq{uiDev, uiCmd, {uiArg1, uiArg2, uiArg3}};
            return link::CallOp<tbdl::rpc::OP_CIOCTL>(0, stReq, nullptr, pvBuf, uiLen);
        },
        [&] {
            return Json{{"dev", uiDev}, {"cmd", uiCmd}, {"len", uiLen}, {"payload", HexOf(pvBuf, uiLen)}};
        });
}
