/* Recording fake of the platform API for unit tests.
 *
 * Every platform call the daemon makes is recorded in order with its
 * arguments and payload bytes. Results can be scripted per call name (fail
 * once, fail always) and hooks can run inside a call, on the daemon's own
 * thread. Behind the calls stands a small in-memory platform (interfaces,
 * VRF bindings, private data, a database of sorted lists, an HA channel, a
 * log) whose event sources are real descriptors, so the daemon's modules
 * and its event loop run for real in a test. TLV coding and bitmaps are the
 * platform's own code, not recorded. */
#ifndef FAKE_PLATFORM_H
#define FAKE_PLATFORM_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform.h"

namespace fake {

/* One recorded call: its integer arguments in order (pointers are not
 * recorded as numbers), the payload bytes it received in data (a key, a
 * KTBDL payload, an HA message, ...) and, for a call that also takes a
 * record, the record bytes in rec; its string arguments joined by '|' in
 * text (log calls: identity|type|formatted text); what it returned. */
struct Call {
    std::string name;
    std::vector<uint64_t> args;
    std::vector<uint8_t> data;
    std::vector<uint8_t> rec;
    std::string text;
    uint64_t result = 0;
};

/* Clears the journal, every script and hook, and the emulated state, and
 * restores the default settings below. Call at the start of every test. */
void Reset();

/* The journal. */
std::vector<Call> CallsOf(const std::string &name);
size_t CountOf(const std::string &name);
/* Names of the recorded calls in order, optionally only those in `only`. */
std::vector<std::string> Names(const std::vector<std::string> &only = {});
void ClearJournal();

/* Scripted results, per call name (e.g. "CIOCTL", "DBM_InsertSortList",
 * "HA_Init"): FailOnce results are used up in order, before FailAlways's. A
 * scripted call does not run its emulated behaviour; it only records and
 * returns `result` (out-parameters untouched). */
void FailOnce(const std::string &name, uint64_t result);
/* The n-th next call fails (1 = the next one); the calls before it run. */
void FailNth(const std::string &name, unsigned n, uint64_t result);
void FailAlways(const std::string &name, uint64_t result);
void ClearFailures();

/* A hook runs after the call is recorded and before it returns, on the
 * caller's thread (e.g. raise the stop signal from SERVICE_SetStatus). */
void OnCall(const std::string &name, std::function<void(const Call &)> hook);

/* Platform settings, read by the calls at the moment they are made. */
struct Settings {
    uint32_t maxBnd = 1024;       /* IF_GetDataByIfType(96, 13) */
    bool maxBndAnswers = true;    /* false: the call fails and writes nothing */
    bool lfibOk = true;           /* LFIB_GetInfo result 0 */
    uint8_t lfibMaxMemb = 8;      /* byte 11 of the LFIB record */
    uint16_t modes[3] = {1, 1, 1}; /* LoadBalancing, ProtectionOnetoone, ProtectionOneplusone */
    uint32_t startCause = 1;      /* SERVICE_GetStartCause: 0 = system boot */
    bool master = true;           /* HA_IsMaster */
    bool slavePresent = false;    /* HA_IsExistSlaveService */
    uint32_t haMtu = 1400;        /* HA_GetMTU */
};
Settings &Config();

/* Interfaces known to the interface manager. "Tunnel-Bundle%d" names get an
 * index on demand from IF_GetIfIndexByFullName (from 0x1000 upward); tunnels
 * are added by the test. */
struct Interface {
    std::string name;
    uint32_t ifIndex = 0;
    uint32_t type = 39;     /* data item 18 */
    uint32_t number = 0;    /* data item 0 */
    uint32_t tnlMode = 0;   /* TUNNEL_GetMode */
    uint32_t state = 1;     /* data item 31 */
    uint16_t vrf = 0;       /* L3VPN_GetVrfIndexByIfIndex */
};
/* Adds "Tunnel<number>" of type 39 with the next free index (from 0x100
 * upward) and returns its index. */
uint32_t AddTunnel(uint32_t number, uint32_t tnlMode = 0, uint32_t state = 1, uint16_t vrf = 0);
Interface *FindInterface(uint32_t ifIndex);
Interface *FindInterface(const std::string &name);

/* Private-data store: ifindex -> pointer, for the one instance. */
std::map<uint32_t, void *> &PrivateData();

/* Interface events. IF_Event_Init opens a pipe whose read end is the event
 * descriptor; IF_RegIfEventEx takes the one subscription (handles 0x51
 * upward); each IF_ResponseEventPkt hands one pushed packet to its callback
 * (entries of IF_EVENT_ENTRY_S), answers 0 when none is pending and 1 once
 * the channel is hung up. IF_NotifyFinalStatus records the entries in data. */
void IfEventPush(uint32_t event, const std::vector<uint32_t> &ifIndexes);
/* Closes the writing end: the descriptor reports a hang-up. */
void IfEventHangUp();
int IfEventFd();          /* the open descriptor, -1 when none */
uint32_t IfEventHandle(); /* the live subscription, 0 when none */

/* Database: sorted lists keyed by the key bytes; records in stored
 * (big-endian) form, kept in sort-word order. */
using Bytes = std::vector<uint8_t>;
std::map<Bytes, std::vector<Bytes>> &Db();
bool DbOpen();               /* a DBM_Open succeeded and no DBM_Close since */
void DbPut(const Bytes &key, uint32_t sortOffset, const Bytes &rec); /* seed stored records */

/* HA channel. HA_Init returns a real descriptor; these push input onto it,
 * which HA_Dispatch then delivers to the daemon's callbacks. */
void HaPushEvent(uint32_t event);
void HaPushMessage(const Bytes &msg, uint32_t type);
/* Messages the daemon sent with HA_SendMsgSync: bytes and flag. */
struct HaSent {
    Bytes msg;
    uint32_t flag;
};
const std::vector<HaSent> &HaSentMessages();
/* Responses the daemon gave with HA_Response: event and the u32 its data
 * pointed to (0xFFFFFFFF when the data pointer was NULL). */
const std::vector<std::pair<uint32_t, uint32_t>> &HaResponses();

/* Log lines written with vsyslog2: "TYPE text" with the text formatted, e.g.
 * "ERROR Failed to save member (7) to DBM.\r\n". */
std::vector<std::string> LogLines();
bool LogOpen(); /* openlog called and closelog2 not yet */

/* Service manager: the statuses reported with SERVICE_SetStatus. */
const std::vector<uint32_t> &ServiceStatuses();

/* The path LIPC_GetHostPath gives for a local port: unique per test process
 * and per Reset; Reset removes the sockets of the previous test. */
std::string HostPath(uint16_t port);

/* CIOCTL answers 0 to a KTBDL bundle update (36 bytes) or member add or
 * delete (8 bytes); any other command or length is recorded and answered 1. */

/* L3VPN event service. L3VPN_RegEvt returns a real descriptor (an eventfd)
 * and keeps the handler; pushed events make it readable, and L3VPN_ProcEvt
 * hands every queued one to the handler (data NULL when none is given).
 * L3VPN_RequestBatch queues a batch begin and a batch end. L3VPN_DeregEvent
 * closes the descriptor. */
void L3vPush(uint32_t event, const L3VPN_EVT_S *data = nullptr);
size_t L3vPending(); /* events queued and not yet handed to the handler */

/* Service-port events. SubscribeServicePortEvent returns a real descriptor
 * (an eventfd) that the daemon then owns; each pushed (state, port) is read
 * by one RecvServicePortEvent, which records the 12 bytes it wrote in data
 * and answers 1 when nothing is queued. */
void SvcPortPush(uint32_t state, uint16_t port);
int SvcPortFd(); /* the last subscription's descriptor; -1 when none */

} // namespace fake

#endif
