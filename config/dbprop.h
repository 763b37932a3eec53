#pragma once

#include "shr/vzmkkvcv.h"

// Property lists: the text file "=plist" in an object's directory, one
// "name value" line per property, newlines and backslashes in values
// escaped with a backslash. Every call opens the file, holds a record lock
// on its first byte (shared to read, exclusive to change, bounded by
// sf_locktimer) and closes it: each call sees other processes' changes.
// Results are the codes of dballoc.h: 4 no such object, 6 the file cannot
// be opened or created, 9 no lock, 7 a rewrite failed, 1 out of memory, and
// 3 for a property name that is empty or holds a space, newline or
// backslash, and 7 for a name and value longer than VZDB_LINE - 2 bytes
// together (neither could be read back; the file is not touched).

// The first value of name as a new string, or NULL when there is none.
int vzdb_prop_get(const vz_kvc* object, const char* name, char** value);
// The whole list (key = name, value = value) in file order; a missing file
// is an empty list. Lines without a space, starting with one, or with a
// NUL, newline or backslash in the name are skipped; a value ends at a NUL.
int vzdb_prop_list(const vz_kvc* object, vz_kvc** list);
// Removes every given name, then appends the given pairs whose value is not
// NULL, in the given order. The file is created when missing, with the
// directory's owner and group and its permission bits masked with 0666.
int vzdb_prop_lput(const vz_kvc* object, const vz_kvc* list);
int vzdb_prop_put(const vz_kvc* object, const char* name, const char* value);  // NULL deletes
int vzdb_prop_delete(const vz_kvc* object, const char* name);
// Adds delta to the count in name (atoi of its last value, 0 when absent)
// and moves it to the end; 10 with the file untouched when the count would
// exceed limit.
int vzdb_prop_semadd(const vz_kvc* object, const char* name, int delta, int limit);

// A logical line is cut to this many bytes less one; the rest is the next line.
constexpr int VZDB_LINE = 512;
