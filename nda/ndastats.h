#pragma once
// The agent's counters since its start, and how halyard-nda -s reads them
// from the running agent.
//
// A counter is one line of nda_stat_defs; nda_count(nda_stat("its name"))
// counts it (a name not in the table does not compile).
//
// The running agent answers on an abstract unix socket named for its port,
// "@halyard-nda.PORT", with the counters of shr/counters.h, and only to
// root, its own user and its group (the peer's credentials, which the
// kernel gives): no file to make or clean up in places the agent may not
// write after it gave up root, whatever the directory's place, and nothing
// that crosses the network. The caller in turn takes the answer only from
// root, the agent's user or itself, so a user who took the name first is
// not believed.
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "shr/counters.h"

inline constexpr CounterDef nda_stat_defs[] = {
    {"requests_query", "QUERY requests"},
    {"requests_add", "ADD requests"},
    {"requests_delete", "DELETE requests"},
    {"requests_equiv", "EQUIV requests"},
    {"requests_purge", "PURGE requests"},
    {"requests_malformed", "datagrams that were no request the agent serves"},
    {"verify_sent", "VERIFY requests sent to the stations that registered a name"},
    {"verify_answers", "VERIFY answers received"},
    {"refused_outsider", "changes refused: the station is outside the registrar networks"},
    {"refused_held", "ADDs and DELETEs refused: another host holds the name"},
    {"commits", "transactions committed to the directory"},
    {"wins_queries", "WINS name queries"},
    {"wins_registrations", "WINS registrations, multi-homed ones included"},
    {"wins_refreshes", "WINS refreshes"},
    {"wins_releases", "WINS releases"},
    {"wins_malformed", "datagrams at the WINS address that were no request it serves"},
};
inline constexpr size_t NDA_STAT_COUNT = std::size(nda_stat_defs);

consteval size_t nda_stat(std::string_view name)
{
    for (size_t i = 0; i < NDA_STAT_COUNT; i++)
        if (name == nda_stat_defs[i].name)
            return i;
    throw "no such counter in nda_stat_defs";
}

void nda_count(size_t stat);
void nda_stats_reset();

// The agent's side: the listening socket for the agent at this port (-1
// when it cannot be made: the agent serves on without), and the answers to
// every connection waiting on it.
int nda_stats_listen(int port);
void nda_stats_serve(int fd);

// The caller's side: the counters of the agent at this port, waiting at
// most timeout_ms. 0, or -1 with why set.
int nda_stats_fetch(int port, const char* agent_user, int timeout_ms, CtSet* out, char* why, size_t size);
