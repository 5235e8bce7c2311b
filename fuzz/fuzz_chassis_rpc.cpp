/* Fuzz target of chassisd's request handling: each input is one datagram
 * as a connection delivers it, the 8-byte header then the payload. A
 * chassisctl request (OP_CTL) goes through the JSON checks and the command
 * table; any other operation goes to the handler of the service that
 * serves it, for a peer trusted to speak for the board, as the loop does.
 *
 * chassisd's code runs without its loop and without board daemons: the
 * chassis (boards 0 and 1, board 0 master) lives in a scratch directory
 * removed at exit; the connection is not one of the loop's, so replies are
 * not sent. Commands that start or stop board daemons (stop, reboot,
 * board_restart) are left out: they fork. Every board's state is cleared
 * before each input, so an input replays alone. Besides the sanitizers, a
 * chassisctl command must answer at once with an object whose "ok" is a
 * boolean and, when false, whose "error" is a string. */
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "chassisd.h"
#include "rpc.h"

namespace chassis {

/* What chassisd's main file provides. The log is not kept: a run makes
 * millions of requests. */
Options g_opt;

void Log(const std::string &) {}

} // namespace chassis

namespace {

using chassis::Json;
using tbdl::rpc::Hdr;

std::string g_strDir;
chassis::Conn g_stConn; /* may sit on subscriber lists: lives as long as the run */

void Check(bool bOk, const char *pcWhat)
{
    if (!bOk) {
        fprintf(stderr, "chassis request check failed: %s\n", pcWhat);
        abort();
    }
}

void RemoveDir()
{
    std::error_code ec;
    std::filesystem::remove_all(g_strDir, ec);
}

void Ctl(const uint8_t *puc, size_t ulLen)
{
    Json req = Json::parse(puc, puc + ulLen, nullptr, false);
    if (req.is_discarded() || !req.is_object() || !req.contains("cmd") || !req["cmd"].is_string()) {
        return; /* answered "malformed request" */
    }
    const std::string strCmd = req["cmd"].get<std::string>();
    if (strCmd == "stop" || strCmd == "reboot" || strCmd == "board_restart") {
        return;
    }
    Json reply;
    try {
        Check(chassis::CtlHandle(g_stConn.fd, req, reply), "a command answers at once");
    } catch (const std::exception &) {
        return; /* answered "bad request" */
    }
    Check(reply.is_object() && reply.contains("ok") && reply["ok"].is_boolean(), "the answer says ok or not");
    Check(reply["ok"].get<bool>() || (reply.contains("error") && reply["error"].is_string()),
          "a failed command says why");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    char acDir[] = "/tmp/fuzz_chassis_XXXXXX";
    if (mkdtemp(acDir) == nullptr) {
        abort();
    }
    g_strDir = acDir;
    (void)atexit(RemoveDir);
    chassis::g_opt.dir = g_strDir;
    chassis::g_opt.settings.boards = {0, 1};
    chassis::g_opt.daemonPath = "/nonexistent/tbdld";
    chassis::g_opt.trustUser = true;
    std::string strErr;
    if (!chassis::SvcInit(strErr) || !chassis::ServicesInit(strErr)) {
        fprintf(stderr, "chassis set-up failed: %s\n", strErr.c_str());
        abort();
    }
    chassis::IfLoad();
    int aiFd[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, aiFd) != 0) {
        abort();
    }
    g_stConn.fd = aiFd[0];
    g_stConn.pid = getpid();
    g_stConn.uid = geteuid();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize)
{
    if (ulSize < sizeof(Hdr) || ulSize > tbdl::rpc::kMaxMsg) {
        return 0; /* the loop closes the connection */
    }
    for (int b : chassis::g_opt.settings.boards) {
        chassis::BoardDown(b, chassis::ClearReason::REBOOT);
        chassis::BoardUp(b);
    }
    Hdr stHdr;
    memcpy(&stHdr, pucData, sizeof(stHdr));
    /* An exact-size heap copy of the payload, so the sanitizers see any
     * read past its end. */
    const size_t ulLen = ulSize - sizeof(Hdr);
    auto *pucBody = static_cast<uint8_t *>(malloc(ulLen == 0 ? 1 : ulLen));
    Check(pucBody != nullptr, "payload buffer");
    memcpy(pucBody, pucData + sizeof(Hdr), ulLen);
    if (stHdr.usOp == tbdl::rpc::OP_CTL) {
        Ctl(pucBody, ulLen);
    } else if (chassis::OpHandler pfn = chassis::FindOp(stHdr.usOp);
               pfn != nullptr && chassis::ValidBoard(stHdr.usBoard) && chassis::PeerMaySpeakFor(g_stConn, stHdr.usBoard)) {
        pfn(g_stConn, stHdr, pucBody, ulLen);
    }
    free(pucBody);
    return 0;
}
