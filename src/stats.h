#pragma once

// The daemon's counters since its start, answered to NS_STATS
// (halyardctl stats). A counter is a line here and a line in the table of
// stats.cpp; counting it is one stat_inc where it happens.

#include <cstddef>
#include <cstdint>

#include "shr/counters.h"

enum StatId : int {
    ST_QUERIES_RECEIVED,    // name queries of other stations, in our scope
    ST_QUERIES_OWN,         // answered for our own names
    ST_QUERIES_PROXY,       // answered for another host's name
    ST_STATUS_ANSWERED,     // node-status requests answered
    ST_LOOKUP_LOCAL,        // client lookups by what answered them
    ST_LOOKUP_LEARNED,
    ST_LOOKUP_AGENT,
    ST_LOOKUP_BROADCAST,
    ST_LOOKUP_WINS,
    ST_LOOKUP_NOT_FOUND,
    ST_NAMES_CLAIMED,       // our names whose claim went through
    ST_CLAIMS_DEFENDED,     // other stations' claims answered with a defence
    ST_CONFLICTS_NETWORK,   // our names lost to another station (186/187)
    ST_CONFLICTS_AGENT,     // our names an agent gave another host (186/187)
    ST_CONFLICTS_WINS,      // our names a WINS server refused (186/187)
    ST_RELEASES,            // our names released
    ST_AGENT_SENT,          // agent commands, first sends
    ST_AGENT_RETRIED,       // further sends of them
    ST_AGENT_UNANSWERED,    // given up with no agent's answer
    ST_REQ_ADDNAME,         // client requests by operation, in code order
    ST_REQ_DELNAME,
    ST_REQ_LISTNAME,
    ST_REQ_LOOKUP,
    ST_REQ_INIT,
    ST_REQ_NBTYPE,
    ST_REQ_CKNAME,
    ST_REQ_NBSCOPE,
    ST_REQ_ADAPSTAT,
    ST_REQ_ENSTABLE,
    ST_REQ_STATS,
    ST_REQ_UNKNOWN,
    ST_REQ_REFUSED,         // lookups and status requests too many to wait
    ST_REQ_MALFORMED,       // runs of bytes in the pipe that were no request
    ST_RESP_DROPPED,        // answers the relay's full pipe did not take
    ST_RELAY_RESTARTS,
    ST_COUNT
};

void stat_inc(StatId id);
// The counter of a client request's operation (any code).
void stat_request(uint32_t op);
// The names and helps, ST_COUNT of them, in StatId order.
const CounterDef* stat_defs();
// The NS_STATS answer data after its status word: the bytes, or -1 when
// room is too small.
int stat_encode(uint8_t* out, size_t room);
