// The name service byte for byte as other stations see it (RFC 1002 4.2):
// claims and releases broadcast on both subnets, answers to queries,
// defences, node status, and a burst of malformed datagrams.

#include "tests/support/lab.h"
#include "tests/support/nswire.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <thread>
#include <string>
#include <vector>

namespace {

void put16(Bytes& b, uint16_t v)
{
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v & 0xff));
}

void put32(Bytes& b, uint32_t v)
{
    put16(b, uint16_t(v >> 16));
    put16(b, uint16_t(v & 0xffff));
}

void append(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }

// The 16-byte NetBIOS name: 15 characters padded with blanks, then the type.
Bytes raw_name(const std::string& name, uint8_t type)
{
    std::string padded = name;
    padded.resize(15, ' ');
    Bytes out(padded.begin(), padded.end());
    out.push_back(type);
    return out;
}

// RFC 1001 14.1 first-level encoding with the scope's labels and the root.
Bytes encoded(const std::string& name, uint8_t type, const std::string& scope = "")
{
    Bytes out{32};
    for (uint8_t c : raw_name(name, type)) {
        out.push_back(uint8_t('A' + (c >> 4)));
        out.push_back(uint8_t('A' + (c & 15)));
    }
    size_t start = 0;
    while (!scope.empty() && start <= scope.size()) {
        size_t dot = scope.find('.', start);
        if (dot == std::string::npos)
            dot = scope.size();
        out.push_back(uint8_t(dot - start));
        out.insert(out.end(), scope.begin() + long(start), scope.begin() + long(dot));
        start = dot + 1;
    }
    out.push_back(0);
    return out;
}

Bytes header(uint16_t id, uint8_t b2, uint8_t b3, uint16_t qd, uint16_t an, uint16_t ns,
             uint16_t ar)
{
    Bytes b;
    put16(b, id);
    b.push_back(b2);
    b.push_back(b3);
    put16(b, qd);
    put16(b, an);
    put16(b, ns);
    put16(b, ar);
    return b;
}

// An NB record's fixed part after its name: NB, IN, TTL 0, RDLENGTH 6, flags, address.
Bytes nb_rr_tail(uint16_t flags, const Bytes& addr)
{
    Bytes b;
    put16(b, 0x0020);
    put16(b, 0x0001);
    put32(b, 0);
    put16(b, 6);
    put16(b, flags);
    append(b, addr);
    return b;
}

// A registration or release request (RFC 1002 4.2.2 / 4.2.9), the additional
// record's name a pointer to the question.
Bytes registration(uint16_t id, uint8_t b2, const std::string& name, uint8_t type,
                   uint16_t flags, const Bytes& addr, const std::string& scope = "")
{
    Bytes b = header(id, b2, 0x10, 1, 0, 0, 1);
    append(b, encoded(name, type, scope));
    put16(b, 0x0020);
    put16(b, 0x0001);
    append(b, {0xC0, 0x0C});
    append(b, nb_rr_tail(flags, addr));
    return b;
}

Bytes name_query(uint16_t id, const std::string& name, uint8_t type,
                 const std::string& scope = "")
{
    Bytes b = header(id, 0x01, 0x10, 1, 0, 0, 0);
    append(b, encoded(name, type, scope));
    put16(b, 0x0020);
    put16(b, 0x0001);
    return b;
}

Bytes status_request(uint16_t id, const std::string& name, uint8_t type, bool broadcast)
{
    Bytes b = header(id, 0x00, broadcast ? 0x10 : 0x00, 1, 0, 0, 0);
    append(b, encoded(name, type));
    put16(b, 0x0021);
    put16(b, 0x0001);
    return b;
}

// A one-record response (query answer, defence, registration response).
Bytes nb_response(uint16_t id, uint8_t b2, uint8_t b3, const std::string& name, uint8_t type,
                  uint16_t flags, const Bytes& addr, const std::string& scope = "")
{
    Bytes b = header(id, b2, b3, 0, 1, 0, 0);
    append(b, encoded(name, type, scope));
    append(b, nb_rr_tail(flags, addr));
    return b;
}

Bytes addr_of(int station, bool daemon)
{
    return {10, uint8_t(station == 2 ? 89 : 88), 0, uint8_t(daemon ? 1 : 2)};
}

uint16_t id_of(const Bytes& b) { return b.size() >= 2 ? uint16_t(b[0] << 8 | b[1]) : 0; }

class Wire : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 2); }


    // Datagrams on fd that satisfy `want`, until `count` of them came or
    // `seconds` passed; others are dropped.
    std::vector<LabDatagram> collect(int fd, size_t count, double seconds,
                                     const std::function<bool(const Bytes&)>& want)
    {
        std::vector<LabDatagram> got;
        auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        for (int i = 0; i < 10000 && got.size() < count; ++i) {
            double left =
                std::chrono::duration<double>(until - std::chrono::steady_clock::now()).count();
            if (left <= 0)
                break;
            auto d = lab.recv(fd, left);
            if (!d)
                break;
            if (want(d->bytes))
                got.push_back(*d);
        }
        return got;
    }

    // Asks (repeatedly: a name is not answered while its claim is pending)
    // until a query for `name` sent from `station` is answered.
    std::optional<LabDatagram> ask_until_answered(int station, const Bytes& query)
    {
        int fd = lab.udp_socket(station == 2 ? lab_station2 : lab_station1, 0);
        if (fd < 0)
            return std::nullopt;
        std::string bcast = station == 2 ? "10.89.0.255" : "10.88.0.255";
        for (int i = 0; i < 60; ++i) {
            if (!lab.send_to(fd, bcast, 137, query))
                return std::nullopt;
            auto d = lab.recv(fd, 0.5);
            if (d)
                return d;
        }
        return std::nullopt;
    }

    Lab lab;
};

// Is this datagram of the given packet byte 2 and for this 16-byte name?
bool is_packet_for(const Bytes& b, uint8_t b2, const std::string& name, uint8_t type)
{
    Bytes enc = encoded(name, type);
    return b.size() >= 12 + enc.size() && b[2] == b2 &&
           Bytes(b.begin() + 12, b.begin() + 12 + long(enc.size())) == enc;
}

TEST_F(Wire, ClaimsAndReleasesAreBroadcastOnEveryInterface)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    int fd[3] = {-1, lab.udp_socket(lab_station1, 137), lab.udp_socket(lab_station2, 137)};
    ASSERT_GE(fd[1], 0) << lab.last_error();
    ASSERT_GE(fd[2], 0) << lab.last_error();

    struct Case {
        const char* arg;
        const char* name;
        uint8_t type;
        bool group;
    } cases[] = {{"fileserv<20>", "fileserv", 0x20, false},
                 {"workgrp<1e>", "workgrp", 0x1e, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arg);
        std::string out;
        std::vector<std::string> args{"add", c.arg};
        if (c.group)
            args.push_back("--group");
        ASSERT_EQ(lab.halyardctl(args, &out), 0) << out;
        std::vector<LabDatagram> got[3];
        for (int s = 1; s <= 2; ++s) {
            got[s] = collect(fd[s], 2, 20.0,
                             [&](const Bytes& b) { return is_packet_for(b, 0x29, c.name, c.type); });
            ASSERT_EQ(got[s].size(), 2u) << "station " << s << "\n" << lab.log();
        }
        for (int k = 0; k < 2; ++k) {
            uint16_t id = id_of(got[1][k].bytes);
            EXPECT_EQ(id_of(got[2][k].bytes), id) << "claim " << k;
            for (int s = 1; s <= 2; ++s) {
                SCOPED_TRACE("station " + std::to_string(s) + ", claim " + std::to_string(k));
                EXPECT_EQ(got[s][k].from, Lab::daemon_addr(s));
                EXPECT_EQ(got[s][k].bytes.size(), 68u);
                EXPECT_EQ(got[s][k].bytes, registration(id, 0x29, c.name, c.type,
                                                        c.group ? 0x8000 : 0, addr_of(s, true)));
            }
        }
        // The id is the claim's time in seconds: the second claim is later.
        EXPECT_NE(id_of(got[1][0].bytes), id_of(got[1][1].bytes));
    }

    // Releases carry ids 1, 2, 3 from the daemon's start, once per interface.
    ASSERT_EQ(lab.halyardctl({"add", "third<20>"}), 0);
    struct Del {
        const char* arg;
        const char* name;
        uint8_t type;
        uint16_t flags;
    } dels[] = {{"fileserv<20>", "fileserv", 0x20, 0},
                {"workgrp<1e>", "workgrp", 0x1e, 0x8000},
                {"third<20>", "third", 0x20, 0}};
    uint16_t id = 1;
    for (const auto& d : dels) {
        SCOPED_TRACE(d.arg);
        std::string out;
        ASSERT_EQ(lab.halyardctl({"del", d.arg}, &out), 0) << out;
        for (int s = 1; s <= 2; ++s) {
            auto got = collect(fd[s], 1, 20.0,
                               [&](const Bytes& b) { return is_packet_for(b, 0x30, d.name, d.type); });
            ASSERT_EQ(got.size(), 1u) << "station " << s;
            EXPECT_EQ(got[0].bytes,
                      registration(id, 0x30, d.name, d.type, d.flags, addr_of(s, true)))
                << "station " << s;
        }
        ++id;
    }
}

TEST_F(Wire, QueriesAreAnsweredWithTheAddressOnTheAskersSubnetAndScope)
{
    ASSERT_TRUE(lab.write_config(lab.default_config() + "NB-scope Corp.Example\n"));
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    int watch = lab.udp_socket(lab_station2, 137);
    ASSERT_GE(watch, 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"add", "fileserv<20>"}), 0);
    // The claim carries the scope as written: 34 + N, N = 33 + 5 + 8 + 1.
    auto claim = collect(watch, 1, 20.0, [](const Bytes& b) { return b.size() > 2 && b[2] == 0x29; });
    ASSERT_EQ(claim.size(), 1u) << lab.log();
    EXPECT_EQ(claim[0].bytes, registration(id_of(claim[0].bytes), 0x29, "fileserv", 0x20, 0,
                                           addr_of(2, true), "Corp.Example"));
    EXPECT_EQ(claim[0].bytes.size(), 81u);
    ASSERT_EQ(lab.halyardctl({"add", "workgrp<1e>", "--group"}), 0);

    for (int s = 1; s <= 2; ++s) {
        SCOPED_TRACE("station " + std::to_string(s));
        // The scope differs only in letter case: it matches.
        auto a = ask_until_answered(s, name_query(0x4242, "fileserv", 0x20, "corp.EXAMPLE"));
        ASSERT_TRUE(a.has_value()) << lab.log();
        EXPECT_EQ(a->from, Lab::daemon_addr(s));
        EXPECT_EQ(a->bytes, nb_response(0x4242, 0x85, 0x00, "fileserv", 0x20, 0,
                                        addr_of(s, true), "Corp.Example"));
        a = ask_until_answered(s, name_query(0x0102, "workgrp", 0x1e, "Corp.Example"));
        ASSERT_TRUE(a.has_value()) << lab.log();
        EXPECT_EQ(a->bytes, nb_response(0x0102, 0x85, 0x00, "workgrp", 0x1e, 0x8000,
                                        addr_of(s, true), "Corp.Example"));
    }

    // An asker on no subnet of the daemon's (10.90.0.2, behind hd1) gets the
    // first own address.
    ASSERT_EQ(lab.run(lab_station2, {"/sbin/ip", "addr", "add", "10.90.0.2/24", "dev", "hs1"}), 0);
    ASSERT_EQ(lab.run(lab_daemon, {"/sbin/ip", "route", "add", "10.90.0.0/24", "dev", "hd1"}), 0);
    int far = lab.udp_socket(lab_station2, 0, "10.90.0.2");
    ASSERT_GE(far, 0) << lab.last_error();
    ASSERT_TRUE(lab.send_to(far, "10.89.0.1", 137, name_query(0x0909, "fileserv", 0x20, "Corp.Example")));
    auto f = lab.recv(far, 10.0);
    ASSERT_TRUE(f.has_value()) << lab.log();
    EXPECT_EQ(f->bytes, nb_response(0x0909, 0x85, 0x00, "fileserv", 0x20, 0, addr_of(1, true),
                                    "Corp.Example"));

    // Another scope, or none, gets no answer, neither to a query nor to a
    // registration; a claim in the same scope (other letter case) is defended.
    int fd = lab.udp_socket(lab_station1, 0);
    ASSERT_GE(fd, 0);
    for (const char* scope : {"other.example", "", "corp.example.net"}) {
        SCOPED_TRACE(scope);
        ASSERT_TRUE(lab.send_to(fd, "10.88.0.255", 137, name_query(7, "fileserv", 0x20, scope)));
        EXPECT_FALSE(lab.recv(fd, 1.0).has_value());
        ASSERT_TRUE(lab.send_to(fd, "10.88.0.255", 137,
                                registration(8, 0x29, "fileserv", 0x20, 0, addr_of(1, false),
                                             scope)));
        EXPECT_FALSE(lab.recv(fd, 1.0).has_value());
    }
    ASSERT_TRUE(lab.send_to(fd, "10.88.0.255", 137,
                            registration(9, 0x29, "fileserv", 0x20, 0, addr_of(1, false),
                                         "CORP.example")));
    auto d = lab.recv(fd, 10.0);
    ASSERT_TRUE(d.has_value()) << lab.log();
    EXPECT_EQ(d->bytes, nb_response(9, 0xAD, 0x86, "fileserv", 0x20, 0, addr_of(1, true),
                                    "Corp.Example"));
}

TEST_F(Wire, LocalNamesAreDefendedAndGivenUpOnAConflict)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"add", "fileserv<20>"}), 0);
    ASSERT_EQ(lab.halyardctl({"add", "workgrp<1e>", "--group"}), 0);
    // Claims still pending are not defended: wait until both are owned.
    ASSERT_TRUE(ask_until_answered(1, name_query(1, "fileserv", 0x20)).has_value()) << lab.log();
    ASSERT_TRUE(ask_until_answered(1, name_query(2, "workgrp", 0x1e)).has_value()) << lab.log();

    struct Case {
        int station;
        const char* name;
        uint8_t type;
        uint16_t claim_flags;
        bool defended;
        uint16_t local_flags;
    } cases[] = {
        {1, "fileserv", 0x20, 0, true, 0},
        {2, "fileserv", 0x20, 0x8000, true, 0},   // a group claim for a unique name
        {2, "workgrp", 0x1e, 0, true, 0x8000},    // a unique claim for a group name
        {1, "workgrp", 0x1e, 0x8000, false, 0},   // group names are shared
        {1, "nobody", 0x20, 0, false, 0},
    };
    uint16_t id = 0x3100;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " from station " + std::to_string(c.station) +
                     (c.claim_flags ? " as group" : " as unique"));
        int fd = lab.udp_socket(c.station == 2 ? lab_station2 : lab_station1, 0);
        ASSERT_GE(fd, 0);
        ++id;
        ASSERT_TRUE(lab.send_to(fd, c.station == 2 ? "10.89.0.255" : "10.88.0.255", 137,
                                registration(id, 0x29, c.name, c.type, c.claim_flags,
                                             addr_of(c.station, false))));
        auto a = lab.recv(fd, c.defended ? 10.0 : 1.0);
        if (!c.defended) {
            EXPECT_FALSE(a.has_value());
            continue;
        }
        ASSERT_TRUE(a.has_value()) << lab.log();
        EXPECT_EQ(a->from, Lab::daemon_addr(c.station));
        // Negative registration response: AA, RD, RA, RCODE 6 (active error).
        EXPECT_EQ(a->bytes, nb_response(id, 0xAD, 0x86, c.name, c.type, c.local_flags,
                                        addr_of(c.station, true)));
    }
    std::string out;
    EXPECT_EQ(lab.halyardctl({"check", "fileserv<20>"}, &out), 0) << out;

    // A registration response from a station soon after a claim: the name is
    // dropped and the conflict logged with the name's text form (capitals
    // shown in lower case) and the sender's address and port.
    ASSERT_EQ(lab.halyardctl({"add", "CLASH<20>"}), 0);
    int fd = lab.udp_socket(lab_station1, 1234);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(lab.send_to(fd, "10.88.0.1", 137,
                            nb_response(0x5555, 0xAD, 0x86, "CLASH", 0x20, 0, addr_of(1, false))));
    ASSERT_TRUE(lab.wait_log("name already exists on network")) << lab.log();
    bool found = false;
    for (const auto& g : lab.log_groups()) {
        for (size_t i = 0; i + 1 < g.messages.size(); ++i) {
            if (g.messages[i] == "Halyard: name already exists on network: clash") {
                found = true;
                EXPECT_EQ(g.messages[i + 1], "        at address I(10.88.0.2.1234)");
            }
        }
    }
    EXPECT_TRUE(found) << lab.log();
    EXPECT_EQ(lab.halyardctl({"check", "CLASH<20>"}, &out), 1) << out;
    EXPECT_EQ(lab.halyardctl({"check", "fileserv<20>"}, &out), 0) << out;
}

// Sends `bytes` from fd to the daemon's first address, then a directed
// status request for an unknown name from the same socket; its negative
// answer shows that the daemon has handled the first datagram.
::testing::AssertionResult send_and_sync(Lab& lab, int fd, const Bytes& bytes, uint16_t id)
{
    if (!lab.send_to(fd, "10.88.0.1", 137, bytes) ||
        !lab.send_to(fd, "10.88.0.1", 137, status_request(id, "nobody", 0x20, false)))
        return ::testing::AssertionFailure() << "send failed";
    for (int i = 0; i < 100; ++i) {
        auto d = lab.recv(fd, 20.0);
        if (!d)
            break;
        if (d->bytes.size() >= 4 && id_of(d->bytes) == id && d->bytes[2] == 0x84 &&
            d->bytes[3] == 0x03)
            return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "no answer to the status request";
}

TEST_F(Wire, ConflictsFromItselfOrLaterThanTenSecondsAreIgnored)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    int watch = lab.udp_socket(lab_station1, 137);
    ASSERT_GE(watch, 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"add", "keep<20>"}), 0);
    auto claims = collect(watch, 2, 20.0, [](const Bytes& b) { return is_packet_for(b, 0x29, "keep", 0x20); });
    ASSERT_EQ(claims.size(), 2u) << lab.log();
    auto last_claim_seen = std::chrono::steady_clock::now();

    // A registration response that comes from the daemon's own address.
    int own = lab.udp_socket(lab_daemon, 0, "10.88.0.1");
    ASSERT_GE(own, 0) << lab.last_error();
    EXPECT_TRUE(send_and_sync(lab, own,
                              nb_response(1, 0xAD, 0x86, "keep", 0x20, 0, addr_of(1, true)), 0x6001));
    std::string out;
    EXPECT_EQ(lab.halyardctl({"check", "keep<20>"}, &out), 0) << out;

    // One from a station, but more than 10 s after the latest claim.
    std::this_thread::sleep_until(last_claim_seen + std::chrono::seconds(12));
    int fd = lab.udp_socket(lab_station1, 0);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(send_and_sync(lab, fd,
                              nb_response(2, 0xAD, 0x86, "keep", 0x20, 0, addr_of(1, false)), 0x6002));
    EXPECT_EQ(lab.halyardctl({"check", "keep<20>"}, &out), 0) << out;
    EXPECT_EQ(lab.log().find("already exists"), std::string::npos) << lab.log();
}

// The statistics block of a positive status response for `counter`.
Bytes statistics(uint32_t counter)
{
    Bytes b{10, 88, 0, 1, 0, 0, 0, 0};
    put16(b, 0x0101);
    put16(b, uint16_t(counter));
    for (int i = 0; i < 4; ++i)
        put16(b, 0);
    put32(b, counter);
    put32(b, counter);
    for (uint16_t v : {0, 0, 16, 16, 32, 2, 32, 32, 8192})
        put16(b, v);
    return b;
}

TEST_F(Wire, NodeStatusRequestsAreAnswered)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"add", "fileserv<20>"}), 0);
    ASSERT_EQ(lab.halyardctl({"add", "workgrp<1e>", "--group"}), 0);
    int fd = lab.udp_socket(lab_station1, 0);
    ASSERT_GE(fd, 0);
    int fd2 = lab.udp_socket(lab_station2, 0);
    ASSERT_GE(fd2, 0);

    // Two rounds from station 1, one from station 2: the same table, the
    // counter one up each time.
    std::optional<uint32_t> last;
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        uint16_t id = uint16_t(0x1234 + round);
        int sfd = round == 2 ? fd2 : fd;
        ASSERT_TRUE(lab.send_to(sfd, round == 2 ? "10.89.0.1" : "10.88.0.1", 137,
                                status_request(id, "fileserv", 0x20, false)));
        auto a = lab.recv(sfd, 10.0);
        ASSERT_TRUE(a.has_value()) << lab.log();
        const Bytes& r = a->bytes;
        ASSERT_EQ(r.size(), 12u + 34 + 10 + 1 + 18 * 4 + 46);
        Bytes want = header(id, 0x84, 0x00, 0, 1, 0, 0);
        append(want, encoded("fileserv", 0x20));
        put16(want, 0x0021);
        put16(want, 0x0001);
        put32(want, 0);
        put16(want, 18 * 4 + 47);
        want.push_back(4);
        append(want, raw_name("fileserv", 0x20));
        put16(want, 0x0400);
        append(want, raw_name("workgrp", 0x1e));
        put16(want, 0x8400);
        for (int s = 1; s <= 2; ++s) {
            append(want, Bytes(10, 0));
            append(want, addr_of(s, true));
            append(want, {0, 0});
            put16(want, 0x0600);
        }
        // Everything but the statistics, then those with the counter read back.
        ASSERT_EQ(Bytes(r.begin(), r.end() - 46), want);
        uint32_t counter = uint32_t(r[r.size() - 26]) << 24 | uint32_t(r[r.size() - 25]) << 16 |
                           uint32_t(r[r.size() - 24]) << 8 | r[r.size() - 23];
        EXPECT_EQ(Bytes(r.end() - 46, r.end()), statistics(counter));
        if (last) {
            EXPECT_EQ(counter, *last + 1);
        }
        last = counter;
    }

    // A directed request for an unknown name: RCODE 3 with a NULL record.
    ASSERT_TRUE(lab.send_to(fd, "10.88.0.1", 137, status_request(0x0909, "nobody", 0x20, false)));
    auto a = lab.recv(fd, 10.0);
    ASSERT_TRUE(a.has_value()) << lab.log();
    Bytes want = header(0x0909, 0x84, 0x03, 0, 1, 0, 0);
    append(want, encoded("nobody", 0x20));
    put16(want, 0x000A);
    put16(want, 0x0001);
    put32(want, 0);
    put16(want, 0);
    EXPECT_EQ(a->bytes, want);

    // A broadcast one for an unknown name goes unanswered.
    ASSERT_TRUE(lab.send_to(fd, "10.88.0.255", 137, status_request(0x0a0a, "nobody", 0x20, true)));
    EXPECT_FALSE(lab.recv(fd, 1.0).has_value());
}

TEST_F(Wire, ALongTableIsAnsweredInPartWithinOneDatagram)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    char name[16];
    for (int i = 0; i < 80; ++i) {
        snprintf(name, sizeof name, "n%02d<20>", i);
        std::string out;
        ASSERT_EQ(lab.halyardctl({"add", name}, &out), 0) << out;
    }
    int fd = lab.udp_socket(lab_station1, 0);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(lab.send_to(fd, "10.88.0.1", 137, status_request(0x4444, "n00", 0x20, false)));
    auto a = lab.recv(fd, 10.0);
    ASSERT_TRUE(a.has_value()) << lab.log();
    const Bytes& r = a->bytes;
    // 77 entries fit in 1500 bytes after a 34-byte name: the first 75 local
    // names, then both permanent names.
    ASSERT_EQ(r.size(), 12u + 34 + 10 + 1 + 18 * 77 + 46);
    EXPECT_EQ(r[12 + 34 + 8], (18 * 77 + 47) >> 8);
    EXPECT_EQ(r[12 + 34 + 9], (18 * 77 + 47) & 0xff);
    EXPECT_EQ(r[12 + 34 + 10], 77);
    size_t at = 12 + 34 + 11;
    for (int i = 0; i < 75; ++i, at += 18) {
        snprintf(name, sizeof name, "n%02d", i);
        Bytes want = raw_name(name, 0x20);
        put16(want, 0x0400);
        ASSERT_EQ(Bytes(r.begin() + long(at), r.begin() + long(at) + 18), want) << "entry " << i;
    }
    for (int s = 1; s <= 2; ++s, at += 18) {
        Bytes want(10, 0);
        append(want, addr_of(s, true));
        append(want, {0, 0, 0x06, 0x00});
        EXPECT_EQ(Bytes(r.begin() + long(at), r.begin() + long(at) + 18), want) << "address " << s;
    }
    EXPECT_EQ(Bytes(r.begin() + long(at), r.begin() + long(at) + 10),
              (Bytes{10, 88, 0, 1, 0, 0, 0, 0, 0x01, 0x01}));
}

TEST_F(Wire, LocalLookupsAndStatusRequestsGoOnTheWire)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    int fd[3] = {-1, lab.udp_socket(lab_station1, 137), lab.udp_socket(lab_station2, 137)};
    ASSERT_GE(fd[1], 0) << lab.last_error();
    ASSERT_GE(fd[2], 0) << lab.last_error();

    // Query ids count from 0; the station that answers is the one asked.
    struct Case {
        const char* arg;
        const char* name;
        uint8_t type;
        uint16_t id;
        int answering;
        uint16_t flags;
    } cases[] = {{"printsrv<20>", "printsrv", 0x20, 0, 1, 0},
                 {"team<1e>", "team", 0x1e, 1, 2, 0x8000}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arg);
        std::string out;
        int st = -1;
        std::thread client([&] { st = lab.halyardctl({"lookup", c.arg}, &out); });
        std::vector<LabDatagram> got[3];
        for (int s = 1; s <= 2; ++s)
            got[s] = collect(fd[s], 1, 20.0, [&](const Bytes& b) { return is_packet_for(b, 0x01, c.name, c.type); });
        if (!got[1].empty() && !got[2].empty()) {
            for (int s = 1; s <= 2; ++s) {
                EXPECT_EQ(got[s][0].from, Lab::daemon_addr(s));
                EXPECT_EQ(got[s][0].bytes, name_query(c.id, c.name, c.type));
            }
            const LabDatagram& q = got[c.answering][0];
            EXPECT_TRUE(lab.send_to(fd[c.answering], q.from, q.port,
                                    nb_response(id_of(q.bytes), 0x85, 0x00, c.name, c.type,
                                                c.flags,
                                                addr_of(c.answering, false))));
        }
        client.join();
        ASSERT_EQ(got[1].size(), 1u) << lab.log();
        ASSERT_EQ(got[2].size(), 1u) << lab.log();
        EXPECT_EQ(st, 0) << out;
        EXPECT_NE(out.find(Lab::station_addr(c.answering)), std::string::npos) << out;
    }

    // A status request goes to the station's address alone; its answer's names
    // reach the client.
    std::string out;
    int st = -1;
    std::thread client([&] { st = lab.halyardctl({"status", "10.88.0.2"}, &out); });
    auto got = collect(fd[1], 1, 20.0, [](const Bytes& b) {
        return b.size() >= 4 && b[2] == 0x00 && b[3] == 0x00;
    });
    if (got.size() == 1) {
        const Bytes& r = got[0].bytes;
        EXPECT_EQ(got[0].from, "10.88.0.1");
        EXPECT_EQ(r.size(), 12u + 34 + 4);
        EXPECT_EQ(Bytes(r.begin(), r.begin() + 12), header(0, 0x00, 0x00, 1, 0, 0, 0));
        EXPECT_EQ(Bytes(r.end() - 4, r.end()), (Bytes{0x00, 0x21, 0x00, 0x01}));
        // The wildcard name: "*" and 15 zero bytes, "CK" then 30 "A"s.
        Bytes wildcard{32, 'C', 'K'};
        wildcard.insert(wildcard.end(), 30, 'A');
        wildcard.push_back(0);
        EXPECT_EQ(Bytes(r.begin() + 12, r.end() - 4), wildcard);
        Bytes answer = header(id_of(r), 0x84, 0x00, 0, 1, 0, 0);
        append(answer, Bytes(r.begin() + 12, r.end() - 4));
        put16(answer, 0x0021);
        put16(answer, 0x0001);
        put32(answer, 0);
        put16(answer, 18 * 2 + 47);
        answer.push_back(2);
        append(answer, raw_name("STATION1", 0x20));
        put16(answer, 0x0400);
        append(answer, raw_name("WORKGROUP", 0x1e));
        put16(answer, 0x8400);
        append(answer, statistics(5));
        EXPECT_TRUE(lab.send_to(fd[1], got[0].from, got[0].port, answer));
    }
    client.join();
    ASSERT_EQ(got.size(), 1u) << lab.log();
    EXPECT_EQ(st, 0) << out;
    EXPECT_NE(out.find("STATION1"), std::string::npos) << out;
    EXPECT_NE(out.find("WORKGROUP"), std::string::npos) << out;
    EXPECT_NE(out.find("good sends 5"), std::string::npos) << out;
}

TEST_F(Wire, MalformedDatagramsDoNotStopTheService)
{
    pid_t pid = lab.start_daemon({"-z", "proc=3"});
    ASSERT_GT(pid, 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"add", "fileserv<20>"}), 0);
    ASSERT_TRUE(ask_until_answered(1, name_query(1, "fileserv", 0x20)).has_value()) << lab.log();

    const Bytes valid[] = {
        name_query(9, "fileserv", 0x20),
        status_request(9, "fileserv", 0x20, false),
        registration(9, 0x29, "fileserv", 0x20, 0, addr_of(1, false)),
        nb_response(9, 0xAD, 0x86, "other", 0x20, 0, addr_of(1, false)),
        registration(9, 0x30, "fileserv", 0x20, 0, addr_of(1, false)),
    };
    int fd = lab.udp_socket(lab_station1, 0);
    ASSERT_GE(fd, 0);
    Rng rng{0x9e3779b9u};
    for (int i = 0; i < 2000; ++i) {
        Bytes b;
        const Bytes& base = valid[i % 5];
        switch ((i / 5) % 8) {
        case 0:  // truncated anywhere
            b.assign(base.begin(), base.begin() + long(rng.below(uint32_t(base.size()))));
            break;
        case 1: {  // oversized: a valid start, then random bytes up to 1600
            b = base;
            size_t len = 1400 + rng.below(201);
            while (b.size() < len)
                b.push_back(uint8_t(rng.next()));
            break;
        }
        case 2: {  // random, random length
            size_t len = rng.below(1601);
            for (size_t k = 0; k < len; ++k)
                b.push_back(uint8_t(rng.next()));
            break;
        }
        case 3: {  // a label claiming more bytes than the datagram holds
            b = header(9, base[2], base[3], 1, uint16_t(rng.below(3)), 0, 1);
            b.push_back(uint8_t(0x20 + rng.below(32)));
            for (int k = 0; k < int(rng.below(40)); ++k)
                b.push_back('A');
            break;
        }
        case 4: {  // compression pointers where names belong: loops, forward, past the end
            b = header(9, base[2], base[3], 1, 1, 0, 1);
            uint16_t ptr = uint16_t(0xC000 | (rng.below(3) == 0 ? 12 : rng.below(0x3fff)));
            put16(b, ptr);
            put16(b, 0x0020);
            put16(b, 0x0001);
            put16(b, 0xC000 | uint16_t(rng.below(0x3fff)));
            append(b, nb_rr_tail(0, addr_of(1, false)));
            break;
        }
        case 5: {  // a well-formed name whose text form outgrows any name area:
                   // up to 1400 bytes of 63-byte labels of dots, backslashes
                   // or control bytes, which print longer than they are
            b = header(9, base[2], base[3], 1, 0, 0, 0);
            Bytes first = encoded("fileserv", 0x20);
            b.insert(b.end(), first.begin(), first.end() - 1);
            size_t len = 200 + rng.below(1200);
            uint8_t fill = "./\\\x01"[rng.below(4)];
            while (b.size() + 64 < len) {
                b.push_back(63);
                b.insert(b.end(), 63, fill);
            }
            b.push_back(0);
            put16(b, rng.below(2) ? 0x0020 : 0x0021);
            put16(b, 0x0001);
            break;
        }
        case 6: {  // scope labels ending in a pointer back into the name
            b = header(9, base[2], base[3], 1, 0, 0, 1);
            Bytes first = encoded("fileserv", 0x20);
            b.insert(b.end(), first.begin(), first.end() - 1);
            append(b, {3, 'a', 'b', 'c'});
            put16(b, uint16_t(0xC000 | (12 + rng.below(40))));
            put16(b, 0x0020);
            put16(b, 0x0001);
            append(b, {0xC0, 0x0C});
            append(b, nb_rr_tail(0, addr_of(1, false)));
            break;
        }
        default: {  // a valid packet with huge counts or one byte flipped
            b = base;
            if (rng.below(2) == 0) {
                for (int k = 4; k < 12; ++k)
                    b[size_t(k)] = 0xff;
            } else {
                b[rng.below(uint32_t(b.size()))] ^= uint8_t(1 + rng.below(255));
            }
            break;
        }
        }
        ASSERT_TRUE(lab.send_to(fd, "10.88.0.1", 137, b)) << "datagram " << i;
        // Every 50 datagrams, a directed status request for an unknown name,
        // whose negative answer shows the daemon has read all before it (so
        // the burst is not simply lost in a full socket buffer).
        if (i % 50 == 49) {
            uint16_t id = uint16_t(0xF000 + i / 50);
            Bytes probe = status_request(id, "nobody", 0x20, false);
            ASSERT_TRUE(lab.send_to(fd, "10.88.0.1", 137, probe));
            Bytes want = header(id, 0x84, 0x03, 0, 1, 0, 0);
            append(want, encoded("nobody", 0x20));
            append(want, {0x00, 0x0A, 0x00, 0x01, 0, 0, 0, 0, 0, 0});
            auto got = collect(fd, 1, 20.0, [&](const Bytes& r) { return r == want; });
            ASSERT_EQ(got.size(), 1u) << "after datagram " << i << "\n" << lab.log();
        }
    }
    // The burst reached the decoder and its refusals.
    std::string trace = lab.trace();
    EXPECT_NE(trace.find("decode_npack: d_to_vd failed"), std::string::npos);
    EXPECT_NE(trace.find("decode_npack: find_flags failed"), std::string::npos);

    // Still the same process, and still serving: a name added now is claimed
    // and answered for (the burst's flipped bytes may have passed for a
    // conflict over the earlier name, which the daemon rightly gives up).
    EXPECT_EQ(lab.registered_pid(), pid);
    std::string out;
    ASSERT_EQ(lab.halyardctl({"add", "after<20>"}, &out), 0) << out;
    auto a = ask_until_answered(1, name_query(0x7777, "after", 0x20));
    ASSERT_TRUE(a.has_value()) << lab.log();
    EXPECT_EQ(a->bytes, nb_response(0x7777, 0x85, 0x00, "after", 0x20, 0, addr_of(1, true)));
    // A query followed by padding to 1600 bytes (cut to 1500 on receipt) is
    // still a query.
    Bytes padded = name_query(0x7778, "after", 0x20);
    padded.resize(1600, 0xEE);
    int pfd = lab.udp_socket(lab_station1, 0);
    ASSERT_GE(pfd, 0);
    ASSERT_TRUE(lab.send_to(pfd, "10.88.0.1", 137, padded));
    a = lab.recv(pfd, 10.0);
    ASSERT_TRUE(a.has_value()) << lab.log();
    EXPECT_EQ(a->bytes, nb_response(0x7778, 0x85, 0x00, "after", 0x20, 0, addr_of(1, true)));
    int status = -1;
    EXPECT_TRUE(lab.stop_daemon(pid, 20.0, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << lab_describe_status(status);
}

}  // namespace
