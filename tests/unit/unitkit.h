#pragma once

// What the module tests share.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <tuple>

#include "nmtrace.h"
#include "shr/dgsend.h"
#include "shr/logging.h"
#include "shr/uniinet.h"
#include "src/enstable.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/nsmsg.h"
#include "src/ntable.h"
#include "tests/support/kvc.h"
#include "tests/support/lab.h"
#include "tests/support/ndasim.h"
#include "tests/support/nsfixture.h"
#include "tests/support/nswire.h"

inline time_t fake_now = 1000;
inline time_t fake_time() { return fake_now; }
inline unsigned fake_alarm(unsigned) { return 0; }

// The program's sender; sent_to takes the datagrams of one way and address.
struct SentDg {
    DgWay way;
    uint32_t addr;
    int32_t port;
    Bytes bytes;
};
inline std::vector<SentDg> sent_dgs;
inline int record_dg(DgWay way, int, const uint8_t* data, int len, const UniAddr* to)
{
    SentDg d{way, 0, 0, Bytes(data, data + len)};
    uatoian(&d.addr, &d.port, to);
    sent_dgs.push_back(d);
    return len;
}
inline std::vector<Bytes> sent_to(DgWay way, const char* addr, int port)
{
    std::vector<Bytes> out;
    std::erase_if(sent_dgs, [&](const SentDg& d) {
        bool hit = d.way == way && d.addr == inet_addr(addr) && d.port == port;
        if (hit)
            out.push_back(d.bytes);
        return hit;
    });
    return out;
}

// RFC 1002 4.2.2: a request for NAME with its record; TTL 0.
inline Bytes ns_request(uint16_t id, uint8_t b2, const char* name, uint8_t nbflags_hi, const char* addr,
                        const Bytes& labels = {0})
{
    Bytes rest{0, 0x20, 0, 1, 0xC0, 0x0C, 0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, nbflags_hi, 0};
    Bytes a = ip_bytes(addr);
    rest.insert(rest.end(), a.begin(), a.end());
    return ns_packet(id, b2, 0x10, {1, 0, 0, 1}, ns_name(name), labels, rest);
}
// What we answer with: the id as it came, the answer record only, TTL 0.
inline Bytes ns_answer(uint8_t b2, uint8_t b3, const char* name, uint8_t nbflags_hi, const char* addr,
                       const Bytes& labels = {0})
{
    Bytes rest{0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, nbflags_hi, 0};
    Bytes a = ip_bytes(addr);
    rest.insert(rest.end(), a.begin(), a.end());
    return ns_packet(0x1234, b2, b3, {0, 1, 0, 0}, ns_name(name), labels, rest);
}

// f on each cut of full to 0 .. last bytes, each in a buffer of its size.
inline void each_cut(const Bytes& full, size_t last, const std::function<void(const uint8_t*, int)>& f)
{
    for (size_t len = 0; len <= last; len++) {
        SCOPED_TRACE("cut to " + std::to_string(len));
        Bytes cut(full.begin(), full.begin() + long(len));
        cut.shrink_to_fit();
        f(cut.data(), int(len));
    }
}

// A client message: the header, then data.
inline Bytes ns_message(uint32_t op, uint32_t xid, int32_t len, const Bytes& data = {})
{
    ns_hdr h{{}, len, xid, op, 0};
    memcpy(h.magic, NS_MAGIC, sizeof h.magic);
    Bytes b(reinterpret_cast<uint8_t*>(&h), reinterpret_cast<uint8_t*>(&h + 1));
    b.insert(b.end(), data.begin(), data.end());
    return b;
}

// The trace written since the last call (tcfile a temporary file).
inline std::string trace_taken()
{
    fflush(tcfile);
    std::string t(1 << 16, '\0');
    rewind(tcfile);
    t.resize(fread(t.data(), 1, t.size(), tcfile));
    rewind(tcfile);
    if (ftruncate(fileno(tcfile), 0) != 0)
        t += "(trace not truncated)";
    return t;
}

// The messages the operator log got while f ran.
inline std::vector<std::string> logged(const std::function<void()>& f)
{
    std::string path = "/tmp/halyard-unit-log-" + std::to_string(getpid());
    std::vector<std::string> out;
    if (open_log(path.c_str()) != 0)
        return {"(no log)"};
    f();
    close_log();
    for (const LabLogGroup& g : lab_parse_log(lab_read_file(path)))
        out.insert(out.end(), g.messages.begin(), g.messages.end());
    unlink(path.c_str());
    return out;
}
