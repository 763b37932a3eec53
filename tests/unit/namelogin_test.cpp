#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "nmtrace.h"
#include "shr/logging.h"
#include "src/namelogin.h"

namespace {

using Lines = std::vector<std::string>;

uint32_t ip(const char* text)
{
    in_addr a{};
    EXPECT_EQ(inet_pton(AF_INET, text, &a), 1) << text;
    return a.s_addr;
}

std::string slurp(const std::string& path)
{
    std::string out;
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr)
        return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        out.append(buf, n);
    fclose(f);
    return out;
}

// Each test reads its own configuration file with the log (and, where it
// looks at them, the trace) going to files of its own, and starts and ends
// with every setting cleared.
class NameLogin : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/halyard-conf-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        conf_ = dir_ + "/config.vz";
        log_ = dir_ + "/log.nb";
        name_settings_clear();
    }
    void TearDown() override
    {
        name_settings_clear();
        close_log();
        if (tcfile != nullptr) {
            fclose(tcfile);
            tcfile = nullptr;
        }
        tc_proc = 0;
        tc_err = 0;
        unlink(conf_.c_str());
        unlink(log_.c_str());
        unlink((dir_ + "/trace").c_str());
        rmdir(dir_.c_str());
    }

    // Reads text as the configuration file; the logged messages, without
    // the group's time stamp, the leading tab and the CR LF.
    Lines read(const std::string& text)
    {
        FILE* f = fopen(conf_.c_str(), "wb");
        EXPECT_NE(f, nullptr);
        if (f == nullptr)
            return {};
        fwrite(text.data(), 1, text.size(), f);
        fclose(f);
        return run(conf_.c_str());
    }
    Lines run(const char* path)
    {
        unlink(log_.c_str());
        EXPECT_EQ(open_log(log_.c_str()), 0);
        EXPECT_EQ(namelogin(path), 0);
        close_log();
        Lines lines;
        std::string all = slurp(log_);
        size_t pos = 0;
        while (pos < all.size()) {
            size_t end = all.find("\r\n", pos);
            if (end == std::string::npos)
                end = all.size();
            std::string line = all.substr(pos, end - pos);
            if (!line.empty() && line[0] == '\t')
                lines.push_back(line.substr(1));
            pos = end + 2;
        }
        return lines;
    }
    void start_trace()
    {
        tcfile = fopen((dir_ + "/trace").c_str(), "w");
        ASSERT_NE(tcfile, nullptr);
        tc_proc = 3;
        tc_err = 1;
    }
    std::string trace()
    {
        fflush(tcfile);
        return slurp(dir_ + "/trace");
    }

    std::string dir_, conf_, log_;
};

std::string err(int line)
{
    return "Halyard: error in config file at line " + std::to_string(line);
}

const char* const realm = "[realm NB]\ntransport tcpip\n";  // two lines

TEST_F(NameLogin, UnreadableFileIsLoggedAndSetsNothing)
{
    for (const std::string& path : {dir_ + "/absent.vz", dir_}) {  // a directory opens
        SCOPED_TRACE(path);
        EXPECT_EQ(run(path.c_str()), Lines{"Halyard: cannot open config file " + path});
        EXPECT_EQ(transport_tcpip, 0);
        EXPECT_EQ(my_addr, nullptr);
    }
}

TEST_F(NameLogin, WithoutTheTcpipTransportNothingElseIsRead)
{
    const std::string rest =
        "[interface tcpip eth0]\naddress 10.1.2.3\n"
        "[transport tcpip]\nNB-name-port 200\nNB-scope a.b\nNB-nd-addr 10.0.0.1\n"
        "NB-ensclient maybe\n";  // would be an error if it were read
    EXPECT_EQ(read(rest), Lines{});
    EXPECT_EQ(transport_tcpip, 0);
    EXPECT_EQ(nmport, 0);
    EXPECT_STREQ(nb_scope, "");
    EXPECT_EQ(nda_ct, 0);
    EXPECT_EQ(my_addr_ct, 0);

    EXPECT_EQ(read("[realm NB]\ntransport vznbu\n" + rest), Lines{});
    EXPECT_EQ(transport_vznbu, 1);
    EXPECT_EQ(transport_tcpip, 0);
    EXPECT_EQ(nmport, 0);
}

TEST_F(NameLogin, TransportDirectivesCountAndRefuseOtherValues)
{
    Lines log = read(
        "transport tcpip\n"               // 1: before any section, never looked at
        "[realm NB]\n"
        "transport tcpip\n"
        "transport vznbu\n"
        "transport tcpip # again\n"       // 5
        "transport TCPIP\n"
        "transport\n"
        "transport tcpip vznbu\n"
        "[realm other]\ntransport bogus\n"
        "[realm NB extra]\ntransport bogus\n");
    EXPECT_EQ(transport_tcpip, 2);
    EXPECT_EQ(transport_vznbu, 1);
    EXPECT_EQ(log, (Lines{err(6), "    tcpip/vznbu expected", err(7), "    tcpip/vznbu expected",
                          err(8), "    tcpip/vznbu expected"}));
}

TEST_F(NameLogin, PortsTakeOnePositiveNumberOnce)
{
    Lines log = read(std::string(realm) +
                     "[transport tcpip]\n"
                     "NB-name-port 0x89\n"     // 4
                     "NB-name-port 137\n"
                     "NB-session-port 0\n"
                     "NB-session-port -5\n"
                     "NB-session-port 12x\n"   // 8
                     "NB-session-port \"\"\n"
                     "NB-session-port 1 2\n"
                     "NB-session-port\n"
                     "NB-session-port 0139\n"  // 12: octal 139 is 0 then junk
                     "NB-session-port 99999999999999999999\n"
                     "NB-session-port 010\n"
                     "NB-nd-port 70000\n"      // 15: low 16 bits
                     "NB-ens-port 228\n"
                     "NB-ens-port 229\n"
                     "NB-nd-port 1\n"
                     "NB-session-port 9\n");
    EXPECT_EQ(nmport, 137);
    EXPECT_EQ(ssport, 8);
    EXPECT_EQ(ndport, 70000 & 0xffff);
    EXPECT_EQ(ensport, 228);
    EXPECT_EQ(dgport, 0);
    const char* const want_port = "    expecting positive port number";
    EXPECT_EQ(log, (Lines{err(5), "    NB-name-port already set",
                          err(6), want_port, err(7), want_port, err(8), want_port,
                          err(9), want_port, err(10), want_port, err(11), want_port,
                          err(12), want_port, err(13), want_port,
                          err(17), "    NB-ens-port already set",
                          err(18), "    NB-nd-port already set",
                          err(19), "    NB-session-port already set"}));
}

TEST_F(NameLogin, EnsClientTakesOnOrOffAndTheLastWins)
{
    Lines log = read(std::string(realm) +
                     "[transport tcpip]\n"
                     "NB-ensclient on\n"
                     "NB-ensclient ON\n"
                     "NB-ensclient\n"
                     "NB-ensclient off on\n");
    EXPECT_EQ(ens_client, 1);
    EXPECT_EQ(log, (Lines{err(5), "    expecting on/off", err(6), "    expecting on/off",
                          err(7), "    expecting on/off"}));
    read(std::string(realm) + "[transport tcpip]\nNB-ensclient on\nNB-ensclient off\n");
    EXPECT_EQ(ens_client, 0);
}

TEST_F(NameLogin, AgentsAreListedInOneDirective)
{
    Lines log = read(std::string(realm) +
                     "[transport tcpip]\n"
                     "NB-nd-addr 10.0.0.1 10.0.0.2\n"
                     "NB-nd-addr 10.0.0.3\n");
    EXPECT_EQ(nda_ct, 2);
    EXPECT_EQ(nda_addr[0], ip("10.0.0.1"));
    EXPECT_EQ(nda_addr[1], ip("10.0.0.2"));
    EXPECT_EQ(log, (Lines{"Halyard: too many NB-nd-addr's in config file", "    ignoring"}));
}

TEST_F(NameLogin, AgentListsStopAtTheFirstBadOrEleventhAddress)
{
    std::string eleven;
    for (int i = 1; i <= 11; i++)
        eleven += " 10.0.1." + std::to_string(i);
    Lines log = read(std::string(realm) + "[transport tcpip]\nNB-nd-addr" + eleven + "\n");
    EXPECT_EQ(nda_ct, 10);
    EXPECT_EQ(nda_addr[9], ip("10.0.1.10"));
    EXPECT_EQ(log, (Lines{"Halyard: too many NB-nd-addr's in config file", "    ignoring"}));

    name_settings_clear();
    log = read(std::string(realm) +
               "[transport tcpip]\n"
               "NB-nd-addr\n"                              // 4: empty, nothing taken
               "NB-nd-addr 10.0.0.1 bogus 10.0.0.3\n");    // 5
    EXPECT_EQ(nda_ct, 1);
    EXPECT_EQ(nda_addr[0], ip("10.0.0.1"));
    EXPECT_EQ(nda_addr[1], 0u);
    EXPECT_EQ(log, (Lines{"Halyard: Ignoring empty NB-nd-addr directive, line 4", err(5),
                          "    expecting IP address"}));
}

TEST_F(NameLogin, ScopesAreCheckedAndBoundedByTheirRoom)
{
    const std::string l255 = "a" + std::string(254, 'b');
    std::string long_scope;  // labels of 63, joined to 255 characters
    while (long_scope.size() < 255)
        long_scope += (long_scope.empty() ? "" : ".") + std::string(63, 'x');
    long_scope.resize(255);
    ASSERT_NE(long_scope.back(), '.');
    Lines log = read(std::string(realm) +
                     "[transport tcpip]\n"
                     "NB-scope a.b-c.d1\n"               // 4
                     "NB-scope " + l255 + "\n"           // 5: fits exactly
                     "NB-scope " + l255 + "c\n"          // 6: 256 characters
                     "NB-scope 1abc\n"
                     "NB-scope \"a b\"\n"                // 8: one word with a blank
                     "NB-scope a b\n");
    EXPECT_EQ(nb_scope, l255);
    const char* const want = "    expecting valid scope name";
    EXPECT_EQ(log, (Lines{err(6), want, err(7), want, err(8), want, err(9), want}));

    read(std::string(realm) + "[transport tcpip]\nNB-scope " + long_scope + "\n");
    EXPECT_EQ(nb_scope, long_scope);
    read(std::string(realm) + "[transport tcpip]\nNB-scope corp.example\nNB-scope \"\"\n");
    EXPECT_STREQ(nb_scope, "");
    read(std::string(realm) + "[transport tcpip]\nNB-scope corp\nNB-scope ''\n");
    EXPECT_STREQ(nb_scope, "");
}

TEST_F(NameLogin, BroadcastStyleTakesOneAddress)
{
    Lines log = read(std::string(realm) +
                     "[transport tcpip]\n"
                     "bcast-style 255.255.255.255\n"
                     "bcast-style 1.2.3\n"
                     "bcast-style 1.2.3.4 5.6.7.8\n");
    EXPECT_EQ(broadcast_addr, ip("255.255.255.255"));
    EXPECT_EQ(log, (Lines{err(5), "    expecting IP address (form)", err(6),
                          "    expecting IP address (form)"}));
}

TEST_F(NameLogin, InterfacesKeepTheirFirstValuesAndNeedAnAddress)
{
    Lines log = read(std::string(realm) +
                     "[interface tcpip eth0]\n"       // 3
                     "address 10.1.2.3\n"
                     "broadcast 10.1.2.255\n"
                     "[interface tcpip eth1]\n"       // 6
                     "netmask 255.255.0.0\n"
                     "[interface tcpip eth0]\n"       // 8: the same row again
                     "address 10.9.9.9\n"
                     "broadcast 10.9.9.255\n"         // 10
                     "netmask 255.255.255.0\n"
                     "netmask 255.0.0.0\n"
                     "address 10.1.2.3 extra\n"
                     "broadcast x\n"
                     "netmask 300.0.0.0\n"            // 15
                     "mtu 1500\n"                     // unknown: ignored
                     "[interface tcpip ETH0]\n"       // names are case-sensitive
                     "address 192.168.7.1\n"
                     "[interface tcpip]\n"            // two words: not an interface
                     "address bogus\n");              // 20
    ASSERT_NE(my_addr, nullptr);
    ASSERT_EQ(my_addr_ct, 2);
    EXPECT_EQ(my_addr[0].addr, ip("10.1.2.3"));
    EXPECT_EQ(my_addr[0].bcast, ip("10.1.2.255"));
    EXPECT_EQ(my_addr[0].mask, ip("255.255.255.0"));
    EXPECT_EQ(my_addr[1].addr, ip("192.168.7.1"));
    EXPECT_EQ(my_addr[1].bcast, 0u);
    EXPECT_EQ(my_addr[1].mask, 0u);
    EXPECT_EQ(log, (Lines{err(9), "    address for interface already specified",
                          err(10), "    broadcast address for interface already specified",
                          err(12), "    netmask for interface already specified",
                          err(13), "    expecting IP address",
                          err(14), "    expecting IP broadcast address",
                          err(15), "    expecting IP netmask",
                          "Halyard: tcpip interface eth1 has no address", "    ignoring"}));
}

TEST_F(NameLogin, AThirtyThirdInterfaceIsRefusedAndItsDirectivesIgnored)
{
    std::string text = realm;
    for (int i = 0; i < 33; i++)
        text += "[interface tcpip if" + std::to_string(i) + "]\naddress 10.2.0." +
                std::to_string(i + 1) + "\n";
    text += "address bogus\n";                    // still in the refused section
    text += "[interface tcpip if34]\nbroadcast x\n";
    text += "[interface tcpip if0]\nnetmask 255.255.0.0\n";  // known: still taken
    Lines log = read(text);
    ASSERT_EQ(my_addr_ct, MAX_INTERFACES);
    EXPECT_EQ(my_addr[31].addr, ip("10.2.0.32"));
    EXPECT_EQ(my_addr[0].mask, ip("255.255.0.0"));
    EXPECT_EQ(log, (Lines{"Halyard: too many interfaces in config file",
                          "Halyard: too many interfaces in config file"}));
}

TEST_F(NameLogin, DirectivesFollowTheirSectionsOnly)
{
    Lines log = read(std::string(realm) +
                     "NB-name-port 50\n"               // realm section: not its directive
                     "[transport tcpip extra]\nNB-name-port 51\n"
                     "[Transport tcpip]\nNB-name-port 52\n"
                     "[transport tcpip]\nNB-frobnicate 1 2 3\n\n# comment only\n"
                     "NB-name-port 53 # trailing comment\n"
                     "[transport tcpip]\nNB-session-port 54\n");  // sections may repeat
    EXPECT_EQ(nmport, 53);
    EXPECT_EQ(ssport, 54);
    EXPECT_EQ(log, Lines{});
}

TEST_F(NameLogin, HostileBytesAreLoggedOrIgnoredAndTheRestIsKept)
{
    std::string text = realm;
    text += "[transport tcpip]\n";
    text += "NB-name-port 300\n";                              // 4
    text += "NB-scope \"un terminated\n";                      // 5: refused, the blank
    text += std::string("\x01\x02\xff\xfe garbage \x7f\n");    // 6: unknown, ignored
    text += std::string("NB-scope a\0b\n", 13);                // 7: a NUL in the line
    text += "NB-session-port " + std::string(70000, '9') + "\n";  // 8: longer than a line
    text += "NB-nd-port 400\n";                                // 9
    text += std::string("\xc3\xa9\xc3\xa9 [ ] [\n");            // 10
    text += "bcast-style \"255.255.255.255\"\n";
    text += "NB-ens-port \"500";                               // no newline at the end
    std::string noise;
    uint32_t x = 12345;
    for (int i = 0; i < 4000; i++) {  // fixed pseudo-random bytes before any section
        x = x * 1103515245u + 12345u;
        char c = static_cast<char>(x >> 16);
        noise += c == '[' || c == '\\' ? ' ' : c;  // no head, no joined lines
    }
    Lines log = read("\n" + noise + "\n" + text);
    EXPECT_EQ(transport_tcpip, 1);
    EXPECT_EQ(nmport, 300);
    EXPECT_EQ(ssport, 0);
    EXPECT_EQ(ndport, 400);
    EXPECT_EQ(ensport, 500);
    EXPECT_EQ(broadcast_addr, 0xffffffffu);
    EXPECT_STREQ(nb_scope, "");
    // Line numbers count the noise's own newlines too.
    int base = 2;
    for (char c : noise)
        base += c == '\n';
    auto at = [base](int n) { return n + base; };
    ASSERT_EQ(log.size(), 6u) << ::testing::PrintToString(log);
    EXPECT_EQ(log[0], err(at(5)));
    EXPECT_EQ(log[1], "    expecting valid scope name");
    EXPECT_EQ(log[2], "Halyard: error occurred parsing config file on line " +
                          std::to_string(at(7)));
    EXPECT_EQ(log[4], "Halyard: error occurred parsing config file on line " +
                          std::to_string(at(8)));
    EXPECT_EQ(log[3].rfind("    ", 0), 0u);
    EXPECT_EQ(log[5].rfind("    ", 0), 0u);
}

TEST_F(NameLogin, SuccessfulDirectivesAreTraced)
{
    start_trace();
    read(std::string(realm) +
         "[transport tcpip]\n"
         "NB-name-port 0x89\nNB-session-port 139\nNB-nd-port 227\nNB-ens-port 228\n"
         "NB-ensclient on\nNB-nd-addr\nNB-nd-addr 10.0.0.1 010.0.0.2\nNB-scope a.b\n"
         "NB-name-port 1\n");
    name_reinit("/elsewhere.vz");
    EXPECT_EQ(trace(),
              "do_nameport: 137\ndo_sessport: 139\ndo_ndport: 227\ndo_ensport: 228\n"
              "do_ensclient: 1\nnol_dodef: empty NB-nd-addr directive\n"
              "do_ndaddr: 10.0.0.1\ndo_ndaddr: 010.0.0.2\n"
              "nbscope: a.b\nname_reinit(/elsewhere.vz) called.\n");
    EXPECT_EQ(nda_addr[1], ip("8.0.0.2"));  // a leading 0 reads octal
    EXPECT_EQ(nmport, 137);
}

TEST(SynCheckers, ReadWholeWordsOnly)
{
    const struct { const char* word; int nonneg, pos, octal; } cases[] = {
        {"0", 0, -1, 0},
        {"137", 137, 137, 95},
        {"0x89", 137, 137, -1},
        {"017", 15, 15, 15},
        {"17", 17, 17, 15},
        {"08", -1, -1, -1},
        {"-5", -1, -1, -1},
        {"12x", -1, -1, -1},
        {"", -1, -1, -1},
        {"+3", 3, 3, 3},
        {"2147483647", 2147483647, 2147483647, -1},
        {"2147483648", -1, -1, -1},
        {"99999999999999999999999", -1, -1, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.word);
        EXPECT_EQ(syn_nonneg(c.word), c.nonneg);
        EXPECT_EQ(syn_pos(c.word), c.pos);
        EXPECT_EQ(syn_octal(c.word), c.octal);
    }
    EXPECT_EQ(syn_onoff("on"), 1);
    EXPECT_EQ(syn_onoff("off"), 0);
    EXPECT_EQ(syn_onoff("On"), -1);
    EXPECT_EQ(syn_onoff("o"), -1);
    EXPECT_EQ(syn_transport("tcpip"), 0);
    EXPECT_EQ(syn_transport("vznbu"), 1);
    EXPECT_EQ(syn_transport("tcpip "), -1);
}

TEST(SynCheckers, IpAddressesGoThroughTheInternetParser)
{
    const struct { std::string word; int result; const char* addr; } cases[] = {
        {"10.0.0.1", 0, "10.0.0.1"},
        {"10.0.0.1.137", 0, "10.0.0.1"},  // a port is allowed and dropped
        {"0x0a.0.0.012", 0, "10.0.0.10"},
        {"1.2.3", -1, nullptr},
        {"256.1.1.1", -1, nullptr},
        {"1.2.3.4.5.6", -1, nullptr},
        {"eth0", -1, nullptr},
        {"1.2.3.4)x", -1, nullptr},
        {"", -1, nullptr},
        {"1." + std::string(117, '0') + ".2.3", 0, "1.0.2.3"},   // 123 characters
        {"1." + std::string(118, '0') + ".2.3", -1, nullptr},    // 124
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.word);
        uint32_t a = 0xdeadbeef;
        EXPECT_EQ(syn_ip(c.word.c_str(), &a), c.result);
        if (c.addr != nullptr) {
            EXPECT_EQ(a, ip(c.addr));
        }
    }
}

TEST(Scope, LabelsAndDots)
{
    const struct { const char* scope; int ok; } cases[] = {
        {"a", 1}, {"a.b-c.d1", 1}, {"Corp-1.x", 1}, {"a--b", 1},
        {"1abc", 0}, {"a.", 0}, {".a", 0}, {"a..b", 0}, {"ab-", 0}, {"a_b", 0},
        {"a.b.-c", 0}, {"a b", 0}, {"\xc3\xa9t\xc3\xa9", 0}, {"\"x\"", 0}, {"'", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scope);
        std::string s = c.scope;
        EXPECT_EQ(valid_scope(s.data()), c.ok);
        EXPECT_EQ(s, c.scope);  // only the empty forms are rewritten
    }
    for (const char* empty : {"", "\"\"", "''"}) {
        SCOPED_TRACE(empty);
        std::string s = empty;
        EXPECT_EQ(valid_scope(s.data()), 1);
        EXPECT_STREQ(s.c_str(), "");
    }
    const char* label = "ab-1.cd";
    EXPECT_EQ(valid_label(label), label + 4);
    EXPECT_EQ(valid_label(label + 5), label + 7);
}

TEST(CaseInsensitive, FoldsAsciiLettersOnly)
{
    const struct { const char* a; const char* b; int equal; } cases[] = {
        {"WORKGROUP", "workgroup", 1},
        {"abc", "abcd", 0},
        {"", "", 1},
        {"a[", "A{", 0},            // '[' and '{' differ by the case bit but are not letters
        {"\xe9t\xe9", "\xc9T\xc9", 0},  // Latin-1 letters are not folded
        {"x-1", "X-1", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.a) + " / " + c.b);
        EXPECT_EQ(crs_icstrcmp(c.a, c.b), c.equal ? 0 : 1);
        EXPECT_EQ(crs_icstrcmp(c.b, c.a), c.equal ? 0 : 1);
    }
    const char a[] = {'F', 'O', 'O', 0, 'x'};
    const char b[] = {'f', 'o', 'o', 0, 'X'};
    EXPECT_EQ(crs_icmemcmp(a, b, 5), 0);  // past a NUL, exactly n bytes
    const char c[] = {'f', 'o', 'o', 0, 'y'};
    EXPECT_EQ(crs_icmemcmp(a, c, 5), 1);
    EXPECT_EQ(crs_icmemcmp(a, c, 4), 0);
    char s[] = "MiXeD-9\xc9Z";
    crs_lowcase(s);
    EXPECT_STREQ(s, "mixed-9\xc9z");
}

}  // namespace
