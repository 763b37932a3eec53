// Client messages as any local program may write them into the daemon's
// FIFOs: framing lost and found again, unknown operations, long listings.

#include "tests/support/lab.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "src/dorequest.h"

namespace {

std::vector<uint8_t> message(uint32_t op, uint32_t xid, const std::vector<uint8_t>& data = {},
                             int32_t len = -1)
{
    ns_hdr h{};
    memcpy(h.magic, NS_MAGIC, sizeof h.magic);
    h.len = len >= 0 ? len : int32_t(data.size());
    h.xid = xid;
    h.op = op;
    std::vector<uint8_t> out(sizeof h + data.size());
    memcpy(out.data(), &h, sizeof h);
    if (!data.empty())
        memcpy(out.data() + sizeof h, data.data(), data.size());
    return out;
}

class Fifo : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 1); }
    void TearDown() override
    {
        if (to_daemon >= 0)
            close(to_daemon);
        if (from_daemon >= 0)
            close(from_daemon);
    }

    void open_fifos()
    {
        to_daemon = open("/var/opt/KORRbase/ns_serverfifo", O_WRONLY | O_NONBLOCK);
        from_daemon = open("/var/opt/KORRbase/ns_clientfifo", O_RDWR | O_NONBLOCK);
        ASSERT_GE(to_daemon, 0) << strerror(errno);
        ASSERT_GE(from_daemon, 0) << strerror(errno);
    }

    void send(const std::vector<uint8_t>& bytes)
    {
        ASSERT_EQ(write(to_daemon, bytes.data(), bytes.size()), ssize_t(bytes.size()));
    }

    // The next answer's header and data; false when none came within 20 s.
    bool answer(ns_hdr* h, std::vector<uint8_t>* data)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        std::vector<uint8_t>& got = pending;
        while (std::chrono::steady_clock::now() < deadline) {
            if (got.size() >= sizeof *h) {
                memcpy(h, got.data(), sizeof *h);
                size_t want = sizeof *h + size_t(h->len);
                if (h->len >= 0 && got.size() >= want) {
                    data->assign(got.begin() + sizeof *h, got.begin() + long(want));
                    got.erase(got.begin(), got.begin() + long(want));
                    return true;
                }
            }
            pollfd p{from_daemon, POLLIN, 0};
            if (poll(&p, 1, 200) > 0) {
                uint8_t buf[8192];
                ssize_t n = read(from_daemon, buf, sizeof buf);
                if (n > 0)
                    got.insert(got.end(), buf, buf + n);
            }
        }
        return false;
    }

    int32_t status(const std::vector<uint8_t>& data)
    {
        int32_t s = 0;
        if (data.size() >= 4)
            memcpy(&s, data.data(), 4);
        return s;
    }

    Lab lab;
    int to_daemon = -1;
    int from_daemon = -1;
    std::vector<uint8_t> pending;  // read but not yet taken: answers come back to back
};

TEST_F(Fifo, FramingIsFoundAgainAndEveryOperationIsAnswered)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    open_fifos();
    ns_hdr h{};
    std::vector<uint8_t> data;

    // Garbage with a stray first magic byte before a real request.
    std::vector<uint8_t> junk{0x00, 0xCA, 0x71, 0x13, 0xCA, 0xFF};
    auto req = message(NS_NBTYPE, 7);
    junk.insert(junk.end(), req.begin(), req.end());
    send(junk);
    ASSERT_TRUE(answer(&h, &data)) << lab.log();
    EXPECT_EQ(h.xid, 7u);
    EXPECT_EQ(h.op, NS_NBTYPE | NS_RESPONSE);

    // A header announcing more than a message may hold is dropped.
    send(message(NS_NBTYPE, 8, {}, 5000));
    send(message(NS_NBSCOPE, 9));
    ASSERT_TRUE(answer(&h, &data));
    EXPECT_EQ(h.xid, 9u);
    EXPECT_EQ(h.op, NS_NBSCOPE | NS_RESPONSE);

    // An unknown operation gets the bare header back.
    send(message(77, 10, {1, 2, 3}));
    ASSERT_TRUE(answer(&h, &data));
    EXPECT_EQ(h.xid, 10u);
    EXPECT_EQ(h.op, NS_RESPONSE);
    EXPECT_EQ(h.len, 0);

    // The host table dump needs a trace: without one it is refused.
    send(message(NS_ENSTABLE, 11));
    ASSERT_TRUE(answer(&h, &data));
    EXPECT_EQ(h.xid, 11u);
    EXPECT_EQ(status(data), -1);

    // A name request cut short of its name is refused, and the daemon goes on.
    send(message(NS_CKNAME, 12, {'a', 'b'}));
    ASSERT_TRUE(answer(&h, &data));
    EXPECT_EQ(h.xid, 12u);
    EXPECT_LT(status(data), 0);
    std::vector<uint8_t> name(16, ' ');
    memcpy(name.data(), "nobody", 6);
    send(message(NS_CKNAME, 13, name));
    ASSERT_TRUE(answer(&h, &data));
    EXPECT_EQ(h.xid, 13u);
    EXPECT_EQ(status(data), -6);
}

TEST_F(Fifo, AListingOf450NamesComesInThreeMessages)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    open_fifos();
    ns_hdr h{};
    std::vector<uint8_t> data;
    for (int i = 0; i < 450; i++) {
        std::vector<uint8_t> req(20, 0);
        std::string n = "n" + std::to_string(i);
        memset(req.data(), ' ', 15);
        memcpy(req.data(), n.data(), n.size());
        send(message(NS_ADDNAME, uint32_t(100 + i), req));
        ASSERT_TRUE(answer(&h, &data)) << i;
        ASSERT_EQ(status(data), 0) << i;
    }
    send(message(NS_LISTNAME, 1));
    std::vector<int32_t> lens;
    int32_t more = 1;
    while (more != 0 && lens.size() < 5) {
        ASSERT_TRUE(answer(&h, &data));
        EXPECT_EQ(h.xid, 1u);
        lens.push_back(h.len);
        more = h.more;
    }
    EXPECT_EQ(lens, (std::vector<int32_t>{4012, 4012, 1012}));
}

bool gone_within(const char* path, int seconds)
{
    for (int i = 0; i < seconds * 10; i++) {
        if (access(path, F_OK) != 0)
            return true;
        usleep(100000);
    }
    return false;
}

TEST_F(Fifo, TheRelayEndsWithTheDaemonAndRemovesTheFifos)
{
    // An orderly stop hangs the relay up.
    pid_t pid = lab.start_daemon();
    ASSERT_GT(pid, 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"type"}), 0) << "the relay runs";
    int status = -1;
    ASSERT_TRUE(lab.stop_daemon(pid, 20.0, &status));
    EXPECT_TRUE(gone_within("/var/opt/KORRbase/ns_serverfifo", 20));
    EXPECT_TRUE(gone_within("/var/opt/KORRbase/ns_clientfifo", 20));

    // A daemon killed outright: the next request finds nobody to take it.
    pid = lab.start_daemon();
    ASSERT_GT(pid, 0) << lab.last_error();
    open_fifos();
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    ASSERT_TRUE(lab.wait_exit(pid, 20.0));
    send(message(NS_NBTYPE, 1));
    EXPECT_TRUE(gone_within("/var/opt/KORRbase/ns_serverfifo", 20));
    EXPECT_TRUE(gone_within("/var/opt/KORRbase/ns_clientfifo", 20));
}

}  // namespace
