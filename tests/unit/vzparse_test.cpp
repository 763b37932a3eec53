#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "shr/vzparse.h"

namespace {

using Calls = std::vector<std::string>;
Calls calls;
int err_result = 0;  // what the error callback returns

std::string words(int n, char* const* v)
{
    std::string s = "[";
    for (int i = 0; i < n; i++)
        s += (i ? "|" : "") + std::string(v[i]);
    return s + "]";
}

// "WHO LINE TAG ARGV" for a handler (address, or default), "tag LINE HEAD",
// "err LINE MESSAGE"; a directive "stop" ends the parse with -9.
template <int Named>
int handler(int n, char** t, int argc, char** argv, int line, const char*)
{
    calls.push_back(std::string(Named ? "address " : "default ") + std::to_string(line) + " " + words(n, t) + " " +
                    words(argc, argv));
    return argc > 0 && std::string(argv[0]) == "stop" ? -9 : 0;
}

int on_error(int, char**, int line, const char* message, const char*)
{
    calls.push_back("err " + std::to_string(line) + " " + message);
    return err_result;
}

int on_tag(int argc, char** argv, int line, const char*)
{
    calls.push_back("tag " + std::to_string(line) + " " + words(argc, argv));
    return 0;
}

const vz_par_tabent with_default[] = {{"address", handler<1>}, {"", handler<0>}, {nullptr, nullptr}};
const vz_par_tabent without_default[] = {{"address", handler<1>}, {nullptr, nullptr}};

}  // namespace

// Only sections whose head matches the pattern ("" for any word) are read;
// their lines go to the named entry, else to the default one, else to the
// error callback, whose negative answer (or none) ends the parse.
TEST(VzParse, SelectsSectionsByPatternAndDispatchesTheirLines) {
    const std::string text =
        "address 10.0.0.9\n"
        "[interface tcpip eth0]\n"
        "address 1\n"
        "Address 2\n"
        "[interface tcpip]\n"
        "address 3\n"
        "[Interface tcpip eth1]\n"
        "address 4\n"
        "[interface tcpip eth1 more]\n"
        "address 5\n"
        "[ interface tcpip \"eth 2\" ]\n"
        "bogus 6\n"
        "stop\n"
        "address 7\n";
    const char* const iface[] = {"interface", "tcpip", "", nullptr};
    const struct { const vz_par_tabent* table; int err_returns; int result; Calls calls; } cases[] = {
        {with_default, 0, -9,
         {"tag 2 [interface|tcpip|eth0]", "address 3 [interface|tcpip|eth0] [address|1]",
          "default 4 [interface|tcpip|eth0] [Address|2]", "tag 11 [interface|tcpip|eth 2]",
          "default 12 [interface|tcpip|eth 2] [bogus|6]", "default 13 [interface|tcpip|eth 2] [stop]"}},
        {without_default, 0, 0,
         {"tag 2 [interface|tcpip|eth0]", "address 3 [interface|tcpip|eth0] [address|1]",
          "err 4 unrecognized directive: ``Address''", "tag 11 [interface|tcpip|eth 2]",
          "err 12 unrecognized directive: ``bogus''", "err 13 unrecognized directive: ``stop''",
          "address 14 [interface|tcpip|eth 2] [address|7]"}},
        {without_default, -7, VZ_PAR_UNKNOWN,
         {"tag 2 [interface|tcpip|eth0]", "address 3 [interface|tcpip|eth0] [address|1]",
          "err 4 unrecognized directive: ``Address''"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        calls.clear();
        err_result = c.err_returns;
        FILE* f = tmpfile();
        fputs(text.c_str(), f);
        rewind(f);
        EXPECT_EQ(vz_parse(f, on_error, on_tag, iface, c.table), c.result);
        fclose(f);
        EXPECT_EQ(calls, c.calls);
    }
}
