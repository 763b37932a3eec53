#pragma once

// The RFC 1002 name-service datagram: the record that carries a decoded or an
// outgoing packet, the decoder, the bounded readers of the fields after a
// name, and the byte builders shared by claims, releases, queries, answers
// and status responses.
//
// Header, 12 bytes, multi-byte fields big-endian (RFC 1002 4.2.1.1):
//   0       2       3       4       6       8       10      12
//   +-------+---+---+-------+-------+-------+-------+
//   |trn_id |b2 |b3 |qdcount|ancount|nscount|arcount| name at 12 ...
//   +-------+---+---+-------+-------+-------+-------+
//   b2: R, OPCODE (4), AA, TC, RD   b3: RA, 0, 0, B, RCODE (4)
// The packet type is b2 with its low three bits cleared.

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "shr/uniconv.h"

// Packet types (b2 & 0xF8).
constexpr int NT_QUERY = 0x00;         // also the adapter status request (NBSTAT question)
constexpr int NT_REGISTER = 0x28;
constexpr int NT_RELEASE = 0x30;
constexpr int NT_WACK = 0x38;
constexpr int NT_REFRESH = 0x40;
constexpr int NT_QUERY_RESP = 0x80;    // also the adapter status response (NBSTAT record)
constexpr int NT_REGISTER_RESP = 0xA8;
constexpr int NT_RELEASE_RESP = 0xB0;
constexpr int NT_WACK_RESP = 0xB8;
constexpr int NT_REFRESH_RESP = 0xC0;

// Question and record types and the class.
constexpr int RR_NB = 0x0020;
constexpr int RR_NBSTAT = 0x0021;
constexpr int RR_NULL = 0x000A;
constexpr int RR_IN = 0x0001;
constexpr int NB_GROUP_BIT = 0x8000;   // G in NB_FLAGS and NAME_FLAGS

// npkt flags.
constexpr uint32_t NPKT_GROUP = 0x1;   // the first NB record's NB_FLAGS has G
constexpr uint32_t NPKT_STAT = 0x2;    // the question or first record is NBSTAT

constexpr int NPKT_AREA = 1500;        // the bytes of one packet, in or out
constexpr int NPKT_NAMETEXT = 292;     // 32 letters, ".", the scope, the zero byte
constexpr int NPKT_RESPBOUND = 576;    // responses' names are read no further

struct npkt {
    int32_t nb_ver;        // packet format, 0
    int32_t type;          // b2 & 0xF8
    int32_t size;          // bytes of the packet
    uint32_t flags;        // NPKT_GROUP, NPKT_STAT
    uint32_t pktid[2];     // transaction id (first id byte low), then 0
    UniAddr addr;          // the sender of an incoming packet
    uint8_t name[16];      // the first name in the packet
    char scope[256];       // that name's scope as visible text, "" for none
    const uint8_t* raw;    // the packet bytes (NPKT_AREA bytes of room)
};

extern int32_t nb_type;    // the format number of the packets we send, 0
extern npkt* const inpkt;  // the one record for received datagrams

// Fills rec from a received datagram of len bytes (the receive area holds
// at most NPKT_AREA). Returns len, or -1 when the packet is refused: shorter
// than the 12-byte header, a name that does not convert, or a name or fixed
// field that runs past the datagram while looking for the NB flags or the
// question type. Handlers may then assume nothing else: counts, classes,
// opcode, RCODE and the B bit are as received.
int decode_npack(npkt* rec, const uint8_t* bytes, int len);

// The position after the name at pos (a two-byte pointer, or labels up to a
// zero byte), or null when the name runs past last (its last readable byte).
const uint8_t* skip_name(const uint8_t* pos, const uint8_t* last);
// NB_FLAGS of the first NB record in the answer, authority or additional
// sections; 0 when there is none; -1 when a name or a fixed field runs past
// the datagram.
int find_flags(const uint8_t* bytes, int len);
// The type after the first name; 0 when QDCOUNT and ANCOUNT are both 0; -1
// when the name or the type runs past the datagram.
int find_type(const uint8_t* bytes, int len);

// Builders. Each writes at a position of a packet area and returns the
// bytes written; the area has room for any packet we build.
void fill_counts(uint8_t* bytes, int qdcount, int ancount, int nscount, int arcount);
int fill_quest_hdr(uint8_t* pos, int type, int cls);                                // 4
int fill_rr_header(uint8_t* pos, int type, int cls, uint32_t ttl, int rdlength);   // 10
int fill_rr_nb(uint8_t* pos, int nb_flags, uint32_t addr);  // 6; addr in network order
// The name, first-level encoded, with nb_scope, as a wire domain; returns
// its wire length N (34 without a scope). Needs strlen(nb_scope) + 36 bytes.
int fill_nbname(uint8_t* pos, const uint8_t* name);
// An outgoing record over area (NPKT_AREA bytes): nb_ver nb_type, the given
// type and name, scope nb_scope, flags, id and size 0.
void init_outpkt(npkt* rec, uint8_t* area, int type, const uint8_t* name);

// Adapter status (RFC 1002 4.2.18): the statistics as kept in memory (the
// wire's offsets, values in host order, 2 bytes of padding) and handed to
// clients, and one decoded name.
struct as_stats {
    uint8_t unit_id[6];
    uint8_t jumpers;
    uint8_t test_result;
    uint16_t version;
    uint16_t period;
    uint16_t crcs;
    uint16_t align_errors;
    uint16_t collisions;
    uint16_t send_aborts;
    uint32_t good_sends;
    uint32_t good_receives;
    uint16_t retransmits;
    uint16_t no_resources;
    uint16_t free_ncbs;
    uint16_t total_ncbs;
    uint16_t max_total_ncbs;
    uint16_t pending_sessions;
    uint16_t max_pending_sessions;
    uint16_t max_sessions;
    uint16_t session_size;
    uint8_t pad[2];
};
static_assert(sizeof(as_stats) == 48 && std::is_trivially_copyable_v<as_stats>);
static_assert(offsetof(as_stats, version) == 8 && offsetof(as_stats, good_sends) == 20 &&
              offsetof(as_stats, retransmits) == 28 && offsetof(as_stats, session_size) == 44);

constexpr uint32_t AS_GROUP = 0x1;       // NAME_FLAGS 0x8000
constexpr uint32_t AS_PERMANENT = 0x8;   // NAME_FLAGS 0x0200
constexpr int AS_STATSLEN = 46;          // the statistics on the wire
constexpr int AS_MAXNAMES = 200;         // names accepted in one response

struct as_name {
    uint8_t name[16];
    uint32_t flags;                      // AS_GROUP, AS_PERMANENT
};
static_assert(sizeof(as_name) == 20 && offsetof(as_name, flags) == 16);

int adapstat_out(uint8_t* pos, const as_stats* st);  // 46
int adapstat_in(as_stats* st, const uint8_t* pos);   // 46

// Readers of a response with one answer record (QDCOUNT 0, ANCOUNT 1); the
// answer's name is read no further than min(len, 576) bytes, its fixed
// fields and data no further than len. Neither RCODE, the record type, the
// name nor the id is checked.
// The first address of an NB record (network order) and its group bit; 0,
// or -1 (also for RDLENGTH below 6: a negative response).
int find_ip_rfc(const uint8_t* bytes, int len, uint32_t* addr, int* group);
// The names (into recs, room for AS_MAXNAMES) and statistics of a node status
// response; the number of names, or -1 for RDLENGTH below 47, more than 200
// names, or names and statistics that run past the datagram.
int find_as_rfc(const uint8_t* bytes, int len, as_stats* st, as_name* recs);
// The TTL of the answer record (a registration response's grant, a WACK's
// wait), whatever its RDATA; 0, or -1.
int find_ttl_rfc(const uint8_t* bytes, int len, uint32_t* ttl);
