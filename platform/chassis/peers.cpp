/* Who may make a board's platform calls.
 *
 * The chassis socket's mode lets chassisd's user and group connect (that is
 * what chassisctl needs), but a board's platform calls -- kernel commands,
 * HA messages, interface and LSM requests -- are served only to the daemon
 * the service manager started on that board and to processes it started in
 * turn: the pid in the connection's peer credentials must lead up to the
 * board's daemon through the parent links in /proc. Another user's process,
 * or a process of the same user that the board's daemon did not start, is
 * refused and its connection closed.
 *
 * A chassis started with --trust-user also serves every board to any
 * process of chassisd's own user; that is for tests that call the platform
 * library from their own process. */
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "chassisd.h"

namespace chassis {

namespace {

/* Deep enough for a daemon's helpers; a longer chain is not a board's. */
constexpr int kMaxAncestry = 32;

pid_t ParentOf(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(in, text);
    /* "pid (comm) state ppid ...": comm may hold spaces and parentheses. */
    size_t close = text.rfind(')');
    if (close == std::string::npos) {
        return -1;
    }
    std::istringstream rest(text.substr(close + 1));
    char state = 0;
    pid_t ppid = -1;
    rest >> state >> ppid;
    return rest ? ppid : -1;
}

bool DescendsFrom(pid_t pid, pid_t ancestor)
{
    for (int depth = 0; depth < kMaxAncestry && pid > 1; ++depth) {
        if (pid == ancestor) {
            return true;
        }
        pid = ParentOf(pid);
    }
    return false;
}

} // namespace

bool PeerMaySpeakFor(pid_t pid, uid_t uid, int board)
{
    if (board < 0 || board >= tbdl::plat::kMaxBoards) {
        return false;
    }
    if (g_opt.trustUser && uid == geteuid()) {
        return true;
    }
    pid_t daemon = g_boards[board].pid;
    return daemon > 0 && pid > 0 && DescendsFrom(pid, daemon);
}

bool PeerMaySpeakFor(Conn &c, int board)
{
    pid_t daemon = ValidBoard(board) ? g_boards[board].pid : -1;
    if (daemon > 0 && c.trustedBoard == board && c.trustedDaemon == daemon) {
        return true; /* found so on an earlier call of this connection */
    }
    if (!PeerMaySpeakFor(c.pid, c.uid, board)) {
        return false;
    }
    c.trustedBoard = board;
    c.trustedDaemon = daemon;
    return true;
}

} // namespace chassis
