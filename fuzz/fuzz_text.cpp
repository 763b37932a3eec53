// Texts and wire domains, the first byte choosing the reader (modulo 3):
//   0  uni_aton on the rest as a text, its result back through uni_ntoa
//   1  nm_strtonb on the rest as a text, its result back through nm_nbtostr
//   2  d_to_vd: the second byte the output room (1 to 256), the rest the
//      wire domain, zero-padded to room + 1 bytes, the most it may read

#include "fuzz/fuzzenv.h"
#include "misc/nencode.h"
#include "shr/uniconv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 4096)
        return -1;
    int which = data[0] % 3;
    if (which == 2) {
        if (size < 2)
            return -1;
        int room = data[1] + 1;
        size_t len = size - 2;
        std::vector<uint8_t> in(std::max(len, size_t(room) + 1));
        memcpy(in.data(), data + 2, len);
        std::vector<char> out(static_cast<size_t>(room));
        if (d_to_vd(out.data(), in.data(), room) == 0 && strlen(out.data()) >= size_t(room))
            __builtin_trap();   // the text and its zero byte must fit
        return 0;
    }
    // The text as its callers pass it: NUL-terminated, nothing after it.
    std::vector<char> text(size);
    memcpy(text.data(), data + 1, size - 1);
    if (which == 0) {
        const UniAddr* ua = uni_aton(text.data());
        if (ua != nullptr) {
            if (ua->len > UNI_MAXADDR)
                __builtin_trap();
            UniAddr copy = *ua;
            const char* back = uni_ntoa(&copy);
            if (strlen(back) >= UNI_TEXTSIZE)
                __builtin_trap();
            uni_aton(back);
        }
    } else {
        uint8_t name[NB_NAMELEN];
        if (nm_strtonb(name, text.data()) == 0) {
            char back[NM_TEXTSIZE];
            nm_nbtostr(back, name);
            if (strlen(back) >= NM_TEXTSIZE)
                __builtin_trap();
        }
    }
    return 0;
}
