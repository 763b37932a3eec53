// halyard-hostsim: many hosts on one /16 for the benchmark, so that a daemon
// with agents configured learns them. From each address in turn it sends the
// daemon one name query; a daemon with agents asks an unknown sender for its
// node status, and the status request is answered from the address it was
// sent to, with three names (HOSTn, the group BENCHGRP<00> and the
// permanent node name). A second pass sends the queries again: only hosts
// still unknown are asked once more, and their number is reported.
//
// The addresses must be local to the namespace it runs in (for example
// "ip route add local 10.78.0.0/16 dev lo"), and the daemon needs a route
// back to them.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

[[noreturn]] void usage_error(const char* what, const char* val)
{
    fprintf(stderr, "halyard-hostsim: %s%s\n"
                    "usage: halyard-hostsim --target ADDR --net A.B --hosts N [--seconds S]\n",
            what, val);
    exit(2);
}

void put16(Bytes& b, unsigned v)
{
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
}

// The encoded form of a 16-byte name (RFC 1001 14.1), no scope.
void put_name(Bytes& b, const uint8_t* name)
{
    b.push_back(32);
    for (int i = 0; i < 16; i++) {
        b.push_back(uint8_t('A' + (name[i] >> 4)));
        b.push_back(uint8_t('A' + (name[i] & 0x0F)));
    }
    b.push_back(0);
}

void nb_name(uint8_t out[16], const std::string& text, uint8_t type)
{
    memset(out, ' ', 16);
    memcpy(out, text.data(), text.size() < 15 ? text.size() : 15);
    out[15] = type;
}

// RFC 1002 4.2.12: a broadcast name query.
Bytes name_query(uint16_t id, const uint8_t* name)
{
    Bytes b;
    put16(b, id);
    put16(b, 0x0110);
    put16(b, 1), put16(b, 0), put16(b, 0), put16(b, 0);
    put_name(b, name);
    put16(b, 0x0020), put16(b, 0x0001);
    return b;
}

// RFC 1002 4.2.18: the node status of host n at address (network order).
Bytes status_answer(uint16_t id, uint32_t n, uint32_t address)
{
    uint8_t names[3][16];
    nb_name(names[0], "HOST" + std::to_string(n), 0x20);
    nb_name(names[1], "BENCHGRP", 0x00);
    memset(names[2], 0, 16);
    memcpy(names[2] + 10, &address, 4);
    const unsigned flags[3] = {0x0400, 0x8400, 0x0600};
    Bytes b;
    put16(b, id);
    put16(b, 0x8400);
    put16(b, 0), put16(b, 1), put16(b, 0), put16(b, 0);
    uint8_t star[16] = {'*'};
    put_name(b, star);
    put16(b, 0x0021), put16(b, 0x0001);
    put16(b, 0), put16(b, 0);  // TTL
    put16(b, 1 + 3 * 18 + 46);
    b.push_back(3);
    for (int i = 0; i < 3; i++) {
        b.insert(b.end(), names[i], names[i] + 16);
        put16(b, flags[i]);
    }
    b.resize(b.size() + 46, 0);
    return b;
}

// One datagram from `from` (a local address) to `to`.
bool send_from(int fd, uint32_t from, const sockaddr_in& to, const Bytes& data)
{
    iovec iov{const_cast<uint8_t*>(data.data()), data.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr msg{};
    msg.msg_name = const_cast<sockaddr_in*>(&to);
    msg.msg_namelen = sizeof to;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = IPPROTO_IP;
    c->cmsg_type = IP_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_spec_dst.s_addr = from;
    memcpy(CMSG_DATA(c), &info, sizeof info);
    return sendmsg(fd, &msg, 0) == ssize_t(data.size());
}

struct Sim {
    int fd;
    uint32_t net;    // the /16, network order
    uint32_t hosts;
    int answered = 0;

    uint32_t address(uint32_t n) const { return net | htonl((n / 250) << 8 | (n % 250 + 1)); }

    // Answers the status requests that arrive within `ms` milliseconds.
    void serve(int ms)
    {
        auto until = Clock::now() + std::chrono::milliseconds(ms);
        for (;;) {
            int left = int(std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count());
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, left > 0 ? left : 0) <= 0)
                return;
            uint8_t buf[1500];
            sockaddr_in from{};
            alignas(cmsghdr) char control[256];
            iovec iov{buf, sizeof buf};
            msghdr msg{};
            msg.msg_name = &from;
            msg.msg_namelen = sizeof from;
            msg.msg_iov = &iov;
            msg.msg_iovlen = 1;
            msg.msg_control = control;
            msg.msg_controllen = sizeof control;
            ssize_t n = recvmsg(fd, &msg, 0);
            if (n < 12 + 34 + 4)
                continue;
            uint32_t to = 0;
            for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
                if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
                    in_pktinfo info;
                    memcpy(&info, CMSG_DATA(c), sizeof info);
                    to = info.ipi_addr.s_addr;
                }
            }
            // A node status request (opcode 0, not a response, NBSTAT) to
            // one of our hosts.
            bool request = (buf[2] & 0xF8) == 0 && buf[12] == 32 && buf[46] == 0 && buf[47] == 0x21;
            if (!request || (to & htonl(0xFFFF0000)) != net)
                continue;
            uint32_t h = ntohl(to) & 0xFFFF;
            uint32_t index = (h >> 8) * 250 + (h & 0xFF) - 1;
            if (send_from(fd, to, from, status_answer(uint16_t(buf[0] << 8 | buf[1]), index, to)))
                answered++;
        }
    }

    // One query from every host, 50 at a time, answering status requests
    // between; the status requests answered in this pass.
    int pass(const sockaddr_in& daemon)
    {
        int before = answered;
        uint8_t name[16];
        nb_name(name, "NOBODYHERE", 0x20);
        for (uint32_t n = 0; n < hosts; n++) {
            send_from(fd, address(n), daemon, name_query(uint16_t(n), name));
            if (n % 50 == 49)
                serve(20);
        }
        serve(2000);
        return answered - before;
    }
};

}  // namespace

int main(int argc, char** argv)
{
    const char* target = nullptr;
    const char* net = nullptr;
    long hosts = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string opt = argv[i];
        if (opt == "--target")
            target = argv[i + 1];
        else if (opt == "--net")
            net = argv[i + 1];
        else if (opt == "--hosts")
            hosts = strtol(argv[i + 1], nullptr, 10);
        else
            usage_error("unknown option ", argv[i]);
    }
    sockaddr_in daemon{};
    daemon.sin_family = AF_INET;
    daemon.sin_port = htons(137);
    in_addr base{};
    if (target == nullptr || inet_pton(AF_INET, target, &daemon.sin_addr) != 1)
        usage_error("--target: not an address: ", target != nullptr ? target : "(none)");
    if (net == nullptr || inet_pton(AF_INET, (std::string(net) + ".0.0").c_str(), &base) != 1)
        usage_error("--net: not A.B: ", net != nullptr ? net : "(none)");
    if (hosts < 1 || hosts > 250 * 256)
        usage_error("--hosts: 1 to 64000", "");

    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    int on = 1;
    setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    setsockopt(fd, IPPROTO_IP, IP_FREEBIND, &on, sizeof on);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(137);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0) {
        perror("halyard-hostsim: socket");
        return 1;
    }
    Sim sim{fd, base.s_addr, uint32_t(hosts)};
    auto start = Clock::now();
    int first = sim.pass(daemon);
    int second = sim.pass(daemon);
    double secs = std::chrono::duration<double>(Clock::now() - start).count();
    printf("hosts=%ld answered_first=%d asked_again=%d seconds=%.1f\n", hosts, first, second, secs);
    return 0;
}
