// The name service as its users meet it: local programs through halyardctl
// and the FIFOs, other stations through datagrams on the wire.

#include "tests/support/lab.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

class Names : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 1); }


    Lab lab;
};

// RFC 1001 first-level encoding of a 15-character name and its type, no scope.
std::vector<uint8_t> encoded(const std::string& name, uint8_t type)
{
    std::string padded = name;
    padded.resize(15, ' ');
    padded.push_back(char(type));
    std::vector<uint8_t> out{32};
    for (unsigned char c : padded) {
        out.push_back(uint8_t('A' + (c >> 4)));
        out.push_back(uint8_t('A' + (c & 15)));
    }
    out.push_back(0);
    return out;
}

std::vector<uint8_t> name_query(const std::string& name, uint8_t type)
{
    std::vector<uint8_t> q{0x42, 0x42, 0x01, 0x10, 0, 1, 0, 0, 0, 0, 0, 0};
    auto n = encoded(name, type);
    q.insert(q.end(), n.begin(), n.end());
    q.insert(q.end(), {0x00, 0x20, 0x00, 0x01});
    return q;
}

TEST_F(Names, LocalProgramsAddCheckListDeleteAndLookUp)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    std::string out;
    EXPECT_EQ(lab.halyardctl({"add", "fileserv<20>"}, &out), 0) << out;
    EXPECT_EQ(lab.halyardctl({"add", "fileserv<20>"}, &out), 1) << out;  // already present
    EXPECT_EQ(lab.halyardctl({"add", "workgrp<1e>", "--group"}, &out), 0) << out;
    EXPECT_EQ(lab.halyardctl({"check", "fileserv<20>"}, &out), 0) << out;
    EXPECT_EQ(lab.halyardctl({"list"}, &out), 0) << out;
    EXPECT_NE(out.find("fileserv<20>"), std::string::npos) << out;
    EXPECT_NE(out.find("workgrp<1e>"), std::string::npos) << out;
    EXPECT_EQ(lab.halyardctl({"del", "fileserv<20>"}, &out), 0) << out;
    EXPECT_EQ(lab.halyardctl({"check", "fileserv<20>"}, &out), 1) << out;
    // Nobody on the network owns it: not found once the lookup times out.
    EXPECT_EQ(lab.halyardctl({"lookup", "nobody<20>"}, &out), 1) << out;
    EXPECT_NE(out.find("-6"), std::string::npos) << out;
}

TEST_F(Names, AStationsQueryForAClaimedNameIsAnswered)
{
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    std::string out;
    ASSERT_EQ(lab.halyardctl({"add", "fileserv<20>"}, &out), 0) << out;
    int fd = lab.udp_socket(lab_station1, 0);
    ASSERT_GE(fd, 0) << lab.last_error();
    // Pending names are not answered: ask until the claim has completed.
    std::optional<LabDatagram> answer;
    for (int i = 0; i < 40 && !answer; i++) {
        ASSERT_TRUE(lab.send_to(fd, "10.88.0.255", 137, name_query("fileserv", 0x20)));
        answer = lab.recv(fd, 0.5);
    }
    ASSERT_TRUE(answer.has_value()) << lab.log();
    const auto& a = answer->bytes;
    EXPECT_EQ(answer->from, "10.88.0.1");
    ASSERT_GE(a.size(), 12u + 34 + 10 + 6);
    EXPECT_EQ(std::vector<uint8_t>(a.begin(), a.begin() + 12),
              (std::vector<uint8_t>{0x42, 0x42, 0x85, 0x00, 0, 0, 0, 1, 0, 0, 0, 0}));
    // The record's address is the daemon's own on the asker's subnet.
    EXPECT_EQ(std::vector<uint8_t>(a.end() - 4, a.end()), (std::vector<uint8_t>{10, 88, 0, 1}));
    // A name nobody added gets no answer.
    ASSERT_TRUE(lab.send_to(fd, "10.88.0.255", 137, name_query("nobody", 0x20)));
    EXPECT_FALSE(lab.recv(fd, 1.0).has_value());
}

}  // namespace
