#include "tests/unit/unitkit.h"

#include "src/dorequest.h"
#include "src/notifier.h"
#include "src/query.h"

namespace {

int32_t word(const Bytes& d, size_t off)
{
    return int32_t(d[off] | d[off + 1] << 8 | d[off + 2] << 16 | uint32_t(d[off + 3]) << 24);
}

// A node-status request for ADDR (none: nullptr).
Bytes status_ask(const char* addr)
{
    UniAddr to{};
    if (addr != nullptr)
        iantoua(&to, inet_addr(addr), -1);
    Bytes d = ns_name("*", 0);
    d.insert(d.end(), reinterpret_cast<uint8_t*>(&to), reinterpret_cast<uint8_t*>(&to + 1));
    return d;
}

Bytes with_flags(const char* name, uint32_t flags)
{
    Bytes d = ns_name(name);
    d.resize(20);
    memcpy(d.data() + 16, &flags, 4);
    return d;
}

// The daemon's ends of the two pipes; no sender: claims show in the trace.
class Requests : public ::testing::Test {
protected:
    int to_daemon = -1, from_daemon = -1;
    std::vector<Bytes> data;   // of the responses read by responses()
    void SetUp() override
    {
        int a[2], b[2];
        ASSERT_TRUE(pipe2(a, O_NONBLOCK) == 0 && pipe2(b, O_NONBLOCK) == 0);
        from_ntf = a[0], to_daemon = a[1], to_ntf = b[1], from_daemon = b[0];
        dg_set_clock(fake_time, fake_alarm);
        static if_entry ifs[1] = {{inet_addr("10.88.0.1"), 0, 0}};
        my_addr = ifs, my_addr_ct = 1, transport_tcpip = 1;
        ASSERT_NE(tcfile = tmpfile(), nullptr);
        tc_proc = 1;
    }
    void TearDown() override
    {
        for (int i = 0; i < 10 && dg_timer_count() > 0; i++)
            tick(100);   // no lookup or claim cycle outlives its test
        for (int fd : {from_ntf, to_daemon, to_ntf, from_daemon})
            close(fd);
        fclose(tcfile);
        tcfile = nullptr, tc_proc = 0;
    }
    void send(uint32_t op, uint32_t xid, const Bytes& d = {})
    {
        Bytes m = ns_message(op, xid, int32_t(d.size()), d);
        ASSERT_EQ(write(to_daemon, m.data(), m.size()), ssize_t(m.size()));
    }
    // Every response waiting, as "op xid len more status"; data in `data`.
    std::vector<std::string> responses()
    {
        std::vector<std::string> out;
        data.clear();
        ns_hdr h;
        while (read(from_daemon, &h, sizeof h) == ssize_t(sizeof h)) {
            Bytes d(size_t(std::max(h.len, 0)));
            EXPECT_TRUE(d.empty() || read(from_daemon, d.data(), d.size()) == h.len);
            char line[80];
            snprintf(line, sizeof line, "%x %u %d %d %d", h.op, h.xid, h.len, h.more,
                     h.len >= 4 && h.op != 0x1008 ? word(d, 0) : 0);
            out.push_back(line);
            data.push_back(d);
        }
        return out;
    }
    void tick(int seconds) { check_calls(fake_now += seconds); }
};

TEST_F(Requests, ImmediateAnswersAndUnknownOperations)
{
    const struct { uint32_t op; Bytes data; const char* resp; } cases[] = {
        {NS_ADDNAME, with_flags("ALPHA", 0x10), "1001 1 4 0 0"},
        {NS_ADDNAME, with_flags("ALPHA", 0), "1001 2 4 0 -5"},
        {NS_CKNAME, ns_name("ALPHA"), "1007 3 24 0 0"},
        {NS_CKNAME, ns_name("BETA"), "1007 4 24 0 -6"},
        {NS_DELNAME, ns_name("BETA"), "1002 5 4 0 -6"},
        {NS_DELNAME, ns_name("ALPHA"), "1002 6 4 0 0"},
        {NS_INIT, {}, "1005 7 4 0 0"},
        {NS_NBTYPE, {}, "1006 8 8 0 0"},
        {NS_NBSCOPE, {}, "1008 9 256 0 0"},
        {NS_ADAPSTAT, status_ask(nullptr), "1009 10 4 0 -1"},
        {0, {}, "1000 11 0 0 0"},
        {11, ns_name("X"), "1000 12 0 0 0"},
        {NS_ADDNAME | NS_RESPONSE, with_flags("GAMMA", 0), "1000 13 0 0 0"},
        {NS_ENSTABLE, {}, "100a 14 4 0 -1"},   // the table is dumped only into a trace
    };
    strcpy(nb_scope, "sales.corp");
    ssport = 139;
    std::vector<std::string> want;
    uint32_t xid = 1;
    for (const auto& c : cases) {
        if (c.op == NS_ENSTABLE) {
            do_request(SIGINT);
            tc_proc = 0;
        }
        send(c.op, xid++, c.data);
        want.push_back(c.resp);
    }
    do_request(SIGINT);
    EXPECT_EQ(trace_taken(), "do_claim\nHalyard: claiming name alpha\nHalyard: releasing name alpha\n")
        << "one claim at once for the new name; the deleted name released";
    EXPECT_EQ(responses(), want);
    ASSERT_EQ(data.size(), want.size());
    EXPECT_EQ(Bytes(data[2].begin() + 4, data[2].begin() + 20), ns_name("ALPHA"));
    EXPECT_EQ(word(data[2], 20), 0x12) << "the stored flags, claim pending";
    EXPECT_EQ(word(data[7], 4) & 0xFFFFFF, 139) << "ssport, host order";
    EXPECT_STREQ(reinterpret_cast<const char*>(data[8].data()), "sales.corp");
    nb_scope[0] = '\0';
}

TEST_F(Requests, LookupsAnswerAtOnceFromOurTablesOrTheNetworkOrAfterFiveSeconds)
{
    ASSERT_EQ(nt_add(ns_name("TEAM", 0x1C).data(), NT_GROUP), 0);
    EnsHost* far = ens_create();
    ASSERT_EQ(ens_a_add(inet_addr("10.88.0.5"), far), 0);
    ASSERT_EQ(ens_n_add(ns_name("KNOWN").data(), ENS_GROUP, far), 0);
    nda_ct = 1;
    send(NS_LOOKUP, 1, ns_name("TEAM", 0x1C));
    send(NS_LOOKUP, 2, ns_name("KNOWN"));
    do_request(SIGINT);
    nda_ct = 0;
    EXPECT_EQ(responses(), (std::vector<std::string>{"1004 1 72 0 0", "1004 2 72 0 0"}));
    EXPECT_EQ(Bytes(data[0].begin() + 4, data[0].begin() + 12), (Bytes{'I', 0, 4, 0, 10, 88, 0, 1})) << "first interface";
    EXPECT_EQ(Bytes(data[1].begin() + 4, data[1].begin() + 12), (Bytes{'I', 0, 4, 0, 10, 88, 0, 5}));
    EXPECT_EQ(word(data[0], 68) + word(data[1], 68), 2) << "both group names";
    ens_free(far);
    send(NS_LOOKUP, 3, ns_name("FAR"));
    do_request(SIGINT);
    tick(2);
    send(NS_LOOKUP, 4, ns_name("FAR"));
    send(NS_LOOKUP, 5, ns_name("GRP"));
    do_request(SIGINT);
    // A response answers the newest lookup of its name; the older FAR times out.
    const struct { const char* name; int flags; uint32_t xid; } cases[] = {
        {"FAR", 0, 4}, {"GRP", NB_GROUP_BIT, 5}, {"GRP", 0, 0},
    };
    for (const auto& c : cases) {
        Bytes r = ns_packet(1, 0x85, 0, {0, 1, 0, 0}, ns_name(c.name), {0},
                            {0, 0x20, 0, 1, 0, 0, 0, 0, 0, 12, uint8_t(c.flags >> 8), 0, 10, 88, 0, 7, 0, 0, 10, 88, 0, 8});
        npkt rec{};
        ASSERT_EQ(decode_npack(&rec, r.data(), int(r.size())), int(r.size()));
        check_lookup(&rec);
        std::vector<std::string> got = responses();
        ASSERT_EQ(got.size(), c.xid != 0 ? 1u : 0u) << c.name;
        if (c.xid != 0) {
            EXPECT_EQ(got[0], "1004 " + std::to_string(c.xid) + " 72 0 0");
            EXPECT_EQ(Bytes(data[0].begin() + 8, data[0].begin() + 12), (Bytes{10, 88, 0, 7})) << "the first";
            EXPECT_EQ(word(data[0], 68), c.flags ? 1 : 0);
        }
    }
    // A status answer is for the status request of its sender only.
    send(NS_ADAPSTAT, 6, status_ask("10.88.0.9"));
    do_request(SIGINT);
    Bytes stat = ns_status_answer(1, ns_name("*", 0), {{ns_name("FAR"), 0x0400}});
    npkt rec{};
    ASSERT_EQ(decode_npack(&rec, stat.data(), int(stat.size())), int(stat.size()));
    iantoua(&rec.addr, inet_addr("10.88.0.7"), 137);
    check_adapstat(&rec);
    tick(2);
    EXPECT_TRUE(responses().empty());
    tick(1);
    EXPECT_EQ(responses(), (std::vector<std::string>{"1004 3 72 0 -6"}));
}

// Found by fuzzing: lookups beyond the timer table's room stayed listed for
// good when no answer came, one record per request.
TEST_F(Requests, LookupsWithoutRoomForATimerFailAtOnceAndWaitingOnesShareOneTimer)
{
    while (dg_timer(100, [](int32_t) {}, 0) == 0) {
    }
    send(NS_LOOKUP, 1, ns_name("FAR"));
    do_request(SIGINT);
    EXPECT_EQ(responses(), (std::vector<std::string>{"1004 1 72 0 -6"}));
    int32_t id = 0;
    uint32_t xid = 0;
    EXPECT_EQ(get_luname(ns_name("FAR").data(), &id, &xid), -1);

    // Once a timer each: ten clients waiting on the network filled the
    // table, and the claims, the probe and the agent commands lost theirs.
    tick(100);
    for (xid = 1; xid <= 3 * DG_MAX_CALLS; xid++) {
        send(NS_LOOKUP, xid, ns_name("FAR"));
        do_request(SIGINT);
        if (xid == 2 * DG_MAX_CALLS)
            tick(2);  // the last third waits two seconds longer
    }
    EXPECT_EQ(dg_timer_count(), 1);
    tick(3);
    EXPECT_EQ(responses().size(), size_t(2 * DG_MAX_CALLS));
    EXPECT_EQ(dg_timer_count(), 1) << "armed again for the later ones";
    tick(2);
    EXPECT_EQ(responses().size(), size_t(DG_MAX_CALLS));
    EXPECT_EQ(dg_timer_count(), 0);
}

// Every local user may write lookups: at most 16 wait with one xid, 256 in
// all; one more is answered at once as if it had timed out.
TEST_F(Requests, WaitingLookupsAreBoundedInAllAndPerClient)
{
    for (int i = 0; i < 17; i++)
        send(NS_LOOKUP, 7, ns_name("FAR"));
    do_request(SIGINT);
    EXPECT_EQ(responses(), (std::vector<std::string>{"1004 7 72 0 -6"}));
    for (uint32_t xid = 100; xid < 100 + 256 - 16; xid++)
        send(NS_LOOKUP, xid, ns_name("FAR"));
    do_request(SIGINT);
    EXPECT_TRUE(responses().empty());
    send(NS_ADAPSTAT, 8, status_ask("10.88.0.9"));
    do_request(SIGINT);
    EXPECT_EQ(responses(), (std::vector<std::string>{"1009 8 4 0 -6"}));
    tick(5);
    EXPECT_EQ(responses().size(), 256u);
}

}  // namespace
