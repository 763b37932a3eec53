#pragma once

#include <cstdint>

// The settings that the configuration file fills and every subsystem reads.
// Addresses are IPv4 in network byte order, 0 meaning not configured.

struct if_entry {          // one configured interface
    uint32_t addr;
    uint32_t bcast;        // filled from the system when 0
    uint32_t mask;         // likewise
};

constexpr int MAX_INTERFACES = 32;
constexpr int MAX_NDA = 10;

extern int transport_tcpip;     // non-zero: the UDP transport runs
extern int transport_vznbu;     // non-zero: the NetBIOS driver transport runs
extern if_entry* my_addr;       // room for MAX_INTERFACES entries once read
extern int my_addr_ct;
// Ports in host order; 0 until configured, defaults applied at start-up.
extern uint16_t nmport, dgport, ssport, ndport, ensport;
extern int ens_client;
extern uint32_t nda_addr[MAX_NDA];
extern int nda_ct;
extern uint32_t broadcast_addr; // pattern for the host part of computed broadcasts
extern char nb_scope[256];      // dotted scope, "" for none
