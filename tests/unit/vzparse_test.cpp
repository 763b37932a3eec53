#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

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
        FILE* f = tmpfile();
        fputs(text, f);
        rewind(f);
        EXPECT_EQ(vz_parse(f, on_error, on_tag, iface, c.table), c.result);
        fclose(f);
        EXPECT_EQ(calls, c.calls);
    }
}
