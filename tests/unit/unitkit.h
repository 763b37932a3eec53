#pragma once

// What the module tests share: the timers' hand-moved clock, the datagrams
// sent, the trace read back, and the operator log of one call.

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include <arpa/inet.h>

#include "nmtrace.h"
#include "shr/dgsend.h"
#include "shr/uniinet.h"
#include "shr/logging.h"
#include "tests/support/lab.h"
#include "tests/support/nswire.h"

inline time_t fake_now = 1000;
inline time_t fake_time() { return fake_now; }
inline unsigned fake_alarm(unsigned) { return 0; }

// Registered as the program's sender, it keeps every datagram in place of a
// socket; sent_to takes those of one way and destination, in order.
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

// The trace written since the last call (tcfile a temporary file); it starts over.
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
