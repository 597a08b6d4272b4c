// host_dbm.cpp - the configuration database on SQLite.
//
// Each database name is one file, <root>/db/<name>.db, holding one rowid table
//   records(id INTEGER PRIMARY KEY, key BLOB NOT NULL UNIQUE,
//           type INTEGER NOT NULL, value BLOB NOT NULL)
// so "table order" is id (rowid) order; replacing a value is an UPSERT that
// keeps the row. An index on (type, id, key) answers counts and listings
// without reading the values.
//
// Changes are tracked per value type in the database itself: triggers keep
//   changes(type INTEGER PRIMARY KEY, counter INTEGER NOT NULL)
// one higher for every record of that type written or deleted, and give each
// written record the new counter as its stamp (records.stamp, indexed with
// the type). Being triggers, they count every writer of the file alike, and a
// copy of the file carries its counters with it. The file is in WAL mode with a long busy
// timeout, so several processes can read and write at once without spurious
// busy errors.
//
// A handle's first write runs in autocommit. A second write through the same
// handle opens a transaction that lasts until the handle is closed, so a
// batch (a purge deleting thousands of keys) commits once instead of once per
// key; writes of other handles of this process join it. Either way every
// write is visible to other processes once the handle that made it is closed.
//
// Opening SQLite costs far more than a lookup, so a process keeps one
// connection per database (with its prepared statements) from the first
// DBM_Open until the store changes. Handles are small integers that name a
// database and an open mode; DBM_Close only forgets the handle. A child made
// by fork() must not touch its parent's connections: it forgets them without
// closing them and opens its own.

#include <sqlite3.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host_internal.hpp"
#include "pkey_platform.h"
#include "pkey_util.hpp"

namespace pkey::host {
namespace {

constexpr int kBusyTimeoutMs = 30000;
constexpr std::size_t kMaxDbNameLen = 128;
constexpr int kAllModes = DBM_MODE_READ | DBM_MODE_DELETE | DBM_MODE_WRITE;

enum Stmt { kLen, kGet, kSet, kDelete, kCount, kList, kStamp, kChanged, kStmtCount };

constexpr const char *kStmtSql[kStmtCount] = {
    "SELECT length(value) FROM records WHERE key = ?1",
    "SELECT value FROM records WHERE key = ?1",
    ("INSERT INTO records(key, type, value) VALUES (?1, ?2, ?3) "
     "ON CONFLICT(key) DO UPDATE SET type = excluded.type, value = excluded.value"),
    "DELETE FROM records WHERE key = ?1",
    "SELECT count(*) FROM records WHERE type = ?1",
    "SELECT key FROM records WHERE type = ?1 ORDER BY rowid LIMIT ?2",
    "SELECT coalesce((SELECT counter FROM changes WHERE type = ?1), 0)",
    "SELECT key, stamp FROM records WHERE type = ?1 AND stamp > ?2 ORDER BY stamp LIMIT ?3",
};

constexpr const char *kSchemaSql =
    "CREATE TABLE IF NOT EXISTS records(id INTEGER PRIMARY KEY, "
    "key BLOB NOT NULL UNIQUE, type INTEGER NOT NULL, value BLOB NOT NULL)";
// A database made before the id column existed has no column to index; it
// works without the index, only its listings read the whole table.
constexpr const char *kIndexSql =
    "CREATE INDEX IF NOT EXISTS records_by_type ON records(type, id, key)";

// The change counters, in one transaction. A record's stamp column is only
// ever set by these triggers, so setting it fires none of them again.
constexpr const char *kTrackingSql =
    "CREATE TABLE IF NOT EXISTS changes(type INTEGER PRIMARY KEY, counter INTEGER NOT NULL);"
    "CREATE INDEX IF NOT EXISTS records_by_stamp ON records(type, stamp);"
    "CREATE TRIGGER IF NOT EXISTS records_inserted AFTER INSERT ON records BEGIN "
    "INSERT INTO changes VALUES (NEW.type, 1) "
    "ON CONFLICT(type) DO UPDATE SET counter = counter + 1; "
    "UPDATE records SET stamp = (SELECT counter FROM changes WHERE type = NEW.type) "
    "WHERE id = NEW.id; END;"
    "CREATE TRIGGER IF NOT EXISTS records_updated AFTER UPDATE OF key, type, value ON records "
    "BEGIN INSERT INTO changes VALUES (NEW.type, 1) "
    "ON CONFLICT(type) DO UPDATE SET counter = counter + 1; "
    "UPDATE records SET stamp = (SELECT counter FROM changes WHERE type = NEW.type) "
    "WHERE id = NEW.id; END;"
    "CREATE TRIGGER IF NOT EXISTS records_retyped AFTER UPDATE OF type ON records "
    "WHEN OLD.type <> NEW.type BEGIN INSERT INTO changes VALUES (OLD.type, 1) "
    "ON CONFLICT(type) DO UPDATE SET counter = counter + 1; END;"
    "CREATE TRIGGER IF NOT EXISTS records_deleted AFTER DELETE ON records BEGIN "
    "INSERT INTO changes VALUES (OLD.type, 1) "
    "ON CONFLICT(type) DO UPDATE SET counter = counter + 1; END;";
constexpr const char *kTrackingObjects =
    "SELECT count(*) FROM sqlite_master WHERE name IN ('changes', 'records_by_stamp', "
    "'records_inserted', 'records_updated', 'records_retyped', 'records_deleted')";
constexpr int kTrackingObjectCount = 6;

// SQLite wants a non-NULL pointer to bind an empty blob rather than NULL.
const unsigned char kEmpty[1] = {0};

class Connection {
public:
    Connection() = default;
    ~Connection() {
        for (sqlite3_stmt *&s : stmts_) sqlite3_finalize(s);
        if (db_ != nullptr) sqlite3_close_v2(db_);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    bool open(const std::string &path) {
        path_ = path;
        if (sqlite3_open_v2(path.c_str(), &db_,
                            SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                            nullptr) != SQLITE_OK)
            return false;
        sqlite3_busy_timeout(db_, kBusyTimeoutMs);
        // Reads go through a memory map rather than a read() per page: a
        // listing of 100,000 names touches thousands of pages.
        if (!exec("PRAGMA journal_mode=WAL") || !exec("PRAGMA synchronous=NORMAL") ||
            !exec("PRAGMA mmap_size=268435456") || !exec(kSchemaSql))
            return false;
        (void)exec(kIndexSql);
        tracking = set_up_tracking();
        return true;
    }

    // Whether this database counts its changes (a file that cannot be
    // written to add the counters works without them).
    bool tracking = false;

    // Handles of this process whose writes wait in the open transaction.
    int batch_users = 0;

    // Opens the write transaction a batch runs in (taking the write lock at once).
    bool begin_batch() { return exec("BEGIN IMMEDIATE"); }
    // Commits the batch; on failure the transaction is rolled back.
    bool commit_batch() {
        if (exec("COMMIT")) return true;
        fail("commit");
        (void)sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        return false;
    }

    // The prepared statement, made on first use; NULL when SQLite refuses it.
    sqlite3_stmt *stmt(Stmt which) {
        if (stmts_[which] == nullptr &&
            sqlite3_prepare_v3(db_, kStmtSql[which], -1, SQLITE_PREPARE_PERSISTENT, &stmts_[which],
                               nullptr) != SQLITE_OK) {
            fail("a statement");
            stmts_[which] = nullptr;
        }
        return stmts_[which];
    }

    // Records what SQLite said about the last failed call.
    void fail(const char *what) const {
        record_error("configuration database " + path_ + ": " + what + " failed: " + message());
    }
    // Records why the database could not be opened.
    void fail_open() const {
        record_error("cannot open the configuration database " + path_ + ": " + message());
    }

    sqlite3 *db() const { return db_; }

private:
    std::string message() const { return db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory"; }

    // Adds the stamp column and the counters to a database made without
    // them, under the write lock so that processes opening it together do it
    // once. Looked at first without the lock: a database that has them is
    // not written to.
    bool set_up_tracking() {
        if (count_of(kTrackingObjects) == kTrackingObjectCount) return true;
        if (!exec("BEGIN IMMEDIATE")) return false;
        const bool has_stamp =
            count_of("SELECT count(*) FROM pragma_table_info('records') WHERE name = 'stamp'") == 1;
        if ((has_stamp ||
             exec("ALTER TABLE records ADD COLUMN stamp INTEGER NOT NULL DEFAULT 0")) &&
            exec(kTrackingSql) && exec("COMMIT"))
            return true;
        (void)sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        return false;
    }

    // The single number a query gives; -1 when it gives none.
    sqlite3_int64 count_of(const char *sql) {
        sqlite3_stmt *s = nullptr;
        if (sqlite3_prepare_v2(db_, sql, -1, &s, nullptr) != SQLITE_OK) return -1;
        const sqlite3_int64 n = sqlite3_step(s) == SQLITE_ROW ? sqlite3_column_int64(s, 0) : -1;
        sqlite3_finalize(s);
        return n;
    }

    bool exec(const char *sql) {
        // The busy handler covers most contention; a statement that still
        // reports busy (as journal-mode changes can) is simply run again.
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
        for (;;) {
            const int rc = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
            if (rc == SQLITE_OK) return true;
            if ((rc & 0xFF) != SQLITE_BUSY && (rc & 0xFF) != SQLITE_LOCKED) return false;
            if (std::chrono::steady_clock::now() > deadline) return false;
            ::usleep(1000);
        }
    }

    sqlite3 *db_ = nullptr;
    sqlite3_stmt *stmts_[kStmtCount] = {};
    std::string path_;
};

// Resets a statement (ending its read snapshot) and clears its bindings when it goes.
class StmtUse {
public:
    explicit StmtUse(sqlite3_stmt *s) noexcept : s_(s) {}
    ~StmtUse() {
        if (s_ != nullptr) {
            sqlite3_reset(s_);
            sqlite3_clear_bindings(s_);
        }
    }
    StmtUse(const StmtUse &) = delete;
    StmtUse &operator=(const StmtUse &) = delete;

    // One step; a busy result that got past the busy handler is retried.
    int step() {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
        for (;;) {
            const int rc = sqlite3_step(s_);
            if ((rc & 0xFF) != SQLITE_BUSY && (rc & 0xFF) != SQLITE_LOCKED) return rc;
            if (std::chrono::steady_clock::now() > deadline) return rc;
            sqlite3_reset(s_);
            ::usleep(1000);
        }
    }

private:
    sqlite3_stmt *s_;
};

struct Handle {
    std::string db_name;
    int mode = 0;
    int writes = 0;         // writes made through this handle
    bool in_batch = false;  // its writes run in the connection's open transaction
};

struct DbmState {
    pid_t pid = 0;
    std::uint64_t generation = 0;
    std::string root;
    std::map<std::string, std::unique_ptr<Connection>> connections;
    std::map<int, Handle> handles;
    int next_handle = 1;
};

std::mutex g_dbm_mutex;
DbmState g_dbm;  // guarded by g_dbm_mutex

// Brings the cache in line with the current store and process. Caller holds g_dbm_mutex.
bool sync_state() {
    const pid_t pid = process_id();
    if (g_dbm.pid == pid && g_dbm.generation != 0 && g_dbm.generation == current_generation())
        return true;
    StoreRef store = current_store();
    if (store.root.empty()) return false;
    if (g_dbm.pid != pid) {
        // Inherited through fork(): the parent still uses these, so they are
        // never closed here. They stay parked, reachable and unused, for the
        // life of this process.
        static auto *inherited = new std::vector<std::unique_ptr<Connection>>();
        for (auto &entry : g_dbm.connections) inherited->push_back(std::move(entry.second));
        g_dbm.connections.clear();
        for (auto &entry : g_dbm.handles) entry.second.in_batch = false;
        g_dbm.pid = pid;
    }
    if (g_dbm.generation != store.generation) {
        g_dbm.connections.clear();
        g_dbm.handles.clear();
        g_dbm.generation = store.generation;
        g_dbm.root = store.root;
    }
    return true;
}

Connection *connection_for(const std::string &db_name) {
    auto it = g_dbm.connections.find(db_name);
    if (it != g_dbm.connections.end()) return it->second.get();
    const std::string dir = g_dbm.root + "/db";
    if (::mkdir(dir.c_str(), 0770) != 0 && errno != EEXIST) {
        const int err = errno;
        record_error("cannot create the database directory " + dir + ": " + errno_text(err));
        return nullptr;
    }
    auto conn = std::make_unique<Connection>();
    if (!conn->open(dir + "/" + db_name + ".db")) {
        conn->fail_open();
        return nullptr;
    }
    return g_dbm.connections.emplace(db_name, std::move(conn)).first->second.get();
}

bool valid_db_name(const char *name) {
    if (name == nullptr) return false;
    const std::size_t len = ::strnlen(name, kMaxDbNameLen + 1);
    if (len == 0 || len > kMaxDbNameLen) return false;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return false;
    for (std::size_t i = 0; i < len; ++i) {
        const auto c = static_cast<unsigned char>(name[i]);
        if (c == '/' || c < 0x20 || c == 0x7F) return false;
    }
    return true;
}

// What an operation works on: a connection and the handle's mode.
struct Target {
    Connection *conn = nullptr;
    Handle *handle = nullptr;
    int mode = 0;
};

// Resolves a handle. Caller holds g_dbm_mutex.
bool resolve(int handle, Target &t) {
    if (!sync_state()) return false;
    auto it = g_dbm.handles.find(handle);
    if (it == g_dbm.handles.end()) return false;
    t.handle = &it->second;
    t.mode = it->second.mode;
    t.conn = connection_for(it->second.db_name);
    return t.conn != nullptr;
}

// Called before each write: the second write of a handle joins (or opens)
// the connection's batch transaction. A batch that cannot start leaves the
// write in autocommit. Caller holds g_dbm_mutex.
void before_write(Target &t) {
    if (t.handle->in_batch || ++t.handle->writes < 2) return;
    if (t.conn->batch_users == 0 && !t.conn->begin_batch()) return;
    ++t.conn->batch_users;
    t.handle->in_batch = true;
}

void bind_key(sqlite3_stmt *s, const char *key, unsigned int keyLen) {
    sqlite3_bind_blob(s, 1, keyLen == 0 ? static_cast<const void *>(kEmpty) : key,
                      static_cast<int>(keyLen), SQLITE_STATIC);
}

bool key_ok(const char *key, unsigned int keyLen) {
    return (key != nullptr || keyLen == 0) && keyLen <= static_cast<unsigned int>(INT32_MAX);
}

// True when a step gave a row. No row is a verdict, not a failure; anything
// else is recorded.
bool row(const Connection &c, int rc, const char *what) {
    if (rc == SQLITE_ROW) return true;
    if (rc != SQLITE_DONE) c.fail(what);
    return false;
}

// Key texts of one listing, in one buffer that the entries point into.
struct KeyIterator {
    std::vector<char> bytes;
};

// Steps a listing (key in column 0, stamp in column 1 when last is given)
// into at most capacity entries; false when SQLite failed part way.
bool collect_keys(StmtUse &use, sqlite3_stmt *s, unsigned int capacity, KeyIterator &it,
                  DBM_KEY_ENTRY_S *entries, unsigned int &filled, DBM_STAMP *last) {
    // Offsets first: the buffer may move while it grows.
    std::vector<std::size_t> offsets;
    offsets.reserve(std::min<std::size_t>(capacity, 1U << 17));
    it.bytes.reserve(offsets.capacity() * 16);
    int rc = SQLITE_ROW;
    while (filled < capacity && (rc = use.step()) == SQLITE_ROW) {
        const auto *k = static_cast<const char *>(sqlite3_column_blob(s, 0));
        const auto n = static_cast<unsigned int>(sqlite3_column_bytes(s, 0));
        offsets.push_back(it.bytes.size());
        if (n != 0) it.bytes.insert(it.bytes.end(), k, k + n);
        entries[filled] = DBM_KEY_ENTRY_S{nullptr, n, 0, 0};
        if (last != nullptr) *last = static_cast<DBM_STAMP>(sqlite3_column_int64(s, 1));
        ++filled;
    }
    const char *base = it.bytes.data();
    for (unsigned int i = 0; i < filled; ++i) entries[i].pcKey = base + offsets[i];
    return rc == SQLITE_ROW || rc == SQLITE_DONE;
}

}  // namespace

void dbm_drop() noexcept {
    std::lock_guard lock(g_dbm_mutex);
    if (g_dbm.pid == process_id()) {
        g_dbm.connections.clear();
    } else {
        for (auto &entry : g_dbm.connections) (void)entry.second.release();
        g_dbm.connections.clear();
    }
    g_dbm.handles.clear();
    g_dbm.generation = 0;
}

}  // namespace pkey::host

using namespace pkey::host;

extern "C" {

int DBM_Open(const char *dbName, const char *tableName, int mode, const DBM_OPEN_OPTIONS_S *options,
             int *handle) {
    (void)options;
    return pkey::c_boundary(DBM_ERR_IO, [&] {
        if (!valid_db_name(dbName) || tableName == nullptr || handle == nullptr || mode <= 0 ||
            (mode & ~kAllModes) != 0)
            return DBM_ERR_PARAM;
        std::lock_guard lock(g_dbm_mutex);
        if (!sync_state() || connection_for(dbName) == nullptr) return DBM_ERR_IO;
        int h = g_dbm.next_handle;
        while (g_dbm.handles.count(h) != 0 || h <= 0) h = h <= 0 ? 1 : h + 1;
        g_dbm.next_handle = h == INT32_MAX ? 1 : h + 1;
        g_dbm.handles.emplace(h, Handle{dbName, mode});
        *handle = h;
        return DBM_OK;
    });
}

int DBM_Close(int handle) {
    return pkey::c_boundary(DBM_ERR_IO, [&] {
        std::lock_guard lock(g_dbm_mutex);
        const bool synced = sync_state();  // forgets batches inherited through fork()
        auto it = g_dbm.handles.find(handle);
        if (it == g_dbm.handles.end()) return DBM_ERR_PARAM;
        const Handle closed = std::move(it->second);
        g_dbm.handles.erase(it);
        if (!closed.in_batch) return DBM_OK;
        // The last handle of a batch commits it.
        auto conn = g_dbm.connections.find(closed.db_name);
        if (!synced || conn == g_dbm.connections.end()) return DBM_ERR_IO;
        Connection &c = *conn->second;
        if (c.batch_users <= 0 || --c.batch_users > 0) return DBM_OK;
        return c.commit_batch() ? DBM_OK : DBM_ERR_IO;
    });
}

int DBM_Len(int handle, const char *key, unsigned int keyLen) {
    return pkey::c_boundary(-1, [&] {
        if (!key_ok(key, keyLen)) return -1;
        std::lock_guard lock(g_dbm_mutex);
        Target t;
        if (!resolve(handle, t) || (t.mode & DBM_MODE_READ) == 0) return -1;
        sqlite3_stmt *s = t.conn->stmt(kLen);
        if (s == nullptr) return -1;
        StmtUse use(s);
        bind_key(s, key, keyLen);
        if (!row(*t.conn, use.step(), "a read")) return -1;
        return sqlite3_column_int(s, 0);
    });
}

int DBM_GetBinary(int handle, const char *key, unsigned int keyLen, unsigned int offset,
                  unsigned int size, void *buf) {
    return pkey::c_boundary(-1, [&] {
        if (!key_ok(key, keyLen) || (buf == nullptr && size != 0)) return -1;
        std::lock_guard lock(g_dbm_mutex);
        Target t;
        if (!resolve(handle, t) || (t.mode & DBM_MODE_READ) == 0) return -1;
        sqlite3_stmt *s = t.conn->stmt(kGet);
        if (s == nullptr) return -1;
        StmtUse use(s);
        bind_key(s, key, keyLen);
        if (!row(*t.conn, use.step(), "a read")) return -1;
        const auto *value = static_cast<const unsigned char *>(sqlite3_column_blob(s, 0));
        const auto len = static_cast<unsigned int>(sqlite3_column_bytes(s, 0));
        if (value == nullptr || offset >= len) return 0;
        const unsigned int n = std::min(size, len - offset);
        std::memcpy(buf, value + offset, n);
        return static_cast<int>(n);
    });
}

int DBM_SetBinary(int handle, const char *key, unsigned int keyLen, int offset, unsigned int len,
                  const void *value, unsigned int valueType) {
    return pkey::c_boundary(DBM_ERR_IO, [&] {
        if (!key_ok(key, keyLen) || (value == nullptr && len != 0) ||
            len > static_cast<unsigned int>(INT32_MAX) || (offset != -1 && offset != 0))
            return DBM_ERR_PARAM;
        std::lock_guard lock(g_dbm_mutex);
        Target t;
        if (!resolve(handle, t)) return DBM_ERR_PARAM;
        if ((t.mode & DBM_MODE_WRITE) == 0) return DBM_ERR_DENIED;
        before_write(t);
        sqlite3_stmt *s = t.conn->stmt(kSet);
        if (s == nullptr) return DBM_ERR_IO;
        StmtUse use(s);
        bind_key(s, key, keyLen);
        sqlite3_bind_int64(s, 2, static_cast<sqlite3_int64>(valueType));
        sqlite3_bind_blob(s, 3, len == 0 ? static_cast<const void *>(kEmpty) : value,
                          static_cast<int>(len), SQLITE_STATIC);
        if (use.step() == SQLITE_DONE) return DBM_OK;
        t.conn->fail("a write");
        return DBM_ERR_IO;
    });
}

int DBM_DeleteKey(int handle, const char *key, unsigned int keyLen) {
    return pkey::c_boundary(DBM_ERR_IO, [&] {
        if (!key_ok(key, keyLen)) return DBM_ERR_PARAM;
        std::lock_guard lock(g_dbm_mutex);
        Target t;
        if (!resolve(handle, t)) return DBM_ERR_PARAM;
        if ((t.mode & DBM_MODE_DELETE) == 0) return DBM_ERR_DENIED;
        before_write(t);
        sqlite3_stmt *s = t.conn->stmt(kDelete);
        if (s == nullptr) return DBM_ERR_IO;
        StmtUse use(s);
        bind_key(s, key, keyLen);
        if (use.step() != SQLITE_DONE) {
            t.conn->fail("a delete");
            return DBM_ERR_IO;
        }
        return sqlite3_changes(t.conn->db()) > 0 ? DBM_OK : DBM_ERR_NOT_FOUND;
    });
}

unsigned int DBM_GetKeyNumByValueType(int handle, unsigned int valueType) {
    return pkey::c_boundary(0U, [&]() -> unsigned int {
        std::lock_guard lock(g_dbm_mutex);
        Target t;
        if (!resolve(handle, t) || (t.mode & DBM_MODE_READ) == 0) return 0;
        sqlite3_stmt *s = t.conn->stmt(kCount);
        if (s == nullptr) return 0;
        StmtUse use(s);
        sqlite3_bind_int64(s, 1, static_cast<sqlite3_int64>(valueType));
        if (!row(*t.conn, use.step(), "a count")) return 0;
        return static_cast<unsigned int>(sqlite3_column_int64(s, 0));
    });
}

unsigned int DBM_GetKeysByValueType(int handle, unsigned int capacity, unsigned int valueType,
                                    DBM_ITERATOR *iterator, DBM_KEY_ENTRY_S *entries) {
    return pkey::c_boundary(0U, [&]() -> unsigned int {
        if (iterator == nullptr) return 0;
        auto owned = std::make_unique<KeyIterator>();
        KeyIterator *it = owned.get();
        *iterator = owned.release();  // the caller frees it, filled or not
        if (entries == nullptr || capacity == 0) return 0;

        std::lock_guard lock(g_dbm_mutex);
        Target t;
        if (!resolve(handle, t) || (t.mode & DBM_MODE_READ) == 0) return 0;
        sqlite3_stmt *s = t.conn->stmt(kList);
        if (s == nullptr) return 0;
        StmtUse use(s);
        sqlite3_bind_int64(s, 1, static_cast<sqlite3_int64>(valueType));
        sqlite3_bind_int64(s, 2, static_cast<sqlite3_int64>(capacity));

        unsigned int filled = 0;
        if (!collect_keys(use, s, capacity, *it, entries, filled, nullptr))
            t.conn->fail("a listing");
        return filled;
    });
}

void DBM_FreeIterator(DBM_ITERATOR iterator) { delete static_cast<KeyIterator *>(iterator); }

int DBM_GetChangeStamp(int handle, unsigned int valueType, DBM_STAMP *stamp) {
    return pkey::c_boundary(DBM_ERR_IO, [&] {
        if (stamp == nullptr) return DBM_ERR_PARAM;
        std::lock_guard lock(g_dbm_mutex);
        Target t;
        if (!resolve(handle, t)) return DBM_ERR_PARAM;
        if ((t.mode & DBM_MODE_READ) == 0) return DBM_ERR_DENIED;
        if (!t.conn->tracking) return DBM_ERR_IO;
        sqlite3_stmt *s = t.conn->stmt(kStamp);
        if (s == nullptr) return DBM_ERR_IO;
        StmtUse use(s);
        sqlite3_bind_int64(s, 1, static_cast<sqlite3_int64>(valueType));
        if (!row(*t.conn, use.step(), "a change count")) return DBM_ERR_IO;
        *stamp = static_cast<DBM_STAMP>(sqlite3_column_int64(s, 0));
        return DBM_OK;
    });
}

int DBM_GetKeysChangedSince(int handle, DBM_STAMP since, unsigned int capacity,
                            unsigned int valueType, DBM_ITERATOR *iterator,
                            DBM_KEY_ENTRY_S *entries, DBM_STAMP *last) {
    return pkey::c_boundary(-1, [&] {
        if (iterator == nullptr) return -1;
        auto owned = std::make_unique<KeyIterator>();
        KeyIterator *it = owned.get();
        *iterator = owned.release();  // the caller frees it, filled or not
        if (entries == nullptr || last == nullptr ||
            capacity > static_cast<unsigned int>(INT32_MAX) ||
            since > static_cast<DBM_STAMP>(INT64_MAX))
            return -1;
        *last = since;
        if (capacity == 0) return 0;

        std::lock_guard lock(g_dbm_mutex);
        Target t;
        if (!resolve(handle, t) || (t.mode & DBM_MODE_READ) == 0 || !t.conn->tracking) return -1;
        sqlite3_stmt *s = t.conn->stmt(kChanged);
        if (s == nullptr) return -1;
        StmtUse use(s);
        sqlite3_bind_int64(s, 1, static_cast<sqlite3_int64>(valueType));
        sqlite3_bind_int64(s, 2, static_cast<sqlite3_int64>(since));
        sqlite3_bind_int64(s, 3, static_cast<sqlite3_int64>(capacity));

        unsigned int filled = 0;
        if (!collect_keys(use, s, capacity, *it, entries, filled, last)) {
            t.conn->fail("a listing of changes");
            return -1;
        }
        return static_cast<int>(filled);
    });
}

}  // extern "C"
