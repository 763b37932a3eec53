#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "nmtrace.h"
#include "shr/logging.h"
#include "src/namelogin.h"
#include "tests/support/lab.h"

namespace {

using Lines = std::vector<std::string>;

std::string err(int line)
{
    return "Halyard: error in config file at line " + std::to_string(line);
}

const char* const realm = "[realm NB]\ntransport tcpip\n";  // two lines

// Each test reads its own configuration file with the log (and the trace,
// where it looks at it) going to files of its own, and starts and ends with
// every setting cleared.
class NameLogin : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/halyard-conf-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        name_settings_clear();
    }
    void TearDown() override
    {
        name_settings_clear();
        if (tcfile != nullptr)
            fclose(tcfile);
        tcfile = nullptr;
        tc_proc = tc_err = 0;
        for (const char* f : {"/config.vz", "/log.nb", "/trace"})
            unlink((dir_ + f).c_str());
        rmdir(dir_.c_str());
    }
    // Reads text as the configuration file; the logged messages.
    Lines read(const std::string& text)
    {
        FILE* f = fopen((dir_ + "/config.vz").c_str(), "wb");
        EXPECT_TRUE(f != nullptr && fwrite(text.data(), 1, text.size(), f) == text.size());
        if (f != nullptr)
            fclose(f);
        return run(dir_ + "/config.vz");
    }
    // The realm and the transport section's head (lines 1-3), then body.
    Lines tcpip(const std::string& body) { return read(std::string(realm) + "[transport tcpip]\n" + body); }
    Lines run(const std::string& path)
    {
        const std::string log = dir_ + "/log.nb";
        unlink(log.c_str());
        EXPECT_EQ(open_log(log.c_str()), 0);
        EXPECT_EQ(namelogin(path.c_str()), 0);
        close_log();
        Lines lines;
        for (const LabLogGroup& g : lab_parse_log(lab_read_file(log)))
            lines.insert(lines.end(), g.messages.begin(), g.messages.end());
        return lines;
    }
    std::string dir_;
};

TEST_F(NameLogin, UnreadableFileIsLoggedAndSetsNothing)
{
    for (const std::string& path : {dir_ + "/absent.vz", dir_}) {  // a directory opens
        SCOPED_TRACE(path);
        EXPECT_EQ(run(path), Lines{"Halyard: cannot open config file " + path});
        EXPECT_EQ(transport_tcpip, 0);
        EXPECT_EQ(my_addr, nullptr);
    }
}

TEST_F(NameLogin, WithoutTheTcpipTransportNothingElseIsRead)
{
    const std::string rest = "[interface tcpip eth0]\naddress 10.1.2.3\n"
                             "[transport tcpip]\nNB-name-port 200\nNB-scope a.b\nNB-nd-addr 10.0.0.1\n"
                             "NB-ensclient maybe\n";  // would be an error if it were read
    for (const std::string& head : {std::string(), std::string("[realm NB]\ntransport vznbu\n")}) {
        SCOPED_TRACE(head);
        EXPECT_EQ(read(head + rest), Lines{});
        EXPECT_EQ(transport_tcpip, 0);
        EXPECT_EQ(transport_vznbu, head.empty() ? 0 : 1);
        EXPECT_EQ(nmport + nda_ct + my_addr_ct + nb_scope[0], 0);
    }
}

// Each pass reads only the sections whose heads match its own exactly, and
// only its own directives there; sections may repeat.
TEST_F(NameLogin, SectionsAndTransportDirectives)
{
    Lines log = read("transport tcpip\n"  // 1: before any section, never looked at
                     "[realm NB]\ntransport tcpip\ntransport vznbu\ntransport tcpip # again\n"
                     "transport TCPIP\ntransport\ntransport tcpip vznbu\n"  // 6-8
                     "NB-name-port 50\n[realm other]\ntransport bogus\n[realm NB extra]\ntransport bogus\n"
                     "[transport tcpip extra]\nNB-name-port 51\n[Transport tcpip]\nNB-name-port 52\n"
                     "[transport tcpip]\nNB-frobnicate 1 2 3\n\n# comment only\n"
                     "NB-name-port 53 # trailing comment\n[transport tcpip]\nNB-session-port 54\n");
    EXPECT_EQ(transport_tcpip, 2);
    EXPECT_EQ(transport_vznbu, 1);
    EXPECT_EQ(nmport, 53);
    EXPECT_EQ(ssport, 54);
    const char* const want = "    tcpip/vznbu expected";
    EXPECT_EQ(log, (Lines{err(6), want, err(7), want, err(8), want}));
}

// Ports: one positive number (bad words are in the checkers' table below),
// each set once; the on/off switch: the last good value; bcast-style: one
// address; a scope: one valid word that fits its room (255 characters).
TEST_F(NameLogin, ServiceDirectivesTakeOneGoodValue)
{
    const std::string l255 = "a" + std::string(254, 'b');
    Lines log = tcpip("NB-name-port 0x89\nNB-name-port 137\n"                       // 4-5
                      "NB-session-port 0\nNB-session-port 12x\n"                    // 6-7
                      "NB-session-port 1 2\nNB-session-port\nNB-session-port 010\n" // 8-10
                      "NB-nd-port 70000\nNB-nd-port 1\n"                            // 11-12
                      "NB-ens-port 228\nNB-ens-port 229\nNB-session-port 9\n"       // 13-15
                      "NB-ensclient off\nNB-ensclient on\n"                         // 16-17
                      "NB-ensclient ON\nNB-ensclient\nNB-ensclient off on\n"        // 18-20
                      "bcast-style 255.255.255.255\n"                               // 21
                      "bcast-style 1.2.3\nbcast-style 1.2.3.4 5.6.7.8\n"            // 22-23
                      "NB-scope a.b-c.d1\nNB-scope " + l255 + "\n"                 // 24-25
                      "NB-scope " + l255 + "c\nNB-scope 1abc\nNB-scope a b\n");    // 26-28
    EXPECT_EQ(nmport, 137);
    EXPECT_EQ(ssport, 8);                   // 010 is octal
    EXPECT_EQ(ndport, 70000 & 0xffff);      // the low 16 bits
    EXPECT_EQ(ensport, 228);
    EXPECT_EQ(dgport, 0);
    EXPECT_EQ(ens_client, 1);
    EXPECT_EQ(broadcast_addr, inet_addr("255.255.255.255"));
    EXPECT_EQ(nb_scope, l255);
    const char *const port = "    expecting positive port number", *const onoff = "    expecting on/off",
                      *const form = "    expecting IP address (form)", *const scope = "    expecting valid scope name";
    EXPECT_EQ(log, (Lines{err(5), "    NB-name-port already set", err(6), port, err(7), port,
                          err(8), port, err(9), port, err(12), "    NB-nd-port already set",
                          err(14), "    NB-ens-port already set",
                          err(15), "    NB-session-port already set", err(18), onoff,
                          err(19), onoff, err(20), onoff, err(22), form, err(23), form,
                          err(26), scope, err(27), scope, err(28), scope}));
    tcpip("NB-scope corp.example\nNB-scope \"\"\n");  // the empty scope
    EXPECT_STREQ(nb_scope, "");
}

TEST_F(NameLogin, AgentsAreListedInOneDirectiveOfAtMostTen)
{
    std::string eleven;
    for (int i = 1; i <= 11; i++)
        eleven += " 10.0.1." + std::to_string(i);
    const Lines too_many = {"Halyard: too many NB-nd-addr's in config file", "    ignoring"};
    EXPECT_EQ(tcpip("NB-nd-addr" + eleven + "\n"), too_many);
    EXPECT_EQ(nda_ct, 10);
    EXPECT_EQ(nda_addr[9], inet_addr("10.0.1.10"));

    name_settings_clear();
    Lines log = tcpip("NB-nd-addr\n"                          // 4: empty, nothing taken
                      "NB-nd-addr 10.0.0.1 bogus 10.0.0.3\n"  // 5: stops at the bad one
                      "NB-nd-addr 10.0.0.4\n");               // a second list: refused
    EXPECT_EQ(nda_ct, 1);
    EXPECT_EQ(nda_addr[0], inet_addr("10.0.0.1"));
    EXPECT_EQ(nda_addr[1], 0u);
    EXPECT_EQ(log, (Lines{"Halyard: Ignoring empty NB-nd-addr directive, line 4", err(5),
                          "    expecting IP address", too_many[0], too_many[1]}));
}

TEST_F(NameLogin, InterfacesKeepTheirFirstValuesAndNeedAnAddress)
{
    Lines log = read(std::string(realm) +
                     "[interface tcpip eth0]\naddress 10.1.2.3\nbroadcast 10.1.2.255\n"  // 3-5
                     "[interface tcpip eth1]\nnetmask 255.255.0.0\n"                     // 6-7
                     "[interface tcpip eth0]\n"                   // 8: the same row again
                     "address 10.9.9.9\nbroadcast 10.9.9.255\n"                          // 9-10
                     "netmask 255.255.255.0\nnetmask 255.0.0.0\n"                        // 11-12
                     "address 10.1.2.3 extra\nbroadcast x\nnetmask 300.0.0.0\n"          // 13-15
                     "mtu 1500\n"                                 // unknown: ignored
                     "[interface tcpip ETH0]\naddress 192.168.7.1\n"  // names are case-sensitive
                     "[interface tcpip]\naddress bogus\n");       // two words: not an interface
    ASSERT_EQ(my_addr_ct, 2);
    EXPECT_EQ(my_addr[0].addr, inet_addr("10.1.2.3"));
    EXPECT_EQ(my_addr[0].bcast, inet_addr("10.1.2.255"));
    EXPECT_EQ(my_addr[0].mask, inet_addr("255.255.255.0"));
    EXPECT_EQ(my_addr[1].addr, inet_addr("192.168.7.1"));
    EXPECT_EQ(my_addr[1].bcast | my_addr[1].mask, 0u);
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
        text += "[interface tcpip if" + std::to_string(i) + "]\naddress 10.2.0." + std::to_string(i + 1) + "\n";
    text += "address bogus\n";                               // still in the refused section
    text += "[interface tcpip if34]\nbroadcast x\n";
    text += "[interface tcpip if0]\nnetmask 255.255.0.0\n";  // known: still taken
    const std::string many = "Halyard: too many interfaces in config file";
    EXPECT_EQ(read(text), (Lines{many, many}));
    ASSERT_EQ(my_addr_ct, MAX_INTERFACES);
    EXPECT_EQ(my_addr[31].addr, inet_addr("10.2.0.32"));
    EXPECT_EQ(my_addr[0].mask, inet_addr("255.255.0.0"));
}

TEST_F(NameLogin, HostileBytesAreLoggedOrIgnoredAndTheRestIsKept)
{
    std::string noise;
    uint32_t x = 12345;
    for (int i = 0; i < 4000; i++) {  // fixed pseudo-random bytes before any section
        x = x * 1103515245u + 12345u;
        char c = static_cast<char>(x >> 16);
        noise += c == '[' || c == '\\' ? ' ' : c;  // no head, no joined lines
    }
    Lines log = read("\n" + noise + "\n" + realm + "[transport tcpip]\nNB-name-port 300\n"  // 4
                     "NB-scope \"un terminated\n"                    // 5: refused, the blank
                     "\x01\x02\xff\xfe garbage \x7f\n" +             // 6: unknown, ignored
                     std::string("NB-scope a\0b\n", 13) +            // 7: a NUL in the line
                     "NB-session-port " + std::string(70000, '9') +  // 8: longer than a line
                     "\nNB-nd-port 400\n\xc3\xa9\xc3\xa9 [ ] [\n"    // 9-10
                     "bcast-style \"255.255.255.255\"\n"
                     "NB-ens-port \"500");                           // no newline at the end
    EXPECT_EQ(transport_tcpip, 1);
    EXPECT_EQ(nmport, 300);
    EXPECT_EQ(ssport, 0);
    EXPECT_EQ(ndport, 400);
    EXPECT_EQ(ensport, 500);
    EXPECT_EQ(broadcast_addr, 0xffffffffu);
    EXPECT_STREQ(nb_scope, "");
    int base = 2;  // line numbers count the noise's own newlines too
    for (char c : noise)
        base += c == '\n';
    const std::string parse = "Halyard: error occurred parsing config file on line ";
    ASSERT_EQ(log.size(), 6u) << ::testing::PrintToString(log);
    EXPECT_EQ(log[0], err(base + 5));
    EXPECT_EQ(log[1], "    expecting valid scope name");
    EXPECT_EQ(log[2], parse + std::to_string(base + 7));
    EXPECT_EQ(log[4], parse + std::to_string(base + 8));
    EXPECT_EQ(log[3].rfind("    ", 0) + log[5].rfind("    ", 0), 0u);
}

// A file written with CRLF line ends is read exactly as with LF: the same
// settings and the same log; a CR inside a line is still part of its word.
TEST_F(NameLogin, CrlfLineEndsReadAsLf)
{
    const std::string lf = std::string(realm) +
                           "[interface tcpip eth0]\naddress 10.1.2.3\nnetmask 255.255.0.0 # mask\n"
                           "[transport tcpip]\nNB-name-port 300\nNB-nd-addr 10.0.0.1 \\\n10.0.0.2\n"
                           "NB-scope a.b\nNB-ensclient on\nNB-wildcard-status on\n"
                           "NB-session-port 5\r6\nNB-wildcard-status maybe\n"
                           "bcast-style 0.0.0.255";  // no line end at all
    std::string crlf;
    for (char c : lf)
        crlf += c == '\n' ? "\r\n" : std::string(1, c);
    auto settings = [] {
        return std::to_string(transport_tcpip) + " " + std::to_string(my_addr_ct) + " " +
               std::to_string(my_addr_ct > 0 ? my_addr[0].mask : 0) + " " + std::to_string(nmport) + " " +
               std::to_string(ssport) + " " + std::to_string(nda_ct) + " " + nb_scope + " " +
               std::to_string(ens_client) + " " + std::to_string(wildcard_status) + " " +
               std::to_string(broadcast_addr);
    };
    Lines want = read(lf);
    std::string want_settings = settings();
    EXPECT_EQ(want_settings, "1 1 65535 300 0 2 a.b 1 1 4278190080");
    EXPECT_EQ(want, (Lines{err(13), "    expecting positive port number", err(14), "    expecting on/off"}));
    name_settings_clear();
    EXPECT_EQ(read(crlf), want);
    EXPECT_EQ(settings(), want_settings);
}

TEST_F(NameLogin, SuccessfulDirectivesAreTraced)
{
    tcfile = fopen((dir_ + "/trace").c_str(), "w");
    ASSERT_NE(tcfile, nullptr);
    tc_proc = 3;
    tc_err = 1;
    tcpip("NB-name-port 0x89\nNB-session-port 139\nNB-nd-port 227\nNB-ens-port 228\n"
          "NB-ensclient on\nNB-nd-addr\nNB-nd-addr 10.0.0.1 010.0.0.2\nNB-scope a.b\nNB-name-port 1\n");
    name_reinit("/elsewhere.vz");
    fflush(tcfile);
    EXPECT_EQ(lab_read_file(dir_ + "/trace"),
              "do_nameport: 137\ndo_sessport: 139\ndo_ndport: 227\ndo_ensport: 228\n"
              "do_ensclient: 1\nnol_dodef: empty NB-nd-addr directive\n"
              "do_ndaddr: 10.0.0.1\ndo_ndaddr: 010.0.0.2\n"
              "nbscope: a.b\nname_reinit(/elsewhere.vz) called.\n");
    EXPECT_EQ(nda_addr[1], inet_addr("8.0.0.2"));  // a leading 0 reads octal
}

TEST(SynCheckers, ReadWholeWordsOnly)
{
    const struct { const char* word; int nonneg, pos, octal; } cases[] = {
        {"0", 0, -1, 0},    {"137", 137, 137, 95}, {"0x89", 137, 137, -1}, {"017", 15, 15, 15},
        {"08", -1, -1, -1}, {"-5", -1, -1, -1},    {"12x", -1, -1, -1},    {"", -1, -1, -1},
        {"2147483647", 2147483647, 2147483647, -1}, {"2147483648", -1, -1, -1},
        {"99999999999999999999999", -1, -1, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.word);
        EXPECT_EQ(syn_nonneg(c.word), c.nonneg);
        EXPECT_EQ(syn_pos(c.word), c.pos);
        EXPECT_EQ(syn_octal(c.word), c.octal);
    }
    const int onoff[] = {syn_onoff("on"), syn_onoff("off"), syn_onoff("On"), syn_onoff("o")};
    EXPECT_EQ(std::vector<int>(onoff, onoff + 4), (std::vector<int>{1, 0, -1, -1}));
    const int tr[] = {syn_transport("tcpip"), syn_transport("vznbu"), syn_transport("tcpip ")};
    EXPECT_EQ(std::vector<int>(tr, tr + 3), (std::vector<int>{0, 1, -1}));
}

TEST(SynCheckers, IpAddressesGoThroughTheInternetParser)
{
    const struct { std::string word; const char* addr; } cases[] = {  // addr null: refused
        {"10.0.0.1", "10.0.0.1"}, {"10.0.0.1.137", "10.0.0.1"},  // a port is allowed and dropped
        {"0x0a.0.0.012", "10.0.0.10"}, {"1.2.3", nullptr}, {"256.1.1.1", nullptr},
        {"1.2.3.4.5.6", nullptr}, {"eth0", nullptr}, {"1.2.3.4)x", nullptr}, {"", nullptr},
        {"1." + std::string(117, '0') + ".2.3", "1.0.2.3"},  // 123 characters
        {"1." + std::string(118, '0') + ".2.3", nullptr},    // 124
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.word);
        uint32_t a = 0xdeadbeef;
        EXPECT_EQ(syn_ip(c.word.c_str(), &a), c.addr != nullptr ? 0 : -1);
        EXPECT_EQ(a, c.addr != nullptr ? inet_addr(c.addr) : a);
    }
}

TEST(Scope, LabelsAndDots)
{
    const struct { const char* scope; int ok; } cases[] = {
        {"a", 1}, {"Corp-1.x", 1}, {"a--b", 1}, {"1abc", 0}, {"a.", 0}, {".a", 0},
        {"a..b", 0}, {"ab-", 0}, {"a_b", 0}, {"a.b.-c", 0}, {"a b", 0},
        {"\xc3\xa9t\xc3\xa9", 0}, {"\"x\"", 0}, {"'", 0},
        {"", 1}, {"\"\"", 1}, {"''", 1},  // the empty scope, left empty
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scope);
        std::string s = c.scope;
        EXPECT_EQ(valid_scope(s.data()), c.ok);
        EXPECT_STREQ(s.c_str(), c.ok && (c.scope[0] == '"' || c.scope[0] == '\'') ? "" : c.scope);
    }
    const char* label = "ab-1.cd";
    EXPECT_EQ(valid_label(label), label + 4);
    EXPECT_EQ(valid_label(label + 5), label + 7);
}

TEST(CaseInsensitive, FoldsAsciiLettersOnly)
{
    const struct { const char* a; const char* b; int equal; } cases[] = {
        {"WORKGROUP", "workgroup", 1}, {"abc", "abcd", 0}, {"", "", 1}, {"x-1", "X-1", 1},
        {"a[", "A{", 0},                // '[' and '{' differ by the case bit but are not letters
        {"\xe9t\xe9", "\xc9T\xc9", 0},  // Latin-1 letters are not folded
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.a) + " / " + c.b);
        EXPECT_EQ(crs_icstrcmp(c.a, c.b) * 2 + crs_icstrcmp(c.b, c.a), c.equal ? 0 : 3);
    }
    const char a[] = {'F', 'O', 'O', 0, 'x'}, b[] = {'f', 'o', 'o', 0, 'X'}, c[] = {'f', 'o', 'o', 0, 'y'};
    EXPECT_EQ(crs_icmemcmp(a, b, 5), 0);  // past a NUL, exactly n bytes
    EXPECT_EQ(crs_icmemcmp(a, c, 5), 1);
    EXPECT_EQ(crs_icmemcmp(a, c, 4), 0);
    char s[] = "MiXeD-9\xc9Z";
    crs_lowcase(s);
    EXPECT_STREQ(s, "mixed-9\xc9z");
}

}  // namespace
