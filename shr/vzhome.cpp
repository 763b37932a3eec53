#include "shr/vzhome.h"

#include <cstring>

char* vzhome_get(char* buf, size_t size)
{
    if (buf == nullptr || size == 0)
        return buf;
    strncpy(buf, VZ_HOME_DIR, size);
    buf[size - 1] = '\0';
    return buf;
}
