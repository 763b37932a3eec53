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

const vz_kvc* own()
{
    static const Kvc name({{"system", "*"}, {"realm", "NB"}, {"program", "Halyard"}});
    return name.get();
}

void make_own()
{
    ASSERT_EQ(mkdir("/var/opt/KORRbase/rtdb", 0755), 0);
    ASSERT_EQ(vzdb_ob_create(own()), 0);
}

std::string contents()
{
    std::string s;
    FILE* f = fopen(kFile, "r");
    if (f == nullptr)
        return "(missing)";
    for (int c; (c = getc(f)) != EOF;)
        s.push_back(char(c));
    fclose(f);
    return s;
}

void write_file(const std::string& bytes)
{
    FILE* f = fopen(kFile, "w");
    ASSERT_NE(f, nullptr);
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
}

std::vector<std::string> list_of()
{
    vz_kvc* l = nullptr;
    EXPECT_EQ(vzdb_prop_list(own(), &l), 0);
    std::vector<std::string> out = kvc_lines(l);
    vzdb_kvcfree(l);
    return out;
}

std::string get(const char* name, int* rc)
{
    char* v = nullptr;
    *rc = vzdb_prop_get(own(), name, &v);
    std::string s = v != nullptr ? v : "(none)";
    vzdb_strfree(v);
    return s;
}

// A second process that holds a record lock on byte 0 of the file until a
// byte arrives or the pipe closes, as another instance of the database would.
struct Holder {
    int pid = -1;
    int release_fd = -1;
    explicit Holder(short type)
    {
        int ready[2], release[2];
        if (pipe(ready) != 0 || pipe(release) != 0)
            return;
        pid = spawn_child([&] {
            close(release[1]);
            int fd = open(kFile, O_RDWR);
            struct flock fl = {};
            fl.l_type = type;
            fl.l_len = 1;
            char c = 'r';
            if (fd < 0 || fcntl(fd, F_SETLK, &fl) != 0 || write(ready[1], &c, 1) != 1)
                return 1;
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

}  // namespace

TEST(DbProp, FirstPutCreatesTheFileWithTheDirectorysOwnerAndMode) {
    run_in_private_dirs([] {
        make_own();
        ASSERT_EQ(vzdb_ob_setugm(own(), 1234, 5678, 0775), 0);
        umask(077);
        int rc = -1;
        EXPECT_EQ(get("pid", &rc), "(none)");   // reading creates nothing
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(contents(), "(missing)");
        ASSERT_EQ(vzdb_prop_put(own(), "pid", "123"), 0);
        EXPECT_EQ(contents(), "pid 123\n");
        struct stat st;
        ASSERT_EQ(stat(kFile, &st), 0);
        EXPECT_EQ(st.st_mode, S_IFREG | 0664);
        EXPECT_EQ(st.st_uid, 1234u);
        EXPECT_EQ(st.st_gid, 5678u);

        // A caller in the directory's group that may write there but may not
        // give a file to the directory's owner: the new file is removed again.
        ASSERT_EQ(unlink(kFile), 0);
        ASSERT_EQ(vzdb_ob_setugm(own(), 5678, 1234, 0775), 0);
        int child = spawn_child([] {
            if (setgid(1234) != 0 || setuid(1234) != 0)
                return 100;
            return vzdb_prop_put(own(), "pid", "1");
        });
        EXPECT_EQ(wait_child(child), 6);
        EXPECT_EQ(contents(), "(missing)");
    });
}

TEST(DbProp, ValuesRoundTripAndChangesMoveToTheEnd) {
    run_in_private_dirs([] {
        make_own();
        ASSERT_EQ(vzdb_prop_put(own(), "v", "a\\b\nc"), 0);
        EXPECT_EQ(contents(), "v a\\\\b\\\nc\n");
        for (const char* v : {"", " lead and trail ", "\\", "x\\\n\\\ny", "two  spaces"}) {
            SCOPED_TRACE(v);
            ASSERT_EQ(vzdb_prop_put(own(), "v", v), 0);
            int rc = -1;
            EXPECT_EQ(get("v", &rc), v);
        }

        write_file("a 1\nb 2\nc 3\nb 4\n");
        ASSERT_EQ(vzdb_prop_put(own(), "b", "5"), 0);
        EXPECT_EQ(contents(), "a 1\nc 3\nb 5\n");
        ASSERT_EQ(vzdb_prop_delete(own(), "b"), 0);
        EXPECT_EQ(contents(), "a 1\nc 3\n");
        Kvc batch({{"c", nullptr}, {"n", "x"}, {"a", "7"}, {"m", nullptr}});
        ASSERT_EQ(vzdb_prop_lput(own(), batch.get()), 0);
        EXPECT_EQ(contents(), "n x\na 7\n");
        // Names that could not be read back are refused before the file is touched.
        for (const char* bad : {"", "two words", "new\nline", "back\\slash"}) {
            SCOPED_TRACE(bad);
            EXPECT_EQ(vzdb_prop_put(own(), bad, "v"), 3);
            EXPECT_EQ(vzdb_prop_semadd(own(), bad, 1, 1), 3);
        }
        EXPECT_EQ(contents(), "n x\na 7\n");
    });
}

TEST(DbProp, SemaphoreCountsUpToItsLimit) {
    run_in_private_dirs([] {
        make_own();
        const struct { std::string before; int add, limit, rc; std::string after; } cases[] = {
            {"pid 42\n", 1, 1, 0, "pid 42\npidlock 1\n"},
            {"pidlock 1\n", 1, 1, 10, "pidlock 1\n"},
            {"pidlock 1\n", -5, 1, 0, "pidlock -4\n"},
            {"pidlock 3\nx y\npidlock 7\n", 1, 100, 0, "x y\npidlock 8\n"},   // the last line counts
            {"pidlock many\n", 2, 100, 0, "pidlock 2\n"},                   // non-numeric counts as 0
            {"pidlock 2147483647\n", 1, 2147483647, 10, "pidlock 2147483647\n"},   // leaves the int range
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.before);
            write_file(c.before);
            EXPECT_EQ(vzdb_prop_semadd(own(), "pidlock", c.add, c.limit), c.rc);
            EXPECT_EQ(contents(), c.after);
        }
    });
}

TEST(DbProp, OddFilesAreReadWithinTheLineBuffer) {
    run_in_private_dirs([] {
        make_own();
        const std::string x508(508, 'x'), x509(509, 'x');
        const struct { const char* why; std::string file; std::vector<std::string> props; } cases[] = {
            {"lines without a space or starting with one are skipped",
             "nospace\n lead v\na 1\n\nb  two\n", {"a=1", "b= two"}},
            {"a trailing backslash at the end of the file is dropped", "k v\\", {"k=v"}},
            {"a last line without a newline still counts", "k v\nl w", {"k=v", "l=w"}},
            {"a line of exactly 511 bytes", "k " + x509 + "\nj v\n", {"k=" + x509, "j=v"}},
            {"a long line is cut at 511 bytes, the rest is the next line",
             "k " + x509 + "z rest\n" + std::string(600, 'y') + "\nj v\n", {"k=" + x509, "z=rest", "j=v"}},
            {"an escape never splits at the cut", "k " + x508 + "\\z rest\n", {"k=" + x508 + "z"}},
            {"an escaped newline at the cut", "k " + x508 + "\\\nq r\n", {"k=" + x508 + "\n", "q=r"}},
            {"a backslash just past the cut escapes the first byte of the next line",
             "k " + x509 + "\\zz rest\n", {"k=" + x509, "zz=rest"}},
            {"an escaped newline just past the cut", "k " + x509 + "\\\nq r\nj v\n", {"k=" + x509, "j=v"}},
            {"a backslash just past the cut and then the end of the file", "k " + x509 + "\\", {"k=" + x509}},
            {"NUL bytes end the strings, not the reading", std::string("a 1\0tail\nb 2\n", 13), {"a=1", "b=2"}},
            {"names that could not be written back are skipped",
             std::string("a\\\nb 1\nc\\\\d 2\ne\0f 3\ng\\ h 4\n", 27), {"g=h 4"}},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            write_file(c.file);
            EXPECT_EQ(list_of(), c.props);
        }
    });
}

TEST(DbProp, ArbitraryBytesNeverOverrunTheReader) {
    run_in_private_dirs([] {
        make_own();
        std::mt19937 rng(20261123);
        const char alphabet[] = {' ', '\n', '\\', 'a', '\0', char(0xff)};
        for (int round = 0; round < 200; round++) {
            std::string bytes(rng() % 3000, '\0');
            for (char& b : bytes)
                b = rng() % 2 ? alphabet[rng() % sizeof alphabet] : char(rng());
            write_file(bytes);
            vz_kvc* l = nullptr;
            ASSERT_EQ(vzdb_prop_list(own(), &l), 0);
            for (const vz_kvc* t = l; t->key != nullptr; t++) {
                EXPECT_LE(strlen(t->key) + 1 + strlen(t->value), 511u);
                EXPECT_NE(t->key[0], '\0');
            }
            vzdb_kvcfree(l);
            // What we write of it reads back the same.
            ASSERT_EQ(vzdb_prop_delete(own(), "none"), 0);
            std::vector<std::string> once = list_of();
            ASSERT_EQ(vzdb_prop_delete(own(), "none"), 0);
            EXPECT_EQ(list_of(), once);
        }
    });
}

TEST(DbProp, FailuresReturnTheirCodes) {
    run_in_private_dirs([] {
        ASSERT_EQ(mkdir("/var/opt/KORRbase/rtdb", 0755), 0);
        int rc = -1;
        get("pid", &rc);
        EXPECT_EQ(rc, 4);
        vz_kvc* l = nullptr;
        EXPECT_EQ(vzdb_prop_list(own(), &l), 4);
        EXPECT_EQ(l, nullptr);
        EXPECT_EQ(vzdb_prop_put(own(), "pid", "1"), 4);
        EXPECT_EQ(vzdb_prop_semadd(own(), "pidlock", 1, 1), 4);

        // "=plist" that is not a file.
        ASSERT_EQ(vzdb_ob_create(own()), 0);
        ASSERT_EQ(mkdir(kFile, 0755), 0);
        get("pid", &rc);
        EXPECT_EQ(rc, 6);
        EXPECT_EQ(vzdb_prop_put(own(), "pid", "1"), 6);
        ASSERT_EQ(rmdir(kFile), 0);

        // A property, or a semaphore's name and count, too long to be read
        // back as one line is refused.
        std::string v509(509, 'v');
        ASSERT_EQ(vzdb_prop_put(own(), "k", v509.c_str()), 0);
        EXPECT_EQ(vzdb_prop_put(own(), "k", (v509 + "v").c_str()), 7);
        EXPECT_EQ(vzdb_prop_semadd(own(), std::string(509, 'n').c_str(), -1, 1), 7);
        EXPECT_EQ(contents(), "k " + v509 + "\n");

        // A full file system: the rewrite fails and says so.
        ASSERT_EQ(mount("t", kDir, "tmpfs", 0, "size=8k,mode=0775"), 0);
        rc = 0;
        for (char n = 'a'; rc == 0 && n <= 'q'; n++)
            rc = vzdb_prop_put(own(), std::string(1, n).c_str(), v509.c_str());
        EXPECT_EQ(rc, 7);
    });
}

TEST(DbLock, ALockHeldElsewhereEndsTheWaitWithCode9) {
    run_in_private_dirs([] {
        make_own();
        ASSERT_EQ(vzdb_prop_put(own(), "pid", "1"), 0);
        Holder writer(F_WRLCK);
        ASSERT_GT(writer.pid, 0);
        int rc = -1;
        sf_locktimer = 0;   // one try
        EXPECT_EQ(get("pid", &rc), "(none)");
        EXPECT_EQ(rc, 9);
        EXPECT_EQ(vzdb_prop_put(own(), "pid", "2"), 9);
        EXPECT_EQ(vzdb_prop_semadd(own(), "pidlock", 1, 1), 9);

        // A bounded wait, ended by the alarm and not before; an alarm armed
        // earlier is given back less the wait, its handler untouched.
        sf_locktimer = 1;
        const struct { unsigned before, most, least; } cases[] = {{0, 0, 0}, {100, 99, 1}, {1, 1, 1}};
        for (const auto& c : cases) {
            SCOPED_TRACE(c.before);
            ASSERT_EQ(vz_signal(SIGALRM, count_alarm), 0);
            own_alarms = 0;
            alarm(c.before);
            timespec t0, t1;
            clock_gettime(CLOCK_MONOTONIC, &t0);
            get("pid", &rc);
            clock_gettime(CLOCK_MONOTONIC, &t1);
            EXPECT_EQ(rc, 9);
            EXPECT_GE((t1.tv_sec - t0.tv_sec) * 1000 + (t1.tv_nsec - t0.tv_nsec) / 1000000, 900);
            unsigned left = alarm(0);
            EXPECT_LE(left, c.most);
            EXPECT_GE(left, c.least);
            struct sigaction now;
            ASSERT_EQ(sigaction(SIGALRM, nullptr, &now), 0);
            EXPECT_EQ(now.sa_handler, count_alarm);
            EXPECT_EQ(own_alarms, 0) << "the earlier alarm's handler ran during the wait";
        }
        // The daemon's loop keeps the alarm blocked outside its wait: the
        // lock wait still ends by it, and an alarm of the loop's that rang
        // before stays pending for the loop, not taken for our time-out.
        sigset_t alrm, old_mask;
        sigemptyset(&alrm);
        sigaddset(&alrm, SIGALRM);
        sigprocmask(SIG_BLOCK, &alrm, &old_mask);
        ASSERT_EQ(vz_signal(SIGALRM, count_alarm), 0);
        own_alarms = 0;
        for (bool rang : {false, true}) {
            SCOPED_TRACE(rang ? "the loop's alarm pending" : "none pending");
            if (rang)
                raise(SIGALRM);
            timespec t0, t1;
            clock_gettime(CLOCK_MONOTONIC, &t0);
            get("pid", &rc);
            clock_gettime(CLOCK_MONOTONIC, &t1);
            EXPECT_EQ(rc, 9);
            EXPECT_GE((t1.tv_sec - t0.tv_sec) * 1000 + (t1.tv_nsec - t0.tv_nsec) / 1000000, 900);
            sigset_t pending;
            sigpending(&pending);
            EXPECT_EQ(sigismember(&pending, SIGALRM), rang ? 1 : 0);
        }
        sigprocmask(SIG_SETMASK, &old_mask, nullptr);  // the pending one runs now
        EXPECT_EQ(own_alarms, 1);
        EXPECT_EQ(writer.let_go(), 0);
        EXPECT_EQ(contents(), "pid 1\n");

        // Readers share; a writer waits for them.
        Holder reader(F_RDLCK);
        ASSERT_GT(reader.pid, 0);
        sf_locktimer = 0;
        EXPECT_EQ(get("pid", &rc), "1");
        EXPECT_EQ(vzdb_prop_put(own(), "pid", "2"), 9);
        EXPECT_EQ(reader.let_go(), 0);
        EXPECT_EQ(vzdb_prop_put(own(), "pid", "2"), 0);
    });
}

TEST(DbLock, AWaitingWriterGetsTheLockWhenItIsLetGo) {
    run_in_private_dirs([] {
        make_own();
        ASSERT_EQ(vzdb_prop_put(own(), "pid", "1"), 0);
        Holder writer(F_WRLCK);
        ASSERT_GT(writer.pid, 0);
        struct stat st;
        ASSERT_EQ(stat(kFile, &st), 0);
        sf_locktimer = 60;
        // Let go once some process is seen waiting for the lock (a blocked
        // entry in /proc/locks for the file's inode).
        int watcher = spawn_child([&] {
            std::string ino = ":" + std::to_string(st.st_ino) + " ";
            for (int i = 0; i < 6000; i++, usleep(10000)) {
                FILE* f = fopen("/proc/locks", "r");
                char line[256];
                bool waiting = false;
                while (f != nullptr && !waiting && fgets(line, sizeof line, f) != nullptr)
                    waiting = strstr(line, "->") != nullptr && strstr(line, ino.c_str()) != nullptr;
                if (f != nullptr)
                    fclose(f);
                if (waiting)
                    return write(writer.release_fd, "g", 1) == 1 ? 0 : 1;
            }
            return 2;
        });
        EXPECT_EQ(vzdb_prop_put(own(), "pid", "2"), 0);
        EXPECT_EQ(wait_child(watcher), 0);
        EXPECT_EQ(writer.let_go(), 0);
        EXPECT_EQ(contents(), "pid 2\n");

        // Two processes counting together lose nothing.
        auto count = [] {
            for (int i = 0; i < 100; i++) {
                char* v = nullptr;
                if (vzdb_prop_semadd(own(), "n", 1, 1000000) != 0 || vzdb_prop_get(own(), "n", &v) != 0)
                    return 1;
                vzdb_strfree(v);
            }
            return 0;
        };
        int a = spawn_child(count);
        int b = spawn_child(count);
        EXPECT_EQ(wait_child(a), 0);
        EXPECT_EQ(wait_child(b), 0);
        EXPECT_EQ(contents(), "pid 2\nn 200\n");
    });
}
