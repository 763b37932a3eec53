#pragma once

// What the module tests share: the timers' hand-moved clock, the trace read
// back, and the operator log of one call.

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "nmtrace.h"
#include "shr/logging.h"
#include "tests/support/lab.h"

inline time_t fake_now = 1000;
inline time_t fake_time() { return fake_now; }
inline unsigned fake_alarm(unsigned) { return 0; }

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
