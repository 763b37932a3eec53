#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "shr/logcatmsg.h"

namespace {
// A message file as a temporary stream (removed when closed).
FILE* file_with(const std::string& text)
{
    FILE* f = tmpfile();
    fwrite(text.data(), 1, text.size(), f);
    return f;
}

std::string printed(const char* format, int max_args, ...)
{
    char* buf = nullptr;
    size_t size = 0;
    FILE* f = open_memstream(&buf, &size);
    va_list ap;
    va_start(ap, max_args);
    vprint_limited(f, format, max_args, ap);
    va_end(ap);
    fclose(f);
    std::string out(buf, size);
    free(buf);
    return out;
}
}  // namespace

TEST(MsgGet, FindsTheNumberInsideItsSetOnly) {
    std::string lines =
        "# a comment before any set\n"
        "$set 9\n"
        "203 \"set nine\"\n"
        "$set abc\n"
        "203 \"unreadable set\"\n"
        "$set 10\n"
        "\n"
        "$ comment\n"
        "198 \"a \"b\" c\"\n"
        "203 plain text\n"
        "204\tTabbed\n"
        "205x glued \"word\"\n"
        "206 \"no closing quote\n"
        "207 \"\"\n"
        "$set 11\n"
        "173 \"eleven\"\n";
    FILE* f = file_with(lines);
    const char* dflt = "default";
    const struct { int set; int number; const char* text; } cases[] = {
        {9, 203, "set nine"},
        {-1, 203, "unreadable set"},          // "$set abc" counts as set -1
        {10, 198, "a \"b\" c"},               // text ends at the last quote
        {10, 203, "plain text\n"},            // unquoted keeps its newline
        {10, 204, "Tabbed\n"},
        {10, 205, "glued \"word\"\n"},        // the number runs to white space
        {10, 206, "no closing quote\n"},
        {10, 207, ""},
        {10, 173, "default"},                 // 173 is only in set 11
        {11, 173, "eleven"},
        {12, 173, "default"},                 // no such set
        {10, 999, "default"},
        {10, -1, "default"},
    };
    for (int round = 0; round < 2; round++) {  // every lookup starts from the top
        for (const auto& c : cases) {
            SCOPED_TRACE(std::to_string(c.set) + "/" + std::to_string(c.number));
            EXPECT_STREQ(msg_get(f, c.set, c.number, dflt), c.text);
        }
    }
    fclose(f);
    EXPECT_EQ(msg_get(nullptr, 10, 203, dflt), dflt);
}

// A zero byte (a line that reads as empty) ends the set; a line longer than
// the buffer is cut whole, even with a zero byte in it, and its rest (here
// looking like message 9) is never read as a line.
TEST(MsgGet, StopsAtAZeroByteLineAndNeverSplitsALongLine) {
    const std::string tail = "9 fake\n9 real\n";
    const struct { std::string lines; const char* nine; const char* eight; } cases[] = {
        {"$set 10\n" + std::string("\0 hidden\n", 9) + "9 \"after the zero line\"\n8 x\n", "dflt", "dflt"},
        {"$set 10\n8 " + std::string(MSG_LINE_SIZE - 3, 'x') + tail, "real\n", nullptr},
        {"$set 10\n8 x" + std::string(1, '\0') + std::string(MSG_LINE_SIZE - 5, 'x') + tail, "real\n", "x"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        FILE* f = file_with(c.lines);
        EXPECT_STREQ(msg_get(f, 10, 9, "dflt"), c.nine);
        const char* eight = msg_get(f, 10, 8, "dflt");
        if (c.eight != nullptr)
            EXPECT_STREQ(eight, c.eight);
        else
            EXPECT_EQ(strlen(eight), MSG_LINE_SIZE - 3);
        fclose(f);
    }
}

TEST(FixupString, ReplacesEscapesInPlace) {
    const struct { const char* in; const char* out; } cases[] = {
        {"a\\\\b", "a\\b"},
        {"\\101\\0412", "A!2"},
        {"\\3", "\\3"},                   // 0-3 without two octal digits
        {"\\38x", "\\38x"},
        {"\\477", "477"},                  // 4-7 are ordinary characters
        {"\\x41\\xaF", "A\xaf"},
        {"\\x4g", "\\x4g"},                // one hex digit: backslash kept
        {"\\x", "\\x"},
        {"\\a\\b\\n\\r\\t", "\a\b\n\r\t"},
        {"\\q\\\"", "q\""},
        {"ends\\", "ends\\"},              // a trailing backslash stays
        {"a\\\\", "a\\"},
        {"A\\000B", "A"},                  // a NUL byte ends the text
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.in);
        char buf[64];
        snprintf(buf, sizeof buf, "%s", c.in);
        EXPECT_EQ(fixup_string(buf), buf);
        EXPECT_STREQ(buf, c.out);
    }
}

TEST(FormatCheck, AcceptsOnlyTextsThatFitTheDefaultsArguments) {
    const struct { const char* text; const char* dflt; bool ok; } cases[] = {
        {"%s: fehler %d", "%s: error %d", true},
        {"%s", "%s: error %d", true},          // fewer, in order
        {"%d", "%s", false},                   // a number where a string is passed
        {"%s %s %s", "%s %s", false},          // more than are passed
        {"%d %s", "%s %d", false},             // order swapped
        {"%ld", "%d", false},                  // width differs
        {"%u %x %c", "%d %d %d", true},
        {"%-5.2f %%", "%f", true},
        {"%*d", "%d %d", true},
        {"%*d", "%d", false},
        {"%n", "%d", false},
        {"%1$s", "%s", false},                 // positional
        {"100%", "", false},                   // a lone '%' at the end
        {"%y", "%d", false},
        {"%m here", "", true},
        {"%s", "%d %", false},                 // the default itself not understood
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.text) + " for " + c.dflt);
        EXPECT_EQ(fmt_compatible(c.text, c.dflt), c.ok);
    }
}

TEST(FormatCheck, PassesAtMostTheAllowedArguments) {
    const char* seven = "%d %d %d %d %d %d %d";
    EXPECT_EQ(printed(seven, 6, 1, 2, 3, 4, 5, 6, 7), "1 2 3 4 5 6 %d");
    EXPECT_EQ(printed(seven, 8, 1, 2, 3, 4, 5, 6, 7), "1 2 3 4 5 6 7");
    const char* odd = "%s then %n and %s";
    EXPECT_EQ(printed(odd, 8, "a", "b"), "a then %n and %s");
    const char* star = "%*d|%d";
    EXPECT_EQ(printed(star, 2, 3, 7, 9), "  7|%d");
}
