#include "tests/unit/unitkit.h"

#include "src/dorequest.h"
#include "src/wins.h"

namespace {

size_t count(const std::string& text, const std::string& part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        n++;
    return n;
}

// Both servers silent, on the hand-moved clock (no socket: the sends show
// in the trace): each name is tried three times at each server, then the
// log says so and the name is registered again five minutes later; a
// lookup asks each server once, then broadcasts. Forty names and the
// lookup never hold more than two of the daemon's ten timers.
TEST(Wins, SilentServersGiveWayWithinTwoTimers)
{
    dg_set_clock(fake_time, fake_alarm);
    static if_entry ifs[1] = {{inet_addr("10.88.0.1"), 0, 0}};
    my_addr = ifs, my_addr_ct = 1, nmport = 137;
    wins_addr[0] = inet_addr("10.0.0.5"), wins_addr[1] = inet_addr("10.0.0.6"), wins_ct = 2;
    ASSERT_NE(tcfile = tmpfile(), nullptr);
    tc_proc = 2;
    for (int i = 0; i < 40; i++) {
        Bytes name = ns_name(("N" + std::to_string(i)).c_str());
        ASSERT_EQ(nt_add(name.data(), 0), 0);
        wins_register(nt_search(name.data()));
    }
    Bytes far = ns_name("FAR");
    ASSERT_EQ(add_lu(far.data(), 0, NS_LOOKUP, 7, 70), 0);
    wins_lookup(far.data());
    std::string trace;
    std::vector<std::string> log = logged([&] {
        for (int s = 0; s < 14; s++) {
            EXPECT_LE(dg_timer_count(), 2) << s;
            check_calls(++fake_now);
        }
        trace = trace_taken();
    });
    for (const char* to : {"10.0.0.5", "10.0.0.6"}) {
        for (int t = 1; t <= 3; t++)   // the lookup's one query counts as a first try
            EXPECT_EQ(count(trace, "try " + std::to_string(t) + ", to " + to), t == 1 ? 41u : 40u) << to << t;
    }
    EXPECT_EQ(count(trace, "name_query: sending query for far"), 1u);
    ASSERT_EQ(log.size(), 40u);
    EXPECT_EQ(log[0], "Halyard: no WINS server answers for name n0");
    fake_now += 300;
    check_calls(fake_now);
    EXPECT_EQ(count(trace_taken(), "try 1, to 10.0.0.5"), 40u);
    EXPECT_LE(dg_timer_count(), 2);
    rm_lu(7);
}

}  // namespace
