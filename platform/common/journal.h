/* Journal of platform calls: when a board's daemon runs with
 * TBDL_JOURNAL=1, every platform call it makes appends one JSON line to
 * DIR/board<N>/journal.jsonl:
 *
 *   {"time":"2024-05-01T12:00:00.123456Z","board":0,"pid":4242,
 *    "call":"DBM_InsertSortList","args":{"handle":1,"key":"01",...},
 *    "result":0}
 *
 * Byte buffers (keys, records, payloads) appear in args as lower-case hex
 * strings (HexOf). Each line goes out in one write() on a descriptor opened
 * with O_APPEND, so lines of concurrent writers never interleave.
 *
 * The emulated platform calls write their lines through one wrapper
 * (platform/lib/emulated_call.h), which builds the arguments only when the
 * journal is on, so a disabled journal costs one branch per call. */
#ifndef TBDL_PLAT_JOURNAL_H
#define TBDL_PLAT_JOURNAL_H

#include <cstddef>
#include <string>

#include <nlohmann/json.hpp>

namespace tbdl::plat {

/* true when this process runs in a chassis with TBDL_JOURNAL=1. */
bool JournalEnabled();

/* Appends one journal line. Does nothing when the journal is off. Never
 * throws; text arguments that are not valid UTF-8 are written with
 * replacement characters. */
void JournalRecord(const char *call, const nlohmann::json &args, const nlohmann::json &result);

/* Lower-case hex of len bytes at data ("" for none or NULL). */
std::string HexOf(const void *data, size_t len);

/* "0x..." form of a pointer value, for handles and private data. */
std::string PtrOf(const void *ptr);

/* UTC time stamp with microseconds: "YYYY-MM-DDTHH:MM:SS.uuuuuuZ". */
std::string IsoTimeNow();

/* Closes the journal file; the next record opens it again for the current
 * environment (tests that change TBDL_CHASSIS_DIR use it). */
void JournalReset();

/* A file that lines are appended to: opened once (O_APPEND, created when
 * missing, with its board directory), each line written with one write().
 * Lines of several processes never mix: each goes out in one write() on an
 * O_APPEND descriptor. */
class AppendFile {
public:
    AppendFile() = default;
    ~AppendFile();
    AppendFile(const AppendFile &) = delete;
    AppendFile &operator=(const AppendFile &) = delete;

    /* Appends line (which should end in '\n') to path; reopens when path
     * differs from the open one. false when the file cannot be opened or
     * the write is short. */
    bool Append(const std::string &path, const std::string &line);
    void Close();

private:
    std::string path_;
    int fd_ = -1;
};

} // namespace tbdl::plat

#endif
