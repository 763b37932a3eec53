// The readers of name-service responses (the client library's, the
// daemon's, the WINS client's, the decoder's) on one datagram.

#include "fuzz/fuzzenv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > NPKT_AREA)
        return -1;
    // An exact copy, and a null pointer for the empty datagram.
    std::vector<uint8_t> copy(data, data + size);
    uint8_t* bytes = size > 0 ? copy.data() : nullptr;
    int len = int(size);
    uint32_t addr = 0, ttl = 0;
    int group = 0;
    find_ip_rfc(bytes, len, &addr, &group);
    find_ttl_rfc(bytes, len, &ttl);
    static as_stats st;
    static as_name recs[AS_MAXNAMES];
    int n = find_as_rfc(bytes, len, &st, recs);
    if (n > AS_MAXNAMES)
        __builtin_trap();   // more names than the room it was given
    find_flags(bytes, len);
    find_type(bytes, len);
    return 0;
}
