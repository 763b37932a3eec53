#include "shr/uniconv.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "shr/vzstrtoul.h"

namespace {

constexpr char hex_digits[] = "0123456789abcdef";
constexpr size_t NB_NAMELEN = 16;

// Text appended to a fixed buffer that always stays zero-terminated; a
// character that does not fit is dropped (the buffer is sized for the
// longest form, so that never happens in practice).
struct Text {
    char* buf;
    size_t size;
    size_t len = 0;

    void put(char c) {
        if (len + 1 < size)
            buf[len++] = c;
        buf[len] = '\0';
    }
    void dec(unsigned v) {
        char tmp[16];
        int n = snprintf(tmp, sizeof tmp, "%u", v);
        for (int i = 0; i < n; i++)
            put(tmp[i]);
    }
    void hex(const uint8_t* b, size_t n) {
        for (size_t i = 0; i < n; i++) {
            put(hex_digits[b[i] >> 4]);
            put(hex_digits[b[i] & 15]);
        }
    }
};

char ntoa_buf[UNI_TEXTSIZE];

// uni_aton's working copy of its input (grown to the text's length plus 33
// bytes, never freed) and its result.
char* work = nullptr;
size_t work_size = 0;
UniAddr aton_result;


// hex_get over a text of known length (which need not be zero-terminated).
void hex_fill(uint8_t* out, size_t n, const char* text, size_t text_len)
{
    size_t digits = 2 * n;
    size_t have = std::min(text_len, digits);
    size_t pad = digits - have;
    memset(out, 0, n);
    for (size_t i = pad; i < digits; i++) {
        int v = vz_hexval(static_cast<unsigned char>(text[i - pad]));
        if (v < 0)
            v = 0;
        out[i / 2] = static_cast<uint8_t>(out[i / 2] | (i % 2 == 0 ? v << 4 : v));
    }
}

uint16_t get16be(const uint8_t* p)
{
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

void put16be(uint8_t* p, unsigned v)
{
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

bool is_ascii_punct(unsigned char c)
{
    return (c >= 0x21 && c <= 0x2f) || (c >= 0x3a && c <= 0x40) || (c >= 0x5b && c <= 0x60) ||
           (c >= 0x7b && c <= 0x7e);
}

// The NetBIOS text of a 16-byte name and the 16-bit numbers after it:
// "foo" for FOO padded with blanks, "foo<00>" for type byte 0x00 (the name
// part then ends before the 15th byte, so 15 letters and type 0x00 end in
// "<4f00>"), then "/n" per number.
void nb_ntoa(Text& t, const uint8_t* a, size_t len)
{
    size_t end = a[15] == ' ' ? 15 : 14;
    while (end > 0 && a[end - 1] == ' ')
        end--;
    for (size_t i = 0; i < end; i++) {
        unsigned char c = a[i];
        if (c == '/' || c == '<' || c == '\\') {
            t.put('\\');
            t.put(static_cast<char>(c));
        } else if (c >= 'A' && c <= 'Z') {
            t.put(static_cast<char>(c - 'A' + 'a'));
        } else if ((c >= '0' && c <= '9') || is_ascii_punct(c)) {
            t.put(static_cast<char>(c));
        } else {
            // lower-case letters, blanks, control and non-ASCII bytes, so
            // that the parser's upper-casing gives back the same byte
            t.put('\\');
            t.put('x');
            t.hex(&a[i], 1);
        }
    }
    size_t s = a[15] == ' ' ? 15 : 14;
    while (s < NB_NAMELEN && a[s] == ' ')
        s++;
    if (s < NB_NAMELEN) {
        t.put('<');
        t.hex(a + s, NB_NAMELEN - s);
        t.put('>');
    }
    for (size_t at = NB_NAMELEN; at + 2 <= len; at += 2) {
        t.put('/');
        t.dec(get16be(a + at));
    }
}

// One dotted part of an internet address: base 0, all characters used.
// The full value is returned, so that a wrapped or sign-negated value can
// not slip under the caller's range check.
bool inet_part(const char* p, unsigned long* value)
{
    if (*p == '\0')
        return false;
    char* end = nullptr;
    unsigned long v = vz_strtoul(p, &end, 0);
    if (*end != '\0' || static_cast<int32_t>(v) < 0)
        return false;
    *value = v;
    return true;
}

// "a.b.c.d" or "a.b.c.d.port"; each part decimal, 0x hexadecimal or
// leading-0 octal as vz_strtoul reads it (leading blanks and a sign
// included; a negative part fails).
bool parse_inet(char* s, UniAddr& ua)
{
    if (strlen(s) >= 128)
        return false;
    unsigned long v[5];
    int parts = 0;
    for (char* p = s;;) {
        if (parts == 5)
            return false;  // a sixth part
        char* dot = strchr(p, '.');
        if (dot != nullptr)
            *dot = '\0';
        if (!inet_part(p, &v[parts]))
            return false;
        parts++;
        if (dot == nullptr)
            break;
        p = dot + 1;
    }
    if (parts < 4)
        return false;
    for (int i = 0; i < 4; i++) {
        if (v[i] > 255)
            return false;
        ua.addr[i] = static_cast<uint8_t>(v[i]);
    }
    ua.len = 4;
    if (parts == 5) {
        if (v[4] > 65535)
            return false;
        put16be(ua.addr + 4, static_cast<unsigned>(v[4]));
        ua.len = 6;
    }
    return true;
}

// "name<hh>/n/n": the name with backslash escapes (\xhh for any byte, a
// backslash before any other character for that character) and ASCII
// letters upper-cased (bytes from 0x80 up stay as they are), at most 15
// bytes; an optional hexadecimal suffix of up to 4 digits, right-aligned in
// the last bytes (read like hex_get: a non-digit between "<" and ">" reads
// as 0); up to two numbers, each vz_strtoul base 0 and kept in its low 16
// bits. The text is only read, so the caller can try another parser on it.
bool parse_netbios(const char* s, UniAddr& ua)
{
    uint8_t* name = ua.addr;
    size_t n = 0;
    const char* p = s;
    while (*p != '\0' && *p != '<' && *p != '/') {
        unsigned char c;
        if (*p == '\\') {
            if (p[1] == '\0')
                return false;
            if (p[1] == 'x' || p[1] == 'X') {
                int b = hexbyte(p + 2);
                if (b < 0)
                    return false;
                c = static_cast<unsigned char>(b);
                p += 4;
            } else {
                c = static_cast<unsigned char>(p[1]);
                p += 2;
            }
        } else {
            c = static_cast<unsigned char>(*p++);
            if (c >= 'a' && c <= 'z')
                c = static_cast<unsigned char>(c - 'a' + 'A');
        }
        if (n == 15)
            return false;
        name[n++] = c;
    }
    memset(name + n, ' ', NB_NAMELEN - n);
    if (*p == '<') {
        const char* digits = p + 1;
        const char* close = strchr(digits, '>');
        if (close == nullptr)
            return false;
        size_t bytes = (static_cast<size_t>(close - digits) + 1) / 2;
        if (bytes > 2 || n + bytes > NB_NAMELEN)
            return false;
        hex_fill(name + NB_NAMELEN - bytes, bytes, digits, static_cast<size_t>(close - digits));
        p = close + 1;
    }
    size_t len = NB_NAMELEN;
    for (int count = 0; *p == '/'; count++) {
        if (count == 2)
            return false;
        p++;
        char* end = nullptr;
        unsigned long v = vz_strtoul(p, &end, 0);
        if (end == p)
            return false;
        put16be(ua.addr + len, static_cast<unsigned>(v & 0xffff));
        len += 2;
        p = end;
    }
    if (*p != '\0')
        return false;
    ua.len = static_cast<uint16_t>(len);
    return true;
}

// Splits at runs of the separator, as strtok does: empty parts do not
// exist, so "::5" is one part. Returns the number of parts found, reading at
// most max + 1 of them (so that a caller can refuse one too many).
int split_runs(char* s, char sep, char** parts, int max)
{
    int n = 0;
    char* p = s;
    while (n <= max) {
        while (*p == sep)
            p++;
        if (*p == '\0')
            break;
        if (n < max)
            parts[n] = p;
        n++;
        while (*p != '\0' && *p != sep)
            p++;
        if (*p == '\0')
            break;
        *p++ = '\0';
    }
    return n;
}

// Raw bytes: (characters + 1) / 2 bytes, at most 60, read by hex_get.
bool parse_raw(const char* s, UniAddr& ua)
{
    size_t chars = strlen(s);
    size_t n = std::min((chars + 1) / 2, static_cast<size_t>(UNI_MAXADDR));
    hex_fill(ua.addr, n, s, chars);
    ua.len = static_cast<uint16_t>(n);
    return true;
}

// "net:host:socket" in hexadecimal, missing parts 0; a fourth part fails
// rather than being dropped unseen. Without a ":" the text is raw bytes.
bool parse_xns(char* s, UniAddr& ua)
{
    if (strchr(s, ':') == nullptr)
        return parse_raw(s, ua);
    char* parts[3] = {nullptr, nullptr, nullptr};
    int n = split_runs(s, ':', parts, 3);
    if (n > 3)
        return false;
    static constexpr size_t widths[3] = {4, 6, 2};
    size_t at = 0;
    for (int i = 0; i < 3; i++) {
        const char* part = parts[i] != nullptr ? parts[i] : "0";
        hex_fill(ua.addr + at, widths[i], part, strlen(part));
        at += widths[i];
    }
    ua.len = 12;
    return true;
}

// "net.node.socket", each vz_strtoul base 0 (no digits: 0, anything after
// the digits ignored), missing parts 0, truncated to 16, 8 and 8 bits.
// Never fails: parts after the third are ignored.
bool parse_appletalk(char* s, UniAddr& ua)
{
    char* parts[3] = {nullptr, nullptr, nullptr};
    split_runs(s, '.', parts, 3);
    unsigned long v[3] = {0, 0, 0};
    for (int i = 0; i < 3; i++)
        if (parts[i] != nullptr)
            v[i] = vz_strtoul(parts[i], nullptr, 0);
    put16be(ua.addr, static_cast<unsigned>(v[0] & 0xffff));
    ua.addr[2] = static_cast<uint8_t>(v[1]);
    ua.addr[3] = static_cast<uint8_t>(v[2]);
    ua.len = 4;
    return true;
}

bool parse_family(char* s, UniAddr& ua)
{
    switch (ua.family) {
    case UNI_APPLETALK: return parse_appletalk(s, ua);
    case UNI_INET: return parse_inet(s, ua);
    case UNI_NETBIOS: return parse_netbios(s, ua);
    case UNI_XNS: return parse_xns(s, ua);
    default: return parse_raw(s, ua);
    }
}

}  // namespace

int hex_put(char* out, const uint8_t* bytes, int n)
{
    if (n < 0)
        return 0;
    for (int i = 0; i < n; i++) {
        out[2 * i] = hex_digits[bytes[i] >> 4];
        out[2 * i + 1] = hex_digits[bytes[i] & 15];
    }
    return 2 * n;
}

int hex_get(uint8_t* out, int n, const char* text)
{
    if (n <= 0)
        return 0;
    size_t digits = 2 * static_cast<size_t>(n);
    hex_fill(out, static_cast<size_t>(n), text, strnlen(text, digits));
    return n;
}

int hexbyte(const char* text)
{
    int hi = vz_hexval(static_cast<unsigned char>(text[0]));
    if (hi < 0)
        return -1;
    int lo = vz_hexval(static_cast<unsigned char>(text[1]));
    if (lo < 0)
        return -1;
    return hi << 4 | lo;
}

const char* uni_ntoa(const UniAddr* ua)
{
    Text t{ntoa_buf, sizeof ntoa_buf};
    size_t len = std::min<size_t>(ua->len, UNI_MAXADDR);
    const uint8_t* a = ua->addr;
    // A family outside printable ASCII is shown as "?" so that the text
    // stays printable; such a text does not parse back to the same family.
    t.put(ua->family > 0x20 && ua->family < 0x7f ? static_cast<char>(ua->family) : '?');
    t.put('(');
    if (ua->family == UNI_INET && (len == 4 || len == 6)) {
        for (size_t i = 0; i < 4; i++) {
            if (i > 0)
                t.put('.');
            t.dec(a[i]);
        }
        if (len == 6) {
            t.put('.');
            t.dec(get16be(a + 4));
        }
    } else if (ua->family == UNI_APPLETALK && len == 4) {
        t.dec(get16be(a));
        t.put('.');
        t.dec(a[2]);
        t.put('.');
        t.dec(a[3]);
    } else if (ua->family == UNI_NETBIOS && (len == 16 || len == 18 || len == 20)) {
        nb_ntoa(t, a, len);
    } else if (ua->family == UNI_XNS && len == 12) {
        t.hex(a, 4);
        t.put(':');
        t.hex(a + 4, 6);
        t.put(':');
        t.hex(a + 10, 2);
    } else {
        t.hex(a, len);
    }
    t.put(')');
    return ntoa_buf;
}

const UniAddr* uni_aton(const char* text)
{
    if (text == nullptr || text[0] == '\0')
        return nullptr;
    size_t n = strlen(text);
    if (n + 33 > work_size) {
        char* grown = static_cast<char*>(realloc(work, n + 33));
        if (grown == nullptr)
            return nullptr;
        work = grown;
        work_size = n + 33;
    }
    memcpy(work, text, n + 1);
    UniAddr& ua = aton_result;
    memset(&ua, 0, sizeof ua);

    bool ok;
    if (work[1] == '(') {
        ua.family = static_cast<unsigned char>(work[0]);
        char* body = work + 2;
        if (char* close = strrchr(body, ')'))
            *close = '\0';
        ok = parse_family(body, ua);
    } else if (strchr(work, '.') != nullptr) {
        ua.family = UNI_INET;
        ok = parse_inet(work, ua);
    } else if (strchr(work, ':') != nullptr) {
        ua.family = UNI_XNS;
        ok = parse_xns(work, ua);
    } else {
        ua.family = UNI_NETBIOS;
        ok = parse_netbios(work, ua);
        if (!ok) {
            memset(&ua, 0, sizeof ua);
            ua.family = UNI_OTHER;
            ok = parse_raw(work, ua);
        }
    }
    return ok ? &ua : nullptr;
}

int uni_type(const UniAddr* ua)
{
    return ua->family;
}

int uni_cmp(const UniAddr* a, const UniAddr* b)
{
    if (a->family != b->family)
        return int(a->family) - int(b->family);
    if (a->len != b->len)
        return int(a->len) - int(b->len);
    return memcmp(a->addr, b->addr, std::min<size_t>(a->len, UNI_MAXADDR));
}
