#pragma once

// Directory trees of objects. Paths are absolute directory paths as
// vzdb_ob2dir makes them; results are the database codes of dballoc.h.

// Creates every missing directory of path below the root, mode 0775 under
// umask 0. 0; 3 when path is not an object path inside the database; 5 when
// a directory cannot be created (or a component is not a directory).
int vzdb_tree_make(const char* path);

// Removes an object's directory with its property list and child objects,
// depth first. A directory that keeps a foreign entry (no "=") stays, with
// whatever could be removed below it gone. 0; 3 for the root or a path that
// is not an object path inside the database; 5 when anything stays.
int vzdb_tree_remove(const char* path);

// *inside = 1 when path starts with the database root ("/var/opt/KORRbase"
// "/rtdb"), else 0. 0, or 1 when memory runs out on the first call.
int inside_vzdb(const char* path, int* inside);

// 1 when path is the root or the root followed by "/" and components that
// all look like object entries ("type=name", "=" not first); else 0. Types
// are not escaped, so this is what keeps a type such as "../x" from leading
// a name out of the database.
int vzdb_path_ok(const char* path);
