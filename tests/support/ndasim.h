#pragma once

// A name-directory agent simulated for the end-to-end tests: a UDP socket at
// the agent port with an ENS encoder and decoder of its own, independent of
// the daemon's packet modules. Datagrams not asked for yet are kept.

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
Bytes cat(std::initializer_list<Bytes> parts);
Bytes int_item(int32_t v);
Bytes name_item(const Bytes& name16);
Bytes ip_item(const std::string& dotted);
Bytes addr_list(const std::vector<std::string>& dotted);

Bytes nb_name(const std::string& text, uint8_t type);
// Ten zero bytes, the address, two zeros.
Bytes permanent_name(const std::string& dotted);

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
    uint32_t version = 0, id = 0;
    int32_t action = 0;      // without bit 31
    bool response = false;   // bit 31 was set
    int32_t ans = 0, err = 0;
    // The body by action; ints: the int items outside address lists.
    Bytes name;
    std::vector<int32_t> ints;
    std::vector<std::string> addrs;  // the address list, or the one ip item
    bool body_ok = false;            // decoded with nothing left over
};

Message decode(const Bytes& raw);

double seconds(Clock::time_point a, Clock::time_point b);

class Agent {
public:
    bool open(Lab& lab, LabSide side, const std::string& addr, uint16_t port = 227)
    {
        lab_ = &lab, fd_ = lab.udp_socket(side, port, addr);
        return fd_ >= 0;
    }

    // The next request (next_response: response) of that action (any: every
    // action) that arrived or arrives within `seconds`.
    std::optional<Message> next(double seconds, int32_t action = any) { return take(seconds, action, false); }
    std::optional<Message> next_response(double seconds, int32_t action = any) { return take(seconds, action, true); }
    void drain(double secs) { take(secs, 0, false), queue_.clear(); }  // no request has action 0

    bool reply(const Message& req, int32_t ans, int32_t err, const Bytes& body = {})
    {
        return send_raw(req.from, req.port, datagram(req.id, uint32_t(req.action) | response_bit, ans, err, body));
    }
    bool reply_add_accepted(const Message& req) { return reply(req, 0, 0); }
    bool reply_add_refused(const Message& req, const std::string& owner)  // a unique name's owner
    {
        return reply(req, -1, 0, cat({int_item(0), ip_item(owner)}));
    }

    bool send_verify(const std::string& daemon, uint32_t id, const Bytes& name16, const std::string& address)
    {
        return send_raw(daemon, 228, datagram(id, verify, 0, 0, cat({name_item(name16), ip_item(address)})));
    }
    bool send_raw(const std::string& to, uint16_t port, const Bytes& bytes)
    {
        return fd_ >= 0 && lab_->send_to(fd_, to, port, bytes);
    }

private:
    std::optional<Message> take(double seconds, int32_t action, bool response);

    Lab* lab_ = nullptr;
    int fd_ = -1;
    std::deque<Message> queue_;  // received, not yet taken
};

}  // namespace ndasim
