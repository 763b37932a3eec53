#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "shr/vzparse.h"

namespace {

FILE* file_with(const std::string& bytes)
{
    FILE* f = tmpfile();
    if (f == nullptr)
        return nullptr;
    fwrite(bytes.data(), 1, bytes.size(), f);
    rewind(f);
    return f;
}

using Words = std::vector<std::string>;

Words words_of(int argc, char* const* argv)
{
    Words w;
    for (int i = 0; i < argc; i++)
        w.emplace_back(argv[i]);
    EXPECT_EQ(argv[argc], nullptr);
    return w;
}

// What a callback saw: "cmd:NAME" (the handler's own name), "tag" or "err".
struct Call {
    std::string who;
    int line;
    Words tag;    // held tag (cmd, err) or the head (tag)
    Words argv;   // the directive (cmd)
    std::optional<std::string> comment;
    std::optional<std::string> message;
    std::optional<std::string> saved;
    bool operator==(const Call&) const = default;
};

void PrintTo(const Call& c, std::ostream* os)
{
    *os << "{" << c.who << " line " << c.line << " tag [";
    for (const auto& w : c.tag)
        *os << "\"" << w << "\" ";
    *os << "] argv [";
    for (const auto& w : c.argv)
        *os << "\"" << w << "\" ";
    *os << "] comment " << (c.comment ? "\"" + *c.comment + "\"" : "none");
    *os << " msg " << (c.message ? "\"" + *c.message + "\"" : "none");
    *os << " saved " << (c.saved ? "\"" + *c.saved + "\"" : "none") << "}";
}

std::optional<std::string> opt(const char* s)
{
    return s != nullptr ? std::optional<std::string>(s) : std::nullopt;
}

std::vector<Call> calls;
int npat_seen = -1;
int err_result = 0;    // what the error callback returns
int tag_result = 0;    // what the tag callback returns
std::string stop_on;   // a directive whose handler returns -9

int record(const char* who, int npat, char** tag, int argc, char** argv, int line, const char* comment)
{
    npat_seen = npat;
    calls.push_back({who, line, words_of(npat, tag), words_of(argc, argv), opt(comment), {}, {}});
    return argc > 0 && !stop_on.empty() && stop_on == argv[0] ? -9 : 0;
}

int h_address(int n, char** t, int argc, char** argv, int line, const char* c)
{
    return record("cmd:address", n, t, argc, argv, line, c);
}

int h_other(int n, char** t, int argc, char** argv, int line, const char* c)
{
    return record("cmd:default", n, t, argc, argv, line, c);
}

int on_error(int argc, char** argv, int line, const char* message, const char* saved)
{
    calls.push_back({"err", line, words_of(argc, argv), {}, {}, opt(message), opt(saved)});
    return err_result;
}

int on_tag(int argc, char** argv, int line, const char* comment)
{
    calls.push_back({"tag", line, words_of(argc, argv), {}, opt(comment), {}, {}});
    return tag_result;
}

const vz_par_tabent with_default[] = {{"address", h_address}, {"", h_other}, {nullptr, nullptr}};
const vz_par_tabent without_default[] = {{"address", h_address}, {nullptr, nullptr}};
const char* const iface[] = {"interface", "tcpip", "", nullptr};

struct Outcome {
    int result;
    std::vector<Call> calls;
    std::string rest;  // what the stream still holds after the parse
};

Outcome parse(const std::string& text, vz_par_errfn errfn, vz_par_tagfn tagfn, const char* const* pattern,
          const vz_par_tabent* table)
{
    calls.clear();
    FILE* f = file_with(text);
    if (f == nullptr) {
        ADD_FAILURE() << "tmpfile";
        return {};
    }
    Outcome r;
    r.result = vz_parse(f, errfn, tagfn, pattern, table);
    r.calls = calls;
    char buf[256];
    while (fgets(buf, sizeof buf, f) != nullptr)
        r.rest += buf;
    fclose(f);
    return r;
}

Call cmd(const char* who, int line, Words tag, Words argv, std::optional<std::string> comment = {})
{
    return {who, line, std::move(tag), std::move(argv), std::move(comment), {}, {}};
}

Call err(int line, Words tag, const char* message, std::optional<std::string> saved)
{
    return {"err", line, std::move(tag), {}, {}, message, std::move(saved)};
}

Call tag(int line, Words head, std::optional<std::string> comment = {})
{
    return {"tag", line, std::move(head), {}, std::move(comment), {}, {}};
}

}  // namespace

TEST(VzParse, SelectsSectionsByPatternAndPassesTheHeldTag) {
    err_result = 0;
    tag_result = 0;
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
    Outcome r = parse(text, on_error, on_tag, iface, with_default);
    EXPECT_EQ(r.result, 0);
    const std::vector<Call> want = {
        tag(2, {"interface", "tcpip", "eth0"}, " first"),
        cmd("cmd:address", 3, {"interface", "tcpip", "eth0"}, {"address", "10.0.0.1"},
            " a comment on the continued line"),
        tag(12, {"interface", "tcpip", "eth 2"}),
        cmd("cmd:address", 13, {"interface", "tcpip", "eth 2"}, {"address", "10.0.0.5"}, "c"),
    };
    EXPECT_EQ(r.calls, want);
    EXPECT_EQ(npat_seen, 3);

    // An empty pattern selects the heads without words only.
    const char* const nothing[] = {nullptr};
    r = parse("[]\nx 1\n[a]\nx 2\n", nullptr, nullptr, nothing, with_default);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.calls, std::vector<Call>{cmd("cmd:default", 2, {}, {"x", "1"})});
}

TEST(VzParse, DispatchesToTheNamedOrTheDefaultEntry) {
    err_result = 0;
    stop_on.clear();
    const std::string text =
        "[interface tcpip eth0]\n"
        "address 1\n"
        "Address 2\n"      // names match case-sensitively
        "\n"
        "# alone\n"
        "netmask \"x\"\n";
    const Words t = {"interface", "tcpip", "eth0"};
    Outcome r = parse(text, on_error, nullptr, iface, with_default);
    EXPECT_EQ(r.result, 0);
    std::vector<Call> want = {
        cmd("cmd:address", 2, t, {"address", "1"}),
        cmd("cmd:default", 3, t, {"Address", "2"}),
        cmd("cmd:default", 4, t, {}),
        cmd("cmd:default", 5, t, {}, " alone"),
        cmd("cmd:default", 6, t, {"netmask", "x"}),
    };
    EXPECT_EQ(r.calls, want);

    // Without a default entry, lines without words are passed over quietly
    // and an unknown directive goes to the error callback.
    r = parse(text, on_error, nullptr, iface, without_default);
    EXPECT_EQ(r.result, 0);
    want = {
        cmd("cmd:address", 2, t, {"address", "1"}),
        err(3, t, "unrecognized directive: ``Address''", "Address 2"),
        err(6, t, "unrecognized directive: ``netmask''", "netmask \"x\""),
    };
    EXPECT_EQ(r.calls, want);
}

TEST(VzParse, UnknownDirectiveStopsUnlessTheErrorCallbackAcceptsIt) {
    stop_on.clear();
    const std::string text = "[interface tcpip e]\nbogus 1\naddress 2\n";
    const struct { const char* why; vz_par_errfn errfn; int err_returns; int result; size_t ncalls; } cases[] = {
        {"no error callback", nullptr, 0, VZ_PAR_UNKNOWN, 0},
        {"callback refuses", on_error, -7, VZ_PAR_UNKNOWN, 1},
        {"callback accepts with 0", on_error, 0, 0, 2},
        {"callback accepts with 5", on_error, 5, 0, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        err_result = c.err_returns;
        Outcome r = parse(text, c.errfn, nullptr, iface, without_default);
        EXPECT_EQ(r.result, c.result);
        ASSERT_EQ(r.calls.size(), c.ncalls);
        if (c.ncalls > 0) {
            EXPECT_EQ(r.calls[0], err(2, {"interface", "tcpip", "e"}, "unrecognized directive: ``bogus''", "bogus 1"));
        }
        if (c.result < 0) {
            EXPECT_EQ(r.rest, "address 2\n");  // the stream stops where reading stopped
        }
    }

    // The dispatch alone: a positive answer of the callback is handed back.
    err_result = 5;
    calls.clear();
    char w0[] = "what";
    char* argv[] = {w0, nullptr};
    EXPECT_EQ(vz_par_tab(on_error, without_default, 0, argv + 1, 1, argv, 7, nullptr), 5);
    EXPECT_EQ(vz_par_tab(nullptr, nullptr, 0, argv + 1, 1, argv, 7, nullptr), VZ_PAR_UNKNOWN);
    EXPECT_EQ(vz_par_tab(nullptr, without_default, 0, argv + 1, 0, argv + 1, 7, nullptr), 0);
}

TEST(VzParse, NegativeResultsOfHandlersAndTheTagCallbackEndTheParse) {
    err_result = 0;
    const std::string text = "[interface tcpip a]\naddress 1\nstop here\naddress 2\n[interface tcpip b]\naddress 3\n";
    stop_on = "stop";
    tag_result = 0;
    Outcome r = parse(text, on_error, on_tag, iface, with_default);
    EXPECT_EQ(r.result, -9);
    EXPECT_EQ(r.calls.size(), 3u);
    EXPECT_EQ(r.rest, "address 2\n[interface tcpip b]\naddress 3\n");

    stop_on.clear();
    tag_result = -4;
    r = parse(text, on_error, on_tag, iface, with_default);
    EXPECT_EQ(r.result, -4);
    EXPECT_EQ(r.calls, std::vector<Call>{tag(1, {"interface", "tcpip", "a"})});
    tag_result = 0;

    // A later parse starts afresh after one that stopped in the middle.
    r = parse("address 0\n[interface tcpip c]\naddress 4", on_error, on_tag, iface, with_default);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.calls, (std::vector<Call>{tag(2, {"interface", "tcpip", "c"}),
                                          cmd("cmd:address", 3, {"interface", "tcpip", "c"}, {"address", "4"})}));
}

TEST(VzParse, ErrorLinesGoToTheCallbackOnlyInsideASelectedSection) {
    stop_on.clear();
    const std::string longline(VZ_PAR_MAXLINE + 1, 'z');
    const char raw[] = "bad\0 outside\n[interface tcpip e]\nad\0dress 1\naddress 2\n";
    const std::string text = std::string(raw, sizeof raw - 1) + "x " + longline + "\naddress 3\n";
    const Words t = {"interface", "tcpip", "e"};
    const struct { const char* why; vz_par_errfn errfn; int err_returns; int result; size_t ncalls; } cases[] = {
        {"no error callback", nullptr, 0, VZ_PAR_FAIL, 0},
        {"callback refuses", on_error, -5, VZ_PAR_FAIL, 1},
        {"callback accepts", on_error, 0, 0, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        err_result = c.err_returns;
        Outcome r = parse(text, c.errfn, nullptr, iface, with_default);
        EXPECT_EQ(r.result, c.result);
        ASSERT_EQ(r.calls.size(), c.ncalls);
        if (c.ncalls > 0) {
            EXPECT_EQ(r.calls[0], err(3, t, VZ_PAR_MSG_NUL, "ad"));
        }
        if (c.ncalls == 4) {
            EXPECT_EQ(r.calls[1], cmd("cmd:address", 4, t, {"address", "2"}));
            EXPECT_EQ(r.calls[2].who, "err");
            EXPECT_EQ(r.calls[2].line, 5);
            EXPECT_EQ(r.calls[2].message, VZ_PAR_MSG_LONG);
            EXPECT_EQ(r.calls[3], cmd("cmd:address", 6, t, {"address", "3"}));
        }
    }
}

TEST(VzParse, GarbageNeverReachesPastTheEndOfTheFile) {
    stop_on.clear();
    err_result = 0;
    std::mt19937 gen(7);
    const char* const any2[] = {"", "", nullptr};
    for (int round = 0; round < 10; round++) {
        SCOPED_TRACE(round);
        std::string bytes = "[a b]\n";
        const char special[] = "\"\\#[] \t\nab\0";
        for (int i = 0; i < 30000; i++)
            bytes += gen() % 3 ? special[gen() % 11] : static_cast<char>(gen());
        Outcome r = parse(bytes, on_error, on_tag, any2, with_default);
        EXPECT_EQ(r.result, 0);
        EXPECT_TRUE(r.rest.empty());
        ASSERT_FALSE(r.calls.empty());
        EXPECT_EQ(r.calls[0], tag(1, {"a", "b"}));
        for (const auto& c : r.calls) {
            if (c.who != "tag") {
                EXPECT_EQ(c.tag.size(), 2u);
            }
        }
    }
}
