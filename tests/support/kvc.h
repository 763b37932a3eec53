#pragma once

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "shr/vzmkkvcv.h"

// A key/value/comment vector owned by the test (comments NULL); a null
// value in the pair gives a NULL value.
class Kvc {
public:
    Kvc(std::initializer_list<std::pair<const char*, const char*>> triples);
    ~Kvc();
    Kvc(const Kvc&) = delete;
    Kvc& operator=(const Kvc&) = delete;
    const vz_kvc* get() const { return v_; }
private:
    vz_kvc* v_ = nullptr;
};

// "key=value" for each triple ("key=(null)" for a NULL value), in order.
std::vector<std::string> kvc_lines(const vz_kvc* v);
