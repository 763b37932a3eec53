#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "src/confcheck.h"
#include "src/namelogin.h"

namespace {

std::string check(const std::string& path, int* errors)
{
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    *errors = conf_check(path.c_str(), out, "", true);
    fclose(out);
    std::string s(text, size);
    free(text);
    return s;
}

bool write_text(const std::string& path, const std::string& text)
{
    FILE* f = fopen(path.c_str(), "wb");
    bool ok = f != nullptr && fwrite(text.data(), 1, text.size(), f) == text.size();
    return f != nullptr && fclose(f) == 0 && ok;
}

bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// Every problem the reader meets is printed with its file, line, the text
// found and what was expected; only errors count; the settings follow; and
// halyardctl check-config exits 1 on errors, 0 with warnings alone.
TEST(ConfCheck, PrintsEveryProblemWithItsLineAndTheSettings)
{
    char tmpl[] = "/tmp/halyard-check-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl, bad = dir + "/bad.vz", good = dir + "/good.vz";
    ASSERT_TRUE(write_text(bad, "[realm NB]\r\ntransport tcpip\r\n"
                                    "[interface tcpip eth0]\r\naddress 10.88.0.1\r\nbroadcast x\r\nmtu 9000\r\n"
                                    "[interface tcpip eth1]\r\nnetmask 255.0.0.0\r\n"
                                    "[transport tcpip]\r\nNB-nd-port 99999\r\nNB-scope 1abc\r\n"
                                    "NB-nd-addr 10.0.0.1\r\nNB-nd-addr 10.0.0.2\r\nNB-frob 1\r\n"
                                    "NB-wildcard-status on\r\nNB-ensclient yes\r\n"
                                    "[Transport tcpip]\r\nNB-name-port 5\r\n"));
    ASSERT_TRUE(write_text(good, "[realm NB]\ntransport tcpip\n[interface tcpip eth0]\n"
                                     "address 10.88.0.1\nbroadcast 10.88.0.255\nnetmask 255.255.255.0\n"
                                     "[transport tcpip]\nNB-name-port 1137\nNB-frob\n"));
    int errors = -1;
    std::string out = check(bad, &errors);
    EXPECT_EQ(errors, 5) << out;
    const struct { const char* line; } want[] = {
        {": warning: 18 lines end in CR LF: read as LF line ends\n"},
        {":5: broadcast x: one IPv4 broadcast address, such as 10.88.0.255\n"},
        {":6: warning: mtu 9000: ignored: an interface section knows address, broadcast and netmask\n"},
        {":7: warning: [interface tcpip eth1] without an address: ignored: an interface needs 'address'\n"},
        {":10: NB-nd-port 99999: a port number from 1 to 65535 (the daemon would use 34463)\n"},
        {":11: NB-scope 1abc: one scope of labels joined by dots"},
        {":13: NB-nd-addr 10.0.0.2: all agents in one NB-nd-addr directive (this one is ignored)\n"},
        {":14: warning: NB-frob 1: ignored: [transport tcpip] knows NB-scope"},
        {":16: NB-ensclient yes: on or off\n"},
        {":17: warning: [Transport tcpip]: not read: the name server reads [realm NB], "
         "[interface tcpip NAME] and [transport tcpip]\n"},
        {"  agents           10.0.0.1\n"},
        {"  wildcard status  on\n"},
        {"5 errors, 5 warnings\n"},
    };
    for (const auto& w : want)
        EXPECT_TRUE(has(out, w.line[0] == ' ' || w.line[0] == '5' ? w.line : bad + w.line)) << w.line << "\n" << out;

    out = check(good, &errors);
    EXPECT_EQ(errors, 0) << out;
    EXPECT_TRUE(has(out, "  interfaces       10.88.0.1 broadcast 10.88.0.255 netmask 255.255.255.0\n")) << out;
    EXPECT_TRUE(has(out, "  name port        1137\n  datagram port    138 (default)\n")) << out;
    EXPECT_TRUE(has(out, "0 errors, 1 warning\n")) << out;

    out = check(dir + "/absent.vz", &errors);
    EXPECT_EQ(errors, 1);
    EXPECT_TRUE(has(out, dir + "/absent.vz: cannot be opened (No such file or directory): a readable")) << out;

    for (const auto& [file, status] : {std::pair{good, 0}, std::pair{bad, 1}}) {
        std::string cmd = std::string(HALYARDCTL_BINARY) + " check-config " + file + " >/dev/null";
        int st = system(cmd.c_str());
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == status) << file;
    }
    unlink(bad.c_str());
    unlink(good.c_str());
    rmdir(tmpl);
}

}  // namespace
