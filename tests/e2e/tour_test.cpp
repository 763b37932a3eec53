// The README's five-minute tour, taken from README.md and run line by line
// as a reader would type it, in a lab of its own (HALYARD_LAB_STATE), from a
// directory whose scripts/ is the source tree's and whose build/lab is this
// build: the lines run exactly as written, without building anything again.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/lab.h"

namespace {

// The lines of the first sh block after the tour's heading.
std::vector<std::string> tour_lines(const std::string& readme)
{
    size_t at = readme.find("```sh\n", readme.find("## A five-minute tour"));
    std::istringstream block(at == std::string::npos ? "" : readme.substr(at + 6, readme.find("```\n", at) - at - 6));
    std::vector<std::string> lines;
    for (std::string line; std::getline(block, line);)
        lines.push_back(line);
    return lines;
}

// What each line must show, by a part of the line; a line that does not
// show it yet (the claim takes a second or two) is run again.
const struct {
    const char* line_part;
    const char* shows;
} expected[] = {
    {"scripts/lab start", "lab: daemon running, pid"},
    {"halyardctl add", "FILESERV<20>: added as a unique name, claim started"},
    {"grep -E 'claiming", "claiming name fileserv"},
    {"nmblookup -B", "10.88.0.1 FILESERV<20>"},
    {"nmblookup -U", "FILESERV        <20>"},
    {"getent hosts", "10.88.0.1       fileserv"},
    {"LABHOST", "10.88.0.1 LABHOST<00>"},
    {"ip address add 10.90.0.2", ""},
    {"ip address add 10.90.0.1", ""},
    {"nmblookup -B 10.90.0.255", "10.90.0.1 FILESERV<20>"},
    {"halyardctl list", "FILESERV<20>"},
    {"halyardctl del", "FILESERV<20>: deleted"},
    {"grep releasing", "releasing name fileserv"},
    {"scripts/lab log", "Halyard: serving 10.90.0.1 on lab0"},
    {"scripts/lab stop", "lab: removed"},
};

class Tour : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "scripts/lab needs root";
        if (access("/usr/bin/nmblookup", X_OK) != 0)
            GTEST_SKIP() << "nmblookup is not installed (Debian package samba-common-bin)";
        char tmpl[] = "/tmp/halyard-tour-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        state_ = "/run/halyard-tour-" + std::to_string(getpid());
        ASSERT_EQ(symlink(HALYARD_SOURCE_DIR "/scripts", (dir_ + "/scripts").c_str()), 0);
        ASSERT_EQ(mkdir((dir_ + "/build").c_str(), 0755), 0);
        ASSERT_EQ(symlink(HALYARD_BUILD_DIR, (dir_ + "/build/lab").c_str()), 0);
    }
    void TearDown() override
    {
        if (dir_.empty())
            return;
        run("scripts/lab stop");  // whatever a failed line left
        unlink((dir_ + "/build/lab").c_str());
        rmdir((dir_ + "/build").c_str());
        unlink((dir_ + "/scripts").c_str());
        rmdir(dir_.c_str());
    }
    // One line through sh in the tour's directory, bounded in time: its exit
    // status; its output and errors in out_.
    int run(const std::string& line)
    {
        std::string cmd = "cd '" + dir_ + "' && HALYARD_LAB_STATE='" + state_ +
                          "' timeout 600 sh -c \"$TOUR_LINE\" 2>&1";
        setenv("TOUR_LINE", line.c_str(), 1);
        out_.clear();
        FILE* p = popen(cmd.c_str(), "r");
        if (p == nullptr)
            return -1;
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;)
            out_.append(buf, n);
        int st = pclose(p);
        return st != -1 && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
    std::string dir_, state_, out_;
};

TEST_F(Tour, ReadmeTourRunsAsWritten)
{
    std::vector<std::string> lines = tour_lines(lab_read_file(HALYARD_SOURCE_DIR "/README.md"));
    ASSERT_EQ(lines.size(), std::size(expected)) << "the tour changed: update this test's expectations";
    for (size_t i = 0; i < lines.size(); i++) {
        const std::string& line = lines[i];
        SCOPED_TRACE(line);
        ASSERT_TRUE(line.find(expected[i].line_part) != std::string::npos) << "expected a line with " << expected[i].line_part;
        int status = -1;
        // Starting and stopping are not repeated; the rest up to 60 times.
        for (int tries = 0; tries < 60; tries++) {
            status = run(line);
            if ((status == 0 && out_.find(expected[i].shows) != std::string::npos) || i == 0 || i + 1 == lines.size())
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
        EXPECT_EQ(status, 0) << out_;
        EXPECT_NE(out_.find(expected[i].shows), std::string::npos) << out_;
    }
}

}  // namespace
