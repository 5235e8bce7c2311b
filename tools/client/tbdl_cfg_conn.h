/* One connection to a board's configuration socket: send one request, wait
 * for its one reply. The socket keeps message boundaries, so each send is
 * one request and each receive one reply. */
#ifndef TBDL_CFG_CONN_H
#define TBDL_CFG_CONN_H

#include <optional>
#include <string>

#include "tbdl_cfg_codec.h"
#include "tbdl_outcome.h"

namespace tbdl::client {

/* Default time to wait for a reply. */
constexpr int kDefaultTimeoutMs = 5000;

/* How the last exchange of a connection went wrong, if it did. */
enum class Break {
    NONE,    /* answered, or failed before anything was sent */
    LOST,    /* the daemon closed or reset the connection before replying */
    SILENT,  /* no reply within the timeout */
};

class Connection {
public:
    Connection() = default;
    ~Connection();
    Connection(Connection &&other) noexcept;
    Connection &operator=(Connection &&other) noexcept;
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    static Outcome<Connection> Open(const std::string &path, int timeoutMs = kDefaultTimeoutMs);

    /* Sends request bytes as one message and returns the bytes of the one
     * reply, or a failure on send errors, a closed peer or no reply within
     * the timeout. */
    Outcome<Bytes> Exchange(const Bytes &request);
    /* Exchange, then decode the reply. */
    Outcome<Message> Transact(const Bytes &request);

    /* Of the last Exchange. */
    Break broke() const { return m_broke; }
    int timeout() const { return m_timeoutMs; }
    const std::string &path() const { return m_path; }
    int fd() const { return m_fd; }
    void setTimeout(int timeoutMs) { m_timeoutMs = timeoutMs; }

private:
    void close();

    int m_fd = -1;
    int m_timeoutMs = kDefaultTimeoutMs;
    Break m_broke = Break::NONE;
    std::string m_path;
};

}  // namespace tbdl::client

#endif
