#include "misc/pktasm.h"

#include <cstring>

#include "misc/enskey.h"
#include "nmtrace.h"
#include "shr/dgsend.h"
#include "shr/fxdump.h"

// Every ENS datagram of the daemon and of the agent leaves here: with a key
// it is sealed here, so the trace shows what goes on the wire.
int WriteDG(const UniAddr* to, const uint8_t* bytes, int length)
{
    uint8_t sealed[ENS_AREA + EK_SEAL_SIZE];
    if (ek_keyed()) {
        length = ek_seal(sealed, int(sizeof sealed), bytes, length, ek_now_us());
        if (length < 0)
            return -1;
        bytes = sealed;
    }
    if (tcfile != nullptr && tc_out >= 4) {
        tc_printf("WriteDG: sending %d bytes --\n", length);
        dump_bytes(tcfile, bytes, length > 0 ? static_cast<size_t>(length) : 0);
        fflush(tcfile);
    }
    return dg_send(DgWay::ens, bytes, length, to);
}

namespace {

// The one assembly area: odata is where the datagram starts, onext the next
// free byte. Items keep onext even, so an odd item's pad byte always fits
// when the item itself did.
uint8_t obuf[ENS_AREA];
uint8_t* const odata = obuf;
uint8_t* onext = obuf + ENS_HDRSIZE;

// Little-endian, whatever the host's order.
void put32(uint32_t v)
{
    for (int i = 0; i < 4; i++)
        *onext++ = uint8_t(v >> (8 * i));
}

// version, id, action, ans, err at the front, then the send; the area is
// left ready for the next body.
int send_dg(const UniAddr* to, uint32_t id, uint32_t action, int32_t ans, int32_t err)
{
    int length = pkta_length();
    onext = odata;
    put32(ENS_VERSION);
    put32(id);
    put32(action);
    put32(uint32_t(ans));
    put32(uint32_t(err));
    onext = odata + ENS_HDRSIZE;
    return WriteDG(to, odata, length);
}

}  // namespace

int check_alloc(int n)
{
    if (n < 0 || n > (odata + ENS_AREA) - onext)
        return -1;
    return 0;
}

void pkta_begin()
{
    onext = odata + ENS_HDRSIZE;
}

int pkta_int(int32_t value)
{
    if (check_alloc(4) < 0)
        return -1;
    put32(uint32_t(value));
    return 4;
}

int pkta_block(const uint8_t* bytes, int n)
{
    int padded = n + (n & 1);
    if (n < 0 || check_alloc(padded) < 0)
        return -1;
    if (n > 0)
        memcpy(onext, bytes, size_t(n));
    onext += n;
    if (n & 1)
        *onext++ = 0;
    return padded;
}

int pkta_name(const uint8_t* name)
{
    // Both parts or neither: a name cut after its count would mislead the reader.
    if (check_alloc(4 + 16) < 0)
        return -1;
    pkta_int(16);
    pkta_block(name, 16);
    return 0;
}

int pkta_ip(uint32_t address)
{
    uint8_t item[5] = {4};
    memcpy(item + 1, &address, 4);  // already in network order
    return pkta_block(item, 5);
}

int pkta_string(const char* text)
{
    size_t len = strlen(text) + 1;
    if (len > size_t(ENS_AREA))
        return -1;
    return pkta_block(reinterpret_cast<const uint8_t*>(text), int(len));
}

int pkta_length()
{
    return int(onext - odata);
}

int pkta_request(const UniAddr* to, uint32_t id, int32_t action)
{
    TRACE(proc, 1, "pkta_request\n");
    return send_dg(to, id, uint32_t(action), 0, 0);
}

int pkta_respond(const UniAddr* to, uint32_t id, int32_t action, int32_t ans, int32_t err)
{
    TRACE(proc, 1, "pkta_respond\n");
    return send_dg(to, id, uint32_t(action) | ENS_RESPONSE, ans, err);
}
