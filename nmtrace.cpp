#include "nmtrace.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "shr/logcatmsg.h"
#include "shr/vzopen.h"

int tc_in = 0;
int tc_out = 0;
int tc_proc = 0;
int tc_lock = 0;
int tc_err = 0;
int tc_nblib = 0;
FILE* tcfile = nullptr;

namespace {

constexpr const char* DEFAULT_TRACE_FILE = "halyard.trc";
constexpr size_t OPTIONS_MAX = 97;   // characters of the caller's options kept
constexpr size_t ZARG_MAX = 99;      // characters of one -z argument kept
constexpr int TRACE_MAX_ARGS = 10;

struct Dim {
    const char* name;
    int* level;
};
// Also the order of tc_enumdim.
constexpr Dim dims[] = {
    {"in", &tc_in}, {"out", &tc_out}, {"proc", &tc_proc},
    {"lock", &tc_lock}, {"err", &tc_err}, {"nblib", &tc_nblib},
};
constexpr int DIM_CT = int(sizeof dims / sizeof dims[0]);

char tfname[128];  // the name from the option; its expansion once opened
int saw_a_z = 0;
int saved_optind = 1;
bool ever_called = false;
bool only_checking = false;  // tc_checkopt: warn, open nothing

void first_call()
{
    if (ever_called)
        return;
    ever_called = true;
    saved_optind = optind;
}

// atoi's reading (blanks, a sign, leading digits, 0 for none) without its
// undefined overflow: out-of-range values stop at INT_MIN or INT_MAX.
int level_value(const char* s)
{
    errno = 0;
    long v = strtol(s, nullptr, 10);
    if (v > INT_MAX)
        return INT_MAX;
    if (v < INT_MIN)
        return INT_MIN;
    return int(v);
}

void handle_z(const char* prog, const char* optarg_text)
{
    char arg[ZARG_MAX + 1];
    snprintf(arg, sizeof arg, "%s", optarg_text != nullptr ? optarg_text : "");
    char* eq = strchr(arg, '=');
    // An argument without "=" names nothing with a value: it only earns the
    // warning, so "-z in" cannot raise a level or open a trace file.
    if (eq == nullptr) {
        fprintf(stderr, "%s: warning: unrecognized trace option %s\n", prog, arg);
        return;
    }
    *eq = '\0';
    const char* value = eq + 1;
    if (strcmp(arg, "tracefile") == 0) {
        snprintf(tfname, sizeof tfname, "%s", value);
        return;
    }
    int* level = tc_findvar(arg);
    if (level == nullptr) {
        fprintf(stderr, "%s: warning: unrecognized trace option %s\n", prog, arg);
        return;
    }
    *level = level_value(value);
    saw_a_z = 1;
}

// "%p" becomes the process id, "%%" one '%', '%' and another character that
// character; the result is cut to fit tfname.
void expand_name()
{
    char out[sizeof tfname];
    size_t n = 0;
    auto put = [&](char c) {
        if (n + 1 < sizeof out)
            out[n++] = c;
    };
    for (const char* p = tfname; *p != '\0'; p++) {
        if (*p != '%') {
            put(*p);
            continue;
        }
        p++;
        if (*p == '\0')
            break;  // a '%' that ends the name is dropped
        if (*p == 'p') {
            char pid[24];
            snprintf(pid, sizeof pid, "%d", int(getpid()));
            for (const char* d = pid; *d != '\0'; d++)
                put(*d);
        } else {
            put(*p);
        }
    }
    out[n] = '\0';
    memcpy(tfname, out, n + 1);
}

void open_trace_file()
{
    if (tcfile != nullptr)
        return;  // already open from an earlier scan: never a second stream
    if (tfname[0] == '\0')
        snprintf(tfname, sizeof tfname, "%s", DEFAULT_TRACE_FILE);
    expand_name();
    // The home directory belongs to the administrative user: a link there
    // must not make the super-user append to the file behind it.
    tcfile = vz_fopen_plain(tfname, "a");
    if (tcfile == nullptr && vz_refused(errno))
        vz_log_refused(tfname, errno);
}

}  // namespace

int tc_getopt(int argc, char* const argv[], const char* options)
{
    first_call();
    const char* prog = argc > 0 && argv != nullptr && argv[0] != nullptr ? argv[0] : "";
    if (options == nullptr)
        options = "";
    if (strchr(options, 'z') != nullptr) {
        fprintf(stderr, "%s: tc_getopt error: multiply defined z option\n", prog);
        return -1;
    }
    // The caller's leading mode characters ('+', '-', ':') keep their meaning
    // only at the front, so "z:" goes after them.
    size_t mode = strspn(options, "+-:");
    if (mode > 3)
        mode = 3;
    char optstring[3 + 2 + OPTIONS_MAX + 1];
    snprintf(optstring, sizeof optstring, "%.*sz:%.*s", int(mode), options, int(OPTIONS_MAX),
             options + mode);
    int c;
    while ((c = getopt(argc, argv, optstring)) == 'z')
        handle_z(prog, optarg);
    if (c == -1 && saw_a_z && !only_checking)
        open_trace_file();
    return c;
}

void tc_checkopt(int argc, char* const argv[], const char* options)
{
    only_checking = true;
    while (tc_getopt(argc, argv, options) != -1) {
    }
    only_checking = false;
    tc_reset();
}

int* tc_findvar(const char* name)
{
    if (name == nullptr)
        return nullptr;
    for (const Dim& d : dims)
        if (strcmp(d.name, name) == 0)
            return d.level;
    return nullptr;
}

int tc_enumdim(int* index, const char** name, int* value)
{
    if (index == nullptr || *index < 0 || *index >= DIM_CT)
        return 0;
    if (name != nullptr)
        *name = dims[*index].name;
    if (value != nullptr)
        *value = *dims[*index].level;
    (*index)++;
    return 1;
}

int tc_reset()
{
    first_call();
    if (tcfile != nullptr)
        fclose(tcfile);
    tcfile = nullptr;
    for (const Dim& d : dims)
        *d.level = 0;
    saw_a_z = 0;
    tfname[0] = '\0';
    // glibc keeps a half-read cluster of letters ("-nz") and its argument
    // permutation beside optind; only optind = 0 clears them, and it starts
    // again at 1. An index other than 1 is set as it is.
    optind = saved_optind <= 1 ? 0 : saved_optind;
    return saved_optind;
}

int tc_printf(const char* format, ...)
{
    if (tcfile == nullptr)
        return -1;
    va_list ap;
    va_start(ap, format);
    int r = vprint_limited(tcfile, format, TRACE_MAX_ARGS, ap);
    va_end(ap);
    // Flushed line by line so that the trace up to a crash is on disk.
    fflush(tcfile);
    return r;
}
