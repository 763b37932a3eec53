#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "nmtrace.h"
#include "shr/fxdump.h"
#include "shr/vzsignal.h"
#include "src/maininit.h"
#include "src/notifier.h"
#include "tests/support/nsfixture.h"

// The test process plays the daemon (the pipes, the interrupt signal) and the
// clients (the FIFOs) around the real notifier process.
namespace {

constexpr const char* kServer = "/var/opt/KORRbase/ns_serverfifo";
constexpr const char* kClient = "/var/opt/KORRbase/ns_clientfifo";
constexpr const char* kLock = "/var/opt/KORRbase/lock.name";

volatile sig_atomic_t wakeups = 0;
void on_interrupt(int)
{
    wakeups = wakeups + 1;
    vz_signal(SIGINT, on_interrupt);
}

// A message as it lies in memory; len -2 means the data's size.
std::string msg(uint32_t xid, const std::string& data, int32_t more = 0, int32_t len = -2)
{
    ns_hdr h = {{}, len == -2 ? int32_t(data.size()) : len, xid, NS_LOOKUP, more};
    memcpy(h.magic, NS_MAGIC, sizeof h.magic);
    return std::string(reinterpret_cast<const char*>(&h), sizeof h) + data;
}

bool wait_until(const std::function<bool()>& done, int seconds = 20)
{
    for (int i = 0; i < seconds * 100 && !done(); ++i)
        poll(nullptr, 0, 10);
    return done();
}

// n bytes from a non-blocking fd; an empty pipe reads as EAGAIN or 0.
std::string take(int fd, size_t n, int seconds = 20)
{
    std::string got(n, '\0');
    size_t have = 0;
    wait_until([&] {
        ssize_t r = read(fd, got.data() + have, n - have);
        have += r > 0 ? size_t(r) : 0;
        return have == n;
    }, seconds);
    return got.substr(0, have);
}

bool nothing_waiting(int fd)
{
    char c;
    return read(fd, &c, 1) < 0 && errno == EAGAIN;
}

// Writes in pieces of at most a pipe's atomic size.
void put(int fd, const std::string& bytes)
{
    for (size_t at = 0; at < bytes.size(); at += 4096)
        ASSERT_GT(write(fd, bytes.data() + at, std::min<size_t>(4096, bytes.size() - at)), 0);
}

// The notifier has its handlers once it catches the hang-up signal.
bool catches_hangup(int pid)
{
    FILE* f = fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
    unsigned long long caught = 0;
    for (char line[256]; f != nullptr && fgets(line, sizeof line, f) != nullptr;)
        sscanf(line, "SigCgt: %llx", &caught);
    if (f != nullptr)
        fclose(f);
    return (caught >> (SIGHUP - 1) & 1) != 0;
}

// A started notifier and the client's ends of the FIFOs; killed if the test
// ends early.
struct Relay {
    int to_server = -1, from_client = -1;
    Relay()
    {
        wakeups = 0;
        vz_signal(SIGINT, on_interrupt);
        const char* err = notifier();
        EXPECT_EQ(err, nullptr) << err;
        to_server = open(kServer, O_WRONLY);
        from_client = open(kClient, O_RDONLY | O_NONBLOCK);
        EXPECT_TRUE(wait_until([] { return catches_hangup(ntf_pid); }));
    }
    ~Relay()
    {
        if (ntf_pid > 0 && kill(ntf_pid, SIGKILL) == 0)
            wait_child(ntf_pid);
        ntf_pid = 0;
        for (int fd : {to_server, from_client, from_ntf, to_ntf})
            close(fd);
    }
    int end()  // its exit status, once the FIFOs are gone
    {
        int s = wait_child(ntf_pid);
        ntf_pid = 0;
        EXPECT_NE(access(kServer, F_OK), 0);
        EXPECT_NE(access(kClient, F_OK), 0);
        return s;
    }
};

std::string text_of(FILE* f)
{
    std::string s(4096, '\0');
    rewind(f);
    s.resize(fread(s.data(), 1, s.size(), f));
    return s;
}

TEST(Notifier, CreatesItsFilesTracesUnderDashNAndEndsOnAHangUpWithStatus1)
{
    run_in_private_dirs([] {
        ASSERT_EQ(chdir("/opt/KORRlibs"), 0);
        ntf_trace = 1;
        umask(022);
        admuid = 1234;
        admgid = 5678;
        Relay r;
        EXPECT_EQ(umask(022), 022u);
        const struct { const char* path; mode_t mode; } files[] = {
            {kServer, S_IFIFO | 0622}, {kClient, S_IFIFO | 0644}, {kLock, S_IFREG | 0666}};
        for (const auto& f : files) {
            struct stat st;
            EXPECT_TRUE(stat(f.path, &st) == 0 && st.st_mode == f.mode) << f.path;
        }
        struct stat st;
        EXPECT_TRUE(stat(kLock, &st) == 0 && st.st_uid == 1234 && st.st_gid == 5678 && st.st_size == 0);
        EXPECT_NE(fcntl(from_ntf, F_GETFL) & O_NONBLOCK, 0);

        std::string request = msg(5, "abcd"), answer = msg(5, "");
        put(r.to_server, request);
        take(from_ntf, request.size());
        put(to_ntf, answer);
        take(r.from_client, answer.size());
        kill(ntf_pid, SIGHUP);
        EXPECT_EQ(r.end(), 1);
        EXPECT_EQ(access(kLock, F_OK), 0);

        FILE* want = tmpfile();
        fprintf(want, "from_client: got inlen 4, header --\n");
        dump_bytes(want, request.data(), 24);
        fprintf(want, "data --\n");
        dump_bytes(want, request.data() + 24, 4);
        fprintf(want, "\nfrom_ns: got len 0, header --\n");
        dump_bytes(want, answer.data(), 24);
        fprintf(want, "\n");
        FILE* f = fopen("ntf.trc", "r");
        ASSERT_NE(f, nullptr);
        std::string got = text_of(f);
        EXPECT_EQ(got.rfind("\nNotifier starting ", 0), 0u) << got;
        EXPECT_EQ(got.substr(got.find("from_client")), text_of(want));
    });
}

TEST(Notifier, StartFailuresGiveTheirTextAndTraceLineAndCloseWhatWasOpened)
{
    run_in_private_dirs([] {
        const struct { const char* why; const char* taken; const char* text; const char* trace; } cases[] = {
            {"server FIFO name held by a file", kServer, "Error creating/opening FIFOs",
             "notifier: error opening FIFO /var/opt/KORRbase/ns_serverfifo\n"},
            {"client FIFO name held by a dangling link", kClient, "Error creating/opening FIFOs",
             "notifier: error opening FIFO /var/opt/KORRbase/ns_clientfifo\n"},
            {"lock name held by a dangling link", kLock, "Error creating lockfile",
             "notifier: error opening lockfile /var/opt/KORRbase/lock.name\n"},
        };
        tc_proc = 1;
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            for (const char* p : {kServer, kClient, kLock})
                unlink(p);
            if (c.taken == kServer)
                close(creat(kServer, 0644));
            else
                ASSERT_EQ(symlink("/var/opt/KORRbase/none/x", c.taken), 0);
            tcfile = tmpfile();
            int lowest_free = dup(0);
            close(lowest_free);
            EXPECT_STREQ(notifier(), c.text);
            EXPECT_EQ(ntf_pid, 0);
            EXPECT_EQ(text_of(tcfile), c.trace);
            int now_free = dup(0);
            close(now_free);
            EXPECT_EQ(now_free, lowest_free);
            fclose(tcfile);
            tcfile = nullptr;
        }
    });
}

TEST(Notifier, RelaysARequestInPartsAndWaitsForItsOwnFinalResponse)
{
    run_in_private_dirs([] {
        Relay r;
        std::string part1 = msg(7, "abc", 1), part2 = msg(7, std::string(16, '\xCA'));
        // The parts go on together, and the daemon is woken once, after both.
        put(r.to_server, part1);
        put(r.to_server, part2);
        EXPECT_EQ(take(from_ntf, part1.size() + part2.size()), part1 + part2);
        EXPECT_TRUE(wait_until([] { return wakeups == 1; }));

        // A late answer to another request, then this one's in two messages.
        std::string answers = msg(3, "late") + msg(7, "first", 1) + msg(7, "");
        put(to_ntf, answers);
        EXPECT_EQ(take(r.from_client, answers.size()), answers);
        // The final one ended the wait: the next request, of the most data, is relayed.
        std::string next = msg(8, std::string(4096, 'x'));
        put(r.to_server, next.substr(0, 24));
        put(r.to_server, next.substr(24));
        EXPECT_EQ(take(from_ntf, next.size()), next);
        EXPECT_TRUE(wait_until([] { return wakeups == 2; }));
        EXPECT_TRUE(nothing_waiting(from_ntf));
        close(to_ntf);  // the daemon goes away during the wait: end of file
        to_ntf = -1;
        EXPECT_EQ(r.end(), 0);
    });
}

TEST(Notifier, SkipsGarbageAndOverLimitHeadersUntilTheNextMagic)
{
    run_in_private_dirs([] {
        const std::string magic(reinterpret_cast<const char*>(NS_MAGIC), 8);
        const struct { const char* why; std::string before; } cases[] = {
            {"garbage", "\x01\x02\x03 garbage \x04"},
            {"a stray 0xCA in the garbage", std::string("\x01\xCA\x71\x02\x03")},
            {"a magic cut short just before the real one", magic.substr(0, 6)},
            {"a magic with a non-zero last byte", magic.substr(0, 7) + "\x01"},
            {"len 5000 and its data", msg(1, std::string(5000, 'y'))},
            {"len 4097", msg(1, std::string(40, 'y'), 0, 4097)},
            {"a negative len", msg(1, "", 0, -1)},
        };
        Relay r;
        uint32_t xid = 100;
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            std::string good = msg(++xid, "name"), answer = msg(xid, "ok");
            put(r.to_server, c.before + good);
            EXPECT_EQ(take(from_ntf, good.size()), good);
            EXPECT_TRUE(nothing_waiting(from_ntf));
            put(to_ntf, answer);
            EXPECT_EQ(take(r.from_client, answer.size()), answer);
        }
        // The daemon is gone: relaying the next request breaks the pipe.
        close(from_ntf);
        from_ntf = -1;
        put(r.to_server, msg(1, ""));
        EXPECT_EQ(r.end(), 13);
    });
}

// One real wait of the full 12 seconds.
TEST(Notifier, GivesUpAfter12SecondsAndRelaysTheLateAnswerLater)
{
    run_in_private_dirs([] {
        Relay r;
        auto start = std::chrono::steady_clock::now();
        put(r.to_server, msg(1, "") + msg(2, ""));  // the second waits in the FIFO
        EXPECT_EQ(take(from_ntf, 24), msg(1, ""));
        EXPECT_EQ(take(from_ntf, 24, 60), msg(2, ""));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(11));
        EXPECT_TRUE(wait_until([] { return wakeups == 2; }));
        std::string answers = msg(1, "late") + msg(2, "");
        put(to_ntf, answers);
        EXPECT_EQ(take(r.from_client, answers.size()), answers);
    });
}

}  // namespace
