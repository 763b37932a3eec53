// The real halyard-nda in the lab's middle (no forwarding); real daemons on the stations use it.

#include "tests/support/lab.h"
#include "tests/support/ndasim.h"
#include "tests/support/nswire.h"
#include "tests/support/paths.h"

#include <arpa/inet.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sodium.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace ndasim;  // the helpers below hide its enumerators add and query: those are qualified

constexpr const char* nsenter = "/usr/bin/nsenter";
constexpr const char* agent_log = "/var/opt/KORRbase/log.nda";
constexpr const char* nmbd_bin = "/usr/sbin/nmbd";
constexpr const char* nmblookup_bin = "/usr/bin/nmblookup";


Bytes add(uint32_t id, const Bytes& name, int group, const std::vector<std::string>& addrs)
{
    return cat({header(id, ndasim::add), name_item(name), int_item(group), addr_list(addrs)});
}

Bytes query(uint32_t id, const Bytes& name) { return cat({header(id, ndasim::query), name_item(name), int_item(0)}); }

Bytes answer(uint32_t id, int32_t action, int32_t ans, const Bytes& body = {})
{
    return datagram(id, uint32_t(action) | response_bit, ans, 0, body);
}

// WINS as a station sends it: a query (op 0), a registration (5) or release (6).
Bytes wins_request(uint16_t id, int op, const Bytes& name, const char* ip = nullptr, uint8_t flags = 0)
{
    Bytes rest{0, 0x20, 0, 1};
    if (ip != nullptr) {
        Bytes a = ip_bytes(ip);
        rest.insert(rest.end(), {0xC0, 0x0C, 0, 0x20, 0, 1, 0, 0, 0x0E, 0x10, 0, 6, flags, 0, a[0], a[1], a[2], a[3]});
    }
    return ns_packet(id, uint8_t(op << 3 | 1), 0, {1, 0, 0, uint8_t(ip != nullptr)}, name, {0}, rest);
}

// The positive answer of a station to the agent's name query.
Bytes wins_defence(const Bytes& query, const char* ip)
{
    Bytes p(query.begin(), query.begin() + 46), a = ip_bytes(ip);
    std::fill(p.begin() + 2, p.begin() + 12, 0);
    p[2] = 0x84, p[7] = 1;
    for (uint8_t b : {0, 0x20, 0, 1, 0, 0, 0, 60, 0, 6, 0, 0})
        p.push_back(b);
    p.insert(p.end(), a.begin(), a.end());
    return p;
}

struct WinsAnswer {
    int op = -1, rcode = -1, entries = 0;
    uint32_t ttl = 0;
    std::string ip;
};

WinsAnswer wins_answer(const Bytes& b)
{
    WinsAnswer w;
    if (b.size() < 56 || !(b[2] & 0x80))
        return w;
    const uint8_t* r = b.data() + 46;
    w.op = b[2] >> 3 & 15, w.rcode = b[3] & 15, w.entries = (r[8] << 8 | r[9]) / 6;
    w.ttl = uint32_t(r[4]) << 24 | uint32_t(r[5]) << 16 | uint32_t(r[6]) << 8 | r[7];
    if (w.entries > 0 && b.size() >= 62)
        w.ip = std::to_string(r[12]) + "." + std::to_string(r[13]) + "." + std::to_string(r[14]) + "." +
               std::to_string(r[15]);
    return w;
}

// Sealed as the key's holders seal it: the stamp (microseconds, LSB first), then HMAC-SHA512-256.
const std::string key_path = "/etc/opt/KORRbase/ens.key";
const std::string key_hex = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n";

int64_t now_us() { return std::chrono::system_clock::now().time_since_epoch() / std::chrono::microseconds(1); }

Bytes sealed(Bytes d, int64_t stamp_us = now_us())
{
    uint8_t key[crypto_auth_KEYBYTES], code[crypto_auth_BYTES];
    for (size_t i = 0; i < sizeof key; i++)
        key[i] = uint8_t(i);
    for (int i = 0; i < 8; i++)
        d.push_back(uint8_t(uint64_t(stamp_us) >> (8 * i)));
    crypto_auth(code, d.data(), d.size(), key);
    d.insert(d.end(), code, code + sizeof code);
    return d;
}

// A daemon on a station in a mount namespace of its own, held by a sleeping process.
struct Peer {
    int station = 0;
    pid_t holder = -1, daemon = -1;
    std::string root() const { return "/proc/" + std::to_string(holder) + "/root"; }
    std::string log() const { return lab_read_file(root() + lab_log_path); }
};

class Directory : public ::testing::Test {
protected:
    void SetUp() override
    {
        LAB_SETUP_OR_SKIP(lab, 2);
        if (access(nsenter, X_OK) != 0 || access("/usr/bin/unshare", X_OK) != 0)
            GTEST_SKIP() << "needs nsenter and unshare (util-linux)";
        ASSERT_TRUE(lab.write_config("[agent]\nport 227\n"));
        client = lab.udp_socket(lab_daemon, 0, "127.0.0.1");
        ASSERT_GE(client, 0) << lab.last_error();
    }

    // The agent's user, in the test's mount namespace only.
    void add_agent_user()
    {
        if (!bound.empty())
            return;
        for (agent_id = 999; agent_id > 100 && (getpwuid(agent_id) || getgrgid(agent_id)); agent_id--) {}
        std::string id = std::to_string(agent_id);
        for (const char* f : {"passwd", "group"}) {
            std::string copy = std::string("/var/opt/") + f, real = std::string("/etc/") + f;
            std::string rest = f[0] == 'p' ? ":" + id + "::/nonexistent:/usr/sbin/nologin\n" : ":\n";
            ASSERT_TRUE(lab.write_file(copy, lab_read_file(real) + "_halyard-nda:x:" + id + rest));
            ASSERT_EQ(mount(copy.c_str(), real.c_str(), nullptr, MS_BIND, nullptr), 0) << real;
            bound.push_back(real);
        }
    }

    pid_t start_agent(std::vector<std::string> args = {"-f"})
    {
        add_agent_user();
        args.insert(args.begin(), HALYARD_NDA_BINARY);
        pid_t pid = lab.start(lab_daemon, args);
        EXPECT_GT(pid, 0) << lab.last_error();
        EXPECT_TRUE(lab_wait_for(20, [&] { return Lab::udp_port_bound(pid, 227); }))
            << "the agent does not listen; its log:\n" << lab_read_file(agent_log);
        return pid;
    }

    bool registered(const std::string& name)
    {
        uint32_t id = ++next_id;
        lab.send_to(client, "127.0.0.1", 227, add(id, nb_name(name, 0x20), 0, {"10.1.0.7"}));
        for (Bytes b = from_agent(client, 5.0); !b.empty(); b = from_agent(client, 5.0))
            if (decode(b).id == id)
                return decode(b).ans == 0;
        return false;
    }

    // A daemon on the station, holding the key when the agent does.
    void start_peer(Peer& p, int station, std::vector<std::string> args = {})
    {
        p.station = station;
        p.holder = lab.start(LabSide(station),
                             {"/usr/bin/unshare", "--mount", "--propagation", "private", "/bin/sh", "-c",
                              "for d in /etc/opt /var/opt /opt; do mount -t tmpfs peer $d || exit 1; done;"
                              " mkdir -p /etc/opt/KORRbase /var/opt/KORRbase/rtdb /opt/KORRlibs/lib &&"
                              " touch /var/opt/peer-ready && exec sleep 600"});
        ASSERT_GT(p.holder, 0) << lab.last_error();
        ASSERT_TRUE(lab_wait_for(20, [&] { return access((p.root() + "/var/opt/peer-ready").c_str(), F_OK) == 0; }));
        std::string net = station == 2 ? "10.89.0." : "10.88.0.";
        std::string config = "[realm NB]\ntransport tcpip\n\n[interface tcpip hs" + std::to_string(station - 1) +
                             "]\naddress " + net + "2\nnetmask 255.255.255.0\nbroadcast " + net +
                             "255\n\n[transport tcpip]\nNB-nd-addr " + net + "1\n" +
                             (keyed ? "NB-nd-key " + key_path + "\n" : "");
        ASSERT_TRUE(lab.write_file(p.root() + lab_config_path, config)) << lab.last_error();
        ASSERT_TRUE(!keyed || lab.write_file(p.root() + key_path, key_hex, 0600)) << lab.last_error();
        std::string out;
        ASSERT_EQ(ctl(p, args, &out, halyard_binary()), 0) << out;
        ASSERT_TRUE(lab_wait_for(20, [&] {
            p.daemon = lab_plist_pid(lab_read_file(p.root() + lab_plist_path));
            return p.daemon > 0 && access((p.root() + "/var/opt/KORRbase/ns_serverfifo").c_str(), F_OK) == 0;
        })) << p.log();
    }

    // Daemons on both stations; A adds FILESRV<20>, which the agent and B's daemon then find at A.
    void start_pair(Peer& a, Peer& b, const std::vector<std::string>& a_args = {})
    {
        start_peer(a, 1, a_args);
        start_peer(b, 2);
        std::string out;
        ASSERT_EQ(ctl(a, {"add", "FILESRV<20>"}, &out), 0) << out;
        ASSERT_TRUE(lab_wait_for(30, [&] { return ask_agent(fs) == "10.88.0.2"; })) << a.log();
        ASSERT_EQ(ctl(b, {"lookup", "FILESRV<20>"}, &out), 0) << out;
        EXPECT_NE(out.find("10.88.0.2"), std::string::npos) << out;
    }

    // halyardctl, or another program, in the peer's mount namespace: its wait status.
    int ctl(const Peer& p, std::vector<std::string> args, std::string* out, const std::string& bin = HALYARDCTL_BINARY)
    {
        args.insert(args.begin(), {nsenter, "-t", std::to_string(p.holder), "-m", "--", bin});
        return lab.run(LabSide(p.station), args, out, 60.0);
    }

    Bytes from_agent(int fd, double secs = 10.0) { auto d = lab.recv(fd, secs); return d ? d->bytes : Bytes{}; }

    // The owner's address, "" when the agent knows none, "?" when it does not answer.
    std::string ask_agent(const Bytes& name)
    {
        uint32_t id = ++next_id;
        lab.send_to(client, "127.0.0.1", 227, keyed ? sealed(query(id, name)) : query(id, name));
        for (Bytes b = from_agent(client, 5.0); !b.empty(); b = from_agent(client, 5.0)) {
            Reader r(b);
            r.at = 24;  // past the header and the group flag: the marker, the ip
            if (decode(b).id == id)
                return decode(b).ans < 0 ? "" : r.get_int() != 0 ? r.get_ip() : "?";
        }
        return "?";
    }

    // The agent's last answer past its WACK (op -1: none); its name queries answered for `holder`.
    WinsAnswer wins_ask(int fd, const std::string& agent, const Bytes& req, const char* holder = nullptr)
    {
        uint16_t id = uint16_t(req[0] << 8 | req[1]);
        lab.send_to(fd, agent, 137, req);
        for (auto d = lab.recv(fd, 10.0); d; d = lab.recv(fd, 10.0)) {
            if (holder != nullptr && !(d->bytes[2] & 0x80))
                lab.send_to(fd, d->from, d->port, wins_defence(d->bytes, holder));
            else if (uint16_t(d->bytes[0] << 8 | d->bytes[1]) == id && wins_answer(d->bytes).op != 7)
                return wins_answer(d->bytes);
        }
        return {};
    }

    // Each station reaches the agent's other address through the agent's host, as routed.
    void route_across()
    {
        for (int s = 1; s <= 2; s++)
            ASSERT_EQ(lab.run(LabSide(s), {"/sbin/ip", "route", "add", std::string(Lab::daemon_addr(3 - s)) + "/32",
                                           "via", Lab::daemon_addr(s)}), 0);
    }

    // A program run as postgres: its wait status.
    int as_postgres(const std::vector<std::string>& args, std::string* out = nullptr)
    {
        return lab.run(lab_daemon, args, out, 120.0, pg_uid, pg_gid);
    }

    // A throw-away cluster, unix socket only, its password in a password file of the agent's user.
    std::string start_postgres()
    {
        glob_t g{};
        if (glob("/usr/lib/postgresql/*/bin/", 0, nullptr, &g) == 0 && g.gl_pathc > 0)
            pg_bin = g.gl_pathv[g.gl_pathc - 1];
        globfree(&g);
        passwd* pw = getpwnam("postgres");
        if (pg_bin.empty() || pw == nullptr)
            return "";
        pg_uid = int(pw->pw_uid), pg_gid = int(pw->pw_gid);
        char templ[] = "/tmp/halyard-pg.XXXXXX";
        EXPECT_NE(mkdtemp(templ), nullptr);
        pg_dir = templ;
        EXPECT_TRUE(chown(templ, pw->pw_uid, pw->pw_gid) == 0 && chmod(templ, 0711) == 0);
        std::string out, data = pg_dir + "/data", passfile = "/etc/opt/KORRbase/nda.pgpass";
        EXPECT_TRUE(lab.write_file(pg_dir + "/pw", pg_password + "\n") &&
                    lab.write_file(passfile, "*:*:*:*:" + pg_password + "\n", 0600));
        add_agent_user();
        EXPECT_EQ(chown(passfile.c_str(), agent_id, agent_id), 0);
        EXPECT_EQ(as_postgres({pg_bin + "initdb", "-D", data, "-A", "scram-sha-256", "-U", "postgres", "--pwfile",
                               pg_dir + "/pw"}, &out), 0) << out;
        EXPECT_EQ(as_postgres({pg_bin + "pg_ctl", "-D", data, "-l", pg_dir + "/log", "-w", "-o",
                               "-k " + pg_dir + " -c listen_addresses=''", "start"}, &out), 0) << out;
        return "host=" + pg_dir + " dbname=postgres user=postgres passfile=" + passfile;
    }

    void TearDown() override
    {
        for (const std::string& f : bound)
            umount2(f.c_str(), MNT_DETACH);
        if (pg_dir.empty())
            return;
        // The cluster stopped, its directory of /tmp removed.
        as_postgres({pg_bin + "pg_ctl", "-D", pg_dir + "/data", "-w", "-m", "immediate", "stop"});
        lab.run(lab_daemon, {"/bin/rm", "-rf", "--one-file-system", pg_dir});
    }

    Lab lab;
    int client = -1;
    uint32_t next_id = 1000;
    std::string pg_bin, pg_dir, pg_password = "Sesame-7f3a9c";
    int pg_uid = -1, pg_gid = -1;
    std::vector<std::string> bound;  // files bound over the real ones
    uid_t agent_id = 0;
    bool keyed = false;  // ask_agent seals its queries, the peers hold the key
    const Bytes fs = nb_name("FILESRV", 0x20);
};

// A name stays unique across subnets: refused to B while A holds it, taken back once B is gone.
TEST_F(Directory, NamesReachAcrossSubnetsAndStayUnique)
{
    start_agent();
    Peer a, b;
    ASSERT_NO_FATAL_FAILURE(start_pair(a, b));
    std::string out;
    const Bytes team = nb_name("TEAM", 0x1e);
    ASSERT_EQ(ctl(b, {"add", "FILESRV<20>"}, &out), 0) << out;
    EXPECT_TRUE(lab_wait_for(30, [&] {
        return b.log().find("name already exists on network: filesrv") != std::string::npos &&
               b.log().find("at address 10.88.0.2") != std::string::npos;
    })) << b.log();
    EXPECT_TRUE(lab_wait_for(10, [&] { return ctl(b, {"check", "FILESRV<20>"}, &out) == 1 << 8; })) << out;

    ASSERT_EQ(ctl(a, {"del", "FILESRV<20>"}, &out), 0) << out;
    EXPECT_TRUE(lab_wait_for(30, [&] { return ask_agent(fs).empty(); })) << a.log();
    ASSERT_EQ(ctl(b, {"add", "FILESRV<20>"}, &out), 0) << out;
    EXPECT_TRUE(lab_wait_for(30, [&] { return ask_agent(fs) == "10.89.0.2"; })) << b.log();
    EXPECT_EQ(ctl(b, {"check", "FILESRV<20>"}, &out), 0) << out;

    // Both members known; a lookup gets the one heard of most recently.
    ASSERT_EQ(ctl(a, {"add", "TEAM<1e>", "--group"}, &out), 0) << out;
    ASSERT_TRUE(lab_wait_for(30, [&] { return ask_agent(team) == "10.88.0.2"; })) << a.log();
    ASSERT_EQ(ctl(b, {"add", "TEAM<1e>", "--group"}, &out), 0) << out;
    EXPECT_TRUE(lab_wait_for(30, [&] { return ask_agent(team) == "10.89.0.2"; })) << b.log();
    lab.run(lab_daemon, {HALYARD_NDA_BINARY, "-l", "-j"}, &out);  // the agent may run meanwhile
    EXPECT_NE(out.find("{\"name\":\"TEAM<1e>\",\"group\":true,\"address\":\"10.88.0.2\",\"host\":1,\"seen\":"),
              std::string::npos) << out;
    EXPECT_NE(out.find("{\"name\":\"TEAM<1e>\",\"group\":true,\"address\":\"10.89.0.2\""), std::string::npos) << out;

    // B stops: its ENS port no longer answers the VERIFY, so A's claim wins.
    ASSERT_TRUE(lab.stop_daemon(b.daemon));
    ASSERT_EQ(ctl(a, {"add", "FILESRV<20>"}, &out), 0) << out;
    EXPECT_TRUE(lab_wait_for(30, [&] { return ask_agent(fs) == "10.88.0.2"; })) << a.log();
    EXPECT_EQ(ctl(a, {"check", "FILESRV<20>"}, &out), 0) << out;
}

// Outsiders change nothing; a registrar may not delete A's name nor join A's address (A confirms).
TEST_F(Directory, OnlyRegistrarsChangeAndOnlyOwnersDelete)
{
    ASSERT_TRUE(lab.write_config("[agent]\nport 227\nregistrars 10.88.0.0/24 127.0.0.0/8\n"));
    start_agent();
    Peer a, b;
    ASSERT_NO_FATAL_FAILURE(start_pair(a, b));
    std::string out;
    int outsider = lab.udp_socket(lab_station2, 0, "10.89.0.2");
    int registrar = lab.udp_socket(lab_daemon, 0, "127.0.0.2");
    ASSERT_TRUE(outsider >= 0 && registrar >= 0) << lab.last_error();
    const struct { const char* why; int fd; Bytes request; bool accepted = false; } attempts[] = {
        {"DELETE from outside", outsider, cat({header(1, ndasim::del), name_item(fs), addr_list({"10.88.0.2"})})},
        {"PURGE from outside", outsider, cat({header(2, ndasim::purge), ip_item("10.88.0.2")})},
        {"EQUIV from outside", outsider, cat({header(3, ndasim::equiv), addr_list({"10.89.0.2", "10.88.0.2"})})},
        {"ADD for A's host from outside", outsider, add(4, fs, 0, {"10.89.0.2", "10.88.0.2"})},
        {"A's name again for A by a registrar", registrar, add(5, fs, 0, {"10.88.0.2"}), true},
        {"which still may not delete it: A confirms", registrar,
         cat({header(6, ndasim::del), name_item(fs), addr_list({"10.88.0.2"})})},
        {"ADD joining A's address, A confirms", registrar, add(7, fs, 0, {"127.0.0.2", "10.88.0.2"})},
    };
    for (const auto& t : attempts) {
        SCOPED_TRACE(t.why);
        ASSERT_TRUE(lab.send_to(t.fd, t.fd == outsider ? "10.89.0.1" : "127.0.0.1", 227, t.request));
        Message r = decode(from_agent(t.fd));
        EXPECT_EQ(r.id, decode(t.request).id);
        EXPECT_EQ(r.ans < 0, !t.accepted);
    }
    EXPECT_EQ(ask_agent(fs), "10.88.0.2");
    ASSERT_EQ(ctl(b, {"lookup", "FILESRV<20>"}, &out), 0) << out;
    EXPECT_NE(out.find("10.88.0.2"), std::string::npos) << out;
    EXPECT_NE(lab_read_file(agent_log).find("changes refused to stations outside the registrars"),
              std::string::npos);
    ASSERT_EQ(ctl(a, {"del", "FILESRV<20>"}, &out), 0) << out;  // its own host may
    EXPECT_TRUE(lab_wait_for(30, [&] { return ask_agent(fs).empty(); })) << a.log();
}

// Unsealed, forged, stale and replayed datagrams are dropped by the agent and by a daemon.
TEST_F(Directory, WithAKeyOnlyItsHoldersAreHeard)
{
    ASSERT_TRUE(lab.write_file(key_path, key_hex, 0600));
    ASSERT_TRUE(lab.write_config("[agent]\nport 227\nkey " + key_path + "\n"));
    start_agent({"-f", "-z", "proc=1", "-z", "tracefile=nda.trc"});
    keyed = true;
    Peer a, b;
    ASSERT_NO_FATAL_FAILURE(start_pair(a, b, {"-z", "proc=3"}));
    uint32_t id = next_id += 10;
    Bytes good = sealed(query(id, fs)), wrong = sealed(query(id + 1, fs));
    wrong.back() ^= 1;
    for (const Bytes& d : {good, query(id + 2, fs), wrong, sealed(query(id + 3, fs), now_us() - 60000000), good,
                           sealed(query(id + 4, fs))})
        ASSERT_TRUE(lab.send_to(client, "127.0.0.1", 227, d));
    EXPECT_EQ(decode(from_agent(client)).id, id);
    EXPECT_EQ(decode(from_agent(client)).id, id + 4);
    for (const char* why : {"wrong code", "stamped outside the time window", "seen before"})
        EXPECT_NE(lab.trace("nda.trc").find(std::string("dropped: ") + why), std::string::npos) << why;

    int raw = lab.raw_socket(lab_daemon);
    Bytes verify = sealed(cat({header(7, ndasim::verify), name_item(fs), ip_item("10.88.0.2")})), forged = verify;
    forged.back() ^= 1;
    for (const Bytes& d : {forged, verify})
        ASSERT_TRUE(lab.send_raw_udp(raw, inet_addr("10.88.0.1"), 227, inet_addr("10.88.0.2"), 228, d));
    std::string t, trace = a.root() + "/opt/KORRlibs/halyard.trc";
    ASSERT_TRUE(lab_wait_for(20, [&] { return (t = lab_read_file(trace)).find("verify_req called") != t.npos; }));
    EXPECT_NE(t.find("dropped: wrong code"), std::string::npos) << t;
    EXPECT_EQ(t.find("verify_req called"), t.rfind("verify_req called")) << t;
}

// Detached, what was answered survives a list and kill -9; an error after the fork still gives 1.
// It runs as its own user without capabilities; nobody else reads its files.
TEST_F(Directory, LosesNothingAnsweredWhenListedWhileDetachedAndRunsAsItsOwnUser)
{
    std::string out;
    EXPECT_EQ(lab.run(lab_daemon, {HALYARD_NDA_BINARY, "-f"}, &out), 1 << 8);
    EXPECT_NE(out.find("no system user _halyard-nda to run as"), std::string::npos) << out;
    add_agent_user();
    EXPECT_EQ(lab.run(lab_daemon, {HALYARD_NDA_BINARY, "-d", "/etc/opt/KORRbase/nda.db"}, &out), 1 << 8);
    EXPECT_NE(out.find("user _halyard-nda cannot write in /etc/opt/KORRbase"), std::string::npos) << out;
    ASSERT_TRUE(lab.wait_exit(-1, 20));  // that agent, after its word
    ASSERT_EQ(lab.run(lab_daemon, {HALYARD_NDA_BINARY}, &out), 0) << out << lab_read_file(agent_log);
    lab.run(lab_daemon, {"/usr/bin/pgrep", "-P", std::to_string(getpid()), "-x", "halyard-nda"}, &out);
    pid_t agent = atoi(out.c_str());
    ASSERT_GT(agent, 0) << out;
    for (int i = 0; i < 20; i++) {
        ASSERT_TRUE(registered("KEPT" + std::to_string(i))) << i;
        if (i == 9) {
            ASSERT_EQ(lab.run(lab_daemon, {HALYARD_NDA_BINARY, "-l"}, &out), 0) << out;
        }
    }
    kill(agent, SIGKILL);
    ASSERT_TRUE(lab.wait_exit(agent, 20));
    agent = start_agent();
    for (int i = 0; i < 20; i++)
        EXPECT_EQ(ask_agent(nb_name("KEPT" + std::to_string(i), 0x20)), "10.1.0.7") << i;
    std::string status = lab_read_file("/proc/" + std::to_string(agent) + "/status"), id = std::to_string(agent_id);
    EXPECT_NE(status.find("\nUid:\t" + id + "\t" + id + "\t" + id + "\t" + id + "\n"), std::string::npos) << status;
    for (const char* cap : {"CapInh", "CapPrm", "CapEff", "CapAmb"})
        EXPECT_NE(status.find(std::string("\n") + cap + ":\t0000000000000000\n"), std::string::npos) << status;
    for (const char* f : {"nda/nda.db", "nda/nda.db-wal", "nda/nda.db-shm", "log.nda"})
        EXPECT_NE(lab.run(lab_daemon, {"/bin/cat", std::string("/var/opt/KORRbase/") + f}, &out, 10.0, 65534, 65534), 0)
            << f;
}

// Every request a daemon sends; a repeat gets the first answer again.
TEST_F(Directory, ServesEveryRequestOfTheProtocol)
{
    // A malformed [agent] section: the agent does not start.
    ASSERT_TRUE(lab.write_file("/tmp/bad.vz", "[agent]\nport 0x10\nlisten 10.88.0.1\nlisten 10.88.0.1\ndir /tmp\n"
                                                "registrars 10.1.0.0/16 10.2.0.0/33\nwins 10.88.0.256\n"
                                                "wins-ttl 4\n"));
    std::string out;
    EXPECT_EQ(lab.run(lab_daemon, {HALYARD_NDA_BINARY, "-f", "-c", "/tmp/bad.vz"}, &out), 1 << 8);
    EXPECT_EQ(out, "halyard-nda: /tmp/bad.vz line 2: port: expecting a port number from 1 to 65535\n"
                   "halyard-nda: /tmp/bad.vz line 4: listen already set\n"
                   "halyard-nda: /tmp/bad.vz line 5: dir: not a setting of [agent] (listen, port, directory, registrars, "
                   "key, wins, wins-ttl)\n"
                   "halyard-nda: /tmp/bad.vz line 6: registrars: expecting networks as NET/LEN (at most 64)\n"
                   "halyard-nda: /tmp/bad.vz line 7: wins: expecting one IPv4 address of this host\n"
                   "halyard-nda: /tmp/bad.vz line 8: wins-ttl: expecting seconds from 5 to 604800\n"
                   "halyard-nda: the configuration's [agent] section is malformed: not started\n");
    EXPECT_NE(lab_read_file(agent_log).find("bad.vz line 2: port: expecting"), std::string::npos);
    // Nor with a key that other users can read.
    ASSERT_TRUE(lab.write_file("/tmp/open.key", key_hex, 0644) && lab.write_file("/tmp/key.vz", "[agent]\nkey /tmp/open.key\n"));
    EXPECT_EQ(lab.run(lab_daemon, {HALYARD_NDA_BINARY, "-f", "-c", "/tmp/key.vz"}, &out), 1 << 8);
    EXPECT_EQ(out, "halyard-nda: /tmp/key.vz line 2: key: expecting one file of 64 hexadecimal digits that no other "
                   "user may read (/tmp/open.key is open to other users (mode 0644): make it 0600)\n"
                   "halyard-nda: the key of [agent] cannot be used: not started\n");

    [[maybe_unused]] pid_t agent = start_agent();  // (read only outside sanitized builds)
    int s[3] = {lab.udp_socket(lab_daemon, 228, "127.0.0.2"), lab.udp_socket(lab_daemon, 228, "127.0.0.3"),
                lab.udp_socket(lab_daemon, 228, "127.0.0.4")};
    ASSERT_TRUE(s[0] >= 0 && s[1] >= 0 && s[2] >= 0) << lab.last_error();
    const Bytes FS = nb_name("FS", 0x20), TEAM = nb_name("TEAM", 0x1e);
    const Bytes refused = answer(4, ndasim::add, -1, cat({int_item(1), ip_item("10.1.0.3")}));
    const struct { const char* why; int from; Bytes request, want; } steps[] = {
        {"A's unique name", 0, add(1, FS, 0, {"10.1.0.2"}), {}},
        {"a group name from A", 0, add(2, TEAM, 1, {"10.1.0.2"}), {}},
        {"and from B", 1, add(3, TEAM, 1, {"10.1.0.3"}), {}},
        {"a unique claim of the group is refused unasked", 2, add(4, TEAM, 0, {"10.1.0.4"}), refused},
        {"QUERY of the group: its latest member", 2, query(5, TEAM),
         answer(5, ndasim::query, 0, cat({int_item(1), int_item(1), ip_item("10.1.0.3")}))},
        {"EQUIV joins 10.1.0.5 to A's host", 0, cat({header(6, ndasim::equiv), addr_list({"10.1.0.2", "10.1.0.5"})}), {}},
        {"so A's other address re-registers unasked", 0, add(7, FS, 0, {"10.1.0.5"}), {}},
        {"PURGE of A's host", 2, cat({header(8, ndasim::purge), ip_item("10.1.0.5")}), {}},
        {"its names are gone", 2, query(9, FS), answer(9, ndasim::query, -1)},
        {"DELETE of B's membership", 1, cat({header(10, ndasim::del), name_item(TEAM), addr_list({"10.1.0.3"})}), {}},
        {"C repeats its refused claim: refused again", 2, add(4, TEAM, 0, {"10.1.0.4"}), refused},
        {"with other bytes the same id is a new request", 2, add(4, TEAM, 0, {"10.1.0.6"}), {}},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.why);
        ASSERT_TRUE(lab.send_to(s[step.from], "127.0.0.1", 227, step.request));
        Message r = decode(step.request);
        EXPECT_EQ(from_agent(s[step.from]), step.want.empty() ? answer(r.id, r.action, 0) : step.want);
    }
    // B claims C's unique name: C is asked, denies, and B gets it.
    ASSERT_TRUE(lab.send_to(s[1], "127.0.0.1", 227, add(12, TEAM, 0, {"10.1.0.3"})));
    Message v = decode(from_agent(s[2]));
    EXPECT_EQ(v.raw, cat({header(v.id, ndasim::verify), name_item(TEAM), ip_item("10.1.0.6")}));
    ASSERT_TRUE(lab.send_to(s[2], "127.0.0.1", 227, datagram(v.id, ndasim::verify | response_bit, -1, 3, {})));
    EXPECT_EQ(from_agent(s[1]), answer(12, ndasim::add, 0));
    EXPECT_EQ(ask_agent(TEAM), "10.1.0.3");
    // Counted, and told to root (also as JSON) but not to another user.
    ASSERT_EQ(lab.run(lab_daemon, {HALYARD_NDA_BINARY, "-s"}, &out), 0) << out;
    EXPECT_EQ(lab_counters(out), (std::map<std::string, uint64_t>{
        {"requests_query", 3}, {"requests_add", 8}, {"requests_delete", 1}, {"requests_equiv", 1},
        {"requests_purge", 1}, {"requests_malformed", 0}, {"verify_sent", 1}, {"verify_answers", 1},
        {"refused_outsider", 0}, {"refused_held", 2}, {"commits", 12}, {"wins_queries", 0},
        {"wins_registrations", 0}, {"wins_refreshes", 0}, {"wins_releases", 0}, {"wins_malformed", 0}})) << out;
    std::string json, jq = " -s -j | /usr/bin/jq -r 'to_entries[] | \"\\(.key) \\(.value)\"'";
    ASSERT_EQ(lab.run(lab_daemon, {"/bin/sh", "-c", HALYARD_NDA_BINARY + jq}, &json), 0) << json;
    EXPECT_EQ(lab_counters(json), lab_counters(out)) << json;
    EXPECT_EQ(lab.run(lab_daemon, {HALYARD_NDA_BINARY, "-s"}, &out, 30.0, 65534, 65534), 1 << 8);
    EXPECT_EQ(out, "halyard-nda: the agent refused: only root, its user and its group may ask\n");
    // Claims flooded from C: B gets at most 20 VERIFYs a second and keeps the name.
    for (uint32_t id = 200; id < 300; id++)
        lab.send_to(s[2], "127.0.0.1", 227, add(id, TEAM, 0, {"10.1.0.4"}));
    auto t0 = Clock::now();
    int early = 0;
    for (auto d = lab.recv(s[1], 2.5); d; d = lab.recv(s[1], 2.5)) {
        early += seconds(t0, Clock::now()) < 1.5;
        lab.send_to(s[1], "127.0.0.1", 227, answer(decode(d->bytes).id, ndasim::verify, 0));
    }
    EXPECT_TRUE(early > 0 && early <= 2 * 20) << early;
    EXPECT_EQ(ask_agent(TEAM), "10.1.0.3");

    // A flood of garbage and new names: the agent keeps answering, its resident size bounded.
    uint32_t seed = 7;
    for (int i = 0; i < 20000; i++) {
        Bytes d(i % 2 ? seed % 600 : 0);
        for (uint8_t& b : d)
            b = uint8_t((seed = seed * 1103515245 + 12345) >> 16);
        if (i % 2 == 0)
            d = add(100000 + i, nb_name("F" + std::to_string(i), 0x20), 0, {"10.2.0.9"});
        lab.send_to(s[i % 3], "127.0.0.1", 227, d);
    }
    EXPECT_TRUE(lab_wait_for(60, [&] { return ask_agent(TEAM) == "10.1.0.3"; }));
#ifndef __SANITIZE_ADDRESS__  // (the sanitizer's shadow memory and quarantine are not the agent's)
    std::string status = lab_read_file("/proc/" + std::to_string(agent) + "/status");
    size_t at = status.find("\nVmRSS:");
    ASSERT_NE(at, std::string::npos);
    EXPECT_LE(atol(status.c_str() + at + 7), 32 * 1024) << status.substr(at, 30);
#endif
}


// WINS at the agent's address beside a daemon of the same host, with Samba's nmbd.
TEST_F(Directory, WinsStationsAndDaemonsShareOneDirectory)
{
    if (access(nmbd_bin, X_OK) != 0 || access(nmblookup_bin, X_OK) != 0)
        GTEST_SKIP() << "needs Samba's nmbd and nmblookup (Debian packages samba, samba-common-bin)";
    ASSERT_TRUE(lab.write_config(lab.default_config() + "\n[agent]\nport 227\nwins 10.88.0.1\n"));
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    start_agent();
    Peer b;
    start_peer(b, 2);
    // Samba's nmbd on station 1, its WINS server the agent.
    std::string dir = "/opt/samba", conf = dir + "/smb.conf", dirs, out;
    for (const char* sub : {"", "/lock", "/state", "/cache", "/private", "/pid", "/ncalrpc"})
        EXPECT_EQ(mkdir((dir + sub).c_str(), 0755), 0) << sub;
    for (const char* sub : {"lock", "state", "cache", "pid"})
        dirs += std::string(sub) + " directory = " + dir + "/" + sub + "\n";
    ASSERT_TRUE(lab.write_file(conf,
        "[global]\nnetbios name = SAMBAST\nworkgroup = LABGRP\nserver role = standalone server\n"
        "interfaces = hs0\nbind interfaces only = yes\ndisable netbios = no\nwins server = 10.88.0.1\n"
        "local master = no\ndomain master = no\npreferred master = no\nlog file = " + dir + "/log\n"
        "private dir = " + dir + "/private\nncalrpc dir = " + dir + "/ncalrpc\n" + dirs));
    ASSERT_GT(lab.start(lab_station1, {"/bin/sh", "-c", std::string(nmbd_bin) + " --foreground --no-process-group"
                                       " --debug-stdout -d 3 -s " + conf + " >" + dir + "/out 2>&1"}),
              0) << lab.last_error();
    ASSERT_TRUE(lab_wait_for(60, [&] { return ask_agent(nb_name("SAMBAST", 0x20)) == "10.88.0.2"; }));
    ASSERT_EQ(ctl(b, {"lookup", "SAMBAST<20>"}, &out), 0) << out;
    EXPECT_NE(out.find("10.88.0.2"), std::string::npos) << out;

    ASSERT_EQ(ctl(b, {"add", "HALYB<20>"}, &out), 0) << out;
    auto nmblookup_finds = [&](std::vector<std::string> args, const std::string& want) {
        args.insert(args.begin(), {nmblookup_bin, "-s", conf});
        return lab_wait_for(30, [&] { return lab.run(lab_station1, args, &out) != -1 && out.find(want) != out.npos; });
    };
    EXPECT_TRUE(nmblookup_finds({"-U", "10.88.0.1", "--recursion", "HALYB#20"}, "10.89.0.2 HALYB<20>")) << out;
    ASSERT_EQ(lab.halyardctl({"add", "MIDDLE<20>"}), 0);  // the host's daemon still answers the broadcasts
    EXPECT_TRUE(nmblookup_finds({"-B", "10.88.0.255", "MIDDLE#20"}, "10.88.0.1 MIDDLE<20>")) << out;

    // nmbd defends its name against the daemon's ADD and a WINS station.
    ASSERT_EQ(ctl(b, {"add", "SAMBAST<20>"}, &out), 0) << out;
    EXPECT_TRUE(lab_wait_for(30, [&] {
        return b.log().find("name already exists on network: sambast") != std::string::npos;
    })) << b.log();
    route_across();
    int st = lab.udp_socket(lab_station2, 0), st1 = lab.udp_socket(lab_station1, 0);
    ASSERT_TRUE(st >= 0 && st1 >= 0) << lab.last_error();
    EXPECT_EQ(wins_ask(st, "10.88.0.1", wins_request(1, 5, ns_name("SAMBAST"), "10.89.0.2")).rcode, 6);
    EXPECT_EQ(wins_ask(st, "10.88.0.1", wins_request(2, 0, ns_name("SAMBAST"))).ip, "10.88.0.2");
    // The daemon on B confirms its name (VERIFY) to a WINS station's claim.
    EXPECT_EQ(wins_ask(st1, "10.88.0.1", wins_request(1, 5, ns_name("HALYB"), "10.88.0.2")).rcode, 6);
    EXPECT_EQ(wins_ask(st, "10.88.0.1", wins_request(3, 5, ns_name("OTHER"), "10.89.0.9")).rcode, 5);
    EXPECT_EQ(wins_ask(st, "10.88.0.1", wins_request(4, 5, ns_name("GONE"), "10.89.0.2")).rcode, 0);
    EXPECT_EQ(wins_ask(st, "10.88.0.1", wins_request(5, 6, ns_name("GONE"), "10.89.0.2")).rcode, 0);
    EXPECT_EQ(wins_ask(st, "10.88.0.1", wins_request(6, 0, ns_name("GONE"))).rcode, 3);
    // A group gathers its members: nmbd's and ours.
    EXPECT_EQ(wins_ask(st, "10.88.0.1", wins_request(7, 5, ns_name("LABGRP", 0), "10.89.0.2", 0x80)).rcode, 0);
    EXPECT_EQ(wins_ask(st, "10.88.0.1", wins_request(8, 0, ns_name("LABGRP", 0))).entries, 2);
    ASSERT_EQ(lab.run(lab_daemon, {HALYARD_NDA_BINARY, "-s"}, &out), 0) << out;
    auto counted = lab_counters(out);
    EXPECT_TRUE(counted["wins_registrations"] >= 4 && counted["wins_queries"] >= 3) << out;
    EXPECT_EQ(counted["wins_releases"], 1u) << out;
}

// Two WINS agents on one database: a name raced at both goes to one station; lapses; bounds.
TEST_F(Directory, TwoWinsAgentsOnOneDatabaseGiveANameToOneStationAndKeepItsPassword)
{
    std::string connection = start_postgres(), out;
    if (connection.empty())
        GTEST_SKIP() << "needs PostgreSQL's server programs and its postgres user (package postgresql)";
    for (int a = 1; a <= 2; a++) {
        std::string conf = "/etc/opt/KORRbase/agent" + std::to_string(a) + ".vz";
        ASSERT_TRUE(lab.write_file(conf, "[agent]\nport " + std::to_string(a * 1000 + 227) + "\nwins " +
                                             Lab::daemon_addr(a) + "\nwins-ttl 5\n"));
        ASSERT_GT(lab.start(lab_daemon, {HALYARD_NDA_BINARY, "-f", "-c", conf, "-d", connection}), 0);
        ASSERT_TRUE(lab_wait_for(30, [&] {
            return lab_read_file(agent_log).find(std::string("WINS at ") + Lab::daemon_addr(a)) != std::string::npos;
        })) << lab_read_file(agent_log);
    }
    route_across();
    int st[2] = {lab.udp_socket(lab_station1, 137), lab.udp_socket(lab_station2, 137)};
    ASSERT_TRUE(st[0] >= 0 && st[1] >= 0) << lab.last_error();
    EXPECT_EQ(wins_ask(st[0], "10.88.0.1", wins_request(1, 5, ns_name("SHARED"), "10.88.0.2")).rcode, 0);
    EXPECT_EQ(wins_ask(st[1], "10.89.0.1", wins_request(2, 0, ns_name("SHARED"))).ip, "10.88.0.2");

    constexpr int names = 10;
    std::map<int, int> given;
    std::set<int> answered;  // station * names + name
    auto deadline = Clock::now() + std::chrono::seconds(60), repeat = Clock::now();
    while (answered.size() < 2 * names && Clock::now() < deadline) {
        for (int i = 0; i < names && Clock::now() >= repeat; i++)
            for (int s = 0; s < 2; s++)
                if (!answered.count(s * names + i))
                    lab.send_to(st[s], Lab::daemon_addr(s + 1), 137,
                                wins_request(uint16_t(100 + i), 5, ns_name(("RACE" + std::to_string(i)).c_str()),
                                             Lab::station_addr(s + 1)));
        if (Clock::now() >= repeat)
            repeat = Clock::now() + std::chrono::seconds(2);
        for (int s = 0; s < 2; s++) {
            auto d = lab.recv(st[s], 0.01);
            if (d && !(d->bytes[2] & 0x80)) {
                lab.send_to(st[s], d->from, d->port, wins_defence(d->bytes, Lab::station_addr(s + 1)));
            } else if (WinsAnswer w = d ? wins_answer(d->bytes) : WinsAnswer{};
                       w.op == 5 && answered.insert(s * names + d->bytes[1] - 100).second) {
                given[d->bytes[1] - 100] += w.rcode == 0 ? 1 : 0;
            }
        }
    }
    ASSERT_EQ(answered.size(), size_t(2 * names));
    for (int i = 0; i < names; i++)
        EXPECT_EQ(given[i], 1) << "RACE" << i;

    WinsAnswer w = wins_ask(st[1], "10.89.0.1", wins_request(1, 5, ns_name("LAPSE"), "10.89.0.2"));
    EXPECT_EQ(w.rcode, 0);
    EXPECT_EQ(w.ttl, 5u);
    EXPECT_EQ(wins_ask(st[0], "10.88.0.1", wins_request(2, 5, ns_name("KEPT"), "10.88.0.2")).rcode, 0);
    uint16_t id = 3;
    EXPECT_TRUE(lab_wait_for(15, [&] {
        wins_ask(st[0], "10.88.0.1", wins_request(id++, 8, ns_name("KEPT"), "10.88.0.2"));
        return wins_ask(st[0], "10.88.0.1", wins_request(id++, 0, ns_name("LAPSE"))).rcode == 3;
    }));
    EXPECT_EQ(wins_ask(st[1], "10.89.0.1", wins_request(id++, 0, ns_name("KEPT"))).ip, "10.88.0.2");

    // One station challenges at most 8 holders at once.
    auto held = [](int i) { return ns_name(("HELD" + std::to_string(i)).c_str()); };
    for (int i = 0; i < 12; i++)
        ASSERT_EQ(wins_ask(st[0], "10.88.0.1", wins_request(uint16_t(200 + i), 5, held(i), "10.88.0.2")).rcode, 0);
    for (int i = 0; i < 12; i++)
        lab.send_to(st[1], "10.89.0.1", 137, wins_request(uint16_t(300 + i), 5, held(i), "10.89.0.2"));
    EXPECT_EQ(lab.collect(st[1], 12, 3.0, [](const Bytes& b) { return wins_answer(b).op == 7; }).size(), 8u);

    // The password stays out of the process list and the log.
    pid_t agent = start_agent({"-f", "-d", connection});
    ASSERT_TRUE(registered("PGNAME"));
    EXPECT_EQ(ask_agent(nb_name("PGNAME", 0x20)), "10.1.0.7");
    EXPECT_EQ(lab_read_file("/proc/" + std::to_string(agent) + "/cmdline").find(pg_password), std::string::npos);
    for (const std::string& bad : {"host=/tmp dbname=postgres password=" + pg_password,
                                   "postgresql://postgres:" + pg_password + "@localhost/postgres",
                                   "dbname=postgres " + pg_password}) {
        EXPECT_EQ(lab.run(lab_daemon, {HALYARD_NDA_BINARY, "-f", "-p", "3227", "-d", bad}, &out), 1 << 8) << bad;
        EXPECT_EQ(out.find(pg_password), std::string::npos) << out;
    }
    EXPECT_NE(out.find("not a PostgreSQL connection"), std::string::npos) << out;
    std::string log = lab_read_file(agent_log);
    EXPECT_NE(log.find("a password in the connection is refused"), std::string::npos) << log;
    EXPECT_EQ(log.find(pg_password), std::string::npos) << log;
}

}  // namespace
