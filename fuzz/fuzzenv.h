#pragma once

// The set-up the fuzz harnesses share. Every helper aborts when it cannot do
// its part: a harness must never run on the machine's own network or
// directories.

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <vector>

#include "nmtrace.h"
#include "shr/uniinet.h"
#include "src/dorequest.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/ntable.h"

// fuzzenv.cpp gives one that only calls fz_private_net(); a harness may give its own.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

void fz_private_net();
// A new mount namespace, fresh tmpfs over /etc/opt, /var/opt and /opt, the
// daemon's directories below them.
void fz_private_dirs();
// Trace file closed, log written to a private file that fz_trace_off
// empties, so the log's formatting runs.
void fz_quiet();
// A trace file in memory (64 KiB, the rest dropped), rewound.
FILE* fz_trace_sink();

// A daemon off the network, quiet, its timers on a fake clock, the daemon's
// ends of the relay pipes (non-blocking, large), interfaces 10.88.0.1/24 and
// 10.88.1.1/24 known as its own host, the default ports.
void fz_daemon();
// Writes a request stream (at most the pipe's room); drains the responses.
size_t fz_ntf_feed(const uint8_t* data, size_t size);
void fz_ntf_drain();
bool fz_ntf_pending();  // request bytes still wait in the pipe
void fz_name16(uint8_t* out, const char* text, uint8_t type = 0x20);
void fz_trace_all();  // every level at 9
void fz_trace_off();  // and the log emptied
// The clock moves on SECONDS so that retries and waits run out, then names,
// learnt hosts, responses, trace and log are cleared.
void fz_end_input(int seconds);
void fz_write_file(const char* path, const uint8_t* data, size_t size);

// The agent's harnesses: its SQLite directory in memory at URI, off the
// network and quiet; emptied after each input (which fails if the input left
// a statement open).
void fz_agent(const char* uri);
// Station I of the test subnet, 10.88.0.2 + I.
uint32_t fz_station(int i);
// A name one station holds in the directory as an input starts.
struct FzHeld {
    const char* text;
    uint8_t type;
    int group, station;
    uint16_t port;
    int64_t expires;   // 0 kept until deleted
};
void fz_agent_hold(std::initializer_list<FzHeld> held, int64_t now_s);
// Up to 16 datagrams, each as one option byte, two bytes of length (least
// significant first, at most 1500), the datagram. Option bit 3 sets every
// trace level at 9 first; each datagram is handed on as a copy of exactly its
// size, so that a read past it is seen.
void fz_agent_datagrams(const uint8_t* data, size_t size,
                        const std::function<void(uint8_t opt, const uint8_t* dg, int len)>& each);
void fz_agent_end();  // the directory emptied, trace and log off
