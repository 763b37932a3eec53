#include "src/service.h"

#include "src/maininit.h"
#include "src/ntable.h"

nt_entry* name_present(const uint8_t* name)
{
    return strict ? nt_search(name) : nt_icsearch(name);
}
