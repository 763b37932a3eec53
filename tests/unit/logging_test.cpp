#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "shr/logging.h"

namespace {

std::string read_file(const std::string& path)
{
    std::string out;
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr)
        return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        out.append(buf, n);
    fclose(f);
    return out;
}

// The file as lines split at CR LF; a '\n' without its '\r' stays in a line.
std::vector<std::string> crlf_lines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t start = 0, pos;
    while ((pos = text.find("\r\n", start)) != std::string::npos) {
        lines.push_back(text.substr(start, pos - start));
        start = pos + 2;
    }
    EXPECT_EQ(start, text.size()) << "text after the last CR LF";
    return lines;
}

// ctime's form: "Thu Nov 23 09:05:07 2026" ('A' a letter, '9' a digit).
bool is_time_stamp(const std::string& line)
{
    const std::string form = "Aaa Aaa 99 99:99:99 9999";
    if (line.size() != form.size())
        return false;
    for (size_t i = 0; i < form.size(); i++) {
        const char c = line[i];
        const bool fits = form[i] == 'A' ? isupper(c) : form[i] == 'a' ? islower(c)
                        : form[i] == '9' ? isdigit(c) || (i == 8 && c == ' ') : c == form[i];
        if (!fits)
            return false;
    }
    return true;
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
    log_msg("second %s", "two");
    log_new();
    log_msg("third");
    log_msg("ends in a newline\n");
    auto lines = crlf_lines(read_file(path));
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_TRUE(is_time_stamp(lines[0])) << lines[0];
    EXPECT_EQ(lines[1], "\tfirst 1");
    EXPECT_EQ(lines[2], "\tsecond two");
    EXPECT_TRUE(is_time_stamp(lines[3])) << lines[3];
    EXPECT_EQ(lines[4], "\tthird");
    EXPECT_EQ(lines[5], "\tends in a newline\n");
}

TEST_F(Logging, OpensTheFileForEveryMessage) {
    ASSERT_EQ(chmod(dir.c_str(), 0700), 0);
    FILE* f = fopen(path.c_str(), "w");
    fclose(f);
    chmod(path.c_str(), 0600);
    ASSERT_EQ(open_log(path.c_str()), 0);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);  // an existing file keeps its mode

    log_msg("one");
    ASSERT_EQ(unlink(path.c_str()), 0);    // moved away between messages
    log_msg("two");
    auto lines = crlf_lines(read_file(path));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "\ttwo");

    // A message that cannot reopen the file turns logging off for good.
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(rmdir(dir.c_str()), 0);
    log_msg("lost");
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    log_msg("also lost");
    EXPECT_EQ(access(path.c_str(), F_OK), -1);
    EXPECT_EQ(close_log(), 0);
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
    EXPECT_EQ(read_file(path).find("dropped"), std::string::npos);

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
    EXPECT_EQ(close_log(), 0);
}

TEST_F(Logging, TheFormatSeesAtMostSixArguments) {
    ASSERT_EQ(open_log(path.c_str()), 0);
    log_new();
    log_msg("%d %d %d %d %d %d %d", 1, 2, 3, 4, 5, 6, 7);
    auto lines = crlf_lines(read_file(path));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], "\t1 2 3 4 5 6 %d");
}

namespace {

// Runs body in a child with a private mount namespace and a fresh tmpfs over
// /opt, so that the home directory /opt/KORRlibs is the test's own.
// Returns the child's exit status: 0 passed, 77 could not set up.
int in_private_opt(int (*body)())
{
    pid_t pid = fork();
    if (pid == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0
            || mount("tmpfs", "/opt", "tmpfs", 0, "size=1m") != 0)
            _exit(77);
        _exit(body());
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

#define CHILD_EXPECT(cond)                                               \
    do {                                                                 \
        if (!(cond)) {                                                   \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond); \
            return 1;                                                    \
        }                                                                \
    } while (0)

int catalogue_texts_replace_compatible_defaults()
{
    CHILD_EXPECT(mkdir("/opt/KORRlibs", 0755) == 0 && mkdir("/opt/KORRlibs/lib", 0755) == 0);
    // Only the ".cat" name exists: the second name tried.
    FILE* f = fopen("/opt/KORRlibs/lib/kbsrvmsg.cat", "w");
    CHILD_EXPECT(f != nullptr);
    fputs("$set 10\n"
          "203 \"Dienste %s %s\\x21\"\n"
          "173 \"%d: line %s\"\n"
          "174 \"%s %s %s\"\n"
          "186 unquoted %s\n"
          "200 \"tab\\there\"\n"
          "198 \"%s: root needed\"\n"
          "201\\x41\\x41\\x41 \"%s: pid\\x21\"\n"  // escapes in the number token are not the text's
          "$set 11\n"
          "199 \"eleven\"\n",
          f);
    fclose(f);
    CHILD_EXPECT(open_log("/opt/log.nb") == 0);
    log_new();
    log_catmsg(LOG_SET, 203, "NB NetBIOS services %s %s starting.\n", "2.0", "LX");
    log_catmsg(LOG_SET, 173, "%s: error in config file at line %d", "Halyard", 5);  // %d where %s
    log_catmsg(LOG_SET, 174, "%s: cannot open config file %s", "Halyard", "cfg");   // too many
    log_catmsg(LOG_SET, 186, "Halyard: name already exists on network: %s", "FOO");
    log_catmsg(LOG_SET, 200, "    %s", "detail");
    log_catmsg(LOG_SET, 199, "%s: error occurred parsing config file on line %d", "Halyard", 7);
    log_catmsg(11, 199, "%s", "unused");
    log_catmsg(LOG_SET, 201, "%s: Can't create pid property %s", "Halyard", "p");
    std::string log = read_file("/opt/log.nb");
    std::string want = "\tDienste 2.0 LX!\r\n"
                       "\tHalyard: error in config file at line 5\r\n"
                       "\tHalyard: cannot open config file cfg\r\n"
                       "\tunquoted FOO\n\r\n"
                       "\ttab\there\r\n"
                       "\tHalyard: error occurred parsing config file on line 7\r\n"
                       "\televen\r\n"
                       "\tHalyard: pid!\r\n";
    size_t stamp_end = log.find("\r\n");
    CHILD_EXPECT(stamp_end != std::string::npos);
    CHILD_EXPECT(log.substr(stamp_end + 2) == want);

    char* buf = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&buf, &size);
    CHILD_EXPECT(print_catmsg(out, LOG_SET, 198, "%s: must run as super-user", "Halyard") == 0);
    fclose(out);
    CHILD_EXPECT(std::string(buf, size) == "Halyard: root needed");
    free(buf);
    CHILD_EXPECT(print_catmsg(nullptr, LOG_SET, 198, "%s", "x") == 0);
    return 0;
}

int no_message_file_gives_defaults()
{
    CHILD_EXPECT(open_log("/opt/log.nb") == 0);
    log_new();
    log_catmsg(LOG_SET, 203, "NB NetBIOS services %s %s starting.\n", "2.0", "LX");
    std::string log = read_file("/opt/log.nb");
    size_t stamp_end = log.find("\r\n");
    CHILD_EXPECT(stamp_end != std::string::npos);
    CHILD_EXPECT(log.substr(stamp_end + 2) == "\tNB NetBIOS services 2.0 LX starting.\n\r\n");
    return 0;
}

}  // namespace

TEST(LogCatmsg, ReadsTheHomeDirectorysMessageFile) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root for a private mount namespace over /opt";
    int r = in_private_opt(catalogue_texts_replace_compatible_defaults);
    if (r == 77)
        GTEST_SKIP() << "cannot mount a private /opt (no mount namespaces here)";
    EXPECT_EQ(r, 0);
    r = in_private_opt(no_message_file_gives_defaults);
    EXPECT_EQ(r, 0);
}
