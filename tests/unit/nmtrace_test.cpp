#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "nmtrace.h"

namespace {

class Trace : public ::testing::Test {
protected:
    void SetUp() override
    {
        tc_reset();
        ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
        char tmpl[] = "/tmp/halyard-trc-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        ASSERT_EQ(chdir(dir.c_str()), 0);
    }
    void TearDown() override
    {
        tc_reset();
        ASSERT_EQ(chdir(cwd), 0);
        EXPECT_EQ(system(("rm -rf --one-file-system " + dir).c_str()), 0);
    }
    // The command line; getopt may reorder args, never the words.
    void command(std::initializer_list<std::string> line)
    {
        words.assign(line);
        args.clear();
        for (std::string& w : words)
            args.push_back(w.data());
        args.push_back(nullptr);
    }
    // The letters tc_getopt returns for the command line, up to its -1.
    std::vector<int> scan(const char* options)
    {
        std::vector<int> seen;
        for (int c, guard = 0; guard < 50 && (c = tc_getopt(int(words.size()), args.data(), options)) != -1; guard++)
            seen.push_back(c);
        return seen;
    }
    static bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
    char cwd[1024];
    std::string dir;
    std::vector<std::string> words;
    std::vector<char*> args;
};

}  // namespace

TEST_F(Trace, SetsLevelsAndOpensTheDefaultFileAtTheEnd) {
    command({"prog", "-z", "proc=1", "-n", "-z", "in=6", "-z", "proc=3", "-z", "lock=" + std::string(200, '9'),
             "-z", "err=2", "-z", "nblib=-3x", "arg"});
    EXPECT_EQ(scan("n"), std::vector<int>{'n'});
    // In enumeration order; the later proc wins, lock is clamped, not
    // overflowed, and nblib has atoi's reading.
    const struct { const char* name; int level; } want[] = {
        {"in", 6}, {"out", 0}, {"proc", 3}, {"lock", 2147483647}, {"err", 2}, {"nblib", -3}};
    int index = 0, value = 0;
    const char* name = nullptr;
    for (const auto& w : want) {
        ASSERT_EQ(tc_enumdim(&index, &name, &value), 1);
        EXPECT_STREQ(name, w.name);
        EXPECT_EQ(value, w.level);
    }
    EXPECT_EQ(tc_enumdim(&index, &name, &value), 0);
    ASSERT_NE(tcfile, nullptr);
    EXPECT_TRUE(exists("halyard.trc"));
    TRACE(proc, 3, "scan: %s %d\n", "done", 3);
    TRACE(proc, 4, "never\n");
    struct stat st;
    ASSERT_EQ(stat("halyard.trc", &st), 0);
    EXPECT_EQ(st.st_size, off_t(strlen("scan: done 3\n")));
}

TEST_F(Trace, ExpandsTheTraceFileName) {
    std::string many = "tracefile=", pids;
    for (int i = 0; i < 44; i++)
        many += "%p";
    while (pids.size() < 127)
        pids += std::to_string(getpid());
    const struct { std::string arg; std::string file; } cases[] = {
        {"tracefile=nb%p.trc", "nb" + std::to_string(getpid()) + ".trc"},
        {"tracefile=a%%b", "a%b"},
        {"tracefile=x%qy", "xqy"},
        {"tracefile=end%", "end"},
        {"tracefile=" + std::string(120, 'a') + "%p", std::string(99 - 10, 'a')},  // argument cut at 99
        {many, pids.substr(0, 127)},  // the expansion cut at 127
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arg);
        tc_reset();
        command({"prog", "-z", c.arg, "-z", "out=1"});
        EXPECT_TRUE(scan("").empty());
        EXPECT_NE(tcfile, nullptr);
        EXPECT_TRUE(exists(c.file));
    }
}

// Level 0 still opens the file, and nothing of "in" is written to it.
TEST_F(Trace, LevelZeroOpensTheFileButWritesNothing) {
    command({"prog", "-z", "in=0", "-z", "tracefile=x.trc"});
    scan("");
    ASSERT_NE(tcfile, nullptr);
    int evaluated = 0;
    TRACE(in, 1, "in: %d\n", ++evaluated);
    EXPECT_EQ(evaluated, 0);  // arguments are not even evaluated
    struct stat st;
    ASSERT_EQ(stat("x.trc", &st), 0);
    EXPECT_EQ(st.st_size, 0);
}

TEST_F(Trace, WarnsAboutWhatItDoesNotKnow) {
    // An over-long name is cut in the warning, never overrun. A trace file
    // name alone opens nothing; another dimension set beside an unknown one
    // still opens the file.
    const std::string long_name(300, 'q');
    const struct { std::string arg; std::string warned; bool other; } cases[] = {
        {"foo=1", "foo", false},
        {"IN=1", "IN", false},
        {"in", "in", false},  // no "=": sets nothing
        {long_name, std::string(99, 'q'), true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arg);
        tc_reset();
        command({"prog", "-z", c.arg, "-z", c.other ? "err=2" : "tracefile=t"});
        testing::internal::CaptureStderr();
        scan("");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "prog: warning: unrecognized trace option " + c.warned + "\n");
        EXPECT_EQ(tc_in, 0);
        EXPECT_EQ(tcfile != nullptr, c.other);
    }
}

TEST_F(Trace, RefusesAZInTheCallersOptions) {
    command({"prog", "-n", "-z", "in=1"});
    for (int i = 0; i < 2; i++) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(tc_getopt(int(words.size()), args.data(), "nz"), -1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "prog: tc_getopt error: multiply defined z option\n");
    }
    EXPECT_EQ(tc_in, 0);
    EXPECT_EQ(tcfile, nullptr);
}

TEST_F(Trace, ResetScansTheSameCommandLineAgain) {
    command({"prog", "-nz", "in=2", "file", "-x", "-z", "proc=5"});
    const std::vector<int> want{'n', 'x'};
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(scan("nx"), want);
        EXPECT_EQ(tc_in, 2);
        EXPECT_EQ(tc_proc, 5);
        EXPECT_NE(tcfile, nullptr);
        EXPECT_EQ(tc_reset(), 1);
        EXPECT_EQ(tc_in + tc_proc, 0);
        EXPECT_EQ(tcfile, nullptr);
    }
    // A reset in the middle of a cluster of letters starts from the front.
    command({"prog", "-nx"});
    EXPECT_EQ(tc_getopt(2, args.data(), "nx"), 'n');
    tc_reset();
    EXPECT_EQ(scan("nx"), want);

    // A leading ':' in the caller's options still makes a missing argument
    // ':' and silences getopt.
    tc_reset();
    command({"prog", "-n", "-z"});
    testing::internal::CaptureStderr();
    EXPECT_EQ(scan(":n"), (std::vector<int>{'n', ':'}));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}
