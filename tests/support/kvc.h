#pragma once

#include <cstdlib>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "shr/vzmkkvcv.h"

// A key/value/comment vector owned by the test (comments NULL); a null
// value in the pair gives a NULL value.
class Kvc {
public:
    Kvc(std::initializer_list<std::pair<const char*, const char*>> triples)
    {
        vz_kvcstate st = 0;
        if (vz_kvcv_init(&v_, &st) != 0)
            abort();
        for (const auto& t : triples)
            if (vz_kvcv_add(&v_, &st, t.first, t.second, nullptr) != 0)
                abort();
    }
    ~Kvc() { vz_kvcv_free(v_); }
    Kvc(const Kvc&) = delete;
    Kvc& operator=(const Kvc&) = delete;
    const vz_kvc* get() const { return v_; }
private:
    vz_kvc* v_ = nullptr;
};

// "key=value" for each triple ("key=(null)" for a NULL value), in order.
inline std::vector<std::string> kvc_lines(const vz_kvc* v)
{
    std::vector<std::string> out;
    for (const vz_kvc* t = v; t != nullptr && t->key != nullptr; t++)
        out.push_back(std::string(t->key) + "=" + (t->value != nullptr ? t->value : "(null)"));
    return out;
}
