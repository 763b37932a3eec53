#pragma once

// The set-up the fuzz harnesses share: a private network namespace (only a
// loopback that is down), private empty places for the daemon's files, a
// clock of our own for the timer table, and the daemon's relay pipes.
// Every helper aborts when it cannot do its part: a harness must never run
// on the machine's own network or directories.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <initializer_list>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Leaves the machine's network: unshare(CLONE_NEWNET), abort on failure.
void fz_private_net();
// A new mount namespace with fresh tmpfs mounts over /etc/opt, /var/opt and
// /opt, and the daemon's directories below them; abort on failure.
void fz_private_dirs();
// Trace file closed, log written to a file in /var/opt/KORRbase (made
// private first) that fz_truncate_log empties, so the log's formatting runs.
void fz_quiet();
void fz_truncate_log();

// A trace file in memory, rewound: trace lines are formatted as the daemon
// formats them, without the system call a flushed line to a device costs.
// What does not fit in its 64 KiB is dropped after formatting.
FILE* fz_trace_sink();

// A daemon as the datagram and request harnesses need it: off the network,
// quiet, its timers on a fake clock whose alarm never arms, the daemon's
// ends of the relay pipes (non-blocking, large), two interfaces 10.88.0.1/24
// and 10.88.1.1/24 with the UDP transport and the default ports, its own
// addresses known as its own host.
void fz_daemon();
// fz_ntf_feed writes a request stream (at most the pipe's room),
// fz_ntf_drain discards every response waiting.
size_t fz_ntf_feed(const uint8_t* data, size_t size);
void fz_ntf_drain();
bool fz_ntf_pending();  // request bytes still wait in the pipe
// NAME padded with spaces to 15 bytes, then TYPE.
void fz_name16(uint8_t* out, const char* text, uint8_t type = 0x20);
// Every trace level at 9 into fz_trace_sink.
void fz_trace_all();
// The end of an input: the clock moves on SECONDS so that retries and waits
// run out, then names, learnt hosts, responses, trace and log are cleared.
void fz_end_input(int seconds);
// Writes the input as the file at PATH (in the private places); traps on failure.
void fz_write_file(const char* path, const uint8_t* data, size_t size);

// The agent's harnesses: its SQLite directory in memory at URI, opened once,
// off the network and quiet; a second connection empties it after each input
// (which fails if the input left a statement open).
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
// An agent input: up to 16 datagrams, each as one option byte, two bytes of
// length (least significant first, at most 1500), the datagram. Option bit 3
// sets every trace level at 9 first; each datagram is handed on as a copy of
// exactly its size, so that a read past it is seen.
void fz_agent_datagrams(const uint8_t* data, size_t size,
                        const std::function<void(uint8_t opt, const uint8_t* dg, int len)>& each);
// The directory emptied, the trace off, the log emptied.
void fz_agent_end();
