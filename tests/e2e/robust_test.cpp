// What any station can send, with two simulated agents so that the ENS port
// is open: malformed and mutated datagrams at both ports, unasked status
// answers, queries from 100,000 senders. After each the daemon is the same
// process, serves, and stays within its bound on resident size. Every flood
// is bounded in count and time; nothing asserts on speed.

#include "tests/support/lab.h"
#include "tests/support/ndasim.h"
#include "tests/support/nswire.h"

#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

const Bytes ours = ns_name("FLOOD"), other = ns_name("OTHER"), star = ns_name("*", 0);
const Bytes nb_rr = nb_record(0, ip_bytes("10.88.0.2"));  // station 1

// Valid datagrams of every kind the two ports take, to cut and mutate.
std::vector<Bytes> ns_seeds()
{
    return {ns_query(1, ours), ns_query(2, ns_name("ELSEWHERE")), ns_status_request(3, star),
            ns_registration(4, 0x29, 0x10, ours, nb_rr), ns_registration(5, 0x29, 0x10, other, nb_rr),
            ns_registration(6, 0x30, 0x10, other, nb_rr), ns_response(7, 0x85, 0x00, other, nb_rr),
            ns_response(8, 0xAD, 0x86, other, nb_rr),
            ns_status_answer(9, star, {{ns_name("HOSTA"), 0x0400}, {ns_name("WORKGRP", 0), 0x8400}})};
}

std::vector<Bytes> ens_seeds()
{
    using namespace ndasim;
    const Bytes owner = ip_item("10.88.0.7");
    return {datagram(11, verify, 0, 0, ndasim::cat({name_item(nb_name("FLOOD", 0x20)), ip_item("10.88.0.9")})),
            datagram(12, equiv, 0, 0, addr_list({"10.88.0.7", "10.88.0.8"})),
            datagram(13, ndasim::query | response_bit, 0, 0, ndasim::cat({int_item(0), int_item(1), owner})),
            datagram(14, ndasim::query | response_bit, -1, 0, {}),
            datagram(15, add | response_bit, -1, 1, ndasim::cat({int_item(0), owner})),
            datagram(16, del | response_bit, 0, 0, {})};
}

// One hostile datagram made from a seed.
Bytes hostile(Rng& rng, const std::vector<Bytes>& seeds)
{
    const Bytes& base = seeds[rng.below(uint32_t(seeds.size()))];
    Bytes b = base;
    switch (rng.below(6)) {
    case 0:  // random bytes, random length
        b.resize(rng.below(1600));
        for (auto& c : b)
            c = uint8_t(rng.next());
        break;
    case 1:  // cut anywhere
        b.resize(rng.below(uint32_t(base.size())));
        break;
    case 2:  // up to eight bytes changed
        for (uint32_t k = 0, n = 1 + rng.below(8); k < n; ++k)
            b[rng.below(uint32_t(b.size()))] = uint8_t(rng.next());
        break;
    case 3:  // a valid start, then junk, possibly past the 1500 bytes kept
        for (size_t k = 0, n = rng.below(1700); k < n; ++k)
            b.push_back(uint8_t(rng.next()));
        break;
    case 4:  // counts at their extremes
        for (size_t k = 4; k < 12 && k < b.size(); ++k)
            b[k] = rng.below(2) ? 0xff : uint8_t(rng.below(4));
        break;
    default:  // valid, another id
        b[0] = uint8_t(rng.next());
        break;
    }
    return b;
}

[[maybe_unused]] int64_t rss_kib(pid_t pid)  // not with the address sanitizer
{
    std::string s = lab_read_file("/proc/" + std::to_string(pid) + "/status");
    size_t at = s.find("\nVmRSS:");
    return at == std::string::npos ? -1 : strtoll(s.c_str() + at + 7, nullptr, 10);
}

class Robust : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 1); }

    // Two agents, the route to the flood's senders, our name claimed and registered.
    void start(const char* trace)
    {
        for (const char* a : {"10.88.0.5/24", "10.88.0.6/24"})
            ASSERT_EQ(lab.run(lab_station1, {"/sbin/ip", "addr", "add", a, "dev", "hs0"}), 0);
        ASSERT_EQ(lab.run(lab_daemon, {"/sbin/ip", "route", "add", "10.90.0.0/15", "via", "10.88.0.2"}), 0);
        ASSERT_TRUE(agents[0].open(lab, lab_station1, "10.88.0.5") && agents[1].open(lab, lab_station1, "10.88.0.6"));
        ASSERT_TRUE(lab.write_config(lab.default_config() + "NB-nd-addr 10.88.0.5 10.88.0.6\n"));
        pid = lab.start_daemon({"-z", trace});
        ASSERT_GT(pid, 0) << lab.last_error();
        lab_wait_for(20, [&] { return Lab::udp_port_bound(pid, 228); });
        ASSERT_EQ(lab.halyardctl({"add", "FLOOD<20>"}), 0);
        auto add = agents[0].next(20.0, ndasim::add);
        ASSERT_TRUE(add && agents[0].reply_add_accepted(*add));
        ASSERT_TRUE(answered(0x100, ours)) << lab.log();
        claimed = Clock::now();  // answered: no claim is sent any more
        raw = lab.raw_socket(lab_station1);
        fd = lab.udp_socket(lab_station1, 0);
        ASSERT_TRUE(raw >= 0 && fd >= 0) << lab.last_error();
    }

    // Asks station 1's query until answered with our address (not while the claim runs).
    bool answered(uint16_t id, const Bytes& name)
    {
        int q = lab.udp_socket(lab_station1, 0);
        for (int i = 0; q >= 0 && i < 60; ++i) {
            if (!lab.send_to(q, "10.88.0.1", 137, ns_query(id, name)))
                return false;
            for (auto d = lab.recv(q, 0.5); d; d = lab.recv(q, 0.1))
                if (d->bytes.size() >= 4 && ns_id(d->bytes) == id)
                    return Bytes(d->bytes.end() - 4, d->bytes.end()) == ip_bytes("10.88.0.1");
        }
        return false;
    }

    // Sends `b`, then a status request whose negative answer shows `b` was
    // read; the datagrams that came before that answer in *before.
    bool sent_and_read(const Bytes& b, uint16_t id, std::vector<Bytes>* before = nullptr)
    {
        Bytes want = ns_no_such_name(id, ns_name("nobody"));
        if (!lab.send_to(fd, "10.88.0.1", 137, b) ||
            !lab.send_to(fd, "10.88.0.1", 137, ns_status_request(id, ns_name("nobody"))))
            return false;
        for (auto d = lab.recv(fd, 20.0); d; d = lab.recv(fd, 20.0)) {
            if (d->bytes == want)
                return true;
            if (before != nullptr)
                before->push_back(d->bytes);
        }
        return false;
    }

    // Up to `count` hostile datagrams at both ports spread over `seconds`, a
    // valid query for our name among every 32; the count sent.
    uint64_t flood(Rng& rng, double seconds, uint64_t count)
    {
        static const std::vector<Bytes> ns = ns_seeds(), ens = ens_seeds();
        auto begin = Clock::now();
        uint64_t sent = 0;
        for (uint64_t i = 0; i < count && since(begin) < seconds; ++i) {
            double ahead = double(i) * seconds / double(count) - since(begin);
            if ((i & 255) == 0 && ahead > 0.001)
                usleep(useconds_t(ahead * 1e6));
            bool to_ens = i % 32 != 31 && rng.below(3) == 0;
            Bytes b = i % 32 == 31 ? ns_query(uint16_t(i), ours) : hostile(rng, to_ens ? ens : ns);
            sockaddr_in to{AF_INET, htons(to_ens ? 228 : 137), {htonl(0x0A580001)}, {}};
            // A full buffer loses one, uncounted; answers are thrown away.
            sent += sendto(fd, b.data(), b.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&to), sizeof to) > 0;
            for (uint8_t sink[1600]; recv(fd, sink, sizeof sink, MSG_DONTWAIT) > 0;) {
            }
        }
        return sent;
    }

    // The same process serves both kinds of users, within the README's bound on its size.
    void still_serving(const char* after)
    {
        SCOPED_TRACE(after);
        EXPECT_EQ(kill(pid, 0), 0);
        EXPECT_EQ(lab.registered_pid(), pid);
        EXPECT_TRUE(answered(0x7777, ours));
        std::string out;
        EXPECT_EQ(lab.halyardctl({"lookup", "FLOOD<20>"}, &out), 0) << out;
        EXPECT_NE(out.find("10.88.0.1"), std::string::npos) << out;
#ifndef __SANITIZE_ADDRESS__
        EXPECT_LE(rss_kib(pid), 16 * 1024);
#endif
    }

    // From sender `i` of 10.90.0.0/15 (room for 131,072, routed through station 1) to our name port.
    bool send_from(uint32_t i, const Bytes& b)
    {
        return lab.send_raw_udp(raw, htonl(0x0a5a0000u + i), 137, inet_addr("10.88.0.1"), 137, b);
    }

    size_t ens_names()
    {
        std::string d = lab.ens_table();  // "\n", then an entry a line
        return d.empty() ? size_t(-1) : size_t(std::count(d.begin(), d.end(), '\n')) - 1;
    }

    Lab lab;
    ndasim::Agent agents[2];
    pid_t pid = -1;
    int raw = -1, fd = -1;
    Clock::time_point claimed;
};

TEST_F(Robust, HostileDatagramsAtBothPortsLeaveTheDaemonServing)
{
    start("proc=3");
    // Conflicts count only within 10 s of a claim: a negative response later
    // takes nothing away, and the flood's mutated responses cannot either.
    while (since(claimed) < 11.0)
        usleep(100 * 1000);
    ASSERT_TRUE(sent_and_read(ns_response(2, 0xAD, 0x86, ours, nb_rr), 0xF000));
    std::string out;
    EXPECT_EQ(lab.halyardctl({"check", "FLOOD<20>"}, &out), 0) << out;

    // 2,000 hostile datagrams at the name port, every 50th shown read (not
    // lost in a full socket buffer).
    Rng rng{0x9e3779b9u};
    const std::vector<Bytes> seeds = ns_seeds();
    for (int i = 0; i < 2000; ++i) {
        Bytes b = hostile(rng, seeds);
        if (i % 50 < 49)
            ASSERT_TRUE(lab.send_to(fd, "10.88.0.1", 137, b));
        else
            ASSERT_TRUE(sent_and_read(b, uint16_t(0xF001 + i / 50))) << "after datagram " << i << "\n" << lab.log();
    }
    size_t log_before = lab.log().size();
    std::string trace = lab.trace();
    EXPECT_NE(trace.find("decode_npack: "), std::string::npos);  // refusals reached the decoder

    // A flood at both ports; the exit lets a sanitized build check for leaks.
    EXPECT_GT(flood(rng, 6.0, 120000), 1000u);
    still_serving("hostile datagrams");
    EXPECT_EQ(lab.halyardctl({"check", "FLOOD<20>"}, &out), 0) << out;
    EXPECT_LE(lab.log().size(), log_before + 200) << lab.log();
    int status = -1;
    EXPECT_TRUE(lab.stop_daemon(pid, 20.0, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << lab_describe_status(status);
}

// Status answers nobody asked for from many senders, then queries from
// 100,000 senders. (What an agent's refusal takes away is the agents' suite.)
TEST_F(Robust, StationsWithoutNumberTeachTheDaemonOnlyWhatItAsked)
{
    start("proc=1");
    // Answers naming our own address teach nothing, nor change a host learned
    // before: we would take our own queries, and an agent's refusal of a
    // local name, for another host's.
    const Bytes own = ndasim::permanent_name("10.88.0.1"), seven = ndasim::permanent_name("10.90.0.7");
    ASSERT_EQ(lab.halyardctl({"status", "10.88.0.1", "FLOOD<20>"}), 0);  // our own answer
    for (const auto& names : {std::vector<std::pair<Bytes, uint16_t>>{{ns_name("KNOWN"), 0x0400}, {seven, 0x0600}},
                              {{ns_name("FORGED"), 0x0400}, {own, 0x0600}, {seven, 0x0600}}})
        ASSERT_TRUE(send_from(7, ns_status_answer(1, star, names)));
    ASSERT_TRUE(sent_and_read(ns_status_answer(2, star, {{ns_name("FORGED2"), 0x0400}, {own, 0x0600}}), 0x4242));
    std::string dump = lab.ens_table();
    EXPECT_TRUE(dump.find("\nknown 10.90.0.7\n") != std::string::npos && dump.find("10.88.0.1") == std::string::npos &&
                dump.find("forged") == std::string::npos) << dump;
    size_t names = ens_names();
    // Unasked status answers of 50 names from 50,000 senders: 16 hosts are
    // learned at once and 4 a second after (plus a second for the dump).
    auto begin = Clock::now();
    std::vector<std::pair<Bytes, uint16_t>> fifty;
    for (int i = 0; i < 50; i++)
        fifty.push_back({ns_name("HOST" + std::to_string(i)), 0x0400});
    Bytes fifty_answer = ns_status_answer(1, star, fifty);
    uint32_t sent = 0;
    for (uint32_t i = 0; i < 50000 && since(begin) < 60.0; i++, i % 100 ? 0 : usleep(5000))
        sent += send_from(i, fifty_answer);
    EXPECT_GT(sent, 1000u);
    EXPECT_LE(ens_names(), names + size_t(50 * (16 + 4 * (since(begin) + 1))));
    still_serving("unasked status answers");
    // With one interface a learned name is not answered for its host.
    ASSERT_NE(lab.ens_table().find("\nhost0 10.90."), std::string::npos);
    std::vector<Bytes> before;
    ASSERT_TRUE(sent_and_read(ns_query(0x4343, ns_name("HOST0")), 0x4344, &before));
    EXPECT_TRUE(before.empty());

    // Queries from 100,000 senders, a name each (none merged), ~20,000 a second.
    sent = 0;
    begin = Clock::now();
    for (uint32_t i = 0; i < 100000 && since(begin) < 60.0; i++, i % 100 ? 0 : usleep(5000))
        sent += send_from(i, ns_query(uint16_t(i), ns_name('Q' + std::to_string(i))));
    EXPECT_GT(sent, 1000u);
    still_serving("queries from 100,000 senders");
}

// Hosts that answer the status requests we send them (asked because they
// sent a query) are all learned, as many as the benchmark's 5,000 on a /16.
TEST_F(Robust, HostsThatAnswerOurStatusRequestsAreAllLearned)
{
    start("proc=1");
    ASSERT_EQ(lab.run(lab_station1, {"/sbin/ip", "route", "add", "local", "10.78.0.0/16", "dev", "lo"}), 0);
    ASSERT_EQ(lab.run(lab_daemon, {"/sbin/ip", "route", "add", "10.78.0.0/16", "via", "10.88.0.2"}), 0);
    std::string out;
    EXPECT_EQ(lab.run(lab_station1, {HALYARD_BUILD_DIR "/bench/halyard-hostsim", "--target", "10.88.0.1", "--net",
                                     "10.78", "--hosts", "5000"}, &out, 120.0), 0) << out;
    size_t names = ens_names();
    EXPECT_TRUE(names != size_t(-1) && names >= 3 * 5000) << names << "\n" << out;  // three names each
    still_serving("5,000 hosts learned");
}

}  // namespace
