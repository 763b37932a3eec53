#include "config/dballoc.h"

#include <cstdio>
#include <cstdlib>

namespace {

constexpr size_t kSlack = 16;

constexpr const char* kTexts[] = {
    nullptr,
    "out of memory",
    "no Vorzan home directory",
    "invalid object name",
    "no such object",
    "no privilege for operation",
    "error opening/creating property list",
    "error writing property list",
    "error creating file",
    "cannot acquire lock",
    "exceeded semaphore limit",
};

char unknown_text[40];

}  // namespace

int vzdb_str_alloc(char** buf, size_t* size, size_t needed)
{
    if (*buf != nullptr && *size >= needed)
        return 0;
    free(*buf);
    *buf = static_cast<char*>(malloc(needed + kSlack));
    if (*buf == nullptr) {
        *size = 0;
        return 1;
    }
    *size = needed + kSlack;
    return 0;
}

void vzdb_strfree(char* s)
{
    free(s);
}

void vzdb_kvcfree(vz_kvc* vec)
{
    vz_kvcv_free(vec);
}

const char* vzdb_errstr(int code)
{
    if (code >= VZDB_NOMEM && code <= VZDB_SEMLIMIT)
        return kTexts[code];
    snprintf(unknown_text, sizeof unknown_text, "unknown error %d", code);
    return unknown_text;
}
