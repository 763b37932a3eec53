// ENS datagrams through ens_recv, one agent configured and one command of
// every kind waiting for its response.
//
// Input: one option byte, then the datagram (at most 1500 bytes).
//   bit 0  the sender is a stranger, not the agent
//   bit 1  every trace level at 9
//   bit 2  a key on the daemon: the datagram arrives sealed with it
//   bit 3  with bit 2, the datagram as given (its last 40 bytes the trailer)
// An id field below 16 is taken as an index: the id of the waiting command
// made that many commands after the input began (1 to 7 are the waiting
// ones), so that responses can find their command.

#include "fuzz/fuzzenv.h"
#include "misc/enskey.h"
#include "src/claim.h"
#include "src/cust.h"
#include "src/delay.h"
#include "src/ensrecv.h"
#include "src/query.h"

namespace {

constexpr const char* KEY_PATH = "/var/opt/KORRbase/fuzz.key";  // in the private places
uint8_t query_area[NPKT_AREA];
uint8_t claim_area[NPKT_AREA];
npkt query_pkt, claim_pkt;

// 10.88.0.7's query for REMOTE and registration of CLAIMED, decoded.
void make_packets()
{
    uint8_t name[16];
    npkt out;
    fz_name16(name, "REMOTE");
    init_outpkt(&out, query_area, NT_QUERY, name);
    build_query(&out, 0x1234, 0);
    decode_npack(&query_pkt, query_area, out.size);
    iantoua(&query_pkt.addr, inet_addr("10.88.0.7"), 137);

    fz_name16(name, "CLAIMED");
    init_outpkt(&out, claim_area, NT_REGISTER, name);
    build_claim(&out, 0x4321, 0, 0);
    uint32_t station = inet_addr("10.88.0.7");
    memcpy(claim_area + out.size - 4, &station, 4);   // the claimer's address, last
    decode_npack(&claim_pkt, claim_area, out.size);
    iantoua(&claim_pkt.addr, inet_addr("10.88.0.7"), 137);
}

// Makes the seven waiting commands; the id the first one got, less one.
uint32_t start_commands()
{
    DelayCmd* probe = dc_alloc();
    uint32_t base = probe != nullptr ? probe->xid : 0;
    delete probe;
    uint8_t name[16];
    uint32_t addrs[2] = {inet_addr("10.88.0.1"), inet_addr("10.88.1.1")};
    fz_name16(name, "FAR");
    add_lu(name, 0, NS_LOOKUP, 1, 11);
    nda_lquery(name, 1, 11);
    fz_name16(name, "HOST");
    nda_add(name, 0, addrs, 1);
    fz_name16(name, "OLD");
    nda_delete(name, addrs, 2);
    nda_equiv(addrs, 2);
    nda_purge(inet_addr("10.88.0.50"));
    nda_query(&query_pkt);
    nda_claim(&claim_pkt);
    return base;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fz_daemon();
    nda_addr[0] = inet_addr("10.88.0.200");
    nda_ct = 1;
    make_packets();
    int fd = open(KEY_PATH, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const char hex[] = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff\n";
    if (fd < 0 || write(fd, hex, sizeof hex - 1) != ssize_t(sizeof hex - 1) || close(fd) != 0)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 1 + 1500)
        return -1;
    uint8_t opt = data[0];
    if (opt & 2)
        fz_trace_all();
    uint8_t name[16];
    fz_name16(name, "HOST");
    nt_add(name, 0);
    fz_name16(name, "TEAM", 0x1C);
    nt_add(name, NT_GROUP);
    uint32_t base = start_commands();

    size_t len = size - 1;
    std::vector<uint8_t> bytes(data + 1, data + size);
    uint32_t id = len >= 8 ? uint32_t(bytes[4] | bytes[5] << 8 | bytes[6] << 16 | uint32_t(bytes[7]) << 24) : 16;
    for (int i = 0; i < 4 && id < 16; i++)
        bytes[4 + i] = uint8_t((id + base) >> (8 * i));
    char why[128];
    if ((opt & 4) && ek_load(KEY_PATH, why, sizeof why) < 0)
        abort();
    if ((opt & 12) == 4) {
        // Sealed into a buffer of exactly its size, so a read past it is seen.
        std::vector<uint8_t> sealed(len + EK_SEAL_SIZE);
        len = size_t(ek_seal(sealed.data(), int(sealed.size()), bytes.data(), int(len), ek_now_us()));
        bytes.swap(sealed);
    }
    UniAddr sender{};
    iantoua(&sender, (opt & 1) ? inet_addr("10.88.0.99") : nda_addr[0], ndport);
    ens_recv(-1, bytes.data(), int(len), &sender);
    ek_clear();

    rm_lu(1);
    fz_end_input(70);   // retries, waits and cached answers run out
    return 0;
}
