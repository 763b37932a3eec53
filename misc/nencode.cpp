#include "misc/nencode.h"

#include <cctype>
#include <cstdio>
#include <cstring>

#include "nb/nbladdr.h"
#include "shr/uniconv.h"

namespace {

char printable_buf[NM_TEXTSIZE];

}  // namespace

// RFC 1001 14.1: each half-byte becomes a letter from 'A'.
void n_encode(char* out, const uint8_t* name)
{
    for (int i = 0; i < NB_NAMELEN; i++) {
        out[2 * i] = static_cast<char>('A' + (name[i] >> 4));
        out[2 * i + 1] = static_cast<char>('A' + (name[i] & 0x0f));
    }
    out[NB_ENCLEN] = '\0';
}

void n_decode(uint8_t* out, const char* in)
{
    for (int i = 0; i < NB_NAMELEN; i++) {
        int hi = static_cast<unsigned char>(in[2 * i]) - 'A';
        int lo = static_cast<unsigned char>(in[2 * i + 1]) - 'A';
        out[i] = static_cast<uint8_t>((hi << 4) + lo);
    }
}

int l_to_vl(char* out, const uint8_t* in, char** out_end, const uint8_t** in_next, int room)
{
    int n = in[0];
    if (n > room)
        return -1;
    int count = 0;
    for (int i = 1; i <= n && count < room; i++) {
        char c = static_cast<char>(in[i]);
        if (c == '.' || c == '\\') {
            out[count++] = '\\';
            if (count >= room)
                break;
        }
        out[count++] = c;
    }
    if (count >= room)
        return -1;  // the text and its zero byte must both fit
    out[count] = '\0';
    if (out_end != nullptr)
        *out_end = out + count;
    if (in_next != nullptr)
        *in_next = in + 1 + n;
    return 0;
}

void vl_to_l(uint8_t* out, const char* in, uint8_t** out_end, const char** in_next)
{
    int count = 0;
    const char* s = in;
    while (*s != '\0' && *s != '.') {
        if (*s == '\\') {
            // A backslash as the text's last character escapes nothing: it
            // is dropped rather than read past the terminating zero.
            if (s[1] == '\0') {
                s++;
                break;
            }
            s++;
        }
        out[1 + count++] = static_cast<uint8_t>(*s++);
    }
    out[0] = static_cast<uint8_t>(count);
    out[1 + count] = 0;
    if (*s == '.')
        s++;
    if (out_end != nullptr)
        *out_end = out + 1 + count;
    if (in_next != nullptr)
        *in_next = s;
}

int d_to_vd(char* out, const uint8_t* in, int size)
{
    if (size < 1)
        return -1;
    if (in[0] == 0) {
        out[0] = '\0';
        return 0;
    }
    int written = 0;
    const uint8_t* p = in;
    for (;;) {
        char* end = nullptr;
        const uint8_t* next = nullptr;
        // One byte of size stays free for the terminator.
        if (l_to_vl(out + written, p, &end, &next, size - 1 - written) < 0)
            return -1;
        written = static_cast<int>(end - out);
        out[written++] = '.';
        p = next;
        if (*p == 0) {
            out[written - 1] = '\0';
            return 0;
        }
    }
}

void vd_to_d(uint8_t* out, const char* in)
{
    uint8_t* p = out;
    const char* s = in;
    for (;;) {
        uint8_t* end = nullptr;
        const char* next = nullptr;
        vl_to_l(p, s, &end, &next);
        if (p[0] == 0 && end == p + 1)
            return;  // the empty label wrote the domain's zero length byte
        p = end;
        s = next;
    }
}

int nm_strtonb(uint8_t* out, const char* text)
{
    char work[128];
    if (strlen(text) + 4 > sizeof work)
        return -1;
    snprintf(work, sizeof work, "N(%s)", text);
    const UniAddr* ua = uni_aton(work);
    if (ua == nullptr)
        return -1;
    NbAddr na;
    if (vznb_uatona(&na, ua) != 0)
        return -1;
    memcpy(out, na.name, NB_NAMELEN);
    return 0;
}

int nm_nbtostr(char* out, const uint8_t* name)
{
    NbAddr na{};
    memcpy(na.name, name, NB_NAMELEN);
    UniAddr ua;
    vznb_natoua(&ua, &na);
    const char* t = uni_ntoa(&ua);
    size_t n = strlen(t);
    // "N(" + text + ")"; the longest text of 16 bytes is 64 characters.
    size_t inner = n >= 3 ? n - 3 : 0;
    if (inner > NM_TEXTSIZE - 1)
        inner = NM_TEXTSIZE - 1;
    memcpy(out, t + (n >= 3 ? 2 : 0), inner);
    out[inner] = '\0';
    return 0;
}

const char* nm_printable(const uint8_t* name)
{
    nm_nbtostr(printable_buf, name);
    return printable_buf;
}

void n_upcase(char* text)
{
    for (char* p = text; *p != '\0'; p++) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c < 0x80 && islower(c))
            *p = static_cast<char>(toupper(c));
    }
}
