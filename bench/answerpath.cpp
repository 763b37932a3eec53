// The daemon's answer path without the network, for instruction counts:
// a table of local names, then name-service datagrams handed to name_recv
// exactly as the event loop hands them over. The name-service socket stays
// closed, so the answers are built but nothing is sent.
//
//   halyard-answerpath [--names N] [--queries Q] [--mode query|status|miss]
//
//   valgrind --tool=callgrind --toggle-collect=run_datagrams halyard-answerpath
//
// divided by Q gives the instructions of one answered datagram.
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "misc/nencode.h"
#include "shr/uniinet.h"
#include "src/maininit.h"
#include "src/namecust.h"
#include "src/namelogin.h"
#include "src/ntable.h"

namespace {

constexpr int MAX_NAMES = 5000;
constexpr long MAX_QUERIES = 100000000;

void bench_name(uint8_t* out, int i)
{
    char text[17];
    snprintf(text, sizeof text, "BENCH%-10d", i);
    memcpy(out, text, 15);
    out[15] = 0x20;
}

// RFC 1002 4.2.12 name query request (4.2.17 node status request), RD set.
std::vector<uint8_t> request(const uint8_t* name, uint16_t id, bool status)
{
    std::vector<uint8_t> d = {uint8_t(id >> 8), uint8_t(id), 0x01, 0x00, 0, 1, 0, 0, 0, 0, 0, 0, NB_ENCLEN};
    char enc[NB_ENCLEN + 1];
    n_encode(enc, name);
    d.insert(d.end(), enc, enc + NB_ENCLEN);
    d.insert(d.end(), {0, 0, uint8_t(status ? 0x21 : 0x20), 0, 1});
    return d;
}

// Separate so that callgrind's --toggle-collect counts just this.
[[gnu::noinline]] void run_datagrams(const std::vector<std::vector<uint8_t>>& dgs, long count,
                                     const UniAddr* from)
{
    for (long i = 0; i < count; i++) {
        const std::vector<uint8_t>& d = dgs[size_t(i) % dgs.size()];
        name_recv(from, d.data(), int(d.size()));
    }
}

int usage()
{
    fprintf(stderr, "usage: halyard-answerpath [--names N] [--queries Q] [--mode query|status|miss]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    int names = 8;
    long queries = 100000;
    const char* mode = "query";
    for (int i = 1; i < argc; i++) {
        if (i + 1 < argc && strcmp(argv[i], "--names") == 0)
            names = atoi(argv[++i]);
        else if (i + 1 < argc && strcmp(argv[i], "--queries") == 0)
            queries = atol(argv[++i]);
        else if (i + 1 < argc && strcmp(argv[i], "--mode") == 0)
            mode = argv[++i];
        else
            return usage();
    }
    bool status = strcmp(mode, "status") == 0;
    bool miss = strcmp(mode, "miss") == 0;
    if (names < 1 || names > MAX_NAMES || queries < 1 || queries > MAX_QUERIES ||
        !(status || miss || strcmp(mode, "query") == 0))
        return usage();

    // One interface; the asker on its subnet; no sender registered, so
    // answers are built but nothing leaves.
    static if_entry ifs[1];
    ifs[0] = {inet_addr("10.88.0.1"), inet_addr("10.88.0.255"), inet_addr("255.255.255.0")};
    my_addr = ifs;
    my_addr_ct = 1;
    transport_tcpip = 1;
    nmport = 137;

    std::vector<std::vector<uint8_t>> dgs;
    for (int i = 0; i < names; i++) {
        uint8_t name[16];
        bench_name(name, i);
        if (nt_add(name, 0) != 0) {
            fprintf(stderr, "halyard-answerpath: cannot add name %d\n", i);
            return 1;
        }
        if (miss)
            name[0] = 'X';   // asked, never added
        dgs.push_back(request(name, uint16_t(i + 1), status));
    }
    for (nt_entry* e = n_table; e != nullptr; e = e->next)
        e->flags &= ~NT_PENDING;   // claimed: answered from now on

    UniAddr from{};
    iantoua(&from, inet_addr("10.88.0.2"), 137);
    run_datagrams(dgs, queries, &from);
    printf("names=%d queries=%ld mode=%s\n", names, queries, mode);
    return 0;
}
