#include "src/namelogin.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <sys/stat.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include "misc/enskey.h"
#include "nmtrace.h"
#include "shr/logging.h"
#include "shr/uniconv.h"
#include "shr/vzparse.h"
#include "shr/vzstrtoul.h"
#include "shr/vzstrdup.h"
#include "src/maininit.h"

int transport_tcpip = 0;
int transport_vznbu = 0;
if_entry* my_addr = nullptr;
int my_addr_ct = 0;
uint16_t nmport = 0, dgport = 0, ssport = 0, ndport = 0, ensport = 0;
int ens_client = 0;
uint32_t nda_addr[MAX_NDA] = {};
int nda_ct = 0;
uint32_t broadcast_addr = 0;
char nb_scope[256] = "";
int client_gid = -1;
int wildcard_status = 0;
uint32_t wins_addr[MAX_WINS] = {};
int wins_ct = 0;
char nda_key[256] = "";
int nda_key_bad = 0;
if_select if_selects[MAX_IF_SELECT] = {};
int if_select_ct = 0;
cfg_name cfg_names[MAX_CFG_NAMES] = {};
int cfg_name_ct = 0;

namespace {

// Message numbers of set LOG_SET.
constexpr int MSG_ERRLINE = 173;
constexpr int MSG_NOFILE = 174;
constexpr int MSG_ONOFF = 175;
constexpr int MSG_ADDR_TWICE = 176;
constexpr int MSG_BCAST_TWICE = 177;
constexpr int MSG_ENSPORT_TWICE = 178;
constexpr int MSG_NAMEPORT_TWICE = 179;
constexpr int MSG_NDPORT_TWICE = 180;
constexpr int MSG_MASK_TWICE = 181;
constexpr int MSG_SESSPORT_TWICE = 182;
constexpr int MSG_MANY_IF = 183;
constexpr int MSG_IGNORING = 184;
constexpr int MSG_MANY_NDA = 190;
constexpr int MSG_WANT_IP = 193;
constexpr int MSG_WANT_FORM = 194;
constexpr int MSG_WANT_BCAST = 195;
constexpr int MSG_WANT_MASK = 196;
constexpr int MSG_WANT_PORT = 197;
constexpr int MSG_PARSE = 199;
constexpr int MSG_PARSE_TEXT = 200;
constexpr int MSG_WANT_SCOPE = 202;
constexpr int MSG_IF_NOMEM = 204;
constexpr int MSG_IF_NOADDR = 205;
constexpr int MSG_WANT_TRANSPORT = 206;
constexpr int MSG_EMPTY = 532;
constexpr int MSG_WANT_GROUP = 542;
constexpr int MSG_KEY = 567;
constexpr int MSG_WANT_SELECT = 560;
constexpr int MSG_WANT_NBNAME = 561;
constexpr int MSG_AT_MOST = 562;
constexpr int MSG_WANT_WINS = 580;
constexpr int MSG_WINS_TWICE = 581;

// Flags of a working interface row.
constexpr uint32_t IF_ADDR = 1;
constexpr uint32_t IF_BCAST = 2;
constexpr uint32_t IF_MASK = 4;

struct IfRow {
    uint32_t flags;
    char* name;     // heap copy of the section head's third word
    if_entry ent;
    int line;       // of the first section head, for a check's remarks
};

// The interface sections as they are read; only alive during namelogin.
std::array<IfRow, MAX_INTERFACES> if_rows;
int if_row_ct = 0;
int8_t if_cur = -1;  // -1: the current section is not kept

// The result table; my_addr points here once a file was read.
std::array<if_entry, MAX_INTERFACES> addr_table;

// "I(" + word + ")" must fit the 128-character limit of the internet parser.
constexpr size_t SYN_IP_MAXWORD = 123;

cfg_note_fn note_fn = nullptr;
constexpr size_t NOTE_SIZE = 256;  // a remark's own text; a longer one is cut

// Tells a check about the directive being handled: its line as written.
void note(bool error, int line, const char* expected)
{
    if (note_fn != nullptr)
        note_fn(error, line, vz_par_saved(), expected);
}

// Tells a check about something that is not the current directive.
void note_found(bool error, int line, const char* found, const char* expected)
{
    if (note_fn != nullptr)
        note_fn(error, line, found, expected);
}

// A refused directive, told every way at once: the trace, the log's pair
// (the line, then the detail msg with its arguments) and the check's note.
[[gnu::format(printf, 4, 5)]] void refuse(int line, const char* expected, int msg, const char* detail, ...)
{
    TRACE(err, 2, "namelogin: line %d refused\n", line);
    log_catmsg(LOG_SET, MSG_ERRLINE, "%s: error in config file at line %d", prog, line);
    va_list ap;
    va_start(ap, detail);
    log_vcatmsg(LOG_SET, msg, detail, ap);
    va_end(ap);
    note(true, line, expected);
}

// The range a port can have; the log keeps the designed silence above it
// (the low 16 bits are used), but a check calls it an error.
constexpr int PORT_MAX = 65535;
constexpr const char* WANT_PORT = "a port number from 1 to 65535";

void check_port_range(int v, int line)
{
    if (v <= PORT_MAX || note_fn == nullptr)
        return;
    char what[96];
    snprintf(what, sizeof what, "%s (the daemon would use %d)", WANT_PORT, v & PORT_MAX);
    note(true, line, what);
}

// Reads the file with every carriage return that ends a line left out, so
// that a file written with CRLF line ends reads exactly as with LF; a CR
// anywhere else stays a word character. Only rewinding is supported, which
// is all the three passes need.
struct CrlfFile {
    FILE* f;
    int dropped;  // CRs left out, counted over the first pass
    bool counting;
};

ssize_t crlf_read(void* cookie, char* buf, size_t size)
{
    auto* c = static_cast<CrlfFile*>(cookie);
    size_t n = 0;
    while (n < size) {
        int ch = getc(c->f);
        if (ch == EOF)
            break;
        if (ch == '\r') {
            int next = getc(c->f);
            if (next == '\n') {
                ch = '\n';
                if (c->counting)
                    c->dropped++;
            } else if (next != EOF) {
                ungetc(next, c->f);
            }
        }
        buf[n++] = char(ch);
    }
    return ssize_t(n);
}

int crlf_seek(void* cookie, off64_t* pos, int whence)
{
    auto* c = static_cast<CrlfFile*>(cookie);
    if (*pos != 0 || whence != SEEK_SET)
        return -1;
    rewind(c->f);
    c->counting = false;
    return 0;
}

int crlf_close(void* cookie)
{
    return fclose(static_cast<CrlfFile*>(cookie)->f);
}

// strtol over a whole word: at least one character read, nothing left, no
// overflow. A value above INT_MAX is refused like an overflow, since the
// result is an int; -1 for that, a negative value or a malformed word.
int whole_number(const char* word, int base)
{
    if (word == nullptr || word[0] == '\0')
        return -1;
    char* end = nullptr;
    errno = 0;
    long v = strtol(word, &end, base);
    if (errno != 0 || end == word || *end != '\0' || v < 0 || v > INT_MAX)
        return -1;
    return int(v);
}

bool is_letter(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_digit(unsigned char c)
{
    return c >= '0' && c <= '9';
}

unsigned char fold_upper(unsigned char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<unsigned char>(c - 'a' + 'A') : c;
}

// 0 for the word zero, 1 for the word one, else -1.
int one_of(const char* word, const char* zero, const char* one)
{
    return strcmp(word, zero) == 0 ? 0 : strcmp(word, one) == 0 ? 1 : -1;
}

// A port directive: one positive number, set once; the port keeps the low
// 16 bits of its value, no upper bound is checked.
struct PortRule {
    uint16_t& port;
    const char* directive;
    const char* entry;   // the handler's name, for the trace
    int twice_msg;
    const char* twice;   // the log's detail when the port is already set
};

int set_port(const PortRule& r, int argc, char** argv, int line)
{
    int v = argc == 2 ? syn_pos(argv[1]) : -1;
    if (v < 0) {
        refuse(line, WANT_PORT, MSG_WANT_PORT, "    expecting positive port number");
    } else if (r.port != 0) {
        char once[64];
        snprintf(once, sizeof once, "one %s (the first is kept)", r.directive);
        refuse(line, once, r.twice_msg, "%s", r.twice);
    } else {
        r.port = static_cast<uint16_t>(v);
        check_port_range(v, line);
        TRACE(proc, 3, "%s: %d\n", r.entry, v);
    }
    return 0;
}

// An on/off directive.
int set_onoff(int& out, const char* entry, int argc, char** argv, int line)
{
    int v = argc == 2 ? syn_onoff(argv[1]) : -1;
    if (v < 0) {
        refuse(line, "on or off", MSG_ONOFF, "    expecting on/off");
        return 0;
    }
    out = v;
    TRACE(proc, 3, "%s: %d\n", entry, v);
    return 0;
}

// The row that interface directives fill, null in a section beyond the table.
IfRow* current_row()
{
    return if_cur >= 0 && if_cur < if_row_ct ? &if_rows[static_cast<size_t>(if_cur)] : nullptr;
}

// A field of the current interface section: one address, set once.
struct IfField {
    uint32_t flag;
    uint32_t if_entry::*field;
    int want_msg;
    const char* want;        // the log's detail for a bad value
    const char* want_note;
    int twice_msg;
    const char* twice;       // the log's detail when the field is already set
    const char* twice_note;
};

constexpr IfField ADDRESS_FIELD{IF_ADDR, &if_entry::addr,
    MSG_WANT_IP, "    expecting IP address", "one IPv4 address, such as 10.88.0.1",
    MSG_ADDR_TWICE, "    address for interface already specified",
    "one address per interface (the first is kept)"};
constexpr IfField BROADCAST_FIELD{IF_BCAST, &if_entry::bcast,
    MSG_WANT_BCAST, "    expecting IP broadcast address",
    "one IPv4 broadcast address, such as 10.88.0.255",
    MSG_BCAST_TWICE, "    broadcast address for interface already specified",
    "one broadcast address per interface (the first is kept)"};
constexpr IfField NETMASK_FIELD{IF_MASK, &if_entry::mask,
    MSG_WANT_MASK, "    expecting IP netmask", "one IPv4 netmask, such as 255.255.255.0",
    MSG_MASK_TWICE, "    netmask for interface already specified",
    "one netmask per interface (the first is kept)"};

int set_if_field(const IfField& f, int argc, char** argv, int line)
{
    IfRow* row = current_row();
    uint32_t v = 0;
    if (row == nullptr)
        return 0;
    if (argc != 2 || syn_ip(argv[1], &v) != 0) {
        refuse(line, f.want_note, f.want_msg, "%s", f.want);
    } else if (row->flags & f.flag) {
        refuse(line, f.twice_note, f.twice_msg, "%s", f.twice);
    } else {
        row->ent.*f.field = v;
        row->flags |= f.flag;
    }
    return 0;
}

void clear_rows()
{
    for (int i = 0; i < if_row_ct; i++) {
        free(if_rows[static_cast<size_t>(i)].name);
        if_rows[static_cast<size_t>(i)] = IfRow{};
    }
    if_row_ct = 0;
    if_cur = -1;
}

int skip_directive(int, char**, int, char**, int, const char*)
{
    return 0;
}
// For the passes that only look for section heads.
const vz_par_tabent skip_table[] = {
    {"", skip_directive},
    {nullptr, nullptr},
};

// A check hears of the sections that the missing transport leaves unread.
int unread_section(int argc, char** argv, int line, const char*)
{
    // A head selected here has two or three words.
    char head[NOTE_SIZE];
    snprintf(head, sizeof head, "[%s %s%s%s]", argv[0], argv[1], argc > 2 ? " " : "", argc > 2 ? argv[2] : "");
    note_found(false, line, head,
               "not read: [realm NB] has no 'transport tcpip'");
    return 0;
}

// A check hears of the section heads that none of the passes selects (a
// misspelt head, or a section of another program): the daemon skips them.
void note_unread_heads(FILE* f)
{
    rewind(f);
    vz_par_init(f);
    int argc = 0;
    char** argv = nullptr;
    char* comment = nullptr;
    int c;
    while ((c = vz_par_cons(f, &argc, &argv, &comment)) != VZ_PAR_EOF) {
        if (c != VZ_PAR_TAG)
            continue;
        bool realm = argc == 2 && strcmp(argv[0], "realm") == 0 && strcmp(argv[1], "NB") == 0;
        bool iface = argc == 3 && strcmp(argv[0], "interface") == 0 && strcmp(argv[1], "tcpip") == 0;
        bool transport = argc == 2 && strcmp(argv[0], "transport") == 0 && strcmp(argv[1], "tcpip") == 0;
        if (!realm && !iface && !transport)
            note(false, vz_par_line(),
                 "not read: the name server reads [realm NB], [interface tcpip NAME] and [transport tcpip]");
    }
    vz_par_fini(f);
}

// An unknown directive in a read section is ignored; a check hears of it.
const char* known_directives(char** tag)
{
    if (tag == nullptr || tag[0] == nullptr)
        return "a known directive";
    if (strcmp(tag[0], "realm") == 0)
        return "ignored: [realm NB] knows 'transport tcpip' and 'transport vznbu'";
    if (strcmp(tag[0], "interface") == 0)
        return "ignored: an interface section knows address, broadcast and netmask";
    return "ignored: [transport tcpip] knows NB-interfaces, NB-name, NB-scope, NB-name-port, "
           "NB-session-port, NB-ens-port, NB-ensclient, NB-nd-addr, NB-nd-port, NB-nd-key, "
           "NB-wildcard-status, NB-wins-server and bcast-style";
}


// One selector of NB-interfaces: "all", NET/LEN or an interface name.
bool parse_select(const char* word, if_select* out)
{
    *out = if_select{};
    if (strcmp(word, "all") == 0)
        return true;
    const char* slash = strchr(word, '/');
    if (slash == nullptr) {
        size_t n = strlen(word);
        if (n == 0 || n >= sizeof out->name)
            return false;
        memcpy(out->name, word, n);
        return true;
    }
    char net[16];
    size_t n = size_t(slash - word);
    int len = whole_number(slash + 1, 10);
    if (n >= sizeof net || len < 0 || len > 32 || !is_digit(static_cast<unsigned char>(slash[1])))
        return false;
    memcpy(net, word, n);
    net[n] = '\0';
    in_addr a{};
    if (inet_pton(AF_INET, net, &a) != 1)
        return false;
    out->mask = len == 0 ? 0 : htonl(~uint32_t(0) << (32 - len));
    out->net = a.s_addr & out->mask;
    return true;
}

// NAME<hh> as a 16-byte name: %h is the host's name; letters are made upper
// case, as other stations ask for them. A name longer than 15 characters is
// refused, unless the host's name made it so: that one is cut.
bool parse_nbname(const char* word, uint8_t* out)
{
    size_t len = strlen(word);
    const char* lt = strrchr(word, '<');
    int hi = 0, lo = 0;
    if (len < 5 || lt == nullptr || lt == word || size_t(lt - word) + 4 != len || word[len - 1] != '>' ||
        (hi = vz_hexval(lt[1])) < 0 || (lo = vz_hexval(lt[2])) < 0)
        return false;
    char host[16];
    char text[64];
    size_t n = 0;
    bool expanded = false;
    for (const char* p = word; p < lt; p++) {
        if (p[0] == '%' && p[1] == 'h') {
            host_nbname(host);
            for (const char* h = host; *h != '\0' && n < sizeof text; h++)
                text[n++] = *h;
            expanded = true;
            p++;
            continue;
        }
        auto c = static_cast<unsigned char>(*p);
        if (c <= ' ' || c >= 0x7f || n >= sizeof text)
            return false;
        text[n++] = char(fold_upper(c));
    }
    if (n > 15 && !expanded)
        return false;
    n = n > 15 ? 15 : n;
    // "*" alone is the wildcard of a status request, not a name anyone holds.
    if (n == 0 || text[0] == '*')
        return false;
    memset(out, ' ', 15);
    memcpy(out, text, n);
    out[15] = uint8_t(hi << 4 | lo);
    return true;
}

// The three passes: which sections each reads and how.
const char* const realm_pattern[] = {"realm", "NB", nullptr};
const char* const interface_pattern[] = {"interface", "tcpip", "", nullptr};
const char* const transport_pattern[] = {"transport", "tcpip", nullptr};

const vz_par_tabent realm_table[] = {
    {"transport", do_transport},
    {"client-group", do_clientgroup},
    {"", do_dontcare},
    {nullptr, nullptr},
};
const vz_par_tabent interface_table[] = {
    {"address", do_address},
    {"broadcast", do_broadcast},
    {"netmask", do_netmask},
    {"", do_dontcare},
    {nullptr, nullptr},
};
const vz_par_tabent transport_table[] = {
    {"NB-scope", do_scope},
    {"NB-name-port", do_nameport},
    {"NB-session-port", do_sessport},
    {"NB-ens-port", do_ensport},
    {"NB-ensclient", do_ensclient},
    {"NB-nd-addr", do_ndaddr},
    {"NB-nd-port", do_ndport},
    {"NB-nd-key", do_ndkey},
    {"bcast-style", do_bcaststyle},
    {"NB-wildcard-status", do_wildstat},
    {"NB-interfaces", do_interfaces},
    {"NB-name", do_nbname},
    {"NB-wins-server", do_winsserver},
    {"", do_dontcare},
    {nullptr, nullptr},
};

}  // namespace

void namelogin_notes(cfg_note_fn fn)
{
    note_fn = fn;
}

int namelogin(const char* path)
{
    log_new();
    FILE* raw = fopen(path, "r");
    int open_errno = errno;
    // A directory opens but reads as nothing; say so rather than run with
    // no transport and no word in the log.
    struct stat st;
    if (raw != nullptr && (fstat(fileno(raw), &st) != 0 || S_ISDIR(st.st_mode))) {
        fclose(raw);
        raw = nullptr;
        open_errno = EISDIR;
    }
    CrlfFile crlf{raw, 0, true};
    FILE* f = nullptr;
    if (raw != nullptr) {
        f = fopencookie(&crlf, "r", cookie_io_functions_t{crlf_read, nullptr, crlf_seek, crlf_close});
        if (f == nullptr) {
            open_errno = errno;
            fclose(raw);
        }
    }
    if (f == nullptr) {
        log_catmsg(LOG_SET, MSG_NOFILE, "%s: cannot open config file %s", prog, path);
        char why[NOTE_SIZE];
        snprintf(why, sizeof why, "cannot be opened (%s)", strerror(open_errno));
        note_found(true, 0, why, "a readable configuration file");
        return 0;
    }

    transport_tcpip = 0;
    transport_vznbu = 0;
    vz_parse(f, parse_err, nullptr, realm_pattern, realm_table);
    if (crlf.dropped > 0) {
        char found[NOTE_SIZE];
        snprintf(found, sizeof found, "%d line%s in CR LF", crlf.dropped, crlf.dropped > 1 ? "s end" : " ends");
        note_found(false, 0, found, "read as LF line ends");
    }
    if (transport_tcpip == 0) {
        if (note_fn != nullptr) {
            if (transport_vznbu == 0)
                note_found(true, 0, "no 'transport tcpip' in [realm NB]",
                           "a [realm NB] section with 'transport tcpip', or the name service does not run");
            rewind(f);
            vz_parse(f, nullptr, unread_section, interface_pattern, skip_table);
            rewind(f);
            vz_parse(f, nullptr, unread_section, transport_pattern, skip_table);
            note_unread_heads(f);
        }
        fclose(f);
        return 0;
    }

    rewind(f);
    clear_rows();
    vz_parse(f, parse_err, inter_section, interface_pattern, interface_table);

    my_addr = addr_table.data();
    my_addr_ct = 0;
    for (int i = 0; i < if_row_ct; i++) {
        const IfRow& row = if_rows[static_cast<size_t>(i)];
        if (row.flags & IF_ADDR) {
            my_addr[my_addr_ct++] = row.ent;
        } else {
            log_catmsg(LOG_SET, MSG_IF_NOADDR, "%s: tcpip interface %s has no address", prog,
                       row.name);
            log_catmsg(LOG_SET, MSG_IGNORING, "    ignoring");
            char head[NOTE_SIZE];
            snprintf(head, sizeof head, "[interface tcpip %s] without an address", row.name);
            note_found(false, row.line, head, "ignored: an interface needs 'address'");
        }
    }
    clear_rows();

    rewind(f);
    vz_parse(f, parse_err, nullptr, transport_pattern, transport_table);
    if (note_fn != nullptr)
        note_unread_heads(f);
    fclose(f);
    return 0;
}

int name_reinit(const char* path)
{
    TRACE(proc, 2, "name_reinit(%s) called.\n", path);
    return 0;
}

void name_settings_clear()
{
    clear_rows();
    transport_tcpip = 0;
    transport_vznbu = 0;
    addr_table = {};
    my_addr = nullptr;
    my_addr_ct = 0;
    nmport = dgport = ssport = ndport = ensport = 0;
    ens_client = 0;
    memset(nda_addr, 0, sizeof nda_addr);
    nda_ct = 0;
    broadcast_addr = 0;
    nb_scope[0] = '\0';
    client_gid = -1;
    wildcard_status = 0;
    memset(wins_addr, 0, sizeof wins_addr);
    wins_ct = 0;
    nda_key[0] = '\0';
    nda_key_bad = 0;
    ek_clear();
    memset(if_selects, 0, sizeof if_selects);
    if_select_ct = 0;
    memset(cfg_names, 0, sizeof cfg_names);
    cfg_name_ct = 0;
}

int parse_err(int, char**, int line, const char* message, const char* saved)
{
    log_catmsg(LOG_SET, MSG_PARSE, "%s: error occurred parsing config file on line %d", prog,
               line);
    log_catmsg(LOG_SET, MSG_PARSE_TEXT, "    %s", message != nullptr ? message : "out of memory");
    char found[NOTE_SIZE];
    snprintf(found, sizeof found, "%s (%s)", saved != nullptr ? saved : "",
             message != nullptr ? message : "out of memory");
    note_found(true, line, found, "a directive or a section head");
    return 0;
}

int inter_section(int argc, char** argv, int line, const char*)
{
    if (argc < 3 || argv[2] == nullptr) {
        if_cur = -1;
        return 0;
    }
    const char* name = argv[2];
    for (int i = 0; i < if_row_ct; i++) {
        if (strcmp(if_rows[static_cast<size_t>(i)].name, name) == 0) {
            if_cur = static_cast<int8_t>(i);
            return 0;
        }
    }
    if (if_row_ct >= MAX_INTERFACES) {
        log_catmsg(LOG_SET, MSG_MANY_IF, "%s: too many interfaces in config file", prog);
        note(true, line, "at most 32 interface sections; this one is ignored");
        if_cur = -1;
        return 0;
    }
    IfRow& row = if_rows[static_cast<size_t>(if_row_ct)];
    row = IfRow{};
    row.name = vz_strdup(name);
    if (row.name == nullptr) {
        log_catmsg(LOG_SET, MSG_IF_NOMEM, "%s: error allocating memory for tcpip interface %s",
                   prog, name);
        note(true, line, "memory to read it");
        // The row is not counted, so its directives have nowhere to go.
        if_cur = -1;
        return 0;
    }
    row.line = line;
    if_cur = static_cast<int8_t>(if_row_ct++);
    return 0;
}

int do_dontcare(int, char** tag, int argc, char**, int line, const char*)
{
    if (argc > 0)
        note(false, line, known_directives(tag));
    return 0;
}

int do_transport(int, char**, int argc, char** argv, int line, const char*)
{
    int t = argc == 2 ? syn_transport(argv[1]) : -1;
    if (t == 0)
        transport_tcpip++;
    else if (t == 1)
        transport_vznbu++;
    else
        refuse(line, "transport tcpip or transport vznbu", MSG_WANT_TRANSPORT, "    tcpip/vznbu expected");
    return 0;
}

int do_address(int, char**, int argc, char** argv, int line, const char*)
{
    return set_if_field(ADDRESS_FIELD, argc, argv, line);
}

int do_broadcast(int, char**, int argc, char** argv, int line, const char*)
{
    return set_if_field(BROADCAST_FIELD, argc, argv, line);
}

int do_netmask(int, char**, int argc, char** argv, int line, const char*)
{
    return set_if_field(NETMASK_FIELD, argc, argv, line);
}

int do_scope(int, char**, int argc, char** argv, int line, const char*)
{
    // nb_scope keeps 255 characters and its NUL; a longer scope would not
    // fit a name-service packet either (RFC 1002 4.1: names up to 255 bytes).
    if (argc != 2 || !valid_scope(argv[1]) || strlen(argv[1]) >= sizeof nb_scope) {
        refuse(line,
               "one scope of labels joined by dots (a letter first, then letters, digits or '-'), "
               "at most 255 characters",
               MSG_WANT_SCOPE, "    expecting valid scope name");
        return 0;
    }
    memcpy(nb_scope, argv[1], strlen(argv[1]) + 1);
    TRACE(proc, 3, "nbscope: %s\n", nb_scope);
    return 0;
}

int do_nameport(int, char**, int argc, char** argv, int line, const char*)
{
    return set_port({nmport, "NB-name-port", "do_nameport", MSG_NAMEPORT_TWICE, "    NB-name-port already set"},
                    argc, argv, line);
}

int do_sessport(int, char**, int argc, char** argv, int line, const char*)
{
    return set_port({ssport, "NB-session-port", "do_sessport", MSG_SESSPORT_TWICE,
                     "    NB-session-port already set"},
                    argc, argv, line);
}

int do_ensport(int, char**, int argc, char** argv, int line, const char*)
{
    return set_port({ensport, "NB-ens-port", "do_ensport", MSG_ENSPORT_TWICE, "    NB-ens-port already set"},
                    argc, argv, line);
}

int do_ndport(int, char**, int argc, char** argv, int line, const char*)
{
    return set_port({ndport, "NB-nd-port", "do_ndport", MSG_NDPORT_TWICE, "    NB-nd-port already set"},
                    argc, argv, line);
}

// A group name, or a group id in decimal.
int do_clientgroup(int, char**, int argc, char** argv, int line, const char*)
{
    int gid = -1;
    if (argc == 2) {
        const struct group* g = getgrnam(argv[1]);
        gid = g != nullptr ? int(g->gr_gid) : whole_number(argv[1], 10);
    }
    if (gid < 0) {
        refuse(line, "a group name or number", MSG_WANT_GROUP, "    expecting a group name or number");
        return 0;
    }
    client_gid = gid;
    TRACE(proc, 3, "do_clientgroup: %d\n", gid);
    return 0;
}

int do_ensclient(int, char**, int argc, char** argv, int line, const char*)
{
    return set_onoff(ens_client, "do_ensclient", argc, argv, line);
}

// All agents are listed in one directive; a second one is refused whole.
int do_ndaddr(int, char**, int argc, char** argv, int line, const char*)
{
    // Too many agents is logged as its own pair, without the line.
    auto too_many = [line](const char* expected) {
        log_catmsg(LOG_SET, MSG_MANY_NDA, "%s: too many NB-nd-addr's in config file", prog);
        log_catmsg(LOG_SET, MSG_IGNORING, "    ignoring");
        note(true, line, expected);
        return 0;
    };
    if (nda_ct != 0)
        return too_many("all agents in one NB-nd-addr directive (this one is ignored)");
    if (argc < 2) {
        log_catmsg(LOG_SET, MSG_EMPTY, "%s: Ignoring empty %s directive, line %d", prog, argv[0],
                   line);
        TRACE(err, 1, "nol_dodef: empty %s directive\n", argv[0]);
        note(false, line, "ignored: one to ten agent addresses");
        return 0;
    }
    for (int i = 1; i < argc; i++) {
        uint32_t a = 0;
        if (syn_ip(argv[i], &a) < 0) {
            char want[NOTE_SIZE];
            snprintf(want, sizeof want, "IPv4 addresses ('%s' and those after it are not taken)", argv[i]);
            refuse(line, want, MSG_WANT_IP, "    expecting IP address");
            return 0;
        }
        if (nda_ct >= MAX_NDA)
            return too_many("at most ten agent addresses (the first ten are kept)");
        nda_addr[nda_ct++] = a;
        TRACE(proc, 3, "do_ndaddr: %s\n", argv[i]);
    }
    return 0;
}

// The key is read at once, while the daemon is still root. A key that
// cannot be used stops the daemon (main_init), unlike the other directives:
// without it the daemon would talk in the clear where the site asked for
// codes, to agents that drop whatever comes without one.
int do_ndkey(int, char**, int argc, char** argv, int line, const char*)
{
    char why[NOTE_SIZE];
    if (nda_key[0] != '\0') {
        snprintf(why, sizeof why, "already set (the first is kept)");
    } else if (argc != 2 || strlen(argv[1]) >= sizeof nda_key) {
        snprintf(why, sizeof why, "expecting one key file");
        nda_key_bad = 1;
    } else {
        char reason[NOTE_SIZE];
        if (ek_load(argv[1], reason, sizeof reason) == 0) {
            memcpy(nda_key, argv[1], strlen(argv[1]) + 1);
            TRACE(proc, 3, "do_ndkey: %s\n", nda_key);
            return 0;
        }
        snprintf(why, sizeof why, "%.100s %.120s", argv[1], reason);
        nda_key_bad = 1;
    }
    char want[2 * NOTE_SIZE];
    snprintf(want, sizeof want, "one file of 64 hexadecimal digits that no other user may read (%s)", why);
    refuse(line, want, MSG_KEY, "    NB-nd-key: %s", why);
    return 0;
}

// Both servers in one directive, as for the agents; a line that is not one
// or two addresses sets nothing.
int do_winsserver(int, char**, int argc, char** argv, int line, const char*)
{
    if (wins_ct != 0) {
        refuse(line, "both WINS servers in one NB-wins-server directive (this one is ignored)", MSG_WINS_TWICE,
               "    NB-wins-server already set");
        return 0;
    }
    uint32_t a[MAX_WINS] = {};
    bool good = argc >= 2 && argc <= MAX_WINS + 1;
    for (int i = 1; good && i < argc; i++)
        good = syn_ip(argv[i], &a[i - 1]) == 0 && a[i - 1] != 0 && a[i - 1] != INADDR_BROADCAST;
    if (!good) {
        refuse(line, "the IPv4 address of a WINS server, then that of a second one or nothing", MSG_WANT_WINS,
               "    expecting one or two WINS server addresses");
        return 0;
    }
    wins_ct = argc - 1;
    memcpy(wins_addr, a, sizeof wins_addr);
    TRACE(proc, 3, "do_winsserver: %d\n", wins_ct);
    return 0;
}

int do_bcaststyle(int, char**, int argc, char** argv, int line, const char*)
{
    uint32_t v = 0;
    if (argc != 2 || syn_ip(argv[1], &v) < 0) {
        refuse(line, "one IPv4 address whose host part is the broadcast pattern, such as 0.0.0.255", MSG_WANT_FORM,
               "    expecting IP address (form)");
        return 0;
    }
    broadcast_addr = v;
    return 0;
}

// Whether "*" gets the node status of every name: nbtstat -A and
// nmblookup -A ask for it.
int do_wildstat(int, char**, int argc, char** argv, int line, const char*)
{
    return set_onoff(wildcard_status, "do_wildstat", argc, argv, line);
}

// Every selector of the line, or none of it; several lines add up.
int do_interfaces(int, char**, int argc, char** argv, int line, const char*)
{
    if_select parsed[MAX_IF_SELECT];
    int n = 0;
    bool good = argc >= 2;
    for (int i = 1; good && i < argc && n < MAX_IF_SELECT; i++)
        good = parse_select(argv[i], &parsed[n++]);
    if (!good) {
        refuse(line, "all, interface names such as eth0, or networks such as 10.88.0.0/24", MSG_WANT_SELECT,
               "    expecting all, an interface name or NET/LEN");
        return 0;
    }
    if (argc - 1 > MAX_IF_SELECT - if_select_ct) {
        refuse(line, "at most 32 selectors in all (the first are kept)", MSG_AT_MOST,
               "    at most %d; the rest is ignored", MAX_IF_SELECT);
        n = MAX_IF_SELECT - if_select_ct;
    }
    for (int i = 0; i < n; i++) {
        if_selects[if_select_ct++] = parsed[i];
        TRACE(proc, 3, "do_interfaces: %s\n", argv[i + 1]);
    }
    return 0;
}

int do_nbname(int, char**, int argc, char** argv, int line, const char*)
{
    cfg_name c{};
    bool group = argc == 3 && strcmp(argv[2], "group") == 0;
    if ((argc != 2 && !group) || !parse_nbname(argv[1], c.name)) {
        refuse(line,
               "a name of up to 15 characters with its type in hexadecimal, such as %h<20>, "
               "then 'group' for a group name",
               MSG_WANT_NBNAME, "    expecting NAME<hh>, then group or nothing");
        return 0;
    }
    if (cfg_name_ct >= MAX_CFG_NAMES) {
        refuse(line, "at most 32 NB-name directives (the first are kept)", MSG_AT_MOST,
               "    at most %d; the rest is ignored", MAX_CFG_NAMES);
        return 0;
    }
    c.flags = group ? 1 : 0;  // the local table's group bit
    cfg_names[cfg_name_ct++] = c;
    TRACE(proc, 3, "do_nbname: %s\n", argv[1]);
    return 0;
}

bool if_selected(const char* ifname, uint32_t addr)
{
    for (int i = 0; i < if_select_ct; i++) {
        const if_select& s = if_selects[i];
        if (s.name[0] == '\0') {
            if ((addr & s.mask) == s.net)
                return true;
            continue;
        }
        size_t n = strlen(s.name);
        if (strncmp(ifname, s.name, n) == 0 && (ifname[n] == '\0' || ifname[n] == ':'))
            return true;
    }
    return false;
}

void host_nbname(char* out)
{
    char host[256] = "";
    if (gethostname(host, sizeof host - 1) != 0)
        host[0] = '\0';
    size_t n = 0;
    for (; n < 15 && host[n] != '\0' && host[n] != '.'; n++)
        out[n] = char(fold_upper(static_cast<unsigned char>(host[n])));
    out[n] = '\0';
}

// syn_nonneg and syn_octal are bound to no directive today; they stay with
// syn_pos as the module's checkers for non-negative and octal fields.
int syn_nonneg(const char* word)
{
    return whole_number(word, 0);
}

int syn_pos(const char* word)
{
    int v = whole_number(word, 0);
    return v >= 1 ? v : -1;
}

int syn_octal(const char* word)
{
    return whole_number(word, 8);
}

int syn_onoff(const char* word)
{
    return one_of(word, "off", "on");
}

int syn_transport(const char* word)
{
    return one_of(word, "tcpip", "vznbu");
}

int syn_ip(const char* word, uint32_t* addr)
{
    size_t n = strnlen(word, SYN_IP_MAXWORD + 1);
    if (n > SYN_IP_MAXWORD)
        return -1;
    char text[SYN_IP_MAXWORD + 4];
    snprintf(text, sizeof text, "I(%s)", word);
    const UniAddr* ua = uni_aton(text);
    if (ua == nullptr || ua->family != UNI_INET || ua->len < 4)
        return -1;
    memcpy(addr, ua->addr, 4);  // already in network order
    return 0;
}

const char* valid_label(const char* p)
{
    auto c = [p](size_t i) { return static_cast<unsigned char>(p[i]); };
    if (!is_letter(c(0)))
        return nullptr;
    size_t i = 1;
    while (c(i) != '\0' && c(i) != '.') {
        if (!is_letter(c(i)) && !is_digit(c(i)) && c(i) != '-')
            return nullptr;
        i++;
    }
    if (i > 1 && c(i - 1) == '-')
        return nullptr;
    return p + i;
}

int valid_scope(char* s)
{
    if (s[0] == '\0' || strcmp(s, "\"\"") == 0 || strcmp(s, "''") == 0) {
        s[0] = '\0';
        return 1;
    }
    const char* p = s;
    for (;;) {
        p = valid_label(p);
        if (p == nullptr)
            return 0;
        if (*p == '\0')
            return 1;
        p++;  // the dot; the next label may not be empty
    }
}

int crs_icstrcmp(const char* a, const char* b)
{
    for (;; a++, b++) {
        unsigned char ca = fold_upper(static_cast<unsigned char>(*a));
        unsigned char cb = fold_upper(static_cast<unsigned char>(*b));
        if (ca != cb)
            return 1;
        if (ca == '\0')
            return 0;
    }
}

int crs_icmemcmp(const void* a, const void* b, size_t n)
{
    const auto* pa = static_cast<const unsigned char*>(a);
    const auto* pb = static_cast<const unsigned char*>(b);
    for (size_t i = 0; i < n; i++) {
        if (fold_upper(pa[i]) != fold_upper(pb[i]))
            return 1;
    }
    return 0;
}

void crs_lowcase(char* s)
{
    for (; *s != '\0'; s++) {
        if (*s >= 'A' && *s <= 'Z')
            *s = static_cast<char>(*s - 'A' + 'a');
    }
}
