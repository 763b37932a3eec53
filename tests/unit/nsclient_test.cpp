#include "client/nsclient.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/support/nsfixture.h"

namespace {

using Bytes = std::vector<uint8_t>;
const char* const kDir = "/var/opt/KORRbase";

void put32(Bytes& b, uint32_t v)
{
    uint8_t t[4];
    memcpy(t, &v, 4);
    b.insert(b.end(), t, t + 4);
}

void put_name(Bytes& b, const char* text)
{
    uint8_t n[16];
    ASSERT_EQ(nsc_strtonb(n, text), 0) << text;
    b.insert(b.end(), n, n + 16);
}

// One client message; len -1 means the data's size.
Bytes msg(uint32_t xid, uint32_t op, int32_t more, const Bytes& data, int32_t len = -1)
{
    Bytes m(NS_MAGIC, NS_MAGIC + 8);
    put32(m, uint32_t(len < 0 ? int32_t(data.size()) : len));
    put32(m, xid);
    put32(m, op);
    put32(m, uint32_t(more));
    m.insert(m.end(), data.begin(), data.end());
    return m;
}

Bytes status_word(int32_t s)
{
    Bytes b;
    put32(b, uint32_t(s));
    return b;
}

// A success answer of the right size for op.
Bytes good_data(uint32_t op)
{
    Bytes b;
    switch (op) {
    case NS_CKNAME: put32(b, 0); put_name(b, "fileserv<20>"); put32(b, 2); break;
    case NS_LISTNAME: put32(b, 0); put32(b, 0); put32(b, 0); break;
    case NS_LOOKUP:
        put32(b, 0);
        b.insert(b.end(), {'I', 0, 4, 0, 10, 88, 0, 7});
        b.resize(68);
        put32(b, 1);
        break;
    case NS_ADAPSTAT: put32(b, 0); b.resize(52); break;
    case NS_NBSCOPE: b.assign({'a', '.', 'b', 0}); b.resize(256); break;
    case NS_NBTYPE: put32(b, 0); b.insert(b.end(), {139, 0, 0, 0}); break;
    default: put32(b, 0);
    }
    return b;
}

void make_places()
{
    ASSERT_EQ(mkfifo("/var/opt/KORRbase/ns_serverfifo", 0622), 0);
    ASSERT_EQ(mkfifo("/var/opt/KORRbase/ns_clientfifo", 0644), 0);
    int fd = creat("/var/opt/KORRbase/lock.name", 0666);
    ASSERT_GE(fd, 0);
    close(fd);
}

// The answers a fake notifier writes, built from the request header; each
// element goes out in its own write.
using Script = std::function<std::vector<Bytes>(const ns_hdr& req)>;

struct Fake {
    int pid = -1;
    int report = -1;  // the request's bytes come back here
};

// A fake notifier: takes one request from the server FIFO (one read, as the
// client writes it in one piece), reports its bytes, writes the script's
// answers into the client FIFO. The FIFOs are opened before the fork, so a
// client started afterwards always finds a reader.
Fake start_fake(const Script& script)
{
    Fake f;
    int sfd = open("/var/opt/KORRbase/ns_serverfifo", O_RDWR);
    int cfd = open("/var/opt/KORRbase/ns_clientfifo", O_RDWR);
    int p[2];
    EXPECT_TRUE(sfd >= 0 && cfd >= 0 && pipe(p) == 0);
    f.pid = spawn_child([&]() {
        close(p[0]);
        pollfd pf{sfd, POLLIN, 0};
        if (poll(&pf, 1, 10000) != 1)
            return 1;
        uint8_t buf[NS_HDRSIZE + NS_MAXDATA];
        ssize_t n = read(sfd, buf, sizeof buf);
        if (n < ssize_t(NS_HDRSIZE))
            return 2;
        if (write(p[1], buf, size_t(n)) != n)
            return 3;
        ns_hdr h;
        memcpy(&h, buf, sizeof h);
        for (const Bytes& b : script(h))
            if (write(cfd, b.data(), b.size()) != ssize_t(b.size()))
                return 4;
        // Like the relay, keep the answer FIFO open for writing: until the
        // test has the report (the pipe's reader closes).
        pollfd done{p[1], 0, 0};
        poll(&done, 1, 30000);
        return 0;
    });
    close(p[1]);
    close(sfd);
    close(cfd);
    f.report = p[0];
    return f;
}

Bytes finish_fake(Fake& f)
{
    Bytes got(NS_HDRSIZE + NS_MAXDATA + 1);
    ssize_t n = read(f.report, got.data(), got.size());
    close(f.report);
    got.resize(n > 0 ? size_t(n) : 0);
    EXPECT_EQ(wait_child(f.pid), 0);
    return got;
}

Script answer(uint32_t op, const Bytes& data)
{
    return [=](const ns_hdr& r) { return std::vector<Bytes>{msg(r.xid, op | NS_RESPONSE, 0, data)}; };
}

struct CtlRun {
    int status;
    std::string out;
    std::string err;
};

std::string slurp(int fd)
{
    std::string s(65536, '\0');
    ssize_t n = pread(fd, s.data(), s.size(), 0);
    s.resize(n > 0 ? size_t(n) : 0);
    close(fd);
    return s;
}

// Runs the tool with its output in memory files (no pipe to fill up).
CtlRun run_ctl(std::vector<const char*> args)
{
    int o = memfd_create("out", 0), e = memfd_create("err", 0);
    args.insert(args.begin(), HALYARDCTL_BINARY);
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(o, 1);
        dup2(e, 2);
        execv(HALYARDCTL_BINARY, const_cast<char* const*>(args.data()));
        _exit(127);
    }
    int ws = 0;
    waitpid(pid, &ws, 0);
    return CtlRun{WIFEXITED(ws) ? WEXITSTATUS(ws) : -1, slurp(o), slurp(e)};
}

TEST(NameText, ParsesAndPrints)
{
    const struct {
        const char* text;
        const char* bytes;  // 16 bytes
        const char* printed;
    } cases[] = {
        {"fileserv<20>", "fileserv       \x20", "fileserv<20>"},
        {"HOST", "HOST           \x00", "HOST<00>"},
        {"fifteen-chars-x<1B>", "fifteen-chars-x\x1b", "fifteen-chars-x<1b>"},
        {"a b<03>", "a b            \x03", "a b<03>"},
        {"\\x01lead\\<x\\\\<00>", "\x01lead<x\\       \x00", "\\x01lead\\<x\\\\<00>"},
        {"*", "*\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", "*"},
        {"*<20>", "*              \x20", "*<20>"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        uint8_t n[16];
        ASSERT_EQ(nsc_strtonb(n, c.text), 0);
        EXPECT_EQ(memcmp(n, c.bytes, 16), 0);
        char t[NSC_NAMETEXT];
        ASSERT_EQ(nsc_nbtostr(t, sizeof t, n), 0);
        EXPECT_STREQ(t, c.printed);
    }
    for (const char* bad : {"", "<20>", "sixteen-chars-xx", "ab<2>", "ab<200>", "ab<zz>", "ab<20", "ab<20>x", "a\\q",
                            "a\\x4", "a\\"}) {
        SCOPED_TRACE(bad);
        uint8_t n[16];
        EXPECT_EQ(nsc_strtonb(n, bad), -1);
    }
    // the longest text of any name still fits the advertised room
    uint8_t worst[16];
    memset(worst, 0x01, sizeof worst);
    char t[NSC_NAMETEXT];
    EXPECT_EQ(nsc_nbtostr(t, sizeof t, worst), 0);
    EXPECT_EQ(nsc_nbtostr(t, 8, worst), -1);
}

TEST(Halyardctl, SendsExactRequests)
{
    run_in_private_dirs([] {
        make_places();
        Bytes add, add_group, one_name, adap_default, adap_named;
        put_name(add, "fileserv<20>");
        put32(add, 0);
        put_name(add_group, "WG<1e>");
        put32(add_group, 1);
        put_name(one_name, "abc");
        const uint8_t ua[8] = {'I', 0, 4, 0, 10, 88, 0, 9};  // host order: family, len, address
        adap_default = {'*'};
        adap_default.resize(16);
        adap_default.insert(adap_default.end(), ua, ua + 8);
        adap_default.resize(80);
        put_name(adap_named, "host<20>");
        adap_named.insert(adap_named.end(), ua, ua + 8);
        adap_named.resize(80);
        const struct {
            std::vector<const char*> args;
            uint32_t op;
            Bytes data;
        } cases[] = {
            {{"add", "fileserv<20>"}, NS_ADDNAME, add},
            {{"add", "--group", "WG<1e>"}, NS_ADDNAME, add_group},
            {{"del", "abc"}, NS_DELNAME, one_name},
            {{"check", "abc"}, NS_CKNAME, one_name},
            {{"lookup", "abc"}, NS_LOOKUP, one_name},
            {{"list"}, NS_LISTNAME, {}},
            {{"status", "10.88.0.9"}, NS_ADAPSTAT, adap_default},
            {{"status", "10.88.0.9", "host<20>"}, NS_ADAPSTAT, adap_named},
            {{"scope"}, NS_NBSCOPE, {}},
            {{"type"}, NS_NBTYPE, {}},
            {{"reinit"}, NS_INIT, {}},
            {{"enstable"}, NS_ENSTABLE, {}},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.args[0] + std::string(" ") + (c.args.size() > 1 ? c.args[1] : ""));
            Fake f = start_fake(answer(c.op, good_data(c.op)));
            CtlRun r = run_ctl(c.args);
            Bytes req = finish_fake(f);
            EXPECT_EQ(r.status, 0) << r.err;
            ASSERT_GE(req.size(), NS_HDRSIZE);
            ns_hdr h;
            memcpy(&h, req.data(), sizeof h);
            EXPECT_EQ(req, msg(h.xid, c.op, 0, c.data));
        }
    });
}

TEST(Halyardctl, StatusesGiveExitCodesAndWords)
{
    run_in_private_dirs([] {
        make_places();
        Bytes nf_lookup = status_word(-6);
        nf_lookup.resize(72);
        const struct {
            std::vector<const char*> args;
            uint32_t op;
            Bytes data;
            const char* words;
        } cases[] = {
            {{"add", "x"}, NS_ADDNAME, status_word(-5), "name already present in the local table"},
            {{"add", "x"}, NS_ADDNAME, status_word(-3), "out of memory"},
            {{"del", "x"}, NS_DELNAME, status_word(-6), "name not present in the local table"},
            {{"check", "x"}, NS_CKNAME, status_word(-6), "name not present"},
            {{"lookup", "x"}, NS_LOOKUP, nf_lookup, "name not found"},
            {{"status", "10.1.2.3"}, NS_ADAPSTAT, status_word(-1), "refused: no usable address"},
            {{"status", "10.1.2.3"}, NS_ADAPSTAT, status_word(-6), "no answer from the station"},
            {{"enstable"}, NS_ENSTABLE, status_word(-1), "tracing is off"},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.words);
            Fake f = start_fake(answer(c.op, c.data));
            CtlRun r = run_ctl(c.args);
            finish_fake(f);
            EXPECT_EQ(r.status, 1);
            EXPECT_NE(r.err.find(c.words), std::string::npos) << r.err;
        }
        // an operation the server does not know is a refusal too
        Fake f = start_fake([](const ns_hdr& q) { return std::vector<Bytes>{msg(q.xid, NS_RESPONSE, 0, {})}; });
        CtlRun r = run_ctl({"reinit"});
        finish_fake(f);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find("does not know"), std::string::npos) << r.err;
    });
}

TEST(Halyardctl, StaleAnswersAndGarbageAreSkipped)
{
    run_in_private_dirs([] {
        make_places();
        Fake f = start_fake([](const ns_hdr& q) {
            Bytes huge_hdr = msg(q.xid, NS_ADDNAME | NS_RESPONSE, 0, {}, 5000);
            return std::vector<Bytes>{
                {0x00, 0xCA, 0x71, 0x13, 0xCA},                             // garbage with stray magic bytes
                msg(q.xid + 1, NS_ADDNAME | NS_RESPONSE, 0, status_word(-5)),  // left by a client that gave up
                huge_hdr,                                                    // len above 4096: dropped
                msg(q.xid, NS_ADDNAME | NS_RESPONSE, 0, status_word(0)),
            };
        });
        CtlRun r = run_ctl({"--json", "add", "fileserv<20>"});
        finish_fake(f);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, "{\"status\":0,\"name\":\"fileserv<20>\",\"group\":false}\n");
    });
}

TEST(Halyardctl, ListOfSeveralMessages)
{
    run_in_private_dirs([] {
        make_places();
        Fake f = start_fake([](const ns_hdr& q) {
            std::vector<Bytes> out;
            int k = 0;
            for (int n : {200, 200, 50}) {
                Bytes d;
                put32(d, 0);
                put32(d, 450);
                put32(d, uint32_t(n));
                for (int i = 0; i < n; i++, k++) {
                    char t[32];
                    snprintf(t, sizeof t, "n%d<20>", k);
                    put_name(d, t);
                    put32(d, k == 7 ? 3 : 0);
                }
                out.push_back(msg(q.xid, NS_LISTNAME | NS_RESPONSE, n == 200, d));
            }
            return out;
        });
        NscConn c;
        nsc_setup(&c, kDir, 5);
        NscList l;
        ASSERT_EQ(nsc_listname(&c, &l), 0) << c.why;
        finish_fake(f);
        EXPECT_EQ(l.total, 450);
        ASSERT_EQ(l.names.size(), 450u);
        char t[NSC_NAMETEXT];
        nsc_nbtostr(t, sizeof t, l.names[449].name);
        EXPECT_STREQ(t, "n449<20>");
        EXPECT_EQ(l.names[7].flags, 3u);

        // and through the tool, as JSON
        Bytes d;
        put32(d, 0);
        put32(d, 1);
        put32(d, 1);
        put_name(d, "wg<1e>");
        put32(d, 3);
        Fake g = start_fake(answer(NS_LISTNAME, d));
        CtlRun r = run_ctl({"list", "--json"});
        finish_fake(g);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, "{\"status\":0,\"total\":1,\"names\":[{\"name\":\"wg<1e>\",\"flags\":3,\"group\":true,"
                         "\"pending\":true}]}\n");
    });
}

TEST(Halyardctl, JsonOfLookupCheckAndType)
{
    run_in_private_dirs([] {
        make_places();
        const struct {
            std::vector<const char*> args;
            uint32_t op;
            const char* out;
        } cases[] = {
            {{"--json", "lookup", "fs<20>"}, NS_LOOKUP,
             "{\"status\":0,\"name\":\"fs<20>\",\"address\":\"10.88.0.7\",\"group\":true}\n"},
            {{"--json", "check", "fileserv<20>"}, NS_CKNAME,
             "{\"status\":0,\"name\":\"fileserv<20>\",\"flags\":2,\"group\":false,\"pending\":true}\n"},
            {{"--json", "type"}, NS_NBTYPE, "{\"nb_type\":0,\"ssport\":139}\n"},
            {{"--json", "scope"}, NS_NBSCOPE, "{\"scope\":\"a.b\"}\n"},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.args[1]);
            Fake f = start_fake(answer(c.op, good_data(c.op)));
            CtlRun r = run_ctl(c.args);
            finish_fake(f);
            EXPECT_EQ(r.status, 0) << r.err;
            EXPECT_EQ(r.out, c.out);
        }
    });
}

TEST(NsClient, MalformedAnswersAreRefused)
{
    run_in_private_dirs([] {
        make_places();
        Bytes many_names = status_word(201);
        many_names.resize(52 + 20 * 201);  // more than one message may hold
        Bytes list_short;
        put32(list_short, 0);
        put32(list_short, 2);
        put32(list_short, 2);  // two entries announced, none present
        Bytes scope_no_zero(256, 'a');
        const struct {
            const char* why;
            uint32_t op;
            uint32_t answer_op;
            Bytes data;
        } cases[] = {
            {"status word cut short", NS_ADDNAME, NS_ADDNAME, {0, 0}},
            {"status with extra bytes", NS_DELNAME, NS_DELNAME, {0, 0, 0, 0, 9}},
            {"answer for another op", NS_INIT, NS_DELNAME, status_word(0)},
            {"adapter status count above 200", NS_ADAPSTAT, NS_ADAPSTAT, many_names},
            {"list entries missing", NS_LISTNAME, NS_LISTNAME, list_short},
            {"scope without zero", NS_NBSCOPE, NS_NBSCOPE, scope_no_zero},
            {"lookup of 8 bytes", NS_LOOKUP, NS_LOOKUP, {0, 0, 0, 0, 'I', 0, 4, 0}},
        };
        uint8_t name[16] = {'A'};
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            Fake f = start_fake(answer(c.answer_op, c.data));
            NscConn conn;
            nsc_setup(&conn, kDir, 5);
            NscList l;
            NscLookup lu;
            static NscAdapStat as;
            char scope[256];
            int32_t st = 0;
            int rc = c.op == NS_LISTNAME ? nsc_listname(&conn, &l)
                     : c.op == NS_LOOKUP ? nsc_lookup(&conn, name, &lu)
                     : c.op == NS_ADAPSTAT ? nsc_adapstat(&conn, name, 0x0100000a, &as)
                     : c.op == NS_NBSCOPE  ? nsc_nbscope(&conn, scope, sizeof scope)
                     : c.op == NS_INIT     ? nsc_reinit(&conn, &st)
                     : c.op == NS_DELNAME  ? nsc_delname(&conn, name, &st)
                                           : nsc_addname(&conn, name, 0, &st);
            finish_fake(f);
            EXPECT_EQ(rc, NSC_BADANSWER);
            EXPECT_NE(strstr(conn.why, "malformed"), nullptr) << conn.why;
        }
    });
}

TEST(Halyardctl, UnreachableServerGivesExit3)
{
    run_in_private_dirs([] {
        CtlRun r = run_ctl({"list"});
        EXPECT_EQ(r.status, 3);
        EXPECT_NE(r.err.find("not running"), std::string::npos) << r.err;

        make_places();  // FIFOs left over, nobody reads them
        r = run_ctl({"list"});
        EXPECT_EQ(r.status, 3);
        EXPECT_NE(r.err.find("not running"), std::string::npos) << r.err;

        // read but never answered; then only garbage and a header with len 5000
        const Script scripts[] = {
            [](const ns_hdr&) { return std::vector<Bytes>{}; },
            [](const ns_hdr& q) {
                return std::vector<Bytes>{{1, 2, 3, 0xCA, 0x71},
                                          msg(q.xid, NS_LISTNAME | NS_RESPONSE, 0, {}, 5000)};
            },
        };
        for (const Script& s : scripts) {
            Fake f = start_fake(s);
            r = run_ctl({"--timeout", "1", "list"});
            finish_fake(f);
            EXPECT_EQ(r.status, 3);
            EXPECT_NE(r.err.find("is it running?"), std::string::npos) << r.err;
        }

        // another client holds the lock for the whole time-out
        int held[2];
        ASSERT_EQ(pipe(held), 0);
        int pid = spawn_child([&] {
            int fd = open("/var/opt/KORRbase/lock.name", O_RDWR);
            struct flock fl {};
            fl.l_type = F_WRLCK;
            int rc = fcntl(fd, F_SETLK, &fl);
            close(held[1]);  // the test goes on
            sleep(3);
            return rc;
        });
        close(held[1]);
        char ch;
        ASSERT_EQ(read(held[0], &ch, 1), 0);
        Fake f = start_fake(answer(NS_INIT, status_word(0)));
        r = run_ctl({"--timeout", "1", "reinit"});
        EXPECT_EQ(r.status, 3);
        EXPECT_NE(r.err.find("another process (pid " + std::to_string(pid) + ") held"), std::string::npos) << r.err;
        EXPECT_EQ(wait_child(pid), 0);
        EXPECT_EQ(run_ctl({"reinit"}).status, 0);  // the fake still waits for it
        finish_fake(f);
    });
}

TEST(Halyardctl, UsageErrorsGiveExit2)
{
    const std::vector<const char*> cases[] = {
        {},
        {"frobnicate"},
        {"add"},
        {"add", "a", "b"},
        {"add", "sixteen-chars-xx"},
        {"del", "ab<zz>"},
        {"list", "extra"},
        {"status", "10.1.2"},
        {"status", "0.0.0.0"},
        {"--timeout", "0", "list"},
        {"--timeout", "abc", "list"},
        {"--timeout"},
        {"--bogus", "list"},
        {"lookup", "--group", "x"},
    };
    for (const auto& args : cases) {
        SCOPED_TRACE(args.empty() ? "(none)" : args[0]);
        CtlRun r = run_ctl(args);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find("--help"), std::string::npos) << r.err;
    }
    CtlRun h = run_ctl({"--help"});
    EXPECT_EQ(h.status, 0);
    for (const char* section : {"NAME", "SYNOPSIS", "DESCRIPTION", "COMMANDS", "OPTIONS", "EXIT STATUS", "FILES",
                                "EXAMPLES"})
        EXPECT_NE(("\n" + h.out).find(std::string("\n") + section + "\n"), std::string::npos) << section;
}

}  // namespace
