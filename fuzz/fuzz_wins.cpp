// The agent's WINS reader and answers over the SQLite directory.
//
// Input: the datagrams of fz_agent_datagrams; option bits 0-1 the sender of
// four stations, bit 2 the clock runs 600 ms first and what is due runs.
// Station 0 holds HELD<20> by WINS and station 1's daemon DAEMON<20>.
#include <sys/socket.h>

#include "fuzz/fuzzenv.h"
#include "nda/ndaserve.h"
#include "nda/ndastore.h"
#include "nda/ndawins.h"

namespace {

int64_t now_ms = 1000000, now_s = 1700000000;
int fd = -1;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fz_agent("file:fuzz_wins?mode=memory&cache=shared");
    if ((fd = socket(AF_INET, SOCK_DGRAM, 0)) < 0)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    nda_serve_init(&nda_sqlite);
    const NdaNet registrars[] = {{fz_station(0), htonl(0xfffffffcu)}};
    nda_set_registrars(registrars, 1);
    wins_init(&nda_sqlite, fd, 60);
    fz_agent_hold({{"HELD", 0x20, 0, 0, 137, now_s + 60}, {"DAEMON", 0x20, 0, 1, 228, 0}}, now_s);
    fz_agent_datagrams(data, size, [](uint8_t opt, const uint8_t* dg, int len) {
        if (opt & 4) {
            now_ms += 600;
            now_s = now_ms / 1000 + 1699999000;
            wins_due(now_ms, now_s);
            nda_due(now_ms, now_s);
        }
        wins_datagram(dg, len, fz_station(opt & 3), 137, now_ms, now_s);
    });
    wins_flush(now_ms, now_s);
    for (int i = 0; i < 20 && (wins_challenges() > 0 || nda_pending() > 0); i++) {
        now_ms += 600;
        wins_due(now_ms, now_s);
        nda_due(now_ms, now_s);
    }
    fz_agent_end();
    return 0;
}
