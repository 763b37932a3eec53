#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "shr/vzparcons.h"

namespace {

// A real file holding exactly these bytes, positioned at its start.
FILE* file_with(const std::string& bytes)
{
    FILE* f = tmpfile();
    if (f == nullptr)
        return nullptr;
    fwrite(bytes.data(), 1, bytes.size(), f);
    rewind(f);
    return f;
}

std::string opt(const char* s)
{
    return s != nullptr ? "<" + std::string(s) + ">" : "-";
}

// Every construct of the text up to the end of the file, one line each:
// "C1 [w1|w2] COMMENT SAVED" (T for a head) or "E2 MESSAGE SAVED"; a saved
// line over 80 bytes shows as its length.
std::vector<std::string> constructs_of(const std::string& text)
{
    std::vector<std::string> out;
    FILE* f = file_with(text);
    if (f == nullptr) {
        ADD_FAILURE() << "tmpfile";
        return out;
    }
    vz_par_init(f);
    for (;;) {
        int argc = -1;
        char** argv = nullptr;
        char* comment = nullptr;
        int kind = vz_par_cons(f, &argc, &argv, &comment);
        if (kind == VZ_PAR_EOF)
            break;
        std::string c = (kind == VZ_PAR_TAG ? "T" : kind == VZ_PAR_CMD ? "C" : "E") + std::to_string(vz_par_line());
        const char* saved = nullptr;
        if (kind == VZ_PAR_ERROR) {
            EXPECT_EQ(argc, 0);
            EXPECT_EQ(argv, nullptr);
            char* msg = nullptr;
            vz_par_err(&msg, &saved);
            c += " " + opt(msg);
            free(msg);
            EXPECT_EQ(vz_par_saved(), nullptr);  // handed over and cleared
        } else {
            c += " [";
            for (int i = 0; i < argc; i++)
                c += (i ? "|" : "") + std::string(argv[i]);
            EXPECT_EQ(argv[argc], nullptr);
            c += "] " + opt(comment);
            saved = vz_par_saved();
        }
        std::string shown = opt(saved);
        out.push_back(c + " " + (shown.size() > 80 ? std::to_string(shown.size() - 2) + " bytes" : shown));
    }
    vz_par_fini(f);
    fclose(f);
    return out;
}

using Got = std::vector<std::string>;

}  // namespace

TEST(VzParCons, SplitsLinesIntoWordsCommentsAndHeads) {
    const struct { const char* why; std::string text; Got want; } cases[] = {
        {"continued lines join as blanks, the counter keeps counting", "a\\\n\\\nb\nc",
         {"C1 [a|b] - <a  b>", "C4 [c] - <c>"}},
        {"blanks, '#' and brackets are ordinary inside quotes, also inside a word", "ab\"c d\"ef \"#[]\"\n",
         {"C1 [abc def|#[]] - <ab\"c d\"ef \"#[]\">"}},
        {"escapes inside quotes", "\"a\\\"b\\\\c\\d\"\n", {"C1 [a\"b\\c\\d] - <\"a\\\"b\\\\c\\d\">"}},
        {"a newline inside quotes ends the word", "\"open\nnext\n", {"C1 [open] - <\"open>", "C2 [next] - <next>"}},
        {"end of file inside quotes ends the word", "a \"b c", {"C1 [a|b c] - <a \"b c>"}},
        {"empty quotes are an empty word", "NB-scope \"\"\n", {"C1 [NB-scope|] - <NB-scope \"\">"}},
        {"comment straight after a word", "abc#x\n", {"C1 [abc] <x> <abc#x>"}},
        {"comment-only and empty lines are commands without words", "# only\n\n\t \n",
         {"C1 [] < only> <# only>", "C2 [] - <>", "C3 [] - <\t >"}},
        {"a comment goes on over a continued line", "a # c \\\n d\ne\n",
         {"C1 [a] < c   d> <a # c   d>", "C3 [e] - <e>"}},
        {"head with a comment", "[transport tcpip] # note\n",
         {"T1 [transport|tcpip] < note> <[transport tcpip] # note>"}},
        {"a bracket not ending the head is a word", "[a]b]\n", {"T1 [a|]|b] - <[a]b]>"}},
        {"a further opening bracket is a word", "  [a [b]#c\n", {"T1 [a|[|b] <c> <  [a [b]#c>"}},
        {"head without its closing bracket ends with the line", "[open\nx\n", {"T1 [open] - <[open>", "C2 [x] - <x>"}},
        {"empty head, and a head at the end of the file", "[]\n[last]", {"T1 [] - <[]>", "T2 [last] - <[last]>"}},
        {"brackets in a command are words", "x [y]z\n", {"C1 [x|[|y|]|z] - <x [y]z>"}},
        {"a quoted bracket does not start a head", "\"[q]\"\n", {"C1 [[q]] - <\"[q]\">"}},
        {"carriage return and lone backslashes are word characters", "a\r\nb\\c \\\n",
         {"C1 [a\r] - <a\r>", "C2 [b\\c] - <b\\c  >"}},
        {"a continued line ending the file", "x\\\n", {"C1 [x] - <x >"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(constructs_of(c.text), c.want);
    }
}

TEST(VzParCons, RefusesALineWithANulByteAndGoesOn) {
    const char raw[] = "good\nba\0d \"q\0\" word\\\nstill\nnext\n# x\0y\nlast";
    EXPECT_EQ(constructs_of(std::string(raw, sizeof raw - 1)), (Got{
        "C1 [good] - <good>",
        "E2 <NUL character in line> <ba>",  // skips the continued line 3 too
        "C4 [next] - <next>",
        "E5 <NUL character in line> <# x>",
        "C6 [last] - <last>",               // and the last line without a newline
    }));
}

TEST(VzParCons, BoundsTheLengthOfALogicalLine) {
    const std::string longest(VZ_PAR_MAXLINE, 'w');
    const std::string kept = std::to_string(VZ_PAR_MAXLINE) + " bytes";
    auto got = constructs_of(longest + "\n" + longest + "x\\\n" + "still the same line\nnext\n");
    ASSERT_EQ(got.size(), 3u);
    EXPECT_TRUE(got[0] == "C1 [" + longest + "] - " + kept);
    EXPECT_EQ(got[1], "E2 <line too long> " + kept);
    EXPECT_EQ(got[2], "C4 [next] - <next>");

    // A long quoted word and a long comment are bounded the same way.
    got = constructs_of("\"" + longest + "\n# " + longest + "\nok");
    EXPECT_EQ(got, (Got{"E1 <line too long> " + kept, "E2 <line too long> " + kept, "C3 [ok] - <ok>"}));
}

TEST(VzParCons, ThousandsOfWordsThenAShortLineLeavesNoStaleWords) {
    std::string line;
    std::string words;
    for (int i = 0; i < 5000; i++) {
        line += "w" + std::to_string(i) + (i % 7 ? " " : "\t");
        words += (i ? "|w" : "w") + std::to_string(i);
    }
    auto got = constructs_of(line + "\nshort one\n\n[h]\n");
    ASSERT_EQ(got.size(), 4u);
    EXPECT_TRUE(got[0] == "C1 [" + words + "] - " + std::to_string(line.size()) + " bytes");
    EXPECT_EQ(got[1], "C2 [short|one] - <short one>");
    EXPECT_EQ(got[2], "C3 [] - <>");
    EXPECT_EQ(got[3], "T4 [h] - <[h]>");
}

TEST(VzParCons, BinaryGarbageEndsInTheEndOfFile) {
    std::mt19937 gen(20240607);
    for (int round = 0; round < 20; round++) {
        SCOPED_TRACE(round);
        std::string bytes(20000 + round * 5000, '\0');
        // Half the rounds weight the characters the syntax cares about.
        const char special[] = "\"\\#[] \t\n\0";
        for (auto& b : bytes)
            b = round % 2 && gen() % 2 ? special[gen() % 9] : static_cast<char>(gen());
        const long newlines = std::count(bytes.begin(), bytes.end(), '\n');
        long prev = 0;
        for (const auto& c : constructs_of(bytes)) {
            long line = atol(c.c_str() + 1);
            EXPECT_GT(line, prev);
            EXPECT_LE(line, newlines + 1);
            prev = line;
            if (c[0] == 'E') {
                EXPECT_EQ(c.substr(c.find(' '), 25), " <NUL character in line> ");
            }
        }
    }
}

TEST(VzParMkstr, FormatsStringsIntoAnExactlySizedBuffer) {
    const struct { const char* fmt; const char* a; const char* b; const char* want; } cases[] = {
        {"unrecognized directive: ``%s''", "bogus", nullptr, "unrecognized directive: ``bogus''"},
        {"%s=%s", "k", "v", "k=v"},
        {"%s and %s", "one", nullptr, "one and (null)"},
        {"100%% %s", "x", nullptr, "100% x"},
        {"%d %s%", "x", nullptr, "%d x%"},
        {"", "unused", nullptr, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fmt);
        char* s = vz_par_mkstr(c.fmt, c.a, c.b);
        ASSERT_NE(s, nullptr);
        EXPECT_STREQ(s, c.want);
        free(s);
    }
    // Only the first eight arguments are ever measured and used.
    char* s = vz_par_mkstr("%s%s%s%s%s%s%s%s%s", "1", "2", "3", "4", "5", "6", "7", "8");
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "12345678%s");
    free(s);
}
