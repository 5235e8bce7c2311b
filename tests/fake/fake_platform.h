/* Recording fake of the platform API for unit tests.
 *
 * Every platform call the daemon makes is recorded in order with its
 * arguments and payload bytes. Results can be scripted per call name (fail
 * once, fail the Nth call, fail always) and hooks can run inside a call, on
 * the daemon's own thread. Behind the calls stands a small in-memory
 * platform (interfaces, VRF bindings, private data, a database of sorted
 * lists, a kernel bundle table, an HA channel, a log) whose event sources
 * are real descriptors, so the daemon's modules and its event loop run for
 * real in a test. TLV coding and bitmaps are the platform's own code. */
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
const std::vector<Call> &Calls();
std::vector<Call> CallsOf(const std::string &name);
size_t CountOf(const std::string &name);
/* Names of the recorded calls in order, optionally only those in `only`. */
std::vector<std::string> Names(const std::vector<std::string> &only = {});
void ClearJournal();

/* Scripted results, per call name (e.g. "CIOCTL", "DBM_InsertSortList",
 * "HA_Init"). A scripted call does not run its emulated behaviour; it only
 * records and returns `result` (out-parameters untouched). */
void FailOnce(const std::string &name, uint64_t result);
void FailNth(const std::string &name, unsigned n /* 1 = next call */, uint64_t result);
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
 * index on demand from IF_GetIfIndexByFullName (from 0x1000 upward); other
 * names must be added. */
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
void AddInterface(const Interface &intf);
Interface *FindInterface(uint32_t ifIndex);
Interface *FindInterface(const std::string &name);
void RemoveInterface(uint32_t ifIndex);
void SetVrf(uint32_t ifIndex, uint16_t vrf);

/* Private-data store: ifindex -> pointer, for the one instance. */
std::map<uint32_t, void *> &PrivateData();

/* Database: sorted lists keyed by the key bytes; records in stored
 * (big-endian) form, kept in sort-word order. */
using Bytes = std::vector<uint8_t>;
std::map<Bytes, std::vector<Bytes>> &Db();
bool DbOpen();               /* a DBM_Open succeeded and no DBM_Close since */
void DbPut(const Bytes &key, uint32_t sortOffset, const Bytes &rec); /* seed stored records */

/* Kernel bundle table of this board, as the KTBDL commands left it. */
struct KBundle {
    Bytes payload;                  /* last bundle update (36 bytes) */
    std::vector<uint32_t> members;  /* member ifindexes in order added */
};
std::map<uint32_t, KBundle> &Ktbdl(); /* keyed by bundle ifindex */

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

/* ---- Event sources of later features ----
 * The calls that open an event source (IF_Event_Init, IF_RegIfEventEx,
 * L3VPN_RegEvt, LSM_RegProtocolHandler, SubscribeServicePortEvent,
 * PS_Register) and the calls that read one (IF_ResponseEventPkt,
 * L3VPN_ProcEvt, LSM_HandleMsg, RecvServicePortEvent) fail by default (-1,
 * a 0 handle, or 1). Script them to succeed, e.g. FailAlways("IF_Event_Init",
 * fdOfAnEventfdTheTestOwns), and deliver events from a hook on the read call
 * through the callbacks below. The other calls on a registration record
 * and answer 0.
 *
 * Journal details: 32-bit signed values (descriptors, i32 results) are
 * recorded sign-extended, unsigned ones zero-extended. LSM_AddLspEntry
 * records the 96-byte entry in data and, in rec, the primary paths it
 * announces (64 bytes each) followed by the 16-byte attribute block;
 * LSM_DeleteLspEntry records the 28 key bytes in data. */
struct Registrations {
    IF_EVENT_CB_PF pfnIfEvent = nullptr; /* IF_RegIfEventEx callback */
    uint32_t uiIfEventArg = 0;           /* ... and its last argument */
    L3VPN_EVT_CB_PF pfnL3vpn = nullptr;  /* L3VPN_RegEvt callback */
    LSM_MSG_HANDLER_PF pfnLsm = nullptr; /* LSM_RegProtocolHandler handler */
};
Registrations &Registered();

/* The path LIPC_GetHostPath gives for a local port: unique per test process
 * and per Reset; Reset removes the sockets of the previous test. */
std::string HostPath(uint16_t port);

/* A KTBDL command the fake does not know, or a payload of the wrong length,
 * is recorded and answered 1 without touching Ktbdl(). */

} // namespace fake

#endif
