#pragma once

// One resolution through the running daemon: the two lookups of a host
// name sent through the request FIFO, the answers taken from the shared
// answer FIFO, every wait bounded by the configured time.

#include <cstdint>

// Where the module's one setting, the wait, is kept (see nss_wait_ms). A
// file of its own: the module joins every program that resolves a name, so
// it reads one short file rather than the daemon's whole configuration, and
// nothing from the environment, which a set-user-id program's caller sets.
constexpr const char* NSS_SETTINGS = "/etc/opt/KORRbase/nss.conf";

enum class NssResult {
    found,        // *addr holds the owner's IPv4 address, network order
    not_found,    // both answered negatively, or no answer within the wait
    busy,         // another client held the lock for the whole wait
    unavailable,  // no daemon, no relay, or the FIFOs closed to this user: *err says why
};

// Asks for host, which nss_nbname takes, as its <00> and then its <20> name.
NssResult nss_ask(const char* host, uint32_t* addr, int* err);
