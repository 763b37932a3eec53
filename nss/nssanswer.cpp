#include "nss/nssanswer.h"

#include <cstring>

#include "shr/reader.h"
#include "src/nsmsg.h"

namespace {

constexpr size_t NAMELEN = 16;
constexpr int32_t LOOKUP_LEN = 72;  // status, universal address, group flag

// The owner's address of a positive lookup answer's data, or 0.
uint32_t found_addr(Reader r)
{
    int32_t status = int32_t(r.u32host());
    uint16_t family = r.u16host();
    uint16_t len = r.u16host();
    uint32_t addr = 0;
    r.copy(&addr, 4);
    if (!r.ok() || status != 0 || family != 'I' || (len != 4 && len != 6))
        return 0;
    return addr;
}

// One whole message for one of the asks, or none.
void take_one(std::span<const uint8_t> msg, std::span<NssAsk> asks)
{
    Reader r(msg.subspan(8));
    int32_t len = int32_t(r.u32host());
    uint32_t xid = r.u32host();
    uint32_t op = r.u32host();
    for (NssAsk& a : asks) {
        if (a.xid != xid || a.state != NssState::waiting)
            continue;
        uint32_t addr = 0;
        if (op == (NS_LOOKUP | NS_RESPONSE) && len == LOOKUP_LEN)
            addr = found_addr(Reader(msg.subspan(NS_HDRSIZE)));
        a.addr = addr;
        a.state = addr != 0 ? NssState::found : NssState::not_found;
        return;
    }
}

bool blank(uint8_t c)
{
    return c == ' ' || c == '\t';
}

bool digit(uint8_t c)
{
    return c >= '0' && c <= '9';
}

bool refused_char(uint8_t c)
{
    return c <= ' ' || c >= 0x7f || strchr(".\\/:*?\"<>|", c) != nullptr;
}

}  // namespace

int nss_nbname(uint8_t* out, const char* host, uint8_t type)
{
    size_t n = strnlen(host, NAMELEN);
    if (n == 0 || n == NAMELEN)
        return -1;
    for (size_t i = 0; i < n; i++)
        if (refused_char(uint8_t(host[i])))
            return -1;
    memset(out, ' ', NAMELEN - 1);
    for (size_t i = 0; i < n; i++) {
        char c = host[i];
        out[i] = uint8_t(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    }
    out[NAMELEN - 1] = type;
    return 0;
}

int nss_wait_ms(std::span<const uint8_t> text)
{
    // Plain loops over the bytes: the module uses nothing of the C++ library
    // that could throw, so it needs no C++ runtime in the programs it joins.
    int wait = NSS_WAIT_MS;
    size_t i = 0;
    while (i < text.size()) {
        size_t end = i;
        while (end < text.size() && text[end] != '\n' && text[end] != '#')
            end++;
        size_t next = end;
        while (next < text.size() && text[next] != '\n')
            next++;
        const uint8_t* p = text.data() + i;
        const uint8_t* e = text.data() + end;
        i = next + 1;
        while (p < e && blank(*p))
            p++;
        while (e > p && (blank(e[-1]) || e[-1] == '\r'))
            e--;
        if (e - p < 8 || memcmp(p, "timeout", 7) != 0 || !blank(p[7]))
            continue;
        for (p += 7; p < e && blank(*p);)
            p++;
        // Whole seconds, then up to three digits of milliseconds.
        long ms = 0;
        const uint8_t* start = p;
        while (p < e && digit(*p) && ms <= NSS_WAIT_MAX_MS)
            ms = ms * 10 + (*p++ - '0') * 1000;
        bool whole = p > start;
        if (p < e && *p == '.') {
            p++;
            for (long scale = 100; p < e && digit(*p) && scale > 0; scale /= 10)
                ms += (*p++ - '0') * scale;
        }
        if (!whole || p != e || ms < NSS_WAIT_MIN_MS || ms > NSS_WAIT_MAX_MS)
            continue;
        wait = int(ms);
    }
    return wait;
}

size_t nss_take(std::span<const uint8_t> b, std::span<NssAsk> asks)
{
    size_t used = 0;
    for (;;) {
        NsFramed f = ns_frame(b.subspan(used), NS_MAXDATA);
        if (f.kind == NsFrame::need)
            return used;
        if (f.kind == NsFrame::whole)
            take_one(b.subspan(used, f.n), asks);
        used += f.n;
    }
}
