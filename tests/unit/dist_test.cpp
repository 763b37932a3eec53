// What the install hands to administrators: the manual pages format without
// a warning and keep up with the code, the example configuration parses in
// each of its alternatives, and the example message file only holds texts
// the daemon will use.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "nmtrace.h"
#include "nversion.h"
#include "shr/logcatmsg.h"
#include "shr/logging.h"
#include "src/namelogin.h"
#include "tests/support/lab.h"
#include "tests/support/paths.h"

namespace {

namespace fs = std::filesystem;

std::string source(const std::string& rel)
{
    return std::string(halyard_source_dir()) + "/" + rel;
}

const char* const man_pages[] = {"man/halyard.8", "man/config.vz.5", "man/halyardctl.1", "man/halyard-nda.8"};

// A shell command's output (bounded) and exit status; -1 when it did not run.
int shell(const std::string& cmd, std::string* out)
{
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr)
        return -1;
    out->clear();
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0 && out->size() < (1u << 20))
        out->append(buf, n);
    int st = pclose(p);
    return st != -1 && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

bool have(const char* program)
{
    std::string out;
    return shell(std::string("command -v ") + program + " >/dev/null 2>&1", &out) == 0;
}

TEST(ManPages, FormatWithoutWarnings)
{
    if (!have("groff") || !have("man"))
        GTEST_SKIP() << "groff and man are not installed (packages groff-base, man-db)";
    for (const char* page : man_pages) {
        SCOPED_TRACE(page);
        // The pages as the build made them, with the version filled in.
        std::string path = std::string(halyard_build_dir()) + "/" + page, out;
        // groff alone, then man as a reader sees it on an 80-column terminal.
        EXPECT_EQ(shell("groff -ww -man -z '" + path + "' 2>&1", &out), 0) << out;
        EXPECT_EQ(out, "");
        EXPECT_EQ(shell("MANWIDTH=80 man --warnings -l '" + path + "' 2>&1 >/dev/null", &out), 0)
            << out;
        EXPECT_EQ(out, "");
    }
}

std::set<std::string> matches(const std::string& text, const char* pattern)
{
    std::set<std::string> found;
    std::regex re(pattern);
    for (auto it = std::sregex_iterator(text.begin(), text.end(), re); it != std::sregex_iterator(); ++it)
        found.insert((*it)[1].str());
    return found;
}

// roff writes a minus sign as \-.
std::string roff(std::string word)
{
    for (size_t i = word.find('-'); i != std::string::npos; i = word.find('-', i + 2))
        word.replace(i, 1, "\\-");
    return word;
}

// The manual pages, halyardctl and the README name the version the daemon
// reports in its log and trace.
TEST(ManPages, ShowTheVersionTheDaemonReports)
{
    const std::string version = std::string("Halyard ") + smbv_string + " " + smbv_variant;
    for (const char* page : man_pages) {
        SCOPED_TRACE(page);
        std::string text = lab_read_file(std::string(halyard_build_dir()) + "/" + page);
        EXPECT_NE(text.substr(0, text.find('\n')).find("\"" + version + "\""), std::string::npos);
        EXPECT_EQ(text.find("@HALYARD"), std::string::npos);
    }
    std::string out;
    EXPECT_EQ(shell(std::string(HALYARDCTL_BINARY) + " --version", &out), 0);
    EXPECT_EQ(out, std::string("halyardctl (Halyard) ") + smbv_string + " " + smbv_variant + "\n");
    EXPECT_NE(lab_read_file(source("README.md")).find(version), std::string::npos);
}

TEST(ManPages, ConfigPageNamesEveryDirective)
{
    std::string page = lab_read_file(source("man/config.vz.5"));
    std::set<std::string> directives =
        matches(lab_read_file(source("src/namelogin.cpp")), R"re(\{"([A-Za-z-]+)", do_\w+\})re");
    ASSERT_GE(directives.size(), 12u);
    for (const std::string& d : directives) {
        SCOPED_TRACE(d);
        // Each directive has its own paragraph tag.
        EXPECT_TRUE(page.find(".TP\n.BI \"" + roff(d) + " ") != std::string::npos ||
                    page.find(".TP\n.BR \"" + roff(d) + " ") != std::string::npos);
    }
}

TEST(ManPages, ClientPageNamesEveryCommand)
{
    std::string page = lab_read_file(source("man/halyardctl.1"));
    std::set<std::string> commands =
        matches(lab_read_file(source("client/halyardctl.cpp")), R"re(\{"(\w+)", \d+, \d+, cmd_\w+\})re");
    ASSERT_GE(commands.size(), 10u);
    for (const std::string& c : commands) {
        SCOPED_TRACE(c);
        EXPECT_TRUE(page.find(".TP\n.B " + c + "\n") != std::string::npos ||
                    page.find(".TP\n.BI \"" + c + " ") != std::string::npos);
    }
}

TEST(ManPages, EveryLoggedMessageNumberIsDocumented)
{
    std::string code;
    for (const char* dir : {"src", "shr", "config", "misc", "nb", "nda"})
        for (const auto& e : fs::directory_iterator(source(dir)))
            if (e.path().extension() == ".cpp")
                code += lab_read_file(e.path().string());
    std::set<std::string> numbers = matches(code, R"re((?:MSG_\w+|kMsg\w+) = (\d+);)re");
    for (const std::string& n : matches(code, R"re(log_catmsg\(LOG_SET, (\d+),)re"))
        numbers.insert(n);
    ASSERT_GE(numbers.size(), 30u);
    std::string pages = lab_read_file(source("man/halyard.8")) + lab_read_file(source("man/config.vz.5")) +
                        lab_read_file(source("man/halyard-nda.8"));
    for (const std::string& n : numbers) {
        SCOPED_TRACE(n);
        EXPECT_TRUE(std::regex_search(pages, std::regex("\\b" + n + "\\b")));
    }
}

// The example configuration: a base with its settings commented out, and
// alternatives, each after a line starting with "#== ", whose settings are
// lines of '#' directly followed by a word.
struct Example {
    std::vector<std::string> base;
    std::vector<std::pair<std::string, std::vector<std::string>>> blocks;  // heading, lines
};

Example split_example(const std::string& text)
{
    Example ex;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        std::string line = text.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        pos = end == std::string::npos ? text.size() : end + 1;
        if (line.rfind("#== ", 0) == 0)
            ex.blocks.push_back({line, {}});
        else if (ex.blocks.empty())
            ex.base.push_back(line);
        else
            ex.blocks.back().second.push_back(line);
    }
    return ex;
}

bool is_setting(const std::string& line)
{
    return line.size() > 1 && line[0] == '#' && line[1] != ' ' && line[1] != '#' && line[1] != '=';
}

std::string uncommented(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& l : lines)
        text += (is_setting(l) ? l.substr(1) : l) + "\n";
    return text;
}

uint32_t ip(const char* dotted)
{
    return inet_addr(dotted);
}

class ExampleConfig : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/halyard-example-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        name_settings_clear();
        ex_ = split_example(lab_read_file(source("dist/config.vz.example")));
    }
    void TearDown() override
    {
        name_settings_clear();
        unlink((dir_ + "/config.vz").c_str());
        unlink((dir_ + "/log.nb").c_str());
        rmdir(dir_.c_str());
    }
    // Reads text as the configuration; every message it logged.
    std::vector<std::string> read(const std::string& text)
    {
        name_settings_clear();
        std::string conf = dir_ + "/config.vz", log = dir_ + "/log.nb";
        FILE* f = fopen(conf.c_str(), "w");
        EXPECT_NE(f, nullptr);
        if (f == nullptr)
            return {"cannot write " + conf};
        fputs(text.c_str(), f);
        fclose(f);
        unlink(log.c_str());
        EXPECT_EQ(open_log(log.c_str()), 0);
        namelogin(conf.c_str());
        close_log();
        std::vector<std::string> lines;
        for (const LabLogGroup& g : lab_parse_log(lab_read_file(log)))
            lines.insert(lines.end(), g.messages.begin(), g.messages.end());
        return lines;
    }
    // The base with "transport tcpip" switched on, and the named blocks.
    std::string with_blocks(const std::string& letters)
    {
        std::vector<std::string> base = ex_.base;
        for (std::string& l : base)
            if (l == "#transport tcpip")
                l = "transport tcpip";
        std::string text;
        for (const std::string& l : base)
            text += l + "\n";
        for (const auto& [heading, lines] : ex_.blocks)
            if (letters.find(heading[4]) != std::string::npos)
                text += heading + "\n" + uncommented(lines);
        return text;
    }
    std::string dir_;
    Example ex_;
};

TEST_F(ExampleConfig, AsInstalledRunsNoTransportAndLogsNothing)
{
    EXPECT_EQ(read(lab_read_file(source("dist/config.vz.example"))), std::vector<std::string>{});
    EXPECT_EQ(transport_tcpip, 0);
    EXPECT_EQ(transport_vznbu, 0);
}

TEST_F(ExampleConfig, EachAlternativeParsesToItsSettings)
{
    ASSERT_EQ(ex_.blocks.size(), 5u);
    const struct {
        std::string letters;
        std::function<void()> check;
    } cases[] = {
        {"A", [] {
             ASSERT_EQ(my_addr_ct, 1);
             EXPECT_EQ(my_addr[0].addr, ip("192.168.1.10"));
             EXPECT_EQ(my_addr[0].mask, ip("255.255.255.0"));
             EXPECT_EQ(my_addr[0].bcast, ip("192.168.1.255"));
         }},
        {"B", [] {
             ASSERT_EQ(my_addr_ct, 2);
             EXPECT_EQ(my_addr[0].addr, ip("192.168.1.10"));
             EXPECT_EQ(my_addr[1].addr, ip("10.20.0.5"));
             EXPECT_EQ(my_addr[1].mask, ip("255.255.0.0"));
         }},
        {"C", [] { EXPECT_STREQ(nb_scope, "corp.example"); }},
        {"D", [] {
             ASSERT_EQ(nda_ct, 2);
             EXPECT_EQ(nda_addr[0], ip("192.168.1.2"));
             EXPECT_EQ(nda_addr[1], ip("192.168.1.3"));
             EXPECT_EQ(ndport, 227);
             EXPECT_EQ(ensport, 228);
         }},
        {"E", [] {
             EXPECT_EQ(nmport, 137);
             EXPECT_EQ(ssport, 139);
             EXPECT_EQ(ens_client, 1);
             EXPECT_EQ(broadcast_addr, ip("255.255.255.255"));
         }},
        // Alternatives meant to be combined.
        {"ACDE", [] {
             EXPECT_EQ(my_addr_ct, 1);
             EXPECT_STREQ(nb_scope, "corp.example");
             EXPECT_EQ(nda_ct, 2);
         }},
        {"BCD", [] {
             EXPECT_EQ(my_addr_ct, 2);
             EXPECT_EQ(nda_ct, 2);
         }},
    };
    for (const auto& c : cases) {
        std::string text = with_blocks(c.letters);
        SCOPED_TRACE(c.letters + ":\n" + text);
        EXPECT_EQ(read(text), std::vector<std::string>{});
        EXPECT_EQ(transport_tcpip, 1);
        c.check();
    }
}

TEST(ExampleMessages, EveryTextReplacesItsMessageAndFitsItsValues)
{
    // The built-in texts of the messages the example replaces.
    const std::pair<int, const char*> builtin[] = {
        {203, "NB NetBIOS services %s %s starting.\n"},
        {186, "Halyard: name already exists on network: %s"},
        {187, "        at address %s"},
        {198, "%s: must run as super-user"},
    };
    std::string path = source("dist/kbsrvmsg.example");
    std::string text = lab_read_file(path);
    size_t set = text.find("\n$set 10\n");
    ASSERT_NE(set, std::string::npos);
    std::set<std::string> in_file = matches(text.substr(set), R"re(\n(\d+) ")re");
    std::set<std::string> known;
    for (const auto& [n, dflt] : builtin)
        known.insert(std::to_string(n));
    EXPECT_EQ(in_file, known) << "a message of the example without its built-in text here";

    FILE* f = fopen(path.c_str(), "r");
    ASSERT_NE(f, nullptr);
    for (const auto& [n, dflt] : builtin) {
        SCOPED_TRACE(n);
        char got[MSG_LINE_SIZE];
        snprintf(got, sizeof got, "%s", msg_get(f, LOG_SET, n, dflt));
        fixup_string(got);
        EXPECT_STRNE(got, dflt);
        EXPECT_TRUE(fmt_compatible(got, dflt)) << got;
        EXPECT_EQ(strchr(got, '"'), nullptr) << got;
    }
    fclose(f);
}

}  // namespace
