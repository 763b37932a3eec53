// The end-to-end lab keeps every test away from the machine's own places and
// network; the daemon's own tests exercise the rest of it.

#include "tests/support/lab.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>

#include <linux/magic.h>

namespace {

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

}  // namespace
