#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
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

struct Construct {
    int kind;
    int line;
    std::vector<std::string> words;
    std::optional<std::string> comment;
    std::optional<std::string> saved;    // the saved line, or an error's
    std::optional<std::string> message;  // errors only
    bool operator==(const Construct&) const = default;
};

void PrintTo(const Construct& c, std::ostream* os)
{
    *os << "{" << c.kind << " line " << c.line << " [";
    for (const auto& w : c.words)
        *os << "\"" << w << "\" ";
    *os << "] comment " << (c.comment ? "\"" + *c.comment + "\"" : "none");
    *os << " saved " << (c.saved ? "\"" + *c.saved + "\"" : "none");
    *os << " msg " << (c.message ? *c.message : "none") << "}";
}

std::optional<std::string> opt(const char* s)
{
    return s != nullptr ? std::optional<std::string>(s) : std::nullopt;
}

// Every construct of the text, up to and excluding the end of the file.
std::vector<Construct> constructs_of(const std::string& text, size_t limit = 100000)
{
    std::vector<Construct> out;
    FILE* f = file_with(text);
    if (f == nullptr) {
        ADD_FAILURE() << "tmpfile";
        return out;
    }
    vz_par_init(f);
    for (size_t n = 0; n < limit; n++) {
        int argc = -1;
        char** argv = nullptr;
        char* comment = nullptr;
        int kind = vz_par_cons(f, &argc, &argv, &comment);
        if (kind == VZ_PAR_EOF)
            break;
        Construct c{kind, vz_par_line(), {}, opt(comment), {}, {}};
        if (kind == VZ_PAR_ERROR) {
            EXPECT_EQ(argc, 0);
            EXPECT_EQ(argv, nullptr);
            char* msg = nullptr;
            const char* saved = nullptr;
            vz_par_err(&msg, &saved);
            c.message = opt(msg);
            c.saved = opt(saved);
            free(msg);
            EXPECT_EQ(vz_par_saved(), nullptr);  // handed over and cleared
        } else {
            for (int i = 0; i < argc; i++)
                c.words.emplace_back(argv[i]);
            EXPECT_EQ(argv[argc], nullptr);
            c.saved = opt(vz_par_saved());
        }
        out.push_back(c);
    }
    vz_par_fini(f);
    fclose(f);
    return out;
}

constexpr int T = VZ_PAR_TAG;
constexpr int C = VZ_PAR_CMD;
const std::nullopt_t none = std::nullopt;

}  // namespace

TEST(VzParCons, SplitsLinesIntoWordsCommentsAndHeads) {
    const struct { const char* why; std::string text; std::vector<Construct> want; } cases[] = {
        {"continued line is one command on the line where it began",
         "x\\\ny\nz\n",
         {{C, 1, {"x", "y"}, none, "x y", none}, {C, 3, {"z"}, none, "z", none}}},
        {"several continuations, the counter keeps counting",
         "a\\\n\\\nb\nc",
         {{C, 1, {"a", "b"}, none, "a  b", none}, {C, 4, {"c"}, none, "c", none}}},
        {"quoted blanks stay in the word",
         "NB-scope \"a b\"\n",
         {{C, 1, {"NB-scope", "a b"}, none, "NB-scope \"a b\"", none}}},
        {"quotes inside a word",
         "ab\"c d\"ef\n",
         {{C, 1, {"abc def"}, none, "ab\"c d\"ef", none}}},
        {"escapes inside quotes",
         "\"a\\\"b\\\\c\\d\"\n",
         {{C, 1, {"a\"b\\c\\d"}, none, "\"a\\\"b\\\\c\\d\"", none}}},
        {"comment and brackets are ordinary inside quotes",
         "x \"#[]\" y\n",
         {{C, 1, {"x", "#[]", "y"}, none, "x \"#[]\" y", none}}},
        {"a newline inside quotes ends the word",
         "\"open\nnext\n",
         {{C, 1, {"open"}, none, "\"open", none}, {C, 2, {"next"}, none, "next", none}}},
        {"end of file inside quotes ends the word",
         "a \"b c",
         {{C, 1, {"a", "b c"}, none, "a \"b c", none}}},
        {"empty quotes are an empty word",
         "NB-scope \"\"\n",
         {{C, 1, {"NB-scope", ""}, none, "NB-scope \"\"", none}}},
        {"comment straight after a word",
         "abc#x\n",
         {{C, 1, {"abc"}, "x", "abc#x", none}}},
        {"comment-only and empty lines are commands without words",
         "# only\n\n\t \n",
         {{C, 1, {}, " only", "# only", none}, {C, 2, {}, none, "", none}, {C, 3, {}, none, "\t ", none}}},
        {"a comment goes on over a continued line",
         "a # c \\\n d\ne\n",
         {{C, 1, {"a"}, " c   d", "a # c   d", none}, {C, 3, {"e"}, none, "e", none}}},
        {"head with a comment",
         "[transport tcpip] # note\n",
         {{T, 1, {"transport", "tcpip"}, " note", "[transport tcpip] # note", none}}},
        {"a bracket not ending the head is a word",
         "[a]b]\n",
         {{T, 1, {"a", "]", "b"}, none, "[a]b]", none}}},
        {"a further opening bracket is a word",
         "  [a [b]#c\n",
         {{T, 1, {"a", "[", "b"}, "c", "  [a [b]#c", none}}},
        {"head without its closing bracket ends with the line",
         "[open\nx\n",
         {{T, 1, {"open"}, none, "[open", none}, {C, 2, {"x"}, none, "x", none}}},
        {"empty head, and a head at the end of the file",
         "[]\n[last]",
         {{T, 1, {}, none, "[]", none}, {T, 2, {"last"}, none, "[last]", none}}},
        {"brackets in a command are words",
         "x [y]z\n",
         {{C, 1, {"x", "[", "y", "]", "z"}, none, "x [y]z", none}}},
        {"a quoted bracket does not start a head",
         "\"[q]\"\n",
         {{C, 1, {"[q]"}, none, "\"[q]\"", none}}},
        {"last line without a newline",
         "a\nb",
         {{C, 1, {"a"}, none, "a", none}, {C, 2, {"b"}, none, "b", none}}},
        {"carriage return and lone backslashes are word characters",
         "a\r\nb\\c \\\n",
         {{C, 1, {"a\r"}, none, "a\r", none}, {C, 2, {"b\\c"}, none, "b\\c  ", none}}},
        {"a continued line ending the file",
         "x\\\n",
         {{C, 1, {"x"}, none, "x ", none}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(constructs_of(c.text), c.want);
    }
}

TEST(VzParCons, RefusesALineWithANulByteAndGoesOn) {
    const char raw[] = "good\nba\0d \"q\0\" word\\\nstill\nnext\n# x\0y\nlast";
    const std::string text(raw, sizeof raw - 1);
    std::vector<Construct> want = {
        {C, 1, {"good"}, none, "good", none},
        {VZ_PAR_ERROR, 2, {}, none, "ba", VZ_PAR_MSG_NUL},  // skips the continued line 3 too
        {C, 4, {"next"}, none, "next", none},
        {VZ_PAR_ERROR, 5, {}, none, "# x", VZ_PAR_MSG_NUL},
        {C, 6, {"last"}, none, "last", none},
    };
    EXPECT_EQ(constructs_of(text), want);
}

TEST(VzParCons, BoundsTheLengthOfALogicalLine) {
    const std::string longest(VZ_PAR_MAXLINE, 'w');
    auto got = constructs_of(longest + "\n" + longest + "x\\\n" + "still the same line\nnext\n");
    ASSERT_EQ(got.size(), 3u);
    ASSERT_EQ(got[0].words.size(), 1u);
    EXPECT_TRUE(got[0].words[0] == longest);
    EXPECT_EQ(got[1].kind, VZ_PAR_ERROR);
    EXPECT_EQ(got[1].line, 2);
    EXPECT_EQ(got[1].message, VZ_PAR_MSG_LONG);
    EXPECT_TRUE(got[1].saved == longest);  // what was kept of it
    EXPECT_EQ(got[2], (Construct{C, 4, {"next"}, none, "next", none}));

    // A long quoted word and a long comment are bounded the same way.
    got = constructs_of("\"" + longest + "\n# " + longest + "\nok");
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].message, VZ_PAR_MSG_LONG);
    EXPECT_EQ(got[1].message, VZ_PAR_MSG_LONG);
    EXPECT_EQ(got[1].line, 2);
    EXPECT_EQ(got[2].words, std::vector<std::string>{"ok"});
}

TEST(VzParCons, ThousandsOfWordsThenAShortLineLeavesNoStaleWords) {
    std::string line;
    for (int i = 0; i < 5000; i++)
        line += "w" + std::to_string(i) + (i % 7 ? " " : "\t");
    auto got = constructs_of(line + "\nshort one\n\n[h]\n");
    ASSERT_EQ(got.size(), 4u);
    ASSERT_EQ(got[0].words.size(), 5000u);
    for (int i = 0; i < 5000; i++)
        ASSERT_EQ(got[0].words[i], "w" + std::to_string(i));
    EXPECT_EQ(got[1].words, (std::vector<std::string>{"short", "one"}));
    EXPECT_TRUE(got[2].words.empty());
    EXPECT_EQ(got[3].words, std::vector<std::string>{"h"});
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
        size_t newlines = 0;
        for (char b : bytes)
            newlines += b == '\n';
        auto got = constructs_of(bytes);
        ASSERT_LE(got.size(), newlines + 1);
        int prev = 0;
        for (const auto& c : got) {
            EXPECT_GT(c.line, prev);
            EXPECT_LE(static_cast<size_t>(c.line), newlines + 1);
            prev = c.line;
            if (c.kind == VZ_PAR_ERROR) {
                EXPECT_EQ(c.message, VZ_PAR_MSG_NUL);
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
