#pragma once

#include <cstdarg>
#include <cstdio>

// The operator log: groups of a time-stamp line and tab-led messages, every
// line ending in CR LF; the file is opened and closed for each message.
constexpr int LOG_SET = 10;  // the daemon's message set
// The program's name, first argument of its operator messages: "Halyard",
// or the agent's own.
extern const char* prog;

int open_log(const char* path);  // 0, or -1 (logging off); "" turns it off
void log_new();                  // the next message starts a new group
[[gnu::format(printf, 1, 2)]] int log_msg(const char* format, ...);
// log_msg with the arguments as a list; the format sees at most six of them.
[[gnu::format(printf, 1, 0)]] int log_vmsg(const char* format, va_list ap);
// Message `number` of `set` from the message file, else `dflt`, logged.
[[gnu::format(printf, 3, 4)]] int log_catmsg(int set, int number, const char* dflt, ...);
[[gnu::format(printf, 3, 0)]] int log_vcatmsg(int set, int number, const char* dflt, va_list ap);
[[gnu::format(printf, 4, 5)]] int print_catmsg(FILE* stream, int set, int number, const char* dflt, ...);
int close_log();
