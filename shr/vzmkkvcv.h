#pragma once

#include <cstdint>

// One key/value/comment triple; a vector of them ends at the first NULL key.
// Every string is the vector's own heap copy.
struct vz_kvc {
    char* key;
    char* value;    // may be NULL
    char* comment;  // may be NULL
};

// The companion state: used triples above the low four bits, spare triples
// (allocated, zeroed, past the terminator) in the low four bits.
using vz_kvcstate = uint32_t;

int vz_kvcv_init(vz_kvc** vec, vz_kvcstate* state);  // 0, or 1 when out of memory
// Appends copies; 0, or 1 on failure, when the whole vector is freed and
// both *vec and *state become 0.
int vz_kvcv_add(vz_kvc** vec, vz_kvcstate* state, const char* key, const char* value, const char* comment);
void vz_kvcv_free(vz_kvc* vec);  // NULL accepted
