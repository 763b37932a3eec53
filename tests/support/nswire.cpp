#include "tests/support/nswire.h"

#include <arpa/inet.h>

Bytes ns_name(std::string_view text, uint8_t type)
{
    Bytes n(16, ' ');
    text.copy(reinterpret_cast<char*>(n.data()), 15);
    n[15] = type;
    return n;
}

Bytes wire_name(const Bytes& name, const Bytes& labels)
{
    Bytes w{32};
    for (uint8_t b : name) {
        w.push_back(uint8_t('A' + (b >> 4)));
        w.push_back(uint8_t('A' + (b & 15)));
    }
    w.insert(w.end(), labels.begin(), labels.end());
    return w;
}

Bytes ns_packet(uint16_t id, uint8_t b2, uint8_t b3, const Bytes& counts, const Bytes& name,
                const Bytes& labels, const Bytes& rest)
{
    Bytes p{uint8_t(id >> 8), uint8_t(id), b2, b3};
    for (uint8_t c : counts)
        p.insert(p.end(), {0, c});
    Bytes w = wire_name(name, labels);
    p.insert(p.end(), w.begin(), w.end());
    p.insert(p.end(), rest.begin(), rest.end());
    return p;
}

Bytes ip_bytes(const char* dotted)
{
    uint32_t a = inet_addr(dotted);
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&a);
    return Bytes(p, p + 4);
}

Bytes cat(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

uint16_t ns_id(const Bytes& datagram) { return datagram.size() < 2 ? 0 : uint16_t(datagram[0] << 8 | datagram[1]); }

Bytes nb_record(uint16_t flags, const Bytes& addr, uint8_t ttl)
{
    return cat({0, 0x20, 0, 1, 0, 0, 0, ttl, 0, 6, uint8_t(flags >> 8), uint8_t(flags)}, addr);
}

Bytes ns_query(uint16_t id, const Bytes& name)
{
    return ns_packet(id, 0x01, 0x10, {1, 0, 0, 0}, name, {0}, {0, 0x20, 0, 1});
}

Bytes ns_status_request(uint16_t id, const Bytes& name, uint8_t b3)
{
    return ns_packet(id, 0x00, b3, {1, 0, 0, 0}, name, {0}, {0, 0x21, 0, 1});
}

Bytes ns_registration(uint16_t id, uint8_t b2, uint8_t b3, const Bytes& name, const Bytes& record)
{
    return ns_packet(id, b2, b3, {1, 0, 0, 1}, name, {0}, cat({0, 0x20, 0, 1, 0xC0, 0x0C}, record));
}

Bytes ns_response(uint16_t id, uint8_t b2, uint8_t b3, const Bytes& name, const Bytes& record)
{
    return ns_packet(id, b2, b3, {0, 1, 0, 0}, name, {0}, record);
}

Bytes ns_no_such_name(uint16_t id, const Bytes& name)
{
    return ns_response(id, 0x84, 0x03, name, {0, 0x0A, 0, 1, 0, 0, 0, 0, 0, 0});
}

Bytes ns_status_answer(uint16_t id, const Bytes& asked, const std::vector<std::pair<Bytes, uint16_t>>& names,
                       const Bytes& statistics)
{
    size_t rdlength = 18 * names.size() + 1 + statistics.size();
    Bytes rest{0, 0x21, 0, 1, 0, 0, 0, 0, uint8_t(rdlength >> 8), uint8_t(rdlength), uint8_t(names.size())};
    for (const auto& [name, flags] : names) {
        rest.insert(rest.end(), name.begin(), name.end());
        rest.insert(rest.end(), {uint8_t(flags >> 8), uint8_t(flags)});
    }
    return ns_response(id, 0x84, 0x00, asked, cat(rest, statistics));
}
