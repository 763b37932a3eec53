// Start-up and shutdown of the real daemon, seen from outside: exit statuses,
// the log, the registration, the trace file and the bound port.

#include "tests/support/lab.h"
#include "tests/support/paths.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <thread>

namespace {

constexpr const char* started_prefix = "NB NetBIOS services 2.0 ";
constexpr const char* started_suffix = " starting.\n";

bool exited_with(int wstatus, int code)
{
    return wstatus != -1 && WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == code;
}

bool is_start_message(const std::string& m)
{
    return m.rfind(started_prefix, 0) == 0 && m.size() > strlen(started_prefix) + strlen(started_suffix) &&
           m.compare(m.size() - strlen(started_suffix), std::string::npos, started_suffix) == 0;
}

std::string link_of(const std::string& path)
{
    char buf[PATH_MAX];
    ssize_t n = readlink(path.c_str(), buf, sizeof buf - 1);
    return n < 0 ? "" : std::string(buf, size_t(n));
}

// The socket is opened after the registration; wait for it.
bool wait_port_bound(pid_t pid, uint16_t port, double seconds)
{
    auto deadline = std::chrono::steady_clock::now() +
                    std::chrono::milliseconds(int64_t(seconds * 1000));
    for (;;) {
        if (Lab::udp_port_bound(pid, port))
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

class Startup : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 1); }
    Lab lab;
};

TEST_F(Startup, LaunchingProcessExitsZero)
{
    ASSERT_TRUE(lab.write_config(lab.default_config())) << lab.last_error();
    int status = lab.launch({});
    EXPECT_TRUE(exited_with(status, 0)) << lab_describe_status(status) << " " << lab.last_error();
}

TEST_F(Startup, DetachesLogsItsStartAndOpensTheNamePort)
{
    pid_t pid = lab.start_daemon();
    ASSERT_GT(pid, 0) << lab.last_error();

    auto groups = lab.log_groups();
    ASSERT_FALSE(groups.empty()) << lab.log();
    EXPECT_EQ(groups[0].stamp.size(), 24u) << "a ctime text without its newline: " << groups[0].stamp;
    ASSERT_FALSE(groups[0].messages.empty());
    EXPECT_TRUE(is_start_message(groups[0].messages[0])) << groups[0].messages[0];

    // Detached: its own session, the home directory, nothing of the terminal.
    EXPECT_EQ(getsid(pid), pid);
    EXPECT_EQ(link_of("/proc/" + std::to_string(pid) + "/cwd"), lab_home);
    for (int fd = 0; fd <= 2; ++fd) {
        SCOPED_TRACE(fd);
        EXPECT_EQ(link_of("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd)), "/dev/null");
    }
    EXPECT_TRUE(wait_port_bound(pid, 137, 20.0));
}

TEST_F(Startup, TerminationRemovesTheRegistrationAndExitsZero)
{
    pid_t pid = lab.start_daemon({"-z", "proc=1"});
    ASSERT_GT(pid, 0) << lab.last_error();
    int status = -1;
    EXPECT_TRUE(lab.stop_daemon(pid, 20.0, &status));
    EXPECT_TRUE(exited_with(status, 0)) << lab_describe_status(status);
    EXPECT_EQ(lab.registered_pid(), -1) << lab_read_file(lab_plist_path);
    EXPECT_NE(lab.trace().find("dg_exit: received signal number 15\n"), std::string::npos)
        << lab.trace();
}

TEST_F(Startup, QuitRemovesTheRegistrationAndEndsByTheSignal)
{
    pid_t pid = lab.start_daemon();
    ASSERT_GT(pid, 0) << lab.last_error();
    ASSERT_EQ(kill(pid, SIGQUIT), 0);
    int status = -1;
    ASSERT_TRUE(lab.wait_exit(pid, 20.0, &status));
    EXPECT_TRUE(status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == SIGQUIT)
        << lab_describe_status(status);
    EXPECT_EQ(lab.registered_pid(), -1) << lab_read_file(lab_plist_path);
}

TEST_F(Startup, SecondInstanceExitsZeroAndLeavesTheFirstRegistered)
{
    pid_t first = lab.start_daemon();
    ASSERT_GT(first, 0) << lab.last_error();

    int status = lab.launch({"-z", "proc=1", "-z", "tracefile=second%p.trc"});
    ASSERT_TRUE(exited_with(status, 0)) << lab_describe_status(status);
    pid_t second = -1;
    ASSERT_TRUE(lab.wait_exit(-1, 30.0, &status, &second)) << "the second daemon did not end";
    EXPECT_TRUE(exited_with(status, 0)) << lab_describe_status(status);
    EXPECT_NE(lab.trace("second" + std::to_string(second) + ".trc")
                  .find("Halyard: process already running\n"),
              std::string::npos);

    EXPECT_EQ(lab.registered_pid(), first);
    EXPECT_EQ(kill(first, 0), 0) << "the first instance is gone";
}

TEST_F(Startup, OrdinaryUserIsRefusedAfterTheStartMessage)
{
    ASSERT_TRUE(lab.write_config(lab.default_config()));
    // The log exists and is writable, as after an earlier start by root.
    ASSERT_TRUE(lab.write_file(lab_log_path, "", 0666));
    int status = lab.launch({}, 30.0, 65534, 65534);
    ASSERT_TRUE(exited_with(status, 0)) << lab_describe_status(status);
    ASSERT_TRUE(lab.wait_exit(-1, 30.0, &status)) << "the detached process did not end";
    EXPECT_TRUE(exited_with(status, 1)) << lab_describe_status(status);

    // Each message under its own time-stamp line.
    auto groups = lab.log_groups();
    ASSERT_EQ(groups.size(), 2u) << lab.log();
    ASSERT_EQ(groups[0].messages.size(), 1u);
    EXPECT_TRUE(is_start_message(groups[0].messages[0])) << groups[0].messages[0];
    EXPECT_EQ(groups[1].messages, std::vector<std::string>{"Halyard: must run as super-user"});
    EXPECT_EQ(lab.registered_pid(), -1);
}

TEST_F(Startup, FailedRegistrationIsLoggedAndEndsTheDaemon)
{
    ASSERT_TRUE(lab.write_config(lab.default_config()));
    // A plain file where the database's root directory belongs.
    ASSERT_EQ(rmdir("/var/opt/KORRbase/rtdb"), 0);
    ASSERT_TRUE(lab.write_file("/var/opt/KORRbase/rtdb", "", 0644));
    int status = lab.launch({"-z", "proc=1"});
    ASSERT_TRUE(exited_with(status, 0)) << lab_describe_status(status);
    ASSERT_TRUE(lab.wait_exit(-1, 30.0, &status)) << "the detached process did not end";
    EXPECT_TRUE(exited_with(status, 0)) << lab_describe_status(status);
    EXPECT_TRUE(lab.wait_log("Halyard: Can't create pid property pid")) << lab.log();
    EXPECT_NE(lab.trace().find("Halyard: Can't create pid property pid\n"), std::string::npos) << lab.trace();
}

TEST_F(Startup, UnusableHomeDirectoryEndsTheLaunchSilently)
{
    ASSERT_TRUE(lab.write_config(lab.default_config()));
    // Both changes stay inside the lab's own tmpfs.
    ASSERT_EQ(rmdir("/opt/KORRlibs/lib"), 0);
    ASSERT_EQ(rmdir("/opt/KORRlibs"), 0);
    const struct { const char* why; bool make_file; int code; } cases[] = {
        {"home directory missing: cannot be examined", false, 1},
        {"home is a plain file: cannot change into it", true, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        if (c.make_file) {
            ASSERT_TRUE(lab.write_file(lab_home, "", 0755));
        }
        int status = lab.launch({"-z", "proc=1"});
        EXPECT_TRUE(exited_with(status, c.code)) << lab_describe_status(status);
        EXPECT_EQ(lab.log(), "");
        EXPECT_EQ(lab.registered_pid(), -1);
    }
}

TEST_F(Startup, TraceBannerListsTheSetLevels)
{
    // out=0 opens the trace but is not listed; lock is never listed.
    pid_t pid = lab.start_daemon({"-z", "in=2", "-z", "out=0", "-z", "proc=1", "-z", "lock=4"});
    ASSERT_GT(pid, 0) << lab.last_error();
    ASSERT_TRUE(lab.wait_trace("Trace Dimensions:\n")) << lab.trace();
    std::string trace = lab.trace();
    // "\n***** Halyard 2.0 LX starting " + ctime text (24 characters and its
    // newline), then an empty line, then the dimensions.
    const std::string head = "\n***** Halyard 2.0 LX starting ";
    const std::string dims = "\n\nTrace Dimensions:\n\tin   2\n\tproc 1\n\n";
    ASSERT_GE(trace.size(), head.size() + 24 + dims.size()) << trace;
    EXPECT_EQ(trace.substr(0, head.size()), head) << trace;
    EXPECT_EQ(trace.substr(head.size() + 24, dims.size()), dims) << trace;
    EXPECT_NE(trace.substr(head.size(), 24).find(':'), std::string::npos) << trace;
}

TEST_F(Startup, TraceFileNameCarriesTheDaemonsPid)
{
    pid_t pid = lab.start_daemon({"-z", "proc=3", "-z", "tracefile=x%p.trc"});
    ASSERT_GT(pid, 0) << lab.last_error();
    std::string name = "x" + std::to_string(pid) + ".trc";
    EXPECT_TRUE(lab.wait_trace("Trace Dimensions:\n\tproc 3\n\n", name)) << lab.trace(name);
    EXPECT_NE(access("/opt/KORRlibs/halyard.trc", F_OK), 0) << "the default name was used too";
}

TEST_F(Startup, ConfiguredNamePortReplacesTheDefault)
{
    std::string config = lab.default_config() + "NB-name-port 1137\n";
    ASSERT_TRUE(lab.write_config(config));
    pid_t pid = lab.start_daemon();
    ASSERT_GT(pid, 0) << lab.last_error();
    EXPECT_TRUE(wait_port_bound(pid, 1137, 20.0));
    EXPECT_FALSE(Lab::udp_port_bound(pid, 137));
}

// The launching process tells its terminal what the detached daemon can
// only log or write to /dev/null: a misspelt trace option, and each
// configuration problem with its line; the daemon still starts and logs the
// designed messages.
TEST_F(Startup, LaunchingProcessPrintsCommandLineAndConfigurationProblems)
{
    const std::string base = lab.default_config();
    ASSERT_TRUE(lab.write_config(base + "NB-name-port abc\nNB-nd-port 99999\n"));
    std::string out;
    int status = lab.run(lab_daemon, {halyard_binary(), "-z", "prok=3"}, &out);
    ASSERT_TRUE(exited_with(status, 0)) << lab_describe_status(status) << out;
    EXPECT_NE(out.find(std::string(halyard_binary()) + ": warning: unrecognized trace option prok\n"),
              std::string::npos) << out;
    const std::string conf = "Halyard: /etc/opt/KORRbase/config.vz:";
    const int line = int(std::count(base.begin(), base.end(), '\n'));
    EXPECT_NE(out.find(conf + std::to_string(line + 1) + ": NB-name-port abc: a port number from 1 to 65535\n"),
              std::string::npos) << out;
    EXPECT_NE(out.find(conf + std::to_string(line + 2) + ": NB-nd-port 99999: a port number from 1 to 65535 "
                       "(the daemon would use 34463)\n"), std::string::npos) << out;
    ASSERT_GT(lab.wait_registered(), 0) << lab.log();
    EXPECT_TRUE(lab.wait_log("    expecting positive port number")) << lab.log();
}

}  // namespace
