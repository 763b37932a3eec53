#include "tests/support/nswire.h"

#include <arpa/inet.h>
#include <cstring>


Bytes ns_name(const char* text, uint8_t type)
{
    Bytes n(16, ' ');
    memcpy(n.data(), text, strlen(text));
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

Bytes ns_status_answer(uint16_t id, const Bytes& asked, const std::vector<std::pair<Bytes, uint16_t>>& names)
{
    size_t rdlength = 18 * names.size() + 47;
    Bytes rest{0, 0x21, 0, 1, 0, 0, 0, 0, uint8_t(rdlength >> 8), uint8_t(rdlength), uint8_t(names.size())};
    for (const auto& [name, flags] : names) {
        rest.insert(rest.end(), name.begin(), name.end());
        rest.insert(rest.end(), {uint8_t(flags >> 8), uint8_t(flags)});
    }
    rest.insert(rest.end(), 46, 0);
    return ns_packet(id, 0x84, 0x00, {0, 1, 0, 0}, asked, {0}, rest);
}
