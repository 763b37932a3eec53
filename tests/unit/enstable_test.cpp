#include "tests/unit/unitkit.h"

namespace {

// Any station can make us learn hosts: at a cap the least recently heard
// host goes with all its entries, never the one being added to, never an
// own address.
TEST(EnsTable, AFullTableForgetsTheHostsHeardOfLeastRecently)
{
    ASSERT_EQ(ens_a_add(inet_addr("10.88.0.1"), nullptr), 0);
    auto addr = [](int i) { return htonl(0x0a590000u + uint32_t(i)); };
    std::vector<EnsHost*> made;
    for (int i = 0; i < ENS_MAX_HOSTS; i++) {
        EnsHost* h = ens_create();
        ens_touch(h, 1000 + i);
        ASSERT_EQ(ens_a_add(addr(i), h), 0);
        for (int k = 0; k < ENS_MAX_NAMES / ENS_MAX_HOSTS; k++)
            ASSERT_EQ(ens_n_add(ns_name(("H" + std::to_string(i) + "N" + std::to_string(k)).c_str()).data(), 0, h), 0);
        made.push_back(h);
    }
    ens_touch(made[0], 90000);  // heard again: now the most recent
    EnsHost* extra = ens_create();
    ASSERT_NE(extra, nullptr);
    EXPECT_EQ(ens_a_lookup(addr(1)), nullptr) << "the least recently heard is forgotten";
    EXPECT_EQ(ens_n_lookup(ns_name("H1N0").data()), nullptr);
    ASSERT_EQ(ens_a_add(addr(1), extra), 0);
    for (int k = 0; k < 5; k++)  // three fit where host 1's were; the fourth needs room
        ASSERT_EQ(ens_n_add(ns_name(("X" + std::to_string(k)).c_str()).data(), 0, extra), 0);
    EXPECT_EQ(ens_host_count(), ENS_MAX_HOSTS - 1) << "host 2 went for the names";
    EXPECT_EQ(ens_a_lookup(addr(2)), nullptr);
    EXPECT_EQ(ens_n_lookup(ns_name("X4").data())->host, extra);
    EXPECT_EQ(ens_a_add(inet_addr("10.88.0.1"), extra), -1) << "an own address is nobody else's";
    EXPECT_TRUE(ens_a_own(inet_addr("10.88.0.1")));
}

}  // namespace
