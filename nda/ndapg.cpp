// The directory in a PostgreSQL database, shared by several agents. Every
// transaction is serializable, repeated when the server reports a conflict
// with another agent's: two agents can never both give one unique name away. The tables and their use are those of the SQLite
// directory; addresses are kept in host order.
#include "nda/ndastore.h"

#include <arpa/inet.h>
#include <libpq-fe.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

PGconn* conn = nullptr;
char last_error[256] = "";
bool conflict = false;    // the transaction must be repeated
constexpr int TRIES = 8;  // of one transaction against busy agents

constexpr const char* SCHEMA =
    "SET client_min_messages TO warning;"  // no notice for each table already there
    // Two agents starting at once: the one string is one transaction, so the
    // lock holds until the tables are there for the other.
    "SELECT pg_advisory_xact_lock(7432227);"
    "CREATE TABLE IF NOT EXISTS host(id BIGSERIAL PRIMARY KEY, seen BIGINT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS addr(ip BIGINT PRIMARY KEY, host BIGINT NOT NULL);"
    "CREATE INDEX IF NOT EXISTS addr_host ON addr(host);"
    "CREATE TABLE IF NOT EXISTS name(name BYTEA NOT NULL, host BIGINT NOT NULL, grp INT NOT NULL,"
    " ip BIGINT NOT NULL, via_ip BIGINT NOT NULL, via_port INT NOT NULL, seen BIGINT NOT NULL,"
    " seq BIGSERIAL, PRIMARY KEY(name, host));"
    "CREATE INDEX IF NOT EXISTS name_host ON name(host);"
    // A directory made before WINS entries lapsed gets their column.
    "ALTER TABLE name ADD COLUMN IF NOT EXISTS expires BIGINT NOT NULL DEFAULT 0;";

constexpr const char* PUT_NAME =
    "INSERT INTO name(name, host, grp, ip, via_ip, via_port, seen, expires)"
    " VALUES($1, $2, $3, $4, $5, $6, $7, $8)"
    " ON CONFLICT (name, host) DO UPDATE SET grp = EXCLUDED.grp, ip = EXCLUDED.ip, via_ip = EXCLUDED.via_ip,"
    " via_port = EXCLUDED.via_port, seen = EXCLUDED.seen, expires = EXCLUDED.expires, seq = DEFAULT";

void note_error(const char* what, const PGresult* r)
{
    const char* msg = r != nullptr ? PQresultErrorMessage(r) : PQerrorMessage(conn);
    snprintf(last_error, sizeof last_error, "%s: %s", what, msg);
    size_t n = strlen(last_error);
    while (n > 0 && (last_error[n - 1] == '\n' || last_error[n - 1] == ' '))
        last_error[--n] = '\0';
}

// One statement: the name (when given) as $1 in binary, then the integers.
// The result, or null on failure (conflict set when the server asks for
// the transaction to be repeated).
struct Result {
    PGresult* r = nullptr;
    ~Result() { PQclear(r); }
    bool ok() const { return r != nullptr; }
    int rows() const { return r != nullptr ? PQntuples(r) : 0; }
    int64_t col(int row, int i) const { return strtoll(PQgetvalue(r, row, i), nullptr, 10); }
};

void run(Result& res, const char* sql, const uint8_t* name, std::initializer_list<int64_t> values)
{
    char text[8][24];
    const char* params[9];
    int lengths[9] = {};
    int formats[9] = {};
    int n = 0;
    if (name != nullptr) {
        params[n] = reinterpret_cast<const char*>(name);
        lengths[n] = 16;
        formats[n++] = 1;
    }
    int k = 0;
    for (int64_t v : values) {
        snprintf(text[k], sizeof text[k], "%lld", static_cast<long long>(v));
        params[n++] = text[k++];
    }
    PGresult* r = PQexecParams(conn, sql, n, nullptr, params, lengths, formats, 0);
    ExecStatusType st = PQresultStatus(r);
    if (st == PGRES_COMMAND_OK || st == PGRES_TUPLES_OK) {
        res.r = r;
        return;
    }
    const char* state = PQresultErrorField(r, PG_DIAG_SQLSTATE);
    if (state != nullptr && (strcmp(state, "40001") == 0 || strcmp(state, "40P01") == 0))
        conflict = true;
    note_error(sql, r);
    PQclear(r);
}

bool exec(const char* sql, const uint8_t* name, std::initializer_list<int64_t> values)
{
    Result r;
    run(r, sql, name, values);
    return r.ok();
}

// One commit for every request of the transaction; a conflict with another
// agent's runs all of it again.
int pg_transact(bool write, int (*fn)(void* arg), void* arg)
{
    if (conn == nullptr)
        return -1;
    for (int t = 0; t < TRIES; t++) {
        // A server that restarted dropped the connection: one new attempt per
        // transaction, so a server that stays away costs one try per request.
        if (t == 0 && PQstatus(conn) == CONNECTION_BAD)
            PQreset(conn);
        conflict = false;
        if (!exec(write ? "BEGIN ISOLATION LEVEL SERIALIZABLE" : "BEGIN ISOLATION LEVEL SERIALIZABLE READ ONLY",
                  nullptr, {}))
            return -1;
        int r = fn(arg);
        if (!conflict && r != 0) {
            exec("ROLLBACK", nullptr, {});
            return r;
        }
        if (!conflict && exec("COMMIT", nullptr, {}))
            return 0;
        exec("ROLLBACK", nullptr, {});
        if (!conflict)
            return -1;
    }
    return NDA_BUSY;
}

// After a conflict the transaction is repeated whole: no savepoint saves it.
int pg_mark(int what)
{
    if (conflict)
        return -1;
    if (what == NDA_MARK)
        return exec("SAVEPOINT req", nullptr, {}) ? 0 : -1;
    if (what == NDA_UNDO && !exec("ROLLBACK TO SAVEPOINT req", nullptr, {}))
        return -1;
    return exec("RELEASE SAVEPOINT req", nullptr, {}) ? 0 : -1;
}

int64_t hip(uint32_t net)
{
    return int64_t(ntohl(net));
}

uint32_t nip(int64_t host_order)
{
    return htonl(uint32_t(host_order));
}

int ok(bool done)
{
    return done ? 0 : -1;
}

int64_t pg_host_of(uint32_t ip)
{
    Result r;
    run(r, "SELECT host FROM addr WHERE ip = $1", nullptr, {hip(ip)});
    if (!r.ok())
        return -1;
    return r.rows() > 0 ? r.col(0, 0) : 0;
}

int64_t pg_new_host(int64_t now)
{
    Result r;
    run(r, "INSERT INTO host(seen) VALUES($1) RETURNING id", nullptr, {now});
    return r.ok() && r.rows() == 1 ? r.col(0, 0) : -1;
}

int pg_add_addr(uint32_t ip, int64_t host)
{
    return ok(exec("INSERT INTO addr(ip, host) VALUES($1, $2) ON CONFLICT DO NOTHING", nullptr, {hip(ip), host}));
}

int pg_move_addr(uint32_t ip, int64_t host)
{
    return ok(exec("UPDATE addr SET host = $2 WHERE ip = $1", nullptr, {hip(ip), host}));
}

int pg_seen(int64_t host, int64_t now)
{
    return ok(exec("UPDATE host SET seen = $2 WHERE id = $1 AND seen <> $2", nullptr, {host, now}));
}

int64_t pg_addr_count(int64_t host)
{
    Result r;
    run(r, "SELECT count(*) FROM addr WHERE host = $1", nullptr, {host});
    return r.ok() && r.rows() == 1 ? r.col(0, 0) : -1;
}

int pg_drop_host(int64_t host)
{
    return ok(exec("DELETE FROM name WHERE host = $1", nullptr, {host}) &&
              exec("DELETE FROM addr WHERE host = $1", nullptr, {host}) &&
              exec("DELETE FROM host WHERE id = $1", nullptr, {host}));
}

int pg_merge_host(int64_t host, int64_t into)
{
    if (!exec("INSERT INTO name(name, host, grp, ip, via_ip, via_port, seen, expires)"
              " SELECT name, $2, grp, ip, via_ip, via_port, seen, expires FROM name WHERE host = $1"
              " ON CONFLICT (name, host) DO UPDATE SET grp = EXCLUDED.grp, ip = EXCLUDED.ip,"
              " via_ip = EXCLUDED.via_ip, via_port = EXCLUDED.via_port, seen = EXCLUDED.seen,"
              " expires = EXCLUDED.expires",
              nullptr, {host, into}) ||
        !exec("UPDATE addr SET host = $2 WHERE host = $1", nullptr, {host, into}))
        return -1;
    return pg_drop_host(host);
}

int read_holder(const Result& r, NdaHolder* h)
{
    if (!r.ok())
        return -1;
    if (r.rows() == 0)
        return 0;
    h->host = r.col(0, 0);
    h->group = int32_t(r.col(0, 1));
    h->ip = nip(r.col(0, 2));
    h->via_ip = nip(r.col(0, 3));
    h->via_port = uint16_t(r.col(0, 4));
    h->expires = r.col(0, 5);
    return 1;
}

int pg_holder(const uint8_t* name, int64_t except, int64_t now, NdaHolder* out)
{
    Result r;
    run(r,
        "SELECT host, grp, ip, via_ip, via_port, expires FROM name WHERE name = $1 AND host <> $2"
        " AND (expires = 0 OR expires > $3) ORDER BY grp, seen DESC, seq DESC LIMIT 1",
        name, {except, now});
    return read_holder(r, out);
}

int pg_entry(const uint8_t* name, int64_t host, NdaHolder* out)
{
    Result r;
    run(r, "SELECT host, grp, ip, via_ip, via_port, expires FROM name WHERE name = $1 AND host = $2", name, {host});
    return read_holder(r, out);
}

int pg_put_name(const uint8_t* name, int64_t host, int32_t group, uint32_t ip, uint32_t via_ip, uint16_t via_port,
                int64_t now, int64_t expires)
{
    return ok(exec(PUT_NAME, name, {host, group, hip(ip), hip(via_ip), int64_t(via_port), now, expires}));
}

int pg_members(const uint8_t* name, int64_t now, uint32_t* ips, int room)
{
    Result r;
    run(r, "SELECT ip FROM name WHERE name = $1 AND (expires = 0 OR expires > $2) ORDER BY seen DESC, seq DESC",
        name, {now});
    if (!r.ok())
        return -1;
    int n = 0;
    for (; n < r.rows() && n < room; n++)
        ips[n] = nip(r.col(n, 0));
    return n;
}

int pg_expire(int64_t now)
{
    return ok(exec("DELETE FROM name WHERE expires <> 0 AND expires <= $1", nullptr, {now}));
}

int pg_drop_name(const uint8_t* name, int64_t host)
{
    return ok(exec("DELETE FROM name WHERE name = $1 AND host = $2", name, {host}));
}

int pg_drop_stale(const uint8_t* name, int64_t host, uint32_t ip)
{
    return ok(exec("DELETE FROM name WHERE name = $1 AND host <> $2 AND ip = $3", name, {host, hip(ip)}));
}

int pg_list(void (*fn)(const NdaListEntry& e, void* arg), void* arg)
{
    Result r;
    run(r, "SELECT encode(name, 'hex'), grp, ip, host, seen FROM name ORDER BY name, host", nullptr, {});
    if (!r.ok())
        return -1;
    for (int row = 0; row < r.rows(); row++) {
        NdaListEntry e{};
        const char* hex = PQgetvalue(r.r, row, 0);
        for (int i = 0; i < 16 && hex[2 * i] != '\0' && hex[2 * i + 1] != '\0'; i++) {
            char b[3] = {hex[2 * i], hex[2 * i + 1], '\0'};
            e.name[i] = uint8_t(strtoul(b, nullptr, 16));
        }
        e.group = int32_t(r.col(row, 1));
        e.ip = nip(r.col(row, 2));
        e.host = r.col(row, 3);
        e.seen = r.col(row, 4);
        fn(e, arg);
    }
    return 0;
}

void pg_close()
{
    if (conn != nullptr)
        PQfinish(conn);
    conn = nullptr;
}

// The connection text is seen by every local user (the process list, a
// configuration file that all may read), so it may not carry a password:
// that comes from a password file of libpq's (passfile, PGPASSFILE or
// ~/.pgpass of the agent's user), which libpq reads only when no one else
// may. A text libpq cannot parse is not quoted back: its message would.
bool acceptable(const char* where)
{
    char* parse_error = nullptr;
    PQconninfoOption* opts = PQconninfoParse(where, &parse_error);
    PQfreemem(parse_error);
    if (opts == nullptr) {
        snprintf(last_error, sizeof last_error,
                 "not a PostgreSQL connection (key=value words, or a postgresql:// URI)");
        return false;
    }
    bool password = false;
    for (const PQconninfoOption* o = opts; o->keyword != nullptr; o++)
        password = password || (strcmp(o->keyword, "password") == 0 && o->val != nullptr && o->val[0] != '\0');
    PQconninfoFree(opts);
    if (password)
        snprintf(last_error, sizeof last_error,
                 "a password in the connection is refused: put it in a password file that only the agent's user"
                 " reads (passfile=FILE, PGPASSFILE or ~/.pgpass)");
    return !password;
}

int connect_to(const char* where, bool read_only)
{
    pg_close();
    // Nor from the environment: only a password file holds it.
    unsetenv("PGPASSWORD");
    if (!acceptable(where))
        return -1;
    conn = PQconnectdb(where);
    if (PQstatus(conn) != CONNECTION_OK) {
        note_error("connect", nullptr);
        pg_close();
        return -1;
    }
    PGresult* r = PQexec(conn, read_only ? "SET default_transaction_read_only = on" : SCHEMA);
    if (PQresultStatus(r) != PGRES_TUPLES_OK && PQresultStatus(r) != PGRES_COMMAND_OK) {
        note_error("schema", r);
        PQclear(r);
        pg_close();
        return -1;
    }
    PQclear(r);
    return 0;
}

int pg_open(const char* where)
{
    return connect_to(where, false);
}

int pg_open_read(const char* where)
{
    return connect_to(where, true);
}

const char* pg_error()
{
    return last_error;
}

}  // namespace

const NdaStore nda_postgres = {
    "postgresql",  pg_open, pg_open_read,    pg_close,     pg_transact, pg_mark,       pg_host_of,
    pg_new_host,   pg_add_addr, pg_move_addr, pg_seen,     pg_addr_count, pg_drop_host,
    pg_merge_host, pg_holder,   pg_entry,     pg_put_name, pg_drop_name,  pg_drop_stale,
    pg_members,    pg_expire,   pg_list,      pg_error,
};
