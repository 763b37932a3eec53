// Counters as halyardctl stats and halyard-nda -s read them (the input: the
// bytes after the answer's status word), decoded, printed in every format.

#include "fuzz/fuzzenv.h"
#include "shr/counters.h"

namespace {
CtSet set;
const CounterDef known[] = {{"lookups_local", "lookups answered from the local name table"}};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 4096)
        return -1;
    const char* why = nullptr;
    if (ct_decode(data, size, &set, &why) != 0) {
        if (why == nullptr || set.count > CT_MAX)
            __builtin_trap();
        return 0;
    }
    for (int i = 0; i < set.count; i++)
        if (set.v[i].name[0] == '\0' || strspn(set.v[i].name, "abcdefghijklmnopqrstuvwxyz0123456789_") !=
                                            strlen(set.v[i].name))
            __builtin_trap();  // a name that would break the JSON or Prometheus text
    for (CtFormat f : {CtFormat::text, CtFormat::json, CtFormat::prometheus})
        ct_print(fz_trace_sink(), set, f, "halyard_", known, 1);
    return 0;
}
