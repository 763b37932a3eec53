// "cmake --install" as an administrator runs it, inside the lab: the fixed
// places under /etc/opt, /var/opt and /opt are the lab's tmpfs, the prefix
// lies inside one of them. The installed daemon is started with the command
// line of the installed unit and asked through the installed halyardctl.

#include "tests/support/lab.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/paths.h"

namespace {

const std::string prefix = "/opt/halyard";      // inside the lab's /opt
const std::string stage = "/var/opt/staging";   // a DESTDIR, likewise
const std::string doc = prefix + "/share/doc/halyard";

// The command of a unit's key as sh runs it: our unit uses no more of
// systemd's syntax than sh has, but for "$$", a dollar sign.
std::string unit_command(const std::string& unit, const std::string& key)
{
    size_t at = unit.find("\n" + key + "=");
    if (at == std::string::npos)
        return "";
    at += key.size() + 2;
    std::string line = unit.substr(at, unit.find('\n', at) - at);
    for (size_t p = 0; (p = line.find("$$", p)) != std::string::npos; ++p)
        line.erase(p, 1);
    return line;
}

mode_t mode_of(const std::string& path, uid_t* uid = nullptr)
{
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0)
        return 0;
    if (uid != nullptr)
        *uid = st.st_uid;
    return st.st_mode;
}

class Install : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 1); }

    // cmake --install of the build tree; its exit status, output in *out.
    int install(const std::string& destdir, std::string* out)
    {
        std::vector<std::string> argv{"/usr/bin/env", "DESTDIR=" + destdir, halyard_cmake(), "--install",
                                      halyard_build_dir(), "--prefix", prefix};
        int st = lab.run(lab_daemon, argv, out, 300.0);
        return st != -1 && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }

    Lab lab;
};

TEST_F(Install, PlacesFilesKeepsTheSiteConfigurationAndTheDaemonRunsFromTheUnit)
{
    // The lab made the daemon's places; the install must make them itself.
    for (const char* d : {"/opt/KORRlibs/lib", "/opt/KORRlibs", "/var/opt/KORRbase/rtdb",
                          "/var/opt/KORRbase", "/etc/opt/KORRbase"})
        ASSERT_EQ(rmdir(d), 0) << d;
    std::string out;
    ASSERT_EQ(install("", &out), 0) << out;
    const struct { std::string path; mode_t mode; } expected[] = {
        {prefix + "/sbin/halyard", S_IFREG | 0755},
        {prefix + "/bin/halyardctl", S_IFREG | 0755},
        {prefix + "/share/man/man8/halyard.8", S_IFREG | 0644},
        {prefix + "/share/man/man5/config.vz.5", S_IFREG | 0644},
        {prefix + "/share/man/man1/halyardctl.1", S_IFREG | 0644},
        {doc + "/config.vz.example", S_IFREG | 0644},
        {doc + "/kbsrvmsg.example", S_IFREG | 0644},
        {doc + "/halyard.service", S_IFREG | 0644},
        {"/etc/opt/KORRbase", S_IFDIR | 0755},
        {"/etc/opt/KORRbase/config.vz", S_IFREG | 0644},
        {"/var/opt/KORRbase", S_IFDIR | 0755},
        {"/var/opt/KORRbase/rtdb", S_IFDIR | 0775},
        {"/opt/KORRlibs", S_IFDIR | 0755},
        {"/opt/KORRlibs/lib", S_IFDIR | 0755},
    };
    for (const auto& e : expected) {
        uid_t uid = 1;
        EXPECT_EQ(mode_of(e.path, &uid), e.mode) << e.path;
        EXPECT_EQ(uid, 0u) << e.path;
    }
    std::string example = lab_read_file(doc + "/config.vz.example");
    EXPECT_NE(example, "");
    EXPECT_EQ(lab_read_file(lab_config_path), example);
    std::string unit = lab_read_file(doc + "/halyard.service");
    EXPECT_EQ(unit_command(unit, "ExecStart"), prefix + "/sbin/halyard");
    // systemd's own check of the unit, where systemd is installed.
    if (access("/usr/bin/systemd-analyze", X_OK) == 0) {
        int st = lab.run(lab_daemon, {"/usr/bin/systemd-analyze", "verify", "--man=no", doc + "/halyard.service"},
                         &out, 120.0);
        EXPECT_EQ(lab_describe_status(st) + out, "exited 0");
    }

    // Again, over a site's configuration and a changed directory mode, and
    // with a DESTDIR: the site's choices stay, the staged tree gets its own
    // places and a unit naming the final location.
    ASSERT_TRUE(lab.write_config(lab.default_config()));
    ASSERT_EQ(chmod("/opt/KORRlibs", 0750), 0);
    ASSERT_EQ(install("", &out), 0) << out;
    EXPECT_NE(out.find("Keeping: /etc/opt/KORRbase/config.vz"), std::string::npos) << out;
    EXPECT_EQ(mode_of("/opt/KORRlibs"), S_IFDIR | 0750);
    ASSERT_EQ(install(stage, &out), 0) << out;
    EXPECT_EQ(lab_read_file(stage + "/etc/opt/KORRbase/config.vz"), example);
    EXPECT_EQ(mode_of(stage + "/var/opt/KORRbase/rtdb"), S_IFDIR | 0775);
    EXPECT_EQ(mode_of(stage + prefix + "/sbin/halyard"), S_IFREG | 0755);
    EXPECT_EQ(lab_read_file(stage + doc + "/halyard.service"), unit);
    EXPECT_EQ(lab_read_file(lab_config_path), lab.default_config());

    // The installed daemon started as the unit starts it (with the example
    // message file put in use), checked by the unit's ExecStartPost, asked
    // through the installed client, stopped by the unit's signal.
    ASSERT_TRUE(lab.write_file("/opt/KORRlibs/lib/kbsrvmsg", lab_read_file(doc + "/kbsrvmsg.example")));
    int st = lab.launch({"-c", "exec " + unit_command(unit, "ExecStart")}, 30.0, -1, -1, "/bin/sh");
    ASSERT_EQ(lab_describe_status(st), "exited 0");
    st = lab.run(lab_daemon, {"/bin/sh", "-c", unit_command(unit, "ExecStartPost")}, &out, 60.0);
    ASSERT_EQ(lab_describe_status(st), "exited 0") << out << lab.log();
    pid_t pid = lab.registered_pid();
    ASSERT_GT(pid, 0);
    const std::string ctl = prefix + "/bin/halyardctl";
    EXPECT_EQ(lab_describe_status(lab.run(lab_daemon, {ctl, "add", "INSTALLED<20>"}, &out, 60.0)), "exited 0") << out;
    EXPECT_EQ(lab_describe_status(lab.run(lab_daemon, {ctl, "list"}, &out, 60.0)), "exited 0") << out;
    EXPECT_NE(out.find("INSTALLED<20>"), std::string::npos) << out;
    // The start line in the site's wording.
    EXPECT_NE(lab.log().find("\tHalyard name server "), std::string::npos) << lab.log();
    ASSERT_NE(unit.find("\nKillSignal=SIGTERM\n"), std::string::npos);
    int wstatus = -1;
    ASSERT_TRUE(lab.stop_daemon(pid, 20.0, &wstatus));
    EXPECT_EQ(lab_describe_status(wstatus), "exited 0");
    EXPECT_EQ(lab.registered_pid(), -1) << lab_read_file(lab_plist_path);
}

}  // namespace
