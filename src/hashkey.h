#pragma once

// Keys and hashes for the indexes of what other stations make us keep
// (learned names and addresses, unknown senders, agent commands). The
// senders choose the names and addresses, so the hashes are seeded once
// per process: a station cannot pick values that all land in one bucket.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <sys/random.h>
#include <unistd.h>

inline uint64_t hk_make_seed()
{
    uint64_t seed = 0;
    if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) != ssize_t(sizeof seed))
        seed = uint64_t(time(nullptr)) * 0x9E3779B97F4A7C15ull ^ uint64_t(getpid());
    return seed;
}
inline const uint64_t hk_seed = hk_make_seed();

struct NameKey {  // the 16 bytes of a NetBIOS name
    std::array<uint8_t, 16> b;
    bool operator==(const NameKey&) const = default;
};

inline NameKey hk_name(const uint8_t* name)
{
    NameKey k;
    memcpy(k.b.data(), name, 16);
    return k;
}

struct NameHash {
    size_t operator()(const NameKey& k) const
    {
        uint64_t h = 1469598103934665603ull ^ hk_seed;  // FNV-1a, seeded
        for (uint8_t c : k.b)
            h = (h ^ c) * 1099511628211ull;
        return size_t(h ^ h >> 29);
    }
};

struct AddrHash {  // IPv4 addresses
    size_t operator()(uint32_t a) const
    {
        uint64_t h = (uint64_t(a) ^ hk_seed) * 0x9E3779B97F4A7C15ull;
        return size_t(h ^ h >> 32);
    }
};
