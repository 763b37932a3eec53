#include "tests/support/ndasim.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

namespace ndasim {

Bytes int_item(int32_t v)
{
    uint32_t u = uint32_t(v);
    return {uint8_t(u), uint8_t(u >> 8), uint8_t(u >> 16), uint8_t(u >> 24)};
}

Bytes name_item(const Bytes& name16) { return cat({int_item(16), name16}); }

Bytes ip_item(const std::string& dotted)
{
    uint8_t p[4] = {};
    inet_pton(AF_INET, dotted.c_str(), p);
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
    Bytes ip = ip_item(dotted);  // its length byte, the address, a zero
    return cat({Bytes(10, 0), Bytes(ip.begin() + 1, ip.end()), Bytes{0}});
}

int32_t Reader::get_int()
{
    uint32_t u = 0;
    ok = ok && left() >= 4;
    for (int i = 0; ok && i < 4; ++i)
        u |= uint32_t(b[at++]) << (8 * i);
    return int32_t(u);
}

Bytes Reader::get_name()
{
    ok = ok && get_int() == 16 && left() >= 16;
    at += ok ? 16 : 0;
    return ok ? Bytes(b.begin() + long(at) - 16, b.begin() + long(at)) : Bytes{};
}

std::string Reader::get_ip()
{
    // The length byte, four address bytes and the pad (zero): six in all.
    ok = ok && left() >= 6 && b[at] == 4 && b[at + 5] == 0;
    if (!ok)
        return {};
    at += 6;
    return std::to_string(b[at - 5]) + "." + std::to_string(b[at - 4]) + "." + std::to_string(b[at - 3]) + "." +
           std::to_string(b[at - 2]);
}

std::vector<std::string> Reader::get_addr_list()
{
    std::vector<std::string> out;
    for (int i = 0; i < 64 && ok; ++i) {
        int32_t tag = get_int();
        if (ok && tag == 0)
            return out;
        ok = ok && tag == 1;
        out.push_back(get_ip());
    }
    ok = false;  // no end within 64 pairs
    return out;
}

Message decode(const Bytes& raw)
{
    Message m;
    m.raw = raw;
    Reader r(m.raw);
    m.version = uint32_t(r.get_int()), m.id = uint32_t(r.get_int());
    uint32_t action = uint32_t(r.get_int());
    m.ans = r.get_int(), m.err = r.get_int(), m.header_ok = r.ok;
    m.response = (action & response_bit) != 0;
    m.action = int32_t(action & ~response_bit);
    if (!m.header_ok || m.response)  // responses to the agent's own requests: VERIFY has no body
        return m.body_ok = m.header_ok && r.left() == 0, m;
    if (m.action == query || m.action == add || m.action == del || m.action == verify)
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

double seconds(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double>(b - a).count(); }

std::optional<Message> Agent::take(double secs, int32_t action, bool response)
{
    auto matches = [&](const Message& m) {
        return m.header_ok && m.response == response && (action == any || m.action == action);
    };
    for (auto it = queue_.begin(); it != queue_.end(); ++it)
        if (matches(*it))
            return [&] { Message m = *it; queue_.erase(it); return m; }();
    auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(secs));
    for (int i = 0; fd_ >= 0 && i < 100000; ++i) {
        double left = seconds(Clock::now(), until);
        auto d = lab_->recv(fd_, left > 0 ? left : 0);
        if (!d)
            return std::nullopt;
        Message m = decode(d->bytes);
        m.when = Clock::now(), m.from = d->from, m.port = d->port;
        if (matches(m))
            return m;
        queue_.push_back(m);
        if (left <= 0)
            break;
    }
    return std::nullopt;
}

}  // namespace ndasim
