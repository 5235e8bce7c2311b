/* Torture run: a random stream of configuration requests while the board's
 * daemon is made to die at chosen platform calls, then checks that nothing
 * acknowledged was lost and that every table still agrees. */
#ifndef TBDL_TORTURE_H
#define TBDL_TORTURE_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ctl_client.h"
#include "tbdl_client.h"

namespace torture {

using Json = nlohmann::json;
namespace tc = tbdl::client;

/* Where the daemon dies: a platform call, before or after it takes effect,
 * after `skip` calls let through (drawn at random up to the run's bound). */
struct CrashPoint {
    std::string call;
    std::string kind; /* "crash-before" or "crash-after" */
    std::string path; /* request, recovery, ha, download, event, standby */
    bool standby = false; /* the standby board's daemon dies, not the master's */
};

/* The points of a full run. Event-path points need a chassis that sends
 * interface or VRF events; new calls go here. */
const std::vector<CrashPoint> &DefaultPoints();
/* "[standby:]CALL[:before|after]" -> a point; nullopt when malformed. */
std::optional<CrashPoint> ParsePoint(const std::string &text);

struct Options {
    std::string dir;
    uint32_t seed = 1;
    int requests = 20;  /* per crash point */
    int skipMax = 3;    /* the crash comes after 0..skipMax calls let through */
    int board = 0;
    uint32_t tunnels = 8;
    uint32_t bundles = 6;
    std::vector<CrashPoint> points;
    std::string log; /* every request and its answer, one line each; "" = none */
    int failover = 0;    /* rounds in which the master board fails under the stream */
    int soakSeconds = 0; /* > 0: the soak mix instead of crash points */
};

/* One configuration request of the stream. */
struct Request {
    enum class Op { CREATE, DELETE, SET_ADDR, DEL_ADDR, ADD_MEMB, DEL_MEMB } op;
    uint32_t bnd = 0;
    uint16_t mode = 0;
    uint32_t tnl = 0;
    uint16_t weight = 0;
    uint8_t role = 0;
    uint8_t addr = 0; /* last byte of 10.0.0.x */
};
class Facts;
/* Removals mostly name a member known to exist, so they are not all refused. */
Request RandomRequest(std::mt19937 &rng, const Options &opt, const Facts &facts);
std::string Describe(const Request &r);

/* What acknowledged requests established: key -> value, "" = absent.
 * Keys: "B<n>" (mode/tunnel mode), "A<n>" (address), "M<n>/<t>"
 * (weight/role). A request whose outcome is unknown (the daemon died
 * before answering) makes its keys unknown. */
class Facts {
public:
    void Acked(const Request &r);
    void Unknown(const Request &r);
    /* A VRF move of the bundle flushes its members. */
    void MembersUnknown(uint32_t bnd) { Forget(bnd); }
    /* Facts that the shown signatures contradict. */
    std::vector<std::string> Broken(const std::map<std::string, std::string> &shown) const;
    /* Members acknowledged and not removed since: (bundle, tunnel). */
    std::vector<std::pair<uint32_t, uint32_t>> Members() const;

private:
    void Forget(uint32_t bnd);
    std::map<std::string, std::string> m_facts;
};

/* Signatures as Facts keys them, of the displayed table and of the stored
 * records. */
using Sigs = std::map<std::string, std::string>;
std::optional<Sigs> ShownSigs(const std::vector<tc::BndDetail> &table);
std::optional<Sigs> StoredSigs(const Json &dbDump); /* chassisctl --json dump db form */

/* Result of one crash point. */
struct PointReport {
    CrashPoint point;
    int sent = 0;
    int acked = 0;
    int refused = 0; /* answered with a nonzero result */
    int lost = 0;    /* no answer: the daemon died with it */
    int crashes = 0;
    int64_t recoveryMs = -1; /* longest, from the lost answer to a display answered */
    std::vector<std::string> failures;
    std::vector<std::string> findings;
};

/* What LSM and PS hold, or must hold, as one signature per bundle name
 * (mode and paths of the LSP entry; kind, working and protection member of
 * the PS pair). */
struct DownloadSigs {
    Sigs lsm;
    Sigs ps;
};
DownloadSigs WantedDownloads(const std::vector<tc::BndDetail> &table);
DownloadSigs HeldDownloads(const Json &lsm, const Json &ps); /* chassisctl --json dump lsm / ps forms */

/* The bundle table by interface name ("Tunnel-Bundle<n>"). */
using BndTable = std::map<std::string, tc::BndDetail>;
BndTable ByName(const std::vector<tc::BndDetail> &bundles);
/* A board's kernel table (dump ktbdl form) against the bundle table: a
 * bundle without its entry, state, address or members fails; members no
 * bundle explains are findings. */
void CheckKernel(const Json &k, const BndTable &table, PointReport &rep);

/* What LSM and PS must hold after their resynchronisation: every entry the
 * table needs (stale ones stay findings), or exactly those entries. */
enum class Downloads { COMPLETE, EXACT };

/* Cross-checks of the daemon's tables after recovery: the display, the
 * stored records, the facts and the board's kernel table agree, and LSM and
 * PS hold nothing that contradicts the table; besides, LSM holds an
 * entry for every bundle with members and PS one for every protection
 * bundle with two members, each with the content the bundle asks for (and,
 * with EXACT, nothing else), as a full resynchronisation leaves them.
 * Repeated until clean or timeoutMs (the download runs behind the
 * display); the last round's result lands in rep. */
void CheckSettled(const Options &opt, tbdl::ctl::Client &ctl, tc::Client &cfg, const Facts &facts, PointReport &rep,
                  Downloads want = Downloads::EXACT, int timeoutMs = 15000);

/* Shared by the crash, failover and soak runs. */
tc::Outcome<uint32_t> Send(tc::Client &c, const Request &r);
/* Answered 0, or a delete answered "last bundle deleted". */
bool Acknowledged(const Request &r, uint32_t result);
Json BoardStatus(tbdl::ctl::Client &ctl, int board); /* null when chassisd does not answer */
std::optional<tc::Client> WaitServing(const Options &opt, tbdl::ctl::Client &ctl, int timeoutMs = 20000);
/* The master board once it is not `not` (-1: any); -1 after timeoutMs. */
int WaitMaster(tbdl::ctl::Client &ctl, int notBoard, int timeoutMs = 20000);
/* The board serves again (status 2, state up), e.g. a recovered board as the standby. */
bool WaitStandby(tbdl::ctl::Client &ctl, int board, int timeoutMs = 20000);
void PrintSummary(const std::vector<PointReport> &reps);
/* Sends the request, logs it and books the answer in rep and facts;
 * false when no answer came (the daemon or its board went away). */
bool SendAndBook(tc::Client &cfg, const Request &r, Facts &facts, PointReport &rep, std::ostream &log);

/* Creates every bundle and gives the first ones a working and a protection
 * member, so that LSM and PS have entries to lose; refusals (a bundle that
 * exists, a hold after the last delete) are booked like any answer. False
 * when an answer is lost. */
bool SendFill(const Options &opt, tc::Client &cfg, Facts &facts, PointReport &rep, std::ostream &log);

/* opt.requests random requests to opt.board's daemon, following its
 * restarts; cfg is empty when it no longer serves. */
void SendStream(const Options &opt, tbdl::ctl::Client &ctl, std::mt19937 &rng, Facts &facts, PointReport &rep,
                std::ostream &log, std::optional<tc::Client> &cfg);
/* The longest recovery of the point so far, from since to now. */
void NoteRecovery(PointReport &rep, std::chrono::steady_clock::time_point since);
/* Calls of the point's plan entry on the board that died of it so far. */
int Hits(tbdl::ctl::Client &ctl, int board, const CrashPoint &p);
/* A point of the standby's daemon: it dies under the request stream (or
 * the batch backup that follows its restart); then its kernel table must
 * hold the master's bundle table, and a planned switchover to it must serve
 * everything acknowledged. The roles are switched back at the end. */
void RunStandbyPoint(const Options &opt, tbdl::ctl::Client &ctl, std::mt19937 &rng, Facts &facts, PointReport &rep,
                     std::ostream &log);

/* SendFill before a crash point is planned, so that every point starts with
 * LSM and PS entries to lose; its answers count in facts only. */
bool Refill(const Options &opt, tc::Client &cfg, Facts &facts, std::ostream &log);

/* Rounds of --failover: the master fails while requests stream, then the
 * new master is checked and the failed board recovered. */
void RunFailover(const Options &opt, tbdl::ctl::Client &ctl, std::mt19937 &rng, Facts &facts,
                 std::vector<PointReport> &reps, std::ostream &log);
/* The soak mix for opt.soakSeconds; 0 when clean. */
int RunSoak(const Options &opt);

int Run(const Options &opt);

} // namespace torture

#endif
