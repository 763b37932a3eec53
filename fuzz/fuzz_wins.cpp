// The agent's WINS reader and answers over the SQLite directory, in memory
// and opened once: a second connection empties it after each input. Sends
// go nowhere (a socket of a private network namespace without routes).
//
// Input: up to 16 datagrams, each as one option byte (bits 0-1 the sender
// of four stations, bit 2 the clock runs 600 ms first and what is due runs,
// bit 3 every trace level at 9), two bytes of length (least significant
// first, at most 1500), the datagram. Station 0 holds HELD<20> by WINS and
// station 1's daemon DAEMON<20> at the start. At the end the clock runs on
// until every challenge settled.
#include <arpa/inet.h>
#include <sqlite3.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/fuzzenv.h"
#include "nda/ndadir.h"
#include "nda/ndaserve.h"
#include "nda/ndastore.h"
#include "nda/ndawins.h"
#include "nmtrace.h"

namespace {

constexpr const char* DIRECTORY = "file:fuzz_wins?mode=memory&cache=shared";
constexpr const char* WIPE[] = {"DELETE FROM name", "DELETE FROM addr", "DELETE FROM host"};
sqlite3* wiper = nullptr;
sqlite3_stmt* wipe[3];
alignas(16) uint8_t page_pool[512][4096 + 512];
int64_t now_ms = 1000000;
int64_t now_s = 1700000000;
int fd = -1;

uint32_t station_ip(int i)
{
    return htonl(0x0a580002u + uint32_t(i));
}

int registered(void*)
{
    const char* names[] = {"HELD", "DAEMON"};
    for (int who = 0; who < 2; who++) {
        uint8_t name[16];
        memset(name, ' ', 16);
        memcpy(name, names[who], strlen(names[who]));
        name[15] = 0x20;
        uint32_t addr = station_ip(who);
        NdaClaim c{name, 0, &addr, 1, addr, uint16_t(who == 0 ? 137 : 228), now_s};
        c.expires = who == 0 ? now_s + 60 : 0;
        NdaHolder h{};
        if (dir_claim(&nda_sqlite, c, &h) != 0)
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
    fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0 || nda_sqlite.open(DIRECTORY) != 0 ||
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
    const NdaNet registrars[] = {{station_ip(0), htonl(0xfffffffcu)}};
    nda_set_registrars(registrars, 1);
    wins_init(&nda_sqlite, fd, 60);
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
        if (opt & 4) {
            now_ms += 600;
            now_s = now_ms / 1000 + 1699999000;
            wins_due(now_ms, now_s);
            nda_due(now_ms, now_s);
        }
        // A copy of exactly the datagram's size, so a read past it is seen.
        std::vector<uint8_t> dg(data + at, data + at + len);
        wins_datagram(dg.data(), int(len), station_ip(opt & 3), 137, now_ms, now_s);
        at += len;
    }
    wins_flush(now_ms, now_s);
    for (int i = 0; i < 20 && (wins_challenges() > 0 || nda_pending() > 0); i++) {
        now_ms += 600;
        wins_due(now_ms, now_s);
        nda_due(now_ms, now_s);
    }
    for (sqlite3_stmt* w : wipe)
        if (sqlite3_step(w) != SQLITE_DONE || sqlite3_reset(w) != SQLITE_OK)
            abort();
    tcfile = nullptr;
    tc_in = tc_out = tc_proc = tc_err = 0;
    fz_truncate_log();
    return 0;
}
