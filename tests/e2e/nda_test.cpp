// The name-directory agent with real daemons: the agent in the lab's middle
// namespace (10.88.0.1 and 10.89.0.1, no forwarding), a daemon on each
// station with directories of its own, and no broadcast path between them.
// Clients ask through halyardctl; the agent is also asked directly with ENS
// datagrams, as a daemon asks it.

#include "tests/support/lab.h"
#include "tests/support/ndasim.h"
#include "tests/support/paths.h"

#include <glob.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

using Bytes = ndasim::Bytes;
using Clock = std::chrono::steady_clock;

constexpr const char* nsenter = "/usr/bin/nsenter";
constexpr const char* agent_db = "/var/opt/KORRbase/nda.db";

bool wait_for(double seconds, const std::function<bool()>& cond)
{
    auto deadline = Clock::now() + std::chrono::milliseconds(int64_t(seconds * 1000));
    for (;;) {
        if (cond())
            return true;
        if (Clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

// A daemon on a station, in a mount namespace of its own (held by a
// sleeping process) with fresh places, its agent the lab's middle.
struct Peer {
    int station = 0;
    pid_t holder = -1;
    pid_t daemon = -1;
    std::string root() const { return "/proc/" + std::to_string(holder) + "/root"; }
    std::string log() const { return lab_read_file(root() + lab_log_path); }
};

class Directory : public ::testing::Test {
protected:
    void SetUp() override
    {
        LAB_SETUP_OR_SKIP(lab, 2);
        if (access(nsenter, X_OK) != 0 || access("/usr/bin/unshare", X_OK) != 0)
            GTEST_SKIP() << "needs nsenter and unshare (util-linux)";
        client = lab.udp_socket(lab_daemon, 0, "127.0.0.1");
        ASSERT_GE(client, 0) << lab.last_error();
    }

    pid_t start_agent()
    {
        pid_t pid = lab.start(lab_daemon, {HALYARD_NDA_BINARY, "-f", "-d", agent_db});
        EXPECT_GT(pid, 0) << lab.last_error();
        EXPECT_TRUE(wait_for(20, [&] { return Lab::udp_port_bound(pid, 227); }))
            << "the agent does not listen; its log:\n" << lab_read_file("/var/opt/KORRbase/log.nda");
        return pid;
    }

    void start_peer(Peer& p, int station)
    {
        p.station = station;
        p.holder = lab.start(LabSide(station),
                             {"/usr/bin/unshare", "--mount", "--propagation", "private", "/bin/sh", "-c",
                              "for d in /etc/opt /var/opt /opt; do mount -t tmpfs peer $d || exit 1; done;"
                              " mkdir -p /etc/opt/KORRbase /var/opt/KORRbase/rtdb /opt/KORRlibs/lib &&"
                              " touch /var/opt/peer-ready && exec sleep 600"});
        ASSERT_GT(p.holder, 0) << lab.last_error();
        ASSERT_TRUE(wait_for(20, [&] { return access((p.root() + "/var/opt/peer-ready").c_str(), F_OK) == 0; }));
        std::string net = station == 2 ? "10.89.0." : "10.88.0.";
        std::string config = "[realm NB]\ntransport tcpip\n\n[interface tcpip hs" + std::to_string(station - 1) +
                             "]\naddress " + net + "2\nnetmask 255.255.255.0\nbroadcast " + net +
                             "255\n\n[transport tcpip]\nNB-nd-addr " + net + "1\n";
        ASSERT_TRUE(lab.write_file(p.root() + lab_config_path, config)) << lab.last_error();
        std::string out;
        int st = lab.run(LabSide(station), {nsenter, "-t", std::to_string(p.holder), "-m", "--", halyard_binary()},
                         &out);
        ASSERT_TRUE(st != -1 && WIFEXITED(st) && WEXITSTATUS(st) == 0) << lab_describe_status(st) << out;
        ASSERT_TRUE(wait_for(20, [&] {
            p.daemon = lab_plist_pid(lab_read_file(p.root() + lab_plist_path));
            return p.daemon > 0 && access((p.root() + "/var/opt/KORRbase/ns_serverfifo").c_str(), F_OK) == 0;
        })) << p.log();
    }

    int ctl(const Peer& p, const std::vector<std::string>& args, std::string* out)
    {
        std::vector<std::string> argv{nsenter, "-t", std::to_string(p.holder), "-m", "--", HALYARDCTL_BINARY};
        argv.insert(argv.end(), args.begin(), args.end());
        int st = lab.run(LabSide(p.station), argv, out, 60.0);
        return st != -1 && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }

    // The agent's QUERY answer for a name: the owner's address, "" when it
    // answers that it knows none, "?" when it does not answer.
    std::string ask_agent(const Bytes& name)
    {
        uint32_t id = ++next_id;
        Bytes q = ndasim::header(id, ndasim::query);
        ndasim::put_name(q, name);
        ndasim::put_int(q, 0);
        if (!lab.send_to(client, "127.0.0.1", 227, q))
            return "?";
        for (int i = 0; i < 50; i++) {
            auto d = lab.recv(client, 5.0);
            if (!d)
                return "?";
            ndasim::Message m = ndasim::decode(d->bytes);
            if (m.id != id)
                continue;
            if (m.ans < 0)
                return "";
            ndasim::Reader r(d->bytes);
            r.at = 20;
            r.get_int();
            int32_t marker = r.get_int();
            std::string ip = r.get_ip();
            return r.ok && marker != 0 ? ip : "?";
        }
        return "?";
    }

    Lab lab;
    int client = -1;
    uint32_t next_id = 1000;
};

// A name added on A is found by a lookup on B; B's claim of it is refused
// while A answers for it (186/187 in B's log), and taken once A is gone.
TEST_F(Directory, NamesReachAcrossSubnetsAndStayUnique)
{
    start_agent();
    Peer a, b;
    start_peer(a, 1);
    start_peer(b, 2);
    std::string out;
    const Bytes fs = ndasim::nb_name("FILESRV", 0x20);

    ASSERT_EQ(ctl(a, {"add", "FILESRV<20>"}, &out), 0) << out;
    ASSERT_TRUE(wait_for(30, [&] { return ask_agent(fs) == "10.88.0.2"; })) << a.log();
    // The directory as its operator lists it, while the agent runs.
    ASSERT_EQ(lab.run(lab_daemon, {HALYARD_NDA_BINARY, "-l", "-j", "-d", agent_db}, &out), 0) << out;
    EXPECT_NE(out.find("{\"name\":\"FILESRV<20>\",\"group\":false,\"address\":\"10.88.0.2\""), std::string::npos)
        << out;
    ASSERT_EQ(ctl(b, {"lookup", "FILESRV<20>"}, &out), 0) << out;
    EXPECT_NE(out.find("10.88.0.2"), std::string::npos) << out;

    ASSERT_EQ(ctl(b, {"add", "FILESRV<20>"}, &out), 0) << out;
    EXPECT_TRUE(wait_for(30, [&] {
        return b.log().find("name already exists on network: filesrv") != std::string::npos &&
               b.log().find("at address 10.88.0.2") != std::string::npos;
    })) << b.log();
    EXPECT_TRUE(wait_for(10, [&] { return ctl(b, {"check", "FILESRV<20>"}, &out) == 1; })) << out;
    EXPECT_EQ(ask_agent(fs), "10.88.0.2");

    // A stops: its ENS port no longer answers the VERIFY, so B's claim wins.
    ASSERT_TRUE(lab.stop_daemon(a.daemon));
    ASSERT_EQ(ctl(b, {"add", "FILESRV<20>"}, &out), 0) << out;
    EXPECT_TRUE(wait_for(30, [&] { return ask_agent(fs) == "10.89.0.2"; })) << b.log();
    EXPECT_EQ(ctl(b, {"check", "FILESRV<20>"}, &out), 0) << out;
}

// kill -9 of the agent while registrations stream in: every one that was
// answered is there when the agent runs again.
TEST_F(Directory, KeepsEveryAnsweredRegistrationThroughAKill)
{
    pid_t agent = start_agent();
    constexpr int count = 300;
    auto name_of = [](int i) { return ndasim::nb_name("HOST" + std::to_string(i), 0x20); };
    for (int i = 0; i < count; i++) {
        Bytes add = ndasim::header(uint32_t(i + 1), ndasim::add);
        ndasim::put_name(add, name_of(i));
        ndasim::put_int(add, 0);
        ndasim::put_addr_list(add, {"10.90." + std::to_string(i / 200) + "." + std::to_string(i % 200 + 1)});
        ASSERT_TRUE(lab.send_to(client, "127.0.0.1", 227, add));
    }
    std::vector<int> answered;
    bool killed = false;
    for (;;) {
        auto d = lab.recv(client, killed ? 1.0 : 20.0);
        if (!d)
            break;
        ndasim::Message m = ndasim::decode(d->bytes);
        ASSERT_TRUE(m.response && m.action == ndasim::add && m.ans == 0) << m.describe();
        answered.push_back(int(m.id) - 1);
        if (!killed && answered.size() == count / 3) {
            kill(agent, SIGKILL);
            killed = true;
        }
    }
    ASSERT_TRUE(killed) << "only " << answered.size() << " answers";
    ASSERT_TRUE(lab.wait_exit(agent, 20));
    start_agent();
    int missing = 0;
    for (int i : answered)
        if (ask_agent(name_of(i)).empty())
            missing++;
    EXPECT_EQ(missing, 0) << "of " << answered.size() << " answered registrations";
}

}  // namespace

// ---------------------------------------------------------------------------
// Two agents on one PostgreSQL database: a throw-away cluster of the test's
// own (unix socket only, as the postgres user), claims of the same unique
// names sent to both agents at once by two stations that confirm every
// VERIFY: each name is given to exactly one of them.

class SharedDirectory : public ::testing::Test {
protected:
    void SetUp() override
    {
        LAB_SETUP_OR_SKIP(lab, 1);
        glob_t g{};
        if (glob("/usr/lib/postgresql/*/bin/initdb", 0, nullptr, &g) == 0 && g.gl_pathc > 0)
            bin = std::string(g.gl_pathv[g.gl_pathc - 1]).substr(0, strlen(g.gl_pathv[g.gl_pathc - 1]) - strlen("initdb"));
        globfree(&g);
        passwd* pw = getpwnam("postgres");
        if (bin.empty() || pw == nullptr || access("/usr/sbin/runuser", X_OK) != 0)
            GTEST_SKIP() << "needs PostgreSQL's server programs and its postgres user (package postgresql)";
        char templ[] = "/tmp/halyard-pg.XXXXXX";
        ASSERT_NE(mkdtemp(templ), nullptr);
        dir = templ;
        ASSERT_EQ(chown(dir.c_str(), pw->pw_uid, pw->pw_gid), 0);
        std::string out;
        ASSERT_EQ(as_postgres({bin + "initdb", "-D", dir + "/data", "-A", "trust", "-U", "postgres"}, &out), 0)
            << out;
        ASSERT_EQ(as_postgres({bin + "pg_ctl", "-D", dir + "/data", "-l", dir + "/log", "-w", "-o",
                               "-k " + dir + " -c listen_addresses=''", "start"},
                              &out),
                  0)
            << out << lab_read_file(dir + "/log");
        started = true;
    }

    void TearDown() override
    {
        std::string out;
        if (started)
            as_postgres({bin + "pg_ctl", "-D", dir + "/data", "-w", "-m", "immediate", "stop"}, &out);
        // A plain directory of /tmp with nothing mounted below it.
        if (!dir.empty())
            lab.run(lab_daemon, {"/bin/rm", "-rf", "--one-file-system", dir}, &out);
    }

    int as_postgres(std::vector<std::string> args, std::string* out)
    {
        args.insert(args.begin(), {"/usr/sbin/runuser", "-u", "postgres", "--"});
        int st = lab.run(lab_daemon, args, out, 120.0);
        return st != -1 && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }

    Lab lab;
    std::string bin, dir;
    bool started = false;
};

TEST_F(SharedDirectory, TwoAgentsNeverBothGiveAwayOneUniqueName)
{
    std::string conn = "host=" + dir + " dbname=postgres user=postgres";
    const uint16_t ports[2] = {227, 1227};
    for (uint16_t port : ports) {
        pid_t pid = lab.start(lab_daemon, {HALYARD_NDA_BINARY, "-f", "-p", std::to_string(port), "-d", conn});
        ASSERT_GT(pid, 0) << lab.last_error();
        ASSERT_TRUE(wait_for(30, [&] { return Lab::udp_port_bound(pid, port); }))
            << lab_read_file("/var/opt/KORRbase/log.nda");
    }
    int station[2] = {lab.udp_socket(lab_daemon, 228, "127.0.0.2"), lab.udp_socket(lab_daemon, 228, "127.0.0.3")};
    ASSERT_GE(station[0], 0) << lab.last_error();
    ASSERT_GE(station[1], 0) << lab.last_error();
    constexpr int names = 40;
    for (int i = 0; i < names; i++) {
        for (int s = 0; s < 2; s++) {
            Bytes add = ndasim::header(uint32_t(i + 1), ndasim::add);
            ndasim::put_name(add, ndasim::nb_name("RACE" + std::to_string(i), 0x20));
            ndasim::put_int(add, 0);
            ndasim::put_addr_list(add, {s == 0 ? "10.70.0.1" : "10.70.0.2"});
            ASSERT_TRUE(lab.send_to(station[s], "127.0.0.1", ports[s], add));
        }
    }
    std::map<uint32_t, int> accepted;
    int answers = 0;
    auto deadline = Clock::now() + std::chrono::seconds(60);
    while (answers < 2 * names && Clock::now() < deadline) {
        for (int s = 0; s < 2; s++) {
            auto d = lab.recv(station[s], 0.05);
            if (!d)
                continue;
            ndasim::Message m = ndasim::decode(d->bytes);
            if (!m.response && m.action == ndasim::verify) {
                // Every station holds what it was given.
                lab.send_to(station[s], d->from, d->port, ndasim::datagram(m.id, ndasim::verify | ndasim::response_bit,
                                                                           0, 0, {}));
            } else if (m.response && m.action == ndasim::add) {
                answers++;
                if (m.ans >= 0)
                    accepted[m.id]++;
            }
        }
    }
    ASSERT_EQ(answers, 2 * names);
    for (int i = 1; i <= names; i++)
        EXPECT_EQ(accepted[uint32_t(i)], 1) << "RACE" << i - 1;
}
