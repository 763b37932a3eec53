#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <nl_types.h>

// Message lookup of log_catmsg and print_catmsg (declared in shr/logging.h).
// A message file holds "$set N" lines, each followed by lines "NUMBER text"
// or NUMBER "text"; other lines are comments.

constexpr const char* MSG_FILE_NAME = "kbsrvmsg";
constexpr size_t MSG_LINE_SIZE = 512;

// Text of message `number` of `set` in `file`, or `dflt` when the file has
// none. The text lives in a static buffer overwritten by the next call.
const char* msg_get(FILE* file, int set, int number, const char* dflt);

// Backslash escapes replaced in place; returns text. A backslash that ends
// the text is kept as it is.
char* fixup_string(char* text);

// The system message catalogue (locale from the environment); the catopen
// handle, or MSG_NO_CATALOGUE. Kept for the product's other programs: the
// daemon does not use it.
inline const nl_catd MSG_NO_CATALOGUE = reinterpret_cast<nl_catd>(-1);
nl_catd open_msgcatalog();

// The arguments a printf format takes, one letter each, in order, written to
// kinds (NUL-terminated): i int, l long, q long long, j intmax_t, z size_t,
// t ptrdiff_t, w wint_t, d double, D long double, s char*, S wchar_t*,
// p void*. Returns the count, or -1 for a conversion we do not pass on
// (%n, positional "$" arguments, unknown letters, a lone '%' at the end) or
// when kinds is too small.
int fmt_arg_kinds(const char* format, char* kinds, size_t size);

// Whether a replacement text may be printed with the arguments meant for
// `dflt`: it must take the same kinds of arguments in the same order, or a
// leading part of them (unused trailing arguments are harmless).
bool fmt_compatible(const char* text, const char* dflt);

// vfprintf that lets the format see at most max_args arguments: from the
// conversion that would take one more (or that is not understood) on, the
// format is written as it stands. Returns vfprintf's result, or -1.
[[gnu::format(printf, 2, 0)]] int vprint_limited(FILE* stream, const char* format, int max_args, va_list ap);
