#include "shr/counters.h"

#include <algorithm>
#include <cstring>

#include "shr/reader.h"

namespace {

bool name_char(uint8_t c)
{
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

const char* help_of(const char* name, const CounterDef* defs, size_t n)
{
    for (size_t i = 0; i < n; i++)
        if (strcmp(defs[i].name, name) == 0)
            return defs[i].help;
    return nullptr;
}

}  // namespace

int ct_encode(uint8_t* out, size_t room, const CounterDef* defs, const uint64_t* values, int n)
{
    Writer w(out, room);
    w.bytes(&CT_VERSION, 4);
    for (int i = 0; i < n; i++) {
        size_t len = strlen(defs[i].name);
        w.u8(uint8_t(len));
        w.bytes(defs[i].name, len);
        w.bytes(&values[i], 8);
    }
    return w.ok() ? int(w.size()) : -1;
}

// The names are printed as they come, into JSON and Prometheus keys: only
// the characters of the table's names pass.
int ct_decode(const uint8_t* data, size_t len, CtSet* out, const char** why)
{
    Reader r(data, len);
    uint32_t version = 0;
    r.copy(&version, 4);
    out->count = 0;
    if (!r.ok() || version != CT_VERSION) {
        *why = r.ok() ? "counters of another version" : "no version";
        return -1;
    }
    while (r.left() > 0) {
        size_t n = r.u8();
        auto name = r.bytes(n);
        uint64_t value = 0;
        r.copy(&value, 8);
        if (!r.ok()) {
            *why = "a counter cut short";
            return -1;
        }
        if (n == 0 || n > CT_NAMEMAX) {
            *why = "a counter name of 0 or more than 47 characters";
            return -1;
        }
        for (uint8_t c : name) {
            if (!name_char(c)) {
                *why = "a counter name of other characters than a-z, 0-9 and _";
                return -1;
            }
        }
        if (out->count == CT_MAX) {
            *why = "more than 128 counters";
            return -1;
        }
        CtValue& v = out->v[out->count++];
        memcpy(v.name, name.data(), n);
        v.name[n] = '\0';
        v.value = value;
    }
    return 0;
}

void ct_print(FILE* f, const CtSet& set, CtFormat format, const char* prefix, const CounterDef* defs, size_t n)
{
    int width = 0;
    for (int i = 0; i < set.count; i++)
        width = std::max(width, int(strlen(set.v[i].name)));
    if (format == CtFormat::json)
        fputc('{', f);
    for (int i = 0; i < set.count; i++) {
        const CtValue& v = set.v[i];
        auto value = static_cast<unsigned long long>(v.value);
        const char* help = help_of(v.name, defs, n);
        switch (format) {
        case CtFormat::text:
            fprintf(f, "%-*s %12llu%s%s\n", width, v.name, value, help != nullptr ? "  " : "",
                    help != nullptr ? help : "");
            break;
        case CtFormat::json:
            fprintf(f, "%s\"%s\":%llu", i > 0 ? "," : "", v.name, value);
            break;
        case CtFormat::prometheus:
            if (help != nullptr)
                fprintf(f, "# HELP %s%s_total %s\n", prefix, v.name, help);
            fprintf(f, "# TYPE %s%s_total counter\n%s%s_total %llu\n", prefix, v.name, prefix, v.name, value);
            break;
        }
    }
    if (format == CtFormat::json)
        fputs("}\n", f);
}
