#include "tests/unit/unitkit.h"

namespace {

using Lines = std::vector<std::string>;

// Every setting the file can make, as one line.
std::string settings()
{
    auto dotted = [](uint32_t a) { return std::string(a != 0 ? inet_ntoa(in_addr{a}) : "-"); };
    std::string s = std::to_string(transport_tcpip) + std::to_string(transport_vznbu);
    for (int v : {int(nmport), int(ssport), int(ndport), int(ensport), ens_client, wildcard_status, nda_ct, my_addr_ct})
        s += " " + std::to_string(v);
    for (uint32_t a : {broadcast_addr, nda_addr[0], nda_addr[1], nda_addr[9]})
        s += " " + dotted(a);
    for (int i = 0; i < my_addr_ct; i++)
        s += " " + dotted(my_addr[i].addr) + "/" + dotted(my_addr[i].bcast) + "/" + dotted(my_addr[i].mask);
    for (int i = 0; i < if_select_ct; i++)
        s += " [" + std::string(if_selects[i].name) + dotted(if_selects[i].net) + "/" + dotted(if_selects[i].mask) + "]";
    for (int i = 0; i < cfg_name_ct; i++)
        s += " <" + std::string(cfg_names[i].name, cfg_names[i].name + 16) + std::to_string(cfg_names[i].flags) + ">";
    for (int i = 0; i < wins_ct; i++)
        s += " wins " + dotted(wins_addr[i]);
    return s + " '" + nb_scope + "'" + (nda_key[0] != '\0' ? std::string(" key ") + nda_key : "") +
           (nda_key_bad ? " (bad key)" : "");
}

// The logged messages of reading text as the configuration file.
Lines read(const std::string& text)
{
    const std::string path = "/tmp/halyard-unit-conf-" + std::to_string(getpid());
    name_settings_clear();
    FILE* f = fopen(path.c_str(), "wb");
    EXPECT_TRUE(f != nullptr && fwrite(text.data(), 1, text.size(), f) == text.size());
    if (f != nullptr)
        fclose(f);
    Lines log = logged([&] { EXPECT_EQ(namelogin(path.c_str()), 0); });
    unlink(path.c_str());
    return log;
}

std::string err(int line) { return "Halyard: error in config file at line " + std::to_string(line); }

const std::string head = "[realm NB]\ntransport tcpip\n[transport tcpip]\n";  // lines 1-3

// Each pass reads only the sections whose heads match its own exactly, and
// only its own directives there; a bad line is logged and changes nothing.
TEST(NameLogin, EachFileItsSettingsAndLog)
{
    std::string eleven = "NB-nd-addr", l255 = "a" + std::string(254, 'b');
    for (int i = 1; i <= 11; i++)
        eleven += " 10.0.1." + std::to_string(i);
    const std::string port = "    expecting positive port number", onoff = "    expecting on/off";
    const std::string sel = "    expecting all, an interface name or NET/LEN";
    const std::string nbname = "    expecting NAME<hh>, then group or nothing";
    const std::string wins = "    expecting one or two WINS server addresses";
    const std::string scope = "    expecting valid scope name", many = "Halyard: too many NB-nd-addr's in config file";
    // Key files: good, open to others, of the wrong length.
    const std::string key = "/tmp/halyard-unit-key-" + std::to_string(getpid()), hex(64, 'a');
    for (auto [path, text, mode] : {std::tuple{key, " " + hex + "\n", 0600}, {key + "o", hex, 0644}, {key + "s", "abc", 0600}}) {
        FILE* f = fopen(path.c_str(), "w");
        ASSERT_TRUE(f != nullptr && fputs(text.c_str(), f) >= 0 && fclose(f) == 0 && chmod(path.c_str(), mode) == 0);
    }
    const struct { std::string text, settings; Lines log; } cases[] = {
        {"[interface tcpip eth0]\naddress 10.1.2.3\n[transport tcpip]\nNB-name-port 2\n[realm NB]\ntransport vznbu\n",
         "01 0 0 0 0 0 0 0 0 - - - - ''", {}},
        {"transport tcpip\n[realm NB]\ntransport tcpip # again\ntransport TCPIP\ntransport tcpip vznbu\n"
         "[realm other]\ntransport bogus\n[transport tcpip extra]\nNB-name-port 51\n[Transport tcpip]\nNB-name-port 52\n"
         "[transport tcpip]\nNB-frobnicate 1\n# comment\nNB-name-port 53 # trailing\n[transport tcpip]\nNB-ens-port 54\n",
         "10 53 0 0 54 0 0 0 0 - - - - ''", {err(4), "    tcpip/vznbu expected", err(5), "    tcpip/vznbu expected"}},
        {head + "NB-name-port 0x89\nNB-name-port 137\nNB-session-port 0\nNB-session-port 12x\nNB-session-port 1 2\n"
                "NB-session-port\nNB-session-port 010\nNB-nd-port 70000\nNB-session-port 9\n",
         "10 137 8 4464 0 0 0 0 0 - - - - ''",
         {err(5), "    NB-name-port already set", err(6), port, err(7), port, err(8), port, err(9), port, err(12),
          "    NB-session-port already set"}},
        {head + "NB-ensclient off\nNB-ensclient on\nNB-ensclient ON\nNB-ensclient off on\nNB-wildcard-status on\n"
                "bcast-style 1.2.3\nbcast-style 0.0.0.255\n",
         "10 0 0 0 0 1 1 0 0 0.0.0.255 - - - ''",
         {err(6), onoff, err(7), onoff, err(9), "    expecting IP address (form)"}},
        {head + "NB-scope a.b-c.d1\nNB-scope 1abc\nNB-scope a b\nNB-scope \"un terminated\n",
         "10 0 0 0 0 0 0 0 0 - - - - 'a.b-c.d1'", {err(5), scope, err(6), scope, err(7), scope}},
        {head + "NB-scope " + l255 + "\nNB-scope " + l255 + "c\n", "10 0 0 0 0 0 0 0 0 - - - - '" + l255 + "'",
         {err(5), scope}},
        {head + "NB-scope a.b\nNB-scope ''\n", "10 0 0 0 0 0 0 0 0 - - - - ''", {}},
        {head + eleven + "\n", "10 0 0 0 0 0 0 10 0 - 10.0.1.1 10.0.1.2 10.0.1.10 ''", {many, "    ignoring"}},
        {head + "NB-nd-addr\nNB-nd-addr 10.0.0.1 bogus 10.0.0.3\nNB-nd-addr 10.0.0.4\n",
         "10 0 0 0 0 0 0 1 0 - 10.0.0.1 - - ''",
         {"Halyard: Ignoring empty NB-nd-addr directive, line 4", err(5), "    expecting IP address", many,
          "    ignoring"}},
        {head + "NB-wins-server\nNB-wins-server 10.0.0.5 10.0.0.6 10.0.0.7\nNB-wins-server 10.0.0.5 bogus\n"
                "NB-wins-server 255.255.255.255\nNB-wins-server 10.0.0.8 10.0.0.9\nNB-wins-server 10.0.0.5\n",
         "10 0 0 0 0 0 0 0 0 - - - - wins 10.0.0.8 wins 10.0.0.9 ''",
         {err(4), wins, err(5), wins, err(6), wins, err(7), wins, err(9), "    NB-wins-server already set"}},
        {head + "NB-nd-key /nonexistent\nNB-nd-key " + key + "o\nNB-nd-key " + key + "s\nNB-nd-key " + key +
             "\nNB-nd-key " + key + "\nNB-nd-key\n",
         "10 0 0 0 0 0 0 0 0 - - - - '' key " + key + " (bad key)",
         {err(4), "    NB-nd-key: /nonexistent cannot be read (No such file or directory)", err(5),
          "    NB-nd-key: " + key + "o is open to other users (mode 0644): make it 0600", err(6),
          "    NB-nd-key: " + key + "s does not hold 64 hexadecimal digits", err(8),
          "    NB-nd-key: already set (the first is kept)", err(9), "    NB-nd-key: already set (the first is kept)"}},
        {"[realm NB]\ntransport tcpip\n[interface tcpip eth0]\naddress 10.1.2.3\nbroadcast 10.1.2.255\n"
         "[interface tcpip eth1]\nnetmask 255.255.0.0\n[interface tcpip eth0]\naddress 10.9.9.9\nnetmask 255.255.255.0\n"
         "netmask 255.0.0.0\nbroadcast x\nmtu 1500\n[interface tcpip ETH0]\naddress 192.168.7.1\n"
         "[interface tcpip]\naddress bogus\n",
         "10 0 0 0 0 0 0 0 2 - - - - 10.1.2.3/10.1.2.255/255.255.255.0 192.168.7.1/-/- ''",
         {err(9), "    address for interface already specified", err(11), "    netmask for interface already specified",
          err(12), "    expecting IP broadcast address", "Halyard: tcpip interface eth1 has no address", "    ignoring"}},
        {head + "NB-interfaces all eth0 10.88.7.9/24\nNB-interfaces 10.0.0.0/33\nNB-interfaces\nNB-interfaces a/b\n"
                "NB-name fs<20> group\nNB-name Abcdefghijklmno<1B>\nNB-name abcdefghijklmnop<20>\nNB-name fs<2g>\n"
                "NB-name fs<20> grp\nNB-name fs\nNB-name *<00>\nNB-name <20>\n",
         "10 0 0 0 0 0 0 0 0 - - - - [-/-] [eth0-/-] [10.88.7.0/255.255.255.0] "
         "<FS             \x20" "1> <ABCDEFGHIJKLMNO\x1b" "0> ''",
         {err(5), sel, err(6), sel, err(7), sel, err(10), nbname, err(11), nbname, err(12), nbname, err(13), nbname,
          err(14), nbname, err(15), nbname}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(read(c.text), c.log);
        EXPECT_EQ(settings(), c.settings);
        // CRLF line ends read exactly as LF.
        std::string crlf;
        for (char ch : c.text)
            crlf += ch == '\n' ? "\r\n" : std::string(1, ch);
        EXPECT_EQ(read(crlf), c.log);
        EXPECT_EQ(settings(), c.settings);
    }
    std::string text = "[realm NB]\ntransport tcpip\n";
    for (int i = 0; i <= MAX_INTERFACES; i++)
        text += "[interface tcpip if" + std::to_string(i) + "]\naddress 10.2.0." + std::to_string(i + 1) + "\n";
    EXPECT_EQ(read(text), Lines{"Halyard: too many interfaces in config file"});
    EXPECT_EQ(my_addr_ct, MAX_INTERFACES);
    for (const char* suffix : {"", "o", "s"})
        unlink((key + suffix).c_str());
    EXPECT_EQ(logged([] { EXPECT_EQ(namelogin("/nonexistent/config.vz"), 0); }),
              Lines{"Halyard: cannot open config file /nonexistent/config.vz"});
    name_settings_clear();
}

TEST(NameLogin, WordCheckers)
{
    const struct { const char* word; int nonneg, pos, octal; } numbers[] = {
        {"0", 0, -1, 0}, {"137", 137, 137, 95}, {"0x89", 137, 137, -1}, {"08", -1, -1, -1}, {"-5", -1, -1, -1},
        {"12x", -1, -1, -1}, {"", -1, -1, -1}, {"2147483647", 2147483647, 2147483647, -1}, {"2147483648", -1, -1, -1},
    };
    for (const auto& c : numbers) {
        EXPECT_EQ(std::vector<int>({syn_nonneg(c.word), syn_pos(c.word), syn_octal(c.word)}),
                  std::vector<int>({c.nonneg, c.pos, c.octal})) << c.word;
    }
    const struct { std::string word; const char* addr; } ips[] = {  // addr null: refused
        {"10.0.0.1.137", "10.0.0.1"}, {"0x0a.0.0.012", "10.0.0.10"}, {"1.2.3", nullptr}, {"256.1.1.1", nullptr},
        {"eth0", nullptr}, {"1.2.3.4)x", nullptr}, {"1." + std::string(118, '0') + ".2.3", nullptr},
    };
    for (const auto& c : ips) {
        uint32_t a = 0;
        EXPECT_EQ(syn_ip(c.word.c_str(), &a), c.addr != nullptr ? 0 : -1) << c.word;
        EXPECT_EQ(a, c.addr != nullptr ? inet_addr(c.addr) : 0u) << c.word;
    }
    const struct { const char* scope; int ok; } scopes[] = {
        {"a", 1}, {"Corp-1.x", 1}, {"1abc", 0}, {"a.", 0}, {".a", 0}, {"a..b", 0}, {"ab-", 0}, {"a_b", 0},
        {"\xc3\xa9t\xc3\xa9", 0}, {"\"\"", 1},
    };
    for (const auto& c : scopes) {
        std::string s = c.scope;
        EXPECT_EQ(valid_scope(s.data()), c.ok) << c.scope;
    }
}

}  // namespace
