// Client messages through the daemon's request pipe, do_request answering
// until the pipe is empty.
//
// Input: one option byte, then the stream (at most 64 KiB).
//   bit 0  one agent configured      bit 1  every trace level at 9
#include <csignal>

#include "fuzz/fuzzenv.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fz_daemon();
    ssport = 139;
    nda_addr[0] = inet_addr("10.88.0.200");
    strcpy(nb_scope, "sales.corp");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 1 + 65536)
        return -1;
    uint8_t opt = data[0];
    nda_ct = opt & 1;
    if (opt & 2)
        fz_trace_all();
    fz_ntf_feed(data + 1, size - 1);
    for (int i = 0; i < 4096 && fz_ntf_pending(); i++) {
        do_request(SIGINT);
        fz_ntf_drain();
    }
    get_request_reset();   // a message cut short waits no longer
    fz_end_input(20);   // claim cycles and lookup time-outs run out
    return 0;
}
