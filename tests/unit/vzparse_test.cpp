// The configuration grammar: the line reader's constructs, and the parser
// that selects sections and dispatches their lines.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "shr/vzparcons.h"
#include "shr/vzparse.h"

namespace {

using Calls = std::vector<std::string>;
Calls calls;
int err_result = 0;  // what the error callback returns

std::string words(int n, char* const* v, int line)
{
    std::string s = std::to_string(line) + " [";
    for (int i = 0; i < n; i++)
        s += (i ? "|" : "") + std::string(v[i]);
    return s + "]";
}

// A directive "stop" ends the parse with -9.
template <int Named>
int handler(int, char**, int argc, char** argv, int line, const char*)
{
    calls.push_back((Named ? "address " : "default ") + words(argc, argv, line));
    return argc > 0 && std::string(argv[0]) == "stop" ? -9 : 0;
}

int on_error(int, char**, int line, const char* message, const char*)
{
    calls.push_back("err " + std::to_string(line) + " " + message);
    return err_result;
}

int on_tag(int argc, char** argv, int line, const char*)
{
    calls.push_back("tag " + words(argc, argv, line));
    return 0;
}

const vz_par_tabent with_default[] = {{"address", handler<1>}, {"", handler<0>}, {nullptr, nullptr}};
const vz_par_tabent without_default[] = {{"address", handler<1>}, {nullptr, nullptr}};

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

// Only sections whose head matches the pattern ("" for any word) are read;
// their lines go to the named entry, else to the default one, else to the
// error callback, whose negative answer ends the parse.
TEST(VzParse, SelectsSectionsByPatternAndDispatchesTheirLines) {
    const char* const text = "address 0\n[interface tcpip eth0]\naddress 1\nAddress 2\n[interface tcpip]\naddress 3\n"
                             "[Interface tcpip e]\naddress 4\n[interface tcpip e more]\naddress 5\n"
                             "[ interface tcpip \"eth 2\" ]\nstop\naddress 7\n";
    const char* const iface[] = {"interface", "tcpip", "", nullptr};
    const std::string head = "tag 2 [interface|tcpip|eth0]", eth2 = "tag 11 [interface|tcpip|eth 2]";
    const struct { const vz_par_tabent* table; int err_returns, result; Calls calls; } cases[] = {
        {with_default, 0, -9, {head, "address 3 [address|1]", "default 4 [Address|2]", eth2, "default 12 [stop]"}},
        {without_default, 0, 0,
         {head, "address 3 [address|1]", "err 4 unrecognized directive: ``Address''", eth2,
          "err 12 unrecognized directive: ``stop''", "address 13 [address|7]"}},
        {without_default, -7, VZ_PAR_UNKNOWN, {head, "address 3 [address|1]", "err 4 unrecognized directive: ``Address''"}},
    };
    for (const auto& c : cases) {
        calls.clear();
        err_result = c.err_returns;
        FILE* f = fmemopen(const_cast<char*>(text), strlen(text), "r");
        EXPECT_EQ(vz_parse(f, on_error, on_tag, iface, c.table), c.result);
        fclose(f);
        EXPECT_EQ(calls, c.calls);
    }
}

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
