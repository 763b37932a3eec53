// halyard-clientbench: the client path of the name server, measured. It
// looks one name up through the request FIFOs again and again, timing each
// call, and prints one line of key=value figures.

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "client/nsclient.h"

namespace {

constexpr int EXIT_USAGE = 2;
constexpr long MAX_COUNT = 10000000;
constexpr long MAX_DURATION = 3600;   // seconds

[[noreturn]] void usage_error(const char* what, const char* val)
{
    fprintf(stderr, "halyard-clientbench: %s%s\n"
                    "usage: halyard-clientbench --name NAME<hh> [--count N] [--duration SEC]"
                    " [--timeout SEC] [--dir DIR]\n",
            what, val);
    exit(EXIT_USAGE);
}

double now_s()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

long parse_number(const char* text, long hi)
{
    char* end = nullptr;
    errno = 0;
    long v = strtol(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || v < 1 || v > hi)
        return -1;
    return v;
}

// The sample at share p of the sorted latencies, in microseconds.
double percentile(const std::vector<double>& sorted, double p)
{
    if (sorted.empty())
        return 0;
    size_t i = size_t(double(sorted.size() - 1) * p + 0.5);
    return sorted[std::min(i, sorted.size() - 1)] * 1e6;
}

}  // namespace

int main(int argc, char** argv)
{
    const char* text = nullptr;
    const char* dir = nullptr;
    long count = 10000, duration = 60, timeout = NSC_TIMEOUT;
    for (int i = 1; i < argc; i++) {
        const char* opt = argv[i];
        if (i + 1 >= argc)
            usage_error("option needs a value: ", opt);
        const char* val = argv[++i];
        if (strcmp(opt, "--name") == 0) {
            text = val;
        } else if (strcmp(opt, "--count") == 0) {
            if ((count = parse_number(val, MAX_COUNT)) < 0)
                usage_error("--count: 1 to 10000000: ", val);
        } else if (strcmp(opt, "--duration") == 0) {
            if ((duration = parse_number(val, MAX_DURATION)) < 0)
                usage_error("--duration: 1 to 3600 seconds: ", val);
        } else if (strcmp(opt, "--timeout") == 0) {
            if ((timeout = parse_number(val, 60)) < 0)
                usage_error("--timeout: 1 to 60 seconds: ", val);
        } else if (strcmp(opt, "--dir") == 0) {
            dir = val;
        } else {
            usage_error("unknown option ", opt);
        }
    }
    uint8_t name[16];
    if (text == nullptr)
        usage_error("--name is required", "");
    if (nsc_strtonb(name, text) != 0)
        usage_error("--name: not a name NAME<hh>: ", text);

    NscConn conn;
    nsc_setup(&conn, dir, int(timeout));
    std::vector<double> lat;
    lat.reserve(size_t(count));
    long ok = 0, failed = 0;
    const char* why = nullptr;
    double start = now_s(), stop_at = start + double(duration), end = start;
    for (long i = 0; i < count && end < stop_at; i++) {
        NscLookup lu;
        double t0 = now_s();
        int rc = nsc_lookup(&conn, name, &lu);
        end = now_s();
        lat.push_back(end - t0);
        if (rc == 0 && lu.status == NSC_OK) {
            ok++;
        } else {
            failed++;
            if (why == nullptr)
                why = rc != 0 ? conn.why : nsc_strstatus(NS_LOOKUP, lu.status);
        }
    }
    std::sort(lat.begin(), lat.end());
    double secs = end - start;
    printf("lookups=%zu ok=%ld failed=%ld rate=%.0f p50_us=%.1f p99_us=%.1f\n", lat.size(), ok,
           failed, secs > 0 ? double(lat.size()) / secs : 0, percentile(lat, 0.50),
           percentile(lat, 0.99));
    if (why != nullptr)
        fprintf(stderr, "halyard-clientbench: first failure: %s\n", why);
    return failed == 0 ? 0 : 1;
}
