#pragma once
// Commands to the name-directory agents and the ENS waits, as records in one
// list ordered by due time and served by one timer: unanswered commands are
// sent again, moved on to the next agent or given up.
#include <cstdint>
#include <ctime>
#include "shr/uniconv.h"

constexpr int DC_MAXADDR = 20;

// Kinds of command record.
constexpr int DC_CLAIM = 1;    // ADD for another station's claim
constexpr int DC_QUERY = 2;    // QUERY for another station's name query
constexpr int DC_ADD = 3;
constexpr int DC_DELETE = 4;
constexpr int DC_EQUIV = 5;
constexpr int DC_CLAIMCK = 6;  // wait, then a status request to the claimer
constexpr int DC_VERIFY = 7;   // wait for the status answer an agent's VERIFY needs
constexpr int DC_LQUERY = 8;   // QUERY for a local client's lookup
constexpr int DC_PURGE = 9;

struct DelayCmd {
    int kind;
    time_t expiry;
    int32_t ctx1;        // pktid[0] (1, 2), lookup id (8), VERIFY id (7)
    uint32_t ctx2;       // pktid[1] (1, 2), client xid (8)
    uint32_t xid;        // ENS id of the request
    uint8_t name[16];
    UniAddr peer;        // asker (2), claimer (1, 6), asking agent (7)
    uint32_t addrs[DC_MAXADDR];  // network order
    int addr_ct;
    uint32_t flags;      // name flags (3), claimer's group flag (1)
    int nda_index;       // agent now tried
    int tries;           // sends to it so far
    DelayCmd* next;      // the next record due (at the same second, or later)
    DelayCmd* prev;
    // Queries for the same name while one is out wait on it instead of
    // asking again: answered with it, given up with it.
    DelayCmd* merged;
};

// Any station can start commands (queries, claims, VERIFY requests): the
// records are capped, and at the cap the one due first is given up.
constexpr int DC_MAX = 4096;
int delay_count();  // records kept, merged queries included

// The record listed with that ENS id, or null (merged queries are not listed).
DelayCmd* find_delay(uint32_t id);
int rm_delay(DelayCmd* rec);  // unlinks and frees: 0, or -1 when not listed
// A status request to the claimer 5 seconds from now.
void delay_claimck(const uint8_t* name, const UniAddr* peer);
// An agent's VERIFY for a host that is not ours: the status request goes to
// address now; the answer comes from check_verify, or is negative after 2 s.
void delay_verify(const UniAddr* peer, uint32_t id, const uint8_t* name, uint32_t address);
// A host with these addresses answered its status request: answers the
// first verification waiting for one of them.
void check_verify(const uint32_t* addrs, int n);

// Making and serving the list.
// A zeroed record with the next ENS id (the first is 1); null, traced, when
// memory is short.
DelayCmd* dc_alloc();
// Starts a record whose kind and fields are set: its due time from now, the
// first send for the kinds that send, then into the list. A sending kind
// with no agent to send to is freed at once.
void dc_start(DelayCmd* rec, time_t now);
// Into the list by due time, after the records due at the same second,
// without walking the list; serves the list at once when no timer is armed
// for it.
void insert_delay(DelayCmd* rec);
// The timer function: every record due is timed out, then the timer is armed
// for the new head.
void serve_delay(int32_t arg = 0);
// The head is due: its wait ends, or its command is sent again (3 s more) or
// given up.
void cmd_timeout(time_t now);
// The next send of the record's command: two per agent, in the order of
// nda_addr; 0, or -1 when every agent has had its two.
int send_cmd(DelayCmd* rec);
