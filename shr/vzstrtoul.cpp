#include "shr/vzstrtoul.h"

#include <cctype>
#include <cerrno>
#include <climits>

namespace {

int digit_value(unsigned char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'Z')
        return c - 'A' + 10;
    return 99;
}

}  // namespace

int vz_hexval(int c)
{
    int v = digit_value(static_cast<unsigned char>(c));
    return v < 16 ? v : -1;
}

unsigned long vz_strtoul(const char* s, char** end, int base)
{
    const char* p = s;
    while (isspace(static_cast<unsigned char>(*p)))
        p++;
    bool negative = false;
    if (*p == '+' || *p == '-') {
        negative = *p == '-';
        p++;
    }
    // A prefix counts only when a hexadecimal digit follows it, so "0x" alone
    // reads as the digit 0 and leaves "x" unread.
    bool hex_prefix = p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && digit_value(static_cast<unsigned char>(p[2])) < 16;
    if (base == 0)
        base = hex_prefix ? 16 : (p[0] == '0' ? 8 : 10);
    if (base == 16 && hex_prefix)
        p += 2;
    if (base < 2 || base > 36) {
        errno = EINVAL;
        if (end != nullptr)
            *end = const_cast<char*>(s);
        return 0;
    }

    unsigned long value = 0;
    bool any = false, overflow = false;
    for (;; p++) {
        int d = digit_value(static_cast<unsigned char>(*p));
        if (d >= base)
            break;
        any = true;
        if (value > (ULONG_MAX - static_cast<unsigned long>(d)) / static_cast<unsigned long>(base))
            overflow = true;
        else
            value = value * static_cast<unsigned long>(base) + static_cast<unsigned long>(d);
    }
    if (end != nullptr)
        *end = const_cast<char*>(any ? p : s);
    if (overflow) {
        errno = ERANGE;
        return ULONG_MAX;
    }
    return negative ? 0 - value : value;
}
