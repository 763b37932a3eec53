// The benchmark's load generator and reference responder, kept working: they
// talk to each other and to the real daemon in a lab. Figures of speed come
// from scripts/bench only; this test checks counts.

#include "tests/support/lab.h"
#include "tests/support/paths.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Figures = std::map<std::string, std::string>;

class Bench : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* bin : {halyard_loadgen_binary(), halyard_refresp_binary()})
            if (access(bin, X_OK) != 0)
                GTEST_SKIP() << bin << " is not built (target halyard-loadgen, halyard-refresp)";
        LAB_SETUP_OR_SKIP(lab, 1);
    }

    // The load generator on the station against the daemon's address: the
    // key=value pairs of its line, or {} (its output in out).
    Figures loadgen(const std::vector<std::string>& args)
    {
        std::vector<std::string> argv{halyard_loadgen_binary(), "--target", "10.88.0.1", "--timeout", "5000"};
        argv.insert(argv.end(), args.begin(), args.end());
        int st = lab.run(lab_station1, argv, &out, 120.0);
        Figures f;
        size_t at = out.rfind("mode=");
        std::istringstream words(st == 0 && at != std::string::npos ? out.substr(at) : "");
        for (std::string w; words >> w;)
            if (size_t eq = w.find('='); eq != std::string::npos)
                f[w.substr(0, eq)] = w.substr(eq + 1);
        return f;
    }

    Lab lab;
    std::string out;
};

TEST_F(Bench, ReferenceResponderAndDaemonAnswerTheLoadGeneratorInBothModes)
{
    std::string line = std::string("(exec ") + halyard_refresp_binary() +
                       " --bind 10.88.0.1:137 --address 10.88.0.1 --seconds 300 </dev/null >/dev/null 2>&1) & echo $!";
    ASSERT_EQ(lab.run(lab_daemon, {"/bin/sh", "-c", line}, &out), 0) << out;
    pid_t pid = pid_t(atoi(out.c_str()));
    ASSERT_GT(pid, 0) << out;
    bool bound = false;
    for (int i = 0; i < 200 && !(bound = Lab::udp_port_bound(pid, 137)); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_TRUE(bound);
    for (const char* mode : {"query", "status"}) {
        SCOPED_TRACE(mode);
        Figures f = loadgen({"--mode", mode, "--name", "FILESERV<20>", "--name", "WORKGRP<1e>",
                             "--window", "64", "--count", "2000"});
        EXPECT_EQ((Figures{{"mode", f["mode"]}, {"requests", f["requests"]}, {"answered", f["answered"]},
                           {"positive", f["positive"]}, {"other", f["other"]}, {"lost", f["lost"]}}),
                  (Figures{{"mode", mode}, {"requests", "2000"}, {"answered", "2000"},
                           {"positive", "2000"}, {"other", "0"}, {"lost", "0"}})) << out;
    }
    int st = -1;
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_TRUE(lab.wait_exit(pid, 20.0, &st));
    EXPECT_EQ(lab_describe_status(st), "exited 0");

    // The daemon answers its own name once the claim is through, and no other.
    ASSERT_GT(lab.start_daemon(), 0) << lab.last_error();
    ASSERT_EQ(lab.halyardctl({"add", "BENCH<20>"}), 0);
    Figures f;
    for (int i = 0; i < 30 && f["positive"] != "1"; ++i) {
        f = loadgen({"--name", "BENCH<20>", "--count", "1", "--timeout", "500"});
        if (f["positive"] != "1")
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    ASSERT_EQ(f["positive"], "1") << out << lab.log();
    for (const char* mode : {"query", "status"}) {
        SCOPED_TRACE(mode);
        f = loadgen({"--mode", mode, "--name", "BENCH<20>", "--count", "500"});
        EXPECT_EQ(f["positive"] + " " + f["lost"], "500 0") << out;
        // A name query for a name nobody holds gets no answer; a directed
        // status request RCODE 3, which counts as other.
        f = loadgen({"--mode", mode, "--name", "NOBODY<20>", "--count", "20", "--timeout", "300"});
        EXPECT_EQ(f["requests"] + " " + f["positive"], "20 0") << out;
        EXPECT_EQ(f[mode == std::string("query") ? "lost" : "other"], "20") << out;
    }
}

}  // namespace
