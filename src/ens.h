#pragma once
// What the daemon learns of other hosts for the agents: names and addresses
// from status answers entered in the ENS table and registered on the hosts'
// behalf, and the probing that finds hosts gone away.
#include <cstdint>
#include <ctime>

struct as_name;

// The names of a status answer from sender (network order).
void ens_gotnames(const as_name* entries, int n, uint32_t sender);
// One name of the host at address, made when unknown; nothing for own addresses.
void add_name_to_host(const uint8_t* name, uint32_t address, uint32_t flags, time_t now);
void set_probe_timer();  // do_probe in 300 seconds
void do_probe(int32_t arg);
