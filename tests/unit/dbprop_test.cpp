#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string>
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

volatile sig_atomic_t own_alarms = 0;
void count_alarm(int)
{
    own_alarms = own_alarms + 1;
}

}  // namespace

TEST(DbProp, WritesReadsAndRefusesWhatCouldNotBeReadBack) {
    run_in_private_dirs([] {
        int rc = -1;
        ASSERT_EQ(mkdir("/var/opt/KORRbase/rtdb", 0755), 0);
        EXPECT_EQ(vzdb_prop_put(own(), "pid", "1"), 4);  // no object
        ASSERT_EQ(vzdb_ob_create(own()), 0);
        ASSERT_EQ(vzdb_ob_setugm(own(), 1234, 5678, 0775), 0);
        umask(077);
        EXPECT_EQ(get("pid", &rc), "(none)");  // reading creates nothing
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(contents(), "(missing)");
        ASSERT_EQ(vzdb_prop_put(own(), "v", "a\\b\nc"), 0);
        EXPECT_EQ(contents(), "v a\\\\b\\\nc\n");
        struct stat st;
        ASSERT_EQ(stat(kFile, &st), 0);
        EXPECT_EQ(st.st_mode, S_IFREG | 0664);  // the directory's owner and mode
        EXPECT_EQ(st.st_uid, 1234u);
        EXPECT_EQ(st.st_gid, 5678u);
        for (const char* v : {"", " lead and trail ", "\\", "x\\\n\\\ny"}) {
            SCOPED_TRACE(v);
            ASSERT_EQ(vzdb_prop_put(own(), "v", v), 0);
            EXPECT_EQ(get("v", &rc), v);
        }
        // A change moves to the end; a batch deletes, then appends in order.
        write_file("a 1\nb 2\nc 3\nb 4\n");
        ASSERT_EQ(vzdb_prop_put(own(), "b", "5"), 0);
        EXPECT_EQ(contents(), "a 1\nc 3\nb 5\n");
        Kvc batch({{"c", nullptr}, {"n", "x"}, {"a", "7"}, {"b", nullptr}});
        ASSERT_EQ(vzdb_prop_lput(own(), batch.get()), 0);
        EXPECT_EQ(contents(), "n x\na 7\n");
        const std::string v509(509, 'v');
        const struct { std::string name, value; int rc; } refused[] = {
            {"", "v", 3}, {"two words", "v", 3}, {"new\nline", "v", 3}, {"back\\slash", "v", 3},
            {"k", v509 + "v", 7},  // longer than one line
        };
        for (const auto& r : refused) {
            SCOPED_TRACE(r.name);
            EXPECT_EQ(vzdb_prop_put(own(), r.name.c_str(), r.value.c_str()), r.rc);
            if (r.rc == 3) {
                EXPECT_EQ(vzdb_prop_semadd(own(), r.name.c_str(), 1, 1), 3);
            }
        }
        EXPECT_EQ(contents(), "n x\na 7\n");
        ASSERT_EQ(vzdb_prop_put(own(), "k", v509.c_str()), 0);
    });
}

TEST(DbProp, SemaphoreCountsUpToItsLimit) {
    run_in_private_dirs([] {
        make_own();
        const struct { std::string before; int add, limit, rc; std::string after; } cases[] = {
            {"pid 42\n", 1, 1, 0, "pid 42\npidlock 1\n"},
            {"pidlock 1\n", 1, 1, 10, "pidlock 1\n"},
            {"pidlock 3\nx y\npidlock 7\n", -1, 100, 0, "x y\npidlock 6\n"},   // the last line counts
            {"pidlock many\n", 2, 100, 0, "pidlock 2\n"},
            {"pidlock 2147483647\n", 1, 2147483647, 10, "pidlock 2147483647\n"},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.before);
            write_file(c.before);
            EXPECT_EQ(vzdb_prop_semadd(own(), "pidlock", c.add, c.limit), c.rc);
            EXPECT_EQ(contents(), c.after);
        }
    });
}

// The reader of the file: one table of odd files and what they list.
TEST(DbProp, OddFilesAreReadWithinTheLineBuffer) {
    run_in_private_dirs([] {
        make_own();
        const std::string x508(508, 'x'), x509(509, 'x');
        const struct { std::string file; std::vector<std::string> props; } cases[] = {
            {"nospace\n lead v\na 1\n\nb  two\n", {"a=1", "b= two"}},
            {"k v\\", {"k=v"}},
            {"k v\nl w", {"k=v", "l=w"}},
            {"k " + x509 + "z rest\n" + std::string(600, 'y') + "\nj v\n", {"k=" + x509, "z=rest", "j=v"}},
            {"k " + x508 + "\\z rest\n", {"k=" + x508 + "z"}},  // an escape never splits at the cut
            {"k " + x509 + "\\zz rest\n", {"k=" + x509, "zz=rest"}},
            {"k " + x509 + "\\\nq r\nj v\n", {"k=" + x509, "j=v"}},
            {std::string("a 1\0tail\nb 2\n", 13), {"a=1", "b=2"}},
            {std::string("a\\\nb 1\nc\\\\d 2\ne\0f 3\ng\\ h 4\n", 27), {"g=h 4"}},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.file.substr(0, 40));
            write_file(c.file);
            EXPECT_EQ(list_of(), c.props);
        }
    });
}

// The record lock: a holder elsewhere makes every call give 9 once the
// bounded wait is over; the wait ends by the alarm and gives back one armed
// before, or one pending for the daemon's loop, untouched.
TEST(DbLock, ALockHeldElsewhereEndsTheWaitWithCode9AndCountsAreNeverLost) {
    run_in_private_dirs([] {
        make_own();
        ASSERT_EQ(vzdb_prop_put(own(), "pid", "1"), 0);
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        int holder = spawn_child([&ready] {
            int fd = open(kFile, O_RDWR);
            struct flock fl = {};
            fl.l_type = F_RDLCK;
            fl.l_len = 1;
            if (fd < 0 || fcntl(fd, F_SETLK, &fl) != 0 || write(ready[1], "r", 1) != 1)
                return 1;
            return pause();
        });
        close(ready[1]);
        char c;
        ASSERT_EQ(read(ready[0], &c, 1), 1);
        int rc = -1;
        sf_locktimer = 0;
        EXPECT_EQ(get("pid", &rc), "1");  // readers share
        EXPECT_EQ(vzdb_prop_put(own(), "pid", "2"), 9);
        EXPECT_EQ(vzdb_prop_semadd(own(), "pidlock", 1, 1), 9);

        sf_locktimer = 1;
        ASSERT_EQ(vz_signal(SIGALRM, count_alarm), 0);
        alarm(100);
        EXPECT_EQ(vzdb_prop_put(own(), "pid", "2"), 9);
        unsigned left = alarm(0);
        EXPECT_TRUE(left >= 1 && left <= 99) << left;
        struct sigaction now;
        ASSERT_EQ(sigaction(SIGALRM, nullptr, &now), 0);
        EXPECT_EQ(now.sa_handler, count_alarm);
        sigset_t alrm, old_mask, pending;
        sigemptyset(&alrm);
        sigaddset(&alrm, SIGALRM);
        sigprocmask(SIG_BLOCK, &alrm, &old_mask);
        raise(SIGALRM);
        EXPECT_EQ(vzdb_prop_put(own(), "pid", "2"), 9);
        sigpending(&pending);
        EXPECT_EQ(sigismember(&pending, SIGALRM), 1);
        EXPECT_EQ(own_alarms, 0);
        sigprocmask(SIG_SETMASK, &old_mask, nullptr);
        EXPECT_EQ(own_alarms, 1);
        kill(holder, SIGKILL);
        wait_child(holder);

        // Two processes counting together, each waiting for the other.
        sf_locktimer = 60;
        auto count = [] {
            for (int i = 0; i < 100; i++)
                if (vzdb_prop_semadd(own(), "n", 1, 1000000) != 0)
                    return 1;
            return 0;
        };
        int a = spawn_child(count), b = spawn_child(count);
        EXPECT_EQ(wait_child(a), 0);
        EXPECT_EQ(wait_child(b), 0);
        EXPECT_EQ(contents(), "pid 1\nn 200\n");
    });
}
