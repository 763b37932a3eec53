#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "shr/logging.h"
#include "tests/support/nsfixture.h"

namespace {

std::string read_file(const std::string& path)
{
    std::string out;
    if (FILE* f = fopen(path.c_str(), "r")) {
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;)
            out.append(buf, n);
        fclose(f);
    }
    return out;
}

// The file as lines split at CR LF; a '\n' without its '\r' stays in a line.
std::vector<std::string> crlf_lines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t start = 0, pos;
    for (; (pos = text.find("\r\n", start)) != std::string::npos; start = pos + 2)
        lines.push_back(text.substr(start, pos - start));
    EXPECT_EQ(start, text.size()) << "text after the last CR LF";
    return lines;
}

// ctime's form without its newline: "Thu Nov 23 09:05:07 2026".
bool is_time_stamp(const std::string& line)
{
    struct tm tm {};
    const char* end = strptime(line.c_str(), "%a %b %e %H:%M:%S %Y", &tm);
    return line.size() == 24 && end != nullptr && *end == '\0';
}

// What the log holds after its first line, a time stamp.
std::string after_stamp(const std::string& log)
{
    size_t end = log.find("\r\n");
    bool stamped = end != std::string::npos && is_time_stamp(log.substr(0, end));
    return stamped ? log.substr(end + 2) : "no time stamp: " + log;
}

class Logging : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/halyard-log-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        path = dir + "/log.nb";
    }
    void TearDown() override
    {
        close_log();
        unlink(path.c_str());
        rmdir(dir.c_str());
    }
    std::string dir;
    std::string path;
};

}  // namespace

TEST_F(Logging, GroupsMessagesUnderTimeStampLines) {
    ASSERT_EQ(open_log(path.c_str()), 0);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0664u);  // a new file, whatever the umask

    log_new();
    log_msg("first %d", 1);
    log_msg("%d %d %d %d %d %d %d", 1, 2, 3, 4, 5, 6, 7);  // the format sees six
    log_new();
    log_msg("ends in a newline\n");
    auto lines = crlf_lines(read_file(path));
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_TRUE(is_time_stamp(lines[0])) << lines[0];
    EXPECT_EQ(lines[1], "\tfirst 1");
    EXPECT_EQ(lines[2], "\t1 2 3 4 5 6 %d");
    EXPECT_TRUE(is_time_stamp(lines[3])) << lines[3];
    EXPECT_EQ(lines[4], "\tends in a newline\n");
}

TEST_F(Logging, OpensTheFileForEveryMessage) {
    fclose(fopen(path.c_str(), "w"));
    chmod(path.c_str(), 0600);
    ASSERT_EQ(open_log(path.c_str()), 0);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);  // an existing file keeps its mode

    log_msg("one");
    ASSERT_EQ(unlink(path.c_str()), 0);    // moved away between messages
    log_msg("two");
    EXPECT_EQ(crlf_lines(read_file(path)), std::vector<std::string>{"\ttwo"});

    // A message that cannot reopen the file turns logging off for good.
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(rmdir(dir.c_str()), 0);
    log_msg("lost");
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    log_msg("also lost");
    EXPECT_EQ(access(path.c_str(), F_OK), -1);
}

TEST_F(Logging, RelativeEmptyAndBadPaths) {
    char cwd[1024];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(dir.c_str()), 0);
    EXPECT_EQ(open_log("log.nb"), 0);
    ASSERT_EQ(chdir(cwd), 0);
    log_msg("kept where it was opened");  // the path was made absolute
    EXPECT_NE(read_file(path).find("\tkept where it was opened\r\n"), std::string::npos);

    EXPECT_EQ(open_log(""), 0);           // logging off
    log_msg("dropped");
    EXPECT_EQ(open_log((dir + "/missing/log").c_str()), -1);
    EXPECT_EQ(open_log(std::string(2000, 'r').c_str()), -1);  // cannot be made absolute
    // An absolute path too long for its buffer is refused, not cut to
    // ".../log" and opened there.
    std::string prefix = dir + "/";
    if ((1020 - prefix.size()) % 2 != 0)
        prefix += "/";
    while (prefix.size() < 1020)
        prefix += "./";
    EXPECT_EQ(open_log((prefix + "log.nb").c_str()), -1);
    EXPECT_EQ(access((dir + "/log").c_str(), F_OK), -1);
    log_msg("dropped too");
    EXPECT_EQ(read_file(path).find("dropped"), std::string::npos);
}

// The home directory's message file (here only its ".cat" name, the second
// tried) replaces defaults whose arguments its texts fit, in the set asked for.
TEST(LogCatmsg, ReadsTheHomeDirectorysMessageFile) {
    run_in_private_dirs([] {
        FILE* f = fopen("/opt/KORRlibs/lib/kbsrvmsg.cat", "w");
        ASSERT_NE(f, nullptr);
        fputs("$set 10\n"
              "203 \"Dienste %s %s\\x21\"\n"
              "173 \"%d: line %s\"\n"
              "198 \"%s: root needed\"\n"
              "201\\x41\\x41\\x41 \"%s: pid\\x21\"\n"  // escapes in the number token are not the text's
              "$set 11\n"
              "199 \"eleven\"\n",
              f);
        fclose(f);
        ASSERT_EQ(open_log("/opt/log.nb"), 0);
        log_new();
        log_catmsg(LOG_SET, 203, "NB NetBIOS services %s %s starting.\n", "2.0", "LX");
        log_catmsg(LOG_SET, 173, "%s: error in config file at line %d", "Halyard", 5);  // %d where %s
        log_catmsg(11, 199, "%s", "unused");
        log_catmsg(LOG_SET, 201, "%s: Can't create pid property %s", "Halyard", "p");
        EXPECT_EQ(after_stamp(read_file("/opt/log.nb")),
                  "\tDienste 2.0 LX!\r\n"
                  "\tHalyard: error in config file at line 5\r\n"
                  "\televen\r\n"
                  "\tHalyard: pid!\r\n");

        testing::internal::CaptureStdout();
        EXPECT_EQ(print_catmsg(stdout, LOG_SET, 198, "%s: must run as super-user", "Halyard"), 0);
        fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Halyard: root needed");
        EXPECT_EQ(print_catmsg(nullptr, LOG_SET, 198, "%s", "x"), 0);
    });
}

TEST(LogCatmsg, NoMessageFileGivesTheDefaults) {
    run_in_private_dirs([] {
        ASSERT_EQ(open_log("/opt/log.nb"), 0);
        log_new();
        log_catmsg(LOG_SET, 203, "NB NetBIOS services %s %s starting.\n", "2.0", "LX");
        EXPECT_EQ(after_stamp(read_file("/opt/log.nb")), "\tNB NetBIOS services 2.0 LX starting.\n\r\n");
    });
}
