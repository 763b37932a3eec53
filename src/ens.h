#pragma once
// What the daemon learns of other hosts for the agents: names and addresses
// from status answers entered in the ENS table and registered on the hosts'
// behalf, and the probing that finds hosts gone away.
#include <cstdint>
#include <ctime>

struct as_name;
struct EnsHost;
struct EnsAddr;

// The names of a status answer from sender (network order).
void ens_gotnames(const as_name* entries, int n, uint32_t sender);
// One name of the host at address, made when unknown; nothing for own addresses.
void add_name_to_host(const uint8_t* name, uint32_t address, uint32_t flags, time_t now);
// Status answers that none of our requests asked for are still learned,
// but at a limited rate, per sender and in total: every name learned is
// registered at the agents, so forged answers from many senders must fill
// neither the table nor the agents' queue.
void ens_asked(uint32_t address);     // a status request went to address
bool ens_may_learn(uint32_t sender);  // whether sender's status answer is learned now
void set_probe_timer();  // do_probe in 300 seconds
void do_probe(int32_t arg);

// A new host with these addresses and names, each name registered at the
// agents for all the addresses (and an EQUIV for two or more): 0, or -1 when
// nothing was made (no names, no addresses, memory short).
int add_host(const as_name* entries, int n, const uint32_t* addrs, int addr_n);
// A known host answered with these names and addresses: refreshed, its names
// brought in line at the agents, or rebuilt when its addresses changed; freed
// when it has no names left.
void update_host(const as_name* entries, int n, const uint32_t* addrs, int addr_n, EnsHost* host);
// The IPv4 address (network order) in bytes 10 to 13 of a permanent name.
void pn2addr(uint32_t* out, const uint8_t* name);
// The name to probe the host of entry with: its permanent name first, then
// its k-th name after k silent probes (the permanent one past the last).
void choose_name(uint8_t out[16], const EnsAddr* entry);
