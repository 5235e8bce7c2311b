/* Board choice through the chassis's "role" answer. */
#include "tbdl_board.h"

#include "chassis_env.h"
#include "ctl_client.h"

namespace tbdl::client {

Outcome<int> AskMaster(const std::string &dir, int timeoutMs)
{
    tbdl::ctl::Client chassis(tbdl::plat::ChassisSocketPathOf(dir), timeoutMs);
    tbdl::ctl::Answer a = chassis.Role();
    if (!a) {
        return Fail("cannot ask the chassis in " + dir + " which board is master: " + a.error);
    }
    const tbdl::ctl::Json &m = a.reply["master"];
    if (!m.is_number_integer() || m.get<int>() < 0) {
        return Fail("the chassis in " + dir + " has no master board now");
    }
    return m.get<int>();
}

std::string CfgSocketOf(const std::string &dir, int board)
{
    return dir + "/board" + std::to_string(board) + "/cfg.sock";
}

Outcome<int> ChooseBoard(const std::string &dir, std::optional<int> board, int timeoutMs)
{
    Outcome<int> master = AskMaster(dir, timeoutMs);
    if (!master || !board || *board == *master) {
        return master;
    }
    return Fail("board " + std::to_string(*board) + " is not the master board (board " + std::to_string(*master) +
                " is); only the master takes configuration");
}

}  // namespace tbdl::client
