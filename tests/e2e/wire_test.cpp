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

void put16(Bytes& b, uint16_t v) { b.insert(b.end(), {uint8_t(v >> 8), uint8_t(v)}); }
void put32(Bytes& b, uint32_t v) { put16(b, uint16_t(v >> 16)), put16(b, uint16_t(v)); }
void append(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }
Bytes cat(Bytes a, const Bytes& b) { return append(a, b), a; }

Bytes packet(uint16_t id, uint8_t b2, uint8_t b3, const Bytes& counts, const std::string& name, uint8_t type,
             const Bytes& rest)
{
    return ns_packet(id, b2, b3, counts, ns_name(name.c_str(), type), {0}, rest);
}

// An NB record after its name: NB, IN, TTL 0, RDLENGTH 6, flags, address.
Bytes rr(uint16_t flags, const Bytes& addr)
{
    return cat({0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, uint8_t(flags >> 8), uint8_t(flags)}, addr);
}

// A registration (b2 0x29) or release (0x30) request, the additional
// record's name a pointer to the question.
Bytes registration(uint16_t id, uint8_t b2, const std::string& name, uint8_t type, uint16_t flags,
                   const Bytes& addr)
{
    return packet(id, b2, 0x10, {1, 0, 0, 1}, name, type, cat({0, 0x20, 0, 1, 0xC0, 0x0C}, rr(flags, addr)));
}

Bytes name_query(uint16_t id, const std::string& name, uint8_t type)
{
    return packet(id, 0x01, 0x10, {1, 0, 0, 0}, name, type, {0, 0x20, 0, 1});
}

Bytes status_request(uint16_t id, const std::string& name, bool broadcast)
{
    return packet(id, 0x00, broadcast ? 0x10 : 0x00, {1, 0, 0, 0}, name, 0x20, {0, 0x21, 0, 1});
}

// A one-record response (query answer, defence, registration response).
Bytes nb_response(uint16_t id, uint8_t b2, uint8_t b3, const std::string& name, uint8_t type, uint16_t flags,
                  const Bytes& addr)
{
    return packet(id, b2, b3, {0, 1, 0, 0}, name, type, rr(flags, addr));
}

// The negative status response for a name we do not hold: RCODE 3, NULL record.
Bytes no_such_name(uint16_t id, const std::string& name)
{
    return packet(id, 0x84, 0x03, {0, 1, 0, 0}, name, 0x20, {0, 0x0A, 0, 1, 0, 0, 0, 0, 0, 0});
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
        int fd = station == 0   ? lab.udp_socket(lab_daemon, 0, "10.88.0.1")
                 : station == 2 ? lab.udp_socket(lab_station2, 0)
                                : lab.udp_socket(lab_station1, 0);
        const char* daemon = Lab::daemon_addr(station);
        if (fd < 0 || !lab.send_to(fd, to ? to : daemon, 137, bytes) ||
            !lab.send_to(fd, daemon, 137, status_request(0xEEEE, "nobody", false)))
            return {{'s', 'e', 'n', 'd'}};
        Bytes end = no_such_name(0xEEEE, "nobody");
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
            claims[s] = lab.collect(fd[s], 2, 20.0,
                                    [&](const Bytes& b) { return is_packet_for(b, 0x29, name, type); });
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
    ASSERT_TRUE(answered(name_query(1, "fileserv", 0x20)) && answered(name_query(2, "workgrp", 0x1e))) << lab.log();

    // Each datagram and the answer it gets on the wire: answers carry the
    // address on the asker's subnet; defences are negative registration
    // responses (AA, RD, RA, RCODE 6). (The service's unit table holds the
    // other kinds of claim and query.)
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
        {"query for a group from subnet 2", 2, bcast[2], name_query(0x12, "workgrp", 0x1e),
         {nb_response(0x12, 0x85, 0x00, "workgrp", 0x1e, 0x8000, addr_of(2, true))}},
        {"query of 1600 bytes", 1, nullptr, padded,
         {nb_response(0x15, 0x85, 0x00, "fileserv", 0x20, 0, addr_of(1, true))}},
        {"unique claim of our unique name", 1, bcast[1],
         registration(0x21, 0x29, "fileserv", 0x20, 0, addr_of(1, false)),
         {nb_response(0x21, 0xAD, 0x86, "fileserv", 0x20, 0, addr_of(1, true))}},
        {"unique claim of our group name", 2, bcast[2], registration(0x23, 0x29, "workgrp", 0x1e, 0, addr_of(2, false)),
         {nb_response(0x23, 0xAD, 0x86, "workgrp", 0x1e, 0x8000, addr_of(2, true))}},
        {"group claim of our group name", 1, bcast[1],
         registration(0x24, 0x29, "workgrp", 0x1e, 0x8000, addr_of(1, false)), {}},
        {"claim of a name we do not hold", 1, bcast[1], registration(0x25, 0x29, "nobody", 0x20, 0, addr_of(1, false)),
         {}},
        {"broadcast status request for a name we do not hold", 1, bcast[1], status_request(0x32, "other", true),
         {}},
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
        lab.send_to(q, bcast[1], 137, name_query(id, "fileserv", 0x20));
    kill(lab.registered_pid(), SIGCONT);
    for (uint16_t id = 0x100; id < 0x128; ++id) {
        auto d = lab.recv(q, 20.0);
        ASSERT_EQ(d ? d->bytes : Bytes(), nb_response(id, 0x85, 0x00, "fileserv", 0x20, 0, addr_of(1, true)));
    }

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
        Bytes want = packet(uint16_t(0x1234 + round), 0x84, 0x00, {0, 1, 0, 0}, "fileserv", 0x20,
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
            auto rel = lab.collect(fd[s], 1, 20.0, [&](const Bytes& b) { return is_packet_for(b, 0x30, name, type); });
            ASSERT_EQ(rel.size(), 1u) << "station " << s;
            EXPECT_EQ(rel[0].bytes, registration(uint16_t(k + 1), 0x30, name, type, k ? 0x8000 : 0, addr_of(s, true)));
        }
    }

    // A registration response soon after a claim: from our own address it is
    // ignored; from a station the name is dropped and the conflict logged.
    ASSERT_EQ(lab.halyardctl({"add", "CLASH<20>"}), 0);
    ASSERT_EQ(exchange(0, nullptr, nb_response(0x55, 0xAD, 0x86, "CLASH", 0x20, 0, addr_of(1, true))),
              std::vector<Bytes>{});
    EXPECT_EQ(lab.halyardctl({"check", "CLASH<20>"}, &out), 0) << out;
    int from1234 = lab.udp_socket(lab_station1, 1234);
    ASSERT_GE(from1234, 0);
    ASSERT_EQ(unlink(lab_log_path), 0);  // the next message makes it again
    ASSERT_TRUE(lab.send_to(from1234, "10.88.0.1", 137,
                            nb_response(0x5555, 0xAD, 0x86, "CLASH", 0x20, 0, addr_of(1, false))));
    EXPECT_TRUE(lab.wait_log("Halyard: name already exists on network: clash\r\n"
                             "\t        at address I(10.88.0.2.1234)")) << lab.log();
    EXPECT_EQ(lab.log_groups().size(), 1u) << lab.log();
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
    Bytes want = packet(0x4444, 0x84, 0x00, {0, 1, 0, 0}, "n00", 0x20,
                        {0, 0x21, 0, 1, 0, 0, 0, 0, (18 * 77 + 47) >> 8, (18 * 77 + 47) & 0xff, 77});
    for (int i = 0; i < 75; ++i) {
        snprintf(name, sizeof name, "n%02d", i);
        append(want, entry(name, 0x20, 0x0400));
    }
    append(want, permanent_names);
    ASSERT_EQ(a[0].size(), want.size() + 46);
    EXPECT_EQ(Bytes(a[0].begin(), a[0].end() - 46), want);
}

}  // namespace

namespace {

// The registration request for `name` that carries `addr`, whatever its id.
bool claim_with(const Bytes& b, const std::string& name, const Bytes& addr)
{
    return is_packet_for(b, 0x29, name, 0x20) && b == registration(id_of(b), 0x29, name, 0x20, 0, addr);
}

// NB-interfaces all, with no address in the file: the configured name is
// claimed at start on the interface that is up, an interface brought up
// later and an address added later are claimed on and answered from, and an
// address taken away is no longer used.
TEST_F(Wire, FollowsTheInterfacesItIsToldToServe)
{
    auto ip = [&](LabSide side, const std::string& args) {
        std::vector<std::string> argv{"/usr/sbin/ip"};
        for (size_t at = 0, sp; at < args.size(); at = sp + 1) {
            sp = std::min(args.find(' ', at), args.size());
            argv.push_back(args.substr(at, sp - at));
        }
        return lab.run(side, argv) == 0;
    };
    ASSERT_TRUE(ip(lab_daemon, "link set hd1 down"));
    ASSERT_TRUE(lab.write_config("[realm NB]\ntransport tcpip\n[transport tcpip]\nNB-interfaces all\n"
                                 "NB-name fileserv<20> # upper case on the wire\n"));
    int fd[3] = {-1, lab.udp_socket(lab_station1, 137), lab.udp_socket(lab_station2, 137)};
    ASSERT_TRUE(fd[1] >= 0 && fd[2] >= 0) << lab.last_error();
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    auto claims = [&](int s, const Bytes& addr, size_t n, double seconds) {
        return lab.collect(fd[s], n, seconds, [&](const Bytes& b) { return claim_with(b, "FILESERV", addr); }).size();
    };
    ASSERT_EQ(claims(1, addr_of(1, true), 2, 20.0), 2u) << lab.log();
    ASSERT_TRUE(answered(name_query(0x60, "FILESERV", 0x20))) << lab.log();
    EXPECT_EQ(exchange(1, "10.88.0.255", name_query(0x61, "FILESERV", 0x20)),
              std::vector<Bytes>{nb_response(0x61, 0x85, 0x00, "FILESERV", 0x20, 0, addr_of(1, true))});

    ASSERT_TRUE(ip(lab_daemon, "link set hd1 up"));
    EXPECT_EQ(claims(2, addr_of(2, true), 2, 4.0), 2u) << lab.log();
    EXPECT_EQ(exchange(2, "10.89.0.255", name_query(0x62, "FILESERV", 0x20)),
              std::vector<Bytes>{nb_response(0x62, 0x85, 0x00, "FILESERV", 0x20, 0, addr_of(2, true))});

    // Our own claims on the new address come back to us: they are ours, so
    // the name stays and is answered from there.
    const Bytes added{10, 90, 0, 1};
    ASSERT_TRUE(ip(lab_station1, "address add 10.90.0.2/24 brd + dev hs0"));
    ASSERT_TRUE(ip(lab_daemon, "address add 10.90.0.1/24 brd + dev hd0"));
    EXPECT_EQ(claims(1, added, 1, 2.0), 1u) << lab.log();
    EXPECT_EQ(claims(1, added, 1, 3.0), 1u) << lab.log();
    int from90 = lab.udp_socket(lab_station1, 0, "10.90.0.2");
    ASSERT_TRUE(from90 >= 0 && lab.send_to(from90, "10.90.0.1", 137, name_query(0x63, "FILESERV", 0x20)));
    auto answer = lab.recv(from90, 10.0);
    ASSERT_TRUE(answer) << lab.log();
    EXPECT_EQ(answer->from, "10.90.0.1");
    EXPECT_EQ(answer->bytes, nb_response(0x63, 0x85, 0x00, "FILESERV", 0x20, 0, added));

    ASSERT_TRUE(ip(lab_daemon, "address del 10.90.0.1/24 dev hd0"));
    ASSERT_TRUE(lab.wait_log("Halyard: no longer serving 10.90.0.1", 2.0)) << lab.log();
    // A status answer lists a permanent name per address we serve.
    auto permanent = [](const Bytes& addr) { return cat(cat(Bytes(10, 0), addr), {0, 0, 6, 0}); };
    auto status = exchange(1, nullptr, status_request(0x64, "FILESERV", false));
    ASSERT_EQ(status.size(), 1u) << lab.log();
    auto has = [&](const Bytes& part) {
        return std::search(status[0].begin(), status[0].end(), part.begin(), part.end()) != status[0].end();
    };
    EXPECT_TRUE(has(permanent(addr_of(2, true))));
    EXPECT_FALSE(has(permanent(added)));
}

}  // namespace
