#include "shr/vzstrdup.h"

#include <cstdlib>
#include <cstring>

char* vz_strdup(const char* s)
{
    if (s == nullptr)
        return nullptr;
    size_t n = strlen(s) + 1;
    char* p = static_cast<char*>(malloc(n));
    if (p != nullptr)
        memcpy(p, s, n);
    return p;
}
