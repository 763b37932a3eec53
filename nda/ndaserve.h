#pragma once
// The agent's work: every datagram at the agent port answered from the
// directory. An ADD of a name that another host holds waits for a VERIFY
// answer from the station that registered the holder; everything else is
// answered at once. A request other than a QUERY repeated with the same id
// and the same bytes by the same sender gets the answer the first one got.
#include <cstdint>

#include "shr/uniconv.h"

struct NdaStore;

constexpr int NDA_VERIFY_SENDS = 2;      // sends of one VERIFY
constexpr int NDA_VERIFY_GAP_MS = 1000;  // after each send: about 2 s in all
constexpr int NDA_MAX_PENDING = 256;     // ADDs waiting for a VERIFY answer
constexpr int NDA_MAX_DONE = 4096;       // answers kept for repeated requests
constexpr int NDA_DONE_MS = 60000;       // how long they are kept

// Starts (or starts over) with this directory; answers go out on ens_fd.
void nda_serve_init(const NdaStore* store);
// One datagram from `from`. now_ms: a monotonic clock in milliseconds;
// now_s: the wall-clock seconds the directory records.
void nda_datagram(const uint8_t* bytes, int len, const UniAddr* from, int64_t now_ms, int64_t now_s);
// Runs what is due of the verifications: milliseconds until the next step,
// or -1 when none waits.
int nda_due(int64_t now_ms, int64_t now_s);
int nda_pending();  // ADDs waiting for a VERIFY answer
