// halyard-refresp: the reference responder of the benchmark. It answers every
// name query with a positive response and every node status request with a
// fixed node status listing the name asked for, doing nothing per datagram
// but poll, recvfrom and sendto: the most a name server could do with those
// calls on this machine.

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "misc/nencode.h"
#include "shr/reader.h"
#include "shr/vzsignal.h"

namespace {

constexpr int EXIT_USAGE = 2;
constexpr uint16_t QTYPE_NB = 0x0020;
constexpr uint16_t QTYPE_NBSTAT = 0x0021;
constexpr uint16_t QCLASS_IN = 0x0001;
constexpr uint32_t ANSWER_TTL = 300000;    // seconds, as a name server gives its names
constexpr uint16_t NAME_ACTIVE = 0x0400;   // RFC 1002 4.2.18 NAME_FLAGS: ACT
constexpr size_t STATS_LEN = 46;           // RFC 1002 4.2.18 STATISTICS
constexpr size_t MAX_WIRE_NAME = 255;      // RFC 1002 4.1: a name of at most 255 bytes

volatile sig_atomic_t stop = 0;

void on_signal(int) { stop = 1; }

[[noreturn]] void usage_error(const char* what, const char* val)
{
    fprintf(stderr, "halyard-refresp: %s%s\n"
                    "usage: halyard-refresp --bind ADDR[:PORT] --address A [--seconds N]\n",
            what, val);
    exit(EXIT_USAGE);
}

bool parse_addr(const char* text, uint16_t default_port, sockaddr_in* addr)
{
    std::string host = text;
    unsigned long port = default_port;
    size_t colon = host.find(':');
    if (colon != std::string::npos) {
        char* end = nullptr;
        const char* p = host.c_str() + colon + 1;
        port = strtoul(p, &end, 10);
        if (*p < '0' || *p > '9' || *end != '\0' || port == 0 || port > 65535)
            return false;
        host.resize(colon);
    }
    *addr = sockaddr_in{};
    addr->sin_family = AF_INET;
    addr->sin_port = htons(uint16_t(port));
    return inet_pton(AF_INET, host.c_str(), &addr->sin_addr) == 1;
}

// RFC 1002 4.2.12 / 4.2.17, read strictly enough to answer: a request
// (R clear, opcode 0) with a question whose name is a first label of 32
// letters and scope labels of at most 63 bytes each (no pointers), 255
// bytes in all, of type NB or NBSTAT and class IN. The wire name is left in
// *name. Returns the question type, or 0 for a datagram not answered.
uint16_t read_request(Reader& r, std::span<const uint8_t>* name)
{
    r.skip(2);   // id
    uint8_t b2 = r.u8();
    r.skip(1);
    uint16_t qdcount = r.u16be();
    r.skip(6);   // ANCOUNT, NSCOUNT, ARCOUNT
    if (!r.ok() || (b2 & 0xF8) != 0 || qdcount == 0)
        return 0;
    size_t start = r.pos();
    if (r.u8() != NB_ENCLEN || !r.skip(NB_ENCLEN))
        return 0;
    for (;;) {
        uint8_t len = r.u8();
        if (!r.ok() || len > 63 || r.pos() - start > MAX_WIRE_NAME)
            return 0;
        if (len == 0)
            break;
        r.skip(len);
    }
    size_t end = r.pos();
    uint16_t qtype = r.u16be();
    uint16_t qclass = r.u16be();
    if (!r.ok() || qclass != QCLASS_IN || (qtype != QTYPE_NB && qtype != QTYPE_NBSTAT))
        return 0;
    *name = r.whole().subspan(start, end - start);
    return qtype;
}

// RFC 1002 4.2.13 positive name query response (AA, RD; one NB record of
// the asked name) or 4.2.18 node status response (AA; one NBSTAT record
// listing the asked name, active, and zero statistics). The size, or 0.
size_t build_response(uint8_t* out, size_t room, std::span<const uint8_t> req, uint16_t qtype,
                      std::span<const uint8_t> name, in_addr_t address)
{
    Writer w(out, room);
    w.u8(req[0]);
    w.u8(req[1]);
    w.u8(qtype == QTYPE_NB ? 0x85 : 0x84);
    w.u8(0x00);
    w.u16be(0);
    w.u16be(1);
    w.u16be(0);
    w.u16be(0);
    w.bytes(name.data(), name.size());
    w.u16be(qtype);
    w.u16be(QCLASS_IN);
    if (qtype == QTYPE_NB) {
        w.u32be(ANSWER_TTL);
        w.u16be(6);
        w.u16be(0);   // NB_FLAGS: unique, B node
        w.bytes(&address, 4);   // already in network order
    } else {
        uint8_t plain[NB_NAMELEN];
        n_decode(plain, reinterpret_cast<const char*>(name.data() + 1));
        w.u32be(0);
        w.u16be(uint16_t(1 + NB_NAMELEN + 2 + STATS_LEN));
        w.u8(1);
        w.bytes(plain, sizeof plain);
        w.u16be(NAME_ACTIVE);
        w.zeros(STATS_LEN);
    }
    return w.ok() ? w.size() : 0;
}

}  // namespace

int main(int argc, char** argv)
{
    sockaddr_in local{};
    in_addr_t address = 0;
    bool have_bind = false, have_address = false;
    long seconds = 3600;
    for (int i = 1; i < argc; i++) {
        const char* opt = argv[i];
        if (i + 1 >= argc)
            usage_error("option needs a value: ", opt);
        const char* val = argv[++i];
        if (strcmp(opt, "--bind") == 0) {
            if (!parse_addr(val, 137, &local))
                usage_error("--bind: not ADDR[:PORT]: ", val);
            have_bind = true;
        } else if (strcmp(opt, "--address") == 0) {
            if (inet_pton(AF_INET, val, &address) != 1)
                usage_error("--address: not an address: ", val);
            have_address = true;
        } else if (strcmp(opt, "--seconds") == 0) {
            char* end = nullptr;
            seconds = strtol(val, &end, 10);
            if (*val < '0' || *val > '9' || *end != '\0' || seconds < 1 || seconds > 86400)
                usage_error("--seconds: 1 to 86400: ", val);
        } else {
            usage_error("unknown option ", opt);
        }
    }
    if (!have_bind || !have_address)
        usage_error("--bind and --address are required", "");

    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        fprintf(stderr, "halyard-refresp: socket or bind: %s\n", strerror(errno));
        return 1;
    }
    int size = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    // The lifetime cap and the terminating signals interrupt the poll.
    if (vz_signal(SIGTERM, on_signal) != 0 || vz_signal(SIGINT, on_signal) != 0 ||
        vz_signal(SIGALRM, on_signal) != 0) {
        fprintf(stderr, "halyard-refresp: sigaction: %s\n", strerror(errno));
        return 1;
    }
    alarm(unsigned(seconds));

    uint8_t in[1500];
    uint8_t out[1500];
    while (!stop) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, -1) < 0) {
            if (errno == EINTR)
                continue;
            fprintf(stderr, "halyard-refresp: poll: %s\n", strerror(errno));
            return 1;
        }
        sockaddr_in from{};
        socklen_t fromlen = sizeof from;
        ssize_t n = recvfrom(fd, in, sizeof in, 0, reinterpret_cast<sockaddr*>(&from), &fromlen);
        if (n <= 0)
            continue;
        std::span<const uint8_t> req(in, size_t(n));
        Reader r(req);
        std::span<const uint8_t> name;
        uint16_t qtype = read_request(r, &name);
        if (qtype == 0)
            continue;
        size_t len = build_response(out, sizeof out, req, qtype, name, address);
        if (len > 0)
            sendto(fd, out, len, 0, reinterpret_cast<const sockaddr*>(&from), fromlen);
    }
    close(fd);
    return 0;
}
