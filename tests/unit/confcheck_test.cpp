// The configuration check (halyardctl check-config): every problem with its
// line, the text found and what was expected; and the example configuration
// that the package installs passes it in each of its alternatives.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "src/confcheck.h"
#include "src/namelogin.h"
#include "tests/support/lab.h"
#include "tests/support/paths.h"

namespace {

const std::string kPath = "/tmp/halyard-check-" + std::to_string(getpid()) + ".vz";

std::string check(const std::string& text, int* errors)
{
    FILE* f = fopen(kPath.c_str(), "w");
    fputs(text.c_str(), f);
    fclose(f);
    char* out = nullptr;
    size_t size = 0;
    FILE* mem = open_memstream(&out, &size);
    *errors = conf_check(kPath.c_str(), mem, "", true);
    fclose(mem);
    std::string s(out, size);
    free(out);
    return s;
}

TEST(ConfCheck, PrintsEveryProblemWithItsLineAndTheSettings)
{
    int errors = -1;
    std::string out = check("[realm NB]\r\ntransport tcpip\r\n"
                            "[interface tcpip eth0]\r\naddress 10.88.0.1\r\nbroadcast x\r\nmtu 9000\r\n"
                            "[interface tcpip eth1]\r\nnetmask 255.0.0.0\r\n"
                            "[transport tcpip]\r\nNB-nd-port 99999\r\nNB-scope 1abc\r\n"
                            "NB-nd-addr 10.0.0.1\r\nNB-nd-addr 10.0.0.2\r\nNB-frob 1\r\n"
                            "NB-wildcard-status on\r\nNB-ensclient yes\r\n"
                            "[Transport tcpip]\r\nNB-name-port 5\r\n",
                            &errors);
    EXPECT_EQ(errors, 5) << out;
    for (const std::string line : {
             ": warning: 18 lines end in CR LF: read as LF line ends\n",
             ":5: broadcast x: one IPv4 broadcast address, such as 10.88.0.255\n",
             ":6: warning: mtu 9000: ignored: an interface section knows address, broadcast and netmask\n",
             ":7: warning: [interface tcpip eth1] without an address: ignored: an interface needs 'address'\n",
             ":10: NB-nd-port 99999: a port number from 1 to 65535 (the daemon would use 34463)\n",
             ":11: NB-scope 1abc: one scope of labels joined by dots",
             ":13: NB-nd-addr 10.0.0.2: all agents in one NB-nd-addr directive (this one is ignored)\n",
             ":14: warning: NB-frob 1: ignored: [transport tcpip] knows NB-scope",
             ":16: NB-ensclient yes: on or off\n",
             ":17: warning: [Transport tcpip]: not read: the name server reads [realm NB], "
             "[interface tcpip NAME] and [transport tcpip]\n"})
        EXPECT_NE(out.find(kPath + line), std::string::npos) << line << "\n" << out;
    for (const char* line : {"  agents           10.0.0.1\n", "  wildcard status  on\n", "5 errors, 5 warnings\n"})
        EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
    int st = system((std::string(HALYARDCTL_BINARY) + " check-config " + kPath + " >/dev/null").c_str());
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 1);
    unlink(kPath.c_str());
}

// The example: settings commented out ("#word"), alternatives after lines
// starting "#== ". Each alternative, switched on with the transport, is clean.
TEST(ConfCheck, EachAlternativeOfTheExampleConfigurationPasses)
{
    const std::string example = lab_read_file(std::string(halyard_source_dir()) + "/dist/config.vz.example");
    const size_t first = example.find("\n#== ");
    ASSERT_NE(first, std::string::npos);
    std::string base = example.substr(0, first + 1);
    base.replace(base.find("\n#transport tcpip\n"), 18, "\ntransport tcpip\n");
    int alternatives = 0;
    for (size_t at = first + 1; at < example.size(); alternatives++) {
        size_t next = example.find("\n#== ", at);
        next = next == std::string::npos ? example.size() : next + 1;
        std::string text = base;
        for (size_t p = at; p < next;) {
            size_t end = example.find('\n', p);
            std::string line = example.substr(p, end - p);
            bool setting = line.size() > 1 && line[0] == '#' && line.find_first_of(" #=", 1) != 1;
            text += (setting ? line.substr(1) : line) + "\n";
            p = end + 1;
        }
        at = next;
        int errors = -1;
        std::string out = check(text, &errors);
        EXPECT_NE(out.find("0 errors, 0 warnings\n"), std::string::npos) << text << out;
    }
    EXPECT_EQ(alternatives, 5);
    unlink(kPath.c_str());
}

}  // namespace
