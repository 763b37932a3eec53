#include "misc/pktdis.h"

#include <cstring>

#include "shr/reader.h"

uint32_t pk_id;
int32_t pk_type;
int32_t pk_action;
int32_t pk_ans;
int32_t pk_err;

namespace {

// The datagram being read. A read that runs past the end fails the reader
// for good, so every later item of the same datagram fails as well.
Reader in;

// The offset of the next byte; items are aligned on the datagram's start.
size_t inext()
{
    return in.pos();
}

}  // namespace

int pktd_hdr(const uint8_t* bytes, int length)
{
    in = Reader(bytes, length > 0 && bytes != nullptr ? size_t(length) : 0);
    int32_t v = 0;
    if (pktd_int(&v) < 0 || uint32_t(v) != ENS_VERSION)
        return -4;
    if (pktd_int(&v) < 0)
        return -2;
    pk_id = uint32_t(v);
    if (pktd_int(&v) < 0)
        return -5;
    if (uint32_t(v) & ENS_RESPONSE) {
        pk_type = 1;
        pk_action = int32_t(uint32_t(v) & ~ENS_RESPONSE);
    } else {
        pk_type = 0;
        pk_action = v;
    }
    if (pktd_int(&pk_ans) < 0 || pktd_int(&pk_err) < 0)
        return -2;
    return 0;
}

int pktd_int(int32_t* out)
{
    if (in.left() < 4) {
        in.skip(in.left() + 1);  // what was there is used up
        return -2;
    }
    *out = int32_t(in.u32le());
    return 4;
}

int pktd_block(const uint8_t** out, int n)
{
    if (n < 1)
        return 0;
    if (in.left() == 0)
        return -2;
    size_t k = in.left() < size_t(n) ? in.left() : size_t(n);
    *out = in.bytes(k).data();
    if ((k & 1) && in.left() > 0)
        in.skip(1);
    return int(k);
}

int pktd_name(uint8_t* out)
{
    int32_t len = 0;
    if (pktd_int(&len) < 0 || len != 16)
        return -2;
    const uint8_t* p = nullptr;
    if (in.left() < 16) {
        in.skip(in.left() + 1);
        return -2;
    }
    pktd_block(&p, 16);
    memcpy(out, p, 16);
    return 0;
}

int pktd_ip(uint32_t* out)
{
    if (in.left() == 0)
        return -1;
    int len = int8_t(in.peek());
    if (len < 4 || in.left() < 5)
        return -2;
    // A longer item is taken whole; its first four bytes are the address.
    const uint8_t* p = nullptr;
    int taken = pktd_block(&p, len + 1);
    memcpy(out, p + 1, 4);
    return taken;
}

int pktd_string(char* out, int limit)
{
    int count = 0;
    while (count < limit) {
        if (in.left() == 0) {
            out[count] = '\0';
            return count + 1;
        }
        uint8_t c = in.u8();
        out[count++] = char(c);
        if (c == 0) {
            if ((inext() & 1) && in.left() > 0)
                in.skip(1);
            return count;
        }
    }
    return limit;
}
