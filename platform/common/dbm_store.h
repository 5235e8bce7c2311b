/* The platform database store: keyed sorted lists of records in one SQLite
 * file per chassis (DIR/dbm.sqlite, WAL), shared by both boards. Several
 * logical databases, each with its own name, live side by side in the
 * file.
 *
 * Tables (WITHOUT ROWID, every row carries its database name):
 *   dbm_databases(db, owner)                  one row per opened database
 *   dbm_lists(db, key, sort_off, sort_len)    one row per list (key)
 *   dbm_records(db, key, sortword, rec)       the records of each list
 * A record's sort word is the byte range sort_off .. sort_off+sort_len of
 * the record, stored separately so that SQLite's BLOB order (memcmp, then
 * length) is the list's order and an equal sort word is the same row.
 *
 * Every change is one statement or one explicit transaction, committed
 * before the call returns: a change that was answered survives the death
 * of the process. */
#ifndef TBDL_PLAT_DBM_STORE_H
#define TBDL_PLAT_DBM_STORE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

struct sqlite3;
struct sqlite3_stmt;

namespace tbdl::plat {

enum class DbmStatus : uint32_t {
    Ok = 0,
    NotFound = 1,   /* no such key or record */
    BadArg = 2,     /* key or record length out of range, record shorter than its sort word */
    NoSortWord = 3, /* the list has no sort word yet */
    StoreError = 4, /* SQLite failed; LastError() says why */
};

/* A record as read back: its sort word and its bytes. */
struct DbmRecord {
    std::string sortWord;
    std::string bytes;
};

class DbmStore {
public:
    /* Opens (creating when missing) the store file at path and the logical
     * database name for owner. nullptr on failure with err set: the
     * directory or file is not writable, the file is not a healthy
     * database, or the schema cannot be created. */
    static std::unique_ptr<DbmStore> Open(const std::string &path, const std::string &name,
                                          const std::string &owner, std::string &err);
    ~DbmStore();
    DbmStore(const DbmStore &) = delete;
    DbmStore &operator=(const DbmStore &) = delete;

    const std::string &Name() const { return name_; }
    const std::string &LastError() const { return lastError_; }

    DbmStatus KeyExists(std::string_view key, bool &exists);
    /* Creates the list with this sort word, or changes the sort word of an
     * existing one (its records are re-keyed; of records whose new sort words
     * are equal the last one read stays). */
    DbmStatus SetSortWord(std::string_view key, uint32_t offset, uint32_t length);
    /* Inserts or replaces (equal sort word) a record. A record equal byte
     * for byte to the stored one is left alone: one read, no commit. */
    DbmStatus Insert(std::string_view key, std::string_view rec);
    /* Removes the record whose sort word equals rec's. */
    DbmStatus Remove(std::string_view key, std::string_view rec);
    DbmStatus Count(std::string_view key, uint32_t &count);
    DbmStatus DeleteKey(std::string_view key);
    /* Keys whose first byte is first, ascending. */
    DbmStatus KeysByFirstByte(uint8_t first, std::vector<std::string> &keys);
    /* Up to limit records of the list whose sort words are above after
     * ("" = from the first), ascending. A missing list reads as empty. */
    DbmStatus ReadAfter(std::string_view key, std::string_view after, uint32_t limit, std::vector<DbmRecord> &out);

    /* A walk over many lists (recovery reads every list and the daemon
     * stores each recovered record again, which finds it already there):
     * between these two calls reads share one read transaction instead of
     * taking the file locks once each. A write ends the shared transaction
     * first, so every write is still committed on its own before it
     * returns; the next read opens a new one. */
    void BeginReadBatch();
    void EndReadBatch();

private:
    enum Stmt {
        kKeyExists,
        kListGet,
        kListInsert,
        kListUpdate,
        kInsert,
        kSameRecord,
        kRemove,
        kCount,
        kDeleteRecords,
        kDeleteList,
        kKeysByFirst,
        kReadAfter,
        kReadAll,
        kBegin,
        kBeginRead,
        kCommit,
        kRollback,
        kStmtCount
    };

    DbmStore(sqlite3 *db, std::string name);
    bool Prepare(std::string &err);
    static bool IsWrite(Stmt which);
    /* Reset and cleared bindings; a write first ends a batch's shared read,
     * a read in a batch opens it. */
    sqlite3_stmt *Use(Stmt which);
    void BindKey(sqlite3_stmt *stmt, std::string_view key);
    DbmStatus Fail(const char *what);
    DbmStatus Step(Stmt which); /* for statements without rows */
    DbmStatus Rekey(std::string_view key, uint32_t offset, uint32_t length);
    DbmStatus IsStored(std::string_view key, std::string_view rec, bool &stored);
    void EndSharedRead();

    sqlite3 *db_ = nullptr;
    bool readBatch_ = false; /* between BeginReadBatch and EndReadBatch */
    bool sharedRead_ = false; /* the batch's read transaction is open */
    std::string name_;
    std::string lastError_;
    sqlite3_stmt *stmts_[kStmtCount] = {};
};

/* Says what a stored record holds, given its database name, list key and
 * bytes: a JSON object, or null for a record it does not know. The store
 * knows no record layout; the owner of the records does. */
using RecordReader =
    std::function<nlohmann::json(const std::string &db, const std::string &key, const std::string &rec)>;

/* Read-only dump of every database, list and record of the store file at
 * path, as JSON (json = true) or as text for people. Keys, sort words and
 * records are shown as hex; with a reader, each record's reading stands
 * beside its bytes ("decoded", in the order of "records"; null where the
 * reader knows none). Returns "" and sets err when the file cannot be
 * read; err is cleared on success. Never creates the store or changes its
 * contents (SQLite may leave its WAL side files next to it, as any reader
 * does).
 *
 * JSON: {"path":..., "databases":[{"name":"eTBDL","owner":"TBDL",
 *        "lists":[{"key":"01","sort_offset":20,"sort_length":4,
 *                  "records":["00020000...", ...],
 *                  "decoded":[{"bundle":1,...}, ...]}]}]} */
std::string DumpDatabase(const std::string &path, bool json, std::string &err, const RecordReader &read = {});

} // namespace tbdl::plat

#endif
