// The trace options the daemon takes beside its own (the banner, the levels,
// the file name and the warnings are driven end to end).
#include "tests/unit/unitkit.h"

TEST(Trace, TakesItsOptionsBesideTheCallersAndRefusesACallersZ) {
    char dir[] = "/tmp/halyard-trc-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    ASSERT_EQ(chdir(dir), 0);  // the default file goes here
    std::vector<std::string> words{"prog", "-nz", "in=2", "file", "-z", "proc=5", "-z",
                                   "lock=" + std::string(200, '9'), "-x", "-z", std::string(300, 'q')};
    std::vector<char*> args;
    for (std::string& w : words)
        args.push_back(w.data());
    args.push_back(nullptr);
    std::string seen;
    testing::internal::CaptureStderr();
    for (int c, guard = 0; guard < 50 && (c = tc_getopt(int(words.size()), args.data(), "nx")) != -1; guard++)
        seen += char(c);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "prog: warning: unrecognized trace option " + std::string(99, 'q') + "\n");  // cut, not overrun
    EXPECT_EQ(seen, "nx");
    EXPECT_TRUE(tc_in == 2 && tc_proc == 5 && tcfile != nullptr);
    EXPECT_EQ(tc_lock, 2147483647);  // clamped, not overflowed
    EXPECT_TRUE(tc_reset() == 1 && tcfile == nullptr);

    testing::internal::CaptureStderr();
    EXPECT_EQ(tc_getopt(int(words.size()), args.data(), "nz"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "prog: tc_getopt error: multiply defined z option\n");
    EXPECT_EQ(tc_in, 0);
    EXPECT_EQ(unlink("halyard.trc") + chdir("/") + rmdir(dir), 0);
}
