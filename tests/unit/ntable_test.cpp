#include "tests/unit/unitkit.h"

namespace {

// The simulated driver: held names with kind and state; a request for a name
// in `failing` fails with EIO, a delete or check of a name not held with ENOENT.
struct Held { Bytes name; int32_t kind, state; };
std::vector<Held> held;
std::string cmds;   // 'a'dd, 'd'elete, 'c'heck, in order
Bytes failing;

int sim_driver(int, int cmd, nbunx_req* b)
{
    Bytes name(b->name, b->name + 16);
    cmds += cmd == NBUNX_ADD ? 'a' : cmd == NBUNX_DEL ? 'd' : 'c';
    auto h = std::find_if(held.begin(), held.end(), [&](const Held& x) { return x.name == name; });
    errno = name == failing ? EIO : ENOENT;
    if (errno == EIO || (cmd != NBUNX_ADD && h == held.end()))
        return -1;
    if (cmd == NBUNX_ADD)
        held.push_back({name, b->kind, 0});
    else if (cmd == NBUNX_DEL)
        held.erase(h);
    else
        *b = {0, {}, h->kind, h->state, {}};  // the driver's answer: kind and state only
    return 0;
}

std::vector<Bytes> table()
{
    std::vector<Bytes> v;
    for (const nt_entry* e = n_table; e != nullptr; e = e->next)
        v.push_back(Bytes(e->name, e->name + 16));
    return v;
}

// With the driver transport the driver mirrors the table: a name it gave
// up (state 2) or cannot check is released on the network, deleted from the
// driver and forgotten, by a search or by the check before a listing.
TEST(NameTable, TheDriverMirrorsTheTableAndDroppedNamesGo)
{
    nbunx_set_request(sim_driver);
    tcfile = tmpfile(), tc_proc = 1;
    transport_vznbu = 1, nbunx_fd = 7;
    for (const char* n : {"DROP1", "KEEP1", "FAILS", "KEEP2", "DROP2", "DROP3"})
        ASSERT_EQ(nt_add(ns_name(n).data(), n[0] == 'K' ? NT_GROUP : 0), 0);
    EXPECT_EQ(held[1].kind, 2) << "a group name";
    EXPECT_EQ(held[0].kind, 1);
    for (Held& h : held)
        h.state = h.name == ns_name("KEEP2") ? 1 : h.name[0] == 'D' ? NBUNX_STATE_DROPPED : 0;
    failing = ns_name("FAILS");
    cmds.clear();
    EXPECT_EQ(nt_search(ns_name("DROP3").data()), nullptr);
    transport_vznbu = 0;
    tables_sync();
    EXPECT_EQ(table().size(), 5u) << "without the driver transport nothing is checked";
    transport_vznbu = 1;
    tables_sync();
    EXPECT_EQ(table(), (std::vector<Bytes>{ns_name("KEEP1"), ns_name("KEEP2")}));
    EXPECT_EQ(cmds, "cd" "cdccdccd");
    std::string t = trace_taken();
    for (const char* n : {"drop3", "drop1", "fails", "drop2"})
        EXPECT_NE(t.find(std::string("Halyard: releasing name ") + n + "\n"), std::string::npos) << n;
    EXPECT_NE(t.find("nbunx_namedel fails, errno 5\n"), std::string::npos);
    const struct { int32_t kind, state; int flags; } checks[] = {{2, 0, 3}, {1, 2, 4}, {0, 3, 0}};
    for (const auto& c : checks) {
        held = {{ns_name("N"), c.kind, c.state}};
        EXPECT_EQ(nbunx_namechk(ns_name("N").data()), c.flags) << c.kind << " " << c.state;
    }
    transport_vznbu = 0, nbunx_fd = -1;
    nbunx_set_request(nullptr);
}

}  // namespace
