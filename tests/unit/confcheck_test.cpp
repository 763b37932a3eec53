// The configuration check (halyardctl check-config): every problem with its
// line, the text found and what was expected. And what the package installs
// for administrators: the example configuration passes the check in each of
// its alternatives, the manual pages format without a warning.
#include "tests/unit/unitkit.h"

#include <regex>

#include "nversion.h"
#include "src/confcheck.h"
#include "tests/support/paths.h"

namespace {

const std::string kPath = "/tmp/halyard-check-" + std::to_string(getpid()) + ".vz";

std::string check(const std::string& text)
{
    std::ofstream(kPath) << text;
    char* out = nullptr;
    size_t size = 0;
    FILE* mem = open_memstream(&out, &size);
    conf_check(kPath.c_str(), mem, "", true);
    fclose(mem);
    std::string s(out, size);
    free(out);
    return s;
}

TEST(ConfCheck, PrintsEveryProblemWithItsLineAndTheSettings)
{
    const struct { std::string text; std::vector<std::string> lines; } cases[] = {
        {"[realm NB]\r\ntransport tcpip\r\n[interface tcpip eth0]\r\naddress 10.88.0.1\r\nbroadcast x\r\nmtu 9000\r\n"
         "[interface tcpip eth1]\r\n[transport tcpip]\r\nNB-scope 1abc\r\nNB-nd-addr 10.0.0.1\r\nNB-nd-addr 10.0.0.2\r\n"
         "NB-wildcard-status on\r\nNB-name-port 70000\r\nNB-wins-server 10.0.0.7\r\n[Transport tcpip]\r\n",
         {": warning: 15 lines end in CR LF: read as LF line ends\n",
          ":5: broadcast x: one IPv4 broadcast address, such as 10.88.0.255\n",
          ":6: warning: mtu 9000: ignored: an interface section knows address, broadcast and netmask\n",
          ":7: warning: [interface tcpip eth1] without an address: ignored: an interface needs 'address'\n",
          ":9: NB-scope 1abc: one scope of labels joined by dots",
          ":11: NB-nd-addr 10.0.0.2: all agents in one NB-nd-addr directive (this one is ignored)\n",
          ":13: NB-name-port 70000: a port number from 1 to 65535 (the daemon would use 4464)\n",
          ":15: warning: [Transport tcpip]: not read: the name server reads [realm NB], [interface tcpip NAME] and "
          "[transport tcpip]\n",
          "\n  agents           10.0.0.1\n", "\n  wildcard status  on\n", "\n  WINS servers     10.0.0.7\n",
          "\n4 errors, 4 warnings\n"}},
        {"[realm NB]\n[interface tcpip eth0]\naddress 10.88.0.1\n[transport tcpip]\nNB-scope a\n",
         {": no 'transport tcpip' in [realm NB]: a [realm NB] section with 'transport tcpip', or the name service does "
          "not run\n",
          ":2: warning: [interface tcpip eth0]: not read: [realm NB] has no 'transport tcpip'\n",
          ":4: warning: [transport tcpip]: not read: [realm NB] has no 'transport tcpip'\n", "\n1 error, 2 warnings\n"}},
    };
    for (const auto& c : cases) {
        std::string out = check(c.text);
        for (const std::string& line : c.lines)
            EXPECT_NE(out.find(line[0] == ':' ? kPath + line : line), std::string::npos) << line << "\n" << out;
    }
    EXPECT_EQ(system((std::string(HALYARDCTL_BINARY) + " check-config " + kPath + " >/dev/null").c_str()), 1 << 8);
    unlink(kPath.c_str());
}

// The example: settings commented out ("#word"), alternatives after lines
// starting "#== ". Each alternative, switched on with the transport, is clean.
TEST(ConfCheck, EachAlternativeOfTheExampleConfigurationPasses)
{
    const std::string example = lab_read_file(std::string(halyard_source_dir()) + "/dist/config.vz.example");
    size_t at = example.find("\n#== ");
    ASSERT_NE(at, std::string::npos);
    const std::string base = std::regex_replace(example.substr(0, at), std::regex("\n#transport tcpip\n"),
                                                "\ntransport tcpip\n");
    int alternatives = 0;
    for (size_t next; at != std::string::npos; at = next, alternatives++) {
        next = example.find("\n#== ", at + 1);
        std::string text = base + std::regex_replace(example.substr(at, next - at), std::regex("\n#([^ #=\n])"), "\n$1");
        std::string out = check(text);
        EXPECT_NE(out.find("0 errors, 0 warnings\n"), std::string::npos) << text << out;
        EXPECT_NE(out, check(base)) << "nothing switched on";
    }
    EXPECT_EQ(alternatives, 6);
    EXPECT_NE(check(base).find("  followed         all: "), std::string::npos) << check(base);
    unlink(kPath.c_str());
}

TEST(ManPages, FormatWithoutWarningsAndShowTheVersion)
{
    const std::string version = std::string("\"Halyard ") + smbv_string + " " + smbv_variant + "\"";
    for (const char* page : {"halyard.8", "config.vz.5", "halyardctl.1", "halyard-nda.8", "libnss_halyard.8"}) {
        SCOPED_TRACE(page);
        std::string path = std::string(halyard_build_dir()) + "/man/" + page;
        std::string text = lab_read_file(path);
        EXPECT_NE(text.substr(0, text.find('\n')).find(version), std::string::npos);
        EXPECT_EQ(system(("groff -ww -man -z '" + path + "' >" + kPath + " 2>&1").c_str()), 0);
        EXPECT_EQ(lab_read_file(kPath), "");
    }
    unlink(kPath.c_str());
}

}  // namespace
