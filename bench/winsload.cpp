// halyard-winsload: a load generator for a NetBIOS name server reached by
// unicast (RFC 1002, what Windows calls WINS), with a window of requests
// outstanding. It prints one line of key=value figures.
//
//   --mode query     name queries (4.2.12, RD set) of PREFIX0<20> ..
//                    PREFIX(N-1)<20> in turn, N from --names
//   --mode register  name registrations (4.2.2, RD set) of new unique names
//                    PREFIX0<20>, PREFIX1<20>, ..., each for this
//                    generator's own source address: a name server accepts
//                    a registration only for the address it comes from
//
// Only positive answers (RCODE 0 and an answer record for the name asked)
// make the rate; a WACK (4.2.16) is no answer: its request stays
// outstanding, with the time-out counted again from the WACK.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/benchkit.h"
#include "misc/nencode.h"
#include "shr/reader.h"

namespace {

constexpr int MAX_WINDOW = 4096;
constexpr int BATCH = 64;              // datagrams per sendmmsg / recvmmsg
constexpr size_t REQ_ROOM = 128;       // header, name, question, one record
constexpr size_t RESP_ROOM = 1500;
constexpr size_t WIRE_NAME = 34;       // length 32, the letters, the root label
constexpr uint8_t OP_QUERY = 0, OP_REGISTER = 5, OP_WACK = 7;
constexpr uint16_t NB = 0x0020, IN = 0x0001;
constexpr uint16_t P_NODE = 0x2000;    // NB_FLAGS: unique, ONT P
constexpr uint32_t ASKED_TTL = 3600;   // seconds; the server grants its own

struct Options {
    sockaddr_in target{};
    bool reg = false;
    std::string prefix = "WINS";
    int64_t names = 1000;
    int window = 32;
    int duration = 5;
    int64_t count = 0;                 // 0: until the duration is over
    int timeout = 1000;                // ms
};

struct Slot {
    bool busy;
    uint16_t pos;                      // index in the outstanding list
    int64_t k;                         // which name
    int64_t sent;                      // ns, CLOCK_MONOTONIC
    int64_t deadline;
};

[[noreturn]] void usage(const char* why)
{
    fprintf(stderr,
            "halyard-winsload: %s\n"
            "usage: halyard-winsload --target ADDR[:PORT] --mode query|register [--prefix P]\n"
            "         [--names N] [--window N] [--duration SEC] [--count N] [--timeout MS]\n",
            why);
    exit(2);
}

Options parse(int argc, char** argv)
{
    Options o;
    bool mode = false;
    bool target = load_options(o, argc, argv, 137, MAX_WINDOW, usage, [&](const std::string& opt, const char* v) {
        if (opt == "--mode") {
            if (strcmp(v, "query") != 0 && strcmp(v, "register") != 0)
                usage("--mode query or register");
            o.reg = strcmp(v, "register") == 0;
            mode = true;
        } else {
            return false;
        }
        return true;
    });
    if (!target || !mode)
        usage("--target and --mode are required");
    return o;
}

// Name number k on the wire: PREFIXk padded with blanks to 15 bytes, the
// suffix 0x20, first-level encoded, no scope.
void wire_name(const Options& o, int64_t k, uint8_t* out)
{
    char text[NB_NAMELEN + 1];
    snprintf(text, sizeof text, "%s%-15lld", o.prefix.c_str(), static_cast<long long>(k));
    uint8_t name[NB_NAMELEN];
    memcpy(name, text, NB_NAMELEN - 1);
    name[NB_NAMELEN - 1] = 0x20;
    out[0] = NB_ENCLEN;
    n_encode(reinterpret_cast<char*>(out + 1), name);   // 32 letters and the zero byte
}

class Generator {
public:
    explicit Generator(const Options& o) : o_(o) { fl_.busy.reserve(size_t(o.window)); }
    int open_socket();
    int run();
    void print() const;

private:
    size_t build(int64_t k, uint16_t id, uint8_t* out) const;
    void send_batch(int64_t now, int n);
    void take_response(int64_t now, std::span<const uint8_t> d);
    void expire(int64_t now);

    const Options& o_;
    InFlight<Slot> fl_;
    std::vector<int64_t> latency_;       // ns, of the positive answers
    uint32_t own_ = 0;                   // our source address, host order
    int fd_ = -1;
    uint16_t next_id_ = 0;
    int64_t next_k_ = 0;
    int64_t requests_ = 0, answered_ = 0, positive_ = 0, wacks_ = 0, other_ = 0, lost_ = 0;
    double seconds_ = 0, cpu_ = 0;
    std::array<std::array<uint8_t, REQ_ROOM>, BATCH> sbuf_{};
    RecvBatch<RESP_ROOM, BATCH> rb_;
};

int Generator::open_socket()
{
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0 || connect(fd_, reinterpret_cast<const sockaddr*>(&o_.target), sizeof o_.target) != 0) {
        perror("halyard-winsload: socket");
        return -1;
    }
    int size = 4 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    // The address the kernel chose for the target's route is the one a
    // registration must name.
    sockaddr_in me{};
    socklen_t len = sizeof me;
    if (getsockname(fd_, reinterpret_cast<sockaddr*>(&me), &len) != 0) {
        perror("halyard-winsload: getsockname");
        return -1;
    }
    own_ = ntohl(me.sin_addr.s_addr);
    return 0;
}

// RFC 1002 4.2.12: a name query, opcode 0, RD set, B clear. 4.2.2: a name
// registration, opcode 5, RD set, B clear, the question and one additional
// record (a pointer to the question's name) with NB_FLAGS and our address.
size_t Generator::build(int64_t k, uint16_t id, uint8_t* out) const
{
    Writer w(out, REQ_ROOM);
    w.u16be(id);
    w.u8(uint8_t((o_.reg ? OP_REGISTER : OP_QUERY) << 3 | 0x01));
    w.u8(0x00);
    w.u16be(1);
    w.u16be(0);
    w.u16be(0);
    w.u16be(o_.reg ? 1 : 0);
    uint8_t name[WIRE_NAME];
    wire_name(o_, o_.reg ? k : k % o_.names, name);
    w.bytes(name, sizeof name);
    w.u16be(NB);
    w.u16be(IN);
    if (o_.reg) {
        w.u16be(0xC00C);
        w.u16be(NB);
        w.u16be(IN);
        w.u32be(ASKED_TTL);
        w.u16be(6);
        w.u16be(P_NODE);
        w.u32be(own_);
    }
    return w.ok() ? w.size() : 0;
}

void Generator::send_batch(int64_t now, int n)
{
    std::array<mmsghdr, BATCH> msgs{};
    std::array<iovec, BATCH> iov{};
    std::array<uint16_t, BATCH> ids{};
    for (int i = 0; i < n; i++) {
        // At most window ids are busy, so a free one is near.
        while (fl_.slots[next_id_].busy)
            next_id_++;
        iov[i] = {sbuf_[size_t(i)].data(), build(next_k_, next_id_, sbuf_[size_t(i)].data())};
        msgs[size_t(i)].msg_hdr.msg_iov = &iov[size_t(i)];
        msgs[size_t(i)].msg_hdr.msg_iovlen = 1;
        fl_.slots[next_id_] = Slot{true, 0, next_k_, now, now + int64_t(o_.timeout) * 1000000};
        ids[size_t(i)] = next_id_++;
        next_k_++;
    }
    int sent = sendmmsg(fd_, msgs.data(), unsigned(n), 0);
    if (sent < 0)
        sent = 0;   // a full socket buffer: those names go again later
    fl_.settle(std::span<const uint16_t>(ids.data(), size_t(n)), sent);
    next_k_ -= n - sent;
    requests_ += sent;
}

// 4.2.13 to 4.2.16: every response carries the request's id and, at offset
// 12, the name asked for. A response of another opcode, for another name or
// for a request no longer outstanding counts as other.
void Generator::take_response(int64_t now, std::span<const uint8_t> d)
{
    Reader r(d);
    uint16_t id = r.u16be();
    uint8_t b2 = r.u8();
    uint8_t b3 = r.u8();
    r.skip(2);   // QDCOUNT
    uint16_t ancount = r.u16be();
    r.skip(4);   // NSCOUNT, ARCOUNT
    auto name = r.bytes(WIRE_NAME);
    uint8_t op = uint8_t(b2 >> 3 & 0x0F);
    Slot& s = fl_.slots[id];
    uint8_t want[WIRE_NAME];
    if (r.ok() && s.busy)
        wire_name(o_, o_.reg ? s.k : s.k % o_.names, want);
    if (!r.ok() || !(b2 & 0x80) || !s.busy || memcmp(name.data(), want, WIRE_NAME) != 0 ||
        (op != OP_WACK && op != (o_.reg ? OP_REGISTER : OP_QUERY))) {
        other_++;
        return;
    }
    if (op == OP_WACK) {
        wacks_++;
        s.deadline = now + int64_t(o_.timeout) * 1000000;
        return;
    }
    answered_++;
    if ((b3 & 0x0F) == 0 && ancount >= 1) {
        positive_++;
        latency_.push_back(now - s.sent);
    }
    fl_.free(id);
}

// A request without its answer by its deadline is lost; its id is free.
void Generator::expire(int64_t now)
{
    for (size_t i = 0; i < fl_.busy.size();) {
        uint16_t id = fl_.busy[i];
        if (fl_.slots[id].deadline <= now) {
            fl_.free(id);   // moves the last id into place i
            lost_++;
        } else {
            i++;
        }
    }
}

int Generator::run()
{
    const int64_t start = now_ns();
    const int64_t stop_at = start + int64_t(o_.duration) * NS_PER_S;
    // Whatever the server does (a WACK after every WACK), the run ends here.
    const int64_t hard_cap = stop_at + int64_t(o_.timeout) * 1000000 + 30 * NS_PER_S;
    int64_t stopped = 0, last_answer = start, next_scan = start;
    for (;;) {
        int64_t now = now_ns();
        if (stopped == 0 && (now >= stop_at || (o_.count > 0 && requests_ >= o_.count)))
            stopped = now;
        if ((stopped != 0 && fl_.busy.empty()) || now >= hard_cap)
            break;
        if (now >= next_scan) {
            expire(now);
            next_scan = now + std::min<int64_t>(int64_t(o_.timeout) * 250000, 1000000);
        }
        int64_t room = stopped != 0 ? 0 : int64_t(o_.window) - int64_t(fl_.busy.size());
        if (o_.count > 0)
            room = std::min(room, o_.count - requests_);
        if (room > 0)
            send_batch(now, int(std::min<int64_t>(room, BATCH)));
        int got = rb_.recv(fd_);
        if (got > 0) {
            now = now_ns();
            for (size_t i = 0; i < size_t(got); i++)
                take_response(now, rb_.at(size_t(i)));
            last_answer = now;
            continue;
        }
        if (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNREFUSED) {
            perror("halyard-winsload: recvmmsg");
            return -1;
        }
        if (room > 0)
            continue;
        // Nothing waiting and no room to send: sleep until an answer comes
        // or the next scan for lost requests.
        wait_readable(fd_, next_scan - now);
    }
    expire(INT64_MAX);   // past the hard cap: whatever is left is lost
    int64_t end = std::max(stopped != 0 ? stopped : now_ns(), last_answer);
    seconds_ = double(end - start) / double(NS_PER_S);
    cpu_ = cpu_seconds();
    return 0;
}

void Generator::print() const
{
    std::vector<int64_t> lat = latency_;
    std::sort(lat.begin(), lat.end());
    auto pct = [&](double p) {
        return lat.empty() ? 0.0 : double(lat[size_t(p * double(lat.size() - 1))]) / 1000.0;
    };
    printf("mode=%s requests=%lld answered=%lld positive=%lld wacks=%lld other=%lld lost=%lld seconds=%.3f "
           "rate=%.1f p50_us=%.1f p99_us=%.1f cpu_s=%.3f\n",
           o_.reg ? "register" : "query", static_cast<long long>(requests_), static_cast<long long>(answered_),
           static_cast<long long>(positive_), static_cast<long long>(wacks_), static_cast<long long>(other_),
           static_cast<long long>(lost_), seconds_, seconds_ > 0 ? double(positive_) / seconds_ : 0.0, pct(0.5),
           pct(0.99), cpu_);
}

}  // namespace

int main(int argc, char** argv)
{
    Options o = parse(argc, argv);
    Generator g(o);
    if (g.open_socket() != 0 || g.run() != 0)
        return 1;
    g.print();
    return 0;
}
