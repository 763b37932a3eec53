// The resolver module's reader of the answer FIFO: a stream as the FIFO
// gives it, in reads of sizes the input chooses, kept in the buffer the
// module keeps, for two lookups whose xids the input names. The same bytes
// also go through the settings reader and, cut at a zero byte, the host-name
// check.
//
// Input: the two xids (4 bytes each, host order), a byte seeding the read
// sizes, then the stream (at most 60 KiB, what a FIFO holds).

#include "fuzz/fuzzenv.h"
#include "nss/nssanswer.h"
#include "src/nsmsg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 9 || size > 9 + 60 * 1024)
        return -1;
    NssAsk asks[2] = {{0, NssState::waiting, 0}, {0, NssState::waiting, 0}};
    memcpy(&asks[0].xid, data, 4);
    memcpy(&asks[1].xid, data + 4, 4);
    uint32_t seed = data[8] | 1u;
    const uint8_t* stream = data + 9;
    size_t left = size - 9;

    constexpr size_t msgsize = NS_HDRSIZE + NS_MAXDATA;
    static uint8_t buf[2 * msgsize];
    size_t len = 0;
    while (left > 0) {
        seed = seed * 1103515245u + 12345u;
        size_t n = 1 + (seed >> 16) % 5000;
        n = std::min({n, left, sizeof buf - len});
        memcpy(buf + len, stream, n);
        stream += n;
        left -= n;
        len += n;
        size_t used = nss_take(std::span<const uint8_t>(buf, len), std::span<NssAsk>(asks, 2));
        // What stays is a message in part: the next read always has room.
        if (used > len || len - used >= msgsize)
            __builtin_trap();
        len -= used;
        memmove(buf, buf + used, len);
    }
    for (const NssAsk& a : asks)
        if (a.state == NssState::found && a.addr == 0)
            __builtin_trap();

    int wait = nss_wait_ms(std::span<const uint8_t>(data, size));
    if (wait < NSS_WAIT_MIN_MS || wait > NSS_WAIT_MAX_MS)
        __builtin_trap();
    std::vector<char> host(std::min(size, size_t(63)) + 1);   // zero-filled: cut at the first zero
    memcpy(host.data(), data, host.size() - 1);
    uint8_t name[16];
    if (nss_nbname(name, host.data(), 0x20) == 0 && (name[15] != 0x20 || strlen(host.data()) > 15))
        __builtin_trap();
    return 0;
}
