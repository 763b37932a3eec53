// Start-up and shutdown of the real daemon seen from outside (exit statuses,
// the log, the registration, the trace, the bound ports) and every way a
// start can fail. (Configuration mistakes are the parser's tests.)

#include "tests/support/lab.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace {

const std::string var_dir = "/var/opt/KORRbase";

bool exited_with(int wstatus, int code) { return wstatus != -1 && WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == code; }

std::string link_of(const std::string& path)
{
    std::error_code ec;
    return std::filesystem::read_symlink(path, ec).string();
}

class Startup : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 1); }
    void TearDown() override
    {
        if (tiny)
            umount2(var_dir.c_str(), MNT_DETACH);
    }

    // A tiny file system over the variable directory with the database root
    // and a log that already holds a group (so its last page has room).
    bool mount_tiny(const std::string& options)
    {
        tiny = mount("halyard-full", var_dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
                     ("mode=0755," + options).c_str()) == 0;
        return tiny && mkdir("/var/opt/KORRbase/rtdb", 0775) == 0 &&
               chmod("/var/opt/KORRbase/rtdb", 0775) == 0 &&
               lab.write_file(lab_log_path, "Thu Jan  1 00:00:00 2026\r\n\tearlier\r\n");
    }

    // Takes inodes until none is left, then gives three of them back: room
    // for the database's two objects and property list, not for a FIFO.
    bool take_inodes()
    {
        int n = 0;
        while (n < 1000 && mknod((var_dir + "/spare" + std::to_string(n)).c_str(), S_IFREG | 0600, 0) == 0)
            ++n;
        for (int i = n - 3; i < n; ++i)
            unlink((var_dir + "/spare" + std::to_string(i)).c_str());
        return n > 3;
    }
    bool unmount_tiny() { return umount2(var_dir.c_str(), MNT_DETACH) == 0 && !(tiny = false); }

    Lab lab;
    bool tiny = false;
};

TEST_F(Startup, DetachesRegistersTracesAndEndsCleanly)
{
    // out=0 opens the trace but is not listed; lock is never listed.
    ASSERT_TRUE(lab.write_config(lab.default_config() + "NB-name-port 1137\n"));
    pid_t pid = lab.start_daemon(
        {"-z", "in=2", "-z", "out=0", "-z", "proc=5", "-z", "lock=4", "-z", "tracefile=x%p.trc"});
    ASSERT_GT(pid, 0) << lab.last_error();

    // The start message under a ctime stamp.
    auto groups = lab.log_groups();
    ASSERT_TRUE(!groups.empty() && !groups[0].messages.empty()) << lab.log();
    EXPECT_EQ(groups[0].stamp.size(), 24u) << groups[0].stamp;
    EXPECT_EQ(groups[0].messages[0].rfind("NB NetBIOS services 2.0 ", 0), 0u) << lab.log();

    // Detached: its own session, the home directory, nothing of the terminal.
    EXPECT_EQ(getsid(pid), pid);
    EXPECT_EQ(link_of("/proc/" + std::to_string(pid) + "/cwd"), lab_home);
    for (int fd = 0; fd <= 2; ++fd)
        EXPECT_EQ(link_of("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd)), "/dev/null");

    // The trace is named by the pid; its banner lists the levels set.
    std::string trc = "x" + std::to_string(pid) + ".trc";
    ASSERT_TRUE(lab.wait_trace("Trace Dimensions:\n", trc)) << lab.trace(trc);
    EXPECT_EQ(lab.trace(trc).rfind("\n***** Halyard 2.0 LX starting ", 0), 0u);
    EXPECT_NE(lab.trace(trc).find("\n\nTrace Dimensions:\n\tin   2\n\tproc 5\n\n"), std::string::npos);
    EXPECT_NE(access("/opt/KORRlibs/halyard.trc", F_OK), 0) << "the default name was used too";
    // Given broadcast and netmask are used as they stand.
    EXPECT_TRUE(lab.wait_trace("prepare_addresses: using broadcast addr 10.88.0.255 for 10.88.0.1\n"
                               "prepare_addresses: using netmask 255.255.255.0 for 10.88.0.1\n", trc))
        << lab.trace(trc);

    // The configured name port; no ENS socket without agents once a client is answered.
    EXPECT_TRUE(lab_wait_for(20, [&] { return Lab::udp_port_bound(pid, 1137); }));
    EXPECT_FALSE(Lab::udp_port_bound(pid, 137));
    ASSERT_EQ(lab.halyardctl({"list"}), 0) << lab.log();
    EXPECT_FALSE(Lab::udp_port_bound(pid, 228));

    // A second instance ends with status 0 and leaves the first registered.
    int status = lab.launch({"-z", "proc=1", "-z", "tracefile=second%p.trc"});
    ASSERT_TRUE(exited_with(status, 0)) << lab_describe_status(status);
    pid_t second = -1;
    ASSERT_TRUE(lab.wait_exit(-1, 30.0, &status, &second)) << "the second daemon did not end";
    EXPECT_TRUE(exited_with(status, 0)) << lab_describe_status(status);
    EXPECT_NE(lab.trace("second" + std::to_string(second) + ".trc").find("Halyard: process already running\n"),
              std::string::npos);
    EXPECT_EQ(lab.registered_pid(), pid);

    // Termination exits 0, quit ends by its signal; both take the registration away.
    EXPECT_TRUE(lab.stop_daemon(pid, 20.0, &status));
    EXPECT_TRUE(exited_with(status, 0)) << lab_describe_status(status);
    EXPECT_EQ(lab.registered_pid(), -1) << lab_read_file(lab_plist_path);
    EXPECT_NE(lab.trace(trc).find("dg_exit: received signal number 15\n"), std::string::npos);
    pid = lab.start_daemon();
    ASSERT_GT(pid, 0) << lab.last_error();
    ASSERT_EQ(kill(pid, SIGQUIT), 0);
    ASSERT_TRUE(lab.wait_exit(pid, 20.0, &status));
    EXPECT_TRUE(status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == SIGQUIT)
        << lab_describe_status(status);
    EXPECT_EQ(lab.registered_pid(), -1) << lab_read_file(lab_plist_path);

    // Mistakes: the launcher prints what the detached daemon can only log, the
    // good lines around them are taken, a broadcast and netmask not given
    // come from the system.
    ASSERT_TRUE(lab.write_config("[realm NB]\ntransport tcpip\n[interface tcpip hd0]\naddress 10.88.0.1\n"
                                 "address 10.88.0.9\n[transport tcpip]\nNB-name-port abc\n"   // lines 5 and 7
                                 "NB-scope corp.example\nNB-nd-port 99999\n"));  // line 9: only said
    std::string out;
    ASSERT_EQ(lab.run(lab_daemon, {HALYARD_BINARY, "-z", "proc=5"}, &out), 0) << out;
    ASSERT_GT(pid = lab.wait_registered(), 0) << lab.log();
    EXPECT_NE(out.find("Halyard: /etc/opt/KORRbase/config.vz:7: NB-name-port abc: a port number from 1 to 65535\n"
                       "Halyard: /etc/opt/KORRbase/config.vz:9: NB-nd-port 99999: a port number from 1 to 65535 "
                       "(the daemon would use 34463)\n"), std::string::npos) << out;
    ASSERT_TRUE(lab.wait_trace("find_netmask: found mask (255.255.255.0)")) << lab.trace();
    EXPECT_NE(lab.trace().find("find_bcast: found bcast (10.88.0.255)"), std::string::npos);
    EXPECT_NE(lab.trace().find("nbscope: corp.example\n"), std::string::npos);
    EXPECT_TRUE(lab_wait_for(20, [&] { return Lab::udp_port_bound(pid, 137); }));
    ASSERT_TRUE(lab.stop_daemon(pid));
    ASSERT_EQ(unlink(lab_config_path), 0);
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    EXPECT_TRUE(lab.wait_log("\tHalyard: cannot open config file /etc/opt/KORRbase/config.vz\r\n")) << lab.log();
}

// Each way a start can fail: both processes' statuses, the messages logged
// (none without a usable home, where the log is); nothing stays registered,
// and once the cause is gone the next start serves.
TEST_F(Startup, FailedStartsSayWhyAndLeaveNothingBehind)
{
    ASSERT_TRUE(lab.write_config(lab.default_config()));
    auto make_home = [] { return mkdir(lab_home, 0755) == 0 && mkdir("/opt/KORRlibs/lib", 0755) == 0; };
    const struct {
        const char* why;
        std::function<bool()> make;
        std::function<bool()> undo;
        int uid;
        int launch_status;      // the launching process's exit status
        int daemon_status;      // the detached process's, -1 when there is none
        std::vector<std::string> logged;
    } cases[] = {
        {"an ordinary user (after the start message)",
         [&] { return lab.write_file(lab_log_path, "", 0666); }, [] { return true; }, 65534, 0, 1,
         {"Halyard: must run as super-user"}},
        {"a plain file where the database's root belongs",
         [&] { return rename("/var/opt/KORRbase/rtdb", "/var/opt/KORRbase/rtdb.away") == 0 &&
                      lab.write_file("/var/opt/KORRbase/rtdb", ""); },
         [] { return unlink("/var/opt/KORRbase/rtdb") == 0 &&
                     rename("/var/opt/KORRbase/rtdb.away", "/var/opt/KORRbase/rtdb") == 0; },
         -1, 0, 0, {"Halyard: Can't create pid property pid"}},
        {"no room for the registration",
         [&] {
             int fd = mount_tiny("size=64k") ? open("/var/opt/KORRbase/filler", O_WRONLY | O_CREAT, 0600) : -1;
             std::string block(4096, 'x');
             for (int i = 0; i < 100000 && write(fd, block.data(), block.size()) > 0; ++i) {
             }
             return fd >= 0 && close(fd) == 0;
         },
         [&] { return unmount_tiny(); }, -1, 0, 0,
         {"Halyard: VZ database error 7", "Halyard: Can't create pid property pid"}},
        {"no inode for the FIFOs", [&] { return mount_tiny("nr_inodes=16") && take_inodes(); },
         [&] { return unmount_tiny(); }, -1, 0, 0,
         {"Halyard: cannot start notifier process: Error creating/opening FIFOs"}},
        {"a key file that other users can read",
         [&] { return lab.write_file("/etc/opt/KORRbase/ens.key", std::string(64, '0'), 0644) &&
                      lab.write_config(lab.default_config() + "NB-nd-key /etc/opt/KORRbase/ens.key\n"); },
         [&] { return lab.write_config(lab.default_config()); }, -1, 0, 1,
         {"    NB-nd-key: /etc/opt/KORRbase/ens.key is open to other users (mode 0644): make it 0600",
          "Halyard: the NB-nd-key file cannot be used: not started"}},
        {"no home directory: it cannot be examined",
         [] { return rmdir("/opt/KORRlibs/lib") == 0 && rmdir(lab_home) == 0; }, make_home, -1, 1, -1, {}},
        {"a plain file as home: no change into it",
         [&] { return rmdir("/opt/KORRlibs/lib") == 0 && rmdir(lab_home) == 0 && lab.write_file(lab_home, "", 0755); },
         [&] { return unlink(lab_home) == 0 && make_home(); }, -1, 2, -1, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        ASSERT_TRUE(c.make());
        std::string log_before = lab.log();
        int status = lab.launch({}, 30.0, c.uid, c.uid);
        ASSERT_TRUE(exited_with(status, c.launch_status)) << lab_describe_status(status);
        if (c.daemon_status >= 0) {
            ASSERT_TRUE(lab.wait_exit(-1, 60.0, &status)) << "the daemon did not end\n" << lab.log();
            EXPECT_TRUE(exited_with(status, c.daemon_status)) << lab_describe_status(status);
        }
        for (const auto& m : c.logged)
            EXPECT_NE(lab.log().find("\t" + m + "\r\n", log_before.size()), std::string::npos) << m;
        if (c.logged.empty()) {
            EXPECT_EQ(lab.log(), log_before);
        }
        EXPECT_EQ(lab.registered_pid(), -1);
        EXPECT_EQ(lab_read_file(lab_plist_path).find("pidlock"), std::string::npos);

        ASSERT_TRUE(c.undo());
        pid_t pid = lab.start_daemon();
        ASSERT_GT(pid, 0) << lab.last_error();
        std::string out;
        EXPECT_EQ(lab.halyardctl({"add", "roomy<20>"}, &out), 0) << out;
        ASSERT_TRUE(lab.stop_daemon(pid));
        ASSERT_TRUE(lab.wait_exit(-1, 20.0)) << "the relay did not end with the daemon";
    }
}

// With no address to serve the daemon starts and says so once, however
// often the interfaces change meanwhile, and serves the first that comes.
TEST_F(Startup, WaitsQuietlyForItsFirstAddress)
{
    ASSERT_TRUE(lab.write_config("[realm NB]\ntransport tcpip\n[transport tcpip]\nNB-interfaces 10.99.0.0/16\n"));
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    const std::string waiting = "\tHalyard: no interface to serve yet; waiting for one\r\n";
    ASSERT_TRUE(lab.wait_log(waiting)) << lab.log();
    ASSERT_EQ(lab.run(lab_daemon, {"/bin/sh", "-c", "I=/sbin/ip; $I link set hd0 down && $I link set hd0 up && "
                                   "$I address add 10.98.0.1/16 dev hd0 && $I address add 10.99.0.1/16 dev hd0"}), 0);
    ASSERT_TRUE(lab.wait_log("\tHalyard: serving 10.99.0.1 on hd0\r\n", 2.0)) << lab.log();
    std::string log = lab.log();
    EXPECT_EQ(log.find(waiting), log.rfind(waiting)) << log;
}

}  // namespace
