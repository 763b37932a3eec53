// Local programs use the name table through halyardctl (the wire side of
// the same names is in the wire and Samba tests).

#include "tests/support/lab.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class Names : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 1); }
    Lab lab;
};

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

}  // namespace
