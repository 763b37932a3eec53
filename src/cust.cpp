#include "src/cust.h"

#include "nmtrace.h"
#include "shr/fxdump.h"
#include "shr/uniinet.h"
#include "src/namecust.h"
#include "src/nbndgio.h"

int WriteDG(const UniAddr* to, const uint8_t* bytes, int length)
{
    if (tcfile != nullptr && tc_out >= 4) {
        tc_printf("WriteDG: sending %d bytes --\n", length);
        dump_bytes(tcfile, bytes, length > 0 ? static_cast<size_t>(length) : 0);
        fflush(tcfile);
    }
    return put_ddg(ens_fd, bytes, length, to);
}

int same_addr(uint32_t address, const UniAddr* peer)
{
    uint32_t a = 0;
    if (uatoian(&a, nullptr, peer) < 0)
        return 0;
    return a == address ? 1 : 0;
}
