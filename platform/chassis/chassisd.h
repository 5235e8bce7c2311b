/* chassisd: the chassis simulator. One process per emulated chassis plays
 * every platform service for the boards' daemons: service manager, interface
 * manager, L3VPN bindings, HA service, LSM, and each board's kernel
 * tunnel-bundle module. One thread, one epoll loop; every request is
 * answered at once, so no client ever waits on another.
 *
 * Sections (one file each):
 *   main.cpp    options, settings, chassis directory, daemonising
 *   loop.cpp    event loop, socket, connections, request dispatch, timers
 *   svcmgr.cpp  board daemons: start, status, stop, restart with back-off
 *   ifmgr.cpp   interfaces, "Tunnel-Bundle%d" indexes, VRF bindings
 *   ktbdl.cpp   each board's kernel bundle table (CIOCTL commands)
 *   ha.cpp      HA roles, registrations, events, message relay
 *   lsm.cpp     LSM: LSP entries per board with graceful-restart cycles
 *   ctl.cpp     chassisctl commands (JSON) */
#ifndef TBDL_CHASSISD_H
#define TBDL_CHASSISD_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "rpc.h"
#include "settings.h"

namespace chassis {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;
using Bytes = std::vector<uint8_t>;

/* ---- options ---- */
struct Options {
    std::string dir;
    tbdl::plat::ChassisSettings settings;
    std::string daemonPath;
    bool journal = false;
    bool foreground = false;
    int stopTimeoutMs = 5000;
};

/* ---- log (DIR/chassisd.log) ---- */
void Log(const std::string &text);

/* ---- event loop (loop.cpp) ---- */
struct Conn {
    enum Kind { PLAIN, HA, IFEV, LSM } kind = PLAIN;
    int fd = -1;
    int board = -1;
    pid_t pid = -1;
    uint32_t protocol = 0; /* LSM */
    std::deque<Bytes> outq;
};

bool LoopInit(const Options &opt, std::string &err);
/* Runs until ExitLoop; returns the process exit status. */
int LoopRun();
void ExitLoop(int status);
/* Runs fn at (or soon after) the time point; returns an id for Cancel. */
uint64_t After(Clock::duration delay, std::function<void()> fn);
void Cancel(uint64_t id);
/* Queues a message to a connection without blocking. */
void Push(int fd, uint16_t op, uint16_t board, uint32_t arg, const void *payload, size_t len);
/* Closes a connection (chassisd side) as if the peer had gone. */
void Drop(int fd);
Conn *FindConn(int fd);
/* Answers a chassisctl request later (for commands that wait). */
void ReplyCtl(int fd, const Json &reply);

/* ---- service manager (svcmgr.cpp) ---- */
enum class BoardState { OFF, STARTING, UP, STOPPING, BACKOFF, FAILED };
const char *BoardStateName(BoardState s);

struct Board {
    int num = 0;
    bool present = false; /* in the chassis's board list */
    pid_t pid = -1;
    BoardState state = BoardState::OFF;
    uint32_t status = 0;     /* last SERVICE_SetStatus of the current run */
    uint32_t startCause = 0; /* of the current run */
    int startFailures = 0;   /* in a row, before status 2 */
    unsigned restarts = 0;
    bool stopRequested = false;
    bool killSent = false;
    uint64_t timer = 0;
    std::string lastExit;
    Clock::time_point startedAt;
    tbdl::rpc::FailPlan *failPlan = nullptr;
};

extern Options g_opt;
extern Board g_boards[tbdl::plat::kMaxBoards];

bool SvcInit(std::string &err);
void SvcStartAll(uint32_t cause);
/* Stops the listed boards one after another (orderly), then calls done. */
void SvcStop(std::vector<int> boards, std::function<void()> done);
void SvcStartBoard(int b, uint32_t cause);
bool SvcKill(int b, std::string &err);
void SvcOnChildExit(pid_t pid, int wstatus);
uint32_t SvcSetStatus(int board, pid_t pid, uint32_t status);
/* Boards in stop order: the standby first, the master last. */
std::vector<int> SvcStopOrder();
bool SvcBusy(); /* a chassis-wide stop or reboot is running */
void SvcSetBusy(bool busy);
Json SvcStatusJson();

/* ---- interface manager and L3VPN (ifmgr.cpp) ---- */
struct Interface {
    std::string name;
    uint32_t ifIndex = 0;
    uint32_t type = 39;
    uint32_t number = 0;
    std::optional<uint32_t> tnlMode;
    uint32_t state = 1;
    uint16_t vrf = 0;
};

void IfLoad();
void IfFlush(); /* writes pending interface changes now */
uint32_t IfIndexByName(const std::string &name); /* creates bundle indexes */
Interface *IfFind(uint32_t ifIndex);
Interface *IfFindName(const std::string &name);
bool IfGetData(uint32_t ifIndex, uint32_t item, uint32_t &value);
bool IfDeleteByKey(uint32_t keyType, const uint8_t *key, size_t len);
bool IfAdd(const Json &req, std::string &err);
bool IfSet(const Json &req, std::string &err);
bool IfDel(const std::string &name, std::string &err);
bool VrfBind(const std::string &name, uint32_t vrf, std::string &err);
Json IfDumpJson();
Json VrfDumpJson();
/* Splits "Tunnel<N>" / "Tunnel-Bundle<N>"; false for any other name. */
bool ParseIfName(const std::string &name, uint32_t &type, uint32_t &number);

/* ---- KTBDL (ktbdl.cpp) ---- */
uint32_t KtbdlCommand(int board, uint32_t dev, uint32_t cmd, const uint8_t *payload, size_t len);
void KtbdlClear(int board);
void KtbdlForgetIndex(uint32_t ifIndex);
Json KtbdlDumpJson(int board);

/* ---- HA (ha.cpp) ---- */
int HaMaster();
void HaRegister(Conn &c);
void HaUnregister(Conn &c);
uint32_t HaResponse(int board, uint32_t event, const uint8_t *data, size_t len);
uint32_t HaSend(int board, uint32_t flag, const uint8_t *msg, size_t len);
bool HaInjectEvent(int board, uint32_t event, std::string &err);
Json HaDumpJson();

/* ---- LSM (lsm.cpp) ---- */
uint32_t LsmGr(Conn &c, uint32_t type);
uint32_t LsmBatch(Conn &c, const uint8_t *p, size_t len);
void LsmUnregister(Conn &c);
void LsmClear(int board);
Json LsmDumpJson(int board);

/* ---- chassisctl (ctl.cpp) ---- */
/* Handles one request; returns true when the reply was given (in reply),
 * false when the command answers later through ReplyCtl. */
bool CtlHandle(int fd, const Json &req, Json &reply);

} // namespace chassis

#endif
