#pragma once
// The agent as an RFC 1002 name server (WINS) at an address of its own:
// stations register, refresh and release their names and ask for others',
// by unicast to UDP 137, from the directory that the daemons reach by ENS.
//
// A unique name that another station holds is given away only once that
// station was asked and stayed silent or said no: a WINS holder by three
// name queries about half a second apart, a daemon's entry by VERIFY to its
// registrar; the registering station gets a WACK meanwhile. A station may
// register only the address it sends from.
//
// Beyond the plain protocol, so that no station can stall or wear down the
// agent: at most WINS_MAX_CHALLENGES challenges wait at once, and
// WINS_STATION_CHALLENGES of one station (a request that would start one
// more is dropped; stations repeat their requests), one per name; a
// repeated request of a name under challenge only gets its WACK again;
// every table here is bounded.
#include <cstdint>

struct NdaStore;

constexpr uint16_t WINS_PORT = 137;
constexpr int WINS_TTL_DEFAULT = 3600;     // seconds granted to a registration
constexpr int WINS_TTL_MIN = 5;
constexpr int WINS_TTL_MAX = 7 * 86400;
constexpr int WINS_MAX_CHALLENGES = 64;
constexpr int WINS_STATION_CHALLENGES = 8; // of these, started by one station
constexpr int WINS_QUERY_SENDS = 3;        // name queries of one challenge
constexpr int WINS_QUERY_GAP_MS = 500;
constexpr int WINS_VERIFY_SENDS = 2;       // VERIFYs of one challenge of a daemon's name
constexpr int WINS_VERIFY_GAP_MS = 1000;
constexpr int WINS_WACK_TTL = 4;           // seconds a station waits for the outcome
constexpr int WINS_MAX_ADDRS = 64;         // addresses in one answer or one record read
constexpr int WINS_WIRE_NAME = 255;        // bytes of a name as sent (labels, scope, zero)
constexpr int WINS_PURGE_MS = 60000;       // lapsed entries (never answered) leave the directory this often

// Opcodes (RFC 1002 4.2.1.1, with 9 the refresh some stations send and
// 0xF the multi-homed registration).
constexpr int WINS_OP_QUERY = 0;
constexpr int WINS_OP_REGISTER = 5;
constexpr int WINS_OP_RELEASE = 6;
constexpr int WINS_OP_WACK = 7;
constexpr int WINS_OP_REFRESH = 8;
constexpr int WINS_OP_REFRESH2 = 9;
constexpr int WINS_OP_MULTIHOMED = 0xF;

// RCODEs.
constexpr int WINS_FMT_ERR = 1;
constexpr int WINS_SRV_ERR = 2;
constexpr int WINS_NAM_ERR = 3;
constexpr int WINS_IMP_ERR = 4;
constexpr int WINS_RFS_ERR = 5;
constexpr int WINS_ACT_ERR = 6;
constexpr int WINS_CFT_ERR = 7;

// One datagram at the WINS address, read.
struct WinsPacket {
    uint16_t id;
    bool response;
    int opcode;
    bool rd;
    bool broadcast;
    int rcode;
    uint8_t name[16];                  // the question's name (a response: its record's)
    uint8_t wire[WINS_WIRE_NAME + 1];  // that name as sent, echoed in answers
    int wire_len;
    int type;                          // the question's type (a response: its record's)
    bool has_record;                   // a request's additional record, a response's answer
    uint32_t ttl;
    int nb_flags;                      // of the record's first entry
    uint32_t addrs[WINS_MAX_ADDRS];    // the record's entries, network order
    int addr_ct;
};

// Reads one datagram; nothing past len is read. Requests: one question of a
// first-level encoded name (class IN); registrations, refreshes and releases
// with one additional NB record of that name (a pointer to it, or the name
// again) and at least one entry. Responses: an answer record of a name,
// whose entries are read (up to WINS_MAX_ADDRS), or none for a negative one.
// 0, or -1 for a datagram to drop.
int wins_read(const uint8_t* bytes, int len, WinsPacket* out);

// Serves WINS from this directory, granting ttl seconds, when fd (the
// program's socket at UDP 137 of the WINS address) is not -1; what it sends
// leaves by the WINS way of the program's sender, the socket stays the
// program's.
void wins_init(const NdaStore* store, int fd, uint32_t ttl);
// A UDP socket at addr:port (network order address) that shares the port
// with a daemon bound to every address (init_shared_sock). -1 with errno.
int wins_open(uint32_t addr, uint16_t port);
bool wins_on();
// One datagram; the batch runs at wins_flush (a full one at once).
void wins_datagram(const uint8_t* bytes, int len, uint32_t from_ip, uint16_t from_port, int64_t now_ms,
                   int64_t now_s);
void wins_flush(int64_t now_ms, int64_t now_s);
// Runs what is due of challenges and purges: milliseconds until the next
// step, or -1 when nothing waits.
int wins_due(int64_t now_ms, int64_t now_s);
int wins_challenges();  // waiting

// For the ENS side: a VERIFY answer with this id from ip, if it is one of
// ours (true: taken).
bool wins_verify_answer(uint32_t id, uint32_t from_ip, bool confirmed);
// Asks the WINS station at ip whether it holds name (one name query); its
// answer comes back through nda_probe_answer(tag, ip, held).
void wins_probe(const uint8_t* name, uint32_t ip, uint32_t tag);
