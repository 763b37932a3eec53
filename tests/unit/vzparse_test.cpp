// The configuration grammar's line reader. The parser that selects sections
// and dispatches their lines is driven through namelogin's files.
#include "tests/unit/unitkit.h"

#include "shr/vzparcons.h"

namespace {

std::string words(int n, char* const* v, int line)
{
    std::string s = std::to_string(line) + " [";
    for (int i = 0; i < n; i++)
        s += (i ? "|" : "") + std::string(v[i]);
    return s + "]";
}

std::string opt(const char* s)
{
    return s != nullptr ? "<" + std::string(s) + ">" : "-";
}

// Every construct up to the end of the file, one line each: "C1 [w1|w2]
// COMMENT SAVED" (T for a head) or "E2 MESSAGE SAVED"; a saved line over
// 80 bytes shows as its length.
std::vector<std::string> constructs_of(const std::string& text)
{
    std::vector<std::string> out;
    FILE* f = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    vz_par_init(f);
    int argc, kind;
    char **argv, *comment;
    while ((kind = vz_par_cons(f, &argc, &argv, &comment)) != VZ_PAR_EOF) {
        std::string c = kind == VZ_PAR_TAG ? "T" : "C";
        const char* saved = vz_par_saved();
        if (kind == VZ_PAR_ERROR) {
            char* msg = nullptr;
            vz_par_err(&msg, &saved);
            c = "E" + std::to_string(vz_par_line()) + " " + opt(msg);
            free(msg);
        } else {
            c += words(argc, argv, vz_par_line()) + " " + opt(comment);
        }
        std::string shown = opt(saved);
        out.push_back(c + " " + (shown.size() > 80 ? std::to_string(shown.size() - 2) + " bytes" : shown));
    }
    vz_par_fini(f);
    fclose(f);
    return out;
}

}  // namespace

TEST(VzParCons, SplitsLinesIntoWordsCommentsAndHeadsAndRefusesBadLines) {
    using Got = std::vector<std::string>;
    const std::string longest(VZ_PAR_MAXLINE, 'w'), kept = std::to_string(VZ_PAR_MAXLINE) + " bytes";
    const struct { std::string text; Got want; } cases[] = {
        {"a\\\n\\\nb\nc", {"C1 [a|b] - <a  b>", "C4 [c] - <c>"}},  // continued lines join as blanks
        {"ab\"c d\"ef \"#[]\"\n", {"C1 [abc def|#[]] - <ab\"c d\"ef \"#[]\">"}},
        {"\"a\\\"b\\\\c\\d\"\n", {"C1 [a\"b\\c\\d] - <\"a\\\"b\\\\c\\d\">"}},
        {"NB-scope \"\" \"open\nnext\n", {"C1 [NB-scope||open] - <NB-scope \"\" \"open>", "C2 [next] - <next>"}},
        {"abc#x\n\n", {"C1 [abc] <x> <abc#x>", "C2 [] - <>"}},
        {"a # c \\\n d\ne\n", {"C1 [a] < c   d> <a # c   d>", "C3 [e] - <e>"}},
        {"  [a [b]#c\n", {"T1 [a|[|b] <c> <  [a [b]#c>"}},
        {"[open\nx [y]z\n", {"T1 [open] - <[open>", "C2 [x|[|y|]|z] - <x [y]z>"}},
        {"a\r\nb\\c \\\n", {"C1 [a\r] - <a\r>", "C2 [b\\c] - <b\\c  >"}},
        {std::string("ba\0d \"q\0\" word\\\nstill\nnext\n", 27),  // the continued line goes too
         {"E1 <NUL character in line> <ba>", "C3 [next] - <next>"}},
        {longest + "\n" + longest + "x\\\nsame line\n\"" + longest + "\nok",
         {"C1 [" + longest + "] - " + kept, "E2 <line too long> " + kept, "E4 <line too long> " + kept,
          "C5 [ok] - <ok>"}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(constructs_of(c.text), c.want) << c.text.substr(0, 40);
}
