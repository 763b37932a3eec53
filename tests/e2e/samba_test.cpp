// Another implementation as the other station: Samba's nmblookup asks our
// daemon, Samba's nmbd is found, asked for its status and defends its name
// against us, and tshark decodes every datagram our daemon sends meanwhile.

#include "tests/support/lab.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr const char* nmblookup_bin = "/usr/bin/nmblookup";
constexpr const char* nmbd_bin = "/usr/sbin/nmbd";
constexpr const char* tshark_bin = "/usr/bin/tshark";
constexpr const char* dumpcap_bin = "/usr/bin/dumpcap";
constexpr const char* sh_bin = "/bin/sh";

bool executable(const char* path) { return access(path, X_OK) == 0; }

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// A word of text for sh -c, quoted.
std::string sh_word(const std::string& word)
{
    std::string q = "'";
    for (char c : word) {
        if (c == '\'')
            q += "'\\''";
        else
            q += c;
    }
    return q + "'";
}

class Samba : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* bin : {nmblookup_bin, nmbd_bin, sh_bin})
            if (!executable(bin))
                GTEST_SKIP() << bin << " is not installed (Debian packages samba, "
                             << "samba-common-bin; scripts/check installs them)";
        LAB_SETUP_OR_SKIP(lab, 1);
        // The station's private places, inside the lab's tmpfs over /opt.
        char tmpl[] = "/opt/station.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        for (const char* sub : {"lock", "state", "cache", "private", "pid", "log", "ncalrpc"})
            ASSERT_EQ(mkdir((dir + "/" + sub).c_str(), 0755), 0) << sub;
        conf = dir + "/smb.conf";
        ASSERT_TRUE(lab.write_file(conf,
            "[global]\n"
            "netbios name = STATION\n"
            "workgroup = LABGRP\n"
            "server role = standalone server\n"
            "interfaces = hs0\n"
            "bind interfaces only = yes\n"
            "disable netbios = no\n"
            "wins support = no\n"
            "local master = no\n"
            "domain master = no\n"
            "preferred master = no\n"
            "lock directory = " + dir + "/lock\n"
            "state directory = " + dir + "/state\n"
            "cache directory = " + dir + "/cache\n"
            "private dir = " + dir + "/private\n"
            "pid directory = " + dir + "/pid\n"
            "ncalrpc dir = " + dir + "/ncalrpc\n"
            "log file = " + dir + "/log/log.%m\n"
            "max log size = 0\n"));
    }

    void TearDown() override
    {
        // Whatever a failed test left running; the lab ends the rest.
        for (pid_t pid : background)
            if (kill(pid, SIGTERM) == 0)
                lab.wait_exit(pid, 20.0);
    }


    // nmblookup in the station with its own configuration; its output.
    std::string nmblookup(const std::vector<std::string>& args)
    {
        std::vector<std::string> argv{nmblookup_bin, "-s", conf};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string out;
        lab.run(lab_station1, argv, &out, 60.0);
        return out;
    }

    // Starts a command in the station in the background, its output going to
    // `out_file`: its pid (re-parented to the test), or -1.
    pid_t start_station(const std::vector<std::string>& argv, const std::string& out_file)
    {
        std::string line = "exec";
        for (const std::string& a : argv)
            line += " " + sh_word(a);
        line += " >" + sh_word(out_file) + " 2>&1 </dev/null";
        std::string out;
        int st = lab.run(lab_station1, {sh_bin, "-c", "(" + line + ") & echo $!"}, &out, 30.0);
        if (st == -1 || !WIFEXITED(st) || WEXITSTATUS(st) != 0)
            return -1;
        pid_t pid = pid_t(atoi(out.c_str()));
        if (pid > 0)
            background.push_back(pid);
        return pid > 0 ? pid : -1;
    }

    // Ends a background command; true when it ended.
    bool stop_station(pid_t pid, int sig = SIGTERM)
    {
        std::erase(background, pid);
        if (kill(pid, sig) != 0)
            return false;
        return lab.wait_exit(pid, 20.0);
    }

    // Waits until `path` holds `text`.
    static bool wait_file(const std::string& path, const std::string& text, double seconds)
    {
        auto end = std::chrono::steady_clock::now() +
                   std::chrono::milliseconds(int64_t(seconds * 1000));
        for (int i = 0; i < 100000; ++i) {
            if (contains(lab_read_file(path), text))
                return true;
            if (std::chrono::steady_clock::now() > end)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    // A capture, in the station, of every datagram the daemon sends there;
    // -1 when tshark is not installed (the decode check is then skipped).
    pid_t start_capture()
    {
        if (!executable(tshark_bin) || !executable(dumpcap_bin))
            return -1;
        capture = dir + "/daemon.pcap";
        capture_out = dir + "/tshark.out";
        // dumpcap alone: one process, which writes out all it holds when
        // interrupted (tshark's own capture child can be cut short).
        pid_t pid = start_station({dumpcap_bin, "-n", "-i", "hs0", "-w", capture,
                                   "-f", "udp and src host 10.88.0.1"},
                                  capture_out);
        if (pid > 0 && !wait_file(capture_out, "Capturing on", 60.0)) {
            ADD_FAILURE() << "tshark did not start: " << lab_read_file(capture_out);
            stop_station(pid);
            return -1;
        }
        return pid;
    }

    // Ends the capture and checks that every captured datagram decodes as a
    // well-formed name-service packet: `count` of them at least.
    void check_capture(pid_t pid, int count)
    {
        // The checks before this one have run; the test is still reported
        // as skipped, so that the missing decode does not pass unseen.
        if (pid <= 0)
            GTEST_SKIP() << tshark_bin << " or " << dumpcap_bin
                         << " is not installed (Debian package tshark): the daemon's "
                         << "datagrams were not decoded";
        // The capture is handed over in blocks: a last datagram from the
        // daemon's side to the discard port marks the end, and the capture
        // stops once that has reached the file.
        int fd = lab.udp_socket(lab_daemon, 0, "10.88.0.1");
        ASSERT_GE(fd, 0) << lab.last_error();
        std::string marker;
        for (int i = 0; i < 40 && marker.empty(); ++i) {
            ASSERT_TRUE(lab.send_to(fd, "10.88.0.2", 9, {'e', 'n', 'd'}));
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
            marker = tshark_read({"-Y", "udp.dstport == 9"});
        }
        EXPECT_NE(marker, "") << "the end of the capture was not seen";
        ASSERT_TRUE(stop_station(pid, SIGTERM)) << lab_read_file(capture_out);

        const std::string ours = "udp.dstport != 9";
        std::string frames = tshark_read({"-Y", ours, "-T", "fields", "-e", "frame.number",
                                          "-e", "ip.dst", "-e", "udp.dstport", "-e", "nbns.id",
                                          "-e", "_ws.col.Info"});
        int n = 0;
        for (char c : frames)
            n += c == '\n';
        EXPECT_GE(n, count) << frames;
        EXPECT_EQ(tshark_read({"-Y", ours + " && _ws.malformed"}), "")
            << "datagrams of the daemon that tshark finds malformed, of:\n" << frames;
        EXPECT_EQ(tshark_read({"-Y", ours + " && (!nbns || _ws.expert.severity >= warning)"}), "")
            << "datagrams of the daemon that tshark warns about, of:\n" << frames;
        std::printf("%d datagrams of the daemon decoded by tshark:\n%s", n, frames.c_str());
    }

    // tshark's standard output for the capture, its warnings left out.
    std::string tshark_read(const std::vector<std::string>& args)
    {
        std::string line = "exec " + std::string(tshark_bin) + " -n -r " + sh_word(capture);
        for (const std::string& a : args)
            line += " " + sh_word(a);
        std::string out;
        lab.run(lab_station1, {sh_bin, "-c", line + " 2>/dev/null"}, &out, 60.0);
        return out;
    }

    Lab lab;
    std::string dir;
    std::string conf;
    std::string capture;
    std::string capture_out;
    std::vector<pid_t> background;
};

TEST_F(Samba, NmblookupGetsOurAnswersUnicastAndBroadcast)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    pid_t tshark = start_capture();
    std::string out;
    // nmblookup asks in upper case; our names are taken as typed.
    ASSERT_EQ(lab.halyardctl({"add", "FILESERV<20>"}, &out), 0) << out;
    // A pending name is not answered: ask until the claim has completed.
    std::string unicast;
    for (int i = 0; i < 40 && !contains(unicast, "10.88.0.1 FILESERV<20>"); ++i)
        unicast = nmblookup({"-U", "10.88.0.1", "--recursion", "FILESERV#20"});
    EXPECT_TRUE(contains(unicast, "10.88.0.1 FILESERV<20>")) << unicast << lab.log();
    std::string broadcast = nmblookup({"-B", "10.88.0.255", "FILESERV#20"});
    EXPECT_TRUE(contains(broadcast, "10.88.0.1 FILESERV<20>")) << broadcast;
    // The answer is flagged authoritative.
    std::string flags = nmblookup({"-U", "10.88.0.1", "--recursion", "-f", "FILESERV#20"});
    EXPECT_TRUE(contains(flags, "Authoritative")) << flags;
    // A name no one added is not found, directed or broadcast.
    std::string nobody = nmblookup({"-U", "10.88.0.1", "--recursion", "NOBODY#20"});
    EXPECT_FALSE(contains(nobody, "NOBODY<20>")) << nobody;
    EXPECT_TRUE(contains(nobody, "failed")) << nobody;
    // A node status request for the name found is answered with our names.
    std::string status = nmblookup({"-U", "10.88.0.1", "--recursion", "-S", "FILESERV#20"});
    EXPECT_TRUE(contains(status, "FILESERV        <20>")) << status;
    // The wildcard name "*" is not ours: without NB-wildcard-status no answer.
    std::string wild = nmblookup({"-A", "10.88.0.1"});
    EXPECT_FALSE(contains(wild, "FILESERV")) << wild;
    check_capture(tshark, 2);
}

// nmblookup -A (as nbtstat -A) asks for the node status of "*": with
// NB-wildcard-status on, in a configuration written with CRLF line ends,
// it gets the whole name table.
TEST_F(Samba, NmblookupDashAGetsTheNameTableWhenWildcardStatusIsOn)
{
    std::string crlf;
    for (char c : lab.default_config() + "NB-wildcard-status on\n")
        crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    ASSERT_TRUE(lab.write_config(crlf));
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    std::string out;
    ASSERT_EQ(lab.halyardctl({"add", "FILESERV<20>"}, &out), 0) << out;
    ASSERT_EQ(lab.halyardctl({"add", "LABGRP<1E>", "--group"}, &out), 0) << out;
    std::string wild;
    for (int i = 0; i < 5 && !contains(wild, "LABGRP"); ++i)
        wild = nmblookup({"-A", "10.88.0.1"});
    EXPECT_TRUE(contains(wild, "FILESERV        <20> -         B <ACTIVE>")) << wild << lab.log();
    EXPECT_TRUE(contains(wild, "LABGRP          <1e> - <GROUP> B <ACTIVE>")) << wild;
}

TEST_F(Samba, NmbdIsFoundAskedForStatusAndDefendsItsName)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    pid_t tshark = start_capture();
    std::string nmbd_out = dir + "/nmbd.out";
    pid_t nmbd = start_station({nmbd_bin, "--foreground", "--debug-stdout", "--no-process-group",
                                "-d", "2", "-s", conf}, nmbd_out);
    ASSERT_GT(nmbd, 0) << lab.last_error();
    // nmbd claims STATION<20> by broadcasting for some seconds: look it up
    // until it answers.
    std::string out;
    int st = -1;
    for (int i = 0; i < 20 && st != 0; ++i) {
        st = lab.halyardctl({"lookup", "STATION<20>"}, &out);
        if (st != 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    ASSERT_EQ(st, 0) << out << lab_read_file(nmbd_out);
    EXPECT_TRUE(contains(out, "10.88.0.2")) << out;

    // Its adapter status, as it answers it.
    EXPECT_EQ(lab.halyardctl({"status", "10.88.0.2"}, &out), 0) << out;
    EXPECT_TRUE(contains(out, "STATION")) << out;
    EXPECT_TRUE(contains(out, "LABGRP")) << out;

    // Our claim of its name is refused by its defence: the name is gone from
    // our table and the log says who holds it.
    EXPECT_EQ(lab.halyardctl({"add", "STATION<20>"}, &out), 0) << out;
    EXPECT_TRUE(lab.wait_log("Halyard: name already exists on network: ", 60.0))
        << lab.log() << lab_read_file(nmbd_out);
    // The name in the daemon's printable form (lower case, no suffix for a
    // blank-padded name), then its owner as nmbd's address and port.
    bool at_address = false;
    for (const LabLogGroup& g : lab.log_groups()) {
        for (size_t i = 0; i + 1 < g.messages.size(); ++i) {
            if (g.messages[i] == "Halyard: name already exists on network: station")
                at_address = g.messages[i + 1] == "        at address I(10.88.0.2.137)";
        }
    }
    EXPECT_TRUE(at_address) << lab.log();
    EXPECT_EQ(lab.halyardctl({"check", "STATION<20>"}, &out), 1) << out;

    EXPECT_TRUE(stop_station(nmbd)) << lab_read_file(nmbd_out);
    check_capture(tshark, 3);
}

}  // namespace
