// halyard-loadgen: a load generator of RFC 1002 name queries (4.2.12) or node
// status requests (4.2.17) for a set of names, to one name server, with a
// window of requests outstanding. It prints one line of key=value figures.
//
// Requests go out and answers come in by the batch (sendmmsg, recvmmsg) so
// that on a small machine the generator is not what limits the rate; its own
// CPU seconds are printed so a reader can see how much room it had.

#include <arpa/inet.h>
#include <errno.h>
#include <stdarg.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/benchkit.h"
#include "client/nsclient.h"
#include "misc/nencode.h"
#include "shr/reader.h"

namespace {

constexpr int EXIT_USAGE = 2;
constexpr int MAX_WINDOW = 4096;
constexpr int MAX_DURATION = 3600;     // seconds
constexpr int MAX_TIMEOUT = 60000;     // ms
constexpr int MAX_NAMES = 256;
constexpr int BATCH = 64;              // datagrams per sendmmsg / recvmmsg
constexpr size_t REQ_ROOM = 512;       // header, name with a full scope, question
constexpr size_t RESP_ROOM = 2048;     // a node status answer fits in 1500
constexpr uint16_t QTYPE_NB = 0x0020;
constexpr uint16_t QTYPE_NBSTAT = 0x0021;
constexpr uint16_t QCLASS_IN = 0x0001;

// Latency histogram: 100 ns steps below 10 ms, then 10 us steps up to 10 s;
// anything slower lands in the last bucket.
constexpr int64_t FINE_NS = 100, FINE_LIMIT_NS = 10000000;
constexpr int64_t COARSE_NS = 10000, COARSE_LIMIT_NS = 10 * NS_PER_S;
constexpr size_t FINE_BUCKETS = FINE_LIMIT_NS / FINE_NS;
constexpr size_t HIST_BUCKETS = FINE_BUCKETS + (COARSE_LIMIT_NS - FINE_LIMIT_NS) / COARSE_NS + 1;

struct Options {
    sockaddr_in target{};
    sockaddr_in bind{};
    bool have_bind = false;
    bool status = false;                 // node status instead of name query
    std::vector<std::string> names;
    std::string scope;
    int window = 32;
    int duration = 5;                    // seconds
    int64_t count = 0;                   // 0: no limit but the duration
    int timeout = 200;                   // ms
};

// One request as sent, with its id to be filled in.
struct Request {
    std::array<uint8_t, REQ_ROOM> bytes;
    size_t size;
    size_t name_len;                     // the wire name at offset 12
};

// A transaction id's slot: outstanding or free.
struct Slot {
    bool busy;
    uint16_t req;                        // which name
    uint16_t pos;                        // index in the outstanding list
    int64_t sent;                        // ns, CLOCK_MONOTONIC
};

struct Counts {
    int64_t requests = 0, answered = 0, positive = 0, other = 0, lost = 0;
};

[[noreturn]] [[gnu::format(printf, 1, 2)]] void usage_error(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("halyard-loadgen: ", stderr);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fputs("\nusage: halyard-loadgen --target ADDR[:PORT] [--bind ADDR] [--mode query|status]\n"
          "         --name NAME<hh> [--name ...] [--scope TEXT] [--window N] [--duration SEC]\n"
          "         [--count N] [--timeout MS]\n",
          stderr);
    exit(EXIT_USAGE);
}

// A decimal number within [lo, hi], or -1.
int64_t parse_number(const char* text, int64_t lo, int64_t hi)
{
    if (text == nullptr || *text < '0' || *text > '9')
        return -1;
    errno = 0;
    char* end = nullptr;
    long long v = strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi)
        return -1;
    return v;
}

// "A.B.C.D" or "A.B.C.D:PORT" into addr; false when it is neither.
bool parse_addr(const char* text, uint16_t default_port, sockaddr_in* addr)
{
    std::string host = text;
    int64_t port = default_port;
    size_t colon = host.find(':');
    if (colon != std::string::npos) {
        port = parse_number(host.c_str() + colon + 1, 1, 65535);
        host.resize(colon);
        if (port < 0)
            return false;
    }
    *addr = sockaddr_in{};
    addr->sin_family = AF_INET;
    addr->sin_port = htons(uint16_t(port));
    return inet_pton(AF_INET, host.c_str(), &addr->sin_addr) == 1;
}

// RFC 1001 14.1: the scope is dotted DNS labels; an empty label would end
// the wire name early.
bool scope_ok(const char* text)
{
    size_t len = strlen(text), label = 0;
    if (len == 0 || len > 255)
        return false;
    for (size_t i = 0; i <= len; i++) {
        if (text[i] == '.' || text[i] == '\0') {
            if (label == 0 || label > 63)
                return false;
            label = 0;
        } else {
            label++;
        }
    }
    return true;
}

Options parse_options(int argc, char** argv)
{
    Options o;
    bool have_target = false;
    for (int i = 1; i < argc; i++) {
        std::string opt = argv[i];
        if (opt == "--help" || opt == "-h")
            usage_error("a load generator of name queries and node status requests");
        if (i + 1 >= argc)
            usage_error("%s needs a value", opt.c_str());
        const char* val = argv[++i];
        if (opt == "--target") {
            if (!parse_addr(val, 137, &o.target))
                usage_error("--target %s: not ADDR[:PORT]", val);
            have_target = true;
        } else if (opt == "--bind") {
            if (!parse_addr(val, 0, &o.bind))
                usage_error("--bind %s: not an address", val);
            o.have_bind = true;
        } else if (opt == "--mode") {
            if (strcmp(val, "query") != 0 && strcmp(val, "status") != 0)
                usage_error("--mode %s: query or status", val);
            o.status = strcmp(val, "status") == 0;
        } else if (opt == "--name") {
            if (o.names.size() >= MAX_NAMES)
                usage_error("at most %d names", MAX_NAMES);
            o.names.emplace_back(val);
        } else if (opt == "--scope") {
            if (!scope_ok(val))
                usage_error("--scope %s: dotted labels of 1 to 63 characters, 255 in all", val);
            o.scope = val;
        } else if (opt == "--window") {
            if ((o.window = int(parse_number(val, 1, MAX_WINDOW))) < 0)
                usage_error("--window %s: 1 to %d", val, MAX_WINDOW);
        } else if (opt == "--duration") {
            if ((o.duration = int(parse_number(val, 1, MAX_DURATION))) < 0)
                usage_error("--duration %s: 1 to %d seconds", val, MAX_DURATION);
        } else if (opt == "--count") {
            if ((o.count = parse_number(val, 1, int64_t(1) << 40)) < 0)
                usage_error("--count %s: a positive number", val);
        } else if (opt == "--timeout") {
            if ((o.timeout = int(parse_number(val, 1, MAX_TIMEOUT))) < 0)
                usage_error("--timeout %s: 1 to %d ms", val, MAX_TIMEOUT);
        } else {
            usage_error("unknown option %s", opt.c_str());
        }
    }
    if (!have_target)
        usage_error("--target is required");
    if (o.names.empty())
        usage_error("at least one --name is required");
    return o;
}

// RFC 1002 4.2.12 / 4.2.17: id (patched per send), opcode 0 query, RD set
// for a name query and clear for a status request, B clear, QDCOUNT 1, the
// first-level encoded name with the scope labels, then QTYPE and QCLASS.
bool build_request(const Options& o, const std::string& text, Request* r)
{
    uint8_t name[NB_NAMELEN];
    if (nsc_strtonb(name, text.c_str()) != 0)
        return false;
    char encoded[NB_ENCLEN + 1 + 1 + 256];
    n_encode(encoded, name);
    if (!o.scope.empty()) {
        strcat(encoded, ".");
        strcat(encoded, o.scope.c_str());
    }
    uint8_t wire[sizeof encoded + 3];
    vd_to_d(wire, encoded);
    // The wire name runs to its terminating zero byte.
    size_t wire_len = strnlen(reinterpret_cast<const char*>(wire), sizeof wire) + 1;

    Writer w(r->bytes.data(), r->bytes.size());
    w.u16be(0);
    w.u8(o.status ? 0x00 : 0x01);
    w.u8(0x00);
    w.u16be(1);
    w.u16be(0);
    w.u16be(0);
    w.u16be(0);
    w.bytes(wire, wire_len);
    w.u16be(o.status ? QTYPE_NBSTAT : QTYPE_NB);
    w.u16be(QCLASS_IN);
    r->size = w.size();
    r->name_len = wire_len;
    return w.ok();
}

// Letters of the first-level encoding compare exactly; scope labels as DNS
// names do, without regard to case.
bool same_name(std::span<const uint8_t> got, const Request& r)
{
    const uint8_t* want = r.bytes.data() + 12;
    for (size_t i = 0; i < r.name_len; i++) {
        uint8_t a = got[i], b = want[i];
        if (i > NB_ENCLEN) {
            a = uint8_t(a >= 'A' && a <= 'Z' ? a + 32 : a);
            b = uint8_t(b >= 'A' && b <= 'Z' ? b + 32 : b);
        }
        if (a != b)
            return false;
    }
    return true;
}

class Generator {
public:
    Generator(const Options& o, std::vector<Request> reqs)
        : o_(o), reqs_(std::move(reqs)), hist_(HIST_BUCKETS)
    {
        fl_.busy.reserve(size_t(o.window));
    }

    int open_socket();
    int run();
    void print() const;

private:
    int send_batch(int64_t now, int n);
    void take_response(int64_t now, std::span<const uint8_t> d);
    void expire(int64_t now);
    double percentile_us(double p) const;

    const Options& o_;
    std::vector<Request> reqs_;
    InFlight<Slot> fl_;
    std::vector<uint32_t> hist_;
    int64_t samples_ = 0;
    Counts c_;
    int fd_ = -1;
    uint16_t next_id_ = 0;
    size_t next_req_ = 0;
    double seconds_ = 0;
    double cpu_ = 0;

    std::array<std::array<uint8_t, REQ_ROOM>, BATCH> sbuf_{};
    RecvBatch<RESP_ROOM, BATCH> rb_;
};

int Generator::open_socket()
{
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        fprintf(stderr, "halyard-loadgen: socket: %s\n", strerror(errno));
        return -1;
    }
    int size = 4 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    if (o_.have_bind && bind(fd_, reinterpret_cast<const sockaddr*>(&o_.bind), sizeof o_.bind) != 0) {
        fprintf(stderr, "halyard-loadgen: bind: %s\n", strerror(errno));
        return -1;
    }
    return 0;
}

// Sends up to n requests, each with a free transaction id; the count sent.
int Generator::send_batch(int64_t now, int n)
{
    std::array<mmsghdr, BATCH> msgs{};
    std::array<iovec, BATCH> iov{};
    std::array<uint16_t, BATCH> ids{};
    for (int i = 0; i < n; i++) {
        // At most window ids are busy, so a free one is near.
        while (fl_.slots[next_id_].busy)
            next_id_++;
        const Request& r = reqs_[next_req_];
        memcpy(sbuf_[i].data(), r.bytes.data(), r.size);
        sbuf_[i][0] = uint8_t(next_id_ >> 8);
        sbuf_[i][1] = uint8_t(next_id_);
        iov[i] = {sbuf_[i].data(), r.size};
        msgs[i].msg_hdr.msg_name = const_cast<sockaddr_in*>(&o_.target);
        msgs[i].msg_hdr.msg_namelen = sizeof o_.target;
        msgs[i].msg_hdr.msg_iov = &iov[i];
        msgs[i].msg_hdr.msg_iovlen = 1;
        Slot& s = fl_.slots[next_id_];
        s = Slot{true, uint16_t(next_req_), 0, now};
        ids[i] = next_id_;
        next_id_++;
        next_req_ = (next_req_ + 1) % reqs_.size();
    }
    int sent = sendmmsg(fd_, msgs.data(), unsigned(n), 0);
    if (sent < 0)
        sent = 0;   // a full socket buffer: those go again later
    fl_.settle(std::span<const uint16_t>(ids.data(), size_t(n)), sent);
    c_.requests += sent;
    return sent;
}

// RFC 1002 4.2.13 / 4.2.14 / 4.2.18: a response carries the request's id
// and, in its answer record, the name asked for. Anything else, and a
// response whose request is no longer outstanding, counts as other.
void Generator::take_response(int64_t now, std::span<const uint8_t> d)
{
    Reader r(d);
    uint16_t id = r.u16be();
    uint8_t b2 = r.u8();
    uint8_t b3 = r.u8();
    r.skip(2);   // QDCOUNT
    uint16_t ancount = r.u16be();
    r.skip(4);   // NSCOUNT, ARCOUNT
    if (!r.ok() || !(b2 & 0x80) || !fl_.slots[id].busy) {
        c_.other++;
        return;
    }
    const Request& req = reqs_[fl_.slots[id].req];
    auto name = r.bytes(req.name_len);
    if (!r.ok() || !same_name(name, req)) {
        c_.other++;
        return;
    }
    int64_t lat = now - fl_.slots[id].sent;
    fl_.free(id);
    c_.answered++;
    if ((b3 & 0x0F) == 0 && ancount >= 1)
        c_.positive++;
    else
        c_.other++;
    size_t b = lat < FINE_LIMIT_NS ? size_t(lat / FINE_NS)
               : lat < COARSE_LIMIT_NS ? FINE_BUCKETS + size_t((lat - FINE_LIMIT_NS) / COARSE_NS)
                                       : HIST_BUCKETS - 1;
    hist_[b]++;
    samples_++;
}

// A request without an answer within the time-out is lost; its id is free.
void Generator::expire(int64_t now)
{
    int64_t limit = now - int64_t(o_.timeout) * 1000000;
    for (size_t i = 0; i < fl_.busy.size();) {
        uint16_t id = fl_.busy[i];
        if (fl_.slots[id].sent <= limit) {
            fl_.free(id);   // moves the last id into place i
            c_.lost++;
        } else {
            i++;
        }
    }
}

int Generator::run()
{
    const int64_t start = now_ns();
    const int64_t timeout_ns = int64_t(o_.timeout) * 1000000;
    const int64_t stop_at = start + int64_t(o_.duration) * NS_PER_S;
    // Whatever the peer does, the run ends here.
    const int64_t hard_cap = stop_at + timeout_ns + 5 * NS_PER_S;
    int64_t stopped = 0, last_answer = start, next_scan = start;
    for (;;) {
        int64_t now = now_ns();
        if (stopped == 0 && (now >= stop_at || (o_.count > 0 && c_.requests >= o_.count)))
            stopped = now;
        if ((stopped != 0 && fl_.busy.empty()) || now >= hard_cap)
            break;
        if (now >= next_scan) {
            expire(now);
            next_scan = now + std::min<int64_t>(timeout_ns / 4, 1000000);
        }
        if (stopped == 0) {
            int64_t room = int64_t(o_.window) - int64_t(fl_.busy.size());
            if (o_.count > 0)
                room = std::min(room, o_.count - c_.requests);
            if (room > 0)
                send_batch(now, int(std::min<int64_t>(room, BATCH)));
        }
        int got = rb_.recv(fd_);
        if (got > 0) {
            now = now_ns();
            for (int i = 0; i < got; i++)
                take_response(now, rb_.at(size_t(i)));
            last_answer = now;
            continue;
        }
        if (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR &&
            errno != ECONNREFUSED) {
            fprintf(stderr, "halyard-loadgen: recvmmsg: %s\n", strerror(errno));
            return -1;
        }
        // Nothing waiting: sleep until an answer comes or the next scan for
        // lost requests, unless there is room to send more.
        bool can_send = stopped == 0 && int(fl_.busy.size()) < o_.window &&
                        (o_.count == 0 || c_.requests < o_.count);
        if (can_send)
            continue;
        wait_readable(fd_, next_scan - now);
    }
    expire(INT64_MAX);   // past the hard cap: whatever is left is lost
    int64_t end = std::max(stopped != 0 ? stopped : now_ns(), last_answer);
    seconds_ = double(end - start) / double(NS_PER_S);
    cpu_ = cpu_seconds();
    return 0;
}

// The latency below which a share p of the answers came, in microseconds
// (a bucket's middle); 0 when there were none.
double Generator::percentile_us(double p) const
{
    if (samples_ == 0)
        return 0;
    int64_t rank = std::max<int64_t>(1, int64_t(double(samples_) * p + 0.999999));
    int64_t seen = 0;
    for (size_t b = 0; b < hist_.size(); b++) {
        seen += hist_[b];
        if (seen >= rank) {
            double ns = b < FINE_BUCKETS ? double(b) * FINE_NS + FINE_NS / 2.0
                        : double(FINE_LIMIT_NS) + double(b - FINE_BUCKETS) * COARSE_NS + COARSE_NS / 2.0;
            return ns / 1000.0;
        }
    }
    return double(COARSE_LIMIT_NS) / 1000.0;
}

void Generator::print() const
{
    double rate = seconds_ > 0 ? double(c_.answered) / seconds_ : 0;
    printf("mode=%s requests=%lld answered=%lld positive=%lld other=%lld lost=%lld seconds=%.3f "
           "rate=%.0f p50_us=%.1f p99_us=%.1f cpu_s=%.3f\n",
           o_.status ? "status" : "query", static_cast<long long>(c_.requests),
           static_cast<long long>(c_.answered), static_cast<long long>(c_.positive),
           static_cast<long long>(c_.other), static_cast<long long>(c_.lost), seconds_, rate,
           percentile_us(0.50), percentile_us(0.99), cpu_);
}

}  // namespace

int main(int argc, char** argv)
{
    Options o = parse_options(argc, argv);
    std::vector<Request> reqs(o.names.size());
    for (size_t i = 0; i < o.names.size(); i++) {
        if (!build_request(o, o.names[i], &reqs[i]))
            usage_error("--name %s: not a name NAME<hh> (or the scope is too long)",
                        o.names[i].c_str());
    }
    Generator g(o, std::move(reqs));
    if (g.open_socket() != 0 || g.run() != 0)
        return 1;
    g.print();
    return 0;
}
