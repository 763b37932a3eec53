#include "misc/enskey.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <unordered_set>

#include "shr/vzstrtoul.h"

namespace {

static_assert(crypto_auth_BYTES == EK_SEAL_SIZE - 8 && crypto_auth_KEYBYTES == 32);

constexpr int STAMP_SIZE = 8;
constexpr size_t KEY_FILE_MAX = 1024;  // more than any key file of ours needs

unsigned char key[crypto_auth_KEYBYTES];
bool keyed = false;

// The codes accepted within the window, by their first 8 bytes, in order of
// arrival. Only datagrams with a good code come here, so only keyholders
// fill it.
struct Seen {
    uint64_t tag;
    int64_t stamp;
};
std::deque<Seen> seen_order;
std::unordered_set<uint64_t> seen_tags;


// 64 hex digits, blanks and line ends ignored: the key, else false.
bool parse_key(const char* text, size_t n, unsigned char* out)
{
    size_t digits = 0;
    for (size_t i = 0; i < n; i++) {
        char c = text[i];
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n')
            continue;
        int v = vz_hexval(static_cast<unsigned char>(c));
        if (v < 0 || digits >= 2 * crypto_auth_KEYBYTES)
            return false;
        if (digits % 2 == 0)
            out[digits / 2] = uint8_t(v << 4);
        else
            out[digits / 2] |= uint8_t(v);
        digits++;
    }
    return digits == 2 * crypto_auth_KEYBYTES;
}

// True the first time a code is seen. What the window refuses anyway is
// forgotten, and the oldest when the table is full: a replay of one of
// those meets the protocol's own defences (a response whose command has
// ended finds none; an agent answers a repeat without doing it again).
bool first_sight(const uint8_t* code, int64_t stamp, int64_t now_us)
{
    uint64_t tag = 0;
    memcpy(&tag, code, sizeof tag);
    try {
        while (!seen_order.empty() &&
               (seen_order.front().stamp < now_us - EK_WINDOW_US || seen_order.size() >= EK_SEEN_MAX)) {
            seen_tags.erase(seen_order.front().tag);
            seen_order.pop_front();
        }
        if (!seen_tags.insert(tag).second)
            return false;
        seen_order.push_back({tag, stamp});
    } catch (...) {
        seen_tags.erase(tag);  // short of memory: accepted, not remembered
    }
    return true;
}

}  // namespace

int ek_load(const char* path, char* why, size_t why_size)
{
    ek_clear();
    if (sodium_init() < 0) {
        snprintf(why, why_size, "the crypto library cannot start");
        return -1;
    }
    // Not blocking: a FIFO under the name would stall the start.
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        snprintf(why, why_size, "cannot be read (%s)", strerror(errno));
        return -1;
    }
    struct stat st;
    char text[KEY_FILE_MAX + 1];
    ssize_t n = -1;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        snprintf(why, why_size, "is not a regular file");
    } else if ((st.st_mode & (S_IRWXO | S_IWGRP)) != 0) {
        snprintf(why, why_size, "is open to other users (mode %04o): make it 0600", unsigned(st.st_mode & 07777));
    } else if ((n = read(fd, text, sizeof text)) < 0) {
        snprintf(why, why_size, "cannot be read (%s)", strerror(errno));
    } else if (size_t(n) > KEY_FILE_MAX || !parse_key(text, size_t(n), key)) {
        snprintf(why, why_size, "does not hold 64 hexadecimal digits");
        n = -1;
    }
    close(fd);
    sodium_memzero(text, sizeof text);
    if (n < 0) {
        sodium_memzero(key, sizeof key);
        return -1;
    }
    keyed = true;
    return 0;
}

void ek_clear()
{
    sodium_memzero(key, sizeof key);
    keyed = false;
    seen_order.clear();
    seen_tags.clear();
}

bool ek_keyed()
{
    return keyed;
}

int64_t ek_now_us()
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return int64_t(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int ek_seal(uint8_t* out, int room, const uint8_t* bytes, int n, int64_t now_us)
{
    if (!keyed)
        return n;
    if (n < 0 || room < EK_SEAL_SIZE || n > room - EK_SEAL_SIZE)
        return -1;
    if (n > 0)
        memmove(out, bytes, size_t(n));
    for (int i = 0; i < STAMP_SIZE; i++)
        out[n + i] = uint8_t(uint64_t(now_us) >> (8 * i));
    crypto_auth(out + n + STAMP_SIZE, out, size_t(n + STAMP_SIZE), key);
    return n + EK_SEAL_SIZE;
}

int ek_open(const uint8_t* bytes, int n, int64_t now_us, const char** why)
{
    if (!keyed)
        return n;
    if (bytes == nullptr || n < EK_SEAL_SIZE) {
        *why = "too short for a code";
        return -1;
    }
    // The code covers the protocol's bytes and the stamp: checked first, so
    // that nothing of a forged datagram is looked at.
    int body = n - EK_SEAL_SIZE;
    const uint8_t* code = bytes + body + STAMP_SIZE;
    if (crypto_auth_verify(code, bytes, size_t(body + STAMP_SIZE), key) != 0) {
        *why = "wrong code";
        return -1;
    }
    uint64_t stamp = 0;
    for (int i = 0; i < STAMP_SIZE; i++)
        stamp |= uint64_t(bytes[body + i]) << (8 * i);
    int64_t s = int64_t(stamp);
    if (s < now_us - EK_WINDOW_US || s > now_us + EK_WINDOW_US) {
        *why = "stamped outside the time window";
        return -1;
    }
    if (!first_sight(code, s, now_us)) {
        *why = "seen before";
        return -1;
    }
    return body;
}
