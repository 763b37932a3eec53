// Message files (the input), read directly and as the site's message file
// for messages whose default texts take strings, ints and a long.

#include "fuzz/fuzzenv.h"
#include "shr/logcatmsg.h"
#include "shr/logging.h"

constexpr const char* MSG_PATH = "/opt/KORRlibs/lib/kbsrvmsg";

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fz_private_net();
    fz_quiet();   // private /opt and the log in private /var/opt
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 16384)
        return -1;
    FILE* mem = fmemopen(nullptr, size + 1, "w+");
    if (mem == nullptr)
        __builtin_trap();
    if (size > 0)
        fwrite(data, 1, size, mem);
    fflush(mem);
    for (int number : {-1, 0, 1, 7, 100, 185, 999})
        msg_get(mem, LOG_SET, number, "default");
    msg_get(mem, 0, 1, "default");
    fclose(mem);

    std::vector<char> text(size + 1);   // zero-filled: the last byte ends it
    memcpy(text.data(), data, size);
    fixup_string(text.data());

    // Rewritten in place: the lookup keeps it open, rewinds it each time.
    fz_write_file(MSG_PATH, data, size);
    for (int number = 0; number < 8; number++) {
        log_catmsg(LOG_SET, number, "%s: error in config file at line %d", "Halyard", 42);
        print_catmsg(fz_trace_sink(), LOG_SET, number, "%s: cannot open %s (%ld, %u, %c)", "Halyard", "x.vz", 123456789L,
                     7u, 'q');
        print_catmsg(fz_trace_sink(), LOG_SET, number, "    expecting positive port number");
    }
    fz_trace_off();
    return 0;
}
