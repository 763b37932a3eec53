// halyardctl: asks the local name server to add, delete, check, list and
// look up NetBIOS names, for a station's adapter status and for settings.

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/nsclient.h"
#include "nversion.h"
#include "shr/uniinet.h"
#include "src/confcheck.h"
#include "src/namelogin.h"
#include "src/stats.h"

namespace {

// Exit statuses.
constexpr int EX_OKAY = 0;
constexpr int EX_REFUSED = 1;      // a refusal or not-found status
constexpr int EX_USAGE_ERR = 2;    // bad command line
constexpr int EX_UNREACHED = 3;    // the server could not be reached or answered badly

const char* const help_text =
    "NAME\n"
    "    halyardctl - ask the local NetBIOS name server\n"
    "\n"
    "SYNOPSIS\n"
    "    halyardctl [--json] [--dir DIR] [--timeout SECONDS] COMMAND [ARGUMENTS]\n"
    "    halyardctl [--json | --prometheus] [--dir DIR] [--timeout SECONDS] stats\n"
    "    halyardctl --help | --version\n"
    "\n"
    "DESCRIPTION\n"
    "    halyardctl sends one request to the name server through its FIFOs and\n"
    "    prints the answer. Requests of several clients are kept apart by a lock\n"
    "    on the lock file; answers are matched to the request by its xid.\n"
    "\n"
    "    A NAME is written NAME<hh>: up to 15 characters (padded with blanks) and\n"
    "    the type byte in two hexadecimal digits, <00> when left out, for example\n"
    "    'FILESERV<20>' (quoted: the shell takes < and > for redirections).\n"
    "    Characters are taken as typed (no case folding), and other stations'\n"
    "    tools ask in upper case, so write names in upper case; \\xhh gives any\n"
    "    byte, \\\\ and \\< a backslash and a '<'. A lone * is the wildcard\n"
    "    name of an adapter-status request.\n"
    "\n"
    "COMMANDS\n"
    "    add NAME [--group]   add a unique (or group) name and start its claim\n"
    "    del NAME             release a name and remove it from the local table\n"
    "    check NAME           show a local name and its flags\n"
    "    list                 list all local names\n"
    "    lookup NAME          find the address of the owner of a name (local\n"
    "                         table, name directory agents, then the network)\n"
    "    status ADDRESS [NAME]\n"
    "                         adapter status of the station at the IPv4 ADDRESS,\n"
    "                         asked for NAME (default *)\n"
    "    scope                show the NetBIOS scope\n"
    "    type                 show the packet format number and the session port\n"
    "    reinit               ask the name server to re-initialise\n"
    "    enstable             write the name directory table to the trace file\n"
    "    stats                the name server's counters since its start: name\n"
    "                         queries, node-status requests, lookups by what\n"
    "                         answered them, claims, conflicts, releases, agent\n"
    "                         commands, client requests; beyond the protocol's\n"
    "                         operations (an older server does not know it)\n"
    "    check-config [FILE]  read the configuration file (default\n"
    "                         /etc/opt/KORRbase/config.vz) as the name server\n"
    "                         does, print every problem as FILE:LINE: what was\n"
    "                         found: what was expected, and the settings that\n"
    "                         result; needs no running server\n"
    "\n"
    "OPTIONS\n"
    "    --json               print the answer as one JSON object\n"
    "    --prometheus         with stats: the Prometheus text format, for\n"
    "                         node_exporter's textfile collector\n"
    "    --dir DIR            directory of the FIFOs and the lock file\n"
    "                         (default /var/opt/KORRbase)\n"
    "    --timeout SECONDS    longest wait for the lock and for each answer\n"
    "                         message, 1 to 3600 (default 15)\n"
    "    --group              with add: a group name\n"
    "    -h, --help           show this text\n"
    "    --version            show the version of Halyard\n"
    "\n"
    "EXIT STATUS\n"
    "    0  success\n"
    "    1  refused or not found, or check-config found errors; the reason\n"
    "       is printed\n"
    "    2  usage error\n"
    "    3  the name server cannot be reached, does not answer, or answered\n"
    "       badly; the message says which: not running, running without its\n"
    "       request relay (restarted within a second), the lock held by\n"
    "       another process, or no answer within the time-out\n"
    "\n"
    "FILES\n"
    "    /var/opt/KORRbase/ns_serverfifo   requests to the name server\n"
    "    /var/opt/KORRbase/ns_clientfifo   answers from the name server\n"
    "    /var/opt/KORRbase/lock.name       lock held during one exchange\n"
    "\n"
    "EXAMPLES\n"
    "    halyardctl add 'FILESERV<20>'\n"
    "    halyardctl add 'WORKGRP<1E>' --group\n"
    "    halyardctl --json list\n"
    "    halyardctl lookup 'PRINTSRV<20>'\n"
    "    halyardctl status 10.0.0.7\n"
    "    halyardctl --timeout 5 check 'FILESERV<20>'\n"
    "    halyardctl --prometheus stats > halyard.prom\n"
    "    halyardctl check-config /etc/opt/KORRbase/config.vz\n";

struct Opts {
    bool json = false;
    bool prometheus = false;
    bool group = false;
    const char* dir = nullptr;
    int timeout = NSC_TIMEOUT;
    const char* cmd = nullptr;
    const char* args[3] = {};
    int argc = 0;
};

[[gnu::format(printf, 1, 2)]] int usage_error(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("halyardctl: ", stderr);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fputs("\nTry 'halyardctl --help'.\n", stderr);
    return EX_USAGE_ERR;
}

// Writes s as a JSON string with its quotes.
void json_str(const char* s)
{
    putchar('"');
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(s); *p != '\0'; p++) {
        if (*p == '"' || *p == '\\')
            printf("\\%c", *p);
        else if (*p < 0x20 || *p >= 0x7f)
            printf("\\u%04x", *p);
        else
            putchar(*p);
    }
    putchar('"');
}

const char* name_text(const uint8_t* name)
{
    static char t[NSC_NAMETEXT];
    nsc_nbtostr(t, sizeof t, name);
    return t;
}

// The exchange failed: the server was not reached or answered badly.
int unreached(const Opts& o, const NscConn& c, int rc)
{
    if (o.json) {
        printf("{\"error\":");
        json_str(c.why);
        printf("}\n");
    }
    fprintf(stderr, "halyardctl: %s\n", c.why);
    return rc == NSC_UNKNOWNOP ? EX_REFUSED : EX_UNREACHED;
}

// A status word other than 0: its meaning and exit status 1.
int refused(const Opts& o, uint32_t op, int32_t status)
{
    const char* words = nsc_strstatus(op, status);
    if (o.json) {
        printf("{\"status\":%d,\"message\":", status);
        json_str(words);
        printf("}\n");
    }
    fprintf(stderr, "halyardctl: %s: %s (status %d)\n", o.cmd, words, status);
    return EX_REFUSED;
}

int get_name(const char* text, uint8_t* name)
{
    if (nsc_strtonb(name, text) != 0)
        return usage_error("not a NetBIOS name: '%s' (NAME<hh>, at most 15 characters)", text);
    return 0;
}

const char* kind(uint32_t flags)
{
    return (flags & NSC_GROUP) != 0 ? "group" : "unique";
}

int cmd_add(const Opts& o, NscConn* c)
{
    uint8_t name[16];
    if (get_name(o.args[0], name) != 0)
        return EX_USAGE_ERR;
    int32_t status = 0;
    int rc = nsc_addname(c, name, o.group ? NSC_GROUP : 0, &status);
    if (rc != 0)
        return unreached(o, *c, rc);
    if (status != NSC_OK)
        return refused(o, NS_ADDNAME, status);
    if (o.json) {
        printf("{\"status\":0,\"name\":");
        json_str(name_text(name));
        printf(",\"group\":%s}\n", o.group ? "true" : "false");
    } else {
        printf("%s: added as a %s name, claim started\n", name_text(name), o.group ? "group" : "unique");
    }
    return EX_OKAY;
}

int cmd_del(const Opts& o, NscConn* c)
{
    uint8_t name[16];
    if (get_name(o.args[0], name) != 0)
        return EX_USAGE_ERR;
    int32_t status = 0;
    int rc = nsc_delname(c, name, &status);
    if (rc != 0)
        return unreached(o, *c, rc);
    if (status != NSC_OK)
        return refused(o, NS_DELNAME, status);
    if (o.json) {
        printf("{\"status\":0,\"name\":");
        json_str(name_text(name));
        printf("}\n");
    } else {
        printf("%s: deleted\n", name_text(name));
    }
    return EX_OKAY;
}

int cmd_check(const Opts& o, NscConn* c)
{
    uint8_t name[16];
    if (get_name(o.args[0], name) != 0)
        return EX_USAGE_ERR;
    NscCheck ck;
    int rc = nsc_ckname(c, name, &ck);
    if (rc != 0)
        return unreached(o, *c, rc);
    if (ck.status != NSC_OK)
        return refused(o, NS_CKNAME, ck.status);
    if (o.json) {
        printf("{\"status\":0,\"name\":");
        json_str(name_text(ck.name));
        printf(",\"flags\":%u,\"group\":%s,\"pending\":%s}\n", ck.flags,
               (ck.flags & NSC_GROUP) != 0 ? "true" : "false", (ck.flags & NSC_PENDING) != 0 ? "true" : "false");
    } else {
        printf("%s: %s%s (flags 0x%x)\n", name_text(ck.name), kind(ck.flags),
               (ck.flags & NSC_PENDING) != 0 ? ", claim pending" : "", ck.flags);
    }
    return EX_OKAY;
}

int cmd_list(const Opts& o, NscConn* c)
{
    NscList l;
    int rc = nsc_listname(c, &l);
    if (rc != 0)
        return unreached(o, *c, rc);
    if (l.status != NSC_OK)
        return refused(o, NS_LISTNAME, l.status);
    if (o.json) {
        printf("{\"status\":0,\"total\":%d,\"names\":[", l.total);
        for (size_t i = 0; i < l.names.size(); i++) {
            const NscEntry& e = l.names[i];
            printf("%s{\"name\":", i > 0 ? "," : "");
            json_str(name_text(e.name));
            printf(",\"flags\":%u,\"group\":%s,\"pending\":%s}", e.flags, (e.flags & NSC_GROUP) != 0 ? "true" : "false",
                   (e.flags & NSC_PENDING) != 0 ? "true" : "false");
        }
        printf("]}\n");
        return EX_OKAY;
    }
    printf("%-24s %-7s %s\n", "NAME", "KIND", "STATE");
    for (const NscEntry& e : l.names)
        printf("%-24s %-7s %s\n", name_text(e.name), kind(e.flags), (e.flags & NSC_PENDING) != 0 ? "claiming" : "claimed");
    printf("%zu of %d name%s\n", l.names.size(), l.total, l.total == 1 ? "" : "s");
    return EX_OKAY;
}

void addr_text(const UniAddr& ua, char* out, size_t size)
{
    uint32_t ip = 0;
    if (uatoian(&ip, nullptr, &ua) == 0) {
        in_addr a{ip};
        inet_ntop(AF_INET, &a, out, socklen_t(size));
    } else {
        snprintf(out, size, "%s", uni_ntoa(&ua));
    }
}

int cmd_lookup(const Opts& o, NscConn* c)
{
    uint8_t name[16];
    if (get_name(o.args[0], name) != 0)
        return EX_USAGE_ERR;
    NscLookup lu;
    int rc = nsc_lookup(c, name, &lu);
    if (rc != 0)
        return unreached(o, *c, rc);
    if (lu.status != NSC_OK)
        return refused(o, NS_LOOKUP, lu.status);
    char addr[UNI_TEXTSIZE];
    addr_text(lu.addr, addr, sizeof addr);
    if (o.json) {
        printf("{\"status\":0,\"name\":");
        json_str(name_text(name));
        printf(",\"address\":");
        json_str(addr);
        printf(",\"group\":%s}\n", lu.group != 0 ? "true" : "false");
    } else {
        printf("%s: %s (%s)\n", name_text(name), addr, lu.group != 0 ? "group" : "unique");
    }
    return EX_OKAY;
}

void print_block_json(const NscStatBlock& b)
{
    printf("\"unit_id\":\"%02x:%02x:%02x:%02x:%02x:%02x\"", b.unit_id[0], b.unit_id[1], b.unit_id[2], b.unit_id[3],
           b.unit_id[4], b.unit_id[5]);
    printf(",\"jumpers\":%u,\"test_result\":%u,\"version\":%u,\"period\":%u,\"crcs\":%u,\"align_errors\":%u"
           ",\"collisions\":%u,\"send_aborts\":%u,\"good_sends\":%u,\"good_receives\":%u,\"retransmits\":%u"
           ",\"no_resources\":%u,\"free_ncbs\":%u,\"total_ncbs\":%u,\"max_total_ncbs\":%u,\"pending_sessions\":%u"
           ",\"max_pending_sessions\":%u,\"max_sessions\":%u,\"session_data_size\":%u",
           b.jumpers, b.test_result, b.version, b.period, b.crcs, b.align_errors, b.collisions, b.send_aborts,
           b.good_sends, b.good_receives, b.retransmits, b.no_resources, b.free_ncbs, b.total_ncbs, b.max_total_ncbs,
           b.pending_sessions, b.max_pending_sessions, b.max_sessions, b.session_size);
}

int cmd_status(const Opts& o, NscConn* c)
{
    in_addr ip;
    if (inet_pton(AF_INET, o.args[0], &ip) != 1 || ip.s_addr == 0)
        return usage_error("not an IPv4 address: '%s'", o.args[0]);
    uint8_t name[16];
    if (get_name(o.argc > 1 ? o.args[1] : "*", name) != 0)
        return EX_USAGE_ERR;
    static NscAdapStat as;
    int rc = nsc_adapstat(c, name, ip.s_addr, &as);
    if (rc != 0)
        return unreached(o, *c, rc);
    if (as.status != NSC_OK)
        return refused(o, NS_ADAPSTAT, as.status);
    const NscStatBlock& b = as.block;
    if (o.json) {
        printf("{\"status\":0,\"address\":");
        json_str(o.args[0]);
        printf(",");
        print_block_json(b);
        printf(",\"names\":[");
        for (int i = 0; i < as.count; i++) {
            printf("%s{\"name\":", i > 0 ? "," : "");
            json_str(name_text(as.names[i].name));
            printf(",\"flags\":%u,\"group\":%s,\"permanent\":%s}", as.names[i].flags,
                   (as.names[i].flags & NSC_GROUP) != 0 ? "true" : "false",
                   (as.names[i].flags & NSC_PERMANENT) != 0 ? "true" : "false");
        }
        printf("]}\n");
        return EX_OKAY;
    }
    printf("adapter status of %s\n", o.args[0]);
    printf("%-24s %-7s %s\n", "NAME", "KIND", "");
    for (int i = 0; i < as.count; i++)
        printf("%-24s %-7s %s\n", name_text(as.names[i].name), kind(as.names[i].flags),
               (as.names[i].flags & NSC_PERMANENT) != 0 ? "permanent" : "");
    printf("unit id %02x:%02x:%02x:%02x:%02x:%02x, jumpers %u, test result %u, version %u, period %u\n",
           b.unit_id[0], b.unit_id[1], b.unit_id[2], b.unit_id[3], b.unit_id[4], b.unit_id[5], b.jumpers,
           b.test_result, b.version, b.period);
    printf("good sends %u, good receives %u, retransmits %u, CRCs %u, alignment errors %u, collisions %u, "
           "send aborts %u\n",
           b.good_sends, b.good_receives, b.retransmits, b.crcs, b.align_errors, b.collisions, b.send_aborts);
    printf("no resources %u, command blocks %u free of %u (max %u), sessions %u pending (max %u), "
           "max sessions %u, session data size %u\n",
           b.no_resources, b.free_ncbs, b.total_ncbs, b.max_total_ncbs, b.pending_sessions, b.max_pending_sessions,
           b.max_sessions, b.session_size);
    return EX_OKAY;
}

int cmd_scope(const Opts& o, NscConn* c)
{
    char scope[256];
    int rc = nsc_nbscope(c, scope, sizeof scope);
    if (rc != 0)
        return unreached(o, *c, rc);
    if (o.json) {
        printf("{\"scope\":");
        json_str(scope);
        printf("}\n");
    } else {
        printf("%s\n", scope[0] != '\0' ? scope : "(no scope)");
    }
    return EX_OKAY;
}

int cmd_type(const Opts& o, NscConn* c)
{
    NscType t;
    int rc = nsc_nbtype(c, &t);
    if (rc != 0)
        return unreached(o, *c, rc);
    if (o.json)
        printf("{\"nb_type\":%d,\"ssport\":%u}\n", t.nb_type, t.ssport);
    else
        printf("packet format %d, session port %u\n", t.nb_type, t.ssport);
    return EX_OKAY;
}

int cmd_simple(const Opts& o, NscConn* c, uint32_t op, const char* done)
{
    int32_t status = 0;
    int rc = op == NS_INIT ? nsc_reinit(c, &status) : nsc_enstable(c, &status);
    if (rc != 0)
        return unreached(o, *c, rc);
    if (status != NSC_OK)
        return refused(o, op, status);
    if (o.json)
        printf("{\"status\":0}\n");
    else
        printf("%s\n", done);
    return EX_OKAY;
}

int cmd_reinit(const Opts& o, NscConn* c)
{
    return cmd_simple(o, c, NS_INIT, "re-initialisation requested");
}

int cmd_enstable(const Opts& o, NscConn* c)
{
    return cmd_simple(o, c, NS_ENSTABLE, "name directory table written to the trace file");
}

int cmd_stats(const Opts& o, NscConn* c)
{
    static NscStats st;
    int rc = nsc_stats(c, &st);
    if (rc != 0)
        return unreached(o, *c, rc);
    if (st.status != NSC_OK)
        return refused(o, NS_STATS, st.status);
    CtFormat format = o.json ? CtFormat::json : o.prometheus ? CtFormat::prometheus : CtFormat::text;
    ct_print(stdout, st.counters, format, "halyard_", stat_defs(), ST_COUNT);
    return EX_OKAY;
}

struct Command {
    const char* name;
    int min_args;
    int max_args;
    int (*run)(const Opts& o, NscConn* c);
};

constexpr Command commands[] = {
    {"add", 1, 1, cmd_add},         {"del", 1, 1, cmd_del},       {"check", 1, 1, cmd_check},
    {"list", 0, 0, cmd_list},       {"lookup", 1, 1, cmd_lookup}, {"status", 1, 2, cmd_status},
    {"scope", 0, 0, cmd_scope},     {"type", 0, 0, cmd_type},     {"reinit", 0, 0, cmd_reinit},
    {"enstable", 0, 0, cmd_enstable}, {"stats", 0, 0, cmd_stats},
};

// Options may stand anywhere; "--" ends them. 0, or an exit status.
int parse_args(int argc, char** argv, Opts* o)
{
    bool opts_done = false;
    for (int i = 1; i < argc; i++) {
        const char* a = argv[i];
        if (!opts_done && a[0] == '-' && a[1] != '\0') {
            const char* value = nullptr;
            if (strcmp(a, "--") == 0) {
                opts_done = true;
            } else if (strcmp(a, "--json") == 0) {
                o->json = true;
            } else if (strcmp(a, "--prometheus") == 0) {
                o->prometheus = true;
            } else if (strcmp(a, "--group") == 0) {
                o->group = true;
            } else if (strcmp(a, "-h") == 0 || strcmp(a, "--help") == 0) {
                fputs(help_text, stdout);
                exit(EX_OKAY);
            } else if (strcmp(a, "--version") == 0) {
                printf("halyardctl (Halyard) %s %s\n", smbv_string, smbv_variant);
                exit(EX_OKAY);
            } else if (strcmp(a, "--dir") == 0 || strcmp(a, "--timeout") == 0) {
                if (i + 1 >= argc)
                    return usage_error("option %s needs a value", a);
                value = argv[++i];
            } else if (strncmp(a, "--dir=", 6) == 0 || strncmp(a, "--timeout=", 10) == 0) {
                value = strchr(a, '=') + 1;
            } else {
                return usage_error("unknown option '%s'", a);
            }
            if (value == nullptr)
                continue;
            if (strncmp(a, "--dir", 5) == 0) {
                if (value[0] == '\0' || strlen(value) > 200)
                    return usage_error("bad directory '%s'", value);
                o->dir = value;
            } else {
                char* end = nullptr;
                errno = 0;
                long t = strtol(value, &end, 10);
                if (errno != 0 || end == value || *end != '\0' || t < 1 || t > 3600)
                    return usage_error("bad timeout '%s' (seconds, 1 to 3600)", value);
                o->timeout = int(t);
            }
        } else if (o->cmd == nullptr) {
            o->cmd = a;
        } else {
            if (o->argc == 3)
                return usage_error("too many arguments");
            o->args[o->argc++] = a;
        }
    }
    return 0;
}

// The configuration check reads a file and talks to no server; exit 1 when
// the file has errors.
int check_config(const Opts& o)
{
    if (o.argc > 1)
        return usage_error("check-config: too many arguments");
    if (o.json || o.group || o.prometheus)
        return usage_error("check-config takes no --json, --prometheus or --group");
    return conf_check(o.argc == 1 ? o.args[0] : CONFIG_VZ_PATH, stdout, "", true) == 0 ? EX_OKAY : EX_REFUSED;
}

}  // namespace

int main(int argc, char** argv)
{
    Opts o;
    int rc = parse_args(argc, argv, &o);
    if (rc != 0)
        return rc;
    if (o.cmd == nullptr)
        return usage_error("no command given");
    if (strcmp(o.cmd, "check-config") == 0)
        return check_config(o);
    for (const Command& cmd : commands) {
        if (strcmp(cmd.name, o.cmd) != 0)
            continue;
        if (o.argc < cmd.min_args)
            return usage_error("%s: missing argument", o.cmd);
        if (o.argc > cmd.max_args)
            return usage_error("%s: too many arguments", o.cmd);
        if (o.group && cmd.run != cmd_add)
            return usage_error("--group belongs to add");
        if (o.prometheus && (cmd.run != cmd_stats || o.json))
            return usage_error("--prometheus belongs to stats, without --json");
        NscConn conn;
        nsc_setup(&conn, o.dir, o.timeout);
        return cmd.run(o, &conn);
    }
    return usage_error("unknown command '%s'", o.cmd);
}
