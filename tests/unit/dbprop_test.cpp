#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "config/dballoc.h"
#include "config/dbob.h"
#include "config/dbprop.h"
#include "config/sflock.h"
#include "shr/vzsignal.h"
#include "tests/support/kvc.h"
#include "tests/support/nsfixture.h"

namespace {

constexpr const char* kDir = "/var/opt/KORRbase/rtdb/realm=NB/program=Halyard";
constexpr const char* kFile = "/var/opt/KORRbase/rtdb/realm=NB/program=Halyard/=plist";

const Kvc& own()
{
    static const Kvc name({{"system", "*"}, {"realm", "NB"}, {"program", "Halyard"}});
    return name;
}

void make_own()
{
    ASSERT_EQ(mkdir("/var/opt/KORRbase/rtdb", 0755), 0);
    ASSERT_EQ(vzdb_ob_create(own().get()), 0);
}

std::string contents(const char* path = kFile)
{
    std::string s;
    FILE* f = fopen(path, "r");
    if (f == nullptr)
        return "(missing)";
    int c;
    while ((c = getc(f)) != EOF)
        s.push_back(char(c));
    fclose(f);
    return s;
}

void write_file(const std::string& bytes, const char* path = kFile)
{
    FILE* f = fopen(path, "w");
    ASSERT_NE(f, nullptr);
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
}

std::vector<std::string> list_of(const vz_kvc* object)
{
    vz_kvc* l = nullptr;
    int rc = vzdb_prop_list(object, &l);
    EXPECT_EQ(rc, 0);
    std::vector<std::string> out = kvc_lines(l);
    vzdb_kvcfree(l);
    return out;
}

std::string get(const char* name, int* rc)
{
    char* v = nullptr;
    *rc = vzdb_prop_get(own().get(), name, &v);
    std::string s = v != nullptr ? v : "(none)";
    vzdb_strfree(v);
    return s;
}

// A second process that holds a record lock on byte 0 of the file until it
// is told to let go, as another instance of the database would.
struct Holder {
    int pid = -1;
    int release_fd = -1;
    Holder(short type)
    {
        int ready[2], release[2];
        if (pipe(ready) != 0 || pipe(release) != 0)
            return;
        pid = spawn_child([&] {
            close(ready[0]);
            close(release[1]);
            int fd = open(kFile, O_RDWR);
            struct flock fl = {};
            fl.l_type = type;
            fl.l_whence = SEEK_SET;
            fl.l_len = 1;
            if (fd < 0 || fcntl(fd, F_SETLK, &fl) != 0)
                return 1;
            char c = 'r';
            if (write(ready[1], &c, 1) != 1)
                return 2;
            while (read(release[0], &c, 1) < 0 && errno == EINTR) {
            }
            return 0;  // ending the process lets the lock go
        });
        close(ready[1]);
        close(release[0]);
        release_fd = release[1];
        char c;
        if (read(ready[0], &c, 1) != 1)
            pid = -1;
        close(ready[0]);
    }
    void release() const
    {
        char c = 'g';
        ssize_t w = write(release_fd, &c, 1);
        (void)w;
    }
    // The holder ends at a byte or at the end of the pipe, whichever comes first.
    int let_go() const
    {
        close(release_fd);
        return wait_child(pid);
    }
};

volatile sig_atomic_t own_alarms = 0;
void count_alarm(int)
{
    own_alarms = own_alarms + 1;
}

// True when some process waits for a lock on "=plist" (a blocked entry
// in /proc/locks for its inode).
bool waiting_on_lock()
{
    struct stat st;
    if (stat(kFile, &st) != 0)
        return false;
    FILE* f = fopen("/proc/locks", "r");
    if (f == nullptr)
        return false;
    char line[256];
    std::string ino = ":" + std::to_string(st.st_ino) + " ";
    bool found = false;
    while (!found && fgets(line, sizeof line, f) != nullptr)
        found = strstr(line, "->") != nullptr && strstr(line, ino.c_str()) != nullptr;
    fclose(f);
    return found;
}

}  // namespace

TEST(DbProp, FirstPutCreatesTheFileWithTheDirectorysOwnerAndMode) {
    run_in_private_dirs([] {
        make_own();
        ASSERT_EQ(vzdb_ob_setugm(own().get(), 1234, 5678, 0775), 0);
        umask(077);
        // Reading creates nothing.
        int rc = -1;
        EXPECT_EQ(get("pid", &rc), "(none)");
        EXPECT_EQ(rc, 0);
        EXPECT_TRUE(list_of(own().get()).empty());
        EXPECT_EQ(contents(), "(missing)");

        ASSERT_EQ(vzdb_prop_put(own().get(), "pid", "123"), 0);
        EXPECT_EQ(contents(), "pid 123\n");
        struct stat st;
        ASSERT_EQ(stat(kFile, &st), 0);
        EXPECT_EQ(st.st_mode, S_IFREG | 0664);
        EXPECT_EQ(st.st_uid, 1234u);
        EXPECT_EQ(st.st_gid, 5678u);
        EXPECT_EQ(get("pid", &rc), "123");
    });
}

TEST(DbProp, ValuesWithNewlinesAndBackslashesRoundTrip) {
    run_in_private_dirs([] {
        make_own();
        ASSERT_EQ(vzdb_prop_put(own().get(), "v", "a\\b\nc"), 0);
        EXPECT_EQ(contents(), "v a\\\\b\\\nc\n");
        const char* values[] = {"", " lead and trail ", "\n", "\\", "x\\\n\\\ny", "two  spaces"};
        for (const char* v : values) {
            SCOPED_TRACE(v);
            ASSERT_EQ(vzdb_prop_put(own().get(), "v", v), 0);
            int rc = -1;
            EXPECT_EQ(get("v", &rc), v);
            EXPECT_EQ(rc, 0);
        }
    });
}

TEST(DbProp, ChangesKeepOrderAndMoveChangedNamesToTheEnd) {
    run_in_private_dirs([] {
        make_own();
        write_file("a 1\nb 2\nc 3\nb 4\n");
        ASSERT_EQ(vzdb_prop_put(own().get(), "b", "5"), 0);
        EXPECT_EQ(contents(), "a 1\nc 3\nb 5\n");
        ASSERT_EQ(vzdb_prop_put(own().get(), "a", "6"), 0);
        EXPECT_EQ(contents(), "c 3\nb 5\na 6\n");
        // Deleting a name that is not there rewrites the same list.
        ASSERT_EQ(vzdb_prop_delete(own().get(), "zz"), 0);
        EXPECT_EQ(contents(), "c 3\nb 5\na 6\n");
        ASSERT_EQ(vzdb_prop_delete(own().get(), "b"), 0);
        EXPECT_EQ(contents(), "c 3\na 6\n");

        Kvc batch({{"c", nullptr}, {"n", "x"}, {"a", "7"}, {"m", nullptr}});
        ASSERT_EQ(vzdb_prop_lput(own().get(), batch.get()), 0);
        EXPECT_EQ(contents(), "n x\na 7\n");

        // Names that could not be read back are refused before the file is touched.
        for (const char* bad : {"", "two words", "new\nline", "back\\slash"}) {
            SCOPED_TRACE(bad);
            EXPECT_EQ(vzdb_prop_put(own().get(), bad, "v"), 3);
            EXPECT_EQ(vzdb_prop_semadd(own().get(), bad, 1, 1), 3);
        }
        EXPECT_EQ(contents(), "n x\na 7\n");
    });
}

TEST(DbProp, SemaphoreCountsUpToItsLimit) {
    run_in_private_dirs([] {
        make_own();
        write_file("pid 42\n");
        ASSERT_EQ(vzdb_prop_semadd(own().get(), "pidlock", 1, 1), 0);
        EXPECT_EQ(contents(), "pid 42\npidlock 1\n");
        EXPECT_EQ(vzdb_prop_semadd(own().get(), "pidlock", 1, 1), 10);
        EXPECT_EQ(contents(), "pid 42\npidlock 1\n");
        ASSERT_EQ(vzdb_prop_semadd(own().get(), "pidlock", -1, 1), 0);
        EXPECT_EQ(contents(), "pid 42\npidlock 0\n");
        ASSERT_EQ(vzdb_prop_semadd(own().get(), "pidlock", -5, 1), 0);
        EXPECT_EQ(contents(), "pid 42\npidlock -5\n");

        // The last of several lines counts; a non-numeric value counts as 0.
        write_file("s 3\nx y\ns 7\n");
        ASSERT_EQ(vzdb_prop_semadd(own().get(), "s", 1, 100), 0);
        EXPECT_EQ(contents(), "x y\ns 8\n");
        write_file("s many\n");
        ASSERT_EQ(vzdb_prop_semadd(own().get(), "s", 2, 100), 0);
        EXPECT_EQ(contents(), "s 2\n");
        // A count that would leave the int range counts as exceeding.
        write_file("s 2147483647\n");
        EXPECT_EQ(vzdb_prop_semadd(own().get(), "s", 1, 2147483647), 10);
        EXPECT_EQ(contents(), "s 2147483647\n");
    });
}

TEST(DbProp, OddFilesAreReadWithinTheLineBuffer) {
    run_in_private_dirs([] {
        make_own();
        const std::string x509(509, 'x');
        const struct { const char* why; std::string file; std::vector<std::string> props; } cases[] = {
            {"lines without a space or starting with one are skipped",
             "nospace\n lead v\na 1\n\nb  two\n", {"a=1", "b= two"}},
            {"a trailing backslash at the end of the file is dropped", "k v\\", {"k=v"}},
            {"a last line without a newline still counts", "k v\nl w", {"k=v", "l=w"}},
            {"a long line is cut at 511 bytes, the rest is the next line",
             "k " + x509 + std::string(100, 'y') + "\nj v\n", {"k=" + x509, "j=v"}},
            {"the rest of a cut line can be a property of its own",
             "k " + x509 + "z rest\n", {"k=" + x509, "z=rest"}},
            {"an escape never splits at the cut",
             "k " + std::string(508, 'x') + "\\z rest\n", {"k=" + std::string(508, 'x') + "z"}},
            {"an escaped newline at the cut", "k " + std::string(508, 'x') + "\\\nq r\n",
             {"k=" + std::string(508, 'x') + "\n", "q=r"}},
            {"a backslash just past the cut escapes the first byte of the next line",
             "k " + x509 + "\\zz rest\n", {"k=" + x509, "zz=rest"}},
            {"an escaped newline just past the cut", "k " + x509 + "\\\nq r\nj v\n",
             {"k=" + x509, "j=v"}},
            {"a backslash just past the cut and then the end of the file", "k " + x509 + "\\",
             {"k=" + x509}},
            {"a line of exactly 511 bytes", "k " + x509 + "\nj v\n", {"k=" + x509, "j=v"}},
            {"NUL bytes end the strings, not the reading", std::string("a 1\0tail\nb 2\n", 13),
             {"a=1", "b=2"}},
            {"names that could not be written back are skipped",
             std::string("a\\\nb 1\nc\\\\d 2\ne\0f 3\ng\\ h 4\n", 27), {"g=h 4"}},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            write_file(c.file);
            EXPECT_EQ(list_of(own().get()), c.props);
        }
    });
}

TEST(DbProp, ArbitraryBytesNeverOverrunTheReader) {
    run_in_private_dirs([] {
        make_own();
        std::mt19937 rng(20261123);
        for (int round = 0; round < 200; round++) {
            std::string bytes(rng() % 3000, '\0');
            const char alphabet[] = {' ', '\n', '\\', 'a', '\0', char(0xff)};
            for (char& b : bytes)
                b = rng() % 2 ? alphabet[rng() % sizeof alphabet] : char(rng());
            write_file(bytes);
            vz_kvc* l = nullptr;
            ASSERT_EQ(vzdb_prop_list(own().get(), &l), 0);
            for (const vz_kvc* t = l; t->key != nullptr; t++) {
                EXPECT_LE(strlen(t->key) + 1 + strlen(t->value), 511u);
                EXPECT_NE(t->key[0], '\0');
            }
            vzdb_kvcfree(l);
            // And what we write of it reads back the same.
            ASSERT_EQ(vzdb_prop_delete(own().get(), "none"), 0);
            ASSERT_EQ(vzdb_prop_list(own().get(), &l), 0);
            std::vector<std::string> once = kvc_lines(l);
            vzdb_kvcfree(l);
            ASSERT_EQ(vzdb_prop_delete(own().get(), "none"), 0);
            EXPECT_EQ(list_of(own().get()), once);
        }
    });
}

TEST(DbProp, FailuresReturnTheirCodes) {
    run_in_private_dirs([] {
        ASSERT_EQ(mkdir("/var/opt/KORRbase/rtdb", 0755), 0);
        int rc = -1;
        EXPECT_EQ(get("pid", &rc), "(none)");
        EXPECT_EQ(rc, 4);
        vz_kvc* l = nullptr;
        EXPECT_EQ(vzdb_prop_list(own().get(), &l), 4);
        EXPECT_EQ(l, nullptr);
        EXPECT_EQ(vzdb_prop_put(own().get(), "pid", "1"), 4);
        EXPECT_EQ(vzdb_prop_semadd(own().get(), "pidlock", 1, 1), 4);

        // "=plist" that is not a file.
        ASSERT_EQ(vzdb_ob_create(own().get()), 0);
        ASSERT_EQ(mkdir(kFile, 0755), 0);
        EXPECT_EQ(get("pid", &rc), "(none)");
        EXPECT_EQ(rc, 6);
        EXPECT_EQ(vzdb_prop_put(own().get(), "pid", "1"), 6);
        ASSERT_EQ(rmdir(kFile), 0);

        // A property too long to be read back as one line is refused.
        std::string v509(509, 'v');
        ASSERT_EQ(vzdb_prop_put(own().get(), "k", v509.c_str()), 0);
        EXPECT_EQ(vzdb_prop_put(own().get(), "k", (v509 + "v").c_str()), 7);
        EXPECT_EQ(contents(), "k " + v509 + "\n");

        // A semaphore whose name leaves no room for its count is refused too.
        std::string n509(509, 'n');
        EXPECT_EQ(vzdb_prop_semadd(own().get(), n509.c_str(), -1, 1), 7);
        EXPECT_EQ(contents(), "k " + v509 + "\n");

        // A full file system: the rewrite fails and says so.
        ASSERT_EQ(mount("t", kDir, "tmpfs", 0, "size=8k,mode=0775"), 0);
        ASSERT_EQ(vzdb_prop_put(own().get(), "small", "1"), 0);
        Kvc many({{"a", v509.c_str()}, {"b", v509.c_str()}, {"c", v509.c_str()}, {"d", v509.c_str()},
                  {"e", v509.c_str()}, {"f", v509.c_str()}, {"g", v509.c_str()}, {"h", v509.c_str()},
                  {"i", v509.c_str()}, {"j", v509.c_str()}, {"k", v509.c_str()}, {"l", v509.c_str()},
                  {"m", v509.c_str()}, {"n", v509.c_str()}, {"o", v509.c_str()}, {"p", v509.c_str()},
                  {"q", v509.c_str()}});
        EXPECT_EQ(vzdb_prop_lput(own().get(), many.get()), 7);
    });
}

TEST(DbProp, AFileThatCannotBeGivenAwayIsNotLeftBehind) {
    run_in_private_dirs([] {
        make_own();
        // A caller in the directory's group that may write there but may not
        // give a file to the directory's owner.
        ASSERT_EQ(vzdb_ob_setugm(own().get(), 5678, 1234, 0775), 0);
        int child = spawn_child([] {
            if (setgid(1234) != 0 || setuid(1234) != 0)
                return 100;
            int rc = vzdb_prop_put(own().get(), "pid", "1");
            return rc;
        });
        ASSERT_GT(child, 0);
        EXPECT_EQ(wait_child(child), 6);
        EXPECT_EQ(contents(), "(missing)");
        // The super-user still creates it as the directory's owner's.
        ASSERT_EQ(vzdb_prop_put(own().get(), "pid", "1"), 0);
        struct stat st;
        ASSERT_EQ(stat(kFile, &st), 0);
        EXPECT_EQ(st.st_uid, 5678u);
        EXPECT_EQ(st.st_gid, 1234u);
    });
}

TEST(DbLock, ALockHeldElsewhereEndsTheWaitWithCode9) {
    run_in_private_dirs([] {
        make_own();
        ASSERT_EQ(vzdb_prop_put(own().get(), "pid", "1"), 0);
        Holder writer(F_WRLCK);
        ASSERT_GT(writer.pid, 0);
        int rc = -1;
        sf_locktimer = 0;   // one try
        EXPECT_EQ(get("pid", &rc), "(none)");
        EXPECT_EQ(rc, 9);
        sf_locktimer = 2;   // a bounded wait, ended by the alarm and not before
        timespec t0, t1;
        clock_gettime(CLOCK_MONOTONIC, &t0);
        EXPECT_EQ(get("pid", &rc), "(none)");
        EXPECT_EQ(rc, 9);
        clock_gettime(CLOCK_MONOTONIC, &t1);
        EXPECT_GE((t1.tv_sec - t0.tv_sec) * 1000 + (t1.tv_nsec - t0.tv_nsec) / 1000000, 1900);
        sf_locktimer = 1;
        EXPECT_EQ(vzdb_prop_put(own().get(), "pid", "2"), 9);
        EXPECT_EQ(vzdb_prop_semadd(own().get(), "pidlock", 1, 1), 9);
        EXPECT_EQ(writer.let_go(), 0);
        EXPECT_EQ(get("pid", &rc), "1");
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(contents(), "pid 1\n");

        // Readers share; a writer waits for them.
        Holder reader(F_RDLCK);
        ASSERT_GT(reader.pid, 0);
        sf_locktimer = 0;
        EXPECT_EQ(get("pid", &rc), "1");
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(vzdb_prop_put(own().get(), "pid", "2"), 9);
        EXPECT_EQ(reader.let_go(), 0);
        EXPECT_EQ(vzdb_prop_put(own().get(), "pid", "2"), 0);
    });
}

TEST(DbLock, TheBorrowedAlarmAndHandlerAreGivenBack) {
    run_in_private_dirs([] {
        make_own();
        ASSERT_EQ(vzdb_prop_put(own().get(), "pid", "1"), 0);
        Holder writer(F_WRLCK);
        ASSERT_GT(writer.pid, 0);
        sf_locktimer = 1;
        const struct { unsigned before; unsigned most; unsigned least; } cases[] = {
            {100, 99, 1},  // what was left, less the whole wait
            {1, 1, 1},     // no more than the wait: one second
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.before);
            ASSERT_EQ(vz_signal(SIGALRM, count_alarm), 0);
            own_alarms = 0;
            alarm(c.before);
            int rc = -1;
            get("pid", &rc);
            EXPECT_EQ(rc, 9);
            unsigned left = alarm(0);
            EXPECT_LE(left, c.most);
            EXPECT_GE(left, c.least);
            struct sigaction now;
            ASSERT_EQ(sigaction(SIGALRM, nullptr, &now), 0);
            EXPECT_EQ(now.sa_handler, count_alarm);
            EXPECT_EQ(own_alarms, 0) << "the earlier alarm's handler ran during the wait";
        }
        // Without an earlier alarm none is left behind.
        int rc = -1;
        get("pid", &rc);
        EXPECT_EQ(rc, 9);
        EXPECT_EQ(alarm(0), 0u);
        EXPECT_EQ(writer.let_go(), 0);
    });
}

TEST(DbLock, TwoProcessesCountingTogetherLoseNothing) {
    run_in_private_dirs([] {
        make_own();
        constexpr int kEach = 100;
        sf_locktimer = 30;
        auto count = [] {
            for (int i = 0; i < kEach; i++) {
                if (vzdb_prop_semadd(own().get(), "n", 1, 1000000) != 0)
                    return 1;
                char* v = nullptr;
                if (vzdb_prop_get(own().get(), "n", &v) != 0 || v == nullptr)
                    return 2;
                vzdb_strfree(v);
            }
            return 0;
        };
        int a = spawn_child(count);
        int b = spawn_child(count);
        ASSERT_GT(a, 0);
        ASSERT_GT(b, 0);
        EXPECT_EQ(wait_child(a), 0);
        EXPECT_EQ(wait_child(b), 0);
        EXPECT_EQ(contents(), "n 200\n");
    });
}

TEST(DbLock, AWaitingWriterGetsTheLockWhenItIsLetGo) {
    run_in_private_dirs([] {
        make_own();
        ASSERT_EQ(vzdb_prop_put(own().get(), "pid", "1"), 0);
        Holder writer(F_WRLCK);
        ASSERT_GT(writer.pid, 0);
        sf_locktimer = 60;
        // Let go once this process is seen waiting for the lock.
        int watcher = spawn_child([&writer] {
            for (int i = 0; i < 6000; i++) {
                if (waiting_on_lock()) {
                    writer.release();
                    return 0;
                }
                usleep(10000);
            }
            return 2;
        });
        EXPECT_EQ(vzdb_prop_put(own().get(), "pid", "2"), 0);
        EXPECT_EQ(wait_child(watcher), 0);
        EXPECT_EQ(writer.let_go(), 0);
        EXPECT_EQ(contents(), "pid 2\n");
    });
}
