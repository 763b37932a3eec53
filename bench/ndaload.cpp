// halyard-ndaload: a load generator for the name-directory agent. It sends
// what a daemon sends, QUERYs or ADDs, with a window of requests
// outstanding, and prints one line of key=value figures (rate, latency,
// its own CPU).
//
//   --mode add    ADDs of unique names PREFIX0<20>, PREFIX1<20>, ..., 16
//                 names to a claimer address (10.79.x.y, --net 80: 10.80.x.y
//                 for a second generator's hosts); an answer is a
//                 committed registration
//   --mode query  QUERYs of PREFIX0<20> .. PREFIX(N-1)<20> in turn
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/benchkit.h"

namespace {

constexpr int MAX_WINDOW = 4096;  // the slot is the id's low 12 bits
constexpr int BATCH = 64;
constexpr uint32_t ENS_VERSION = 0x00010001;
constexpr uint32_t ENS_RESPONSE = 0x80000000u;
constexpr uint32_t ENS_QUERY = 1, ENS_ADD = 3;

struct Options {
    sockaddr_in target{};
    bool add = false;
    std::string prefix = "NDA";
    int64_t names = 1000;  // query: names asked in turn
    int window = 32;
    int duration = 5;
    int64_t count = 0;  // 0: until the duration is over
    int timeout = 1000;  // ms
    uint32_t net = 79;   // the claimer addresses' second byte
};

struct Slot {
    bool busy;
    uint32_t id;
    int64_t sent;
};

[[noreturn]] void usage(const char* why)
{
    fprintf(stderr,
            "halyard-ndaload: %s\n"
            "usage: halyard-ndaload --target ADDR[:PORT] --mode query|add [--prefix P] [--names N]\n"
            "         [--window N] [--duration SEC] [--count N] [--timeout MS] [--net N]\n",
            why);
    exit(2);
}

Options parse(int argc, char** argv)
{
    Options o;
    bool mode = false;
    bool target = load_options(o, argc, argv, 227, MAX_WINDOW, usage, [&](const std::string& opt, const char* v) {
        if (opt == "--mode") {
            if (strcmp(v, "query") != 0 && strcmp(v, "add") != 0)
                usage("--mode query or add");
            o.add = strcmp(v, "add") == 0;
            mode = true;
        } else if (opt == "--net") {
            o.net = uint32_t(number("--net", v, 1, 254, usage));
        } else {
            return false;
        }
        return true;
    });
    if (!target || !mode)
        usage("--target and --mode are required");
    return o;
}

void put32(std::vector<uint8_t>& b, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        b.push_back(uint8_t(v >> (8 * i)));
}

uint32_t get32(const uint8_t* p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// Request number k, as a daemon builds it.
std::vector<uint8_t> request(const Options& o, int64_t k, uint32_t id)
{
    std::vector<uint8_t> b;
    put32(b, ENS_VERSION);
    put32(b, id);
    put32(b, o.add ? ENS_ADD : ENS_QUERY);
    put32(b, 0);
    put32(b, 0);
    int64_t n = o.add ? k : k % o.names;
    char text[17];
    snprintf(text, sizeof text, "%s%-15lld", o.prefix.c_str(), static_cast<long long>(n));
    put32(b, 16);
    b.insert(b.end(), text, text + 15);
    b.push_back(0x20);
    if (o.add) {
        uint32_t host = (0x0a000000u | o.net << 16) + uint32_t(n / 16 % 65000) + 1;  // 10.NET.x.y
        put32(b, 0);  // unique
        put32(b, 1);
        uint8_t ip[6] = {4, uint8_t(host >> 24), uint8_t(host >> 16), uint8_t(host >> 8), uint8_t(host), 0};
        b.insert(b.end(), ip, ip + 6);
    }
    put32(b, 0);
    return b;
}

}  // namespace

int main(int argc, char** argv)
{
    Options o = parse(argc, argv);
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&o.target), sizeof o.target) != 0) {
        perror("halyard-ndaload: socket");
        return 1;
    }
    int rcvbuf = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);

    std::vector<Slot> slots(size_t(o.window), Slot{false, 0, 0});
    std::vector<int> free_slots;
    for (int i = o.window - 1; i >= 0; i--)
        free_slots.push_back(i);
    std::vector<int64_t> latency;
    int64_t sent = 0, answered = 0, positive = 0, lost = 0;
    uint32_t seq = 0;
    double cpu0 = cpu_seconds();
    int64_t start = now_ns(), end = start + int64_t(o.duration) * NS_PER_S;
    int64_t timeout_ns = int64_t(o.timeout) * 1000000;
    int64_t next_sweep = start + timeout_ns;

    for (;;) {
        int64_t t = now_ns();
        bool sending = t < end && (o.count == 0 || sent < o.count);
        if (!sending && free_slots.size() == slots.size())
            break;
        if (t >= next_sweep || !sending) {
            for (size_t i = 0; i < slots.size(); i++) {
                if (slots[i].busy && t - slots[i].sent >= timeout_ns) {
                    slots[i].busy = false;
                    free_slots.push_back(int(i));
                    lost++;
                }
            }
            next_sweep = t + timeout_ns / 4;
        }
        while (sending && !free_slots.empty() && (o.count == 0 || sent < o.count)) {
            int s = free_slots.back();
            uint32_t id = (++seq << 12) | uint32_t(s);
            std::vector<uint8_t> b = request(o, sent, id);
            if (send(fd, b.data(), b.size(), 0) < 0) {
                if (errno == EAGAIN || errno == ENOBUFS)
                    break;
                if (errno != ECONNREFUSED) {
                    perror("halyard-ndaload: send");
                    return 1;
                }
            }
            free_slots.pop_back();
            slots[size_t(s)] = {true, id, now_ns()};
            sent++;
        }
        pollfd pfd{fd, POLLIN, 0};
        poll(&pfd, 1, 10);
        for (int n = 0; n < BATCH; n++) {
            uint8_t buf[2048];
            ssize_t len = recv(fd, buf, sizeof buf, 0);
            if (len < 0)
                break;
            if (len < 20 || get32(buf) != ENS_VERSION || (get32(buf + 8) & ENS_RESPONSE) == 0)
                continue;
            uint32_t id = get32(buf + 4);
            if ((id & 0xfff) >= slots.size())
                continue;
            Slot& sl = slots[id & 0xfff];
            if (!sl.busy || sl.id != id)
                continue;  // late: already counted lost
            sl.busy = false;
            free_slots.push_back(int(id & 0xfff));
            latency.push_back(now_ns() - sl.sent);
            answered++;
            if (get32(buf + 12) == 0)
                positive++;
        }
    }
    double secs = double(now_ns() - start) / double(NS_PER_S);
    std::sort(latency.begin(), latency.end());
    auto pct = [&](double p) {
        return latency.empty() ? 0.0 : double(latency[size_t(p * double(latency.size() - 1))]) / 1000.0;
    };
    printf("mode=%s requests=%lld answered=%lld positive=%lld lost=%lld seconds=%.3f rate=%.1f p50_us=%.1f "
           "p99_us=%.1f cpu_s=%.3f\n",
           o.add ? "add" : "query", static_cast<long long>(sent), static_cast<long long>(answered),
           static_cast<long long>(positive), static_cast<long long>(lost), secs, double(answered) / secs, pct(0.5),
           pct(0.99), cpu_seconds() - cpu0);
    return 0;
}
