#pragma once

// A name-directory agent simulated for the end-to-end tests: a UDP socket in
// a lab station at the agent port that records every ENS datagram it gets
// (decoded with an encoder and decoder of its own, independent of the
// daemon's packet modules) and answers as the test scripts it.
//
// ENS on the wire: 32-bit little-endian ints; a 20-byte header of version
// 0x00010001, id, action (bit 31 set in a response), ans, err; items padded
// to even lengths: name = int 16 + 16 bytes; ip = length byte 4, the four
// address bytes, a pad byte; an address list = pairs (int 1, ip), int 0.
// Every wait is bounded; datagrams not asked for yet are kept, never dropped.

#include "tests/support/lab.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

namespace ndasim {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr uint32_t version = 0x00010001;
constexpr uint32_t response_bit = 0x80000000u;
constexpr int32_t any = -1;

enum Action : int32_t { query = 1, verify = 2, add = 3, del = 4, equiv = 5, purge = 7 };

Bytes header(uint32_t id, uint32_t action, int32_t ans = 0, int32_t err = 0);
Bytes datagram(uint32_t id, uint32_t action, int32_t ans, int32_t err, const Bytes& body);
// Every item as the wire has it: cat({header(1, add), name_item(n), int_item(0), addr_list({"10.88.0.1"})}).
Bytes cat(std::initializer_list<Bytes> parts);
Bytes int_item(int32_t v);
Bytes name_item(const Bytes& name16);
Bytes ip_item(const std::string& dotted);
Bytes addr_list(const std::vector<std::string>& dotted);

// The 16-byte name: text blank-padded to 15, then the type byte.
Bytes nb_name(const std::string& text, uint8_t type);
// The permanent name of an address: ten zero bytes, the address, two zeros.
Bytes permanent_name(const std::string& dotted);
// "fileserv<20>": the text up to the blanks, the type in hex; other bytes as \xhh.
std::string name_text(const Bytes& name16);

// Decoder over one datagram; a read past the end clears ok and gives zero.
struct Reader {
    const Bytes& b;
    size_t at = 0;
    bool ok = true;

    explicit Reader(const Bytes& bytes) : b(bytes) {}
    size_t left() const { return at <= b.size() ? b.size() - at : 0; }
    int32_t get_int();
    Bytes get_name();
    std::string get_ip();
    std::vector<std::string> get_addr_list();  // at most 64 pairs
};

// One datagram received by the agent, decoded.
struct Message {
    Clock::time_point when;  // when read: exact only while a test waits in next()
    std::string from;
    uint16_t port = 0;
    Bytes raw;
    bool header_ok = false;  // 20 bytes or more
    uint32_t version = 0;
    uint32_t id = 0;
    int32_t action = 0;      // without bit 31
    bool response = false;   // bit 31 was set
    int32_t ans = 0;
    int32_t err = 0;
    // The body by action: QUERY name, int; ADD name, int flags, address
    // list; DELETE name, address list; EQUIV address list; PURGE ip;
    // VERIFY name, ip. ints: the int items outside address lists.
    Bytes name;
    std::vector<int32_t> ints;
    std::vector<std::string> addrs;  // the address list, or the one ip item
    bool body_ok = false;            // decoded with nothing left over
    std::string describe() const;    // one line for failure messages
};

Message decode(const Bytes& raw);

// Seconds from a to b.
double seconds(Clock::time_point a, Clock::time_point b);

class Agent {
public:
    Agent() = default;
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    // Binds addr:port in side's namespace; false (see lab.last_error()) on failure.
    bool open(Lab& lab, LabSide side, const std::string& addr, uint16_t port = 227);

    // The next request (next_response: response) of that action (any: every
    // action) that arrived or arrives within `seconds`.
    std::optional<Message> next(double seconds, int32_t action = any) { return take(seconds, action, false); }
    std::optional<Message> next_response(double seconds, int32_t action = any) { return take(seconds, action, true); }
    // What arrives within `seconds` is recorded; nothing stays queued.
    void drain(double seconds);

    // Answers to a request, to its sender and with its id.
    bool reply(const Message& req, int32_t ans, int32_t err, const Bytes& body = {});
    bool reply_add_accepted(const Message& req) { return reply(req, 0, 0); }
    bool reply_add_refused(const Message& req, bool group, const std::string& owner);

    // Requests of its own to the daemon's ENS port.
    bool send_verify(const std::string& daemon, uint32_t id, const Bytes& name16,
                     const std::string& address, uint16_t port = 228);
    bool send_equiv(const std::string& daemon, uint32_t id,
                    const std::vector<std::string>& addresses, uint16_t port = 228);
    bool send_raw(const std::string& to, uint16_t port, const Bytes& bytes);

private:
    std::optional<Message> take(double seconds, int32_t action, bool response);

    Lab* lab_ = nullptr;
    int fd_ = -1;
    std::deque<Message> queue_;  // received, not yet taken
};

}  // namespace ndasim
