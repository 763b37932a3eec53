// Byte streams through the notifier's framed readers, ntf_read (the
// response pipe) and ntf_take (the server FIFO), until the stream ends.
//
// Input: two bytes choosing ntf_read's limit (big-endian; 0xFFFF is -1),
// then the stream (at most 60 KiB, which a pipe holds).

#include "fuzz/fuzzenv.h"
#include "src/notifier.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 || size > 2 + 60 * 1024)
        return -1;
    int limit = data[0] << 8 | data[1];
    if (limit == 0xFFFF)
        limit = -1;
    ns_hdr hdr;
    // Exactly the room the callers give: a longer read is a read past it.
    std::vector<uint8_t> buf(NS_MAXDATA);
    for (int reader = 0; reader < 2; reader++) {
        int p[2];
        if (pipe(p) != 0)
            __builtin_trap();
        fcntl(p[1], F_SETPIPE_SZ, 64 * 1024);
        size_t left = size - 2;
        if (left > 0 && write(p[1], data + 2, left) != ssize_t(left))
            __builtin_trap();
        close(p[1]);
        ntf_take_reset();
        for (size_t i = 0; i <= size; i++) {
            int n = reader == 0 ? ntf_read(p[0], &hdr, buf.data(), limit) : ntf_take(p[0], &hdr, buf.data());
            if (n < 0)
                break;
            if (n > NS_MAXDATA || (reader == 0 && limit >= 0 && n > limit) || n > hdr.len ||
                (reader == 1 && n != hdr.len))
                __builtin_trap();   // more data than the header or the limit allows
        }
        close(p[0]);
    }
    return 0;
}
