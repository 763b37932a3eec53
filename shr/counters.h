#pragma once

// Counters of a program's work since its start, the one format in which a
// program hands them to its reader (halyardctl stats from the daemon,
// halyard-nda -s from the agent), and their printed forms.
//
// The counters go as names with values, so a reader shows what a newer
// program counts without knowing it:
//   version (u32, CT_VERSION), then per counter:
//   name length (u8, 1 to CT_NAMEMAX) | name ([a-z0-9_]) | value (u64)
// every integer in the host's byte order (both ends run on one host).

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

struct CounterDef {
    const char* name;  // lower case, digits and '_': also the Prometheus name
    const char* help;  // one line for people
};

constexpr uint32_t CT_VERSION = 1;
constexpr size_t CT_NAMEMAX = 47;
constexpr int CT_MAX = 128;  // counters one reader keeps

// The bytes ct_encode writes for these counters: checked against the room
// of one message where the table is defined.
constexpr size_t ct_size(const CounterDef* defs, size_t n)
{
    size_t size = 4;
    for (size_t i = 0; i < n; i++)
        size += 1 + std::string_view(defs[i].name).size() + 8;
    return size;
}

// Writes the counters into out: the bytes written, or -1 when they do not fit.
int ct_encode(uint8_t* out, size_t room, const CounterDef* defs, const uint64_t* values, int n);

struct CtValue {
    char name[CT_NAMEMAX + 1];
    uint64_t value;
};
struct CtSet {
    int count;
    CtValue v[CT_MAX];
};

// Reads what ct_encode wrote, the len bytes exactly: 0, or -1 with *why
// telling what is wrong (another version, a name of other characters, a
// counter cut short, more than CT_MAX counters).
int ct_decode(const uint8_t* data, size_t len, CtSet* out, const char** why);

enum class CtFormat { text, json, prometheus };
// Prints the counters: text aligned, one per line with its help; one JSON
// object; or the Prometheus text format, each as a counter named
// prefix + name + "_total". The help of a name comes from defs (n of them);
// a name they do not know is printed without.
void ct_print(FILE* f, const CtSet& set, CtFormat format, const char* prefix, const CounterDef* defs, size_t n);
