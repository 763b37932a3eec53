// The operator log's texts: the site's message file, read once here for its
// format, and the rule that a site text must fit its message's arguments.
#include "tests/unit/unitkit.h"

#include "shr/logcatmsg.h"

TEST(MsgGet, FindsTheNumberInsideItsSetOnly) {
    const std::string lines = "$set 9\n203 \"set nine\"\n$set 10\n$ comment\n198 \"a \"b\" c\"\n203 plain text\n"
                              "205x glued \"word\"\n206 \"no closing quote\n"
                              "8 " + std::string(MSG_LINE_SIZE, 'x') + "9 fake\n"  // a long line is cut whole
                              "$set 11\n173 \"eleven\"\n";
    FILE* f = tmpfile();
    fputs(lines.c_str(), f);
    const struct { int set, number; const char* text; } cases[] = {
        {9, 203, "set nine"}, {10, 198, "a \"b\" c"}, {10, 203, "plain text\n"}, {10, 205, "glued \"word\"\n"},
        {10, 206, "no closing quote\n"}, {10, 9, "default"}, {10, 173, "default"}, {11, 173, "eleven"},
        {12, 173, "default"},
    };
    for (const auto& c : cases)
        EXPECT_STREQ(msg_get(f, c.set, c.number, "default"), c.text) << c.set << "/" << c.number;
    fclose(f);
}

// Each message under a time-stamp line, as "\ttext\r\n"; the home
// directory's message file replaces a default text only with one that takes
// the same arguments, escapes replaced.
TEST(LogCatmsg, SiteTextsReplaceDefaultsOnlyWhenTheyFitTheirArguments) {
    run_in_private_dirs([] {
        std::ofstream("/opt/KORRlibs/lib/kbsrvmsg.cat") << "$set 10\n203 \"Dienste %s %s\\x21\\101\"\n"
                                                         "173 \"%d: line %s\"\n174 \"%s %n\"\n175 \"%s %s %s\"\n";
        ASSERT_EQ(open_log("/opt/log.nb"), 0);
        log_new();
        log_catmsg(LOG_SET, 203, "NB NetBIOS services %s %s starting.\n", "2.0", "LX");
        log_catmsg(LOG_SET, 173, "%s: error in config file at line %d", "Halyard", 5);
        log_catmsg(LOG_SET, 174, "%s: n", "Halyard");
        log_catmsg(LOG_SET, 175, "%s %s", "a", "b");
        close_log();
        const std::string log = lab_read_file("/opt/log.nb");
        ASSERT_EQ(log.find("\r\n"), 24u) << log;  // "Thu Nov 23 09:05:07 2026"
        EXPECT_EQ(log.substr(26), "\tDienste 2.0 LX!A\r\n"
                                  "\tHalyard: error in config file at line 5\r\n"
                                  "\tHalyard: n\r\n"
                                  "\ta b\r\n");
    });
}
