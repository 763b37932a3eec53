#include "tests/unit/unitkit.h"

#include "src/cust.h"
#include "src/delay.h"

// The agents are at 127.0.0.2 and 127.0.0.3; what the daemon sends is
// recorded at the seam.
namespace {

using namespace ndasim;

const Bytes SERVER = ns_name("SERVER");

// The second agent is asked only when the first stays silent: each twice,
// three seconds apart, then the command is given up.
TEST(Delay, SilentAgentsGetTwoSendsEachThreeSecondsApartAndTheListIsCapped)
{
    ndport = 1002, nda_ct = 2;
    nda_addr[0] = inet_addr("127.0.0.2"), nda_addr[1] = inet_addr("127.0.0.3");
    dg_set_clock(fake_time, fake_alarm);
    dg_set_sender(record_dg);
    tcfile = tmpfile(), tc_proc = 3;
    nda_add(SERVER.data(), 0, &nda_addr[0], 1);
    Bytes add = cat({header(1, 3), name_item(SERVER), int_item(0), addr_list({"127.0.0.2"})});
    EXPECT_EQ(sent_to(DgWay::ens, "127.0.0.2", 1002).size(), 1u);
    const struct { int after; size_t first, second; } rows[] = {{2, 0, 0}, {1, 1, 0}, {3, 0, 1}, {3, 0, 1}, {3, 0, 0}};
    for (const auto& r : rows) {
        check_calls(fake_now += r.after);
        EXPECT_EQ(sent_to(DgWay::ens, "127.0.0.2", 1002), std::vector<Bytes>(r.first, add));
        EXPECT_EQ(sent_to(DgWay::ens, "127.0.0.3", 1002), std::vector<Bytes>(r.second, add));
    }
    EXPECT_EQ(find_delay(1), nullptr);
    EXPECT_EQ(dg_timer_count(), 0) << "no timer while the list is empty";
    for (int i = 0; i <= DC_MAX; i++)
        nda_purge(nda_addr[0]);
    EXPECT_EQ(delay_count(), DC_MAX);
    EXPECT_EQ(find_delay(2), nullptr) << "the one due first was given up";
    EXPECT_NE(find_delay(3), nullptr);
}

}  // namespace
