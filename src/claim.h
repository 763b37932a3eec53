#pragma once

// Name claims and releases on the network (RFC 1002 5.1.1.1, 5.1.1.5): the
// broadcast registration and release requests of a local name, one per
// interface, and the registration responses that end a claim.

#include <cstdint>

struct nt_entry;
struct npkt;

// Broadcasts one name registration request for the entry on every
// interface, all with the same id: the low 16 bits of the time of the claim.
void name_claim(const nt_entry* e);
// The same request on interface entry index alone: a name already owned is
// claimed on an address that came after it.
void name_claim_on(const nt_entry* e, int index);
// Broadcasts one name release request for the entry on every interface; the
// ids count 1, 2, 3, ... from the start of the process.
void name_release(const nt_entry* e);

// Lay out a registration or release request in rec (made by init_outpkt over
// an area of NPKT_AREA bytes) for interface entry index, with the group bit
// from bit 0 of flags; set rec->size and return it (34 + the name's wire
// length), or -1 for an index with no interface entry.
int build_claim(npkt* rec, int id, int index, uint32_t flags);
int build_release(npkt* rec, int id, int index, uint32_t flags);

// A registration response: a local name that another station answers for
// within 10 seconds of the latest claim broadcast is logged and removed.
void check_conflict(const npkt* rec);
