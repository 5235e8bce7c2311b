/* Where a board's PS service listens (the PS library connects there, and
 * chassisd binds it), and where the library sits in a board's own files. */
#ifndef TBDL_PLAT_PS_SOCKET_H
#define TBDL_PLAT_PS_SOCKET_H

#include <string>

#include "chassis_env.h"

namespace tbdl::plat {

/* dir/board<N>/ps.sock */
inline std::string PsSocketPathOf(const std::string &dir, int board) { return BoardDirOf(dir, board) + "/ps.sock"; }

/* The host build of the daemon loads its PS library from this path,
 * relative to its working directory, the board's directory (daemon/
 * CMakeLists.txt fixes the same text). chassisd puts the library there for
 * every board that starts with it. */
inline constexpr const char *kPsLibInBoard = "lib/libps.so";

/* dir/board<N>/lib/libps.so */
inline std::string PsLibPathOf(const std::string &dir, int board) { return BoardDirOf(dir, board) + "/" + kPsLibInBoard; }

} // namespace tbdl::plat

#endif
