// The configuration file as the operator meets it: the real daemon starts in
// spite of bad directives, logs each with its line, and completes a
// configured interface's broadcast address and netmask from the system.

#include "tests/support/lab.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

using Messages = std::vector<std::string>;

class Config : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 1); }
    Lab lab;
};

std::string err(int line)
{
    return "Halyard: error in config file at line " + std::to_string(line);
}

// The interface hd0 carries 10.88.0.1/24 with broadcast 10.88.0.255 in the
// daemon's namespace; the file gives only its address.
const char* const config_with_errors =
    "# lab configuration with mistakes\n"      // 1
    "[realm NB]\n"
    "transport tcpip\n"
    "transport tcpx\n"                          // 4
    "\n"
    "[interface tcpip hd0]\n"
    "address 10.88.0.1\n"
    "address 10.88.0.9\n"                       // 8: the first one stays
    "netmask 255.255.0\n"                       // 9
    "\n"
    "[interface tcpip hd9]\n"
    "broadcast 10.99.0.255\n"                   // no address: left out
    "\n"
    "[transport tcpip]\n"
    "NB-name-port 0\n"                          // 15
    "NB-ensclient yes\n"
    "NB-scope 1abc\n"
    "NB-nd-addr\n"                              // 18
    "bcast-style 1.2.3\n"
    "NB-scope corp.example\n"                   // 20: taken
    "NB-session-port 1139\n";

TEST_F(Config, BadDirectivesAreLoggedWithTheirLinesAndTheDaemonRuns)
{
    ASSERT_TRUE(lab.write_config(config_with_errors));
    pid_t pid = lab.start_daemon({"-z", "proc=5"});
    ASSERT_GT(pid, 0) << lab.last_error();

    // The start message's group, then the configuration's own, pass by pass:
    // the realm, the interfaces, the interfaces left out, the transport.
    auto groups = lab.log_groups();
    ASSERT_GE(groups.size(), 2u) << lab.log();
    const Messages want = {
        err(4), "    tcpip/vznbu expected",
        err(8), "    address for interface already specified",
        err(9), "    expecting IP netmask",
        "Halyard: tcpip interface hd9 has no address", "    ignoring",
        err(15), "    expecting positive port number",
        err(16), "    expecting on/off",
        err(17), "    expecting valid scope name",
        "Halyard: Ignoring empty NB-nd-addr directive, line 18",
        err(19), "    expecting IP address (form)",
    };
    EXPECT_EQ(groups[1].messages, want) << lab.log();

    // The good directives around the bad ones were taken.
    ASSERT_TRUE(lab.wait_trace("nbscope: corp.example\n")) << lab.trace();
    EXPECT_NE(lab.trace().find("do_sessport: 1139\n"), std::string::npos) << lab.trace();
    EXPECT_TRUE(Lab::udp_port_bound(pid, 137)) << "the name port kept its default";
}

TEST_F(Config, MissingBroadcastAndNetmaskComeFromTheSystem)
{
    ASSERT_TRUE(lab.write_config(
        "[realm NB]\ntransport tcpip\n"
        "[interface tcpip hd0]\naddress 10.88.0.1\n"
        "[transport tcpip]\n"));
    pid_t pid = lab.start_daemon({"-z", "proc=5"});
    ASSERT_GT(pid, 0) << lab.last_error();
    // Without the system the classful guess would be 10.0.0.0 and 255.0.0.0.
    EXPECT_TRUE(lab.wait_trace("find_bcast: found bcast (10.88.0.255) for 10.88.0.1\n"))
        << lab.trace();
    EXPECT_TRUE(lab.wait_trace("find_netmask: found mask (255.255.255.0) for 10.88.0.1\n"))
        << lab.trace();

    // Given ones are used as they stand.
    int status = -1;
    ASSERT_TRUE(lab.stop_daemon(pid, 20.0, &status));
    ASSERT_TRUE(lab.write_config(lab.default_config()));
    pid = lab.start_daemon({"-z", "proc=5", "-z", "tracefile=given.trc"});
    ASSERT_GT(pid, 0) << lab.last_error();
    EXPECT_TRUE(lab.wait_trace("prepare_addresses: using broadcast addr 10.88.0.255 for 10.88.0.1\n",
                               "given.trc"))
        << lab.trace("given.trc");
    EXPECT_TRUE(lab.wait_trace("prepare_addresses: using netmask 255.255.255.0 for 10.88.0.1\n",
                               "given.trc"))
        << lab.trace("given.trc");
}

TEST_F(Config, MissingFileIsLoggedAndTheDaemonStillStarts)
{
    // The lab writes a default file unless one was written; make it absent.
    ASSERT_TRUE(lab.write_config(""));
    ASSERT_EQ(unlink(lab_config_path), 0);
    pid_t pid = lab.start_daemon();
    ASSERT_GT(pid, 0) << lab.last_error();
    auto groups = lab.log_groups();
    ASSERT_GE(groups.size(), 2u) << lab.log();
    EXPECT_EQ(groups[1].messages,
              Messages{"Halyard: cannot open config file /etc/opt/KORRbase/config.vz"})
        << lab.log();
}

// A client request answered means the start-up is through, ENS socket included.
TEST_F(Config, AgentsOpenTheEnsSocketOnlyWhenConfigured)
{
    pid_t pid = lab.start_daemon();
    ASSERT_GT(pid, 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"list"}), 0) << lab.log();
    EXPECT_FALSE(Lab::udp_port_bound(pid, 228)) << "an ENS socket without agents";
    ASSERT_TRUE(lab.stop_daemon(pid));

    ASSERT_TRUE(lab.write_config(lab.default_config() + "\n[transport tcpip]\nNB-nd-addr 10.88.0.2 10.88.0.3\n"));
    pid = lab.start_daemon();
    ASSERT_GT(pid, 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"list"}), 0) << lab.log();
    EXPECT_TRUE(Lab::udp_port_bound(pid, 228)) << lab.log();
}

}  // namespace
