// The name service byte for byte as other stations see it (RFC 1002 4.2):
// claims, releases, answers, defences, node status and conflicts. (Client
// lookups and status requests meet a real station in the Samba suite.)

#include "tests/support/lab.h"
#include "tests/support/nswire.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace {

const Bytes fileserv = ns_name("fileserv"), workgrp = ns_name("workgrp", 0x1e), nobody = ns_name("nobody");

// The statistics block of a positive status response for counter `c`.
Bytes statistics(uint32_t c)
{
    Bytes b{10, 88, 0, 1, 0, 0, 0, 0, 1, 1, uint8_t(c >> 8), uint8_t(c), 0, 0, 0, 0, 0, 0, 0, 0};
    for (int i = 0; i < 2; ++i)
        b.insert(b.end(), {uint8_t(c >> 24), uint8_t(c >> 16), uint8_t(c >> 8), uint8_t(c)});
    return cat(b, {0, 0, 0, 0, 0, 16, 0, 16, 0, 32, 0, 2, 0, 32, 0, 32, 0x20, 0});
}

Bytes addr_of(int station, bool daemon) { return {10, uint8_t(station == 2 ? 89 : 88), 0, uint8_t(daemon ? 1 : 2)}; }
Bytes rr(uint16_t flags, int station, bool daemon) { return nb_record(flags, addr_of(station, daemon)); }

// Our permanent name for an address, with its flags: active and permanent.
std::pair<Bytes, uint16_t> permanent(const Bytes& addr) { return {cat(cat(Bytes(10, 0), addr), {0, 0}), 0x0600}; }

// Datagrams of the given packet byte 2 for this name.
auto packet_for(uint8_t b2, const Bytes& name)
{
    return [b2, enc = wire_name(name)](const Bytes& b) {
        return b.size() >= 12 + enc.size() && b[2] == b2 && std::equal(enc.begin(), enc.end(), b.begin() + 12);
    };
}

class Wire : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 2); }

    // Asks until station 1's query is answered (not while a claim is pending).
    bool answered(const Bytes& query)
    {
        int fd = lab.udp_socket(lab_station1, 0);
        for (int i = 0; fd >= 0 && i < 60 && lab.send_to(fd, "10.88.0.255", 137, query); ++i)
            if (lab.recv(fd, 0.5))
                return true;
        return false;
    }

    // Sends `bytes` from `station` (0: the daemon's own address) to `to`, then a
    // status request for an unknown name: the answers that came before its own.
    std::vector<Bytes> exchange(int station, const char* to, const Bytes& bytes)
    {
        std::vector<Bytes> got;
        int fd = lab.udp_socket(LabSide(station), 0, station == 0 ? "10.88.0.1" : "");
        const char* daemon = Lab::daemon_addr(station);
        if (fd < 0 || !lab.send_to(fd, to ? to : daemon, 137, bytes) ||
            !lab.send_to(fd, daemon, 137, ns_status_request(0xEEEE, nobody)))
            return {{'s', 'e', 'n', 'd'}};
        Bytes end = ns_no_such_name(0xEEEE, nobody);
        for (auto d = lab.recv(fd, 20.0); d && d->bytes != end && got.size() < 10; d = lab.recv(fd, 20.0))
            got.push_back(d->bytes);
        return got;
    }

    Lab lab;
};

TEST_F(Wire, ClaimsAnswersDefencesStatusAndReleasesByteForByte)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    int fd[3] = {-1, lab.udp_socket(lab_station1, 137), lab.udp_socket(lab_station2, 137)};
    ASSERT_TRUE(fd[1] >= 0 && fd[2] >= 0) << lab.last_error();
    std::string out;
    // Claims: twice on each interface, the same id on both, the id the
    // claim's time in seconds (so the second is another).
    const struct {
        const Bytes& name;
        std::vector<std::string> add;
        uint16_t flags;
    } added[] = {{fileserv, {"add", "fileserv<20>"}, 0}, {workgrp, {"add", "workgrp<1e>", "--group"}, 0x8000}};
    for (const auto& n : added) {
        SCOPED_TRACE(n.add[1]);
        ASSERT_EQ(lab.halyardctl(n.add, &out), 0) << out;
        std::vector<LabDatagram> claims[3];
        for (int s = 1; s <= 2; ++s) {
            claims[s] = lab.collect(fd[s], 2, 20.0, packet_for(0x29, n.name));
            ASSERT_EQ(claims[s].size(), 2u) << "station " << s << "\n" << lab.log();
            for (int c = 0; c < 2; ++c) {
                EXPECT_EQ(claims[s][c].from, Lab::daemon_addr(s));
                EXPECT_EQ(claims[s][c].bytes,
                          ns_registration(ns_id(claims[1][c].bytes), 0x29, 0x10, n.name, rr(n.flags, s, true)));
            }
        }
        EXPECT_NE(ns_id(claims[1][0].bytes), ns_id(claims[1][1].bytes));
    }
    // Claims still pending are neither answered nor defended.
    ASSERT_TRUE(answered(ns_query(1, fileserv)) && answered(ns_query(2, workgrp))) << lab.log();

    // Each datagram and the answer it gets on the wire: answers carry the
    // address on the asker's subnet; defences are negative registration
    // responses (AA, RD, RA, RCODE 6). (The service's unit table holds the
    // other kinds of claim and query.)
    const char* bcast[3] = {nullptr, "10.88.0.255", "10.89.0.255"};
    Bytes padded = ns_query(0x15, fileserv);
    padded.resize(1600, 0xEE);  // cut to 1500 on receipt: still a query
    const struct {
        const char* why;
        int station;
        const char* to;  // nullptr: the daemon's address
        Bytes sent;
        std::vector<Bytes> answers;
    } cases[] = {
        {"query for a group from subnet 2", 2, bcast[2], ns_query(0x12, workgrp),
         {ns_response(0x12, 0x85, 0x00, workgrp, rr(0x8000, 2, true))}},
        {"query of 1600 bytes", 1, nullptr, padded, {ns_response(0x15, 0x85, 0x00, fileserv, rr(0, 1, true))}},
        {"unique claim of our unique name", 1, bcast[1], ns_registration(0x21, 0x29, 0x10, fileserv, rr(0, 1, false)),
         {ns_response(0x21, 0xAD, 0x86, fileserv, rr(0, 1, true))}},
        {"unique claim of our group name", 2, bcast[2], ns_registration(0x23, 0x29, 0x10, workgrp, rr(0, 2, false)),
         {ns_response(0x23, 0xAD, 0x86, workgrp, rr(0x8000, 2, true))}},
        {"group claim of our group name", 1, bcast[1],
         ns_registration(0x24, 0x29, 0x10, workgrp, rr(0x8000, 1, false)), {}},
        {"claim of a name we do not hold", 1, bcast[1], ns_registration(0x25, 0x29, 0x10, nobody, rr(0, 1, false)), {}},
        {"broadcast status request for a name we do not hold", 1, bcast[1],
         ns_status_request(0x32, ns_name("other"), 0x10), {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(exchange(c.station, c.to, c.sent), c.answers);
    }
    EXPECT_EQ(lab.halyardctl({"check", "fileserv<20>"}, &out), 0) << out;
    // Forty queries that wait together (the daemon stopped meanwhile): each answered, in order.
    int q = lab.udp_socket(lab_station1, 0);
    kill(lab.registered_pid(), SIGSTOP);
    for (uint16_t id = 0x100; id < 0x128; ++id)
        lab.send_to(q, bcast[1], 137, ns_query(id, fileserv));
    kill(lab.registered_pid(), SIGCONT);
    for (uint16_t id = 0x100; id < 0x128; ++id) {
        auto d = lab.recv(q, 20.0);
        ASSERT_EQ(d ? d->bytes : Bytes(), ns_response(id, 0x85, 0x00, fileserv, rr(0, 1, true)));
    }

    // Node status, twice from subnet 1 and once from subnet 2: the same table
    // (both names, then our permanent names), the counter one up each time.
    const std::pair<Bytes, uint16_t> ours[2] = {permanent(addr_of(1, true)), permanent(addr_of(2, true))};
    const std::vector<std::pair<Bytes, uint16_t>> table{{fileserv, 0x0400}, {workgrp, 0x8400}, ours[0], ours[1]};
    std::optional<uint32_t> last;
    for (uint16_t id = 0x1234; id < 0x1237; ++id) {
        SCOPED_TRACE(id);
        auto a = exchange(id == 0x1236 ? 2 : 1, nullptr, ns_status_request(id, fileserv));
        ASSERT_EQ(a.size(), 1u) << lab.log();
        const Bytes& r = a[0];
        ASSERT_EQ(r.size(), ns_status_answer(id, fileserv, table).size());
        uint32_t counter = uint32_t(r[r.size() - 26]) << 24 | uint32_t(r[r.size() - 25]) << 16 |
                           uint32_t(r[r.size() - 24]) << 8 | r[r.size() - 23];
        EXPECT_EQ(r, ns_status_answer(id, fileserv, table, statistics(counter)));
        EXPECT_EQ(counter, last.value_or(counter - 1) + 1);
        last = counter;
    }

    // Releases go once per interface, their ids counting from 1.
    for (uint16_t id = 1; id <= 2; ++id) {
        const auto& n = added[id - 1];
        ASSERT_EQ(lab.halyardctl({"del", n.add[1]}, &out), 0) << out;
        for (int s = 1; s <= 2; ++s) {
            auto rel = lab.collect(fd[s], 1, 20.0, packet_for(0x30, n.name));
            ASSERT_EQ(rel.size(), 1u) << "station " << s;
            EXPECT_EQ(rel[0].bytes, ns_registration(id, 0x30, 0x10, n.name, rr(n.flags, s, true)));
        }
    }

    // A registration response soon after a claim: from our own address it is
    // ignored; from a station the name is dropped and the conflict logged.
    ASSERT_EQ(lab.halyardctl({"add", "CLASH<20>"}), 0);
    const Bytes clash = ns_name("CLASH");
    ASSERT_EQ(exchange(0, nullptr, ns_response(0x55, 0xAD, 0x86, clash, rr(0, 1, true))), std::vector<Bytes>{});
    EXPECT_EQ(lab.halyardctl({"check", "CLASH<20>"}, &out), 0) << out;
    int from1234 = lab.udp_socket(lab_station1, 1234);
    ASSERT_GE(from1234, 0);
    ASSERT_EQ(unlink(lab_log_path), 0);  // the next message makes it again
    ASSERT_TRUE(lab.send_to(from1234, "10.88.0.1", 137, ns_response(0x5555, 0xAD, 0x86, clash, rr(0, 1, false))));
    EXPECT_TRUE(lab.wait_log("Halyard: name already exists on network: clash\r\n"
                             "\t        at address I(10.88.0.2.1234)")) << lab.log();
    EXPECT_EQ(lab.log_groups().size(), 1u) << lab.log();
    EXPECT_EQ(lab.halyardctl({"check", "CLASH<20>"}, &out), 1) << out;

    // A table too long for one datagram: 77 entries fit in 1500 bytes after a
    // 34-byte name, the first 75 local names, then both permanent names.
    std::vector<std::pair<Bytes, uint16_t>> names;
    for (int i = 0; i < 80; ++i) {
        char name[8];
        snprintf(name, sizeof name, "n%02d", i);
        ASSERT_EQ(lab.halyardctl({"add", name + std::string("<20>")}, &out), 0) << out;
        names.push_back({ns_name(name), 0x0400});
    }
    auto a = exchange(1, nullptr, ns_status_request(0x4444, ns_name("n00")));
    ASSERT_EQ(a.size(), 1u) << lab.log();
    names.resize(75);
    names.insert(names.end(), ours, ours + 2);
    Bytes want = ns_status_answer(0x4444, ns_name("n00"), names);
    ASSERT_EQ(a[0].size(), want.size());
    EXPECT_EQ(Bytes(a[0].begin(), a[0].end() - 46), Bytes(want.begin(), want.end() - 46));
}

// NB-interfaces all, with no address in the file: the configured name is
// claimed at start on the interface that is up, an interface brought up
// later and an address added later are claimed on and answered from, and an
// address taken away is no longer used.
TEST_F(Wire, FollowsTheInterfacesItIsToldToServe)
{
    ASSERT_EQ(lab.run(lab_daemon, {"/usr/sbin/ip", "link", "set", "hd1", "down"}), 0);
    ASSERT_TRUE(lab.write_config("[realm NB]\ntransport tcpip\n[transport tcpip]\nNB-interfaces all\n"
                                 "NB-name fileserv<20> # upper case on the wire\n"));
    int fd[3] = {-1, lab.udp_socket(lab_station1, 137), lab.udp_socket(lab_station2, 137)};
    ASSERT_TRUE(fd[1] >= 0 && fd[2] >= 0) << lab.last_error();
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    const Bytes name = ns_name("FILESERV");
    // Registration requests for the name that carry `addr`, whatever their id.
    auto claims = [&](int s, const Bytes& addr, size_t n, double seconds) {
        return lab.collect(fd[s], n, seconds, [&](const Bytes& b) {
            return b == ns_registration(ns_id(b), 0x29, 0x10, name, nb_record(0, addr));
        }).size();
    };
    ASSERT_EQ(claims(1, addr_of(1, true), 2, 20.0), 2u) << lab.log();
    ASSERT_TRUE(answered(ns_query(0x60, name))) << lab.log();
    EXPECT_EQ(exchange(1, "10.88.0.255", ns_query(0x61, name)),
              std::vector<Bytes>{ns_response(0x61, 0x85, 0x00, name, rr(0, 1, true))});

    ASSERT_EQ(lab.run(lab_daemon, {"/usr/sbin/ip", "link", "set", "hd1", "up"}), 0);
    EXPECT_EQ(claims(2, addr_of(2, true), 2, 4.0), 2u) << lab.log();
    EXPECT_EQ(exchange(2, "10.89.0.255", ns_query(0x62, name)),
              std::vector<Bytes>{ns_response(0x62, 0x85, 0x00, name, rr(0, 2, true))});

    // Our own claims on the new address come back to us: they are ours, so
    // the name stays and is answered from there.
    const Bytes added{10, 90, 0, 1};
    ASSERT_EQ(lab.run(lab_station1, {"/usr/sbin/ip", "address", "add", "10.90.0.2/24", "brd", "+", "dev", "hs0"}), 0);
    ASSERT_EQ(lab.run(lab_daemon, {"/usr/sbin/ip", "address", "add", "10.90.0.1/24", "brd", "+", "dev", "hd0"}), 0);
    EXPECT_EQ(claims(1, added, 1, 2.0), 1u) << lab.log();
    EXPECT_EQ(claims(1, added, 1, 3.0), 1u) << lab.log();
    int from90 = lab.udp_socket(lab_station1, 0, "10.90.0.2");
    ASSERT_TRUE(from90 >= 0 && lab.send_to(from90, "10.90.0.1", 137, ns_query(0x63, name)));
    auto answer = lab.recv(from90, 10.0);
    ASSERT_TRUE(answer) << lab.log();
    EXPECT_EQ(answer->from, "10.90.0.1");
    EXPECT_EQ(answer->bytes, ns_response(0x63, 0x85, 0x00, name, nb_record(0, added)));

    ASSERT_EQ(lab.run(lab_daemon, {"/usr/sbin/ip", "address", "del", "10.90.0.1/24", "dev", "hd0"}), 0);
    ASSERT_TRUE(lab.wait_log("Halyard: no longer serving 10.90.0.1", 2.0)) << lab.log();
    // A status answer lists a permanent name per address we serve.
    auto status = exchange(1, nullptr, ns_status_request(0x64, name));
    ASSERT_EQ(status.size(), 1u) << lab.log();
    auto has = [&](const Bytes& addr) {
        Bytes part = cat(permanent(addr).first, {6, 0});
        return std::search(status[0].begin(), status[0].end(), part.begin(), part.end()) != status[0].end();
    };
    EXPECT_TRUE(has(addr_of(2, true)));
    EXPECT_FALSE(has(added));
}

}  // namespace
