#pragma once
// The agent's work: every datagram at the agent port answered from the
// directory. The datagrams of one wake-up are one batch: its changes are
// committed in one transaction, and every answer of the batch is sent
// after that commit, so no answer tells of a change that could be lost.
//
// Only stations in the registrar networks may change the directory; the
// others' ADD, DELETE, EQUIV and PURGE are answered with ans -1 and
// counted. An ADD of a name that another host holds, and a DELETE of an
// entry that neither its host nor its registering station asks for, wait
// for a VERIFY answer from the station that registered the entry (a
// registrar, and at most NDA_VERIFY_RATE VERIFYs a second to each).
// An entry a WINS station registered is asked of that station by name
// queries instead (NDA_PROBE_SENDS, NDA_PROBE_GAP_MS apart); without a WINS
// address the agent cannot ask, and the entry stays. Everything else is
// answered at once. A request other than a QUERY
// repeated with the same id and the same bytes by the same sender gets the
// answer the first one got.
#include <cstdint>

#include "shr/uniconv.h"

struct NdaStore;

constexpr int NDA_VERIFY_SENDS = 2;      // sends of one VERIFY
constexpr int NDA_VERIFY_GAP_MS = 1000;  // after each send: about 2 s in all
constexpr int NDA_PROBE_SENDS = 3;       // name queries to a WINS holder
constexpr int NDA_PROBE_GAP_MS = 500;
constexpr int NDA_VERIFY_RATE = 20;      // VERIFYs a second to one station
constexpr int NDA_MAX_PENDING = 256;     // requests waiting for a VERIFY answer
constexpr int NDA_MAX_DONE = 4096;       // answers kept for repeated requests
constexpr int NDA_DONE_MS = 60000;       // how long they are kept
constexpr int NDA_MAX_BATCH = 64;        // datagrams of one transaction
constexpr int NDA_MAX_REGISTRARS = 64;

struct NdaNet {
    uint32_t net;   // network order, host bits clear
    uint32_t mask;  // network order
};

// Starts (or starts over) with this directory; answers go out by the ENS way
// of the program's sender.
void nda_serve_init(const NdaStore* store);
// The networks whose stations may change the directory (at most
// NDA_MAX_REGISTRARS; none set: no station may).
void nda_set_registrars(const NdaNet* nets, int n);
// One datagram from `from`, into the batch (a full batch is run first).
// now_ms: a monotonic clock in milliseconds; now_s: the wall-clock seconds
// the directory records.
void nda_datagram(const uint8_t* bytes, int len, const UniAddr* from, int64_t now_ms, int64_t now_s);
// Runs the batch: one transaction, then its answers.
void nda_flush(int64_t now_ms, int64_t now_s);
// Runs what is due of the verifications: milliseconds until the next step,
// or -1 when none waits.
int nda_due(int64_t now_ms, int64_t now_s);
int nda_pending();         // requests waiting for a VERIFY answer
// Whether the station may change the directory.
bool nda_is_registrar(uint32_t ip);
// The WINS station at ip answered the name query of a verification
// (wins_probe): whether it still holds the name.
void nda_probe_answer(uint32_t verify_id, uint32_t ip, bool held);
