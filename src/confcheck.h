#pragma once

#include <cstdio>

// A configuration check for people: the daemon's own reader runs over the
// file and every problem it meets is printed to out as
//   PREFIXFILE:LINE: what was found: what was expected
// ("warning: " after the line for what is only ignored), the log staying as
// it is. With `settings`, the settings that result follow, completed as the
// daemon would complete them on this host (port defaults, each interface's
// broadcast address and netmask). Every setting is cleared before and after.
// Returns the number of errors; warnings do not count.
int conf_check(const char* path, FILE* out, const char* prefix, bool settings);
