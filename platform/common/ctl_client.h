/* Typed client of chassisd's control commands: one method per command.
 * The JSON requests are built here and nowhere else; chassisctl and the
 * benchmarks call these methods. Each call is one connection to the chassis
 * socket, one request and one (possibly chunked) reply. */
#ifndef TBDL_PLAT_CTL_CLIENT_H
#define TBDL_PLAT_CTL_CLIENT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace tbdl::ctl {

using Json = nlohmann::json;

/* What a command got back. */
struct Answer {
    enum class Status {
        OK,          /* reply holds chassisd's answer ("ok": true) */
        REFUSED,     /* chassisd said no; error is its reason */
        UNREACHABLE, /* no answer from the chassis socket; error says why */
        UNREADABLE,  /* the answer was not JSON */
    };
    Status status = Status::UNREACHABLE;
    Json reply;
    std::string error;

    explicit operator bool() const { return status == Status::OK; }
};

/* Interface fields of "if add" / "if set"; unset fields are left alone. */
struct IfChange {
    std::string name;
    std::optional<uint32_t> mode;
    bool clearMode = false; /* set only: the interface loses its tunnel mode */
    std::optional<std::string> state; /* "up" or "down" */
    std::optional<uint32_t> vrf;
    std::vector<std::string> more; /* set only: further interfaces changed alike, at once */
};

/* A planned failure of a platform call on a board. */
struct FailSpec {
    int board = 0;
    std::string call;
    bool always = false; /* else the next count calls fail */
    int count = 1;
    std::optional<int64_t> result; /* else the call's own failure value */
    std::string kind = "fail";     /* or "crash-before", "crash-after" */
    int skip = 0;                  /* calls let through before the first hit */
};

class Client {
public:
    explicit Client(std::string socketPath, int timeoutMs = 10000);

    /* Time a reply may take; commands that stop boards need more. */
    void SetTimeout(int timeoutMs) { timeoutMs_ = timeoutMs; }

    Answer Status();
    Answer Stop();
    Answer Reboot();
    Answer BoardRestart(int board);
    Answer BoardKill(int board);
    Answer IfAdd(const IfChange &change);
    Answer IfSet(const IfChange &change);
    Answer IfDel(const std::string &name);
    Answer VrfBind(const std::string &name, uint32_t vrf);
    Answer VrfUnbind(const std::string &name);
    /* A service's state: "if", "vrf", "ktbdl", "lsm", "ha", "fail"; board
     * for the per-board ones. */
    Answer Dump(const std::string &kind, std::optional<int> board = std::nullopt);
    /* A board's PS table; with sends, the bytes of the sends it kept. */
    Answer DumpPs(int board, bool sends);
    /* A board's "lsm" or "ps" counters without the table (cheap to poll). */
    Answer DumpCounters(const std::string &kind, int board);
    /* Stops ("lsm", "ps") service on one board or every board: its
     * connections close and registrations are refused until it starts. */
    Answer ServiceStop(const std::string &service, std::optional<int> board = std::nullopt);
    Answer ServiceStart(const std::string &service, std::optional<int> board = std::nullopt);
    Answer Fail(const FailSpec &spec);
    /* Every board's plan, or one board's. */
    Answer FailClear(std::optional<int> board = std::nullopt);
    Answer HaEvent(int board, uint32_t event);
    /* Closes a board's interface-event channels. */
    Answer IfHangup(int board);
    /* The service port: "up", "down" or "absent". */
    Answer SvcPort(const std::string &state);
    /* {"master": N, "boards": [{"board": N, "state": "UP"}, ...]}: the
     * master board now (it changes at a switchover). */
    Answer Role();
    /* The HA pair: a planned switchover (answered when it is over, with
     * its steps), a board failure and recovery, the HA link cut or
     * restored. */
    Answer Switchover();
    Answer BoardFail(int board);
    Answer BoardRecover(int board);
    Answer HaLink(bool cut);

private:
    Answer Call(const Json &request);
    Answer BoardCall(const std::string &cmd, std::optional<int> board);
    static Json IfRequest(const char *cmd, const IfChange &change);

    std::string path_;
    int timeoutMs_;
};

} // namespace tbdl::ctl

#endif
