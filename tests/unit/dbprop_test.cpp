#include "tests/unit/unitkit.h"

#include "config/dballoc.h"
#include "config/dbob.h"
#include "config/dbprop.h"
#include "config/sflock.h"
#include "shr/dbpid.h"
#include "shr/vzsignal.h"

namespace {

constexpr const char* kFile = "/var/opt/KORRbase/rtdb/realm=NB/program=Halyard/=plist";
const Kvc own_name({{"system", "*"}, {"realm", "NB"}, {"program", "Halyard"}});
const vz_kvc* own = own_name.get();

std::string contents(const char* path = kFile)
{
    return access(path, F_OK) == 0 ? lab_read_file(path) : "(missing)";
}

void write_file(const std::string& bytes)
{
    std::ofstream(kFile, std::ios::binary) << bytes;
}

// The value, with the result when it is not 0.
std::string get(const char* name)
{
    char* v = nullptr;
    int rc = vzdb_prop_get(own, name, &v);
    std::string s = (v != nullptr ? v : "(none)") + (rc != 0 ? " " + std::to_string(rc) : "");
    vzdb_strfree(v);
    return s;
}

std::string pid_line(int pid)
{
    return "pid " + std::to_string(pid) + "\n";
}

volatile sig_atomic_t own_alarms = 0;

}  // namespace

TEST(DbProp, WritesReadsCountsRefusesWhatCouldNotBeReadBackReadsOddFilesAndWaitsForLocksBounded) {
    run_in_private_dirs([] {
        ASSERT_EQ(mkdir("/var/opt/KORRbase/rtdb", 0755), 0);
        EXPECT_EQ(vzdb_prop_put(own, "pid", "1"), 4);  // no object
        ASSERT_EQ(vzdb_ob_create(own), 0);
        ASSERT_EQ(vzdb_ob_setugm(own, 1234, 5678, 0775), 0);
        umask(077);
        EXPECT_EQ(get("pid") + contents(), "(none)(missing)");  // reading creates nothing
        ASSERT_EQ(vzdb_prop_put(own, "v", "a\\b\nc"), 0);
        EXPECT_EQ(contents(), "v a\\\\b\\\nc\n");
        struct stat st;
        ASSERT_EQ(stat(kFile, &st), 0);  // the directory's owner, its mode less 0111
        EXPECT_TRUE(st.st_mode == (S_IFREG | 0664) && st.st_uid == 1234 && st.st_gid == 5678);
        for (const char* v : {"", " lead and trail ", "\\", "x\\\n\\\ny"}) {
            ASSERT_EQ(vzdb_prop_put(own, "v", v), 0);
            EXPECT_EQ(get("v"), v);
        }
        // A change moves to the end; a batch deletes, then appends in order.
        write_file("a 1\nb 2\nc 3\nb 4\n");
        ASSERT_EQ(vzdb_prop_put(own, "b", "5"), 0);
        EXPECT_EQ(contents(), "a 1\nc 3\nb 5\n");
        Kvc batch({{"c", nullptr}, {"n", "x"}, {"a", "7"}, {"b", nullptr}});
        ASSERT_EQ(vzdb_prop_lput(own, batch.get()), 0);
        EXPECT_EQ(contents(), "n x\na 7\n");
        for (const char* bad : {"", "two words", "new\nline", "back\\slash"}) {
            EXPECT_EQ(vzdb_prop_put(own, bad, "v"), 3) << bad;
            EXPECT_EQ(vzdb_prop_semadd(own, bad, 1, 1), 3) << bad;
        }
        EXPECT_EQ(vzdb_prop_put(own, "k", std::string(510, 'v').c_str()), 7);  // longer than a line
        EXPECT_EQ(contents(), "n x\na 7\n");  // refused before the file is touched
        const struct { std::string before; int add, limit, rc; std::string after; } counts[] = {
            {"pid 42\npidlock 1\n", 1, 1, 10, "pid 42\npidlock 1\n"},
            {"pidlock 3\nx y\npidlock 7\n", -1, 100, 0, "x y\npidlock 6\n"},  // the last line counts
            {"pidlock 2147483647\n", 1, 2147483647, 10, "pidlock 2147483647\n"},
        };
        for (const auto& c : counts) {
            write_file(c.before);
            EXPECT_EQ(vzdb_prop_semadd(own, "pidlock", c.add, c.limit), c.rc) << c.before;
            EXPECT_EQ(contents(), c.after);
        }
        const std::string x508(508, 'x'), x509(509, 'x');
        const struct { std::string file; std::vector<std::string> props; } cases[] = {
            {"nospace\n lead v\na 1\n\nb  two\nk v\\", {"a=1", "b= two", "k=v"}},
            {"k " + x509 + "z rest\n" + std::string(600, 'y') + "\nj v\n", {"k=" + x509, "z=rest", "j=v"}},
            {"k " + x508 + "\\z rest\n", {"k=" + x508 + "z"}},  // an escape never splits at the cut
            {"k " + x509 + "\\\nq r\nj v\n", {"k=" + x509, "j=v"}},
            {std::string("a 1\0tail\nb 2\n", 13), {"a=1", "b=2"}},
            {std::string("a\\\nb 1\nc\\\\d 2\ne\0f 3\ng\\ h 4\n", 27), {"g=h 4"}},
        };
        for (const auto& c : cases) {
            write_file(c.file);
            vz_kvc* l = nullptr;
            EXPECT_EQ(vzdb_prop_list(own, &l), 0);
            EXPECT_EQ(kvc_lines(l), c.props) << c.file.substr(0, 40);
            vzdb_kvcfree(l);
        }
        // A lock held elsewhere: 9 once the bounded wait ends by the alarm; the
        // daemon loop's pending alarm stays pending. Counts are never lost.
        write_file("pid 1\n");
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        int holder = spawn_child([&ready] {
            int fd = open(kFile, O_RDWR);
            struct flock fl = {.l_type = F_RDLCK, .l_whence = SEEK_SET, .l_start = 0, .l_len = 1, .l_pid = 0};
            if (fd < 0 || fcntl(fd, F_SETLK, &fl) != 0 || write(ready[1], "r", 1) != 1)
                return 1;
            return pause();
        });
        char c;
        ASSERT_EQ(read(ready[0], &c, 1), 1);
        sf_locktimer = 0;
        EXPECT_EQ(get("pid"), "1");  // readers share
        EXPECT_EQ(vzdb_prop_semadd(own, "pidlock", 1, 1), 9);
        sf_locktimer = 1;
        ASSERT_EQ(vz_signal(SIGALRM, [](int) { own_alarms = own_alarms + 1; }), 0);
        sigset_t alrm, old_mask, pending;
        sigemptyset(&alrm);
        sigaddset(&alrm, SIGALRM);
        sigprocmask(SIG_BLOCK, &alrm, &old_mask);
        raise(SIGALRM);
        EXPECT_EQ(vzdb_prop_put(own, "pid", "2"), 9);
        sigpending(&pending);
        EXPECT_EQ(sigismember(&pending, SIGALRM), 1);
        EXPECT_EQ(own_alarms, 0);
        sigprocmask(SIG_SETMASK, &old_mask, nullptr);
        EXPECT_EQ(own_alarms, 1);  // the handler stayed
        kill(holder, SIGKILL);
        wait_child(holder);

        sf_locktimer = 60;
        auto count = [] {
            for (int i = 0; i < 100; i++)
                if (vzdb_prop_semadd(own, "n", 1, 1000000) != 0)
                    return 1;
            return 0;
        };
        int a = spawn_child(count), b = spawn_child(count);
        EXPECT_EQ(wait_child(a) + wait_child(b), 0);
        EXPECT_EQ(contents(), "pid 1\nn 200\n");
    });
}

// A registration stands while its process runs, any other is taken over; a
// pidlock never given back ends the wait after eleven tries.
TEST(DbPid, RegistrationTakesOverStaleOnesAndGivesUpOnAStuckPidlock) {
    run_in_private_dirs([] {
        ASSERT_EQ(mkdir("/var/opt/KORRbase/rtdb", 0755), 0);
        ASSERT_EQ(open_log("/var/opt/KORRbase/log.nb"), 0);
        sf_locktimer = 2;
        ASSERT_EQ(db_addpid(own, 1234, 5678), 1);
        struct stat st;
        ASSERT_EQ(stat("/var/opt/KORRbase/rtdb/realm=NB/program=Halyard", &st), 0);
        EXPECT_TRUE(st.st_uid == 1234 && st.st_gid == 5678);
        EXPECT_EQ(contents(), pid_line(getpid()));
        EXPECT_EQ(db_delpid(own), 1);
        EXPECT_EQ(contents(), "");

        int gone = spawn_child([] { return 0; });
        ASSERT_EQ(wait_child(gone), 0);
        int alive = spawn_child([] { return pause(); });
        const struct { std::string file; int result; std::string after; } cases[] = {
            {"a b\n" + pid_line(gone), 1, "a b\n" + pid_line(getpid())},
            {"pid -1\n", 1, pid_line(getpid())},  // a process group
            {pid_line(getpid()) + "z 1\n", 1, pid_line(getpid()) + "z 1\n"},
            {pid_line(alive) + "z 1\n", 0, pid_line(alive) + "z 1\n"},
            {pid_line(1), 0, pid_line(1)},
            {"pid 1\npidlock 1\n", -1, "pid 1\npidlock 1\n"},
        };
        dbpid_pause = 0;  // the eleven tries without their pauses
        for (const auto& c : cases) {
            write_file(c.file);
            EXPECT_EQ(db_addpid(own, -1, -1), c.result) << c.file;
            EXPECT_EQ(contents(), c.after);
        }
        EXPECT_NE(contents("/var/opt/KORRbase/log.nb").find("Halyard: Timed out waiting for pid lock"),
                  std::string::npos);
        write_file(pid_line(alive));
        EXPECT_EQ(db_delpid(own), 0);  // another process's registration stays
        EXPECT_EQ(contents(), pid_line(alive));
        kill(alive, SIGKILL);
        wait_child(alive);
    });
}
