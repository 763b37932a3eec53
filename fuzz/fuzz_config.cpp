// Configuration files through namelogin: the input is written as the file,
// read with every setting cleared before and after, the log and the trace
// written as they would be; then read again by the configuration check,
// whose remarks quote the lines.
#include <cstdio>

#include "fuzz/fuzzenv.h"
#include "nmtrace.h"
#include "src/confcheck.h"
#include "src/namelogin.h"

namespace {

constexpr const char* CONF_PATH = "/etc/opt/KORRbase/config.vz";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fz_private_net();
    fz_quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 16384)
        return -1;
    fz_write_file(CONF_PATH, data, size);
    tcfile = fz_trace_sink();
    tc_proc = tc_err = 9;
    name_settings_clear();
    namelogin(CONF_PATH);
    name_settings_clear();
    static FILE* check_sink = fopen("/dev/null", "w");
    conf_check(CONF_PATH, check_sink, "", true);
    tcfile = nullptr;
    tc_proc = tc_err = 0;
    fz_truncate_log();
    return 0;
}
