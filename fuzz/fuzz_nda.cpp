// The agent's request reader and answers over the SQLite directory, in memory
// and opened once: a second connection empties it after each input (which
// fails if it left a statement open). Sends fail (no socket, no network).
//
// Input: up to 16 datagrams, each as one option byte (bits 0-1 the sender of
// four stations, bit 2 a second passes first, bit 3 every trace level at 9,
// bit 4 in one batch, one transaction, with the datagram before), two bytes
// of length (least significant first, at most 1500), the datagram.
// Station 0 holds HELD<20> and station 1 is a member of GROUP<1e> at the
// start; stations 0 to 2 are registrars, station 3 is not. The VERIFY ids
// start at 1, so a response can answer one the input started. At the end
// the clock runs on until every verification settled.
#include <arpa/inet.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/fuzzenv.h"
#include "nda/ndadir.h"
#include "nda/ndaserve.h"
#include "nda/ndastore.h"
#include "nmtrace.h"
#include "shr/uniinet.h"

namespace {

constexpr const char* DIRECTORY = "file:fuzz_nda?mode=memory&cache=shared";
constexpr const char* WIPE[] = {"DELETE FROM name", "DELETE FROM addr", "DELETE FROM host"};
sqlite3* wiper = nullptr;
sqlite3_stmt* wipe[3];
// SQLite's pages from a pool of their own, not from the sanitizer's
// allocator (which fills and quarantines each): several times faster.
alignas(16) uint8_t page_pool[512][4096 + 512];
int64_t now_ms = 1000000;
int64_t now_s = 1700000000;

uint32_t station_ip(int i)
{
    return htonl(0x0a580002u + uint32_t(i));
}

int registered(void*)
{
    const struct { const char* text; uint8_t type; int group; } names[] = {{"HELD", 0x20, 0}, {"GROUP", 0x1e, 1}};
    for (int who = 0; who < 2; who++) {
        uint8_t name[16];
        memset(name, ' ', 16);
        memcpy(name, names[who].text, strlen(names[who].text));
        name[15] = names[who].type;
        uint32_t addr = station_ip(who);
        NdaHolder h{};
        if (dir_claim(&nda_sqlite, {name, names[who].group, &addr, 1, addr, 228, now_s}, &h) != 0)
            return -1;
    }
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fz_private_net();
    fz_quiet();
    sqlite3_config(SQLITE_CONFIG_URI, 1);
    sqlite3_config(SQLITE_CONFIG_PAGECACHE, page_pool, int(sizeof page_pool[0]), 512);
    if (nda_sqlite.open(DIRECTORY) != 0 ||
        sqlite3_open_v2(DIRECTORY, &wiper, SQLITE_OPEN_READWRITE | SQLITE_OPEN_URI, nullptr) != SQLITE_OK)
        abort();
    for (int i = 0; i < 3; i++)
        if (sqlite3_prepare_v2(wiper, WIPE[i], -1, &wipe[i], nullptr) != SQLITE_OK)
            abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    nda_serve_init(&nda_sqlite);
    const NdaNet registrars[] = {{station_ip(0), htonl(0xfffffffeu)}, {station_ip(2), htonl(0xffffffffu)}};
    nda_set_registrars(registrars, 2);
    if (nda_sqlite.transact(true, registered, nullptr) != 0)
        abort();
    size_t at = 0;
    for (int n = 0; n < 16 && at + 3 <= size; n++) {
        uint8_t opt = data[at];
        size_t len = std::min({size_t(data[at + 1] | data[at + 2] << 8), size - at - 3, size_t(1500)});
        at += 3;
        if (opt & 8) {
            tcfile = fz_trace_sink();
            tc_in = tc_out = tc_proc = tc_err = 9;
        }
        if (!(opt & 16))
            nda_flush(now_ms, now_s);
        if (opt & 4)
            nda_due(now_ms += 1000, now_s += 1);
        // A copy of exactly the datagram's size, so a read past it is seen.
        std::vector<uint8_t> dg(data + at, data + at + len);
        UniAddr from{};
        iantoua(&from, station_ip(opt & 3), (opt & 3) == 3 ? 137 : 228);
        nda_datagram(dg.data(), int(len), &from, now_ms, now_s);
        at += len;
    }
    nda_flush(now_ms, now_s);
    for (int i = 0; i < 10 && nda_pending() > 0; i++)
        nda_due(now_ms += 1000, now_s);
    for (sqlite3_stmt* w : wipe)
        if (sqlite3_step(w) != SQLITE_DONE || sqlite3_reset(w) != SQLITE_OK)
            abort();
    tcfile = nullptr;
    tc_in = tc_out = tc_proc = tc_err = 0;
    fz_truncate_log();
    return 0;
}
