#pragma once

#include <cstddef>

#include "shr/vzmkkvcv.h"

// The database's fixed places: every object lives at or below VZDB_ROOT.
constexpr const char* VZDB_BASE = "/var/opt/KORRbase";
constexpr const char* VZDB_ROOTNAME = "rtdb";
constexpr const char* VZDB_ROOT = "/var/opt/KORRbase/rtdb";
// Names the current object as a path below the root, e.g. "realm=NB/program=x".
constexpr const char* VZDB_CURRENT_ENV = "VZDB_CURRENT";

// An object name is a key/value/comment vector: key = component type, value =
// component name (NULL reads as ""), comment NULL, top down. A first type of
// exactly "system" makes it absolute (its value is ignored); anything else is
// relative to the current object; an empty vector (or NULL) is the current
// object itself.

// The object's directory as a new heap string (free with vzdb_strfree).
// 0, or 1 when memory runs out. The current object is read from the
// environment at the first conversion of the process and kept.
int vzdb_ob2dir(const vz_kvc* name, char** path);

// Parses one directory entry "type=escaped-name" (no "=": all type, empty
// name) and appends it to an initialised vector. 0, or non-zero when memory
// runs out; the whole vector is then freed and *vec and *state are 0.
int vzdb_dir2ob1(vz_kvc** vec, vz_kvcstate* state, const char* entry);

// The current object's directory, in a scratch buffer valid until the next
// call; *rootlen is the length of the root's path, *curlen of the result.
// NULL when memory runs out.
char* current_2_path(size_t* rootlen, size_t* curlen);

// All components of name as directory entries joined by "/", in a scratch
// buffer valid until the next call, with its length; "" for an empty name.
char* object_2_path(const vz_kvc* name, size_t* len);

// Escaping of a component name in a directory entry: "/" is "\." and "\" is "\\".
size_t obname_2_fnlen(const char* name);          // escaped length, without the NUL
void obname_2_fname(char* out, const char* name); // out holds fnlen + 1 bytes
// Undoes the escaping; out holds strlen(escaped) + 1 bytes. A backslash before
// any other character is dropped and the character kept; a final one is dropped.
void fname_2_obname(char* out, const char* escaped);
