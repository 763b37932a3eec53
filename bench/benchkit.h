#pragma once

// What the load generators share: their clock, the options of the unicast
// ones, and the transaction ids they keep in flight.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/resource.h>
#include <time.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <array>
#include <span>
#include <string>
#include <vector>

constexpr int64_t NS_PER_S = 1000000000;

inline int64_t now_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * NS_PER_S + ts.tv_nsec;
}

// Sleeps until fd has a datagram to read or wait_ns has passed.
inline void wait_readable(int fd, int64_t wait_ns)
{
    wait_ns = wait_ns > 0 ? wait_ns : 0;
    timespec ts{time_t(wait_ns / NS_PER_S), long(wait_ns % NS_PER_S)};
    pollfd p{fd, POLLIN, 0};
    ppoll(&p, 1, &ts, nullptr);
}

// The generator's own CPU seconds, so a reader sees how much room it had.
inline double cpu_seconds()
{
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

using usage_fn = void (*)(const char* why);  // prints why and the usage, and exits

inline int64_t number(const char* opt, const char* text, int64_t lo, int64_t hi, usage_fn usage)
{
    char* end = nullptr;
    errno = 0;
    long long v = strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi) {
        char why[96];
        snprintf(why, sizeof why, "%s %s: %lld to %lld", opt, text, static_cast<long long>(lo),
                 static_cast<long long>(hi));
        usage(why);
    }
    return v;
}

// The options every unicast generator takes, into the fields of the same
// names; false when opt is none of them. ADDR alone is default_port.
template <class Options>
bool load_option(Options& o, const std::string& opt, const char* v, int default_port, int max_window,
                 usage_fn usage)
{
    if (opt == "--target") {
        std::string host = v;
        int port = default_port;
        size_t colon = host.find(':');
        if (colon != std::string::npos) {
            port = int(number("--target", host.c_str() + colon + 1, 1, 65535, usage));
            host.resize(colon);
        }
        o.target.sin_family = AF_INET;
        o.target.sin_port = htons(uint16_t(port));
        if (inet_pton(AF_INET, host.c_str(), &o.target.sin_addr) != 1)
            usage("--target wants ADDR[:PORT]");
    } else if (opt == "--prefix") {
        if (strlen(v) < 1 || strlen(v) > 6)
            usage("--prefix: 1 to 6 characters");
        o.prefix = v;
    } else if (opt == "--names") {
        o.names = number("--names", v, 1, 1000000, usage);
    } else if (opt == "--window") {
        o.window = int(number("--window", v, 1, max_window, usage));
    } else if (opt == "--duration") {
        o.duration = int(number("--duration", v, 1, 3600, usage));
    } else if (opt == "--count") {
        o.count = number("--count", v, 1, int64_t(1) << 40, usage);
    } else if (opt == "--timeout") {
        o.timeout = int(number("--timeout", v, 1, 60000, usage));
    } else {
        return false;
    }
    return true;
}

// Every option takes a value: the shared ones above, then own(opt, value)
// for the program's (false: unknown). Whether --target was given.
template <class Options, class Own>
bool load_options(Options& o, int argc, char** argv, int default_port, int max_window, usage_fn usage, Own own)
{
    bool target = false;
    for (int i = 1; i < argc; i++) {
        std::string opt = argv[i];
        if (i + 1 >= argc)
            usage("every option takes a value");
        const char* v = argv[++i];
        if (load_option(o, opt, v, default_port, max_window, usage))
            target = target || opt == "--target";
        else if (!own(opt, v))
            usage(("unknown option " + opt).c_str());
    }
    return target;
}

// Answers by the batch: up to N datagrams of ROOM bytes each per recv.
template <size_t ROOM, size_t N>
struct RecvBatch {
    std::array<std::array<uint8_t, ROOM>, N> bufs{};
    std::array<mmsghdr, N> msgs{};
    std::array<iovec, N> iov{};

    // What waits on fd, without waiting: recvmmsg's result.
    int recv(int fd)
    {
        for (size_t i = 0; i < N; i++) {
            iov[i] = {bufs[i].data(), bufs[i].size()};
            msgs[i].msg_hdr = msghdr{};
            msgs[i].msg_hdr.msg_iov = &iov[i];
            msgs[i].msg_hdr.msg_iovlen = 1;
        }
        return recvmmsg(fd, msgs.data(), N, MSG_DONTWAIT, nullptr);
    }
    std::span<const uint8_t> at(size_t i) const { return {bufs[i].data(), msgs[i].msg_len}; }
};

// Ids in flight: a slot per transaction id (Slot has `busy` and `pos`, its
// place in the list) and the list of busy ids, so that a scan for lost
// requests walks only those.
template <class Slot>
struct InFlight {
    std::vector<Slot> slots = std::vector<Slot>(65536);
    std::vector<uint16_t> busy;

    // After a sendmmsg of ids: the first `sent` are in flight, the others
    // (a full socket buffer) free again.
    void settle(std::span<const uint16_t> ids, int sent)
    {
        for (size_t i = 0; i < ids.size(); i++) {
            Slot& s = slots[ids[i]];
            if (int(i) < sent) {
                s.pos = uint16_t(busy.size());
                busy.push_back(ids[i]);
            } else {
                s.busy = false;
            }
        }
    }

    // Moves the last busy id into this one's place in the list.
    void free(uint16_t id)
    {
        Slot& s = slots[id];
        uint16_t last = busy.back();
        busy[s.pos] = last;
        slots[last].pos = s.pos;
        busy.pop_back();
        s.busy = false;
    }
};
