// Byte streams through the notifier's framed readers: what the daemon
// writes into the response pipe read back message by message with ntf_read,
// and what clients write into the server FIFO with ntf_take, until the
// stream ends (the writer is closed: a message cut short ends it).
//
// Input: two bytes choosing ntf_read's limit (big-endian; 0xFFFF is -1),
// then the stream (at most 60 KiB, which a pipe holds).
#include <fcntl.h>
#include <unistd.h>

#include "fuzz/fuzzenv.h"
#include "src/dorequest.h"
#include "src/notifier.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fz_private_net();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 || size > 2 + 60 * 1024)
        return -1;
    int limit = data[0] << 8 | data[1];
    if (limit == 0xFFFF)
        limit = -1;
    ns_hdr hdr;
    // Exactly the room the callers give: a longer read is a read past it.
    uint8_t* buf = new uint8_t[NS_MAXDATA];
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
            int n = reader == 0 ? ntf_read(p[0], &hdr, buf, limit) : ntf_take(p[0], &hdr, buf);
            if (n < 0)
                break;
            if (n > NS_MAXDATA || (reader == 0 && limit >= 0 && n > limit) || n > hdr.len ||
                (reader == 1 && n != hdr.len))
                __builtin_trap();   // more data than the header or the limit allows
        }
        close(p[0]);
    }
    delete[] buf;
    return 0;
}
