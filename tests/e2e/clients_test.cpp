// Local clients as a careless or hostile user of the machine may be: what
// they write into the FIFOs, a client that never reads, a relay that is
// killed, links planted where the super-user writes. After each, a
// legitimate halyardctl run by an unprivileged user is answered, and so is a
// station's name query.

#include "tests/support/lab.h"

#include <gtest/gtest.h>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "src/dorequest.h"

namespace {

constexpr int kNobody = 65534;  // nobody and nogroup
constexpr const char* kServer = "/var/opt/KORRbase/ns_serverfifo";
constexpr const char* kClient = "/var/opt/KORRbase/ns_clientfifo";
constexpr const char* kLock = "/var/opt/KORRbase/lock.name";
constexpr const char* kVictim = "/etc/opt/KORRbase/victim";

std::string header(uint32_t op, uint32_t xid, int32_t len, int32_t more = 0)
{
    ns_hdr h{};
    memcpy(h.magic, NS_MAGIC, sizeof h.magic);
    h.len = len;
    h.xid = xid;
    h.op = op;
    h.more = more;
    return std::string(reinterpret_cast<const char*>(&h), sizeof h);
}

bool put(int fd, const std::string& bytes)
{
    return write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size());
}

// The RFC 1002 name query of "SHARED<20>" (the name is written out encoded).
std::vector<uint8_t> shared_query()
{
    std::vector<uint8_t> q{0x42, 0x42, 0x01, 0x10, 0, 1, 0, 0, 0, 0, 0, 0, 32};
    std::string padded = "SHARED         ";
    padded += '\x20';
    for (unsigned char c : padded) {
        q.push_back(uint8_t('A' + (c >> 4)));
        q.push_back(uint8_t('A' + (c & 15)));
    }
    q.insert(q.end(), {0, 0x00, 0x20, 0x00, 0x01});
    return q;
}

// A client process as the user nobody: it runs `act` on the server FIFO
// (and the answer FIFO, which it opens but never reads) and then holds its descriptors until released (or 60 s), as a stalled writer
// or a reader that never reads would.
struct Intruder {
    pid_t pid = -1;
    int release = -1;
    int ready = -1;

    explicit Intruder(const std::function<bool(int, int)>& act)
    {
        int rel[2], rdy[2];
        if (pipe(rel) != 0 || pipe(rdy) != 0)
            return;
        pid = fork();
        if (pid == 0) {
            close(rel[1]);
            close(rdy[0]);
            if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)
                _exit(2);
            int fd = open(kServer, O_WRONLY);
            int answers = open(kClient, O_RDONLY | O_NONBLOCK);  // and never read
            if (fd < 0 || answers < 0 || !act(fd, answers))
                _exit(3);
            if (write(rdy[1], "r", 1) != 1)
                _exit(4);
            pollfd p{rel[0], POLLIN, 0};
            poll(&p, 1, 60000);
            _exit(0);
        }
        close(rel[0]);
        close(rdy[1]);
        release = rel[1];
        ready = rdy[0];
    }
    bool wait_ready()
    {
        pollfd p{ready, POLLIN, 0};
        char c;
        return poll(&p, 1, 60000) == 1 && read(ready, &c, 1) == 1;
    }
    int end()
    {
        close(release);
        close(ready);
        int st = -1;
        if (waitpid(pid, &st, 0) != pid)
            return -1;
        return st;
    }
};

class Clients : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 1); }

    // Adds SHARED<20> as nobody and waits until a station's query for it is
    // answered (its claim has ended).
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
        for (int i = 0; i < 20; i++) {
            if (!lab.send_to(station, "10.88.0.1", 137, shared_query()))
                return false;
            auto a = lab.recv(station, 0.5);
            if (a && a->bytes.size() > 3 && (a->bytes[2] & 0x80) != 0)
                return true;
        }
        return false;
    }

    // The network, and a legitimate client as nobody, are both answered.
    void expect_served(const char* after)
    {
        SCOPED_TRACE(after);
        EXPECT_TRUE(query_answered());
        std::string out;
        EXPECT_EQ(lab.halyardctl({"--timeout", "10", "lookup", "SHARED<20>"}, &out, kNobody, kNobody), 0)
            << out;
        EXPECT_NE(out.find("10.88.0.1"), std::string::npos) << out;
    }

    // Adds n names NAME10000<20>... through the FIFOs, taking every answer.
    void add_names(int n)
    {
        int to = open(kServer, O_WRONLY);
        int from = open(kClient, O_RDONLY | O_NONBLOCK);
        ASSERT_TRUE(to >= 0 && from >= 0);
        // A relay that ended would end this process with the broken-pipe
        // signal: a failed write says it instead, with the log.
        sigset_t pipe_set;
        sigemptyset(&pipe_set);
        sigaddset(&pipe_set, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_set, nullptr);
        size_t answered = 0;
        char buf[8192];
        auto take = [&] {
            for (ssize_t r; (r = read(from, buf, sizeof buf)) > 0;)
                answered += size_t(r);
        };
        for (int i = 0; i < n; i++) {
            std::string name = "NAME" + std::to_string(10000 + i);
            name.resize(15, ' ');
            name += '\x20';
            std::string req = header(NS_ADDNAME, uint32_t(i), 20) + name + std::string(4, '\0');
            ASSERT_TRUE(put(to, req)) << i << ": " << strerror(errno) << "\n" << lab.log();
            if (i % 100 == 99)
                take();
        }
        for (int i = 0; i < 600 && answered < size_t(n) * (24 + 4); i++) {
            take();
            poll(nullptr, 0, 100);
        }
        EXPECT_EQ(answered, size_t(n) * (24 + 4));
        close(to);
        close(from);
        pthread_sigmask(SIG_UNBLOCK, &pipe_set, nullptr);
    }

    pid_t relay_of(pid_t daemon)
    {
        std::string kids = lab_read_file("/proc/" + std::to_string(daemon) + "/task/" + std::to_string(daemon) +
                                         "/children");
        return pid_t(atoi(kids.c_str()));
    }

    Lab lab;
    int station = -1;
};

TEST_F(Clients, NothingAClientWritesOrLeavesUnreadStopsTheService)
{
    start_serving({"-n"});
    // The designed modes: any local user is a client.
    struct stat st;
    ASSERT_EQ(stat(kServer, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0622u);
    ASSERT_EQ(stat(kClient, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    ASSERT_EQ(stat(kLock, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);

    const struct {
        const char* why;
        std::function<bool(int, int)> act;
    } cases[] = {
        {"one byte", [](int fd, int) { return put(fd, "a"); }},
        {"a header split across two writes a second apart",
         [](int fd, int) {
             std::string h = header(NS_NBSCOPE, 1, 0);
             bool ok = put(fd, h.substr(0, 5));
             sleep(1);
             return ok && put(fd, h.substr(5));
         }},
        {"garbage without a magic", [](int fd, int) { return put(fd, std::string(100, 'x')); }},
        {"a header announcing data that never comes",
         [](int fd, int) { return put(fd, header(NS_ADDNAME, 2, 100)); }},
        {"3,000 headers marked more",
         [](int fd, int) {
             for (int i = 0; i < 3000; i++)
                 if (!put(fd, header(NS_NBSCOPE, 3, 0, 1)))
                     return false;
             return true;
         }},
        {"500 scope requests whose answers nobody reads",
         [](int fd, int) {
             for (uint32_t i = 0; i < 500; i++)
                 if (!put(fd, header(NS_NBSCOPE, 1000 + i, 0)))
                     return false;
             return true;
         }},
        // 7,000 names list in 35 messages of 4 KiB: more than the answer FIFO
        // and the daemon's pipe to the relay hold together.
        {"a listing of 7,000 names that nobody reads",
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
    add_names(7000);
    for (const auto& c : cases) {
        Intruder in(c.act);
        ASSERT_GT(in.pid, 0);
        EXPECT_TRUE(in.wait_ready()) << c.why;
        expect_served(c.why);
        int end = in.end();
        EXPECT_TRUE(WIFEXITED(end) && WEXITSTATUS(end) == 0) << c.why << ": " << lab_describe_status(end);
    }
    // Each drop left its line in the relay's trace.
    std::string trace = lab.trace("ntf.trc");
    for (const char* line : {"ntf_take: 1 bytes without a header skipped\n",
                             "ntf_take: 100 bytes without a header skipped\n", "ntf_take: header 00000002 dropped",
                             "ntf_process: request of more than 16 parts or 16384 bytes dropped\n"})
        EXPECT_NE(trace.find(line), std::string::npos) << line;
}

TEST_F(Clients, AKilledRelayIsReplacedAndHalyardctlSaysWhatIsWrongMeanwhile)
{
    start_serving();
    pid_t daemon = lab.registered_pid();
    pid_t relay = relay_of(daemon);
    ASSERT_GT(relay, 0);

    // Held still, the daemon cannot replace the relay yet: the client is told.
    ASSERT_EQ(kill(daemon, SIGSTOP), 0);
    ASSERT_EQ(kill(relay, SIGKILL), 0);
    std::string out;
    EXPECT_EQ(lab.halyardctl({"--timeout", "3", "lookup", "SHARED<20>"}, &out, kNobody, kNobody), 3) << out;
    EXPECT_NE(out.find("runs (pid " + std::to_string(daemon) + ") but its request relay does not"),
              std::string::npos)
        << out;
    ASSERT_EQ(kill(daemon, SIGCONT), 0);

    EXPECT_TRUE(lab.wait_log("Halyard: notifier process ended; starting a new one")) << lab.log();
    pid_t again = relay_of(daemon);
    EXPECT_GT(again, 0);
    EXPECT_NE(again, relay);
    expect_served("kill -9 of the relay");
}

// Links planted where the super-user appends or rewrites: the file behind
// them stays as it was, and the log says why.
TEST_F(Clients, RootFollowsNoLinkPlantedInTheAdministrativeUsersDirectories)
{
    const struct {
        const char* why;
        const char* link;
        const char* named;  // as the log names it
        std::vector<std::string> args;
        bool serves;  // without its registration the daemon cannot run
    } cases[] = {
        {"trace file", "/opt/KORRlibs/halyard.trc", "halyard.trc", {"-z", "proc=9"}, true},
        {"relay's trace", "/opt/KORRlibs/ntf.trc", "ntf.trc", {"-n"}, true},
        {"registration", lab_plist_path, lab_plist_path, {}, false},
    };
    ASSERT_TRUE(lab.write_config(lab.default_config()));
    ASSERT_EQ(mkdir("/var/opt/KORRbase/rtdb/realm=NB", 0775) == 0 || errno == EEXIST, true);
    ASSERT_EQ(mkdir("/var/opt/KORRbase/rtdb/realm=NB/program=Halyard", 0775) == 0 || errno == EEXIST, true);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        ASSERT_TRUE(lab.write_file(kVictim, "precious\n", 0600));
        unlink(c.link);
        ASSERT_EQ(symlink(kVictim, c.link), 0);
        if (c.serves) {
            start_serving(c.args);
            expect_served(c.why);
            EXPECT_TRUE(lab.stop_daemon(lab.registered_pid()));
        } else {
            EXPECT_EQ(lab.launch(c.args), 0);
            int status = -1;
            EXPECT_TRUE(lab.wait_exit(-1, 20.0, &status));
        }
        EXPECT_TRUE(lab.wait_log(std::string("Halyard: refusing to write ") + c.named + ": a symbolic link"))
            << lab.log();
        EXPECT_EQ(lab_read_file(kVictim), "precious\n");
        struct stat st;
        ASSERT_EQ(lstat(c.link, &st), 0);
        EXPECT_TRUE(S_ISLNK(st.st_mode));
        unlink(c.link);
        ASSERT_TRUE(lab.write_file(lab_log_path, "", 0664));
    }
}

TEST_F(Clients, AClientGroupKeepsTheFifosAndTheLockForItsMembers)
{
    ASSERT_TRUE(lab.write_config(lab.default_config() + "[realm NB]\nclient-group nogroup\n"));
    start_serving();  // halyardctl as nobody, of group nogroup
    const struct { const char* path; mode_t mode; } files[] = {{kServer, 0620}, {kClient, 0640}, {kLock, 0660}};
    for (const auto& f : files) {
        struct stat st;
        ASSERT_EQ(stat(f.path, &st), 0) << f.path;
        EXPECT_EQ(st.st_mode & 0777, f.mode) << f.path;
        EXPECT_EQ(st.st_gid, gid_t(kNobody)) << f.path;
    }
    // A user outside the group is kept out.
    std::string out;
    EXPECT_EQ(lab.halyardctl({"--timeout", "3", "lookup", "SHARED<20>"}, &out, kNobody, 1), 3) << out;
    EXPECT_NE(out.find("Permission denied"), std::string::npos) << out;
    expect_served("a member of the group");
}

}  // namespace
