// Local clients as careless or hostile users may be, a relay or daemon
// killed, a link planted where root writes. After each, a legitimate
// unprivileged halyardctl is answered, and so is a station's query.

#include "tests/support/lab.h"
#include "tests/support/nswire.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "client/nsclient.h"
#include "shr/vzpoll.h"
#include "src/dorequest.h"

namespace {

constexpr int kNobody = 65534;  // nobody and nogroup
constexpr const char* kServer = "/var/opt/KORRbase/ns_serverfifo";
constexpr const char* kClient = "/var/opt/KORRbase/ns_clientfifo";
constexpr const char* kLock = "/var/opt/KORRbase/lock.name";

std::string header(uint32_t op, uint32_t xid, int32_t len, int32_t more = 0)
{
    ns_hdr h{};
    memcpy(h.magic, NS_MAGIC, sizeof h.magic);
    h.len = len, h.xid = xid, h.op = op, h.more = more;
    return std::string(reinterpret_cast<const char*>(&h), sizeof h);
}

std::string lookup(uint32_t xid, const std::string& name, int32_t more = 0)
{
    Bytes n = ns_name(name.c_str());
    return header(NS_LOOKUP, xid, int32_t(n.size()), more) + std::string(n.begin(), n.end());
}

bool put(int fd, const std::string& bytes) { return write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size()); }

// The FIFOs and the lock: their modes, and their group unless gid is -1.
void expect_modes(mode_t server, mode_t client, mode_t lock, gid_t gid = gid_t(-1))
{
    const struct { const char* path; mode_t mode; } files[] = {{kServer, server}, {kClient, client}, {kLock, lock}};
    for (const auto& f : files) {
        struct stat st;
        ASSERT_EQ(stat(f.path, &st), 0) << f.path;
        EXPECT_EQ(st.st_mode & 0777, f.mode) << f.path;
        EXPECT_TRUE(gid == gid_t(-1) || st.st_gid == gid) << f.path;
    }
}


// A client as nobody: runs `act` on the server FIFO and the answer FIFO (never
// read), says so on `ready`, then holds both until killed; its pid.
pid_t intruder(const std::function<bool(int, int)>& act, int ready)
{
    pid_t pid = fork();
    if (pid == 0) {
        int fd = -1, answers = -1;
        if (lab_become(kNobody, kNobody) &&
            (fd = open(kServer, O_WRONLY)) >= 0 && (answers = open(kClient, O_RDONLY | O_NONBLOCK)) >= 0 &&
            act(fd, answers) && write(ready, "r", 1) == 1)
            sleep(60);
        _exit(0);
    }
    return pid;
}

class Clients : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 1); }
    // Adds SHARED<20> as nobody and waits until its claim has ended.
    void start_serving(const std::vector<std::string>& args = {})
    {
        ASSERT_GT(lab.start_daemon(args), 0) << lab.last_error();
        std::string out;
        ASSERT_EQ(lab.halyardctl({"add", "SHARED<20>"}, &out, kNobody, kNobody), 0) << out;
        station = lab.udp_socket(lab_station1, 0);
        ASSERT_GE(station, 0) << lab.last_error();
        ASSERT_TRUE(query_answered());
    }

    bool query_answered()
    {
        Bytes q = ns_packet(0x4242, 0x01, 0x10, {1, 0, 0, 0}, ns_name("SHARED"), {0}, {0, 0x20, 0, 1});
        for (int i = 0; i < 20; i++) {
            if (!lab.send_to(station, "10.88.0.1", 137, q))
                return false;
            auto a = lab.recv(station, 0.5);
            if (a && a->bytes.size() > 3 && (a->bytes[2] & 0x80) != 0)
                return true;
        }
        return false;
    }

    // The network, and another user's lookup and listing, are answered,
    // each within 2 s.
    void expect_served(const char* after)
    {
        SCOPED_TRACE(after);
        EXPECT_TRUE(query_answered());
        std::string out;
        EXPECT_EQ(lab.halyardctl({"--timeout", "2", "--json", "lookup", "SHARED<20>"}, &out), 0) << out;
        EXPECT_EQ(out, "{\"status\":0,\"name\":\"SHARED<20>\",\"address\":\"10.88.0.1\",\"group\":false}\n");
        EXPECT_EQ(lab.halyardctl({"--timeout", "2", "list"}, &out), 0) << out;
    }

    pid_t relay_of(pid_t daemon)
    {
        std::string d = std::to_string(daemon);
        return pid_t(atoi(lab_read_file("/proc/" + d + "/task/" + d + "/children").c_str()));
    }

    Lab lab;
    int station = -1;
};

TEST_F(Clients, NothingAClientWritesOrLeavesUnreadStopsTheService)
{
    start_serving({"-n"});
    expect_modes(0622, 0644, 0666);  // any local user is a client

    // 7,000 names: their listing is more than the answer FIFO and the
    // daemon's pipe to the relay hold together.
    NscConn conn;
    nsc_setup(&conn, nullptr, 20);
    for (int i = 0; i < 7000; ++i) {
        uint8_t name[16];
        int32_t status = -1;
        ASSERT_EQ(nsc_strtonb(name, ("NAME" + std::to_string(10000 + i) + "<20>").c_str()), 0);
        ASSERT_TRUE(nsc_addname(&conn, name, 0, &status) == 0 && status == 0) << i << ": " << conn.why;
    }

    const struct {
        const char* why;
        std::function<bool(int, int)> act;
    } cases[] = {
        {"one byte", [](int fd, int) { return put(fd, "a"); }},
        {"a header split across two writes a second apart",
         [](int fd, int) {
             std::string head = header(NS_NBSCOPE, 1, 0);
             bool ok = put(fd, head.substr(0, 5));
             sleep(1);
             return ok && put(fd, head.substr(5));
         }},
        {"garbage without a magic", [](int fd, int) { return put(fd, std::string(100, 'x')); }},
        {"a header announcing data that never comes", [](int fd, int) { return put(fd, header(NS_ADDNAME, 2, 100)); }},
        {"a chain of 16 lookups of unknown names",
         [](int fd, int) {
             std::string chain;
             for (int i = 0; i < 16; i++)
                 chain += lookup(4, "UNKNOWN" + std::to_string(i), i < 15);
             return put(fd, chain);
         }},
        {"200 lookups of unknown names, never read",
         [](int fd, int) {
             std::string all;
             for (int i = 0; i < 200; i++)
                 all += lookup(1000 + i, "UNKNOWN" + std::to_string(i));
             return put(fd, all);
         }},
        {"3,000 headers marked more",
         [](int fd, int) {
             for (int i = 0; i < 3000; i++)
                 if (!put(fd, header(NS_NBSCOPE, 3, 0, 1)))
                     return false;
             return true;
         }},
        {"a listing of 7,001 names that nobody reads",
         [](int fd, int answers) {
             if (!put(fd, header(NS_LISTNAME, 7, 0)))
                 return false;
             // Ready once the answer FIFO is full: the rest is then the daemon's.
             int held = 0;
             for (int i = 0; i < 200 && held < 16 * 4036; i++) {
                 poll(nullptr, 0, 100);
                 ioctl(answers, FIONREAD, &held);
             }
             return held >= 16 * 4036;
         }},
    };
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    for (const auto& c : cases) {
        pid_t in = intruder(c.act, ready[1]);
        pollfd p{ready[0], POLLIN, 0};
        char r;
        EXPECT_TRUE(poll(&p, 1, 60000) == 1 && read(ready[0], &r, 1) == 1) << c.why;
        expect_served(c.why);
        kill(in, SIGKILL);
        waitpid(in, nullptr, 0);
    }

    // With the daemon stopped, nobody fills its pipe with lookups, then
    // writes a request of 4,090 data bytes holding another, then a check.
    // The long one is refused by the relay, so that no message reaches the
    // pipe in pieces; the check is answered; the request inside is not run.
    int answers = open(kClient, O_RDONLY | O_NONBLOCK);
    ASSERT_GE(answers, 0);
    pid_t daemon = lab.registered_pid();
    ASSERT_EQ(kill(daemon, SIGSTOP), 0);
    pid_t in = intruder([](int fd, int) {
        std::string fill, data = std::string(100, 'x') + header(NS_ADDNAME, 6, 20) + "FORGED              ";
        for (int i = 0; i < 1600; i++)   // 64,000 bytes of the pipe's 65,536
            fill += lookup(5, "UNKNOWN" + std::to_string(i));
        data.resize(4090, 'x');
        return put(fd, fill) && put(fd, header(NS_NBSCOPE, 7, 4090) + data) && put(fd, lookup(8, "SHARED"));
    }, ready[1]);
    Bytes got;
    auto answered = [&](uint32_t xid) -> std::string {  // the next answer to xid: "op len status"
        for (int64_t end = vz_now_ms() + 10000; vz_now_ms() < end;) {
            uint8_t b[65536];
            pollfd p{answers, POLLIN, 0};
            poll(&p, 1, 100);
            ssize_t n = read(answers, b, sizeof b);
            got.insert(got.end(), b, b + std::max<ssize_t>(n, 0));
            for (NsFramed f = ns_frame(got, NS_MAXDATA); f.kind != NsFrame::need; f = ns_frame(got, NS_MAXDATA)) {
                ns_hdr h;
                int32_t status = 0;
                memcpy(&h, got.data(), NS_HDRSIZE);
                memcpy(&status, got.data() + NS_HDRSIZE, f.kind == NsFrame::whole && h.len >= 4 ? 4 : 0);
                got.erase(got.begin(), got.begin() + long(f.n));
                if (f.kind == NsFrame::whole && h.xid == xid)
                    return std::to_string(h.op) + " " + std::to_string(h.len) + " " + std::to_string(status);
            }
        }
        return "none";
    };
    EXPECT_EQ(answered(7), "4104 4 -1") << "NS_NBSCOPE refused";
    kill(daemon, SIGCONT);
    EXPECT_EQ(answered(8), "4100 72 0") << "the lookup of SHARED";
    std::string out;
    EXPECT_EQ(lab.halyardctl({"check", "FORGED<20>"}, &out), 1) << out;
    kill(in, SIGKILL);
    waitpid(in, nullptr, 0);
    close(answers), close(ready[0]), close(ready[1]);
    // Each drop left its line in the relay's trace.
    std::string trace = lab.trace("ntf.trc");
    for (const char* line : {"ntf_take: 1 bytes without a header skipped\n",
                             "ntf_take: 100 bytes without a header skipped\n", "ntf_take: header 00000002 dropped",
                             "ntf_process: request of more than 16 parts or 16384 bytes dropped\n",
                             "ntf_process: request 00000007 of 4090 data bytes refused\n"})
        EXPECT_NE(trace.find(line), std::string::npos) << line;
}

// One client's 50 checked requests: 0, or the failing request's number.
int client_run(int index)
{
    NscConn c;
    nsc_setup(&c, nullptr, 60);
    char text[32];
    uint8_t own[16], other[16];
    snprintf(text, sizeof text, "client%02d<20>", index);
    int32_t status = -1;
    if (nsc_strtonb(own, text) != 0 || nsc_addname(&c, own, 0, &status) != 0 || status != 0)
        return 1;
    for (int r = 1; r < 49; ++r) {
        // Its own name, or a name nobody holds, different for every request.
        snprintf(text, sizeof text, "c%02dr%02d<20>", index, r);
        NscCheck ck;
        bool mine = r % 2 == 1;
        if (nsc_strtonb(other, text) != 0 || nsc_ckname(&c, mine ? own : other, &ck) != 0 ||
            ck.status != (mine ? 0 : NSC_NOTFOUND) || (mine && memcmp(ck.name, own, 16) != 0))
            return r + 1;
    }
    return nsc_delname(&c, own, &status) == 0 && status == 0 ? 0 : 50;
}

TEST_F(Clients, ClientsThatDieOrCrowdInGetOnlyTheirOwnAnswers)
{
    pid_t pid = lab.start_daemon();
    ASSERT_GT(pid, 0) << lab.last_error();
    std::string out;
    ASSERT_EQ(lab.halyardctl({"add", "mine<20>"}, &out), 0) << out;

    // A client killed while its lookup (answered after 5 s) is under way:
    // the late answer comes while the next client waits for its own.
    int watch = lab.udp_socket(lab_station1, 137);
    ASSERT_GE(watch, 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        NscConn c;
        nsc_setup(&c, nullptr, 30);
        uint8_t name[16];
        NscLookup l;
        _exit(nsc_strtonb(name, "nobody<20>") == 0 && nsc_lookup(&c, name, &l) == 0 ? 0 : 1);
    }
    // Its request is in the daemon once the query goes on the wire.
    Bytes enc = wire_name(ns_name("nobody"));
    bool seen = false;
    for (auto d = lab.recv(watch, 20.0); d && !seen; d = seen ? d : lab.recv(watch, 20.0))
        seen = d->bytes.size() > 12 + enc.size() && d->bytes[2] == 0x01 &&
               Bytes(d->bytes.begin() + 12, d->bytes.begin() + 12 + long(enc.size())) == enc;
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ASSERT_TRUE(seen) << "the lookup's query was not seen";
    EXPECT_EQ(lab.halyardctl({"check", "mine<20>"}, &out), 0) << out;
    EXPECT_NE(out.find("mine"), std::string::npos) << out;
    EXPECT_EQ(lab.halyardctl({"check", "nobody<20>"}, &out), 1) << out;

    // A client that wrote its request and left: its answer waits in the
    // client FIFO when the next client comes.
    int to = open(kServer, O_WRONLY | O_NONBLOCK), from = open(kClient, O_RDWR | O_NONBLOCK);
    ASSERT_TRUE(put(to, header(NS_LISTNAME, 0x5a5a5a5a, 0)));
    pollfd p{from, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 20000), 1) << "no answer came into the client FIFO";
    close(to), close(from);
    EXPECT_EQ(lab.halyardctl({"scope"}, &out), 0) << out;
    EXPECT_EQ(lab.halyardctl({"check", "mine<20>"}, &out), 0) << out;

    // Twenty clients at once, each with fifty requests.
    std::vector<pid_t> kids;
    for (int i = 0; i < 20; ++i) {
        kids.push_back(fork());
        if (kids.back() == 0)
            _exit(client_run(i));
    }
    // Meanwhile a burst of the relay's interrupt and of alarms from two
    // senders, however close together, only wakes the loop.
    pid_t sender = fork();
    for (int i = 0; i < 100000; ++i)
        kill(pid, i % 2 ? SIGINT : SIGALRM);
    if (sender == 0)
        _exit(0);
    EXPECT_TRUE(sender > 0 && waitpid(sender, nullptr, 0) == sender);
    for (size_t i = 0; i < kids.size(); ++i) {
        int st = -1;
        EXPECT_TRUE(kids[i] > 0 && waitpid(kids[i], &st, 0) == kids[i] && WIFEXITED(st) && WEXITSTATUS(st) == 0)
            << "client " << i << ": " << lab_describe_status(st);
    }
    EXPECT_EQ(lab.halyardctl({"list"}, &out), 0) << out;
    EXPECT_EQ(out.find("client"), std::string::npos) << out;
    EXPECT_EQ(lab.registered_pid(), pid);
}

TEST_F(Clients, AKilledRelayOrDaemonIsToldToClientsAndReplaced)
{
    start_serving();
    pid_t pid = lab.registered_pid();
    pid_t relay = relay_of(pid);
    ASSERT_GT(relay, 0);
    // An answer of the wrong size, written into the answer FIFO while the
    // relay and the daemon are held still, is refused, not read as a status.
    ASSERT_TRUE(kill(pid, SIGSTOP) == 0 && kill(relay, SIGSTOP) == 0);
    int requests = open(kServer, O_RDONLY | O_NONBLOCK), answers = open(kClient, O_RDWR | O_NONBLOCK);
    std::string out;
    std::thread asking([&] { EXPECT_EQ(lab.halyardctl({"--timeout", "5", "add", "ODD<20>"}, &out), 3); });
    pollfd p{requests, POLLIN, 0};
    ns_hdr h{};
    char req[4096];
    EXPECT_TRUE(poll(&p, 1, 10000) == 1 && read(requests, req, sizeof req) >= ssize_t(sizeof h));
    memcpy(&h, req, sizeof h);
    EXPECT_TRUE(put(answers, header(h.op | NS_RESPONSE, h.xid, 6) + "xxxxxx"));
    asking.join();
    EXPECT_NE(out.find("malformed answer from the name server: not one status word (len 6)"), std::string::npos) << out;
    close(requests), close(answers);
    ASSERT_EQ(kill(relay, SIGCONT), 0);
    // Held still, the daemon cannot replace a killed relay yet: the client is told.
    ASSERT_EQ(kill(relay, SIGKILL), 0);
    EXPECT_EQ(lab.halyardctl({"--timeout", "3", "lookup", "SHARED<20>"}, &out, kNobody, kNobody), 3) << out;
    EXPECT_NE(out.find("runs (pid " + std::to_string(pid) + ") but its request relay does not"), std::string::npos)
        << out;
    ASSERT_EQ(kill(pid, SIGCONT), 0);
    EXPECT_TRUE(lab.wait_log("Halyard: notifier process ended; starting a new one")) << lab.log();
    EXPECT_NE(relay_of(pid), relay);
    expect_served("kill -9 of the relay");

    // An orderly stop hangs the relay up; it removes the FIFOs.
    ASSERT_TRUE(lab.stop_daemon(pid));
    ASSERT_TRUE(lab.wait_exit(-1, 20.0)) << "the relay did not end";
    EXPECT_TRUE(lab_wait_for(20.0, [] { return access(kServer, F_OK) != 0; }));
    EXPECT_TRUE(lab_wait_for(20.0, [] { return access(kClient, F_OK) != 0; }));

    // Killed outright: the registration names the dead process.
    pid = lab.start_daemon();
    ASSERT_GT(pid, 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"add", "keep<20>"}), 0);
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    ASSERT_TRUE(lab.wait_exit(pid, 20.0));
    EXPECT_EQ(lab.registered_pid(), pid);
    // The next request ends the relay (its pipe to the daemon is broken).
    EXPECT_EQ(lab.halyardctl({"--timeout", "3", "list"}, &out), 3) << out;
    ASSERT_TRUE(lab.wait_exit(-1, 20.0)) << "the relay did not end";
    EXPECT_TRUE(access(kServer, F_OK) != 0 && access(kClient, F_OK) != 0) << "the relay left its FIFOs";
    EXPECT_EQ(lab.halyardctl({"--json", "list"}, &out), 3) << out;
    EXPECT_NE(out.find("{\"error\":\"the name server is not running (no /var/opt/KORRbase/ns_serverfifo)\"}\n"),
              std::string::npos) << out;
    // A new start takes over the stale registration and serves.
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    EXPECT_EQ(lab.halyardctl({"list"}, &out), 0) << out;
    EXPECT_EQ(out.find("keep"), std::string::npos) << out;
    EXPECT_EQ(lab.halyardctl({"add", "fresh<20>"}, &out), 0) << out;
    EXPECT_EQ(lab.log().find("pid lock"), std::string::npos) << lab.log();
    EXPECT_EQ(lab.log().find("database error"), std::string::npos) << lab.log();
}

// Links planted where root appends or rewrites: the file behind them stays
// as it was, and the log says why.
TEST_F(Clients, RootFollowsNoLinkPlantedInTheAdministrativeUsersDirectories)
{
    const char* victim = "/etc/opt/KORRbase/victim";
    const struct {
        const char *link, *named;  // as the log names it
        std::vector<std::string> args;
    } cases[] = {
        {"/opt/KORRlibs/halyard.trc", "halyard.trc", {"-z", "proc=9"}},
        {"/opt/KORRlibs/ntf.trc", "ntf.trc", {"-n"}},
        {lab_plist_path, lab_plist_path, {}},  // without its registration the daemon cannot run
    };
    ASSERT_EQ(mkdir("/var/opt/KORRbase/rtdb/realm=NB", 0775), 0);
    ASSERT_EQ(mkdir("/var/opt/KORRbase/rtdb/realm=NB/program=Halyard", 0775), 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.named);
        ASSERT_TRUE(lab.write_file(victim, "precious\n", 0600));
        unlink(c.link);
        ASSERT_EQ(symlink(victim, c.link), 0);
        if (c.link != lab_plist_path) {
            start_serving(c.args);
            expect_served(c.named);
            EXPECT_TRUE(lab.stop_daemon(lab.registered_pid()));
        } else {
            EXPECT_EQ(lab.launch(c.args), 0);
            EXPECT_TRUE(lab.wait_exit(-1, 20.0));
        }
        EXPECT_TRUE(lab.wait_log(std::string("Halyard: refusing to write ") + c.named + ": a symbolic link"))
            << lab.log();
        EXPECT_EQ(lab_read_file(victim), "precious\n");
        struct stat st;
        EXPECT_TRUE(lstat(c.link, &st) == 0 && S_ISLNK(st.st_mode));
        unlink(c.link);
    }
}

TEST_F(Clients, AClientGroupKeepsTheFifosAndTheLockForItsMembers)
{
    ASSERT_TRUE(lab.write_config(lab.default_config() + "[realm NB]\nclient-group nogroup\n"));
    start_serving();  // halyardctl as nobody, of group nogroup
    expect_modes(0620, 0640, 0660, gid_t(kNobody));
    // A user outside the group is kept out.
    std::string out;
    EXPECT_EQ(lab.halyardctl({"--timeout", "3", "lookup", "SHARED<20>"}, &out, kNobody, 1), 3) << out;
    EXPECT_NE(out.find("Permission denied"), std::string::npos) << out;
    expect_served("a member of the group");
}

}  // namespace
