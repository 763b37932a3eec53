#include "shr/vzmkkvcv.h"

#include <cstdlib>
#include <cstring>

#include "shr/vzstrdup.h"

namespace {

constexpr uint32_t kGrowth = 16;

bool copy_into(char** slot, const char* s)
{
    if (s == nullptr) {
        *slot = nullptr;
        return true;
    }
    *slot = vz_strdup(s);
    return *slot != nullptr;
}

}  // namespace

int vz_kvcv_init(vz_kvc** vec, vz_kvcstate* state)
{
    *vec = static_cast<vz_kvc*>(calloc(kGrowth, sizeof(vz_kvc)));
    if (*vec == nullptr) {
        *state = 0;
        return 1;
    }
    *state = kGrowth - 1;  // one triple is kept for the terminator
    return 0;
}

int vz_kvcv_add(vz_kvc** vec, vz_kvcstate* state, const char* key, const char* value, const char* comment)
{
    uint32_t used = *state >> 4;
    uint32_t spare = *state & 0xf;
    if (spare == 0) {
        // Room for the used triples, the terminator and 16 more.
        size_t count = size_t(used) + 1 + kGrowth;
        auto* grown = static_cast<vz_kvc*>(realloc(*vec, count * sizeof(vz_kvc)));
        if (grown == nullptr) {
            vz_kvcv_free(*vec);
            *vec = nullptr;
            *state = 0;
            return 1;
        }
        memset(grown + used + 1, 0, kGrowth * sizeof(vz_kvc));
        *vec = grown;
        spare = kGrowth;
    }
    vz_kvc* t = *vec + used;
    if (!copy_into(&t->key, key) || !copy_into(&t->value, value) || !copy_into(&t->comment, comment)) {
        // The failed triple's key may be NULL now, so free it by hand first.
        free(t->key);
        free(t->value);
        free(t->comment);
        t->key = t->value = t->comment = nullptr;
        vz_kvcv_free(*vec);
        *vec = nullptr;
        *state = 0;
        return 1;
    }
    *state = (used + 1) << 4 | (spare - 1);
    return 0;
}

void vz_kvcv_free(vz_kvc* vec)
{
    if (vec == nullptr)
        return;
    for (vz_kvc* t = vec; t->key != nullptr; t++) {
        free(t->key);
        free(t->value);
        free(t->comment);
    }
    free(vec);
}
