#include "src/nsmsg.h"

#include <algorithm>
#include <cstring>

namespace {

// Whether the bytes could be the start of a header.
bool magic_prefix(std::span<const uint8_t> b)
{
    return memcmp(b.data(), NS_MAGIC, std::min(b.size(), sizeof NS_MAGIC)) == 0;
}

// From the first byte after the front that could start the magic.
NsFramed skip_to_magic(std::span<const uint8_t> b)
{
    size_t i = 1;
    while (i < b.size() && !magic_prefix(b.subspan(i)))
        i++;
    return {NsFrame::skip, i};
}

}  // namespace

NsFramed ns_frame(std::span<const uint8_t> b, int limit)
{
    if (b.empty())
        return {NsFrame::need, 0};
    if (!magic_prefix(b))
        return skip_to_magic(b);
    if (b.size() < NS_HDRSIZE)
        return {NsFrame::need, 0};
    int32_t len = 0;
    memcpy(&len, b.data() + offsetof(ns_hdr, len), sizeof len);
    if (len < 0 || len > std::min(limit, NS_MAXDATA))
        return skip_to_magic(b);
    size_t whole = NS_HDRSIZE + size_t(len);
    if (b.size() < whole)
        return {NsFrame::need, 0};
    return {NsFrame::whole, whole};
}
