#include "tests/support/ndasim.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

namespace ndasim {

Bytes int_item(int32_t v)
{
    Bytes b;
    for (int i = 0; i < 4; ++i)
        b.push_back(uint8_t(uint32_t(v) >> (8 * i)));
    return b;
}

// int 16, the 16 bytes (an odd length would be padded: names are even).
Bytes name_item(const Bytes& name16) { return cat({int_item(16), name16}); }

Bytes ip_item(const std::string& dotted)
{
    in_addr a{};
    inet_pton(AF_INET, dotted.c_str(), &a);
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&a.s_addr);
    return {4, p[0], p[1], p[2], p[3], 0};
}

Bytes addr_list(const std::vector<std::string>& dotted)
{
    Bytes b;
    for (const auto& d : dotted)
        b = cat({b, int_item(1), ip_item(d)});
    return cat({b, int_item(0)});
}

Bytes header(uint32_t id, uint32_t action, int32_t ans, int32_t err)
{
    return cat({int_item(int32_t(version)), int_item(int32_t(id)), int_item(int32_t(action)), int_item(ans),
                int_item(err)});
}

Bytes datagram(uint32_t id, uint32_t action, int32_t ans, int32_t err, const Bytes& body)
{
    return cat({header(id, action, ans, err), body});
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& p : parts)
        all.insert(all.end(), p.begin(), p.end());
    return all;
}


Bytes nb_name(const std::string& text, uint8_t type)
{
    Bytes n(16, ' ');
    memcpy(n.data(), text.data(), text.size() < 15 ? text.size() : 15);
    n[15] = type;
    return n;
}

Bytes permanent_name(const std::string& dotted)
{
    Bytes n(10, 0), ip = ip_item(dotted);
    n.insert(n.end(), ip.begin() + 1, ip.end());  // the address, then the pad: one zero
    n.push_back(0);
    return n;
}

std::string name_text(const Bytes& name16)
{
    if (name16.size() != 16)
        return "(" + std::to_string(name16.size()) + "-byte name)";
    std::string t;
    size_t end = 15;
    while (end > 0 && name16[end - 1] == ' ')
        --end;
    char hex[8];
    for (size_t i = 0; i <= end; ++i) {
        uint8_t c = name16[i];
        snprintf(hex, sizeof hex, i == end ? "<%02x>" : "\\x%02x", c);
        t += i < end && c >= 0x21 && c < 0x7f && c != '\\' ? std::string(1, char(c)) : std::string(hex);
    }
    return t;
}

int32_t Reader::get_int()
{
    if (left() < 4) {
        ok = false;
        at = b.size();
        return 0;
    }
    uint32_t u = 0;
    for (int i = 0; i < 4; ++i)
        u |= uint32_t(b[at + size_t(i)]) << (8 * i);
    at += 4;
    return int32_t(u);
}

Bytes Reader::get_name()
{
    if (get_int() != 16 || left() < 16) {
        ok = false;
        return {};
    }
    Bytes n(b.begin() + long(at), b.begin() + long(at) + 16);
    at += 16;
    return n;
}

std::string Reader::get_ip()
{
    // The length byte, four address bytes and the pad (zero): six in all.
    if (left() < 6 || b[at] != 4 || b[at + 5] != 0) {
        ok = false;
        return {};
    }
    char text[INET_ADDRSTRLEN];
    snprintf(text, sizeof text, "%u.%u.%u.%u", b[at + 1], b[at + 2], b[at + 3], b[at + 4]);
    at += 6;
    return text;
}

std::vector<std::string> Reader::get_addr_list()
{
    std::vector<std::string> out;
    for (int i = 0; i < 64 && ok; ++i) {
        int32_t tag = get_int();
        if (ok && tag == 0)
            return out;
        ok = ok && tag == 1;
        std::string a = ok ? get_ip() : "";
        if (ok)
            out.push_back(a);
    }
    ok = false;  // no end within 64 pairs
    return out;
}

Message decode(const Bytes& raw)
{
    Message m;
    m.raw = raw;
    Reader r(m.raw);
    m.version = uint32_t(r.get_int());
    m.id = uint32_t(r.get_int());
    uint32_t action = uint32_t(r.get_int());
    m.ans = r.get_int();
    m.err = r.get_int();
    m.header_ok = r.ok;
    m.response = (action & response_bit) != 0;
    m.action = int32_t(action & ~response_bit);
    if (!m.header_ok)
        return m;
    if (m.response) {
        // Responses to the agent's own requests: VERIFY has no body.
        m.body_ok = r.left() == 0;
        return m;
    }
    bool named = m.action == query || m.action == add || m.action == del || m.action == verify;
    if (named)
        m.name = r.get_name();
    else if (m.action != equiv && m.action != purge)
        r.ok = false;
    if (m.action == query || m.action == add)
        m.ints.push_back(r.get_int());
    if (m.action == add || m.action == del || m.action == equiv)
        m.addrs = r.get_addr_list();
    if (m.action == purge || m.action == verify)
        m.addrs.push_back(r.get_ip());
    m.body_ok = r.ok && r.left() == 0;
    return m;
}

std::string Message::describe() const
{
    char buf[160];
    snprintf(buf, sizeof buf, "%zu bytes from %s:%u: version 0x%x id %u action %d%s ans %d err %d",
             raw.size(), from.c_str(), port, version, id, action, response ? " (response)" : "",
             ans, err);
    std::string t = buf;
    if (!name.empty())
        t += " name " + name_text(name);
    for (int32_t i : ints)
        t += " int " + std::to_string(i);
    for (const auto& a : addrs)
        t += " ip " + a;
    if (!body_ok)
        t += " (body not decoded)";
    return t;
}

double seconds(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double>(b - a).count(); }

bool Agent::open(Lab& lab, LabSide side, const std::string& addr, uint16_t port)
{
    lab_ = &lab;
    fd_ = lab.udp_socket(side, port, addr);
    return fd_ >= 0;
}

std::optional<Message> Agent::take(double secs, int32_t action, bool response)
{
    auto matches = [&](const Message& m) {
        return m.header_ok && m.response == response && (action == any || m.action == action);
    };
    for (auto it = queue_.begin(); it != queue_.end(); ++it) {
        if (matches(*it)) {
            Message m = *it;
            queue_.erase(it);
            return m;
        }
    }
    auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(secs));
    for (int i = 0; fd_ >= 0 && i < 100000; ++i) {
        double left = seconds(Clock::now(), until);
        auto d = lab_->recv(fd_, left > 0 ? left : 0);
        if (!d)
            return std::nullopt;
        Message m = decode(d->bytes);
        m.when = Clock::now();
        m.from = d->from;
        m.port = d->port;
        if (matches(m))
            return m;
        queue_.push_back(m);
        if (left <= 0)
            break;
    }
    return std::nullopt;
}

void Agent::drain(double secs)
{
    take(secs, 0, false);  // nothing is a request of action 0
    queue_.clear();
}

bool Agent::reply(const Message& req, int32_t ans, int32_t err, const Bytes& body)
{
    return send_raw(req.from, req.port,
                    datagram(req.id, uint32_t(req.action) | response_bit, ans, err, body));
}

bool Agent::reply_add_refused(const Message& req, bool group, const std::string& owner)
{
    return reply(req, -1, 0, cat({int_item(group ? 1 : 0), ip_item(owner)}));
}

bool Agent::send_verify(const std::string& daemon, uint32_t id, const Bytes& name16,
                        const std::string& address, uint16_t port)
{
    return send_raw(daemon, port, datagram(id, verify, 0, 0, cat({name_item(name16), ip_item(address)})));
}

bool Agent::send_equiv(const std::string& daemon, uint32_t id,
                       const std::vector<std::string>& addresses, uint16_t port)
{
    return send_raw(daemon, port, datagram(id, equiv, 0, 0, addr_list(addresses)));
}

bool Agent::send_raw(const std::string& to, uint16_t port, const Bytes& bytes)
{
    return fd_ >= 0 && lab_->send_to(fd_, to, port, bytes);
}

}  // namespace ndasim
