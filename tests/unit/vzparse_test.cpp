#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "shr/vzparse.h"

namespace {

using Calls = std::vector<std::string>;

// "[w1|w2]"; also checks the NULL terminator.
std::string words(int n, char* const* v)
{
    std::string s = "[";
    for (int i = 0; i < n; i++)
        s += (i ? "|" : "") + std::string(v[i]);
    EXPECT_EQ(v[n], nullptr);
    return s + "]";
}

std::string opt(const char* s)
{
    return s != nullptr ? "<" + std::string(s) + ">" : "-";
}

// Each callback appends one line: "WHO LINE TAG ARGV #COMMENT" for a handler
// (WHO is "address" or "default"), "tag LINE HEAD #COMMENT" and
// "err LINE TAG MESSAGE SAVED".
Calls calls;
int err_result = 0;    // what the error callback returns
int tag_result = 0;    // what the tag callback returns
std::string stop_on;   // a directive whose handler returns -9
int pattern_len = 0;   // words of the pattern, what npat must be

int record(const char* who, int npat, char** tag, int argc, char** argv, int line, const char* comment)
{
    EXPECT_EQ(npat, pattern_len);
    calls.push_back(std::string(who) + " " + std::to_string(line) + " " + words(npat, tag) + " " +
                    words(argc, argv) + " #" + opt(comment));
    return argc > 0 && !stop_on.empty() && stop_on == argv[0] ? -9 : 0;
}

// The handler of the "address" entry (1) or of the default entry (0).
template <int Named>
int handler(int n, char** t, int argc, char** argv, int line, const char* c)
{
    return record(Named ? "address" : "default", n, t, argc, argv, line, c);
}

int on_error(int argc, char** argv, int line, const char* message, const char* saved)
{
    std::string text = opt(saved);
    if (text.size() > 80)  // an over-long line: its length tells enough
        text = std::to_string(text.size() - 2) + " bytes";
    calls.push_back("err " + std::to_string(line) + " " + words(argc, argv) + " " + opt(message) + " " + text);
    return err_result;
}

int on_tag(int argc, char** argv, int line, const char* comment)
{
    calls.push_back("tag " + std::to_string(line) + " " + words(argc, argv) + " #" + opt(comment));
    return tag_result;
}

const vz_par_tabent with_default[] = {{"address", handler<1>}, {"", handler<0>}, {nullptr, nullptr}};
const vz_par_tabent without_default[] = {{"address", handler<1>}, {nullptr, nullptr}};
const char* const iface[] = {"interface", "tcpip", "", nullptr};

struct Outcome {
    int result;
    Calls calls;
    std::string rest;  // what the stream still holds after the parse
};

Outcome parse(const std::string& text, vz_par_errfn errfn, vz_par_tagfn tagfn, const vz_par_tabent* table,
              const char* const* pattern = iface)
{
    calls.clear();
    for (pattern_len = 0; pattern[pattern_len] != nullptr; pattern_len++) {
    }
    FILE* f = tmpfile();
    if (f == nullptr) {
        ADD_FAILURE() << "tmpfile";
        return {};
    }
    fwrite(text.data(), 1, text.size(), f);
    rewind(f);
    Outcome r{vz_parse(f, errfn, tagfn, pattern, table), calls, ""};
    char buf[256];
    while (fgets(buf, sizeof buf, f) != nullptr)
        r.rest += buf;
    fclose(f);
    return r;
}

}  // namespace

TEST(VzParse, SelectsSectionsByPatternAndPassesTheHeldTag) {
    err_result = tag_result = 0;
    stop_on.clear();
    const std::string text =
        "address 10.0.0.9\n"                    // before any head
        "[interface tcpip eth0] # first\n"
        "address 10.0.0.1\\\n"
        "  # a comment on the continued line\n"
        "[interface tcpip]\n"                   // one word short
        "address 10.0.0.2\n"
        "\x01\x02 \"unclosed\n"                  // garbage under a head that is not selected
        "[Interface tcpip eth1]\n"              // case matters
        "address 10.0.0.3\n"
        "[interface tcpip eth1 more]\n"
        "address 10.0.0.4\n"
        "  [ interface tcpip \"eth 2\" ]\n"
        "address 10.0.0.5 #c\n";
    Outcome r = parse(text, on_error, on_tag, with_default);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.calls, (Calls{
        "tag 2 [interface|tcpip|eth0] #< first>",
        "address 3 [interface|tcpip|eth0] [address|10.0.0.1] #< a comment on the continued line>",
        "tag 12 [interface|tcpip|eth 2] #-",
        "address 13 [interface|tcpip|eth 2] [address|10.0.0.5] #<c>",
    }));

    // An empty pattern selects the heads without words only.
    const char* const nothing[] = {nullptr};
    r = parse("[]\nx 1\n[a]\nx 2\n", nullptr, nullptr, with_default, nothing);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.calls, Calls{"default 2 [] [x|1] #-"});
}

TEST(VzParse, DispatchesToTheNamedOrTheDefaultEntry) {
    err_result = 0;
    stop_on.clear();
    const std::string text = "[interface tcpip e]\naddress 1\nAddress 2\n\n# alone\nnetmask \"x\"\n";
    Outcome r = parse(text, on_error, nullptr, with_default);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.calls, (Calls{
        "address 2 [interface|tcpip|e] [address|1] #-",
        "default 3 [interface|tcpip|e] [Address|2] #-",   // names match case-sensitively
        "default 4 [interface|tcpip|e] [] #-",
        "default 5 [interface|tcpip|e] [] #< alone>",
        "default 6 [interface|tcpip|e] [netmask|x] #-",
    }));

    // Without a default entry, lines without words are passed over quietly
    // and an unknown directive goes to the error callback.
    r = parse(text, on_error, nullptr, without_default);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.calls, (Calls{
        "address 2 [interface|tcpip|e] [address|1] #-",
        "err 3 [interface|tcpip|e] <unrecognized directive: ``Address''> <Address 2>",
        "err 6 [interface|tcpip|e] <unrecognized directive: ``netmask''> <netmask \"x\">",
    }));

    // The dispatch alone: a positive answer of the callback is handed back.
    err_result = 5;
    char w0[] = "what";
    char* argv[] = {w0, nullptr};
    EXPECT_EQ(vz_par_tab(on_error, without_default, 0, argv + 1, 1, argv, 7, nullptr), 5);
    EXPECT_EQ(vz_par_tab(nullptr, nullptr, 0, argv + 1, 1, argv, 7, nullptr), VZ_PAR_UNKNOWN);
    EXPECT_EQ(vz_par_tab(nullptr, without_default, 0, argv + 1, 0, argv + 1, 7, nullptr), 0);
}

// Unknown directives and error lines (NUL byte, over-long line) in a selected
// section go to the error callback; without one, or when it refuses, the
// parse stops where reading stopped. Error lines outside are skipped.
TEST(VzParse, ErrorsStopTheParseUnlessTheErrorCallbackAcceptsThem) {
    stop_on.clear();
    const std::string unknown = "[interface tcpip e]\nbogus 1\naddress 2\n";
    const char raw[] = "bad\0 outside\n[interface tcpip e]\nad\0dress 1\naddress 2\n";
    const std::string bad = std::string(raw, sizeof raw - 1) + "x " + std::string(VZ_PAR_MAXLINE + 1, 'z') +
                            "\naddress 3\n";
    const std::string e_unknown = "err 2 [interface|tcpip|e] <unrecognized directive: ``bogus''> <bogus 1>";
    const std::string e_nul = "err 3 [interface|tcpip|e] <NUL character in line> <ad>";
    const std::string e_long = "err 5 [interface|tcpip|e] <line too long> " + std::to_string(VZ_PAR_MAXLINE) + " bytes";
    const struct { const char* why; const std::string& text; const vz_par_tabent* table; vz_par_errfn errfn;
                   int err_returns; int result; Calls calls; const char* rest; } cases[] = {
        {"unknown, no error callback", unknown, without_default, nullptr, 0, VZ_PAR_UNKNOWN, {}, "address 2\n"},
        {"unknown, callback refuses", unknown, without_default, on_error, -7, VZ_PAR_UNKNOWN, {e_unknown}, "address 2\n"},
        {"unknown, callback accepts with 5", unknown, without_default, on_error, 5, 0,
         {e_unknown, "address 3 [interface|tcpip|e] [address|2] #-"}, ""},
        {"bad lines, no error callback", bad, with_default, nullptr, 0, VZ_PAR_FAIL, {}, "address 2\n"},
        {"bad lines, callback refuses", bad, with_default, on_error, -5, VZ_PAR_FAIL, {e_nul}, "address 2\n"},
        {"bad lines, callback accepts", bad, with_default, on_error, 0, 0,
         {e_nul, "address 4 [interface|tcpip|e] [address|2] #-", e_long,
          "address 6 [interface|tcpip|e] [address|3] #-"}, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        err_result = c.err_returns;
        Outcome r = parse(c.text, c.errfn, nullptr, c.table);
        EXPECT_EQ(r.result, c.result);
        EXPECT_EQ(r.calls, c.calls);
        EXPECT_EQ(r.rest.substr(0, 10), c.rest);  // the stream stops where reading stopped
    }
}

TEST(VzParse, NegativeResultsOfHandlersAndTheTagCallbackEndTheParse) {
    err_result = tag_result = 0;
    const std::string text = "[interface tcpip a]\naddress 1\nstop here\naddress 2\n[interface tcpip b]\naddress 3\n";
    stop_on = "stop";
    Outcome r = parse(text, on_error, on_tag, with_default);
    EXPECT_EQ(r.result, -9);
    EXPECT_EQ(r.calls.size(), 3u);
    EXPECT_EQ(r.rest, "address 2\n[interface tcpip b]\naddress 3\n");

    stop_on.clear();
    tag_result = -4;
    r = parse(text, on_error, on_tag, with_default);
    EXPECT_EQ(r.result, -4);
    EXPECT_EQ(r.calls, Calls{"tag 1 [interface|tcpip|a] #-"});
    tag_result = 0;

    // A later parse starts afresh after one that stopped in the middle.
    r = parse("address 0\n[interface tcpip c]\naddress 4", on_error, on_tag, with_default);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.calls, (Calls{"tag 2 [interface|tcpip|c] #-", "address 3 [interface|tcpip|c] [address|4] #-"}));
}

TEST(VzParse, GarbageNeverReachesPastTheEndOfTheFile) {
    stop_on.clear();
    err_result = 0;
    std::mt19937 gen(7);
    const char* const any2[] = {"", "", nullptr};
    const char special[] = "\"\\#[] \t\nab\0";
    for (int round = 0; round < 10; round++) {
        SCOPED_TRACE(round);
        std::string bytes = "[a b]\n";
        for (int i = 0; i < 30000; i++)
            bytes += gen() % 3 ? special[gen() % 11] : static_cast<char>(gen());
        Outcome r = parse(bytes, on_error, on_tag, with_default, any2);
        EXPECT_EQ(r.result, 0);
        EXPECT_TRUE(r.rest.empty());
        ASSERT_FALSE(r.calls.empty());
        EXPECT_EQ(r.calls[0], "tag 1 [a|b] #-");
    }
}
