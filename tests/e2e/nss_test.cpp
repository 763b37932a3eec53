// The system resolver module as programs meet it: getent, with "halyard" on
// the hosts line of a private nsswitch.conf, resolving names of the daemon,
// of another station and of an agent, and several threads of one program
// resolving at once through the one answer FIFO.

#include "tests/support/lab.h"
#include "tests/support/ndasim.h"
#include "tests/support/nswire.h"

#include <gtest/gtest.h>
#include <dlfcn.h>
#include <nss.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <arpa/inet.h>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kNobody = 65534;
constexpr const char* kModuleDir = "/opt/nsslib";  // in the lab's tmpfs: every user reaches it

// The daemon with an agent at 10.88.0.5 on station 1; the built module
// where getent finds it, and a hosts line of "files halyard" for this test's
// mount namespace only.
class Resolver : public ::testing::Test {
protected:
    void SetUp() override
    {
        LAB_SETUP_OR_SKIP(lab, 1);
        std::string so = lab_read_file(HALYARD_BUILD_DIR "/nss/libnss_halyard.so.2");
        ASSERT_FALSE(so.empty());
        ASSERT_EQ(mkdir(kModuleDir, 0755), 0);
        ASSERT_TRUE(lab.write_file(std::string(kModuleDir) + "/libnss_halyard.so.2", so, 0755));
        ASSERT_TRUE(lab.write_file("/etc/opt/nsswitch.conf", "hosts: files halyard\n"));
        ASSERT_EQ(mount("/etc/opt/nsswitch.conf", "/etc/nsswitch.conf", nullptr, MS_BIND, nullptr), 0);
        bound = true;
        ASSERT_EQ(lab.run(lab_station1, {"/sbin/ip", "addr", "add", "10.88.0.5/24", "dev", "hs0"}), 0);
        ASSERT_TRUE(agent.open(lab, lab_station1, "10.88.0.5")) << lab.last_error();
        ASSERT_TRUE(lab.write_config(config));
        daemon = lab.start_daemon();
        ASSERT_GT(daemon, 0) << lab.last_error();
    }
    void TearDown() override
    {
        if (bound)
            umount2("/etc/nsswitch.conf", MNT_DETACH);
    }

    // getent hosts NAME (or another database) on the daemon's side, as
    // uid:gid: its exit status; its output in out, its seconds in took.
    int getent(const std::string& name, int uid = -1, int gid = -1, const char* db = "hosts")
    {
        auto t0 = std::chrono::steady_clock::now();
        int st = lab.run(lab_daemon, {"/usr/bin/env", "LD_LIBRARY_PATH=" + std::string(kModuleDir), "/usr/bin/getent",
                                      db, name}, &out, 20.0, uid, gid);
        took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        return st;
    }

    Lab lab;
    ndasim::Agent agent;
    const std::string config = lab.default_config() + "NB-nd-addr 10.88.0.5\n";
    pid_t daemon = -1;
    bool bound = false;
    std::string out;
    double took = 0;
};

TEST_F(Resolver, GetentResolvesThroughTheDaemon)
{
    ASSERT_EQ(lab.halyardctl({"add", "FILESERV<20>"}), 0);
    int station = lab.udp_socket(lab_station1, 137);  // any address: broadcasts reach it
    ASSERT_GE(station, 0) << lab.last_error();
    // The other station answers the daemon's query for STATION1<00> from
    // 10.88.0.2; the agent owns FARAWAY<20> at 10.88.0.7.
    auto answer_station = [&] {
        Bytes want = wire_name(ns_name("STATION1", 0x00));
        auto q = lab.collect(station, 1, 10.0, [&](const Bytes& b) {
            return std::search(b.begin(), b.end(), want.begin(), want.end()) != b.end();
        });
        Bytes rest{0, 0x20, 0, 1, 0, 0, 0x0e, 0x10, 0, 6, 0, 0, 10, 88, 0, 2};
        if (!q.empty())
            lab.send_to(station, q[0].from, q[0].port, ns_packet(uint16_t(q[0].bytes[0] << 8 | q[0].bytes[1]), 0x85, 0,
                                                                 {0, 1, 0, 0}, ns_name("STATION1", 0x00), {0}, rest));
    };
    auto answer_agent = [&] {
        using ndasim::cat, ndasim::int_item, ndasim::ip_item;
        for (auto m = agent.next(10.0, ndasim::query); m; m = agent.next(10.0, ndasim::query))
            if (m->name == ndasim::nb_name("FARAWAY", 0x20))
                return (void)agent.reply(*m, 0, 0, cat({int_item(0), int_item(1), ip_item("10.88.0.7")}));
    };

    // Found: each answered before the daemon's own 5-second wait could end.
    const struct {
        const char* name;
        const char* db;
        const char* expect;
        int uid;
        std::function<void()> other_side;
    } found[] = {
        {"fileserv", "hosts", "10.88.0.1       fileserv\n", -1, nullptr},  // local, asked in lower case
        {"FILESERV", "hosts", "10.88.0.1       FILESERV\n", kNobody, nullptr},  // by any user
        {"fileserv", "ahosts", "10.88.0.1       STREAM fileserv\n", -1, nullptr},  // through getaddrinfo
        {"station1", "hosts", "10.88.0.2       station1\n", -1, answer_station},
        {"FARAWAY", "hosts", "10.88.0.7       FARAWAY\n", -1, answer_agent},
    };
    for (const auto& f : found) {
        SCOPED_TRACE(f.name);
        std::thread responder(f.other_side ? f.other_side : [] {});
        EXPECT_EQ(getent(f.name, f.uid, f.uid, f.db), 0) << out;
        responder.join();
        EXPECT_EQ(out.substr(0, strlen(f.expect)), f.expect);
        EXPECT_LT(took, 4.0);
    }

    // Not found: an unknown name after the 2 s wait, and within it; a longer
    // wait as set; names that cannot be NetBIOS names at once, no request
    // sent (a request would cost the 3 s).
    EXPECT_EQ(getent("NOSUCHNAME"), 2 << 8) << out;
    EXPECT_TRUE(took >= 1.9 && took < 4.0) << took;
    ASSERT_TRUE(lab.write_file("/etc/opt/KORRbase/nss.conf", "# the wait\ntimeout 3\n"));
    EXPECT_EQ(getent("NOSUCHNAME"), 2 << 8) << out;
    EXPECT_GE(took, 2.9);
    for (const char* name : {"fileserv.lab", "FILESERVERNUMBER", "FILE*SERV", "FILE SERV"}) {
        EXPECT_EQ(getent(name), 2 << 8) << name << ": " << out;
        EXPECT_LT(took, 2.0) << name;
    }

    // Unavailable at once: the daemon stopped; a user outside the client
    // group (a member is served); a server FIFO that nobody reads.
    ASSERT_TRUE(lab.stop_daemon(daemon));
    EXPECT_EQ(getent("FILESERV"), 2 << 8) << out;
    EXPECT_LT(took, 2.0);
    ASSERT_TRUE(lab.write_config(config + "[realm NB]\nclient-group nogroup\n"));
    ASSERT_GT(daemon = lab.start_daemon(), 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"add", "FILESERV<20>"}), 0);
    EXPECT_EQ(getent("FILESERV", kNobody, 1), 2 << 8) << out;
    EXPECT_LT(took, 2.0);
    EXPECT_EQ(getent("FILESERV", kNobody, kNobody), 0) << out;
    ASSERT_TRUE(lab.stop_daemon(daemon));
    // The relay removes the FIFOs as it ends, after the daemon.
    ASSERT_TRUE(lab_wait_for(10, [] { return access("/var/opt/KORRbase/ns_serverfifo", F_OK) != 0; }));
    ASSERT_EQ(mkfifo("/var/opt/KORRbase/ns_serverfifo", 0622), 0);
    EXPECT_EQ(getent("FILESERV"), 2 << 8) << out;
    EXPECT_LT(took, 2.0);
}

// Eight threads of one program resolve at once, each its own name: four
// local (10.88.0.1), four of a host learned from its status answer
// (10.88.0.2). Answers of all of them share the answer FIFO; each thread
// must get its own every time.
TEST_F(Resolver, ThreadsResolvingAtOnceEachGetTheirOwnAnswer)
{
    std::vector<std::pair<Bytes, uint16_t>> learned;
    for (int i = 4; i < 8; i++)
        learned.push_back({ns_name(("THREAD" + std::to_string(i)).c_str(), 0x00), 0x0400});
    int station = lab.udp_socket(lab_station1, 137, "10.88.0.2");
    ASSERT_GE(station, 0) << lab.last_error();
    Bytes wildcard{'*', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    ASSERT_TRUE(lab.send_to(station, "10.88.0.1", 137, ns_status_answer(1, wildcard, learned)));
    for (int i = 0; i < 4; i++)
        ASSERT_EQ(lab.halyardctl({"add", "THREAD" + std::to_string(i) + "<20>"}), 0);
    ASSERT_TRUE(lab_wait_for(10.0, [&] { return lab.halyardctl({"lookup", "THREAD7<00>"}) == 0; }));

    void* so = dlopen(HALYARD_BUILD_DIR "/nss/libnss_halyard.so.2", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(so, nullptr) << dlerror();
    auto* by4 = reinterpret_cast<nss_gethostbyname4_r*>(dlsym(so, "_nss_halyard_gethostbyname4_r"));
    ASSERT_NE(by4, nullptr);
    std::atomic<bool> go{false};
    std::vector<std::string> wrong(8);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
        threads.emplace_back([&, t] {
            std::string name = "thread" + std::to_string(t);
            uint32_t expect = inet_addr(t < 4 ? "10.88.0.1" : "10.88.0.2");
            while (!go)
                std::this_thread::yield();
            for (int i = 0; i < 10; i++) {
                char buf[1024];
                gaih_addrtuple* at = nullptr;
                int err = 0, herr = 0;
                nss_status s = by4(name.c_str(), &at, buf, sizeof buf, &err, &herr, nullptr);
                if (s != NSS_STATUS_SUCCESS || at->family != AF_INET || at->addr[0] != expect || at->name != name)
                    wrong[t] += " status " + std::to_string(s) + " errno " + std::to_string(err);
            }
        });
    go = true;
    for (auto& th : threads)
        th.join();
    for (int t = 0; t < 8; t++)
        EXPECT_EQ(wrong[t], "") << "thread " << t;
    dlclose(so);
}

}  // namespace
