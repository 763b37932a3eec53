#include "src/stats.h"

#include <array>
#include <iterator>

#include "src/nsmsg.h"

namespace {

// In StatId order.
constexpr CounterDef defs[] = {
    {"queries_received", "name queries from other stations in our scope"},
    {"queries_answered_own", "name queries answered for our own names"},
    {"queries_answered_proxy", "name queries answered for another host's name"},
    {"status_answered", "node-status requests answered"},
    {"lookups_local", "lookups answered from the local name table"},
    {"lookups_learned", "lookups answered from the hosts learned of"},
    {"lookups_agent", "lookups answered by a name-directory agent"},
    {"lookups_broadcast", "lookups answered by a station on the network"},
    {"lookups_wins", "lookups answered by a WINS server"},
    {"lookups_not_found", "lookups answered not found"},
    {"names_claimed", "local names whose claim went through"},
    {"claims_defended", "other stations' claims answered with a defence"},
    {"conflicts_network", "local names given up to another station's answer (messages 186, 187)"},
    {"conflicts_agent", "local names an agent knows with another owner (messages 186, 187)"},
    {"conflicts_wins", "local names a WINS server refused (messages 186, 187)"},
    {"releases", "local names released"},
    {"agent_commands_sent", "commands sent to the name-directory agents"},
    {"agent_commands_retried", "commands sent again, to the same or the next agent"},
    {"agent_commands_unanswered", "commands no agent answered"},
    {"requests_addname", "client requests to add a name"},
    {"requests_delname", "client requests to delete a name"},
    {"requests_listname", "client requests to list the names"},
    {"requests_lookup", "client requests to look up a name"},
    {"requests_init", "client requests to re-initialise"},
    {"requests_nbtype", "client requests for the packet type"},
    {"requests_ckname", "client requests to check a name"},
    {"requests_nbscope", "client requests for the scope"},
    {"requests_adapstat", "client requests for a station's node status"},
    {"requests_enstable", "client requests to trace the name-directory table"},
    {"requests_stats", "client requests for these counters"},
    {"requests_unknown", "client requests of an unknown operation"},
    {"requests_refused", "lookups and status requests answered at once: too many waited"},
    {"requests_malformed", "runs of bytes from the relay that held no request"},
    {"responses_dropped", "answers dropped: the relay's pipe was full"},
    {"relay_restarts", "request relays started again after one ended"},
};
static_assert(std::size(defs) == ST_COUNT);
// The answer is written in one piece the pipe keeps whole.
static_assert(4 + ct_size(defs, ST_COUNT) <= size_t(NS_REQMAX));

std::array<uint64_t, ST_COUNT> counts{};

}  // namespace

void stat_inc(StatId id)
{
    counts[id]++;
}

void stat_request(uint32_t op)
{
    if (op >= NS_ADDNAME && op <= NS_ENSTABLE)
        counts[ST_REQ_ADDNAME + (op - NS_ADDNAME)]++;
    else
        counts[op == NS_STATS ? ST_REQ_STATS : ST_REQ_UNKNOWN]++;
}

const CounterDef* stat_defs()
{
    return defs;
}

int stat_encode(uint8_t* out, size_t room)
{
    return ct_encode(out, room, defs, counts.data(), ST_COUNT);
}
