// Property-list files (the input): listed, rewritten by a delete, listed
// again, read by name, counted in.
#include "config/dballoc.h"
#include "config/dbob.h"
#include "config/dbprop.h"
#include "fuzz/fuzzenv.h"
#include "shr/vzmkkvcv.h"

constexpr const char* PLIST_PATH = "/var/opt/KORRbase/rtdb/realm=NB/program=Halyard/=plist";
static vz_kvc* object = nullptr;

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fz_private_net();
    fz_private_dirs();
    vz_kvcstate st;
    if (vz_kvcv_init(&object, &st) != 0 || vz_kvcv_add(&object, &st, "system", "*", nullptr) != 0 ||
        vz_kvcv_add(&object, &st, "realm", "NB", nullptr) != 0 ||
        vz_kvcv_add(&object, &st, "program", "Halyard", nullptr) != 0 || vzdb_ob_create(object) != 0)
        __builtin_trap();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 16384)
        return -1;
    fz_write_file(PLIST_PATH, data, size);
    vz_kvc* l = nullptr;
    if (vzdb_prop_list(object, &l) == 0)
        vzdb_kvcfree(l);
    vzdb_prop_delete(object, "none");
    l = nullptr;
    if (vzdb_prop_list(object, &l) == 0)
        vzdb_kvcfree(l);
    char* value = nullptr;
    if (vzdb_prop_get(object, "pid", &value) == 0 && value != nullptr)
        vzdb_strfree(value);
    vzdb_prop_semadd(object, "pidlock", 1, 1000000);
    return 0;
}
