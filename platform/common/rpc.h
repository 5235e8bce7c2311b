/* Wire protocol between chassisd and its clients (the emulated platform
 * library inside each board's daemon, and chassisctl), over the chassis
 * socket DIR/chassisd.sock (AF_UNIX, SOCK_SEQPACKET).
 *
 * Every message is one datagram: an 8-byte header, then the payload; the
 * payload length is the datagram length less the header. Integers are in
 * host order (both ends run on the same host).
 *
 *   request : {usOp, usBoard, uiArg}  payload
 *   reply   : {usOp, usBoard, uiArg = result}  payload
 *
 * A call is one send and one receive on a connection that carries nothing
 * else at the same time. A connection can be turned into a channel by its
 * first request (HA, interface events, LSM): chassisd answers that request,
 * and from then on pushes messages to it (HA, interface events) or answers
 * requests on it (LSM). The board's daemon puts each channel's descriptor on
 * its event loop, as on the device.
 *
 * chassisctl speaks OP_CTL: the payload is a JSON object {"cmd":..., ...},
 * the reply's payload a JSON object with "ok" and either "error" or the
 * command's data.
 *
 * The fault-injection plan has its own header (failplan.h), included here
 * for the code that reaches it through this one. */
#ifndef TBDL_PLAT_RPC_H
#define TBDL_PLAT_RPC_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "failplan.h"
#include "plat_lsm.h"

namespace tbdl::rpc {

struct Hdr {
    uint16_t usOp;
    uint16_t usBoard;
    uint32_t uiArg; /* request argument, or the reply's result */
};
static_assert(sizeof(Hdr) == 8, "RPC header is 8 bytes");

/* Largest datagram: header plus the largest HA message (u16 length) and
 * some room for per-message fields. */
inline constexpr size_t kMaxMsg = 8 + 16 + 65535 + 64;

/* Result carried by a reply when the request itself was wrong (unknown op,
 * bad length). Platform calls map it to their own failure value. */
inline constexpr uint32_t kResultBadRequest = 0xFFFFFFF0u;
/* Result a client reports when chassisd could not be reached. */
inline constexpr uint32_t kResultNoChassis = 0xFFFFFFF1u;

enum Op : uint16_t {
    /* board daemon -> chassisd, request/reply on the call connection */
    OP_SERVICE_SET_STATUS = 1, /* arg status; pid from the peer credentials */
    OP_IF_INDEX_BY_NAME = 2,   /* payload name; reply u32 ifindex */
    OP_IF_GET_DATA = 3,        /* arg item, payload u32 ifindex; reply u32 */
    OP_IF_DELETE = 4,          /* arg key type, payload 8-byte key; result 1 = done */
    OP_TUNNEL_GET_MODE = 5,    /* payload u32 ifindex; reply u32 mode */
    OP_L3VPN_GET_VRF = 6,      /* payload u32 ifindex; reply u16 VRF */
    OP_CIOCTL = 7,             /* payload CioctlReq + command bytes */
    OP_HA_RESPONSE = 8,        /* arg event; payload optional u32 data; one-way on the HA channel */
    OP_HA_SEND = 9,            /* arg flag; payload the HA message; one-way on the HA channel */

    /* channel openers: the first request on a new connection */
    OP_HA_REGISTER = 20,       /* reply HaState; then pushes OP_HA_PUSH */
    OP_IFEV_REGISTER = 21,     /* then pushes OP_IFEV_PUSH */
    OP_LSM_REGISTER = 22,      /* arg protocol; then LSM requests on it */

    /* on an LSM channel */
    OP_LSM_GR = 23,            /* arg 1 begin / 2 end */
    OP_LSM_BATCH = 24,         /* payload LSM changes; arg 1 = last chunk */

    /* chassisd -> board daemon pushes */
    OP_HA_PUSH = 40,           /* arg HaPushKind; payload HaState + data */
    OP_IFEV_PUSH = 41,         /* arg event; payload u32 count + entries */

    /* chassisctl */
    OP_CTL = 60,               /* payload JSON request; reply JSON */

    /* Interface events, L3VPN events and service-port states. The messages
     * a daemon sends on an open channel are one-way: chassisd answers them
     * with pushes (a batch) or not at all, so replies never mix with the
     * pushes the library reads from the same descriptor. */
    OP_IFEV_SUBSCRIBE = 30,    /* one-way on the IFEV channel: IfevSub */
    OP_IFEV_UNSUBSCRIBE = 31,  /* one-way on the IFEV channel: IfevSub (handle) */
    OP_IFEV_ACK = 32,          /* one-way: arg event; IfevAckHead + entries */
    OP_L3VPN_REGISTER = 33,    /* opener: arg event mask, tail client name */
    OP_L3VPN_BATCH = 34,       /* one-way on the L3VPN channel: arg VRF */
    OP_L3VPN_ACK = 35,         /* one-way: arg event; VrfValue */
    OP_SVCPORT_SUBSCRIBE = 36, /* opener: SvcPortSub; then the current state */
    OP_L3VPN_PUSH = 45,        /* arg event; L3vpnEvt, none for batch marks */
    OP_SVCPORT_PUSH = 46,      /* SvcPortEvt */
};

/* ---- Request and reply bodies, one record per operation ----
 *
 * Each operation's body is a fixed record, or a fixed record followed by a
 * variable tail where the table below says so. OpSpec<op> names them; the
 * codec below (Encode/Decode/DecodeHead) is the one place their bytes are
 * written and read, on the library side and in chassisd alike. */

/* An interface index (requests of IF_GET_DATA, TUNNEL_GET_MODE,
 * L3VPN_GET_VRF). */
struct IfRef {
    uint32_t uiIfIndex;
};
static_assert(sizeof(IfRef) == 4, "interface reference is 4 bytes");

/* A 32-bit answer (interface index, data item, tunnel mode). */
struct U32Value {
    uint32_t uiValue;
};
static_assert(sizeof(U32Value) == 4, "u32 answer is 4 bytes");

/* The VRF an interface is bound to. */
struct VrfValue {
    uint16_t usVrfIndex;
};
static_assert(sizeof(VrfValue) == 2, "VRF answer is 2 bytes");

/* IF_DELETE: the 8-byte key (interface index, 4 zero bytes). */
struct IfDeleteKey {
    uint32_t uiIfIndex;
    uint32_t uiResv;
};
static_assert(sizeof(IfDeleteKey) == 8, "interface key is 8 bytes");

/* CIOCTL: this head, then the command's payload bytes. */
struct CioctlReq {
    uint32_t uiDev;
    uint32_t uiCmd;
    uint32_t auiArg[3];
};
static_assert(sizeof(CioctlReq) == 20, "CIOCTL request head is 20 bytes");

/* HA_RESPONSE: optional data word. */
struct HaResponseData {
    uint32_t uiData;
};
static_assert(sizeof(HaResponseData) == 4, "HA response data is 4 bytes");

/* HA_REGISTER: the daemon's 8-byte identity record. */
struct HaIdent {
    uint8_t aucIdent[8];
};
static_assert(sizeof(HaIdent) == 8, "HA identity is 8 bytes");

/* The HA state chassisd tells a board's channel: at registration (reply)
 * and in front of every push, so the library's cached role never lags the
 * event it comes with. */
struct HaState {
    uint32_t uiMaster; /* 1 = this board is master */
    uint32_t uiPeer;   /* 1 = a standby service is registered (master only) */
    uint32_t uiMtu;
    uint32_t uiValue;  /* push: event number or send flag */
};
static_assert(sizeof(HaState) == 16, "HA state is 16 bytes");

enum HaPushKind : uint32_t {
    HA_PUSH_STATE = 0, /* role or standby presence changed */
    HA_PUSH_EVENT = 1, /* uiValue = event; no data */
    HA_PUSH_MSG = 2,   /* uiValue = send flag; data = the peer's message */
};

/* IFEV_PUSH: this head, then uiCount IF_EVENT_ENTRY_S entries (8 bytes
 * each: interface index, 4 unused bytes), all of interfaces of one type. */
struct IfevPushHead {
    uint32_t uiCount;
    uint32_t uiIfType;
};
static_assert(sizeof(IfevPushHead) == 8, "interface event head is 8 bytes");
static_assert(offsetof(IfevPushHead, uiIfType) == 4, "interface type at 4");
inline constexpr size_t kIfevEntryLen = 8;

/* IFEV_SUBSCRIBE / IFEV_UNSUBSCRIBE: one subscription of the channel's
 * process, by the handle the library gave it. */
struct IfevSub {
    uint32_t uiHandle;
    uint32_t uiMask;
    uint32_t uiIfType; /* 0 = every type */
};
static_assert(sizeof(IfevSub) == 12, "interface event subscription is 12 bytes");
static_assert(offsetof(IfevSub, uiIfType) == 8, "interface type at 8");

/* IFEV_ACK: this head, then uiCount entries as they were delivered. */
struct IfevAckHead {
    uint32_t uiHandle;
    uint32_t uiCount;
};
static_assert(sizeof(IfevAckHead) == 8, "interface event acknowledgement head is 8 bytes");

/* L3VPN_PUSH of a bind or unbind: the event data as the library hands it
 * to the client (VRF index, 2 unused bytes, interface index). */
struct L3vpnEvt {
    uint16_t usVrfIndex;
    uint16_t usResv;
    uint32_t uiIfIndex;
};
static_assert(sizeof(L3vpnEvt) == 8, "L3VPN event data is 8 bytes");
static_assert(offsetof(L3vpnEvt, uiIfIndex) == 4, "interface index at 4");

/* SVCPORT_SUBSCRIBE: the 12-byte subscription record {kind, 0, port,
 * flag}; SVCPORT_PUSH: the 12-byte event record {kind, state, port, 0}. */
struct SvcPortRec {
    uint32_t uiKind;
    uint32_t uiValue; /* 0 in a subscription, the state in an event */
    uint16_t usPort;
    uint16_t usFlag;
};
static_assert(sizeof(SvcPortRec) == 12, "service-port record is 12 bytes");
static_assert(offsetof(SvcPortRec, usPort) == 8, "port at 8");

/* LSM_BATCH: a sequence of changes, each a head then its body: an add
 * carries the 96-byte LSP entry (pointers zeroed), the 16-byte attribute
 * block and usPaths 64-byte paths; a delete carries the 28-byte key. */
struct LsmChangeHead {
    uint16_t usKind; /* LSM_CHANGE_ADD / LSM_CHANGE_DEL */
    uint16_t usPaths;
};
static_assert(sizeof(LsmChangeHead) == 4, "LSM change head is 4 bytes");
inline constexpr uint16_t LSM_CHANGE_ADD = 1;
inline constexpr uint16_t LSM_CHANGE_DEL = 2;

inline constexpr size_t kLsmEntryLen = sizeof(LSM_LSP_ENTRY_S);
inline constexpr size_t kLsmAttrLen = sizeof(LSM_LSP_ATTR_S);
inline constexpr size_t kLsmPathLen = sizeof(LSM_LSP_PATH_S);
inline constexpr size_t kLsmMaxPaths = LSM_LSP_PATH_MAX;
inline constexpr size_t kLsmKeyOffset = offsetof(LSM_LSP_ENTRY_S, stKey);
inline constexpr size_t kLsmKeyLen = sizeof(LSM_LSP_KEY_S);

/* A body with nothing in it. */
struct NoBody {};

/* Largest interface name in an IF_INDEX_BY_NAME request. */
inline constexpr size_t kMaxIfName = 64;
/* Largest client name in an L3VPN_REGISTER request. */
inline constexpr size_t kMaxL3vpnClientName = 64;

/* Request and reply bodies of each operation. Tail = true: the request
 * record is followed by variable bytes (a name, a command payload, a
 * message). */
template <uint16_t Op> struct OpSpec;
template <class RequestT, class ReplyT, bool TailV> struct OpShape {
    using Request = RequestT;
    using Reply = ReplyT;
    static constexpr bool kTail = TailV;
};
template <> struct OpSpec<OP_SERVICE_SET_STATUS> : OpShape<NoBody, NoBody, false> {};
template <> struct OpSpec<OP_IF_INDEX_BY_NAME> : OpShape<NoBody, U32Value, true> {};
template <> struct OpSpec<OP_IF_GET_DATA> : OpShape<IfRef, U32Value, false> {};
template <> struct OpSpec<OP_IF_DELETE> : OpShape<IfDeleteKey, NoBody, false> {};
template <> struct OpSpec<OP_TUNNEL_GET_MODE> : OpShape<IfRef, U32Value, false> {};
template <> struct OpSpec<OP_L3VPN_GET_VRF> : OpShape<IfRef, VrfValue, false> {};
template <> struct OpSpec<OP_CIOCTL> : OpShape<CioctlReq, NoBody, true> {};
template <> struct OpSpec<OP_HA_RESPONSE> : OpShape<NoBody, NoBody, true> {}; /* tail: optional HaResponseData */
template <> struct OpSpec<OP_HA_SEND> : OpShape<NoBody, NoBody, true> {};     /* tail: the HA message */
template <> struct OpSpec<OP_HA_REGISTER> : OpShape<NoBody, HaState, true> {}; /* tail: optional HaIdent */
template <> struct OpSpec<OP_IFEV_REGISTER> : OpShape<NoBody, NoBody, false> {};
template <> struct OpSpec<OP_LSM_REGISTER> : OpShape<NoBody, NoBody, false> {};
template <> struct OpSpec<OP_LSM_GR> : OpShape<NoBody, NoBody, false> {};
template <> struct OpSpec<OP_LSM_BATCH> : OpShape<NoBody, NoBody, true> {};   /* tail: LSM changes */
template <> struct OpSpec<OP_HA_PUSH> : OpShape<HaState, NoBody, true> {};    /* tail: message data */
template <> struct OpSpec<OP_IFEV_PUSH> : OpShape<IfevPushHead, NoBody, true> {}; /* tail: entries */
template <> struct OpSpec<OP_IFEV_SUBSCRIBE> : OpShape<IfevSub, NoBody, false> {};
template <> struct OpSpec<OP_IFEV_UNSUBSCRIBE> : OpShape<IfevSub, NoBody, false> {};
template <> struct OpSpec<OP_IFEV_ACK> : OpShape<IfevAckHead, NoBody, true> {}; /* tail: entries */
template <> struct OpSpec<OP_L3VPN_REGISTER> : OpShape<NoBody, NoBody, true> {}; /* tail: client name */
template <> struct OpSpec<OP_L3VPN_BATCH> : OpShape<NoBody, NoBody, false> {};
template <> struct OpSpec<OP_L3VPN_ACK> : OpShape<VrfValue, NoBody, false> {};
template <> struct OpSpec<OP_L3VPN_PUSH> : OpShape<NoBody, NoBody, true> {}; /* tail: optional L3vpnEvt */
template <> struct OpSpec<OP_SVCPORT_SUBSCRIBE> : OpShape<SvcPortRec, NoBody, false> {};
template <> struct OpSpec<OP_SVCPORT_PUSH> : OpShape<SvcPortRec, NoBody, false> {};

/* Size of a body record on the wire (an empty record takes no bytes). */
template <class T> constexpr size_t WireSize() { return std::is_empty_v<T> ? 0 : sizeof(T); }

/* Reads a record that must fill the body exactly. */
template <class T> bool Decode(const void *p, size_t len, T &out)
{
    static_assert(std::is_trivially_copyable_v<T>, "wire records are plain");
    if (len != WireSize<T>()) {
        return false;
    }
    if constexpr (!std::is_empty_v<T>) {
        std::memcpy(&out, p, sizeof(T));
    }
    return true;
}

/* Reads a record at the front of a body and hands back what follows it. */
template <class T> bool DecodeHead(const void *p, size_t len, T &out, const uint8_t *&tail, size_t &tailLen)
{
    static_assert(std::is_trivially_copyable_v<T>, "wire records are plain");
    if (len < WireSize<T>()) {
        return false;
    }
    if constexpr (!std::is_empty_v<T>) {
        std::memcpy(&out, p, sizeof(T));
    }
    tail = static_cast<const uint8_t *>(p) + WireSize<T>();
    tailLen = len - WireSize<T>();
    return true;
}

/* Writes a record, then an optional tail, into one body. */
template <class T> std::vector<uint8_t> Encode(const T &rec, const void *tail = nullptr, size_t tailLen = 0)
{
    static_assert(std::is_trivially_copyable_v<T>, "wire records are plain");
    std::vector<uint8_t> out(WireSize<T>() + tailLen);
    if constexpr (!std::is_empty_v<T>) {
        std::memcpy(out.data(), &rec, sizeof(T));
    }
    if (tailLen > 0) {
        std::memcpy(out.data() + WireSize<T>(), tail, tailLen);
    }
    return out;
}

/* Sends one message (header + payload) on fd. 0 on success, else errno. */
int SendMsg(int fd, uint16_t op, uint16_t board, uint32_t arg, const void *payload, size_t len,
            int flags = 0);
/* Receives one message into buf (kMaxMsg bytes); returns its length, 0 at
 * the end of the connection, -1 with errno on error or a short message. */
ssize_t RecvMsg(int fd, void *buf, size_t cap, int flags = 0);

/* Opens a new SOCK_SEQPACKET connection to DIR/chassisd.sock (close on exec,
 * blocking, with a receive time-out so a stuck chassisd cannot hang the
 * caller forever). -1 with errno on failure. */
int Connect(const std::string &socketPath, int recvTimeoutMs = 10000);

/* A request/reply connection. Not thread-safe on its own. */
class Client {
public:
    Client() = default;
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    /* Connects lazily to path; reconnects when path changes. */
    void SetPath(const std::string &path);
    /* One call: the result, and the reply's payload in reply (may be null).
     * kResultNoChassis when chassisd cannot be reached. A broken connection
     * is re-opened once. */
    uint32_t Call(uint16_t op, uint16_t board, uint32_t arg, const void *payload, size_t len,
                  std::vector<uint8_t> *reply);
    void Close();

private:
    bool Exchange(uint16_t op, uint16_t board, uint32_t arg, const void *payload, size_t len,
                  uint32_t &result, std::vector<uint8_t> *reply);
    std::string path_;
    int fd_ = -1;
    std::vector<uint8_t> buf_;
};

/* chassisctl answers longer than one chunk come in several messages; all
 * but the last carry kCtlMore as their result. */
inline constexpr size_t kCtlChunk = 60000;
inline constexpr uint32_t kCtlMore = 2;

/* chassisctl's call: sends a JSON request, returns the JSON reply text, or
 * "" with err set when chassisd cannot be reached. */
std::string CtlCall(const std::string &socketPath, const std::string &requestJson, std::string &err,
                    int timeoutMs = 10000);

} // namespace tbdl::rpc

#endif
