/* Which board's configuration socket a request goes to. Only the master
 * board's daemon takes configuration, and the master changes at a
 * switchover, so the chassis is asked each time rather than a file read. */
#ifndef TBDL_BOARD_H
#define TBDL_BOARD_H

#include <optional>
#include <string>

#include "tbdl_outcome.h"

namespace tbdl::client {

/* The master board now, as the chassis in dir answers. */
Outcome<int> AskMaster(const std::string &dir, int timeoutMs);

/* Path of a board's configuration socket in the chassis directory. */
std::string CfgSocketOf(const std::string &dir, int board);

/* The board to send to: the master, or the given board when it is the
 * master; a board that is not is a failure saying which board is. */
Outcome<int> ChooseBoard(const std::string &dir, std::optional<int> board, int timeoutMs);

}  // namespace tbdl::client

#endif
