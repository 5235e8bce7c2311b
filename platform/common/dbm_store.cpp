/* The platform database store on SQLite (see dbm_store.h). */
#include "dbm_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include <nlohmann/json.hpp>

#include "journal.h" /* HexOf */

namespace tbdl::plat {

namespace {

constexpr int kBusyTimeoutMs = 5000;
/* How long opening keeps retrying what another opener holds up. */
constexpr auto kSetUpDeadline = std::chrono::seconds(10);

/* Records reference their list, so deleting a list removes its records in
 * the same statement. */
constexpr const char *kSchema =
    "CREATE TABLE IF NOT EXISTS dbm_databases("
    "  db TEXT NOT NULL PRIMARY KEY, owner TEXT NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS dbm_lists("
    "  db TEXT NOT NULL, key BLOB NOT NULL,"
    "  sort_off INTEGER NOT NULL, sort_len INTEGER NOT NULL,"
    "  PRIMARY KEY(db, key)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS dbm_records("
    "  db TEXT NOT NULL, key BLOB NOT NULL, sortword BLOB NOT NULL, rec BLOB NOT NULL,"
    "  PRIMARY KEY(db, key, sortword),"
    "  FOREIGN KEY(db, key) REFERENCES dbm_lists(db, key) ON DELETE CASCADE) WITHOUT ROWID;";

/* ?1 is always the database name and ?2 the key. */
constexpr const char *kSql[] = {
    /* kKeyExists */ "SELECT 1 FROM dbm_lists WHERE db=?1 AND key=?2",
    /* kListGet */ "SELECT sort_off, sort_len FROM dbm_lists WHERE db=?1 AND key=?2",
    /* kListInsert */ "INSERT INTO dbm_lists(db, key, sort_off, sort_len) VALUES(?1, ?2, ?3, ?4)",
    /* kListUpdate */ "UPDATE dbm_lists SET sort_off=?3, sort_len=?4 WHERE db=?1 AND key=?2",
    /* kInsert: the list's sort word range cut out of the record itself */
    "INSERT OR REPLACE INTO dbm_records(db, key, sortword, rec)"
    " SELECT ?1, ?2, substr(?3, sort_off + 1, sort_len), ?3 FROM dbm_lists"
    " WHERE db=?1 AND key=?2 AND sort_off + sort_len <= length(?3)",
    /* kSameRecord: the record stored under rec's sort word is rec itself */
    "SELECT 1 FROM dbm_records AS r JOIN dbm_lists AS l ON l.db=r.db AND l.key=r.key"
    " WHERE r.db=?1 AND r.key=?2 AND l.sort_off + l.sort_len <= length(?3)"
    " AND r.sortword=substr(?3, l.sort_off + 1, l.sort_len) AND r.rec=?3",
    /* kRemove */
    "DELETE FROM dbm_records WHERE db=?1 AND key=?2 AND sortword="
    " (SELECT substr(?3, sort_off + 1, sort_len) FROM dbm_lists"
    "  WHERE db=?1 AND key=?2 AND sort_off + sort_len <= length(?3))",
    /* kCount */ "SELECT count(*) FROM dbm_records WHERE db=?1 AND key=?2",
    /* kDeleteRecords */ "DELETE FROM dbm_records WHERE db=?1 AND key=?2",
    /* kDeleteList */ "DELETE FROM dbm_lists WHERE db=?1 AND key=?2",
    /* kKeysByFirst */ "SELECT key FROM dbm_lists WHERE db=?1 AND substr(key, 1, 1)=?2 ORDER BY key",
    /* kReadAfter */
    "SELECT sortword, rec FROM dbm_records WHERE db=?1 AND key=?2 AND sortword > ?3"
    " ORDER BY sortword LIMIT ?4",
    /* kReadAll */ "SELECT sortword, rec FROM dbm_records WHERE db=?1 AND key=?2 ORDER BY sortword",
    /* kBegin */ "BEGIN IMMEDIATE",
    /* kBeginRead */ "BEGIN DEFERRED",
    /* kCommit */ "COMMIT",
    /* kRollback */ "ROLLBACK",
};

std::string ColumnBytes(sqlite3_stmt *stmt, int col)
{
    const void *p = sqlite3_column_blob(stmt, col);
    int n = sqlite3_column_bytes(stmt, col);
    return p != nullptr ? std::string(static_cast<const char *>(p), static_cast<size_t>(n)) : std::string();
}

std::string ColumnText(sqlite3_stmt *stmt, int col)
{
    const unsigned char *p = sqlite3_column_text(stmt, col);
    return p != nullptr ? std::string(reinterpret_cast<const char *>(p)) : std::string();
}

/* Runs a statement that returns one text row and gives that text. Returns
 * the SQLite result (SQLITE_OK on success). */
int QueryText(sqlite3 *db, const char *sql, std::string &out, std::string &err)
{
    sqlite3_stmt *stmt = nullptr;
    int rc = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
    if (rc == SQLITE_OK) {
        rc = sqlite3_step(stmt);
        if (rc == SQLITE_ROW) {
            out = ColumnText(stmt, 0);
            rc = SQLITE_OK;
        }
    }
    if (rc != SQLITE_OK) {
        err = sqlite3_errmsg(db);
    }
    sqlite3_finalize(stmt);
    return rc;
}

int Exec(sqlite3 *db, const char *sql, std::string &err)
{
    char *msg = nullptr;
    int rc = sqlite3_exec(db, sql, nullptr, nullptr, &msg);
    if (rc != SQLITE_OK) {
        err = msg != nullptr ? msg : sqlite3_errmsg(db);
    }
    sqlite3_free(msg);
    return rc;
}

/* Records this database and its owner (changing the owner of a known one). */
int RegisterDatabase(sqlite3 *db, const std::string &name, const std::string &owner, std::string &err)
{
    sqlite3_stmt *stmt = nullptr;
    int rc = sqlite3_prepare_v2(db,
                                "INSERT INTO dbm_databases(db, owner) VALUES(?1, ?2)"
                                " ON CONFLICT(db) DO UPDATE SET owner=excluded.owner"
                                " WHERE owner<>excluded.owner",
                                -1, &stmt, nullptr);
    if (rc == SQLITE_OK) {
        sqlite3_bind_text(stmt, 1, name.data(), static_cast<int>(name.size()), SQLITE_TRANSIENT);
        sqlite3_bind_text(stmt, 2, owner.data(), static_cast<int>(owner.size()), SQLITE_TRANSIENT);
        rc = sqlite3_step(stmt);
        rc = rc == SQLITE_DONE ? SQLITE_OK : rc;
    }
    if (rc != SQLITE_OK) {
        err = sqlite3_errmsg(db);
    }
    sqlite3_finalize(stmt);
    return rc;
}

/* Creates the tables when missing and records the database, in one write
 * transaction: taken at once (IMMEDIATE), it waits in the busy handler for
 * another opener instead of failing half way. */
int CreateSchema(sqlite3 *db, const std::string &name, const std::string &owner, std::string &err)
{
    int rc = Exec(db, "BEGIN IMMEDIATE", err);
    if (rc != SQLITE_OK) {
        return rc;
    }
    rc = Exec(db, kSchema, err);
    if (rc == SQLITE_OK) {
        rc = RegisterDatabase(db, name, owner, err);
    }
    if (rc == SQLITE_OK) {
        rc = Exec(db, "COMMIT", err);
    }
    if (rc != SQLITE_OK) {
        std::string ignored;
        (void)Exec(db, "ROLLBACK", ignored);
    }
    return rc;
}

/* Brings a freshly opened connection into shape. Returns SQLITE_OK, or an
 * SQLite result with err set when the file cannot be written or is not a
 * healthy database. Every step may be repeated. */
int SetUpConnection(sqlite3 *db, const std::string &name, const std::string &owner, std::string &err)
{
    if (sqlite3_db_readonly(db, "main") == 1) {
        err = "the file is not writable";
        return SQLITE_READONLY;
    }
    std::string mode;
    int rc = QueryText(db, "PRAGMA journal_mode=WAL", mode, err);
    if (rc != SQLITE_OK) {
        return rc;
    }
    if (mode != "wal") {
        err = "cannot switch to WAL mode (mode is " + mode + ")";
        return SQLITE_ERROR;
    }
    std::string check;
    /* A small page cache: the store is read whole once, at recovery, and
     * then written record by record; the system's file cache holds the rest. */
    rc = Exec(db, "PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON; PRAGMA cache_size=-256;", err);
    if (rc == SQLITE_OK) {
        rc = QueryText(db, "PRAGMA quick_check", check, err);
    }
    if (rc != SQLITE_OK) {
        return rc;
    }
    if (check != "ok") {
        /* The first problem is enough to say why; the report can be long. */
        err = "integrity check failed: " + check.substr(0, 160);
        return SQLITE_CORRUPT;
    }
    return CreateSchema(db, name, owner, err);
}

/* Another opener of the same file can make a step fail at once with
 * SQLITE_BUSY or SQLITE_LOCKED, without the busy handler being called:
 * while it switches a fresh file to WAL, a connection that must upgrade its
 * read lock gives up rather than wait (it could deadlock). The whole set-up
 * is then repeated, with a growing pause, until kSetUpDeadline. */
int SetUpWithRetry(sqlite3 *db, const std::string &name, const std::string &owner, std::string &err)
{
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    const auto deadline = std::chrono::steady_clock::now() + kSetUpDeadline;
    auto pause = std::chrono::milliseconds(1);
    for (;;) {
        int rc = SetUpConnection(db, name, owner, err);
        int primary = rc & 0xff;
        if ((primary != SQLITE_BUSY && primary != SQLITE_LOCKED) || std::chrono::steady_clock::now() >= deadline) {
            return rc;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(50));
    }
}

/* The database file is readable and writable by its owner and group only,
 * whatever the umask of the process that makes it; SQLite gives its WAL and
 * shared-memory files the database file's mode. */
constexpr mode_t kDatabaseMode = 0660;

void RestrictDatabaseFile(const std::string &path)
{
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kDatabaseMode);
    if (fd >= 0) {
        struct stat st {};
        if (fstat(fd, &st) == 0 && st.st_uid == geteuid() && (st.st_mode & 07777) != kDatabaseMode) {
            (void)fchmod(fd, kDatabaseMode);
        }
        close(fd);
    }
}

} // namespace

std::unique_ptr<DbmStore> DbmStore::Open(const std::string &path, const std::string &name, const std::string &owner,
                                         std::string &err)
{
    if (name.empty()) {
        err = "empty database name";
        return nullptr;
    }
    RestrictDatabaseFile(path);
    sqlite3 *db = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                             nullptr);
    std::string why;
    if (rc != SQLITE_OK) {
        why = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    } else if (SetUpWithRetry(db, name, owner, why) == SQLITE_OK) {
        std::unique_ptr<DbmStore> store(new DbmStore(db, name));
        if (store->Prepare(why)) {
            return store;
        }
        err = path + ": " + why;
        return nullptr; /* the destructor closed the connection */
    }
    err = path + ": " + why;
    sqlite3_close(db);
    return nullptr;
}

DbmStore::DbmStore(sqlite3 *db, std::string name) : db_(db), name_(std::move(name)) {}

DbmStore::~DbmStore()
{
    for (sqlite3_stmt *&stmt : stmts_) {
        sqlite3_finalize(stmt);
        stmt = nullptr;
    }
    sqlite3_close(db_);
}

bool DbmStore::Prepare(std::string &err)
{
    static_assert(sizeof(kSql) / sizeof(kSql[0]) == kStmtCount, "one SQL text per statement");
    for (int i = 0; i < kStmtCount; ++i) {
        if (sqlite3_prepare_v3(db_, kSql[i], -1, SQLITE_PREPARE_PERSISTENT, &stmts_[i], nullptr) != SQLITE_OK) {
            err = std::string("cannot prepare statement: ") + sqlite3_errmsg(db_);
            return false;
        }
    }
    return true;
}

bool DbmStore::IsWrite(Stmt which)
{
    static constexpr Stmt kWrites[] = {kListInsert, kListUpdate, kInsert, kRemove, kDeleteRecords, kDeleteList};
    return std::find(std::begin(kWrites), std::end(kWrites), which) != std::end(kWrites);
}

sqlite3_stmt *DbmStore::Use(Stmt which)
{
    if (IsWrite(which)) {
        EndSharedRead();
    } else if (readBatch_ && !sharedRead_ && sqlite3_get_autocommit(db_) != 0) {
        /* A failed BEGIN leaves the read to its own transaction. */
        sharedRead_ = Step(kBeginRead) == DbmStatus::Ok;
    }
    sqlite3_stmt *stmt = stmts_[which];
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    return stmt;
}

void DbmStore::BindKey(sqlite3_stmt *stmt, std::string_view key)
{
    sqlite3_bind_text(stmt, 1, name_.data(), static_cast<int>(name_.size()), SQLITE_STATIC);
    sqlite3_bind_blob(stmt, 2, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
}

DbmStatus DbmStore::Fail(const char *what)
{
    lastError_ = std::string(what) + ": " + sqlite3_errmsg(db_);
    return DbmStatus::StoreError;
}

DbmStatus DbmStore::Step(Stmt which)
{
    int rc = sqlite3_step(stmts_[which]);
    sqlite3_reset(stmts_[which]);
    return rc == SQLITE_DONE ? DbmStatus::Ok : Fail(kSql[which]);
}

DbmStatus DbmStore::KeyExists(std::string_view key, bool &exists)
{
    sqlite3_stmt *stmt = Use(kKeyExists);
    BindKey(stmt, key);
    int rc = sqlite3_step(stmt);
    sqlite3_reset(stmt);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
        return Fail("key lookup");
    }
    exists = rc == SQLITE_ROW;
    return DbmStatus::Ok;
}

DbmStatus DbmStore::SetSortWord(std::string_view key, uint32_t offset, uint32_t length)
{
    sqlite3_stmt *stmt = Use(kListGet);
    BindKey(stmt, key);
    int rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW) {
        bool same = sqlite3_column_int64(stmt, 0) == offset && sqlite3_column_int64(stmt, 1) == length;
        sqlite3_reset(stmt);
        return same ? DbmStatus::Ok : Rekey(key, offset, length);
    }
    sqlite3_reset(stmt);
    if (rc != SQLITE_DONE) {
        return Fail("list lookup");
    }
    stmt = Use(kListInsert);
    BindKey(stmt, key);
    sqlite3_bind_int64(stmt, 3, offset);
    sqlite3_bind_int64(stmt, 4, length);
    return Step(kListInsert);
}

/* Changes the sort word of a list that has records: every record gets its
 * new sort word, all in one transaction. */
DbmStatus DbmStore::Rekey(std::string_view key, uint32_t offset, uint32_t length)
{
    EndSharedRead();
    if (Step(kBegin) != DbmStatus::Ok) {
        return DbmStatus::StoreError;
    }
    std::vector<std::string> recs;
    sqlite3_stmt *stmt = Use(kReadAll);
    BindKey(stmt, key);
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        recs.push_back(ColumnBytes(stmt, 1));
    }
    sqlite3_reset(stmt);
    DbmStatus st = rc == SQLITE_DONE ? DbmStatus::Ok : Fail("list read");
    for (const std::string &rec : recs) {
        if (st == DbmStatus::Ok && static_cast<uint64_t>(offset) + length > rec.size()) {
            lastError_ = "a stored record is shorter than the new sort word";
            st = DbmStatus::BadArg;
        }
    }
    if (st == DbmStatus::Ok) {
        stmt = Use(kListUpdate);
        BindKey(stmt, key);
        sqlite3_bind_int64(stmt, 3, offset);
        sqlite3_bind_int64(stmt, 4, length);
        st = Step(kListUpdate);
    }
    if (st == DbmStatus::Ok) {
        BindKey(Use(kDeleteRecords), key);
        st = Step(kDeleteRecords);
    }
    for (const std::string &rec : recs) {
        if (st != DbmStatus::Ok) {
            break;
        }
        stmt = Use(kInsert);
        BindKey(stmt, key);
        sqlite3_bind_blob(stmt, 3, rec.data(), static_cast<int>(rec.size()), SQLITE_STATIC);
        st = Step(kInsert);
    }
    if (st == DbmStatus::Ok && Step(kCommit) == DbmStatus::Ok) {
        return DbmStatus::Ok;
    }
    (void)Step(kRollback);
    return st == DbmStatus::Ok ? DbmStatus::StoreError : st;
}

/* Whether rec is already stored, byte for byte, under its sort word. */
DbmStatus DbmStore::IsStored(std::string_view key, std::string_view rec, bool &stored)
{
    sqlite3_stmt *stmt = Use(kSameRecord);
    BindKey(stmt, key);
    sqlite3_bind_blob(stmt, 3, rec.data(), static_cast<int>(rec.size()), SQLITE_STATIC);
    int rc = sqlite3_step(stmt);
    sqlite3_reset(stmt);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
        return Fail("record lookup");
    }
    stored = rc == SQLITE_ROW;
    return DbmStatus::Ok;
}

/* Writing what is already there would cost a commit (a WAL frame and, for
 * the other board, a changed database) for nothing: the daemon rewrites
 * every member it recovers, so look first. */
DbmStatus DbmStore::Insert(std::string_view key, std::string_view rec)
{
    bool stored = false;
    if (IsStored(key, rec, stored) != DbmStatus::Ok) {
        return DbmStatus::StoreError;
    }
    if (stored) {
        return DbmStatus::Ok;
    }
    sqlite3_stmt *stmt = Use(kInsert);
    BindKey(stmt, key);
    sqlite3_bind_blob(stmt, 3, rec.data(), static_cast<int>(rec.size()), SQLITE_STATIC);
    if (Step(kInsert) != DbmStatus::Ok) {
        return DbmStatus::StoreError;
    }
    if (sqlite3_changes(db_) > 0) {
        return DbmStatus::Ok;
    }
    /* Nothing inserted: either there is no list or the record is too short. */
    bool exists = false;
    if (KeyExists(key, exists) != DbmStatus::Ok) {
        return DbmStatus::StoreError;
    }
    lastError_ = exists ? "record shorter than the list's sort word" : "the list has no sort word";
    return exists ? DbmStatus::BadArg : DbmStatus::NoSortWord;
}

DbmStatus DbmStore::Remove(std::string_view key, std::string_view rec)
{
    sqlite3_stmt *stmt = Use(kRemove);
    BindKey(stmt, key);
    sqlite3_bind_blob(stmt, 3, rec.data(), static_cast<int>(rec.size()), SQLITE_STATIC);
    if (Step(kRemove) != DbmStatus::Ok) {
        return DbmStatus::StoreError;
    }
    return sqlite3_changes(db_) > 0 ? DbmStatus::Ok : DbmStatus::NotFound;
}

DbmStatus DbmStore::Count(std::string_view key, uint32_t &count)
{
    sqlite3_stmt *stmt = Use(kCount);
    BindKey(stmt, key);
    int rc = sqlite3_step(stmt);
    if (rc != SQLITE_ROW) {
        sqlite3_reset(stmt);
        return Fail("count");
    }
    count = static_cast<uint32_t>(sqlite3_column_int64(stmt, 0));
    sqlite3_reset(stmt);
    return DbmStatus::Ok;
}

DbmStatus DbmStore::DeleteKey(std::string_view key)
{
    BindKey(Use(kDeleteList), key);
    if (Step(kDeleteList) != DbmStatus::Ok) {
        return DbmStatus::StoreError;
    }
    return sqlite3_changes(db_) > 0 ? DbmStatus::Ok : DbmStatus::NotFound;
}

DbmStatus DbmStore::KeysByFirstByte(uint8_t first, std::vector<std::string> &keys)
{
    sqlite3_stmt *stmt = Use(kKeysByFirst);
    sqlite3_bind_text(stmt, 1, name_.data(), static_cast<int>(name_.size()), SQLITE_STATIC);
    sqlite3_bind_blob(stmt, 2, &first, 1, SQLITE_TRANSIENT);
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        keys.push_back(ColumnBytes(stmt, 0));
    }
    sqlite3_reset(stmt);
    return rc == SQLITE_DONE ? DbmStatus::Ok : Fail("key walk");
}

void DbmStore::BeginReadBatch()
{
    readBatch_ = true;
}

void DbmStore::EndReadBatch()
{
    EndSharedRead();
    readBatch_ = false;
}

void DbmStore::EndSharedRead()
{
    if (sharedRead_) {
        sharedRead_ = false;
        (void)Step(kCommit); /* nothing written: ends the read */
    }
}

DbmStatus DbmStore::ReadAfter(std::string_view key, std::string_view after, uint32_t limit,
                              std::vector<DbmRecord> &out)
{
    sqlite3_stmt *stmt = Use(kReadAfter);
    BindKey(stmt, key);
    /* An empty BLOB sorts before every sort word, so "" reads from the first. */
    sqlite3_bind_blob(stmt, 3, after.data(), static_cast<int>(after.size()), SQLITE_STATIC);
    sqlite3_bind_int64(stmt, 4, limit);
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        out.push_back(DbmRecord{ColumnBytes(stmt, 0), ColumnBytes(stmt, 1)});
    }
    sqlite3_reset(stmt);
    return rc == SQLITE_DONE ? DbmStatus::Ok : Fail("list read");
}

/* ---- read-only dump ---------------------------------------------------- */

namespace {

struct DumpList {
    std::string key;
    int64_t sortOff = 0;
    int64_t sortLen = 0;
    std::vector<std::string> records;
};

struct DumpDb {
    std::string name;
    std::string owner;
    std::vector<DumpList> lists;
};

/* Runs sql (with ?1 bound to db when given) and calls row for each row. */
template <typename RowFn>
bool ForEachRow(sqlite3 *conn, const char *sql, const std::string *db, const std::string *key, RowFn row,
                std::string &err)
{
    sqlite3_stmt *stmt = nullptr;
    if (sqlite3_prepare_v2(conn, sql, -1, &stmt, nullptr) != SQLITE_OK) {
        err = sqlite3_errmsg(conn);
        return false;
    }
    if (db != nullptr) {
        sqlite3_bind_text(stmt, 1, db->data(), static_cast<int>(db->size()), SQLITE_STATIC);
    }
    if (key != nullptr) {
        sqlite3_bind_blob(stmt, 2, key->data(), static_cast<int>(key->size()), SQLITE_STATIC);
    }
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        row(stmt);
    }
    if (rc != SQLITE_DONE) {
        err = sqlite3_errmsg(conn);
    }
    sqlite3_finalize(stmt);
    return rc == SQLITE_DONE;
}

bool ReadAll(sqlite3 *conn, std::vector<DumpDb> &dbs, std::string &err)
{
    /* Databases that own lists but never recorded an owner still show. */
    bool ok = ForEachRow(
        conn,
        "SELECT db, max(owner) FROM (SELECT db, owner FROM dbm_databases"
        " UNION ALL SELECT DISTINCT db, '' FROM dbm_lists) GROUP BY db ORDER BY db",
        nullptr, nullptr,
        [&](sqlite3_stmt *s) { dbs.push_back(DumpDb{ColumnText(s, 0), ColumnText(s, 1), {}}); }, err);
    for (DumpDb &d : dbs) {
        ok = ok && ForEachRow(
                       conn, "SELECT key, sort_off, sort_len FROM dbm_lists WHERE db=?1 ORDER BY key", &d.name,
                       nullptr,
                       [&](sqlite3_stmt *s) {
                           d.lists.push_back(DumpList{ColumnBytes(s, 0), sqlite3_column_int64(s, 1),
                                                      sqlite3_column_int64(s, 2), {}});
                       },
                       err);
        for (DumpList &l : d.lists) {
            ok = ok && ForEachRow(
                           conn, "SELECT rec FROM dbm_records WHERE db=?1 AND key=?2 ORDER BY sortword", &d.name,
                           &l.key, [&](sqlite3_stmt *s) { l.records.push_back(ColumnBytes(s, 0)); }, err);
        }
    }
    return ok;
}

/* The reader's JSON of each record of a list, null without a reader. */
nlohmann::json Readings(const RecordReader &read, const DumpDb &d, const DumpList &l)
{
    nlohmann::json out = nlohmann::json::array();
    for (const std::string &r : l.records) {
        out.push_back(read ? read(d.name, l.key, r) : nullptr);
    }
    return out;
}

std::string FormatJson(const std::string &path, const std::vector<DumpDb> &dbs, const RecordReader &read)
{
    nlohmann::json out = {{"path", path}, {"databases", nlohmann::json::array()}};
    for (const DumpDb &d : dbs) {
        nlohmann::json jdb = {{"name", d.name}, {"owner", d.owner}, {"lists", nlohmann::json::array()}};
        for (const DumpList &l : d.lists) {
            nlohmann::json recs = nlohmann::json::array();
            for (const std::string &r : l.records) {
                recs.push_back(HexOf(r.data(), r.size()));
            }
            jdb["lists"].push_back({{"key", HexOf(l.key.data(), l.key.size())},
                                    {"sort_offset", l.sortOff},
                                    {"sort_length", l.sortLen},
                                    {"records", std::move(recs)},
                                    {"decoded", Readings(read, d, l)}});
        }
        out["databases"].push_back(std::move(jdb));
    }
    return out.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string FormatText(const std::string &path, const std::vector<DumpDb> &dbs, const RecordReader &read)
{
    std::string out = "store " + path + "\n";
    if (dbs.empty()) {
        out += "  (no databases)\n";
    }
    for (const DumpDb &d : dbs) {
        out += "database " + d.name + " (owner " + (d.owner.empty() ? "?" : d.owner) + "), " +
               std::to_string(d.lists.size()) + " lists\n";
        for (const DumpList &l : d.lists) {
            out += "  key " + HexOf(l.key.data(), l.key.size()) + ": sort word at " + std::to_string(l.sortOff) +
                   ", " + std::to_string(l.sortLen) + " bytes, " + std::to_string(l.records.size()) + " records\n";
            const nlohmann::json readings = Readings(read, d, l);
            for (size_t i = 0; i < l.records.size(); ++i) {
                const std::string &r = l.records[i];
                out += "    " + HexOf(r.data(), r.size());
                if (!readings[i].is_null()) {
                    out += "  " + readings[i].dump();
                }
                out += "\n";
            }
        }
    }
    return out;
}

} // namespace

std::string DumpDatabase(const std::string &path, bool json, std::string &err, const RecordReader &read)
{
    err.clear();
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        err = path + ": no database file";
        return {};
    }
    sqlite3 *conn = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &conn, SQLITE_OPEN_READONLY, nullptr);
    std::vector<DumpDb> dbs;
    std::string why;
    bool ok = rc == SQLITE_OK;
    if (!ok) {
        why = conn != nullptr ? sqlite3_errmsg(conn) : sqlite3_errstr(rc);
    } else {
        sqlite3_busy_timeout(conn, kBusyTimeoutMs);
        /* One read transaction, so the dump is one consistent picture. */
        ok = Exec(conn, "BEGIN", why) == SQLITE_OK && ReadAll(conn, dbs, why);
        std::string ignored;
        (void)Exec(conn, "COMMIT", ignored);
    }
    sqlite3_close(conn);
    if (!ok) {
        err = path + ": " + why;
        return {};
    }
    return json ? FormatJson(path, dbs, read) : FormatText(path, dbs, read);
}

} // namespace tbdl::plat
