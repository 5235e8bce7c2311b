/* Stand-in board daemon for the chassis's system tests. It links the
 * emulated platform library and behaves like a board daemon towards
 * chassisd, with knobs (environment) to misbehave:
 *   FAKE_TBDLD_EXIT=N   exit with status N at once, before reporting status;
 *   FAKE_TBDLD_NO_STATUS=1  never report status 2;
 *   FAKE_TBDLD_IGNORE_STOP=1  note the stop signal but keep running.
 * It joins the HA service, answers every HA event; on event 1 (batch
 * backup) it first sends one HA message "batch-from-<board>" to the peer.
 * It stops on SIGRTMIN + 1. What it sees goes to DIR/board<N>/fake.log, one
 * line each: "start cause C", "ha event E", "ha message FLAG TEXT",
 * "stop value V". */
#include <poll.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform.h"

namespace {

std::string g_logPath;
int g_board = 0;
int g_ha = -1;

void Note(const std::string &line)
{
    FILE *f = std::fopen(g_logPath.c_str(), "a");
    if (f != nullptr) {
        std::fprintf(f, "%s\n", line.c_str());
        std::fclose(f);
    }
}

u32 OnMessage(void *msg, u16 len, u32 flag)
{
    Note("ha message " + std::to_string(flag) + " " + std::string(static_cast<char *>(msg), len));
    HA_FreeMsg(msg);
    return 0;
}

u32 OnEvent(u32 event)
{
    Note("ha event " + std::to_string(event));
    if (event == 1) {
        std::string text = "batch-from-" + std::to_string(g_board);
        HA_SendMsgSync(g_ha, text.data(), static_cast<u16>(text.size()), 0);
    }
    u32 zero = 0;
    HA_Response(g_ha, event, event == 0 ? &zero : nullptr);
    return 0;
}

} // namespace

int main()
{
    const char *dir = std::getenv("TBDL_CHASSIS_DIR");
    const char *board = std::getenv("TBDL_BOARD");
    g_board = board != nullptr ? std::atoi(board) : 0;
    g_logPath = std::string(dir != nullptr ? dir : ".") + "/board" + std::to_string(g_board) + "/fake.log";
    if (const char *ex = std::getenv("FAKE_TBDLD_EXIT")) {
        return std::atoi(ex);
    }
    u32 cause = 99, detail = 0;
    SERVICE_GetStartCause(&cause, &detail);
    Note("start cause " + std::to_string(cause));

    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGRTMIN + 1);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    u8 ident[8] = {};
    HA_CALLBACKS_S cbs{OnMessage, OnEvent};
    g_ha = HA_Init("TBDL", 0, "TBDL", 1, 2, ident, &cbs);
    if (std::getenv("FAKE_TBDLD_NO_STATUS") == nullptr) {
        SERVICE_SetStatus(2);
    }
    pollfd fds[2] = {{signalfd(-1, &set, 0), POLLIN, 0}, {g_ha, POLLIN, 0}};
    for (bool stop = false; !stop;) {
        if (poll(fds, 2, -1) <= 0) {
            continue;
        }
        signalfd_siginfo si{};
        if (fds[0].revents != 0 && read(fds[0].fd, &si, sizeof(si)) == static_cast<ssize_t>(sizeof(si))) {
            Note("stop value " + std::to_string(si.ssi_int));
            stop = std::getenv("FAKE_TBDLD_IGNORE_STOP") == nullptr;
        } else if (fds[1].revents != 0) {
            HA_Dispatch(static_cast<u32>(fds[1].revents), static_cast<u64>(g_ha)); /* poll and epoll flags agree */
        }
    }
    if (g_ha >= 0) {
        HA_Exit(g_ha);
    }
    return 0;
}
