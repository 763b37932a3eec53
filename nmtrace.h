#pragma once

#include <cstdio>

// Trace levels by dimension; a statement of level N writes when the trace
// file is open and its dimension's level is at least N.
extern int tc_in;     // received datagrams
extern int tc_out;    // sent datagrams
extern int tc_proc;   // processing steps
extern int tc_lock;
extern int tc_err;    // error reports
extern int tc_nblib;
extern FILE* tcfile;  // null when there is no trace file

// getopt for the caller's options; consumes "-z name=value" itself and opens
// the trace file at the end of the options when a dimension was set.
int tc_getopt(int argc, char* const argv[], const char* options);
// The same scan with its warnings on the standard error stream, but nothing
// set and no file opened; the command line can then be scanned again.
void tc_checkopt(int argc, char* const argv[], const char* options);
int* tc_findvar(const char* name);                        // null when unknown
int tc_enumdim(int* index, const char** name, int* value);  // 1, or 0 past the last
int tc_reset();                                           // the first-seen optind
[[gnu::format(printf, 1, 2)]] int tc_printf(const char* format, ...);

// The one trace check: nothing is formatted, and no argument is evaluated,
// unless the line will be written.
#define TRACE(dim, level, ...)                                  \
    do {                                                        \
        if (tcfile != nullptr && tc_##dim >= (level)) [[unlikely]] \
            tc_printf(__VA_ARGS__);                             \
    } while (0)
