#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "config/sflock.h"
#include "shr/dbpid.h"
#include "shr/logging.h"
#include "tests/support/kvc.h"
#include "tests/support/nsfixture.h"

namespace {

constexpr const char* kFile = "/var/opt/KORRbase/rtdb/realm=NB/program=Halyard/=plist";
const Kvc own_name({{"system", "*"}, {"realm", "NB"}, {"program", "Halyard"}});
const vz_kvc* own = own_name.get();

std::string contents(const char* path = kFile)
{
    std::ostringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

std::string pid_line(int pid)
{
    return "pid " + std::to_string(pid) + "\n";
}

}  // namespace

// What a daemon that ended without its clean-up leaves: a registration
// stands while its process runs, any other is taken over; a pidlock that is
// never given back ends the wait after eleven tries. (Two starts at once are
// kept apart by the property list's lock, tested with it.)
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
            std::ofstream(kFile) << c.file;
            EXPECT_EQ(db_addpid(own, -1, -1), c.result) << c.file;
            EXPECT_EQ(contents(), c.after);
        }
        EXPECT_NE(contents("/var/opt/KORRbase/log.nb").find("Halyard: Timed out waiting for pid lock"),
                  std::string::npos);
        std::ofstream(kFile) << pid_line(alive);
        EXPECT_EQ(db_delpid(own), 0);  // another process's registration stays
        EXPECT_EQ(contents(), pid_line(alive));
        kill(alive, SIGKILL);
        wait_child(alive);
    });
}
