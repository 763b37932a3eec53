// Configuration files (the input) through namelogin, the log and the trace
// written, then through the configuration check.
#include "fuzz/fuzzenv.h"
#include "src/confcheck.h"

constexpr const char* CONF_PATH = "/etc/opt/KORRbase/config.vz";

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
    fz_trace_all();
    name_settings_clear();
    namelogin(CONF_PATH);
    name_settings_clear();
    conf_check(CONF_PATH, fz_trace_sink(), "", true);
    fz_trace_off();
    return 0;
}
