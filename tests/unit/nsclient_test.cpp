// The client library's name texts and halyardctl's command line; requests
// and answers through the relay are driven end to end.
#include "client/nsclient.h"

#include "tests/unit/unitkit.h"

#include <sys/wait.h>

TEST(NameText, ParsesAndPrints) {
    const struct { const char* text; const char* bytes; const char* printed; } cases[] = {
        {"fileserv<20>", "fileserv       \x20", "fileserv<20>"},
        {"HOST", "HOST           \x00", "HOST<00>"},
        {"fifteen-chars-x<1B>", "fifteen-chars-x\x1b", "fifteen-chars-x<1b>"},
        {"\\x01lead\\<x\\\\<00>", "\x01lead<x\\       \x00", "\\x01lead\\<x\\\\<00>"},
        {"*", "*\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", "*"},
        {"*<20>", "*              \x20", "*<20>"},
        {"", nullptr, nullptr}, {"<20>", nullptr, nullptr}, {"sixteen-chars-xx", nullptr, nullptr},
        {"ab<2>", nullptr, nullptr}, {"ab<zz>", nullptr, nullptr}, {"ab<20>x", nullptr, nullptr},
        {"a\\q", nullptr, nullptr}, {"a\\x4", nullptr, nullptr}, {"a\\", nullptr, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        uint8_t n[16];
        char t[NSC_NAMETEXT];
        ASSERT_EQ(nsc_strtonb(n, c.text), c.bytes != nullptr ? 0 : -1);
        if (c.bytes == nullptr)
            continue;
        EXPECT_EQ(memcmp(n, c.bytes, 16), 0);
        ASSERT_EQ(nsc_nbtostr(t, sizeof t, n), 0);
        EXPECT_STREQ(t, c.printed);
    }
    uint8_t worst[16];  // every byte escaped: still fits the advertised room
    memset(worst, 0x01, sizeof worst);
    char t[NSC_NAMETEXT];
    EXPECT_EQ(nsc_nbtostr(t, sizeof t, worst), 0);
    EXPECT_EQ(nsc_nbtostr(t, 8, worst), -1);
}

// Bad command lines are refused before any server is asked.
TEST(Halyardctl, UsageErrorsGiveExit2) {
    for (const char* args : {"", "frobnicate", "add", "add a b", "add sixteen-chars-xx", "del 'ab<zz>'",
                             "list extra", "status 10.1.2", "--timeout 0 list", "--bogus list",
                             "lookup --group x", "check-config a b", "--prometheus list",
                             "--json --prometheus stats"}) {
        SCOPED_TRACE(args);
        std::string cmd = std::string(HALYARDCTL_BINARY) + " " + args + " 2>/dev/null";
        int st = system(cmd.c_str());
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 2) << st;
    }
}
