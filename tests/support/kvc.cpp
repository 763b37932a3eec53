#include "tests/support/kvc.h"

#include <cstdlib>

Kvc::Kvc(std::initializer_list<std::pair<const char*, const char*>> triples)
{
    vz_kvcstate st = 0;
    if (vz_kvcv_init(&v_, &st) != 0)
        abort();
    for (const auto& t : triples) {
        if (vz_kvcv_add(&v_, &st, t.first, t.second, nullptr) != 0)
            abort();
    }
}

Kvc::~Kvc()
{
    vz_kvcv_free(v_);
}

std::vector<std::string> kvc_lines(const vz_kvc* v)
{
    std::vector<std::string> out;
    for (const vz_kvc* t = v; t != nullptr && t->key != nullptr; t++)
        out.push_back(std::string(t->key) + "=" + (t->value != nullptr ? t->value : "(null)"));
    return out;
}
