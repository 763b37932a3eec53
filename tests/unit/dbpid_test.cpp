#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/dbob.h"
#include "config/dbprop.h"
#include "config/sflock.h"
#include "nmtrace.h"
#include "shr/dbpid.h"
#include "shr/logging.h"
#include "tests/support/kvc.h"
#include "tests/support/nsfixture.h"

namespace {

constexpr const char* kDir = "/var/opt/KORRbase/rtdb/realm=NB/program=Halyard";
constexpr const char* kFile = "/var/opt/KORRbase/rtdb/realm=NB/program=Halyard/=plist";
constexpr const char* kLog = "/var/opt/KORRbase/log.nb";
constexpr const char* kTrace = "/opt/KORRlibs/halyard.trc";

const vz_kvc* own()
{
    static const Kvc name({{"system", "*"}, {"realm", "NB"}, {"program", "Halyard"}});
    return name.get();
}

std::string contents(const char* path)
{
    std::string s;
    FILE* f = fopen(path, "r");
    if (f == nullptr)
        return "(missing)";
    for (int c; (c = getc(f)) != EOF;)
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

// The database root, the log and an err-level trace, as the daemon has them.
void start()
{
    ASSERT_EQ(mkdir("/var/opt/KORRbase/rtdb", 0755), 0);
    ASSERT_EQ(open_log(kLog), 0);
    tcfile = fopen(kTrace, "w");
    ASSERT_NE(tcfile, nullptr);
    setvbuf(tcfile, nullptr, _IONBF, 0);
    tc_err = 1;
    sf_locktimer = 2;
}

std::string pid_line(int pid)
{
    return "pid " + std::to_string(pid) + "\n";
}

void expect_logged(const std::string& log, const std::string& trace)
{
    EXPECT_NE(contents(kLog).find(log), std::string::npos) << contents(kLog);
    EXPECT_NE(contents(kTrace).find(trace), std::string::npos) << contents(kTrace);
}

}  // namespace

TEST(DbPid, RegistrationCreatesTheObjectAndTakesOverStaleOnes) {
    run_in_private_dirs([] {
        start();
        umask(022);
        ASSERT_EQ(db_addpid(own(), 1234, 5678), 1);
        struct stat st;
        ASSERT_EQ(stat(kDir, &st), 0);
        EXPECT_EQ(st.st_mode, S_IFDIR | 0775);
        EXPECT_EQ(st.st_uid, 1234u);
        EXPECT_EQ(st.st_gid, 5678u);
        EXPECT_EQ(contents(kFile), pid_line(getpid()));
        EXPECT_EQ(db_delpid(own()), 1);
        EXPECT_EQ(contents(kFile), "");
        EXPECT_EQ(db_delpid(own()), 1);  // nobody registered

        int gone = spawn_child([] { return 0; });
        ASSERT_EQ(wait_child(gone), 0);
        int alive = spawn_child([] { return pause(); });   // until killed
        const struct { const char* why; std::string file; int result; std::string after; } cases[] = {
            {"a process that has ended", "a b\n" + pid_line(gone), 1, "a b\n" + pid_line(getpid())},
            {"a process group, not a process", "pid -1\n", 1, pid_line(getpid())},
            {"an empty value", "pid \n", 1, pid_line(getpid())},
            {"this process itself: not written again", pid_line(getpid()) + "z 1\n", 1,
             pid_line(getpid()) + "z 1\n"},
            {"a running process", pid_line(alive) + "z 1\n", 0, pid_line(alive) + "z 1\n"},
            {"the first process of the machine", pid_line(1), 0, pid_line(1)},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            write_file(c.file);
            EXPECT_EQ(db_addpid(own(), -1, -1), c.result);
            EXPECT_EQ(contents(kFile), c.after);
        }
        // Removal leaves another process's registration alone.
        write_file(pid_line(alive));
        EXPECT_EQ(db_delpid(own()), 0);
        EXPECT_EQ(contents(kFile), pid_line(alive));
        kill(alive, SIGKILL);
        wait_child(alive);
        EXPECT_EQ(contents(kTrace), "");
    });
}

TEST(DbPid, ErrorsAreLoggedAndLeaveNoPidlock) {
    run_in_private_dirs([] {
        start();
        dbpid_pause = 0;   // the eleven tries without their pauses
        EXPECT_EQ(db_delpid(own()), -1);   // no object
        expect_logged("Halyard: VZ database error 4", "db_delpid: vzdb_prop_semadd error 4\n");

        // The object cannot be made: a plain file where the realm goes.
        write_file("", "/var/opt/KORRbase/rtdb/realm=NB");
        EXPECT_EQ(db_addpid(own(), -1, -1), -1);
        expect_logged("Halyard: VZ database error 5", "db_addpid: vzdb_ob_create error 5\n");
        ASSERT_EQ(unlink("/var/opt/KORRbase/rtdb/realm=NB"), 0);
        ASSERT_EQ(vzdb_ob_create(own()), 0);

        // A pidlock that stays taken: message 528 after eleven tries.
        write_file("pid 1\npidlock 1\n");
        EXPECT_EQ(db_addpid(own(), -1, -1), -1);
        expect_logged("Halyard: Timed out waiting for pid lock", "db_addpid: can't get pid lock after 11 tries\n");
        EXPECT_EQ(db_delpid(own()), -1);
        expect_logged("Halyard: Timed out waiting for pid lock", "db_delpid: can't get pid lock after 11 tries\n");
        EXPECT_EQ(contents(kFile), "pid 1\npidlock 1\n");

        // The file lock is held elsewhere for longer than the wait: no retry.
        sf_locktimer = 0;
        write_file("");
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        int holder = spawn_child([&ready] {
            int fd = open(kFile, O_RDWR);
            struct flock fl = {};
            fl.l_type = F_WRLCK;
            fl.l_len = 1;
            if (fd < 0 || fcntl(fd, F_SETLK, &fl) != 0 || write(ready[1], "r", 1) != 1)
                return 1;
            return pause();   // until killed
        });
        close(ready[1]);
        char c;
        ASSERT_EQ(read(ready[0], &c, 1), 1);
        close(ready[0]);
        EXPECT_EQ(db_addpid(own(), -1, -1), -1);
        expect_logged("Halyard: VZ database error 9", "db_addpid: vzdb_prop_semadd error 9\n");
        kill(holder, SIGKILL);
        wait_child(holder);
        EXPECT_EQ(contents(kFile), "");

        // The registration itself cannot be written: the pidlock still goes.
        sf_locktimer = 2;
        ASSERT_EQ(mount("t", kDir, "tmpfs", 0, "size=4k,mode=0775"), 0);
        std::string filler;   // 4084 bytes: room for "pidlock 1" and no more
        for (int i = 0; i < 8; i++)
            filler += "f" + std::to_string(i) + " " + std::string(506, 'x') + "\n";
        filler += "g x\n";
        write_file(filler);
        EXPECT_EQ(db_addpid(own(), -1, -1), -1);
        expect_logged("Halyard: VZ database error 7", "db_addpid: vzdb_prop_put error 7\n");
        EXPECT_EQ(contents(kFile), filler);
    });
}

TEST(DbPid, TwoStartingProcessesRegisterExactlyOne) {
    run_in_private_dirs([] {
        start();
        for (int round = 0; round < 3; round++) {
            SCOPED_TRACE(round);
            int results[2], release[2];
            ASSERT_EQ(pipe(results), 0);
            ASSERT_EQ(pipe(release), 0);
            int pids[2];
            for (int& pid : pids)
                pid = spawn_child([&] {
                    close(release[1]);
                    char r = char('0' + 1 + db_addpid(own(), -1, -1));
                    if (write(results[1], &r, 1) != 1)
                        return 1;
                    char c;
                    while (read(release[0], &c, 1) != 0) {   // stay alive until told
                    }
                    return r == '2' ? 0 : 3;   // the winner cleans up
                });
            close(results[1]);
            close(release[0]);
            char got[2] = {};
            ASSERT_EQ(read(results[0], &got[0], 1), 1);
            ASSERT_EQ(read(results[0], &got[1], 1), 1);
            close(results[0]);
            std::string file = contents(kFile);
            close(release[1]);
            int status[2] = {wait_child(pids[0]), wait_child(pids[1])};
            // One registered ('2'), the other found it running ('1').
            EXPECT_EQ(std::min(got[0], got[1]), '1');
            EXPECT_EQ(std::max(got[0], got[1]), '2');
            EXPECT_EQ(file, pid_line(status[0] == 0 ? pids[0] : pids[1]));
            EXPECT_EQ(status[0] + status[1], 3);
            ASSERT_EQ(vzdb_prop_delete(own(), "pid"), 0);
        }
    });
}
