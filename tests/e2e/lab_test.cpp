// The end-to-end lab itself: isolation, links between the namespaces, and
// the launch/registration/stop machinery against a stand-in daemon.

#include "tests/support/lab.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>

#include <linux/magic.h>

namespace {

TEST(LabLog, SplitsGroupsAtStampLines)
{
    const std::string text =
        "Mon Nov 23 09:30:00 2026\r\n"
        "\tNB NetBIOS services 2.0 hy starting.\n\r\n"
        "Mon Nov 23 09:30:01 2026\r\n"
        "\tHalyard: error in config file at line 3\r\n"
        "\t    expecting positive port number\r\n";
    auto groups = lab_parse_log(text);
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(groups[0].stamp, "Mon Nov 23 09:30:00 2026");
    ASSERT_EQ(groups[0].messages.size(), 1u);
    EXPECT_EQ(groups[0].messages[0], "NB NetBIOS services 2.0 hy starting.\n");
    ASSERT_EQ(groups[1].messages.size(), 2u);
    EXPECT_EQ(groups[1].messages[1], "    expecting positive port number");
}

TEST(LabLog, KeepsOddTextVisible)
{
    const struct { const char* why; std::string text; size_t groups; size_t first_messages; } cases[] = {
        {"empty file", "", 0, 0},
        {"message before any stamp", "\tstray\r\n", 1, 1},
        {"last line without CR LF", "stamp\r\n\tcut off", 1, 1},
        {"bare LF is part of a line", "stamp\n\tnot a message\r\n", 1, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        auto groups = lab_parse_log(c.text);
        ASSERT_EQ(groups.size(), c.groups);
        if (!groups.empty()) {
            EXPECT_EQ(groups[0].messages.size(), c.first_messages);
        }
    }
}

TEST(LabPlist, FindsThePidProperty)
{
    const struct { const char* why; const char* text; pid_t pid; } cases[] = {
        {"alone", "pid 4242\n", 4242},
        {"after the lock", "pidlock 1\npid 17\n", 17},
        {"no newline at the end", "pid 99", 99},
        {"empty value", "pid \n", -1},
        {"only the lock", "pidlock 1\n", -1},
        {"no file", "", -1},
        {"name is a prefix only", "pids 5\n", -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(lab_plist_pid(c.text), c.pid);
    }
}

class LabTest : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 2); }
    Lab lab;
};

TEST_F(LabTest, PlacesAreFreshTmpfsWithTheInstallDirectories)
{
    for (const char* place : {"/etc/opt", "/var/opt", "/opt"}) {
        SCOPED_TRACE(place);
        struct statfs fs {};
        ASSERT_EQ(statfs(place, &fs), 0);
        EXPECT_EQ(fs.f_type, TMPFS_MAGIC);
    }
    for (const char* dir : {"/etc/opt/KORRbase", "/var/opt/KORRbase/rtdb", "/opt/KORRlibs/lib"}) {
        SCOPED_TRACE(dir);
        struct stat st {};
        ASSERT_EQ(stat(dir, &st), 0);
        EXPECT_TRUE(S_ISDIR(st.st_mode));
    }
    EXPECT_EQ(lab.log(), "");
    EXPECT_EQ(lab.registered_pid(), -1);
}

TEST_F(LabTest, TestProcessSeesNoHostInterface)
{
    // Our own namespace holds only a loopback: nothing can reach the host.
    std::string dev = lab_read_file("/proc/self/net/dev");
    size_t lines = 0;
    for (char ch : dev)
        lines += ch == '\n';
    EXPECT_EQ(lines, 3u) << dev;  // two header lines and lo
    EXPECT_NE(dev.find("lo:"), std::string::npos) << dev;
}

TEST_F(LabTest, DaemonSideHasItsAddresses)
{
    std::string out;
    ASSERT_EQ(lab.run(lab_daemon, {"/usr/sbin/ip", "-o", "-4", "addr", "show"}, &out), 0) << out;
    EXPECT_NE(out.find("hd0    inet 10.88.0.1/24 brd 10.88.0.255"), std::string::npos) << out;
    EXPECT_NE(out.find("hd1    inet 10.89.0.1/24 brd 10.89.0.255"), std::string::npos) << out;
    EXPECT_NE(out.find("lo    inet 127.0.0.1/8"), std::string::npos) << out;
}

TEST_F(LabTest, DatagramsCrossEachLinkBothWays)
{
    for (int s = 1; s <= 2; ++s) {
        SCOPED_TRACE(s);
        // Bound to its address, it does not hear its own broadcasts back.
        int daemon_side = lab.udp_socket(lab_daemon, 137, Lab::daemon_addr(s));
        ASSERT_GE(daemon_side, 0) << lab.last_error();
        int station = lab.udp_socket(LabSide(s), 137);
        ASSERT_GE(station, 0) << lab.last_error();
        std::vector<uint8_t> ping{0x12, 0x34, uint8_t(s)};
        ASSERT_TRUE(lab.send_to(station, Lab::daemon_addr(s), 137, ping)) << lab.last_error();
        auto got = lab.recv(daemon_side, 10.0);
        ASSERT_TRUE(got.has_value());
        EXPECT_EQ(got->bytes, ping);
        EXPECT_EQ(got->from, Lab::station_addr(s));
        EXPECT_EQ(got->port, 137);

        // A subnet broadcast from the daemon's side reaches a socket bound to any.
        std::string bcast = s == 2 ? "10.89.0.255" : "10.88.0.255";
        std::vector<uint8_t> pong{0x56, uint8_t(s)};
        ASSERT_TRUE(lab.send_to(daemon_side, bcast, 137, pong)) << lab.last_error();
        got = lab.recv(station, 10.0);
        ASSERT_TRUE(got.has_value());
        EXPECT_EQ(got->bytes, pong);
        EXPECT_EQ(got->from, Lab::daemon_addr(s));
    }
}

// A stand-in for the daemon: forks a detached process that registers itself
// and removes its registration on SIGTERM, then the launcher exits 0.
constexpr const char* stand_in =
    "dir=/var/opt/KORRbase/rtdb/realm=NB/program=Halyard\n"
    "mkdir -p \"$dir\"\n"
    "sh -c 'trap \"rm -f \\\"$0/=plist\\\"; exit 0\" TERM\n"
    "       echo \"pid $$\" > \"$0/=plist\"\n"
    "       i=0; while [ $i -lt 120 ]; do sleep 1; i=$((i+1)); done' \"$dir\" &\n"
    "exit 0\n";

TEST_F(LabTest, LaunchRegistrationAndStopWorkWithADetachedProcess)
{
    int launched = lab.launch({"-c", stand_in}, 30.0, -1, -1, "/bin/sh");
    ASSERT_TRUE(WIFEXITED(launched) && WEXITSTATUS(launched) == 0)
        << lab_describe_status(launched) << " " << lab.last_error();
    pid_t pid = lab.wait_registered(20.0);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(Lab::udp_port_bound(pid, 137) == false);

    int status = -1;
    EXPECT_TRUE(lab.stop_daemon(pid, 20.0, &status));
    // Re-parented to the test, so its own status is known.
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << lab_describe_status(status);
    EXPECT_EQ(lab.registered_pid(), -1);
}

TEST_F(LabTest, LaunchAsAnotherUserAndSeeTheDetachedStatus)
{
    // The launcher exits 0 at once; its child, re-parented to us, ends with 3.
    int launched = lab.launch({"-c", "id -u > /dev/null; (sleep 1; exit 3) & exit 0"},
                              30.0, 65534, 65534, "/bin/sh");
    ASSERT_TRUE(WIFEXITED(launched) && WEXITSTATUS(launched) == 0)
        << lab_describe_status(launched);
    int status = -1;
    ASSERT_TRUE(lab.wait_exit(-1, 20.0, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << lab_describe_status(status);
}

}  // namespace
