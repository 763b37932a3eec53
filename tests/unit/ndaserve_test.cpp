// The agent's request reader, one table of what a daemon sends and what it
// must refuse. The serving of the requests is covered end to end
// (tests/e2e/nda_test.cpp) with the real agent.

#include "tests/unit/unitkit.h"

#include "nda/ndareq.h"

namespace {

using namespace ndasim;

const Bytes FS = nb_name("FS", 0x20), TEAM = nb_name("TEAM", 0x1e);

TEST(NdaRequest, ReadsWhatTheDaemonSendsAndRefusesTheRest)
{
    NdaRequest r;
    Bytes full = cat({header(7, ndasim::add), name_item(TEAM), int_item(1), addr_list({"10.1.0.2", "10.1.0.3"})});
    ASSERT_EQ(nda_read_request(full.data(), int(full.size()), &r), 0);
    EXPECT_TRUE(r.id == 7u && r.flags == 1 && r.addr_ct == 2 && r.addrs[1] == inet_addr("10.1.0.3"));
    // Every cut of it: no header below 20 bytes, else a body cut short.
    each_cut(full, full.size() - 1, [&r](const uint8_t* cut, int n) {
        EXPECT_EQ(nda_read_request(cut, n, &r), n < 20 ? NDA_BADHDR : NDA_BADBODY);
    });
    std::vector<std::string> many(25, "10.1.0.9");
    many[19] = "10.1.0.20";
    const struct { const char* why; Bytes bytes; int want, addr_ct; } cases[] = {
        {"QUERY without the trailing int", cat({header(1, 1), name_item(FS)}), 0, 0},
        {"EQUIV of 25 addresses: the first 20", cat({header(1, 5), addr_list(many)}), 0, 20},
        {"PURGE", cat({header(1, 7), ip_item("10.1.0.2")}), 0, 1},
        {"DELETE with an empty list", cat({header(1, 4), name_item(FS), int_item(0)}), 0, 0},
        {"ADD without an address", cat({header(1, 3), name_item(FS), int_item(0), int_item(0)}), NDA_BADBODY, 0},
        {"EQUIV without an address", cat({header(1, 5), int_item(0)}), NDA_BADBODY, 0},
        {"a name item of 15 bytes", cat({header(1, 1), int_item(15), Bytes(16, 'A')}), NDA_BADBODY, 0},
        {"an ip item of length 3", cat({header(1, 7), Bytes{3, 10, 1, 0, 2, 0}}), NDA_BADBODY, 0},
        {"action 6", cat({header(1, 6), int_item(0)}), NDA_NOTOURS, 0},
        {"a VERIFY request", cat({header(1, 2), name_item(FS), ip_item("10.1.0.2")}), NDA_NOTOURS, 0},
        {"an ADD response", header(1, ndasim::add | ndasim::response_bit), NDA_NOTOURS, 0},
        {"a VERIFY response", header(1, ndasim::verify | ndasim::response_bit, -1), 0, 0},
        {"another version", cat({Bytes{1, 0, 2, 0}, Bytes(16, 0), name_item(FS)}), NDA_BADHDR, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(nda_read_request(c.bytes.data(), int(c.bytes.size()), &r), c.want);
        if (c.want == 0) {
            EXPECT_EQ(r.addr_ct, c.addr_ct);
        }
    }
}

}  // namespace
