// The agent's request reader and answers over the SQLite directory.
//
// Input: the datagrams of fz_agent_datagrams; option bits 0-1 the sender of
// four stations, bit 2 a second passes first, bit 4 in one batch, one
// transaction, with the datagram before. Station 0 holds HELD<20> and
// station 1 is a member of GROUP<1e> at the start; stations 0 to 2 are
// registrars, station 3 is not. The VERIFY ids start at 1, so a response can
// answer one the input started.

#include "fuzz/fuzzenv.h"
#include "nda/ndaserve.h"
#include "nda/ndastore.h"

namespace {

int64_t now_ms = 1000000, now_s = 1700000000;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fz_agent("file:fuzz_nda?mode=memory&cache=shared");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    nda_serve_init(&nda_sqlite);
    const NdaNet registrars[] = {{fz_station(0), htonl(0xfffffffeu)}, {fz_station(2), htonl(0xffffffffu)}};
    nda_set_registrars(registrars, 2);
    fz_agent_hold({{"HELD", 0x20, 0, 0, 228, 0}, {"GROUP", 0x1e, 1, 1, 228, 0}}, now_s);
    fz_agent_datagrams(data, size, [](uint8_t opt, const uint8_t* dg, int len) {
        if (!(opt & 16))
            nda_flush(now_ms, now_s);
        if (opt & 4)
            nda_due(now_ms += 1000, now_s += 1);
        UniAddr from{};
        iantoua(&from, fz_station(opt & 3), (opt & 3) == 3 ? 137 : 228);
        nda_datagram(dg, len, &from, now_ms, now_s);
    });
    nda_flush(now_ms, now_s);
    for (int i = 0; i < 10 && nda_pending() > 0; i++)
        nda_due(now_ms += 1000, now_s);
    fz_agent_end();
    return 0;
}
