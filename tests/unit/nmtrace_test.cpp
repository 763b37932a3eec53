// The trace options the daemon takes with its own (the banner, the levels
// and the file name are driven end to end).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "nmtrace.h"

namespace {

// The letters tc_getopt gives for the command line, and what it warned.
std::vector<int> scan(std::vector<std::string> words, const char* options, std::string* warned)
{
    std::vector<char*> args;
    for (std::string& w : words)
        args.push_back(w.data());
    args.push_back(nullptr);
    std::vector<int> seen;
    testing::internal::CaptureStderr();
    for (int c, guard = 0; guard < 50 && (c = tc_getopt(int(words.size()), args.data(), options)) != -1; guard++)
        seen.push_back(c);
    *warned = testing::internal::GetCapturedStderr();
    return seen;
}

}  // namespace

TEST(Trace, TakesItsOptionsBesideTheCallersAndWarnsAboutOthers) {
    char dir[] = "/tmp/halyard-trc-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    ASSERT_EQ(chdir(dir), 0);  // the default file goes here
    std::string warned;
    tc_reset();
    const std::string long_name(300, 'q');
    EXPECT_EQ(scan({"prog", "-nz", "in=2", "file", "-z", "proc=5", "-z", "lock=" + std::string(200, '9'), "-z",
                    "IN=1", "-z", long_name, "-x"},
                   "nx", &warned),
              (std::vector<int>{'n', 'x'}));
    EXPECT_EQ(warned, "prog: warning: unrecognized trace option IN\n"
                      "prog: warning: unrecognized trace option " + std::string(99, 'q') + "\n");
    EXPECT_EQ(tc_in, 2);
    EXPECT_EQ(tc_proc, 5);
    EXPECT_EQ(tc_lock, 2147483647);  // clamped, not overflowed
    EXPECT_NE(tcfile, nullptr);
    EXPECT_EQ(tc_reset(), 1);
    EXPECT_EQ(tcfile, nullptr);

    // A 'z' of the caller's own is refused; nothing is set.
    EXPECT_EQ(scan({"prog", "-n", "-z", "in=1"}, "nz", &warned), std::vector<int>{});
    EXPECT_EQ(warned, "prog: tc_getopt error: multiply defined z option\n");
    EXPECT_EQ(tc_in, 0);
    tc_reset();
    EXPECT_EQ(unlink("halyard.trc"), 0);
    EXPECT_EQ(chdir("/"), 0);
    EXPECT_EQ(rmdir(dir), 0);
}
