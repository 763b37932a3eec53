// The directory in a PostgreSQL database, shared by several agents. Every
// operation is one serializable transaction, repeated when the server
// reports a conflict with another agent's: two agents can never both give
// one unique name away. The tables and their use are those of the SQLite
// directory; addresses are kept in host order.
#include "nda/ndastore.h"

#include <arpa/inet.h>
#include <libpq-fe.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>

namespace {

PGconn* conn = nullptr;
char last_error[256] = "";
bool conflict = false;    // the transaction must be repeated
constexpr int TRIES = 20;  // of one transaction against busy agents

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
    "CREATE INDEX IF NOT EXISTS name_host ON name(host);";

constexpr const char* HOLDER_COLS = "SELECT host, grp, ip, via_ip, via_port FROM name ";
constexpr const char* PUT_NAME =
    "INSERT INTO name(name, host, grp, ip, via_ip, via_port, seen) VALUES($1, $2, $3, $4, $5, $6, $7)"
    " ON CONFLICT (name, host) DO UPDATE SET grp = EXCLUDED.grp, ip = EXCLUDED.ip, via_ip = EXCLUDED.via_ip,"
    " via_port = EXCLUDED.via_port, seen = EXCLUDED.seen, seq = DEFAULT";

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

// Runs body in a transaction: its result, committed when 0.
int in_txn(const std::function<int()>& body)
{
    if (conn == nullptr)
        return -1;
    for (int t = 0; t < TRIES; t++) {
        // A server that restarted dropped the connection: one new attempt per
        // transaction, so a server that stays away costs one try per request.
        if (t == 0 && PQstatus(conn) == CONNECTION_BAD)
            PQreset(conn);
        conflict = false;
        if (!exec("BEGIN ISOLATION LEVEL SERIALIZABLE", nullptr, {}))
            return -1;
        int r = body();
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
    return -1;
}

int64_t hip(uint32_t net)
{
    return int64_t(ntohl(net));
}

uint32_t nip(int64_t host_order)
{
    return htonl(uint32_t(host_order));
}

int64_t host_of(uint32_t ip)
{
    Result r;
    run(r, "SELECT host FROM addr WHERE ip = $1", nullptr, {hip(ip)});
    if (!r.ok())
        return -1;
    return r.rows() > 0 ? r.col(0, 0) : 0;
}

int64_t new_host(int64_t now)
{
    Result r;
    run(r, "INSERT INTO host(seen) VALUES($1) RETURNING id", nullptr, {now});
    return r.ok() && r.rows() == 1 ? r.col(0, 0) : -1;
}

bool add_addr(uint32_t ip, int64_t host)
{
    return exec("INSERT INTO addr(ip, host) VALUES($1, $2) ON CONFLICT DO NOTHING", nullptr, {hip(ip), host});
}

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
        if (!add_addr(addrs[i], host))
            return -1;
    return exec("UPDATE host SET seen = $2 WHERE id = $1", nullptr, {host, now}) ? host : -1;
}

void read_holder(const Result& r, NdaHolder* h)
{
    h->host = r.col(0, 0);
    h->group = int32_t(r.col(0, 1));
    h->ip = nip(r.col(0, 2));
    h->via_ip = nip(r.col(0, 3));
    h->via_port = uint16_t(r.col(0, 4));
}

int claim_in(const NdaClaim& c, NdaHolder* holder)
{
    int64_t host = claimer_host(c.addrs, c.addr_ct, c.now);
    if (host < 0)
        return -1;
    for (int i = 0; i < c.addr_ct; i++)
        if (!exec("DELETE FROM name WHERE name = $1 AND host <> $2 AND ip = $3", c.name, {host, hip(c.addrs[i])}))
            return -1;
    char sql[256];
    snprintf(sql, sizeof sql, "%s WHERE name = $1 AND host <> $2 ORDER BY grp, seen DESC, seq DESC LIMIT 1",
             HOLDER_COLS);
    Result r;
    run(r, sql, c.name, {host});
    if (!r.ok())
        return -1;
    if (r.rows() > 0) {
        NdaHolder h{};
        read_holder(r, &h);
        if (h.group == 0 || c.group == 0) {
            *holder = h;
            return ST_HELD;
        }
    }
    return exec(PUT_NAME, c.name,
                {host, c.group != 0 ? 1 : 0, hip(c.addrs[0]), hip(c.via_ip), int64_t(c.via_port), c.now})
               ? 0
               : -1;
}

int pg_claim(const NdaClaim& c, NdaHolder* holder)
{
    return in_txn([&] { return claim_in(c, holder); });
}

int pg_replace(const NdaClaim& c, const NdaHolder& old, NdaHolder* holder)
{
    return in_txn([&] {
        if (!exec("DELETE FROM name WHERE name = $1 AND host = $2", c.name, {old.host}))
            return -1;
        return claim_in(c, holder);
    });
}

int pg_query(const uint8_t* name, NdaHolder* out)
{
    char sql[256];
    snprintf(sql, sizeof sql, "%s WHERE name = $1 ORDER BY grp, seen DESC, seq DESC LIMIT 1", HOLDER_COLS);
    int found = 0;
    int r = in_txn([&] {
        Result res;
        run(res, sql, name, {});
        if (!res.ok())
            return -1;
        found = res.rows() > 0;
        if (found)
            read_holder(res, out);
        return 0;
    });
    return r < 0 ? -1 : found;
}

int pg_remove(const uint8_t* name, const uint32_t* addrs, int n)
{
    return in_txn([&] {
        for (int i = 0; i < n; i++)
            if (!exec("DELETE FROM name WHERE name = $1 AND host = (SELECT host FROM addr WHERE ip = $2)", name,
                      {hip(addrs[i])}))
                return -1;
        return 0;
    });
}

int drop_host(int64_t host)
{
    return exec("DELETE FROM name WHERE host = $1", nullptr, {host}) &&
                   exec("DELETE FROM addr WHERE host = $1", nullptr, {host}) &&
                   exec("DELETE FROM host WHERE id = $1", nullptr, {host})
               ? 0
               : -1;
}

int pg_purge(uint32_t ip)
{
    return in_txn([&] {
        int64_t host = host_of(ip);
        return host < 0 || (host > 0 && drop_host(host) < 0) ? -1 : 0;
    });
}

int split_one(uint32_t ip, int64_t now)
{
    int64_t host = host_of(ip);
    if (host < 0)
        return -1;
    if (host == 0) {
        int64_t own = new_host(now);
        return own < 0 || !add_addr(ip, own) ? -1 : 0;
    }
    Result r;
    run(r, "SELECT count(*) FROM addr WHERE host = $1", nullptr, {host});
    if (!r.ok())
        return -1;
    if (r.col(0, 0) <= 1)
        return 0;
    int64_t own = new_host(now);
    return own < 0 || !exec("UPDATE addr SET host = $2 WHERE ip = $1", nullptr, {hip(ip), own}) ? -1 : 0;
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
            if (!add_addr(addrs[i], target))
                return -1;
        } else if (other != target) {
            if (!exec("INSERT INTO name(name, host, grp, ip, via_ip, via_port, seen)"
                      " SELECT name, $2, grp, ip, via_ip, via_port, seen FROM name WHERE host = $1"
                      " ON CONFLICT (name, host) DO UPDATE SET grp = EXCLUDED.grp, ip = EXCLUDED.ip,"
                      " via_ip = EXCLUDED.via_ip, via_port = EXCLUDED.via_port, seen = EXCLUDED.seen",
                      nullptr, {other, target}) ||
                !exec("UPDATE addr SET host = $2 WHERE host = $1", nullptr, {other, target}) || drop_host(other) < 0)
                return -1;
        }
    }
    return exec("UPDATE host SET seen = $2 WHERE id = $1", nullptr, {target, now}) ? 0 : -1;
}

int pg_equiv(const uint32_t* addrs, int n, int64_t now)
{
    if (n < 1)
        return 0;
    return in_txn([&] { return n == 1 ? split_one(addrs[0], now) : join(addrs, n, now); });
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

// Each query is one statement on the server already.
void pg_burst(bool) {}

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
    "postgresql", pg_open, pg_open_read, pg_close, pg_claim, pg_replace, pg_query, pg_burst, pg_remove, pg_purge, pg_equiv, pg_list, pg_error,
};
