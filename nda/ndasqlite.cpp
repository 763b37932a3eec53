// The directory in one SQLite file. Addresses are kept in host order, so
// that the file reads and sorts naturally with the sqlite3 tool.
#include "nda/ndastore.h"

#include <arpa/inet.h>
#include <sqlite3.h>

#include <array>
#include <cstdio>
#include <cstring>

namespace {

sqlite3* db = nullptr;
char last_error[256] = "";

constexpr const char* SCHEMA =
    "PRAGMA journal_mode=WAL;"
    // Every commit reaches the disk before the answer that follows it.
    "PRAGMA synchronous=FULL;"
    "CREATE TABLE IF NOT EXISTS host(id INTEGER PRIMARY KEY, seen INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS addr(ip INTEGER PRIMARY KEY, host INTEGER NOT NULL);"
    "CREATE INDEX IF NOT EXISTS addr_host ON addr(host);"
    "CREATE TABLE IF NOT EXISTS name(name BLOB NOT NULL, host INTEGER NOT NULL,"
    " grp INTEGER NOT NULL, ip INTEGER NOT NULL, via_ip INTEGER NOT NULL,"
    " via_port INTEGER NOT NULL, seen INTEGER NOT NULL, PRIMARY KEY(name, host));"
    "CREATE INDEX IF NOT EXISTS name_host ON name(host);";

// A directory made before WINS entries lapsed gets their column.
constexpr const char* HAS_EXPIRES = "SELECT expires FROM name LIMIT 0";
constexpr const char* ADD_EXPIRES = "ALTER TABLE name ADD COLUMN expires INTEGER NOT NULL DEFAULT 0";

enum Stmt {
    S_BEGIN_W, S_BEGIN_R, S_COMMIT, S_ROLLBACK, S_SAVE, S_RELEASE, S_UNDO,
    S_HOST_OF, S_NEW_HOST, S_SEEN, S_ADD_ADDR, S_MOVE_ADDR, S_ADDR_COUNT,
    S_DROP_NAMES, S_DROP_ADDRS, S_DROP_HOST, S_MOVE_NAMES, S_MOVE_ADDRS,
    S_HOLDER, S_ENTRY, S_PUT_NAME, S_DROP_ENTRY, S_DROP_STALE, S_LIST, S_MEMBERS, S_EXPIRE,
    S_COUNT
};

constexpr std::array<const char*, S_COUNT> SQL = {
    "BEGIN IMMEDIATE",
    "BEGIN",
    "COMMIT",
    "ROLLBACK",
    "SAVEPOINT req",
    "RELEASE req",
    "ROLLBACK TO req",
    "SELECT host FROM addr WHERE ip = ?1",
    "INSERT INTO host(seen) VALUES(?1)",
    "UPDATE host SET seen = ?2 WHERE id = ?1 AND seen <> ?2",
    "INSERT OR IGNORE INTO addr(ip, host) VALUES(?1, ?2)",
    "UPDATE addr SET host = ?2 WHERE ip = ?1",
    "SELECT count(*) FROM addr WHERE host = ?1",
    "DELETE FROM name WHERE host = ?1",
    "DELETE FROM addr WHERE host = ?1",
    "DELETE FROM host WHERE id = ?1",
    "INSERT OR REPLACE INTO name(name, host, grp, ip, via_ip, via_port, seen, expires)"
    " SELECT name, ?2, grp, ip, via_ip, via_port, seen, expires FROM name WHERE host = ?1",
    "UPDATE addr SET host = ?2 WHERE host = ?1",
    "SELECT host, grp, ip, via_ip, via_port, expires FROM name WHERE name = ?1 AND host <> ?2"
    " AND (expires = 0 OR expires > ?3) ORDER BY grp, seen DESC, rowid DESC LIMIT 1",
    "SELECT host, grp, ip, via_ip, via_port, expires FROM name WHERE name = ?1 AND host = ?2",
    "INSERT OR REPLACE INTO name(name, host, grp, ip, via_ip, via_port, seen, expires)"
    " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)",
    "DELETE FROM name WHERE name = ?1 AND host = ?2",
    "DELETE FROM name WHERE name = ?1 AND host <> ?2 AND ip = ?3",
    "SELECT name, grp, ip, host, seen FROM name ORDER BY name, host",
    "SELECT ip FROM name WHERE name = ?1 AND (expires = 0 OR expires > ?2) ORDER BY seen DESC, rowid DESC",
    "DELETE FROM name WHERE expires <> 0 AND expires <= ?1",
};

std::array<sqlite3_stmt*, S_COUNT> stmt{};

void note_error(const char* what)
{
    snprintf(last_error, sizeof last_error, "%s: %s", what,
             db != nullptr ? sqlite3_errmsg(db) : "no database");
}

// Binds the integers in order, runs the statement to its first row or its
// end: SQLITE_ROW (the row readable until the next run), SQLITE_DONE, or
// an error code.
template <typename... Ints>
int run(Stmt s, Ints... values)
{
    sqlite3_stmt* st = stmt[s];
    sqlite3_reset(st);
    sqlite3_clear_bindings(st);
    [[maybe_unused]] int i = 1;
    ((sqlite3_bind_int64(st, i++, int64_t(values))), ...);
    int rc = sqlite3_step(st);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE)
        note_error(SQL[s]);
    return rc;
}

// The same with the 16-byte name as the first parameter.
template <typename... Ints>
int run_name(Stmt s, const uint8_t* name, Ints... values)
{
    sqlite3_stmt* st = stmt[s];
    sqlite3_reset(st);
    sqlite3_clear_bindings(st);
    sqlite3_bind_blob(st, 1, name, 16, SQLITE_STATIC);
    [[maybe_unused]] int i = 2;
    ((sqlite3_bind_int64(st, i++, int64_t(values))), ...);
    int rc = sqlite3_step(st);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE)
        note_error(SQL[s]);
    return rc;
}

// A change or a statement without rows: 0, or -1.
int done(int rc)
{
    return rc == SQLITE_ROW || rc == SQLITE_DONE ? 0 : -1;
}

int64_t col(Stmt s, int i)
{
    return sqlite3_column_int64(stmt[s], i);
}

int64_t hip(uint32_t net)
{
    return int64_t(ntohl(net));
}

uint32_t nip(int64_t host_order)
{
    return htonl(uint32_t(host_order));
}

// A statement left on a row holds a read transaction open after the
// commit: this agent would go on reading an old snapshot of a file that
// another agent writes, and its next BEGIN IMMEDIATE would fail. Every
// transaction ends with all of them reset.
void reset_all()
{
    for (sqlite3_stmt* s : stmt)
        sqlite3_reset(s);
}

// One commit, and so one wait for the disk, for every request of the
// transaction: the writer locks the file once for all of them.
int sq_transact(bool write, int (*fn)(void* arg), void* arg)
{
    if (run(write ? S_BEGIN_W : S_BEGIN_R) != SQLITE_DONE)
        return -1;
    int r = fn(arg);
    reset_all();
    if (r == 0 && run(S_COMMIT) == SQLITE_DONE)
        return 0;
    run(S_ROLLBACK);
    return r != 0 ? r : -1;
}

int sq_mark(int what)
{
    if (what == NDA_MARK)
        return done(run(S_SAVE));
    if (what == NDA_UNDO && done(run(S_UNDO)) < 0)
        return -1;
    return done(run(S_RELEASE));
}

int64_t sq_host_of(uint32_t ip)
{
    int rc = run(S_HOST_OF, hip(ip));
    if (rc == SQLITE_ROW)
        return col(S_HOST_OF, 0);
    return rc == SQLITE_DONE ? 0 : -1;
}

int64_t sq_new_host(int64_t now)
{
    if (run(S_NEW_HOST, now) != SQLITE_DONE)
        return -1;
    return sqlite3_last_insert_rowid(db);
}

int sq_add_addr(uint32_t ip, int64_t host)
{
    return done(run(S_ADD_ADDR, hip(ip), host));
}

int sq_move_addr(uint32_t ip, int64_t host)
{
    return done(run(S_MOVE_ADDR, hip(ip), host));
}

int sq_seen(int64_t host, int64_t now)
{
    return done(run(S_SEEN, host, now));
}

int64_t sq_addr_count(int64_t host)
{
    return run(S_ADDR_COUNT, host) == SQLITE_ROW ? col(S_ADDR_COUNT, 0) : -1;
}

int sq_drop_host(int64_t host)
{
    return done(run(S_DROP_NAMES, host)) == 0 && done(run(S_DROP_ADDRS, host)) == 0 &&
                   done(run(S_DROP_HOST, host)) == 0
               ? 0
               : -1;
}

int sq_merge_host(int64_t host, int64_t into)
{
    return done(run(S_MOVE_NAMES, host, into)) == 0 && done(run(S_MOVE_ADDRS, host, into)) == 0
               ? sq_drop_host(host)
               : -1;
}

int read_holder(Stmt s, int rc, NdaHolder* h)
{
    if (rc == SQLITE_ROW) {
        h->host = col(s, 0);
        h->group = int32_t(col(s, 1));
        h->ip = nip(col(s, 2));
        h->via_ip = nip(col(s, 3));
        h->via_port = uint16_t(col(s, 4));
        h->expires = col(s, 5);
    }
    sqlite3_reset(stmt[s]);
    return rc == SQLITE_ROW ? 1 : rc == SQLITE_DONE ? 0 : -1;
}

int sq_holder(const uint8_t* name, int64_t except, int64_t now, NdaHolder* out)
{
    return read_holder(S_HOLDER, run_name(S_HOLDER, name, except, now), out);
}

int sq_entry(const uint8_t* name, int64_t host, NdaHolder* out)
{
    return read_holder(S_ENTRY, run_name(S_ENTRY, name, host), out);
}

int sq_put_name(const uint8_t* name, int64_t host, int32_t group, uint32_t ip, uint32_t via_ip, uint16_t via_port,
                int64_t now, int64_t expires)
{
    return done(run_name(S_PUT_NAME, name, host, group, hip(ip), hip(via_ip), via_port, now, expires));
}

int sq_members(const uint8_t* name, int64_t now, uint32_t* ips, int room)
{
    int n = 0;
    int rc = run_name(S_MEMBERS, name, now);
    for (; rc == SQLITE_ROW && n < room; rc = sqlite3_step(stmt[S_MEMBERS]))
        ips[n++] = nip(col(S_MEMBERS, 0));
    sqlite3_reset(stmt[S_MEMBERS]);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
        note_error(SQL[S_MEMBERS]);
        return -1;
    }
    return n;
}

int sq_expire(int64_t now)
{
    return done(run(S_EXPIRE, now));
}

int sq_drop_name(const uint8_t* name, int64_t host)
{
    return done(run_name(S_DROP_ENTRY, name, host));
}

int sq_drop_stale(const uint8_t* name, int64_t host, uint32_t ip)
{
    return done(run_name(S_DROP_STALE, name, host, hip(ip)));
}

int sq_list(void (*fn)(const NdaListEntry& e, void* arg), void* arg)
{
    sqlite3_stmt* st = stmt[S_LIST];
    sqlite3_reset(st);
    int rc;
    for (;;) {
        rc = sqlite3_step(st);
        if (rc != SQLITE_ROW)
            break;
        NdaListEntry e{};
        if (sqlite3_column_bytes(st, 0) == 16)
            memcpy(e.name, sqlite3_column_blob(st, 0), 16);
        e.group = int32_t(sqlite3_column_int64(st, 1));
        e.ip = nip(sqlite3_column_int64(st, 2));
        e.host = sqlite3_column_int64(st, 3);
        e.seen = sqlite3_column_int64(st, 4);
        fn(e, arg);
    }
    sqlite3_reset(st);
    if (rc != SQLITE_DONE) {
        note_error(SQL[S_LIST]);
        return -1;
    }
    return 0;
}

void sq_close()
{
    for (sqlite3_stmt*& s : stmt) {
        sqlite3_finalize(s);
        s = nullptr;
    }
    if (db != nullptr)
        sqlite3_close(db);
    db = nullptr;
}

int open_db(const char* where, bool read_only)
{
    sq_close();
    int flags = read_only ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    if (sqlite3_open_v2(where, &db, flags, nullptr) != SQLITE_OK) {
        note_error(where);
        sq_close();
        return -1;
    }
    // A reader such as the sqlite3 tool may hold the file for a moment.
    sqlite3_busy_timeout(db, 2000);
    char* msg = nullptr;
    // A reader never checkpoints: the last connection to close would then
    // remove the write-ahead log, under a running agent that lost its locks
    // or one started after. (Read-only already forbids it; this says so.)
    if ((read_only && sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr) != SQLITE_OK) ||
        (!read_only && sqlite3_exec(db, SCHEMA, nullptr, nullptr, &msg) != SQLITE_OK) ||
        (!read_only && sqlite3_exec(db, HAS_EXPIRES, nullptr, nullptr, nullptr) != SQLITE_OK &&
         sqlite3_exec(db, ADD_EXPIRES, nullptr, nullptr, &msg) != SQLITE_OK)) {
        snprintf(last_error, sizeof last_error, "%s: %s", where, msg != nullptr ? msg : sqlite3_errmsg(db));
        sqlite3_free(msg);
        sq_close();
        return -1;
    }
    for (int i = 0; i < S_COUNT; i++) {
        if (sqlite3_prepare_v2(db, SQL[size_t(i)], -1, &stmt[size_t(i)], nullptr) != SQLITE_OK) {
            note_error(SQL[size_t(i)]);
            sq_close();
            return -1;
        }
    }
    return 0;
}

int sq_open(const char* where)
{
    return open_db(where, false);
}

int sq_open_read(const char* where)
{
    return open_db(where, true);
}

const char* sq_error()
{
    return last_error;
}

}  // namespace

const NdaStore nda_sqlite = {
    "sqlite",     sq_open, sq_open_read,       sq_close,      sq_transact,  sq_mark,       sq_host_of,
    sq_new_host,  sq_add_addr,    sq_move_addr,  sq_seen,      sq_addr_count, sq_drop_host,
    sq_merge_host, sq_holder,     sq_entry,      sq_put_name,  sq_drop_name,  sq_drop_stale,
    sq_members,   sq_expire,      sq_list,       sq_error,
};
