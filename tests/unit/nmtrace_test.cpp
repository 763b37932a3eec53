#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "nmtrace.h"

namespace {

bool exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

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
        for (char* a : args)
            free(a);
        ASSERT_EQ(chdir(cwd), 0);
        std::string cmd = "rm -rf --one-file-system " + dir;
        EXPECT_EQ(system(cmd.c_str()), 0);
    }
    // The letters tc_getopt returns for the command line, up to its -1.
    std::vector<int> scan(const char* options)
    {
        std::vector<int> seen;
        int c;
        for (int guard = 0; guard < 50 && (c = tc_getopt(int(args.size()) - 1, args.data(), options)) != -1;
             guard++)
            seen.push_back(c);
        return seen;
    }
    void command(std::initializer_list<const char*> words)
    {
        for (char* a : args)
            free(a);
        args.clear();
        for (const char* w : words)
            args.push_back(strdup(w));
        args.push_back(nullptr);
    }
    char cwd[1024];
    std::string dir;
    std::vector<char*> args;
};

}  // namespace

TEST_F(Trace, SetsLevelsAndOpensTheDefaultFileAtTheEnd) {
    command({"prog", "-z", "proc=1", "-n", "-z", "in=6", "-z", "proc=3", "arg"});
    EXPECT_EQ(scan("n"), std::vector<int>{'n'});
    EXPECT_EQ(tc_proc, 3);  // the later setting wins
    EXPECT_EQ(tc_in, 6);
    EXPECT_EQ(tc_out, 0);
    ASSERT_NE(tcfile, nullptr);
    EXPECT_TRUE(exists("halyard.trc"));
    TRACE(proc, 3, "scan: %s %d\n", "done", 3);
    TRACE(proc, 4, "never\n");
    struct stat st;
    ASSERT_EQ(stat("halyard.trc", &st), 0);
    EXPECT_EQ(st.st_size, off_t(strlen("scan: done 3\n")));
}

TEST_F(Trace, ExpandsTheTraceFileName) {
    const struct { std::string arg; std::string file; } cases[] = {
        {"tracefile=nb%p.trc", "nb" + std::to_string(getpid()) + ".trc"},
        {"tracefile=a%%b", "a%b"},
        {"tracefile=x%qy", "xqy"},
        {"tracefile=end%", "end"},
        {"tracefile=" + std::string(120, 'a') + "%p", std::string(99 - 10, 'a')},  // argument cut at 99
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arg);
        tc_reset();
        command({"prog", "-z", c.arg.c_str(), "-z", "out=1"});
        EXPECT_TRUE(scan("").empty());
        EXPECT_NE(tcfile, nullptr);
        EXPECT_TRUE(exists(c.file));
    }
    // Many "%p" expand past the name's room: cut at 127 characters.
    std::string many = "tracefile=";
    for (int i = 0; i < 44; i++)
        many += "%p";
    tc_reset();
    command({"prog", "-z", many.c_str(), "-z", "out=1"});
    scan("");
    std::string pids;
    while (pids.size() < 127)
        pids += std::to_string(getpid());
    EXPECT_NE(tcfile, nullptr);
    EXPECT_TRUE(exists(pids.substr(0, 127)));
}

TEST_F(Trace, OpensAFileOnlyWhenADimensionWasSet) {
    command({"prog", "-z", "tracefile=x.trc"});
    scan("");
    EXPECT_EQ(tcfile, nullptr);
    EXPECT_FALSE(exists("x.trc"));

    // Level 0 still opens the file, and nothing of "in" is written to it.
    tc_reset();
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
    const struct { const char* arg; const char* warning; } cases[] = {
        {"foo=1", "prog: warning: unrecognized trace option foo\n"},
        {"IN=1", "prog: warning: unrecognized trace option IN\n"},
        {"in", "prog: warning: unrecognized trace option in\n"},    // no "=": sets nothing
        {"tracefile", "prog: warning: unrecognized trace option tracefile\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arg);
        tc_reset();
        command({"prog", "-z", c.arg});
        testing::internal::CaptureStderr();
        scan("");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.warning);
        EXPECT_EQ(tcfile, nullptr);
        EXPECT_EQ(tc_in, 0);
        EXPECT_FALSE(exists("halyard.trc"));
    }
    // An over-long name is cut in the warning, never overrun.
    tc_reset();
    std::string name(300, 'q');
    command({"prog", "-z", name.c_str(), "-z", "err=2"});
    testing::internal::CaptureStderr();
    scan("");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "prog: warning: unrecognized trace option " + std::string(99, 'q') + "\n");
    EXPECT_EQ(tc_err, 2);
    EXPECT_NE(tcfile, nullptr);  // another dimension was set

    tc_reset();
    command({"prog", "-z", ("lock=" + std::string(200, '9')).c_str(), "-z", "nblib=-3x"});
    scan("");
    EXPECT_EQ(tc_lock, 2147483647);  // clamped, not overflowed
    EXPECT_EQ(tc_nblib, -3);
}

TEST_F(Trace, RefusesAZInTheCallersOptions) {
    command({"prog", "-n", "-z", "in=1"});
    for (int i = 0; i < 2; i++) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(tc_getopt(int(args.size()) - 1, args.data(), "nz"), -1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "prog: tc_getopt error: multiply defined z option\n");
    }
    EXPECT_EQ(tc_in, 0);
    EXPECT_EQ(tcfile, nullptr);
}

TEST_F(Trace, ResetScansTheSameCommandLineAgain) {
    command({"prog", "-nz", "in=2", "file", "-x", "-z", "proc=5"});
    const std::vector<int> want{'n', 'x'};
    EXPECT_EQ(scan("nx"), want);
    EXPECT_EQ(tc_in, 2);
    EXPECT_EQ(tc_proc, 5);
    EXPECT_NE(tcfile, nullptr);
    EXPECT_EQ(tc_reset(), 1);
    EXPECT_EQ(tc_in, 0);
    EXPECT_EQ(tc_proc, 0);
    EXPECT_EQ(tcfile, nullptr);
    EXPECT_EQ(scan("nx"), want);
    EXPECT_EQ(tc_in, 2);
    EXPECT_EQ(tc_proc, 5);

    // A reset in the middle of a cluster of letters starts from the front.
    tc_reset();
    command({"prog", "-nx"});
    EXPECT_EQ(tc_getopt(2, args.data(), "nx"), 'n');
    tc_reset();
    EXPECT_EQ(scan("nx"), want);
}

TEST_F(Trace, KeepsTheCallersGetoptMode) {
    // A leading ':' still makes a missing argument ':' and silences getopt.
    command({"prog", "-n", "-z"});
    testing::internal::CaptureStderr();
    EXPECT_EQ(scan(":n"), (std::vector<int>{'n', ':'}));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Trace, FindsAndEnumeratesTheDimensions) {
    const char* const names[] = {"in", "out", "proc", "lock", "err", "nblib"};
    int value = 10;
    for (const char* n : names)
        *tc_findvar(n) = value++;
    EXPECT_EQ(tc_findvar("Proc"), nullptr);
    EXPECT_EQ(tc_findvar("tracefile"), nullptr);
    EXPECT_EQ(tc_proc, 12);
    int index = 0;
    const char* name = nullptr;
    for (int i = 0; i < 6; i++) {
        ASSERT_EQ(tc_enumdim(&index, &name, &value), 1);
        EXPECT_STREQ(name, names[i]);
        EXPECT_EQ(value, 10 + i);
        EXPECT_EQ(index, i + 1);
    }
    EXPECT_EQ(tc_enumdim(&index, &name, &value), 0);
}
