// Name-service datagrams through decode_npack and process_npkt, with local
// names, pending lookups and status requests.
//
// Input: one option byte, then the datagram (at most 1500 bytes).
//   bit 0  one agent configured      bit 1  the sender is our own address
//   bit 2  every trace level at 9    bit 3  the sender is off our subnets
//   bit 4  lookups are not strict    bit 5  the sender is our WINS server,
//                                           asked for FAR (its id is random)

#include "fuzz/fuzzenv.h"
#include "src/service.h"
#include "src/wins.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fz_daemon();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 1 + NPKT_AREA)
        return -1;
    uint8_t opt = data[0];
    nda_ct = opt & 1;
    nda_addr[0] = inet_addr("10.88.0.200");
    strict = (opt & 16) ? 0 : 1;
    if (opt & 4)
        fz_trace_all();
    uint8_t name[16];
    fz_name16(name, "HOST", 0x20);
    nt_add(name, 0);
    fz_name16(name, "TEAM", 0x1C);
    nt_add(name, NT_GROUP);
    fz_name16(name, "NEWNAME", 0x20);
    nt_add(name, NT_PENDING);
    fz_name16(name, "FAR", 0x20);
    add_lu(name, 0, NS_LOOKUP, 1, 11);
    add_lu(name, inet_addr("10.88.0.7"), NS_ADAPSTAT, 2, 12);
    wins_ct = (opt & 32) ? 1 : 0;
    wins_addr[0] = inet_addr("10.88.0.7");
    if (wins_ct > 0)
        wins_lookup(name);

    // An exact copy: a read past the datagram is a read past the buffer.
    npkt rec{};
    std::vector<uint8_t> bytes(data + 1, data + size);
    if (decode_npack(&rec, bytes.data(), int(bytes.size())) >= 0) {
        const char* from = (opt & 2) ? "10.88.0.1" : (opt & 8) ? "192.0.2.9" : "10.88.0.7";
        iantoua(&rec.addr, inet_addr(from), 137);
        process_npkt(&rec);
    }

    rm_lu(1);
    rm_lu(2);
    fz_end_input(40);   // claims, retries and waits run out
    return 0;
}
