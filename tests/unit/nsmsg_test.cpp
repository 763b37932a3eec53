// The framer of client messages, fed each stream whole and byte by byte.
#include "tests/unit/unitkit.h"

namespace {

Bytes msg(uint32_t xid, int32_t len, const Bytes& data = {})
{
    Bytes b = ns_message(NS_LOOKUP, xid, len, data);
    if (len >= 0 && data.empty())
        b.resize(NS_HDRSIZE + size_t(len), 'd');
    return b;
}

Bytes first(const Bytes& b, size_t n) { return Bytes(b.begin(), b.begin() + long(n)); }

// A reader's view: the xids of the whole messages, the bytes skipped, and
// what waits for more. `step` bytes arrive at a time.
std::string frames(const Bytes& stream, int limit, size_t step)
{
    Bytes buf;
    std::string out;
    size_t skipped = 0;
    for (size_t at = 0; at < stream.size(); at += step) {
        buf.insert(buf.end(), stream.begin() + long(at), stream.begin() + long(std::min(at + step, stream.size())));
        for (NsFramed f = ns_frame(buf, limit); f.kind != NsFrame::need; f = ns_frame(buf, limit)) {
            EXPECT_GT(f.n, 0u);
            if (f.kind == NsFrame::whole) {
                ns_hdr h;
                memcpy(&h, buf.data(), NS_HDRSIZE);
                EXPECT_EQ(f.n, NS_HDRSIZE + size_t(h.len));
                out += std::to_string(h.xid) + " ";
            } else {
                skipped += f.n;
            }
            buf.erase(buf.begin(), buf.begin() + long(f.n));
        }
    }
    return out + "skipped " + std::to_string(skipped) + " waiting " + std::to_string(buf.size());
}

TEST(Framer, WholeSplitGarbageMagicInDataOversize)
{
    const struct { const char* why; Bytes stream; int limit; const char* want; } cases[] = {
        {"whole, then one without data", ndasim::cat({msg(1, 16), msg(2, 0)}), NS_MAXDATA, "1 2 skipped 0 waiting 0"},
        {"garbage with a stray first magic byte, then a message",
         ndasim::cat({{'x', 0xCA, 0x71, 'y', 0xCA}, msg(1, 4)}), NS_MAXDATA, "1 skipped 5 waiting 0"},
        {"a whole forged message inside the data", msg(1, 60, ndasim::cat({msg(9, 16), Bytes(20, 0)})), NS_MAXDATA,
         "1 skipped 0 waiting 0"},
        {"the largest data", msg(1, NS_MAXDATA), NS_MAXDATA, "1 skipped 0 waiting 0"},
        {"data above the most: header skipped, the search finds the next",
         ndasim::cat({msg(1, NS_MAXDATA + 1, Bytes(30, 'z')), msg(2, 8)}), NS_MAXDATA, "2 skipped 54 waiting 0"},
        {"a negative len", ndasim::cat({msg(1, -1), msg(2, 0)}), NS_MAXDATA, "2 skipped 24 waiting 0"},
        {"above the caller's limit", ndasim::cat({msg(1, 81), msg(2, 80)}), 80, "2 skipped 105 waiting 0"},
        {"a message cut short waits", ndasim::cat({msg(1, 4), first(msg(2, 40), 63)}), NS_MAXDATA, "1 skipped 0 waiting 63"},
        {"a magic cut short waits", ndasim::cat({msg(1, 0), first(msg(2, 0), 5)}), NS_MAXDATA, "1 skipped 0 waiting 5"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(frames(c.stream, c.limit, c.stream.size()), c.want) << "at once";
        EXPECT_EQ(frames(c.stream, c.limit, 1), c.want) << "byte by byte";
    }
}

}  // namespace
