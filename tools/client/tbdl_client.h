/* Configuration client: the requests of the operator's tool, each one
 * request and one reply over a Connection. Result codes answered by the
 * daemon come back as values; only transport and decoding failures are
 * failures. */
#ifndef TBDL_CLIENT_H
#define TBDL_CLIENT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tbdl_cfg_codec.h"
#include "tbdl_cfg_conn.h"
#include "tbdl_outcome.h"

namespace tbdl::client {

/* "0x65140007 TBDL_E_BND_HOLD: A tunnel bundle cannot be ..." from the
 * daemon's result-code catalogue. */
std::string DescribeResult(std::uint32_t uiCode);
/* The catalogue name of a code, or "" when it is not listed. */
std::string ResultName(std::uint32_t uiCode);
/* "0x65140007" */
std::string ResultHex(std::uint32_t uiCode);

/* Work mode from a name ("loadbalancing", "1:1", "1+1", the option names
 * "LoadBalancing", "ProtectionOnetoone", "ProtectionOneplusone", case
 * ignored) or a number (any value, passed on unchanged). */
std::optional<std::uint16_t> ParseMode(const std::string &text);
/* "loadbalancing", "1:1", "1+1", or the number for other values. */
std::string ModeName(std::uint32_t uiMode);

/* Debug types of the debug switch command. */
constexpr std::uint32_t kDebugError = 0;
constexpr std::uint32_t kDebugEvent = 1;
constexpr std::uint32_t kDebugAll = 2;
std::optional<std::uint32_t> ParseDebugType(const std::string &text);

/* Answer of a display request: the result code and, when it is 0, the
 * decoded value. */
template <class T>
struct Shown {
    std::uint32_t uiResult = 0;
    std::optional<T> value;
};

/* Result of a paged walk over all bundles. */
struct BndWalk {
    std::vector<BndDetail> bundles;
    /* The failure result that ended the walk (TBDL_E_FAILED normally). */
    std::uint32_t uiEndResult = 0;
    /* Requests sent, first query included. */
    unsigned uiRequests = 0;
};

class Client {
public:
    explicit Client(Connection conn) : m_conn(std::move(conn)) {}

    /* Connects to the master board's configuration socket of the chassis
     * in dir, asking the chassis which board that is. A given board must be
     * the master. While the master's socket does not take connections yet
     * (a new master is still activating), it tries again until timeoutMs. */
    static Outcome<Client> Connect(const std::string &dir, std::optional<int> board,
                                   int timeoutMs = kDefaultTimeoutMs);
    static Outcome<Client> ConnectPath(const std::string &path, int timeoutMs = kDefaultTimeoutMs);

    Connection &connection() { return m_conn; }

    /* Sends exactly these bytes and decodes the reply without checks. */
    Outcome<Message> Raw(const Bytes &request);
    /* Builds a request and checks that the reply echoes its type and
     * operation. */
    Outcome<Message> Send(std::uint16_t usClass, std::uint16_t usType, std::uint16_t usOper,
                          const std::vector<Tlv> &tlvs);

    /* Configuration: each returns the daemon's result code. */
    Outcome<std::uint32_t> CreateBundle(std::uint32_t uiBnd, std::uint16_t usMode, std::uint16_t usTnlMode);
    Outcome<std::uint32_t> DeleteBundle(std::uint32_t uiBnd);
    Outcome<std::uint32_t> SetAddress(std::uint32_t uiBnd, const AddrBlock &addr);
    Outcome<std::uint32_t> RemoveAddress(std::uint32_t uiBnd);
    Outcome<std::uint32_t> AddMember(std::uint32_t uiBnd, const MembOp &memb);
    Outcome<std::uint32_t> RemoveMember(std::uint32_t uiBnd, std::uint32_t uiTnlNum);
    Outcome<std::uint32_t> SetDebug(bool bOn, std::uint32_t uiType);

    /* Displays. */
    Outcome<Shown<BndDetail>> ShowBundle(std::uint32_t uiBnd);
    Outcome<Shown<BndDetail>> FirstBundle();
    Outcome<Shown<BndDetail>> NextBundle(std::uint32_t uiAfter);
    Outcome<BndWalk> WalkBundles();
    /* Counts of all bundles (nullopt) or of one. */
    Outcome<Shown<BndCounts>> Counts(std::optional<std::uint32_t> bnd);
    Outcome<Shown<DebugSwitch>> Debug();
    Outcome<Shown<Limits>> GetLimits();

private:
    /* One exchange; a failed one also says when the board is no longer the
     * master, which is what cut it off at a switchover. */
    Outcome<Message> Transact(const Bytes &request);
    Outcome<std::uint32_t> Configure(std::uint16_t usType, std::uint16_t usOper, const std::vector<Tlv> &tlvs);
    Outcome<Shown<BndDetail>> BundleQuery(std::uint16_t usOper, std::optional<std::uint32_t> bnd);

    Connection m_conn;
    std::string m_dir;          /* set by Connect: the chassis to ask */
    std::optional<int> m_board; /* the board connected to, when known */
};

}  // namespace tbdl::client

#endif
