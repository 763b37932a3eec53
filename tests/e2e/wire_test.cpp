// The name service byte for byte as other stations see it (RFC 1002 4.2):
// claims and releases broadcast on both subnets, a client's lookups and
// status requests, answers to queries, defences, node status, conflicts,
// and what a scope makes ours.

#include "tests/support/lab.h"
#include "tests/support/nswire.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

void put16(Bytes& b, uint16_t v) { b.insert(b.end(), {uint8_t(v >> 8), uint8_t(v)}); }
void put32(Bytes& b, uint32_t v) { put16(b, uint16_t(v >> 16)), put16(b, uint16_t(v)); }
void append(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }
Bytes cat(Bytes a, const Bytes& b) { return append(a, b), a; }

// id, b2, b3, the four counts, the name encoded with the scope's labels
// ("Corp.Example": 4Corp7Example0), then `rest`.
Bytes packet(uint16_t id, uint8_t b2, uint8_t b3, const Bytes& counts, const std::string& name, uint8_t type,
             const std::string& scope, const Bytes& rest)
{
    Bytes labels;
    for (size_t start = 0; !scope.empty() && start <= scope.size();) {
        size_t dot = std::min(scope.find('.', start), scope.size());
        labels.push_back(uint8_t(dot - start));
        labels.insert(labels.end(), scope.begin() + long(start), scope.begin() + long(dot));
        start = dot + 1;
    }
    labels.push_back(0);
    return ns_packet(id, b2, b3, counts, ns_name(name.c_str(), type), labels, rest);
}

// An NB record after its name: NB, IN, TTL 0, RDLENGTH 6, flags, address.
Bytes rr(uint16_t flags, const Bytes& addr)
{
    return cat({0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, uint8_t(flags >> 8), uint8_t(flags)}, addr);
}

// A registration (b2 0x29) or release (0x30) request, the additional
// record's name a pointer to the question.
Bytes registration(uint16_t id, uint8_t b2, const std::string& name, uint8_t type, uint16_t flags,
                   const Bytes& addr, const std::string& scope = "")
{
    return packet(id, b2, 0x10, {1, 0, 0, 1}, name, type, scope, cat({0, 0x20, 0, 1, 0xC0, 0x0C}, rr(flags, addr)));
}

Bytes name_query(uint16_t id, const std::string& name, uint8_t type, const std::string& scope = "")
{
    return packet(id, 0x01, 0x10, {1, 0, 0, 0}, name, type, scope, {0, 0x20, 0, 1});
}

Bytes status_request(uint16_t id, const std::string& name, bool broadcast, const std::string& scope = "")
{
    return packet(id, 0x00, broadcast ? 0x10 : 0x00, {1, 0, 0, 0}, name, 0x20, scope, {0, 0x21, 0, 1});
}

// A one-record response (query answer, defence, registration response).
Bytes nb_response(uint16_t id, uint8_t b2, uint8_t b3, const std::string& name, uint8_t type, uint16_t flags,
                  const Bytes& addr, const std::string& scope = "")
{
    return packet(id, b2, b3, {0, 1, 0, 0}, name, type, scope, rr(flags, addr));
}

// The negative status response for a name we do not hold: RCODE 3, NULL record.
Bytes no_such_name(uint16_t id, const std::string& name, const std::string& scope = "")
{
    return packet(id, 0x84, 0x03, {0, 1, 0, 0}, name, 0x20, scope, {0, 0x0A, 0, 1, 0, 0, 0, 0, 0, 0});
}

// The statistics block of a positive status response for `counter`.
Bytes statistics(uint32_t counter)
{
    Bytes b{10, 88, 0, 1, 0, 0, 0, 0, 1, 1};
    put16(b, uint16_t(counter));
    append(b, Bytes(8, 0));
    put32(b, counter);
    put32(b, counter);
    for (uint16_t v : {0, 0, 16, 16, 32, 2, 32, 32, 8192})
        put16(b, v);
    return b;
}

// A status answer's table entry: the 16-byte name and its flags.
Bytes entry(const char* name, uint8_t type, uint16_t flags)
{
    Bytes b = ns_name(name, type);
    put16(b, flags);
    return b;
}

Bytes addr_of(int station, bool daemon) { return {10, uint8_t(station == 2 ? 89 : 88), 0, uint8_t(daemon ? 1 : 2)}; }

uint16_t id_of(const Bytes& b) { return b.size() >= 2 ? uint16_t(b[0] << 8 | b[1]) : 0; }

// Is this datagram of the given packet byte 2 and for this name?
bool is_packet_for(const Bytes& b, uint8_t b2, const std::string& name, uint8_t type)
{
    Bytes enc = wire_name(ns_name(name.c_str(), type));
    return b.size() >= 12 + enc.size() && b[2] == b2 && Bytes(b.begin() + 12, b.begin() + 12 + long(enc.size())) == enc;
}

class Wire : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 2); }

    // Datagrams on fd that satisfy `want`, until `count` of them came or
    // 20 s passed; others are dropped.
    std::vector<LabDatagram> collect(int fd, size_t count, const std::function<bool(const Bytes&)>& want)
    {
        std::vector<LabDatagram> got;
        for (int i = 0; i < 1000 && got.size() < count; ++i) {
            auto d = lab.recv(fd, 20.0);
            if (!d)
                break;
            if (want(d->bytes))
                got.push_back(*d);
        }
        return got;
    }

    // Asks (repeatedly: a name is not answered while its claim is pending)
    // until a query sent from `station` is answered.
    std::optional<LabDatagram> ask_until_answered(int station, const Bytes& query)
    {
        int fd = lab.udp_socket(station == 2 ? lab_station2 : lab_station1, 0);
        for (int i = 0; fd >= 0 && i < 60; ++i) {
            if (!lab.send_to(fd, station == 2 ? "10.89.0.255" : "10.88.0.255", 137, query))
                break;
            if (auto d = lab.recv(fd, 0.5))
                return d;
        }
        return std::nullopt;
    }

    // Sends `bytes` from a fresh socket of `station` (0: the daemon's own
    // address) to `to`, then a directed status request for an unknown name,
    // whose answer shows that the daemon has handled the first datagram: the
    // answers that came before it.
    std::vector<Bytes> exchange(int station, const char* to, const Bytes& bytes)
    {
        std::vector<Bytes> got;
        int fd = station == 0   ? lab.udp_socket(lab_daemon, 0, "10.88.0.1")
                 : station == 2 ? lab.udp_socket(lab_station2, 0)
                                : lab.udp_socket(lab_station1, 0);
        const char* daemon = Lab::daemon_addr(station);
        if (fd < 0 || !lab.send_to(fd, to ? to : daemon, 137, bytes) ||
            !lab.send_to(fd, daemon, 137, status_request(0xEEEE, "nobody", false, scope)))
            return {{'s', 'e', 'n', 'd'}};
        Bytes end = no_such_name(0xEEEE, "nobody", scope);
        for (auto d = lab.recv(fd, 20.0); d && d->bytes != end && got.size() < 10; d = lab.recv(fd, 20.0))
            got.push_back(d->bytes);
        return got;
    }

    Lab lab;
    std::string scope;  // the daemon's
};

TEST_F(Wire, LookupsClaimsAnswersDefencesStatusAndReleasesByteForByte)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    int fd[3] = {-1, lab.udp_socket(lab_station1, 137), lab.udp_socket(lab_station2, 137)};
    ASSERT_GE(fd[1], 0) << lab.last_error();
    ASSERT_GE(fd[2], 0) << lab.last_error();

    // A client's lookups: a query on each interface, ids from 0; the station
    // that answers is the one asked.
    for (int k = 0; k < 2; ++k) {
        const char* name = k == 0 ? "printsrv" : "team";
        uint8_t type = k == 0 ? 0x20 : 0x1e;
        SCOPED_TRACE(name);
        std::string out;
        int st = -1;
        std::thread client([&] { st = lab.halyardctl({"lookup", std::string(name) + (k ? "<1e>" : "<20>")}, &out); });
        std::vector<LabDatagram> got[3];
        for (int s = 1; s <= 2; ++s)
            got[s] = collect(fd[s], 1, [&](const Bytes& b) { return is_packet_for(b, 0x01, name, type); });
        if (got[1].size() == 1 && got[2].size() == 1) {
            for (int s = 1; s <= 2; ++s) {
                EXPECT_EQ(got[s][0].from, Lab::daemon_addr(s));
                EXPECT_EQ(got[s][0].bytes, name_query(uint16_t(k), name, type));
            }
            const LabDatagram& q = got[k + 1][0];
            lab.send_to(fd[k + 1], q.from, q.port,
                        nb_response(id_of(q.bytes), 0x85, 0x00, name, type, k ? 0x8000 : 0, addr_of(k + 1, false)));
        }
        client.join();
        ASSERT_EQ(got[1].size() + got[2].size(), 2u) << lab.log();
        EXPECT_EQ(st, 0) << out;
        EXPECT_NE(out.find(Lab::station_addr(k + 1)), std::string::npos) << out;
    }

    // A client's status request goes to the station alone, for the wildcard
    // name ("*" and 15 zero bytes); the names of its answer reach the client.
    std::string out;
    int st = -1;
    std::thread client([&] { st = lab.halyardctl({"status", "10.88.0.2"}, &out); });
    auto got = collect(fd[1], 1, [](const Bytes& b) { return b.size() >= 4 && b[2] == 0x00 && b[3] == 0x00; });
    if (got.size() == 1) {
        Bytes star(16, 0);
        star[0] = '*';
        Bytes want = ns_packet(id_of(got[0].bytes), 0x00, 0x00, {1, 0, 0, 0}, star, {0}, {0, 0x21, 0, 1});
        EXPECT_EQ(got[0].from, "10.88.0.1");
        EXPECT_EQ(got[0].bytes, want);
        Bytes answer = ns_packet(id_of(want), 0x84, 0x00, {0, 1, 0, 0}, star, {0},
                                 {0, 0x21, 0, 1, 0, 0, 0, 0, 0, 18 * 2 + 47, 2});
        append(answer, entry("STATION1", 0x20, 0x0400));
        append(answer, entry("WORKGROUP", 0x1e, 0x8400));
        append(answer, statistics(5));
        lab.send_to(fd[1], got[0].from, got[0].port, answer);
    }
    client.join();
    ASSERT_EQ(got.size(), 1u) << lab.log();
    EXPECT_EQ(st, 0) << out;
    for (const char* text : {"STATION1", "WORKGROUP", "good sends 5"})
        EXPECT_NE(out.find(text), std::string::npos) << out;

    // Claims: twice on each interface, the same id on both, the id the
    // claim's time in seconds (so the second is another).
    for (int k = 0; k < 2; ++k) {
        const char* name = k == 0 ? "fileserv" : "workgrp";
        uint8_t type = k == 0 ? 0x20 : 0x1e;
        SCOPED_TRACE(name);
        std::vector<std::string> args{"add", std::string(name) + (k ? "<1e>" : "<20>")};
        if (k == 1)
            args.push_back("--group");
        ASSERT_EQ(lab.halyardctl(args, &out), 0) << out;
        std::vector<LabDatagram> claims[3];
        for (int s = 1; s <= 2; ++s) {
            claims[s] = collect(fd[s], 2, [&](const Bytes& b) { return is_packet_for(b, 0x29, name, type); });
            ASSERT_EQ(claims[s].size(), 2u) << "station " << s << "\n" << lab.log();
        }
        for (int c = 0; c < 2; ++c) {
            for (int s = 1; s <= 2; ++s) {
                EXPECT_EQ(claims[s][c].from, Lab::daemon_addr(s));
                EXPECT_EQ(claims[s][c].bytes, registration(id_of(claims[1][c].bytes), 0x29, name, type,
                                                           k ? 0x8000 : 0, addr_of(s, true)));
            }
        }
        EXPECT_NE(id_of(claims[1][0].bytes), id_of(claims[1][1].bytes));
    }
    // Claims still pending are neither answered nor defended.
    ASSERT_TRUE(ask_until_answered(1, name_query(1, "fileserv", 0x20)).has_value()) << lab.log();
    ASSERT_TRUE(ask_until_answered(1, name_query(2, "workgrp", 0x1e)).has_value()) << lab.log();

    // Each datagram and the answer it gets: answers carry the address on the
    // asker's subnet; defences are negative registration responses (AA, RD,
    // RA, RCODE 6); group names are shared, so not defended.
    const char* bcast[3] = {nullptr, "10.88.0.255", "10.89.0.255"};
    Bytes padded = name_query(0x15, "fileserv", 0x20);
    padded.resize(1600, 0xEE);  // cut to 1500 on receipt: still a query
    const struct {
        const char* why;
        int station;
        const char* to;  // nullptr: the daemon's address
        Bytes sent;
        std::vector<Bytes> answers;
    } cases[] = {
        {"query", 1, bcast[1], name_query(0x11, "fileserv", 0x20),
         {nb_response(0x11, 0x85, 0x00, "fileserv", 0x20, 0, addr_of(1, true))}},
        {"query for a group from subnet 2", 2, bcast[2], name_query(0x12, "workgrp", 0x1e),
         {nb_response(0x12, 0x85, 0x00, "workgrp", 0x1e, 0x8000, addr_of(2, true))}},
        {"query for a name we do not hold", 1, bcast[1], name_query(0x13, "nobody", 0x20), {}},
        {"query of 1600 bytes", 1, nullptr, padded,
         {nb_response(0x15, 0x85, 0x00, "fileserv", 0x20, 0, addr_of(1, true))}},
        {"unique claim of our unique name", 1, bcast[1],
         registration(0x21, 0x29, "fileserv", 0x20, 0, addr_of(1, false)),
         {nb_response(0x21, 0xAD, 0x86, "fileserv", 0x20, 0, addr_of(1, true))}},
        {"group claim of our unique name", 2, bcast[2],
         registration(0x22, 0x29, "fileserv", 0x20, 0x8000, addr_of(2, false)),
         {nb_response(0x22, 0xAD, 0x86, "fileserv", 0x20, 0, addr_of(2, true))}},
        {"unique claim of our group name", 2, bcast[2], registration(0x23, 0x29, "workgrp", 0x1e, 0, addr_of(2, false)),
         {nb_response(0x23, 0xAD, 0x86, "workgrp", 0x1e, 0x8000, addr_of(2, true))}},
        {"group claim of our group name", 1, bcast[1],
         registration(0x24, 0x29, "workgrp", 0x1e, 0x8000, addr_of(1, false)), {}},
        {"claim of a name we do not hold", 1, bcast[1], registration(0x25, 0x29, "nobody", 0x20, 0, addr_of(1, false)),
         {}},
        {"directed status request for a name we do not hold", 1, nullptr, status_request(0x31, "other", false),
         {no_such_name(0x31, "other")}},
        {"broadcast status request for a name we do not hold", 1, bcast[1], status_request(0x32, "other", true),
         {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(exchange(c.station, c.to, c.sent), c.answers);
    }
    EXPECT_EQ(lab.halyardctl({"check", "fileserv<20>"}, &out), 0) << out;

    // Our permanent names close every table: ten zero bytes, the address,
    // two zero bytes, flags active and permanent.
    Bytes permanent_names;
    for (int t = 1; t <= 2; ++t)
        permanent_names = cat(cat(cat(permanent_names, Bytes(10, 0)), addr_of(t, true)), {0, 0, 6, 0});
    // Node status, twice from subnet 1 and once from subnet 2: the same table
    // (both names, then both permanent names), the counter one up each time.
    std::optional<uint32_t> last;
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        int s = round == 2 ? 2 : 1;
        auto a = exchange(s, nullptr, status_request(uint16_t(0x1234 + round), "fileserv", false));
        ASSERT_EQ(a.size(), 1u) << lab.log();
        const Bytes& r = a[0];
        Bytes want = packet(uint16_t(0x1234 + round), 0x84, 0x00, {0, 1, 0, 0}, "fileserv", 0x20, "",
                            {0, 0x21, 0, 1, 0, 0, 0, 0, 0, 18 * 4 + 47, 4});
        append(want, entry("fileserv", 0x20, 0x0400));
        append(want, entry("workgrp", 0x1e, 0x8400));
        append(want, permanent_names);
        ASSERT_EQ(r.size(), want.size() + 46);
        ASSERT_EQ(Bytes(r.begin(), r.end() - 46), want);
        uint32_t counter = uint32_t(r[r.size() - 26]) << 24 | uint32_t(r[r.size() - 25]) << 16 |
                           uint32_t(r[r.size() - 24]) << 8 | r[r.size() - 23];
        EXPECT_EQ(Bytes(r.end() - 46, r.end()), statistics(counter));
        if (last) {
            EXPECT_EQ(counter, *last + 1);
        }
        last = counter;
    }

    // Releases go once per interface, their ids counting from 1.
    for (int k = 0; k < 2; ++k) {
        const char* name = k == 0 ? "fileserv" : "workgrp";
        uint8_t type = k == 0 ? 0x20 : 0x1e;
        ASSERT_EQ(lab.halyardctl({"del", std::string(name) + (k ? "<1e>" : "<20>")}, &out), 0) << out;
        for (int s = 1; s <= 2; ++s) {
            auto rel = collect(fd[s], 1, [&](const Bytes& b) { return is_packet_for(b, 0x30, name, type); });
            ASSERT_EQ(rel.size(), 1u) << "station " << s;
            EXPECT_EQ(rel[0].bytes, registration(uint16_t(k + 1), 0x30, name, type, k ? 0x8000 : 0, addr_of(s, true)));
        }
    }

    // A registration response soon after a claim: from our own address it is
    // ignored; from a station the name is dropped and the conflict logged
    // with the name's text form (in lower case) and the sender's address and port.
    ASSERT_EQ(lab.halyardctl({"add", "CLASH<20>"}), 0);
    ASSERT_EQ(exchange(0, nullptr, nb_response(0x55, 0xAD, 0x86, "CLASH", 0x20, 0, addr_of(1, true))),
              std::vector<Bytes>{});
    EXPECT_EQ(lab.halyardctl({"check", "CLASH<20>"}, &out), 0) << out;
    int from1234 = lab.udp_socket(lab_station1, 1234);
    ASSERT_GE(from1234, 0);
    ASSERT_TRUE(lab.send_to(from1234, "10.88.0.1", 137,
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

    // A table too long for one datagram: 77 entries fit in 1500 bytes after a
    // 34-byte name, the first 75 local names, then both permanent names.
    char name[16];
    for (int i = 0; i < 80; ++i) {
        snprintf(name, sizeof name, "n%02d<20>", i);
        ASSERT_EQ(lab.halyardctl({"add", name}, &out), 0) << out;
    }
    auto a = exchange(1, nullptr, status_request(0x4444, "n00", false));
    ASSERT_EQ(a.size(), 1u) << lab.log();
    Bytes want = packet(0x4444, 0x84, 0x00, {0, 1, 0, 0}, "n00", 0x20, "",
                        {0, 0x21, 0, 1, 0, 0, 0, 0, (18 * 77 + 47) >> 8, (18 * 77 + 47) & 0xff, 77});
    for (int i = 0; i < 75; ++i) {
        snprintf(name, sizeof name, "n%02d", i);
        append(want, entry(name, 0x20, 0x0400));
    }
    append(want, permanent_names);
    ASSERT_EQ(a[0].size(), want.size() + 46);
    EXPECT_EQ(Bytes(a[0].begin(), a[0].end() - 46), want);
}

TEST_F(Wire, AScopeDecidesWhichRequestsAreOurs)
{
    scope = "Corp.Example";
    ASSERT_TRUE(lab.write_config(lab.default_config() + "NB-scope " + scope + "\n"));
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    int watch = lab.udp_socket(lab_station2, 137);
    ASSERT_GE(watch, 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"add", "fileserv<20>"}), 0);
    // The claim carries the scope as written.
    auto claim = collect(watch, 1, [](const Bytes& b) { return b.size() > 2 && b[2] == 0x29; });
    ASSERT_EQ(claim.size(), 1u) << lab.log();
    EXPECT_EQ(claim[0].bytes,
              registration(id_of(claim[0].bytes), 0x29, "fileserv", 0x20, 0, addr_of(2, true), scope));

    // A scope that differs only in letter case matches.
    auto a = ask_until_answered(2, name_query(0x4242, "fileserv", 0x20, "corp.EXAMPLE"));
    ASSERT_TRUE(a.has_value()) << lab.log();
    EXPECT_EQ(a->bytes, nb_response(0x4242, 0x85, 0x00, "fileserv", 0x20, 0, addr_of(2, true), scope));

    // An asker on no subnet of ours (10.90.0.2, behind hd1) gets our first address.
    ASSERT_EQ(lab.run(lab_station2, {"/sbin/ip", "addr", "add", "10.90.0.2/24", "dev", "hs1"}), 0);
    ASSERT_EQ(lab.run(lab_daemon, {"/sbin/ip", "route", "add", "10.90.0.0/24", "dev", "hd1"}), 0);
    int far = lab.udp_socket(lab_station2, 0, "10.90.0.2");
    ASSERT_GE(far, 0) << lab.last_error();
    ASSERT_TRUE(lab.send_to(far, "10.89.0.1", 137, name_query(0x0909, "fileserv", 0x20, scope)));
    auto f = lab.recv(far, 10.0);
    ASSERT_TRUE(f.has_value()) << lab.log();
    EXPECT_EQ(f->bytes, nb_response(0x0909, 0x85, 0x00, "fileserv", 0x20, 0, addr_of(1, true), scope));

    // Another scope, or none, gets no answer, neither to a query nor to a
    // claim; a claim in our scope (in other letters' case) is defended.
    for (const char* other : {"other.example", "", "corp.example.net"}) {
        SCOPED_TRACE(other);
        EXPECT_EQ(exchange(1, "10.88.0.255", name_query(7, "fileserv", 0x20, other)), std::vector<Bytes>{});
        EXPECT_EQ(exchange(1, "10.88.0.255", registration(8, 0x29, "fileserv", 0x20, 0, addr_of(1, false), other)),
                  std::vector<Bytes>{});
    }
    EXPECT_EQ(exchange(1, "10.88.0.255", registration(9, 0x29, "fileserv", 0x20, 0, addr_of(1, false), "CORP.example")),
              std::vector<Bytes>{nb_response(9, 0xAD, 0x86, "fileserv", 0x20, 0, addr_of(1, true), scope)});
}

}  // namespace
