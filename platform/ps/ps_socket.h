/* Where a board's PS service listens: the PS library connects there, and
 * chassisd binds it. */
#ifndef TBDL_PLAT_PS_SOCKET_H
#define TBDL_PLAT_PS_SOCKET_H

#include <string>

#include "chassis_env.h"

namespace tbdl::plat {

/* dir/board<N>/ps.sock */
inline std::string PsSocketPathOf(const std::string &dir, int board) { return BoardDirOf(dir, board) + "/ps.sock"; }

} // namespace tbdl::plat

#endif
