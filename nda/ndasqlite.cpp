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

enum Stmt {
    S_BEGIN, S_COMMIT, S_ROLLBACK, S_READ,
    S_HOST_OF, S_NEW_HOST, S_SEEN, S_ADD_ADDR,
    S_DROP_OWN, S_HOLDER, S_PUT_NAME, S_DROP_ENTRY,
    S_QUERY, S_REMOVE, S_DROP_NAMES, S_DROP_ADDRS, S_DROP_HOST,
    S_MOVE_NAMES, S_MOVE_ADDRS, S_MOVE_ADDR, S_ADDR_COUNT, S_LIST,
    S_COUNT
};

constexpr std::array<const char*, S_COUNT> SQL = {
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
    "BEGIN",
    "SELECT host FROM addr WHERE ip = ?1",
    "INSERT INTO host(seen) VALUES(?1)",
    "UPDATE host SET seen = ?2 WHERE id = ?1",
    "INSERT OR IGNORE INTO addr(ip, host) VALUES(?1, ?2)",
    // An entry of another host made for one of the claimer's own addresses
    // is the claimer's earlier registration (its host was regrouped since).
    "DELETE FROM name WHERE name = ?1 AND host <> ?2 AND ip = ?3",
    "SELECT host, grp, ip, via_ip, via_port FROM name WHERE name = ?1 AND host <> ?2"
    " ORDER BY grp, seen DESC, rowid DESC LIMIT 1",
    "INSERT OR REPLACE INTO name(name, host, grp, ip, via_ip, via_port, seen)"
    " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)",
    "DELETE FROM name WHERE name = ?1 AND host = ?2",
    "SELECT host, grp, ip, via_ip, via_port FROM name WHERE name = ?1"
    " ORDER BY grp, seen DESC, rowid DESC LIMIT 1",
    "DELETE FROM name WHERE name = ?1 AND host = (SELECT host FROM addr WHERE ip = ?2)",
    "DELETE FROM name WHERE host = ?1",
    "DELETE FROM addr WHERE host = ?1",
    "DELETE FROM host WHERE id = ?1",
    "INSERT OR REPLACE INTO name(name, host, grp, ip, via_ip, via_port, seen)"
    " SELECT name, ?2, grp, ip, via_ip, via_port, seen FROM name WHERE host = ?1",
    "UPDATE addr SET host = ?2 WHERE host = ?1",
    "UPDATE addr SET host = ?2 WHERE ip = ?1",
    "SELECT count(*) FROM addr WHERE host = ?1",
    "SELECT name, grp, ip, host, seen FROM name ORDER BY name, host",
};

std::array<sqlite3_stmt*, S_COUNT> stmt{};
bool in_burst = false;
bool reading = false;  // a read transaction of the burst is open

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
    sqlite3_bind_blob(st, 1, name, 16, SQLITE_TRANSIENT);
    [[maybe_unused]] int i = 2;
    ((sqlite3_bind_int64(st, i++, int64_t(values))), ...);
    int rc = sqlite3_step(st);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE)
        note_error(SQL[s]);
    return rc;
}

bool ok(int rc)
{
    return rc == SQLITE_ROW || rc == SQLITE_DONE;
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
// operation ends with all of them reset.
void reset_all()
{
    for (sqlite3_stmt* s : stmt)
        sqlite3_reset(s);
}

// A write ends the burst's read snapshot first: it must see the newest.
void end_read()
{
    if (reading) {
        reading = false;
        reset_all();
        run(S_COMMIT);
    }
}

int begin()
{
    end_read();
    return run(S_BEGIN) == SQLITE_DONE ? 0 : -1;
}

int commit()
{
    reset_all();
    if (run(S_COMMIT) == SQLITE_DONE)
        return 0;
    run(S_ROLLBACK);
    return -1;
}

int rollback(int result)
{
    reset_all();
    run(S_ROLLBACK);
    return result;
}

// The host of an address: its id, 0 when the address is unknown, -1 error.
int64_t host_of(uint32_t ip)
{
    int rc = run(S_HOST_OF, hip(ip));
    if (rc == SQLITE_ROW)
        return col(S_HOST_OF, 0);
    return rc == SQLITE_DONE ? 0 : -1;
}

int64_t new_host(int64_t now)
{
    if (run(S_NEW_HOST, now) != SQLITE_DONE)
        return -1;
    return sqlite3_last_insert_rowid(db);
}

// The host of the first known address, or a new one; every unknown address
// joins it. An address already on another host stays there: only an EQUIV
// moves addresses between hosts.
int64_t claimer_host(const uint32_t* addrs, int n, int64_t now)
{
    int64_t host = 0;
    for (int i = 0; i < n && host == 0; i++)
        host = host_of(addrs[i]);
    if (host == 0)
        host = new_host(now);
    if (host < 0)
        return -1;
    for (int i = 0; i < n; i++)
        if (!ok(run(S_ADD_ADDR, hip(addrs[i]), host)))
            return -1;
    return ok(run(S_SEEN, host, now)) ? host : -1;
}

void read_holder(Stmt s, NdaHolder* h)
{
    h->host = col(s, 0);
    h->group = int32_t(col(s, 1));
    h->ip = nip(col(s, 2));
    h->via_ip = nip(col(s, 3));
    h->via_port = uint16_t(col(s, 4));
}

// The claim inside an open transaction: 0, ST_HELD or -1.
int claim_in(const NdaClaim& c, NdaHolder* holder)
{
    int64_t host = claimer_host(c.addrs, c.addr_ct, c.now);
    if (host < 0)
        return -1;
    for (int i = 0; i < c.addr_ct; i++)
        if (!ok(run_name(S_DROP_OWN, c.name, host, hip(c.addrs[i]))))
            return -1;
    int rc = run_name(S_HOLDER, c.name, host);
    if (!ok(rc))
        return -1;
    if (rc == SQLITE_ROW) {
        NdaHolder h{};
        read_holder(S_HOLDER, &h);
        if (h.group == 0 || c.group == 0) {
            *holder = h;
            return ST_HELD;
        }
    }
    rc = run_name(S_PUT_NAME, c.name, host, c.group != 0 ? 1 : 0, hip(c.addrs[0]), hip(c.via_ip),
                  c.via_port, c.now);
    return ok(rc) ? 0 : -1;
}

int sq_claim(const NdaClaim& c, NdaHolder* holder)
{
    if (begin() < 0)
        return -1;
    int r = claim_in(c, holder);
    if (r != 0)
        return rollback(r);
    return commit();
}

int sq_replace(const NdaClaim& c, const NdaHolder& old, NdaHolder* holder)
{
    if (begin() < 0)
        return -1;
    if (!ok(run_name(S_DROP_ENTRY, c.name, old.host)))
        return rollback(-1);
    int r = claim_in(c, holder);
    if (r != 0)
        return rollback(r);
    return commit();
}

void sq_burst(bool on)
{
    in_burst = on;
    if (!on)
        end_read();
}

int sq_query(const uint8_t* name, NdaHolder* out)
{
    // Each read transaction of its own takes and drops the file's locks:
    // in a burst one read transaction serves every query.
    if (in_burst && !reading && run(S_READ) == SQLITE_DONE)
        reading = true;
    int rc = run_name(S_QUERY, name);
    if (rc == SQLITE_ROW)
        read_holder(S_QUERY, out);
    sqlite3_reset(stmt[S_QUERY]);
    return rc == SQLITE_ROW ? 1 : rc == SQLITE_DONE ? 0 : -1;
}

int sq_remove(const uint8_t* name, const uint32_t* addrs, int n)
{
    if (begin() < 0)
        return -1;
    for (int i = 0; i < n; i++)
        if (!ok(run_name(S_REMOVE, name, hip(addrs[i]))))
            return rollback(-1);
    return commit();
}

int drop_host(int64_t host)
{
    return ok(run(S_DROP_NAMES, host)) && ok(run(S_DROP_ADDRS, host)) && ok(run(S_DROP_HOST, host))
               ? 0
               : -1;
}

int sq_purge(uint32_t ip)
{
    if (begin() < 0)
        return -1;
    int64_t host = host_of(ip);
    if (host < 0 || (host > 0 && drop_host(host) < 0))
        return rollback(-1);
    return commit();
}

// One address out of a host it shared, onto a host of its own (without
// names: its daemon registers them again for the new grouping).
int split_one(uint32_t ip, int64_t now)
{
    int64_t host = host_of(ip);
    if (host < 0)
        return -1;
    if (host == 0) {
        int64_t own = new_host(now);
        return own < 0 || !ok(run(S_ADD_ADDR, hip(ip), own)) ? -1 : 0;
    }
    if (run(S_ADDR_COUNT, host) != SQLITE_ROW)
        return -1;
    if (col(S_ADDR_COUNT, 0) <= 1)
        return 0;
    int64_t own = new_host(now);
    return own < 0 || !ok(run(S_MOVE_ADDR, hip(ip), own)) ? -1 : 0;
}

int join(const uint32_t* addrs, int n, int64_t now)
{
    int64_t target = 0;
    for (int i = 0; i < n && target == 0; i++)
        target = host_of(addrs[i]);
    if (target < 0 || (target == 0 && (target = new_host(now)) < 0))
        return -1;
    for (int i = 0; i < n; i++) {
        int64_t other = host_of(addrs[i]);
        if (other < 0)
            return -1;
        if (other == 0) {
            if (!ok(run(S_ADD_ADDR, hip(addrs[i]), target)))
                return -1;
        } else if (other != target) {
            if (!ok(run(S_MOVE_NAMES, other, target)) || !ok(run(S_MOVE_ADDRS, other, target)) ||
                drop_host(other) < 0)
                return -1;
        }
    }
    return ok(run(S_SEEN, target, now)) ? 0 : -1;
}

int sq_equiv(const uint32_t* addrs, int n, int64_t now)
{
    if (n < 1)
        return 0;
    if (begin() < 0)
        return -1;
    int r = n == 1 ? split_one(addrs[0], now) : join(addrs, n, now);
    if (r < 0)
        return rollback(-1);
    return commit();
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
    end_read();
    in_burst = false;
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
        (!read_only && sqlite3_exec(db, SCHEMA, nullptr, nullptr, &msg) != SQLITE_OK)) {
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
    "sqlite", sq_open, sq_open_read, sq_close, sq_claim, sq_replace, sq_query, sq_burst, sq_remove, sq_purge, sq_equiv, sq_list, sq_error,
};
