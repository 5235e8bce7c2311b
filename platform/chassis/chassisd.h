/* chassisd: the chassis simulator. One process per emulated chassis plays
 * every platform service for the boards' daemons: service manager, interface
 * manager, L3VPN bindings, HA service, LSM, and each board's kernel
 * tunnel-bundle module. One thread, one epoll loop; every request is
 * answered at once, so no client ever waits on another.
 *
 * Sections (one file each):
 *   main.cpp     options, settings, chassis directory, daemonising
 *   loop.cpp     event loop, socket, connections, descriptors, timers
 *   channels.cpp subscriber lists of each kind of event channel
 *   services.cpp the table of services: operations, close, clear, dump
 *   svcmgr.cpp   board daemons: start, status, stop, restart with back-off
 *   ifmgr.cpp    interfaces, "Tunnel-Bundle%d" indexes, VRF bindings
 *   l3vpn.cpp    L3VPN: VRF queries
 *   ktbdl.cpp    each board's kernel bundle table (CIOCTL commands)
 *   ha.cpp       HA roles, registrations, events, message relay
 *   lsm.cpp      LSM: LSP entries per board with graceful-restart cycles
 *   ps.cpp       PS: each board's bundle table, fed on its own socket
 *   ctl.cpp      chassisctl commands (JSON), one table */
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

#include "plat_if.h"
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
    /* Local access (peers.cpp): serve every board's platform calls to any
     * process of chassisd's user, not only to the boards' daemons. */
    bool trustUser = false;
    /* The PS library installed in each board's files ("" when there is
     * none), and the boards that start without it. */
    std::string psLibPath;
    std::vector<int> noPsLibBoards;
};

/* ---- local access (main.cpp, loop.cpp, peers.cpp) ----
 * The chassis directory, its sockets and the database are for chassisd's
 * user and group only, whatever the umask of whoever started it. */
inline constexpr mode_t kChassisDirMode = 0750;
inline constexpr mode_t kChassisSocketMode = 0660;

/* ---- log (DIR/chassisd.log) ---- */
void Log(const std::string &text);

/* ---- event loop (loop.cpp) ---- */

/* Kinds of event channel a board's daemon opens; each kind keeps a list of
 * its subscribers (channels.cpp). */
enum class Channel { NONE, HA, IFEV, L3VPN, SVCPORT, LSM, PS };
inline constexpr size_t kChannelKinds = 7;

struct Conn {
    Channel channel = Channel::NONE; /* set by the request that opened it */
    int fd = -1;
    int board = -1;
    pid_t pid = -1;
    uint32_t protocol = 0; /* LSM */
    std::deque<Bytes> outq;
    /* Peer credentials at connect, and the board (with its daemon's pid)
     * the peer was found to belong to. */
    uid_t uid = static_cast<uid_t>(-1);
    int trustedBoard = -1;
    pid_t trustedDaemon = -1;
};

/* True when the peer (credentials at connect) may make platform calls as
 * this board (peers.cpp). */
bool PeerMaySpeakFor(pid_t pid, uid_t uid, int board);
bool PeerMaySpeakFor(Conn &c, int board);

/* Platform calls served to each board's library, in total and by
 * operation (chassisctl status): "calls" are the round trips the daemon
 * pays, "sends" the one-way messages it sent on its channels. */
Json LibCallCounts();

bool LoopInit(const Options &opt, std::string &err);
/* Runs until ExitLoop; returns the process exit status. */
int LoopRun();
void ExitLoop(int status);
/* Runs fn at (or soon after) the time point; returns an id for Cancel. */
uint64_t After(Clock::duration delay, std::function<void()> fn);
void Cancel(uint64_t id);
/* Puts a descriptor a service owns on the loop: cb gets the epoll mask of
 * each wake-up. UnwatchFd takes it off again (the caller closes it). */
void WatchFd(int fd, uint32_t events, std::function<void(uint32_t events)> cb);
void UnwatchFd(int fd);
/* Queues a message to a connection without blocking. */
void Push(int fd, uint16_t op, uint16_t board, uint32_t arg, const void *payload, size_t len);
/* Answers a board's request on its connection. */
void Reply(Conn &c, const tbdl::rpc::Hdr &req, uint32_t result, const Bytes &body = {});
/* Closes a connection (chassisd side) as if the peer had gone. */
void Drop(int fd);
Conn *FindConn(int fd);
/* Answers a chassisctl request later (for commands that wait). */
void ReplyCtl(int fd, const Json &reply);

/* ---- subscribers of each kind of event channel (channels.cpp) ---- */
class SubscriberList {
public:
    void Add(Conn &c);
    /* False when c was not on the list. */
    bool Remove(const Conn &c);
    /* The first subscriber of a board, or null. */
    Conn *First(int board) const;
    bool Has(int board) const { return First(board) != nullptr; }
    void ForBoard(int board, const std::function<void(Conn &)> &fn) const;

private:
    std::vector<Conn *> conns_;
};

SubscriberList &Subscribers(Channel kind);
/* Turns a connection into a board's channel of this kind (leaving the list
 * of the kind it had before). */
void OpenChannel(Conn &c, Channel kind, int board);
/* Pushes one message to every subscriber of the kind on the board. */
void Publish(Channel kind, int board, uint16_t op, uint32_t arg, const Bytes &body);

/* ---- the table of services (services.cpp) ----
 *
 * Each platform service is one row: the operations it answers, what it does
 * when a client's connection closes, how it clears a board's state, and its
 * dump. The loop finds an operation's handler here; chassisctl's "dump"
 * finds the dump here. A new service is a new row and a new file. */
enum class ClearReason { REBOOT, BOARD_FAILED };

using OpHandler = void (*)(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *body, size_t len);
struct OpRoute {
    uint16_t op;
    OpHandler handler;
};

struct Service {
    const char *name;
    std::vector<OpRoute> ops;
    /* A client's connection closes; wasSubscriber: it was on the list of
     * its channel kind until now. */
    void (*onClose)(Conn &c, bool wasSubscriber) = nullptr;
    void (*clearBoard)(int board, ClearReason why) = nullptr;
    const char *dumpName = nullptr; /* "chassisctl dump <dumpName>" */
    bool dumpNeedsBoard = false;
    Json (*dump)(int board) = nullptr;
    /* A dump that takes the request's options (instead of dump). */
    Json (*dumpWith)(int board, const Json &req) = nullptr;
    /* Sets up what the service needs before the boards start. */
    bool (*init)(std::string &err) = nullptr;
    /* "chassisctl <dumpName> stop|start": stopped, the service closes every
     * connection it has on the board and refuses new ones. */
    void (*setStopped)(int board, bool stopped) = nullptr;
};

const std::vector<const Service *> &Services();
/* The handler of an operation, or null. */
OpHandler FindOp(uint16_t op);
const Service *FindDump(const std::string &dumpName);
/* Runs every service's init; false (err says why) when one fails. */
bool ServicesInit(std::string &err);

/* Rows, one per service file. */
const Service &SvcService();
const Service &IfService();
const Service &L3vpnService();
const Service &HaService();
const Service &LsmService();
const Service &PsService();
const Service &KtbdlService();

/* ---- service manager (svcmgr.cpp) ---- */
/* DOWN: the board itself failed (chassisctl board fail); nothing runs on
 * it until it recovers. */
enum class BoardState { OFF, STARTING, UP, STOPPING, BACKOFF, FAILED, DOWN };
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
/* Boards in stop order: the standby first, the master last. */
std::vector<int> SvcStopOrder();
bool SvcBusy(); /* a chassis-wide stop or reboot is running */
void SvcSetBusy(bool busy);
Json SvcStatusJson();
bool ValidBoard(int b);
/* A board went down (reboot, board failure): every service clears what it
 * kept for the board, and HA hears of it. BoardUp: the board is back. */
void BoardDown(int board, ClearReason why);
void BoardUp(int board);
/* Board failure and recovery: a failed board's daemon is killed and not
 * restarted, its state cleared; a recovered board boots again. */
bool SvcFailBoard(int b, std::string &err);
bool SvcRecoverBoard(int b, std::string &err);

/* ---- interface manager (ifmgr.cpp) ---- */
/* IF_DATA_STATE values. */
inline constexpr uint32_t kIfStateDown = 0;
inline constexpr uint32_t kIfStateUp = 1;

struct Interface {
    std::string name;
    uint32_t ifIndex = 0;
    uint32_t type = IF_TYPE_TUNNEL;
    uint32_t number = 0;
    std::optional<uint32_t> tnlMode;
    uint32_t state = kIfStateUp;
    uint16_t vrf = 0;
    bool deleting = false; /* its deletion event is out; gone once acknowledged */
};

void IfLoad();
void IfFlush(); /* writes pending interface changes now */
Interface *IfFind(uint32_t ifIndex);
Interface *IfFindName(const std::string &name);
/* The record shown by dumps and chassisctl answers. */
Json IfToJson(const Interface &i);
/* Each command gives back the interface it changed (its record). */
bool IfAdd(const Json &req, Json &out, std::string &err);
bool IfSet(const Json &req, Json &out, std::string &err);
bool IfDel(const std::string &name, Json &out, std::string &err);
bool VrfBind(const std::string &name, uint32_t vrf, Json &out, std::string &err);
Json VrfDumpJson();
/* Splits "Tunnel<N>" / "Tunnel-Bundle<N>"; false for any other name. */
bool ParseIfName(const std::string &name, uint32_t &type, uint32_t &number);

/* ---- interface events, L3VPN events, service port (ifevent.cpp,
 * l3vpn.cpp, svcport.cpp) ---- */
/* Sends one event for interfaces of one type to every daemon's channel
 * subscribed to it, as one packet; gives back those channels. */
std::vector<int> IfevSend(uint32_t event, uint32_t ifType, const std::vector<uint32_t> &ifIndexes);
/* Runs done once each of fds has acknowledged event for the interface,
 * closed, or a deadline passed (at once when fds is empty). */
void IfevAwaitAcks(const std::vector<int> &fds, uint32_t event, uint32_t ifIndex, std::function<void()> done);
/* Closes the board's interface-event channels, as a broken link would. */
bool IfevHangup(int board, std::string &err);
Json IfevDumpJson();
const Service &IfEventService();
/* An interface's VRF went from oldVrf to newVrf: bind or unbind event to
 * the L3VPN clients (nothing when equal). */
void L3vpnNotify(uint32_t ifIndex, uint16_t oldVrf, uint16_t newVrf);
const Service &SvcPortService();
/* "up", "down" or "absent". */
bool SvcPortSet(const std::string &state, std::string &err);

/* ---- KTBDL (ktbdl.cpp) ---- */
void KtbdlForgetIndex(uint32_t ifIndex);

/* ---- HA (ha.cpp) ---- */
int HaMaster();
bool HaInjectEvent(int board, uint32_t event, std::string &err);
/* The service manager's word that a board went down or came back. */
void HaBoardDown(int board, ClearReason why);
void HaBoardUp(int board);
/* Planned switchover: answers chassisctl (ctlFd) through ReplyCtl when it
 * ends; false (err says why) when it cannot start. */
bool HaSwitchover(int ctlFd, std::string &err);
/* Cuts (true) or restores (false) the HA link between the boards. */
bool HaCut(bool cut, std::string &err);
/* A response or backup message that came on the board's HA channel: it is
 * one-way (no reply), and counted as a send, not a round trip. */
bool HaOneWay(const Conn &c, uint16_t op);

/* ---- chassisctl (ctl.cpp) ---- */
/* Handles one request; returns true when the reply was given (in reply),
 * false when the command answers later through ReplyCtl. */
bool CtlHandle(int fd, const Json &req, Json &reply);
/* The planned failures of every board (dump "fail"). */
Json FailDumpJson();

} // namespace chassis

#endif
