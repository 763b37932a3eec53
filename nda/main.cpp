// halyard-nda: the name-directory agent that the daemons' NB-nd-addr names.
// One process, one thread: a datagram socket at the agent port and the
// directory in one SQLite file. Root only binds the port and makes the
// agent's places; the rest runs as the agent's own user.
#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <ifaddrs.h>
#include <linux/capability.h>
#include <poll.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "client/nsclient.h"
#include "misc/enskey.h"
#include "misc/initsock.h"
#include "misc/pktasm.h"
#include "nda/ndaserve.h"
#include "nda/ndastats.h"
#include "nda/ndastore.h"
#include "nda/ndawins.h"
#include "nmtrace.h"
#include "nversion.h"
#include "shr/dgsend.h"
#include "shr/fxdump.h"
#include "shr/logging.h"
#include "shr/uniinet.h"
#include "shr/vzhome.h"
#include "shr/vzopen.h"
#include "shr/vzparse.h"
#include "shr/vzpoll.h"
#include "shr/vzsignal.h"
#include "src/namelogin.h"

namespace {

// The agent's one ENS socket; its answers and verifications leave by it.
int ens_sock = -1;
int wins_fd = -1;  // the WINS socket, when it serves WINS

int send_out(DgWay way, int fd, const uint8_t* data, int len, const UniAddr* to)
{
    if (fd < 0)
        fd = way == DgWay::ens ? ens_sock : way == DgWay::wins ? wins_fd : -1;
    return fd >= 0 ? put_ddg(fd, data, len, to) : -1;
}

constexpr const char* CONFIG_PATH = "/etc/opt/KORRbase/config.vz";
constexpr const char* LOG_PATH = "/var/opt/KORRbase/log.nda";
// In a folder of the agent's user: SQLite makes its -wal and -shm beside
// the file, and /var/opt/KORRbase is root's.
constexpr const char* DB_PATH = "/var/opt/KORRbase/nda/nda.db";
constexpr const char* AGENT_USER = "_halyard-nda";
constexpr mode_t LOG_MODE = 0660;
constexpr uint16_t DEFAULT_NDPORT = 227;

constexpr int MSG_STARTING = 550;
constexpr int MSG_NO_STORE = 551;
constexpr int MSG_NO_SOCKET = 552;
constexpr int MSG_STOPPING = 554;
constexpr int MSG_BAD_SETTING = 555;
constexpr int MSG_UNKNOWN_SETTING = 556;
constexpr int MSG_SETTING_TWICE = 557;
constexpr int MSG_NO_USER = 559;
constexpr int MSG_WINS = 570;
constexpr int MSG_NO_WINS = 571;

constexpr int EX_USAGE = 2;
constexpr int RECV_BURST = 64;   // datagrams read per wake-up
constexpr int BUSY_BURSTS = 16;  // full bursts in a row before the verifications run anyway

const char* const USAGE =
    "usage: halyard-nda [-f] [-a ADDRESS] [-p PORT] [-d FILE] [-c FILE] [-z DIM=LEVEL]...\n"
    "       halyard-nda -l [-j] [-d FILE]\n"
    "       halyard-nda -s [-j] [-p PORT] [-c FILE]\n"
    "  -f          stay in the foreground\n"
    "  -l          list the directory and exit (-j: as JSON)\n"
    "  -s          show the counters of the agent running at the port and exit\n"
    "              (-j: as JSON); for root, the agent's user and its group\n"
    "  -a ADDRESS  listen at this IPv4 address only (default: every address)\n"
    "  -p PORT     agent port (default: port of [agent], else NB-nd-port, else 227)\n"
    "  -d FILE     directory database (default /var/opt/KORRbase/nda/nda.db), or a\n"
    "              PostgreSQL connection (postgresql://... or \"host=... dbname=...\")\n"
    "  -c FILE     configuration file (default /etc/opt/KORRbase/config.vz); its\n"
    "              [agent] section may set listen, port and directory, which the\n"
    "              options override, registrars, key (a file shared with the daemons),\n"
    "              wins (an address at which to serve WINS) and wins-ttl\n"
    "  -z DIM=LEVEL, -z tracefile=FILE   trace, as the daemon's\n";

volatile sig_atomic_t stop_sig = 0;

void on_stop(int sig)
{
    stop_sig = sig;
}

// Without -f: the launching process's end of a pipe, on which it waits for
// the agent's word (its start-up status) so that an error that comes after
// the fork still reaches the caller; -1 once told, or with -f.
int word_fd = -1;

void tell_launcher(uint8_t status)
{
    if (word_fd < 0)
        return;
    ssize_t n;
    do
        n = write(word_fd, &status, 1);
    while (n < 0 && errno == EINTR);
    close(word_fd);
    word_fd = -1;
}

[[noreturn]] void fail(int status, const char* text)
{
    fprintf(stderr, "halyard-nda: %s\n", text);
    tell_launcher(uint8_t(status));
    exit(status);
}

// The launching process ends with the status the agent tells it (1 when the
// agent ends without a word); the agent goes on in a session of its own.
void detach()
{
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0)
        fail(1, "cannot make a pipe");
    pid_t pid = fork();
    if (pid < 0)
        fail(1, "cannot fork");
    if (pid > 0) {
        close(p[1]);
        uint8_t status = 1;
        ssize_t n;
        do
            n = read(p[0], &status, 1);
        while (n < 0 && errno == EINTR);
        _exit(n == 1 ? status : 1);
    }
    close(p[0]);
    word_fd = p[1];
    setsid();
}

// Started: the launcher may go, and the agent lets go of its terminal.
void started()
{
    tell_launcher(0);
    int fd = open("/dev/null", O_RDWR);
    if (fd >= 0) {
        dup2(fd, 0);
        dup2(fd, 1);
        dup2(fd, 2);
        if (fd > 2)
            close(fd);
    }
}

// The folder of a directory file, made for the agent's user when it is
// missing, while root can (the places above it are root's). A folder that
// is there is left as it is: the administrator's choice, named or not.
std::string folder_of(const char* path)
{
    const char* slash = strrchr(path, '/');
    return slash == nullptr ? "." : slash == path ? "/" : std::string(path, size_t(slash - path));
}

void make_folder(const char* db_path, const passwd& pw)
{
    std::string folder = folder_of(db_path);
    if (mkdir(folder.c_str(), 0700) == 0 && lchown(folder.c_str(), pw.pw_uid, pw.pw_gid) != 0)
        rmdir(folder.c_str());  // then the open below says what is wrong
}

// The log stays beside the daemon's, in root's /var/opt/KORRbase, opened
// for each message by root's start and by the agent's user alike: it is
// root's and the group's of that user (0660), so neither needs to override
// a permission and no one else reads it. That user can append to it but
// can neither replace nor remove it, nor make another file there; a log
// rotated away stays away until the agent is started again (rotate it by
// copying and truncating).
void adopt_log(const passwd& pw)
{
    // Read-only: an older log may be the administrative user's, 0664.
    int fd = open(LOG_PATH, O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, LOG_MODE);
    if (fd < 0)
        return;  // logging is off then; open_log said nothing either
    if (fchown(fd, geteuid(), pw.pw_gid) != 0 || fchmod(fd, LOG_MODE) != 0) {
        // As before: the agent's messages may not reach it.
    }
    close(fd);
}

// Leaves root for good: no supplementary group, the user's ids as real,
// effective and saved ids, no capability, no new privileges through exec;
// then checks that root and every capability are out of reach.
bool drop_root(const passwd& pw)
{
    if (setgroups(0, nullptr) != 0 || setresgid(pw.pw_gid, pw.pw_gid, pw.pw_gid) != 0 ||
        setresuid(pw.pw_uid, pw.pw_uid, pw.pw_uid) != 0)
        return false;
    __user_cap_header_struct hdr{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct caps[2]{};
    if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0 || syscall(SYS_capset, &hdr, caps) != 0 ||
        prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || syscall(SYS_capget, &hdr, caps) != 0)
        return false;
    for (const auto& c : caps)
        if ((c.effective | c.permitted | c.inheritable) != 0)
            return false;
    return getgroups(0, nullptr) == 0 && setuid(0) != 0 && seteuid(0) != 0;
}

// The [agent] section of the configuration file: the settings the options
// give, each at most once. A malformed one stops the agent before it starts,
// rather than have it listen or store somewhere it was not meant to.
struct Settings {
    const char* path = nullptr;
    int line = 0;  // of the first error, 0 none
    bool have_listen = false;
    uint32_t listen = 0;
    int port = 0;
    std::string directory;
    int registrar_ct = -1;  // -1: not set
    NdaNet registrars[NDA_MAX_REGISTRARS] = {};
    std::string key;  // the key file, read once the listing is ruled out
    int key_line = 0;
    uint32_t wins = 0;  // the WINS address, 0 off
    int wins_ttl = 0;   // 0: the default
};
Settings conf;

const char* const agent_pattern[] = {"agent", nullptr};

void setting_error(int line, int msg, const char* fmt, const char* directive, const char* what)
{
    if (conf.line == 0)
        conf.line = line;
    log_new();
    log_catmsg(LOG_SET, msg, fmt, prog, conf.path, line, directive, what);
    fprintf(stderr, "halyard-nda: ");
    fprintf(stderr, fmt + 4, conf.path, line, directive, what);  // without "%s: "
    fputc('\n', stderr);
}

// The one value of a directive (a line from Windows keeps no CR), or null
// after the message.
const char* one_value(int argc, char** argv, int line, const char* what)
{
    if (argc != 2 || argv[1][0] == '\0') {
        setting_error(line, MSG_BAD_SETTING, "%s: %s line %d: %s: expecting %s", argv[0], what);
        return nullptr;
    }
    size_t n = strlen(argv[1]);
    if (argv[1][n - 1] == '\r')
        argv[1][n - 1] = '\0';
    return argv[1];
}

bool first_time(bool seen, int line, const char* directive)
{
    if (seen)
        setting_error(line, MSG_SETTING_TWICE, "%s: %s line %d: %s already set%s", directive, "");
    return !seen;
}

int set_listen(int, char**, int argc, char** argv, int line, const char*)
{
    const char* v = one_value(argc, argv, line, "one IPv4 address");
    if (v != nullptr && first_time(conf.have_listen, line, argv[0])) {
        if (inet_pton(AF_INET, v, &conf.listen) == 1)
            conf.have_listen = true;
        else
            setting_error(line, MSG_BAD_SETTING, "%s: %s line %d: %s: expecting %s", argv[0], "one IPv4 address");
    }
    return 0;
}

int set_wins(int, char**, int argc, char** argv, int line, const char*)
{
    const char* v = one_value(argc, argv, line, "one IPv4 address of this host");
    if (v != nullptr && first_time(conf.wins != 0, line, argv[0]) &&
        (inet_pton(AF_INET, v, &conf.wins) != 1 || conf.wins == 0 || conf.wins == INADDR_BROADCAST))
        setting_error(line, MSG_BAD_SETTING, "%s: %s line %d: %s: expecting %s", argv[0],
                      "one IPv4 address of this host");
    return 0;
}

int set_wins_ttl(int, char**, int argc, char** argv, int line, const char*)
{
    const char* v = one_value(argc, argv, line, "seconds from 5 to 604800");
    if (v != nullptr && first_time(conf.wins_ttl != 0, line, argv[0])) {
        char* end = nullptr;
        long t = strtol(v, &end, 10);
        if (*v >= '0' && *v <= '9' && *end == '\0' && t >= WINS_TTL_MIN && t <= WINS_TTL_MAX)
            conf.wins_ttl = int(t);
        else
            setting_error(line, MSG_BAD_SETTING, "%s: %s line %d: %s: expecting %s", argv[0],
                          "seconds from 5 to 604800");
    }
    return 0;
}

int set_port(int, char**, int argc, char** argv, int line, const char*)
{
    const char* v = one_value(argc, argv, line, "a port number from 1 to 65535");
    if (v != nullptr && first_time(conf.port != 0, line, argv[0])) {
        char* end = nullptr;
        long p = strtol(v, &end, 10);
        if (*v >= '0' && *v <= '9' && *end == '\0' && p >= 1 && p <= 65535)
            conf.port = int(p);
        else
            setting_error(line, MSG_BAD_SETTING, "%s: %s line %d: %s: expecting %s", argv[0],
                          "a port number from 1 to 65535");
    }
    return 0;
}

int set_directory(int, char**, int argc, char** argv, int line, const char*)
{
    const char* v = one_value(argc, argv, line, "one file name or PostgreSQL connection (in quotes when it has blanks)");
    if (v != nullptr && first_time(!conf.directory.empty(), line, argv[0]))
        conf.directory = v;
    return 0;
}

// registrars NET/LEN ...: the networks whose stations may change the
// directory; host bits of NET are ignored.
bool read_net(const char* text, NdaNet* out)
{
    char addr[16];
    const char* slash = strchr(text, '/');
    if (slash == nullptr || size_t(slash - text) >= sizeof addr || slash[1] < '0' || slash[1] > '9')
        return false;
    memcpy(addr, text, size_t(slash - text));
    addr[slash - text] = '\0';
    char* end = nullptr;
    long len = strtol(slash + 1, &end, 10);
    if (*end != '\0' || len < 0 || len > 32 || inet_pton(AF_INET, addr, &out->net) != 1)
        return false;
    out->mask = htonl(len == 0 ? 0 : ~uint32_t(0) << (32 - len));
    out->net &= out->mask;
    return true;
}

int set_registrars(int, char**, int argc, char** argv, int line, const char*)
{
    const char* what = "networks as NET/LEN (at most 64)";
    if (!first_time(conf.registrar_ct >= 0, line, argv[0]))
        return 0;
    conf.registrar_ct = 0;
    bool good = argc >= 2 && argc - 1 <= NDA_MAX_REGISTRARS;
    for (int i = 1; good && i < argc; i++) {
        size_t n = strlen(argv[i]);
        if (n > 0 && argv[i][n - 1] == '\r')
            argv[i][n - 1] = '\0';
        good = read_net(argv[i], &conf.registrars[conf.registrar_ct++]);
    }
    if (!good)
        setting_error(line, MSG_BAD_SETTING, "%s: %s line %d: %s: expecting %s", argv[0], what);
    return 0;
}

// Without the setting: the networks of the host's own interfaces.
int interface_networks(NdaNet* out, int room)
{
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return 0;
    int n = 0;
    for (ifaddrs* i = list; i != nullptr && n < room; i = i->ifa_next) {
        if (i->ifa_addr == nullptr || i->ifa_netmask == nullptr || i->ifa_addr->sa_family != AF_INET)
            continue;
        uint32_t a = reinterpret_cast<const sockaddr_in*>(i->ifa_addr)->sin_addr.s_addr;
        uint32_t m = reinterpret_cast<const sockaddr_in*>(i->ifa_netmask)->sin_addr.s_addr;
        out[n++] = {a & m, m};
    }
    freeifaddrs(list);
    return n;
}

constexpr const char* KEY_WANTED = "one file of 64 hexadecimal digits that no other user may read";

int set_key(int, char**, int argc, char** argv, int line, const char*)
{
    const char* v = one_value(argc, argv, line, KEY_WANTED);
    if (v != nullptr && first_time(conf.key_line != 0, line, argv[0])) {
        conf.key = v;
        conf.key_line = line;
    }
    return 0;
}

// The key of [agent], read while still root; a key that cannot be used
// stops the agent, as a malformed setting does.
bool read_key()
{
    char why[256];
    if (conf.key_line == 0 || ek_load(conf.key.c_str(), why, sizeof why) == 0)
        return true;
    std::string what = std::string(KEY_WANTED) + " (" + conf.key + " " + why + ")";
    setting_error(conf.key_line, MSG_BAD_SETTING, "%s: %s line %d: %s: expecting %s", "key", what.c_str());
    return false;
}

int unknown_setting(int, char**, int argc, char** argv, int line, const char*)
{
    if (argc > 0)
        setting_error(line, MSG_UNKNOWN_SETTING, "%s: %s line %d: %s: not a setting of [agent]%s", argv[0],
                      " (listen, port, directory, registrars, key, wins, wins-ttl)");
    return 0;
}

const vz_par_tabent agent_table[] = {
    {"listen", set_listen},
    {"port", set_port},
    {"directory", set_directory},
    {"registrars", set_registrars},
    {"key", set_key},
    {"wins", set_wins},
    {"wins-ttl", set_wins_ttl},
    {"", unknown_setting},
    {nullptr, nullptr},
};

int setting_unreadable(int, char**, int line, const char* message, const char*)
{
    setting_error(line, MSG_BAD_SETTING, "%s: %s line %d: %s: expecting %s", message, "a readable line");
    return 0;
}

// Reads [agent] when the file is there: false after an error in it.
bool read_settings(const char* path)
{
    conf.path = path;
    FILE* f = fopen(path, "r");
    if (f == nullptr)
        return true;  // a host with only the agent may have no file
    vz_parse(f, setting_unreadable, nullptr, agent_pattern, agent_table);
    fclose(f);
    return conf.line == 0;
}

// A PostgreSQL connection rather than a file: a URI, or key=value words.
bool is_connection(const char* where)
{
    return strncmp(where, "postgresql://", 13) == 0 || strncmp(where, "postgres://", 11) == 0 ||
           strchr(where, '=') != nullptr;
}

void json_str(const char* s)
{
    putchar('"');
    for (; *s != '\0'; s++) {
        unsigned char c = static_cast<unsigned char>(*s);
        if (c == '"' || c == '\\')
            printf("\\%c", c);
        else if (c < 0x20)
            printf("\\u%04x", c);
        else
            putchar(c);
    }
    putchar('"');
}

struct ListState {
    bool json;
    int count;
};

// One line per name: NAME<hh>, unique or group, the address, the host.
void list_entry(const NdaListEntry& e, void* arg)
{
    auto* st = static_cast<ListState*>(arg);
    char name[NSC_NAMETEXT];
    nsc_nbtostr(name, sizeof name, e.name);
    char ip[16];
    snprintf(ip, sizeof ip, "%s", nm_ntoa(e.ip));
    if (st->json) {
        printf("%s{\"name\":", st->count == 0 ? "" : ",");
        json_str(name);
        printf(",\"group\":%s,\"address\":\"%s\",\"host\":%lld,\"seen\":%lld}", e.group ? "true" : "false", ip,
               static_cast<long long>(e.host), static_cast<long long>(e.seen));
    } else {
        printf("%-20s %-6s %-15s host %lld\n", name, e.group ? "group" : "unique", ip, static_cast<long long>(e.host));
    }
    st->count++;
}

int list_directory(const NdaStore* store, const char* db_path, bool json)
{
    if (store->open_read(db_path) < 0)
        fail(1, store->error());
    ListState st{json, 0};
    if (json)
        putchar('[');
    int r = store->list(list_entry, &st);
    if (json)
        printf("]\n");
    store->close();
    if (r < 0)
        fail(1, store->error());
    return 0;
}

constexpr int STATS_WAIT_MS = 2000;

int show_stats(int port, bool json)
{
    static CtSet set;
    char why[256];
    if (nda_stats_fetch(port, AGENT_USER, STATS_WAIT_MS, &set, why, sizeof why) != 0)
        fail(1, why);
    ct_print(stdout, set, json ? CtFormat::json : CtFormat::text, "halyard_nda_", nda_stat_defs, NDA_STAT_COUNT);
    return 0;
}

using datagram_fn = void (*)(const uint8_t* data, size_t n, const sockaddr_in& from, int64_t now_ms, int64_t now_s);
using flush_fn = void (*)(int64_t now_ms, int64_t now_s);

// Reads what waits on fd, at most a burst of it in one call, handing each
// datagram of at most room bytes to each and then the burst to flush: true
// when the burst was used up (more may wait), false when fd was emptied.
bool receive_burst(int fd, size_t room, datagram_fn each, flush_fn flush)
{
    static uint8_t bufs[RECV_BURST][std::max<size_t>(ENS_AREA + EK_SEAL_SIZE, NPKT_AREA)];
    static sockaddr_in sins[RECV_BURST];
    static iovec iov[RECV_BURST];
    static mmsghdr msgs[RECV_BURST];
    for (int i = 0; i < RECV_BURST; i++) {
        iov[i] = {bufs[i], std::min(room, sizeof bufs[i])};
        msgs[i] = {};
        msgs[i].msg_hdr.msg_name = &sins[i];
        msgs[i].msg_hdr.msg_namelen = sizeof sins[i];
        msgs[i].msg_hdr.msg_iov = &iov[i];
        msgs[i].msg_hdr.msg_iovlen = 1;
    }
    int got = recvmmsg(fd, msgs, RECV_BURST, MSG_DONTWAIT, nullptr);
    if (got < 0)
        return errno != EAGAIN && errno != EWOULDBLOCK;  // else an ICMP error of an earlier send
    for (int i = 0; i < got; i++) {
        size_t n = msgs[i].msg_len;
        if (msgs[i].msg_hdr.msg_flags & MSG_TRUNC) {
            TRACE(proc, 1, "halyard-nda: datagram of more than %zu bytes dropped\n", n);
            continue;
        }
        each(bufs[i], n, sins[i], vz_now_ms(), int64_t(time(nullptr)));
    }
    // One commit for the wake-up's changes, then their answers.
    flush(vz_now_ms(), int64_t(time(nullptr)));
    return got == RECV_BURST;
}

// One sealed ENS datagram, opened and handed to the agent.
void ens_datagram(const uint8_t* data, size_t n, const sockaddr_in& sin, int64_t now_ms, int64_t now_s)
{
    UniAddr from{};
    iantoua(&from, sin.sin_addr.s_addr, ntohs(sin.sin_port));
    if (tcfile != nullptr && tc_in >= 4) {
        tc_printf("halyard-nda: got %zu bytes from %s --\n", n, uni_ntoa(&from));
        dump_bytes(tcfile, data, n);
    }
    const char* why = "";
    int len = ek_open(data, int(n), ek_now_us(), &why);
    if (len < 0) {
        TRACE(proc, 1, "halyard-nda: %zu bytes from %s dropped: %s\n", n, uni_ntoa(&from), why);
        return;
    }
    nda_datagram(data, len, &from, now_ms, now_s);
}

void wins_one(const uint8_t* data, size_t n, const sockaddr_in& sin, int64_t now_ms, int64_t now_s)
{
    wins_datagram(data, int(n), sin.sin_addr.s_addr, ntohs(sin.sin_port), now_ms, now_s);
}

bool receive(int fd)
{
    return receive_burst(fd, ENS_AREA + EK_SEAL_SIZE, ens_datagram, nda_flush);
}

// The WINS address's datagrams.
bool receive_wins(int fd)
{
    return receive_burst(fd, NPKT_AREA, wins_one, wins_flush);
}

}  // namespace

int main(int argc, char* argv[])
{
    prog = "halyard-nda";
    close_extra_descriptors();
    char home[VZ_HOME_SIZE];
    vzhome_get(home, sizeof home);
    if (chdir(home) != 0 && chdir("/") != 0)
        fail(1, "cannot change to the home directory");

    bool foreground = false;
    bool list = false;
    bool stats = false;
    bool json = false;
    bool have_listen = false;
    uint32_t listen_addr = 0;
    int port = 0;
    const char* db_path = nullptr;
    const char* config = CONFIG_PATH;
    int opt;
    while ((opt = tc_getopt(argc, argv, "fljsa:p:d:c:h")) != -1) {
        switch (opt) {
        case 'f':
            foreground = true;
            break;
        case 'l':
            list = true;
            break;
        case 'j':
            json = true;
            break;
        case 's':
            stats = true;
            break;
        case 'a':
            if (inet_pton(AF_INET, optarg, &listen_addr) != 1)
                fail(EX_USAGE, "-a wants an IPv4 address");
            have_listen = true;
            break;
        case 'p':
            port = atoi(optarg);
            if (port < 1 || port > 65535)
                fail(EX_USAGE, "-p wants a port from 1 to 65535");
            break;
        case 'd':
            db_path = optarg;
            break;
        case 'c':
            config = optarg;
            break;
        default:
            fputs(USAGE, opt == 'h' ? stdout : stderr);
            return opt == 'h' ? 0 : EX_USAGE;
        }
    }
    if (optind < argc || (json && !list && !stats) || (list && stats)) {
        fputs(USAGE, stderr);
        return EX_USAGE;
    }
    // Started as root, the agent runs as its own user once the port is bound
    // and its places are made. Its log is given to it first: root's start
    // overrides no permission to write there either.
    passwd* pw = !list && !stats && geteuid() == 0 ? getpwnam(AGENT_USER) : nullptr;
    passwd user = pw != nullptr ? *pw : passwd{};
    std::string user_home = pw != nullptr ? pw->pw_dir : "";
    if (pw != nullptr && user.pw_uid != 0)
        adopt_log(user);
    open_log(LOG_PATH);
    // The options override the file's settings.
    if (!read_settings(config))
        fail(1, "the configuration's [agent] section is malformed: not started");
    if (!have_listen)
        listen_addr = conf.listen;
    if (port == 0)
        port = conf.port;
    if (db_path == nullptr)
        db_path = !conf.directory.empty() ? conf.directory.c_str() : DB_PATH;
    const NdaStore* store = is_connection(db_path) ? &nda_postgres : &nda_sqlite;
    if (list)
        return list_directory(store, db_path, json);
    if (!stats && !read_key())
        fail(1, "the key of [agent] cannot be used: not started");

    // The port the daemons are given: a host that runs both shares the file.
    if (port == 0 && access(config, R_OK) == 0)
        namelogin(config);
    if (port == 0)
        port = ndport != 0 ? ndport : DEFAULT_NDPORT;
    if (stats)
        return show_stats(port, json);

    // Without its user it does not start.
    if (geteuid() == 0 && (pw == nullptr || user.pw_uid == 0)) {
        log_new();
        log_catmsg(LOG_SET, MSG_NO_USER, "%s: no system user %s to run as: not started", prog, AGENT_USER);
        fail(1, "no system user _halyard-nda to run as (the package makes it; or: adduser --system --group "
                "_halyard-nda): not started");
    }
    uint16_t p = uint16_t(port);
    ens_sock = init_sock(listen_addr, &p, 0);
    if (ens_sock < 0) {
        char text[160];
        snprintf(text, sizeof text, "cannot listen at %s port %d: %s", nm_ntoa(listen_addr), port, strerror(errno));
        log_new();
        log_catmsg(LOG_SET, MSG_NO_SOCKET, "%s: cannot listen at %s port %d: %s", prog, nm_ntoa(listen_addr), port,
                   strerror(errno));
        fail(1, text);
    }
    dg_set_sender(send_out);
    // WINS at an address of its own: a daemon on this host keeps every
    // other address of UDP 137 (both bind with SO_REUSEADDR).
    if (conf.wins != 0 && (wins_fd = wins_open(conf.wins, WINS_PORT)) < 0) {
        char text[160];
        snprintf(text, sizeof text, "cannot serve WINS at %s: %s", nm_ntoa(conf.wins), strerror(errno));
        log_new();
        log_catmsg(LOG_SET, MSG_NO_WINS, "%s: cannot serve WINS at %s: %s", prog, nm_ntoa(conf.wins),
                   strerror(errno));
        fail(1, text);
    }
    // A connection may carry a password: it is not written to the log.
    const char* shown = is_connection(db_path) ? "(a PostgreSQL connection)" : db_path;
    char why[256] = "";
    if (pw != nullptr) {
        if (!is_connection(db_path))
            make_folder(db_path, user);
        std::string folder = folder_of(db_path);
        if (!drop_root(user))
            snprintf(why, sizeof why, "cannot run as user %s: %s", AGENT_USER, strerror(errno));
        else if (!is_connection(db_path) && access(folder.c_str(), W_OK | X_OK) != 0)
            snprintf(why, sizeof why, "user %s cannot write in %s: %s", AGENT_USER, folder.c_str(), strerror(errno));
        setenv("HOME", user_home.c_str(), 1);  // libpq's ~/.pgpass is the user's
    }
    // The directory is opened by the process that serves it: SQLite's locks
    // belong to the process, and a reader must see them (a list would
    // otherwise take the write-ahead log from under the agent).
    if (!foreground)
        detach();
    umask(077);
    if (why[0] == '\0' && store->open(db_path) < 0)
        snprintf(why, sizeof why, "%s", store->error());
    if (why[0] != '\0') {
        log_new();
        log_catmsg(LOG_SET, MSG_NO_STORE, "%s: cannot open the directory %s: %s", prog, shown, why);
        fail(1, why);
    }
    started();
    // The stop signals get through only inside the wait, so one that comes
    // while a datagram is handled cannot be missed until the next one.
    sigset_t stops, wait_mask;
    sigemptyset(&stops);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        vz_signal(sig, on_stop);
        sigaddset(&stops, sig);
    }
    sigprocmask(SIG_BLOCK, &stops, &wait_mask);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT})
        sigdelset(&wait_mask, sig);
    signal(SIGPIPE, SIG_IGN);
    nda_serve_init(store);
    if (conf.registrar_ct < 0)
        conf.registrar_ct = interface_networks(conf.registrars, NDA_MAX_REGISTRARS);
    nda_set_registrars(conf.registrars, conf.registrar_ct);
    int stats_fd = nda_stats_listen(port);
    for (int i = 0; i < conf.registrar_ct; i++)
        TRACE(proc, 1, "halyard-nda: registrars %s/%d\n", nm_ntoa(conf.registrars[i].net),
              __builtin_popcount(conf.registrars[i].mask));
    log_new();
    log_catmsg(LOG_SET, MSG_STARTING, "%s: name directory agent %s starting, %s port %d, directory %s", prog,
               smbv_string, nm_ntoa(listen_addr), port, shown);
    TRACE(proc, 1, "halyard-nda: listening at %s port %d\n", nm_ntoa(listen_addr), port);
    wins_init(store, wins_fd, uint32_t(conf.wins_ttl != 0 ? conf.wins_ttl : WINS_TTL_DEFAULT));
    if (wins_fd >= 0) {
        log_new();
        log_catmsg(LOG_SET, MSG_WINS, "%s: WINS at %s, names granted for %d seconds", prog, nm_ntoa(conf.wins),
                   conf.wins_ttl != 0 ? conf.wins_ttl : WINS_TTL_DEFAULT);
    }

    // A verification times out only once what waits on the socket has been
    // read: its answer may be there, behind requests that took their time.
    // A flood that never lets the socket empty still lets them run at
    // every BUSY_BURSTS-th burst.
    int busy = 0;
    while (stop_sig == 0) {
        if (tcfile != nullptr)
            fflush(tcfile);
        int wait = 0;
        if (busy == 0 || busy % BUSY_BURSTS == 0) {
            wait = nda_due(vz_now_ms(), int64_t(time(nullptr)));
            int w = wins_due(vz_now_ms(), int64_t(time(nullptr)));
            wait = w >= 0 && (wait < 0 || w < wait) ? w : wait;
        }
        if (busy > 0)
            wait = 0;
        pollfd pfd[3] = {{ens_sock, POLLIN, 0}, {wins_fd, POLLIN, 0}, {stats_fd, POLLIN, 0}};
        timespec ts{wait / 1000, long(wait % 1000) * 1000000};
        int r = ppoll(pfd, 3, wait < 0 ? nullptr : &ts, &wait_mask);  // a negative fd is skipped
        if (r < 0 && errno != EINTR)
            break;
        if (r > 0 && pfd[2].revents != 0)
            nda_stats_serve(stats_fd);
        bool more = r > 0 && pfd[0].revents != 0 && receive(ens_sock);
        more = (r > 0 && wins_fd >= 0 && pfd[1].revents != 0 && receive_wins(wins_fd)) || more;
        busy = more ? busy + 1 : 0;
    }
    log_new();
    log_catmsg(LOG_SET, MSG_STOPPING, "%s: stopping (signal %d)", prog, vz_classic_signal(int(stop_sig)));
    store->close();
    close(ens_sock);
    if (stats_fd >= 0)
        close(stats_fd);
    if (wins_fd >= 0)
        close(wins_fd);
    return 0;
}
