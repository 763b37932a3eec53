// Another implementation as the other station: Samba's nmblookup asks our
// daemon, Samba's nmbd is found, asked for its status and defends its name
// against us, and tshark decodes every datagram our daemon sends meanwhile.

#include "tests/support/lab.h"
#include "tests/support/nswire.h"
#include "tests/support/paths.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr const char* nmblookup_bin = "/usr/bin/nmblookup";
constexpr const char* nmbd_bin = "/usr/sbin/nmbd";
constexpr const char* tshark_bin = "/usr/bin/tshark";
constexpr const char* dumpcap_bin = "/usr/bin/dumpcap";

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class Samba : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* bin : {nmblookup_bin, nmbd_bin})
            if (access(bin, X_OK) != 0)
                GTEST_SKIP() << bin << " is not installed (Debian packages samba, samba-common-bin)";
        LAB_SETUP_OR_SKIP(lab, 1);
        // The station's private places, inside the lab's tmpfs over /opt.
        char tmpl[] = "/opt/station.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        std::string dirs;
        for (const char* sub : {"lock", "state", "cache", "private", "pid", "ncalrpc"}) {
            ASSERT_EQ(mkdir((dir + "/" + sub).c_str(), 0755), 0) << sub;
            bool short_key = sub == std::string("private") || sub == std::string("ncalrpc");
            dirs += std::string(sub) + (short_key ? " dir = " : " directory = ") + dir + "/" + sub + "\n";
        }
        ASSERT_TRUE(lab.write_file(dir + "/smb.conf",
            "[global]\nnetbios name = STATION\nworkgroup = LABGRP\nserver role = standalone server\n"
            "interfaces = hs0\nbind interfaces only = yes\ndisable netbios = no\nwins support = no\n"
            "local master = no\ndomain master = no\npreferred master = no\n"
            "log file = " + dir + "/log.%m\nmax log size = 0\n" + dirs));
    }

    std::string nmblookup(const std::vector<std::string>& args)
    {
        std::vector<std::string> argv{nmblookup_bin, "-s", dir + "/smb.conf"};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string out;
        lab.run(lab_station1, argv, &out, 60.0);
        return out;
    }

    // In the background, output to `out_file`: its pid, or -1.
    pid_t start_station(const std::string& command, const std::string& out_file)
    {
        return lab.start(lab_station1, {"/bin/sh", "-c", "exec " + command + " >" + out_file + " 2>&1"});
    }

    pid_t start_nmbd()
    {
        return start_station(std::string(nmbd_bin) + " --foreground --debug-stdout --no-process-group -d 2 -s " + dir +
                             "/smb.conf", dir + "/nmbd.out");
    }
    bool stop_station(pid_t pid) { return kill(pid, SIGTERM) == 0 && lab.wait_exit(pid, 20.0); }

    std::string tshark_read(const std::string& filter, const std::string& fields = "")
    {
        std::string out;
        lab.run(lab_station1, {"/bin/sh", "-c", std::string(tshark_bin) + " -n -r " + dir +
                                                    "/daemon.pcap -Y '" + filter + "'" + fields + " 2>/dev/null"},
                &out, 60.0);
        return out;
    }

    // dumpcap alone captures every datagram of the daemon (one process, which
    // writes out all it holds when interrupted): its pid once it captures, 0
    // when tshark is not installed, -1 when it did not start.
    pid_t start_capture()
    {
        if (access(tshark_bin, X_OK) != 0 || access(dumpcap_bin, X_OK) != 0)
            return 0;
        pid_t capture = start_station(std::string(dumpcap_bin) + " -n -i hs0 -w " + dir +
                                          "/daemon.pcap -f 'udp and src host 10.88.0.1'", dir + "/dumpcap.out");
        bool on = lab_wait_for(60, [&] { return contains(lab_read_file(dir + "/dumpcap.out"), "Capturing on"); });
        return capture > 0 && on ? capture : -1;
    }

    // Ends the capture and expects at least `frames` datagrams of the daemon,
    // each of them decoded by tshark without a complaint; skips the test
    // without tshark.
    void expect_decoded(pid_t capture, long frames)
    {
        if (capture <= 0)
            GTEST_SKIP() << "tshark or dumpcap is not installed (Debian package tshark): the daemon's "
                         << "datagrams were not decoded";
        // A last datagram to the discard port marks the end of the capture:
        // stop once it has reached the file.
        int fd = lab.udp_socket(lab_daemon, 0, "10.88.0.1");
        ASSERT_GE(fd, 0) << lab.last_error();
        std::string marker;
        for (int i = 0; i < 40 && marker.empty(); ++i) {
            ASSERT_TRUE(lab.send_to(fd, "10.88.0.2", 9, {'e', 'n', 'd'}));
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
            marker = tshark_read("udp.dstport == 9");
        }
        EXPECT_NE(marker, "") << "the end of the capture was not seen";
        ASSERT_TRUE(stop_station(capture)) << lab_read_file(dir + "/dumpcap.out");
        const std::string ours = "udp.dstport != 9";
        std::string seen = tshark_read(ours, " -T fields -e ip.dst -e udp.dstport -e _ws.col.Info");
        EXPECT_GE(std::count(seen.begin(), seen.end(), '\n'), frames) << seen;
        EXPECT_EQ(tshark_read(ours + " && (_ws.malformed || !nbns || _ws.expert.severity >= warning)"), "")
            << "datagrams of the daemon that tshark finds malformed or warns about, of:\n" << seen;
    }

    Lab lab;
    std::string dir;
};

TEST_F(Samba, NmblookupAndNmbdMeetOurDaemonAndTsharkDecodesIt)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    pid_t capture = start_capture();
    ASSERT_NE(capture, -1) << lab_read_file(dir + "/dumpcap.out");

    // nmblookup asks in upper case; our names are taken as typed. A pending
    // name is not answered: ask until the claim has completed.
    ASSERT_EQ(lab.halyardctl({"add", "FILESERV<20>"}), 0);
    std::string out;
    for (int i = 0; i < 40 && !contains(out, "10.88.0.1 FILESERV<20>"); ++i)
        out = nmblookup({"-U", "10.88.0.1", "--recursion", "FILESERV#20"});
    EXPECT_TRUE(contains(out, "10.88.0.1 FILESERV<20>")) << out << lab.log();
    out = nmblookup({"-B", "10.88.0.255", "-f", "FILESERV#20"});
    EXPECT_TRUE(contains(out, "10.88.0.1 FILESERV<20>") && contains(out, "Authoritative")) << out;
    out = nmblookup({"-U", "10.88.0.1", "--recursion", "NOBODY#20"});
    EXPECT_TRUE(!contains(out, "NOBODY<20>") && contains(out, "failed")) << out;
    out = nmblookup({"-U", "10.88.0.1", "--recursion", "-S", "FILESERV#20"});
    EXPECT_TRUE(contains(out, "FILESERV        <20>")) << out;
    // The wildcard name "*" is not ours: without NB-wildcard-status no answer.
    out = nmblookup({"-A", "10.88.0.1"});
    EXPECT_FALSE(contains(out, "FILESERV")) << out;

    // nmbd claims STATION<20> by broadcasting for some seconds: look it up
    // until it answers; then its status, and its defence against our claim.
    pid_t nmbd = start_nmbd();
    ASSERT_GT(nmbd, 0) << lab.last_error();
    ASSERT_TRUE(lab_wait_for(60, [&] { return lab.halyardctl({"lookup", "STATION<20>"}, &out) == 0; }))
        << out << lab_read_file(dir + "/nmbd.out");
    EXPECT_TRUE(contains(out, "10.88.0.2")) << out;
    EXPECT_EQ(lab.halyardctl({"status", "10.88.0.2"}, &out), 0) << out;
    EXPECT_TRUE(contains(out, "STATION") && contains(out, "LABGRP")) << out;
    EXPECT_EQ(lab.halyardctl({"add", "STATION<20>"}), 0);
    // The name in the daemon's printable form, its owner as nmbd's address and port.
    EXPECT_TRUE(lab.wait_log("Halyard: name already exists on network: station\r\n"
                             "\t        at address I(10.88.0.2.137)", 60.0))
        << lab.log() << lab_read_file(dir + "/nmbd.out");
    EXPECT_EQ(lab.halyardctl({"check", "STATION<20>"}), 1);
    EXPECT_TRUE(stop_station(nmbd)) << lab_read_file(dir + "/nmbd.out");

    // nmblookup -A (as nbtstat -A) asks for the node status of "*": with
    // NB-wildcard-status on it gets the whole name table.
    ASSERT_TRUE(lab.stop_daemon(lab.registered_pid()));
    ASSERT_TRUE(lab.write_config(lab.default_config() + "NB-wildcard-status on\n"));
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"add", "FILESERV<20>"}), 0);
    ASSERT_EQ(lab.halyardctl({"add", "WORKGRP<1E>", "--group"}), 0);
    for (int i = 0; i < 5 && !contains(out, "WORKGRP"); ++i)
        out = nmblookup({"-A", "10.88.0.1"});
    EXPECT_TRUE(contains(out, "FILESERV        <20> -         B <ACTIVE>")) << out << lab.log();
    EXPECT_TRUE(contains(out, "WORKGRP         <1e> - <GROUP> B <ACTIVE>")) << out;

    expect_decoded(capture, 5);
}

// nmbd as a WINS server, second in NB-wins-server. The first server, the
// test at 10.88.0.9, sends a WACK and falls silent; the test at 10.88.0.3 is
// another station: it holds FARHOST at nmbd, answers nmbd's challenge for it
// and forges a refusal of the daemon's name. Broadcasts reach neither.
TEST_F(Samba, TheDaemonRegistersAndLooksUpAtWinsServers)
{
    std::string conf = lab_read_file(dir + "/smb.conf");
    for (auto [from, to] : {std::pair<std::string, std::string>{"interfaces = hs0", "interfaces = 10.88.0.2/24"},
                            {"wins support = no", "wins support = yes\nmin wins ttl = 20\nmax wins ttl = 20"}})
        conf.replace(conf.find(from), from.size(), to);
    ASSERT_TRUE(lab.write_file(dir + "/smb.conf", conf));
    pid_t capture = start_capture();
    ASSERT_NE(capture, -1) << lab_read_file(dir + "/dumpcap.out");
    pid_t nmbd = start_nmbd();
    ASSERT_GT(nmbd, 0) << lab.last_error();
    for (const char* a : {"10.88.0.3/24", "10.88.0.9/24"})
        ASSERT_EQ(lab.run(lab_station1, {"/sbin/ip", "addr", "add", a, "dev", "hs0"}), 0) << a;
    int far = lab.udp_socket(lab_station1, 137, "10.88.0.3"), first = lab.udp_socket(lab_station1, 137, "10.88.0.9");
    ASSERT_TRUE(far >= 0 && first >= 0) << lab.last_error();
    const Bytes myhost = ns_name("MYHOST"), farhost = ns_name("FARHOST"), far_ip = ip_bytes("10.88.0.3");
    ASSERT_TRUE(lab.write_config(lab.default_config() + "NB-wins-server 10.88.0.9 10.88.0.2\n"));
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"add", "MYHOST<20>"}), 0);
    auto added = std::chrono::steady_clock::now();
    // Once claimed: registration, RD, not broadcast, from port 137, our address.
    std::optional<LabDatagram> got = lab.recv(first, 10.0);
    ASSERT_TRUE(got && got->bytes.size() == 68) << lab.log();
    Bytes& req = got->bytes;
    EXPECT_EQ(std::vector<uint8_t>(req.begin() + 2, req.begin() + 4), (Bytes{0x29, 0}));
    EXPECT_EQ(std::vector<uint8_t>(req.end() - 4, req.end()), ip_bytes("10.88.0.1"));
    EXPECT_EQ(got->from + ":" + std::to_string(got->port), "10.88.0.1:137");
    const uint16_t id = ns_id(req);  // a WACK of 20 seconds
    Bytes wack{0, 0x20, 0, 1, 0, 0, 0, 20, 0, 2, 0x29, 0};
    ASSERT_TRUE(lab.send_to(first, "10.88.0.1", 137, ns_response(id, 0xBC, 0, myhost, wack)));
    // While the daemon waits out the WACK, and past the 10 seconds in which
    // any station's registration response counts against a claim: refusals
    // under that id from a station that is not the server, and from the
    // server under another id.
    std::this_thread::sleep_until(added + std::chrono::seconds(13));
    for (auto [fd, forged] : {std::pair{far, id}, {first, uint16_t(id ^ 1)}})
        ASSERT_TRUE(lab.send_to(fd, "10.88.0.1", 137, ns_response(forged, 0xAD, 0x86, myhost, nb_record(0, far_ip))));
    // After the WACK's 20 seconds, the second server.
    std::string out;
    ASSERT_TRUE(lab_wait_for(60, [&] {
        out = nmblookup({"-U", "10.88.0.2", "--recursion", "MYHOST#20"});
        return contains(out, "10.88.0.1 MYHOST<20>");
    })) << out << lab.log();
    EXPECT_EQ(lab.halyardctl({"check", "MYHOST<20>"}), 0) << lab.log();

    // A name only the servers know: the first is asked, then nmbd.
    got.reset();
    for (int i = 0; i < 60 && !(got && got->bytes.size() > 3 && got->bytes[3] == 0x80); ++i) {
        ASSERT_TRUE(lab.send_to(far, "10.88.0.2", 137, ns_registration(7, 0x29, 0, farhost, nb_record(0, far_ip, 60))));
        got = lab.recv(far, 1.0);
    }
    ASSERT_TRUE(got && got->bytes[3] == 0x80) << "nmbd did not register FARHOST\n" << lab_read_file(dir + "/nmbd.out");

    EXPECT_EQ(lab.halyardctl({"lookup", "FARHOST<20>"}, &out), 0) << out;
    EXPECT_TRUE(contains(out, "10.88.0.3")) << out;
    got = lab.recv(first, 1.0);
    EXPECT_TRUE(got && got->bytes.size() == 50 && got->bytes[2] == 0x01 && got->bytes[3] == 0);

    // FARHOST for ourselves: nmbd challenges its holder, which answers, and
    // refuses the daemon.
    ASSERT_EQ(lab.halyardctl({"add", "FARHOST<20>"}), 0);
    got.reset();
    for (int i = 0; i < 30 && !(got && got->bytes.size() == 50 && (got->bytes[2] & 0xF8) == 0); ++i)
        got = lab.recv(far, 1.0);
    ASSERT_TRUE(got && got->bytes.size() == 50) << lab_read_file(dir + "/nmbd.out");
    Bytes held = ns_response(ns_id(got->bytes), 0x85, 0, farhost, nb_record(0, far_ip, 60));
    ASSERT_TRUE(lab.send_to(far, got->from, got->port, held));
    EXPECT_TRUE(lab.wait_log("Halyard: name already exists on network: farhost\r\n"
                             "\t        at address I(10.88.0.2.137)", 30.0)) << lab.log();
    EXPECT_EQ(lab.halyardctl({"check", "FARHOST<20>"}), 1);

    // Refreshed at half nmbd's TTL of 20 seconds; released when deleted.
    EXPECT_TRUE(capture <= 0 || lab_wait_for(30, [&] {
        return tshark_read("ip.dst == 10.88.0.2 && nbns.flags.opcode == 8") != "";
    }));
    ASSERT_EQ(lab.halyardctl({"del", "MYHOST<20>"}), 0);
    EXPECT_TRUE(lab_wait_for(30, [&] {
        return !contains(nmblookup({"-U", "10.88.0.2", "--recursion", "MYHOST#20"}), "MYHOST<20>");
    }));
    EXPECT_TRUE(stop_station(nmbd)) << lab_read_file(dir + "/nmbd.out");
    expect_decoded(capture, 10);
}

// The first configuration an install puts in place, installed into a
// throw-away root and run from there with no edit: nmblookup finds the host
// by its name (the first label of a name the namespace gives it) and gets
// its names from a status request.
TEST_F(Samba, TheInstalledFirstConfigurationIsFoundByHostName)
{
    ASSERT_EQ(unshare(CLONE_NEWUTS), 0);
    ASSERT_EQ(sethostname("labhost.example", 15), 0);
    const std::string root = dir + "/root";
    std::string out;
    ASSERT_EQ(lab.run(lab_daemon, {"/usr/bin/env", "DESTDIR=" + root, "cmake", "--install", halyard_build_dir(),
                                   "--prefix", "/usr"}, &out, 120.0), 0) << out;
    ASSERT_TRUE(lab.write_config(lab_read_file(root + "/etc/opt/KORRbase/config.vz")));
    ASSERT_EQ(lab.launch({}, 30.0, -1, -1, (root + "/usr/sbin/halyard").c_str()), 0);
    ASSERT_GT(lab.wait_registered(), 0) << lab.log();
    for (int i = 0; i < 40 && !contains(out, "10.88.0.1 labhost<00>"); ++i)
        out = nmblookup({"-B", "10.88.0.255", "labhost"});
    EXPECT_TRUE(contains(out, "10.88.0.1 labhost<00>")) << out << lab.log();
    for (int i = 0; i < 5 && !contains(out, "<20>"); ++i)
        out = nmblookup({"-A", "10.88.0.1"});
    EXPECT_TRUE(contains(out, "LABHOST         <00> -         B <ACTIVE>")) << out;
    EXPECT_TRUE(contains(out, "LABHOST         <20> -         B <ACTIVE>")) << out;
}

}  // namespace
