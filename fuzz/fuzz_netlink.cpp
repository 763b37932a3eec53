// Route-message datagrams, as the socket gives them, through nl_changes.
#include "fuzz/fuzzenv.h"
#include "src/ifwatch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 1500)
        return -1;
    int r = nl_changes({data, size});
    if (r != 0 && r != 1)
        __builtin_trap();
    return 0;
}
