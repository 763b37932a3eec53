#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "nmtrace.h"
#include "shr/logging.h"
#include "src/claim.h"
#include "src/namelogin.h"
#include "src/ntable.h"
#include "tests/support/lab.h"

namespace {

using Name = std::array<uint8_t, 16>;
using Names = std::vector<Name>;

Name nb(const char* text, uint8_t type = 0x20)  // blank-padded, then the type byte
{
    Name n;
    n.fill(' ');
    memcpy(n.data(), text, strlen(text));
    n[15] = type;
    return n;
}
Name name_of(const uint8_t* p)
{
    Name n{};
    memcpy(n.data(), p, 16);
    return n;
}

// The simulated driver: held names with kind and state; a request for a name
// in `failing` fails with EIO, a delete or check of a name not held with ENOENT.
struct Held { Name name; int32_t kind, state; };
std::vector<Held> held;
std::vector<std::pair<int, nbunx_req>> requests;  // command and block as given
Names failing;

int sim_driver(int, int cmd, nbunx_req* b)
{
    requests.push_back({cmd, *b});
    auto h = std::find_if(held.begin(), held.end(), [&](const Held& x) { return x.name == name_of(b->name); });
    errno = std::count(failing.begin(), failing.end(), name_of(b->name)) ? EIO : ENOENT;
    if (errno == EIO || (cmd != NBUNX_ADD && h == held.end()))
        return -1;
    if (cmd == NBUNX_ADD)
        held.push_back({name_of(b->name), b->kind, 0});
    else if (cmd == NBUNX_DEL)
        held.erase(h);
    else
        *b = {0, {}, h->kind, h->state, {}};  // the driver's answer: kind and state only
    return 0;
}

class NameTable : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(tcfile = tmpfile(), nullptr);
        tc_proc = 1;
        ASSERT_EQ(my_addr_ct, 0) << "releases must not reach a network";
        nbunx_set_request(sim_driver);
    }
    void TearDown() override
    {
        transport_vznbu = 0;
        while (n_table != nullptr)
            nt_del(n_table->name);
        nbunx_fd = -1;
        nbunx_set_request(nullptr);
        fclose(tcfile);
        tcfile = nullptr;
        tc_proc = 0;
        held.clear(), requests.clear(), failing.clear();
    }
    void driver_on() { transport_vznbu = 1, nbunx_fd = 7; }
    std::string trace()  // and starts a new one
    {
        std::string s(size_t(ftell(tcfile)), '\0');
        rewind(tcfile);
        s.resize(fread(s.data(), 1, s.size(), tcfile));
        rewind(tcfile);
        EXPECT_EQ(ftruncate(fileno(tcfile), 0), 0);
        return s;
    }
    // The names released on the network so far, in order, as the real
    // name_release traces them (printable, lower case); the trace stays.
    // With no interfaces configured its broadcasts go nowhere.
    std::vector<std::string> released()
    {
        std::vector<std::string> out;
        fflush(tcfile);
        std::string text(size_t(ftell(tcfile)), '\0');
        rewind(tcfile);
        text.resize(fread(text.data(), 1, text.size(), tcfile));
        fseek(tcfile, 0, SEEK_END);
        const std::string prefix = "Halyard: releasing name ";
        for (size_t at = 0, end; at < text.size(); at = end + 1) {
            end = text.find('\n', at);
            if (end == std::string::npos)
                end = text.size();
            if (text.compare(at, prefix.size(), prefix) == 0)
                out.push_back(text.substr(at + prefix.size(), end - at - prefix.size()));
        }
        return out;
    }
    static Names table()
    {
        Names v;
        for (const nt_entry* e = n_table; e != nullptr; e = e->next)
            v.push_back(name_of(e->name));
        return v;
    }
};

TEST_F(NameTable, KeepsOrderComparesExactlyRefusesDuplicates)
{
    const Names all = {nb("ALPHA"), nb("alpha"), nb("ALPHA", 0x00), nb(" ALPHA"), nb("GROUP")};
    for (const Name& n : all)
        EXPECT_EQ(nt_add(n.data(), n == nb("GROUP") ? NT_GROUP | 0x100 : 0), 0);
    EXPECT_EQ(table(), all);
    const nt_entry* g = nt_icsearch(nb("GROUP").data());
    EXPECT_TRUE(g->flags == (NT_GROUP | NT_PENDING | 0x100) && g->count == 0);
    EXPECT_EQ(name_of(nt_search(nb("ALPHA", 0x00).data())->name), nb("ALPHA", 0x00));
    EXPECT_EQ(nt_icsearch(nb("Alpha").data()), nullptr);

    n_table->flags = 0;
    EXPECT_EQ(nt_add(nb("ALPHA").data(), NT_GROUP), NT_PRESENT);
    EXPECT_EQ(n_table->flags, 0u);
    // first, middle and last go; the rest keep their order
    for (const Name& n : {nb("ALPHA"), nb("ALPHA", 0x00), nb("GROUP")})
        EXPECT_EQ(nt_del(n.data()), 0);
    EXPECT_EQ(nt_del(nb("GROUP").data()), NT_ABSENT);
    EXPECT_EQ(table(), (Names{nb("alpha"), nb(" ALPHA")}));
    EXPECT_EQ(nt_del(n_table->next->name), 0);  // the name read from the entry being freed
    EXPECT_TRUE(requests.empty() && released().empty());
}

// Hundreds of names, added and deleted in a shuffled order: every lookup
// finds exactly the names present, and the table keeps the order of adding.
TEST_F(NameTable, LookupsFollowAddsAndDeletesOfManyNames)
{
    Names all;
    for (int i = 0; i < 1200; i++) {
        Name n = nb("HOST");
        memcpy(n.data() + 4, &i, sizeof i);  // names that differ in a few bytes only
        n[15] = uint8_t(i * 7);
        all.push_back(n);
    }
    for (const Name& n : all)
        ASSERT_EQ(nt_add(n.data(), 0), 0);
    Names order = all;
    srand(11);
    for (size_t i = order.size() - 1; i > 0; i--)
        std::swap(order[i], order[size_t(rand()) % (i + 1)]);
    Names kept(all);
    for (size_t i = 0; i < order.size(); i += 2) {
        ASSERT_EQ(nt_del(order[i].data()), 0);
        kept.erase(std::find(kept.begin(), kept.end(), order[i]));
    }
    EXPECT_EQ(table(), kept);
    for (size_t i = 0; i < order.size(); i++) {
        const nt_entry* e = nt_search(order[i].data());
        ASSERT_EQ(e == nullptr, i % 2 == 0) << i;
        if (e != nullptr) {
            EXPECT_EQ(name_of(e->name), order[i]);
        }
    }
    for (size_t i = 0; i < order.size(); i += 2)  // back again, at the end
        ASSERT_EQ(nt_add(order[i].data(), 0), 0);
    for (const Name& n : all)
        ASSERT_NE(nt_search(n.data()), nullptr);
    EXPECT_EQ(table().size(), all.size());
}

TEST_F(NameTable, DriverMirrorsAddsDeletesAndChecks)
{
    driver_on();
    EXPECT_EQ(nt_add(nb("UNIQUE").data(), 0x100), 0);
    EXPECT_EQ(nt_add(nb("GROUP").data(), NT_GROUP), 0);
    EXPECT_NE(nt_search(nb("UNIQUE").data()), nullptr);
    EXPECT_EQ(nt_del(nb("UNIQUE").data()), 0);
    const struct { int cmd; Name name; int32_t kind; } want[] = {
        {NBUNX_ADD, nb("UNIQUE"), 1}, {NBUNX_ADD, nb("GROUP"), 2},
        {NBUNX_CHK, nb("UNIQUE"), 0}, {NBUNX_DEL, nb("UNIQUE"), 0}};
    ASSERT_EQ(requests.size(), std::size(want));
    for (size_t i = 0; i < std::size(want); ++i) {
        SCOPED_TRACE(i);
        uint8_t bytes[44] = {};  // the whole block, host byte order
        memcpy(bytes + 4, want[i].name.data(), 16);
        memcpy(bytes + 20, &want[i].kind, 4);
        EXPECT_EQ(requests[i].first, want[i].cmd);
        EXPECT_EQ(memcmp(&requests[i].second, bytes, 44), 0);
    }
    EXPECT_TRUE(released().empty()) << "a delete announces nothing";
    EXPECT_EQ(trace(), "nbunx_namechk: returning flags 0x2\n");

    const struct { int32_t kind, state; int flags; const char* text; } checks[] = {
        {2, 0, 3, "0x3"}, {1, 2, 4, "0x4"}, {0, 3, 0, "0"}};
    for (const auto& c : checks) {
        SCOPED_TRACE(c.text);
        held = {{nb("N"), c.kind, c.state}};
        EXPECT_EQ(nbunx_namechk(nb("N").data()), c.flags);
        EXPECT_EQ(trace(), std::string("nbunx_namechk: returning flags ") + c.text + "\n");
    }
    // a failing add or delete is traced and otherwise ignored
    failing = {nb("X")};
    EXPECT_EQ(nt_add(nb("X").data(), 0), 0);
    EXPECT_EQ(nt_del(nb("X").data()), 0);
    EXPECT_EQ(trace(), "nbunx_nameadd fails, errno 5\nnbunx_namedel fails, errno 5\n");
}

// A name the driver gave up (state 2) or cannot check is released on the
// network, deleted from the driver and forgotten: by a search, or by the
// synchronisation before a listing.
TEST_F(NameTable, DroppedNamesAreReleasedAndRemoved)
{
    driver_on();
    for (const char* n : {"DROP1", "KEEP1", "FAILS", "KEEP2", "DROP2", "DROP3"})
        ASSERT_EQ(nt_add(nb(n).data(), 0), 0);
    for (Held& h : held)
        h.state = h.name == nb("KEEP2") ? 1 : h.name[0] == 'D' ? NBUNX_STATE_DROPPED : 0;
    failing = {nb("FAILS")};
    requests.clear();

    EXPECT_EQ(nt_search(nb("DROP3").data()), nullptr);
    EXPECT_EQ(released(), std::vector<std::string>{"drop3"});
    transport_vznbu = 0;
    tables_sync();
    EXPECT_EQ(table().size(), 5u) << "without the driver transport nothing is checked";
    transport_vznbu = 1;
    tables_sync();
    EXPECT_EQ(table(), (Names{nb("KEEP1"), nb("KEEP2")}));
    EXPECT_EQ(released(), (std::vector<std::string>{"drop3", "drop1", "fails", "drop2"}));
    std::string cmds;
    for (const auto& r : requests)
        cmds += r.first == NBUNX_CHK ? 'c' : r.first == NBUNX_DEL ? 'd' : 'a';
    EXPECT_EQ(cmds, "cd" "cdccdccd");
    EXPECT_EQ(held.size(), 3u);  // FAILS stays in the driver: its delete failed too

    EXPECT_EQ(nt_add(nb("DROP1").data(), 0), 0);  // a dropped name can be added again
    EXPECT_EQ(table().back(), nb("DROP1"));
}

// Configured but the device absent: one log message, nothing mirrored, every
// name accepted. A device that is not the driver refuses the request.
TEST_F(NameTable, WithoutTheDriverDeviceTheTableWorksAlone)
{
    struct stat st;
    if (stat(NBUNX_DEVICE, &st) == 0)
        GTEST_SKIP() << NBUNX_DEVICE << " exists on this machine";
    nbunx_set_request(nullptr);
    transport_vznbu = 1;
    std::string log = "/tmp/halyard-ntable-" + std::to_string(getpid());
    ASSERT_EQ(open_log(log.c_str()), 0);
    nbunx_open();
    close_log();
    EXPECT_LT(nbunx_fd, 0);
    std::vector<LabLogGroup> groups = lab_parse_log(lab_read_file(log));
    unlink(log.c_str());
    ASSERT_EQ(groups.size(), 1u);
    EXPECT_EQ(groups[0].messages, std::vector<std::string>{"Halyard: cannot open nbu nexus device /dev/vznbu_nx"});
    EXPECT_EQ(nt_add(nb("A").data(), 0), 0);
    EXPECT_NE(nt_search(nb("A").data()), nullptr);
    EXPECT_EQ(nbunx_namedel(nb("A").data()), -1);
    EXPECT_EQ(trace(), "");

    ASSERT_GE(nbunx_fd = open("/dev/null", O_RDWR), 0);
    EXPECT_EQ(nbunx_nameadd(nb("A").data(), 0), -1);
    EXPECT_EQ(nbunx_namedel(nb("A").data()), -1);
    EXPECT_EQ(nbunx_namechk(nb("A").data()), -1);
    close(nbunx_fd);
    EXPECT_EQ(trace(), "nbunx_nameadd fails, errno 25\nnbunx_namedel fails, errno 25\nnbunx_namechk fails, errno 25\n");
}

}  // namespace
