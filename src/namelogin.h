#pragma once

#include <cstddef>
#include <cstdint>

// The settings that the configuration file fills and every subsystem reads.
// Addresses are IPv4 in network byte order, 0 meaning not configured.

struct if_entry {          // one configured interface
    uint32_t addr;
    uint32_t bcast;        // filled from the system when 0
    uint32_t mask;         // likewise
};

constexpr const char* CONFIG_VZ_PATH = "/etc/opt/KORRbase/config.vz";  // the installed file
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
extern int client_gid;          // the FIFOs' and lock file's group; -1: open to all
// Non-zero: a node-status request for the wildcard name "*" is answered
// with the whole name table (NB-wildcard-status on; off by default).
extern int wildcard_status;
// NB-nd-key: the file whose key seals every ENS datagram ("" for none),
// and whether the directive named one that cannot be used (the daemon then
// does not start).
extern char nda_key[256];
extern int nda_key_bad;
// NB-wins-server: the RFC 1002 name servers (WINS) that our names are
// registered at and our lookups ask before they broadcast, in the order
// asked; none without the directive.
constexpr int MAX_WINS = 2;
extern uint32_t wins_addr[MAX_WINS];
extern int wins_ct;

// NB-interfaces: the system's interfaces whose addresses are served, as
// they come and go. A selector is an interface name, or a network (all is
// 0.0.0.0/0); an address is served when any selector matches.
struct if_select {
    char name[16];      // "" for a network
    uint32_t net;       // network order, host bits clear
    uint32_t mask;
};
constexpr int MAX_IF_SELECT = 32;
extern if_select if_selects[MAX_IF_SELECT];
extern int if_select_ct;
// Whether the address addr of interface ifname (an alias label "eth0:1"
// counts as eth0) is selected.
bool if_selected(const char* ifname, uint32_t addr);

// NB-name: names added at start as a client would add them, then claimed.
struct cfg_name {
    uint8_t name[16];   // blank-padded, upper case, type byte last
    uint32_t flags;     // NT_GROUP for a group name
};
constexpr int MAX_CFG_NAMES = 32;
extern cfg_name cfg_names[MAX_CFG_NAMES];
extern int cfg_name_ct;
// The host's name as NetBIOS uses it: its first label, upper case, at most
// 15 characters, into out (16 bytes).
void host_nbname(char* out);

// Reads the configuration file at path into the settings above, logging
// every bad directive with its line; returns 0 in every case. Meant to run
// once, before the port defaults are applied.
int namelogin(const char* path);
// A configuration check (halyardctl check-config, and the launching daemon
// for its terminal) is told every problem beside the log: whether the
// directive or file was refused (error) or only remarked upon (warning), the
// line (0 for the file as a whole), the text found (the line as written, or
// a description when line is 0) and what would have fitted.
using cfg_note_fn = void (*)(bool error, int line, const char* found, const char* expected);
void namelogin_notes(cfg_note_fn fn);  // null: the log alone

// A re-initialisation leaves the settings as they are; 0.
int name_reinit(const char* path);
// Puts every setting back to its value before any file was read.
void name_settings_clear();

// Error callback of the parser: logs the line and the parser's message; 0.
int parse_err(int argc, char** argv, int line, const char* message, const char* saved);
// Tag callback of the interface sections: selects (or adds) the row of the
// interface named by the head's third word.
int inter_section(int argc, char** argv, int line, const char* comment);

// Directive handlers: (pattern words, held tag, argc, argv, line, comment),
// all returning 0.
int do_dontcare(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_clientgroup(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_transport(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_address(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_broadcast(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_netmask(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_scope(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_nameport(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_sessport(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_ensport(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_ensclient(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_ndaddr(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_ndport(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_ndkey(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_wildstat(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_interfaces(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_nbname(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_winsserver(int npat, char** tag, int argc, char** argv, int line, const char* comment);
int do_bcaststyle(int npat, char** tag, int argc, char** argv, int line, const char* comment);

// Value checkers; each takes one word and gives -1 when it does not fit.
int syn_pos(const char* word);        // strtol base 0, >= 1
int syn_onoff(const char* word);      // "on" 1, "off" 0
int syn_transport(const char* word);  // "tcpip" 0, "vznbu" 1
int syn_ip(const char* word, uint32_t* addr);  // 0 and the address, network order

// One label of a scope starting at p: the character after it ('.' or NUL),
// or null when the label is not acceptable.
const char* valid_label(const char* p);
// 1 when s is an acceptable scope, else 0; "", "\"\"" and "''" are the
// empty scope and leave s empty. No length limit: callers check their room.
int valid_scope(char* s);

// 0 when equal ignoring the case of ASCII letters, else 1 (no ordering).
int crs_icstrcmp(const char* a, const char* b);
