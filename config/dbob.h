#pragma once

#include "shr/vzmkkvcv.h"

// Operations on whole objects (directories below the database root). Names
// are those of dbname.h; results are the codes of dballoc.h. Vectors and
// strings handed out are the caller's (vzdb_kvcfree, vzdb_strfree).

// The current object from "VZDB_CURRENT", read now: "system" (NULL name),
// then one component per non-empty "/"-separated piece. 0, or 1.
int vzdb_ob_current(vz_kvc** name);

// "VZDB_CURRENT=" and the object's path below the root ("" for the root).
int vzdb_ob_environ(const vz_kvc* name, char** entry);

// Creates the object and every missing object above it. 0; 2 when the base
// directory is missing; 3 outside the database; 5 when a directory cannot
// be made; 1.
int vzdb_ob_create(const vz_kvc* name);

int vzdb_ob_test(const vz_kvc* name, int* exists);  // *exists 1 or 0

// Sets the directory's permission bits (mode != -1, file-type bits cleared)
// and owner and group (-1 keeps one). 5 when a change fails; a missing
// object is left alone with 0.
int vzdb_ob_setugm(const vz_kvc* name, int owner, int group, int mode);

// Owner, group and full mode word of the directory; -1 in all three when it
// cannot be examined.
int vzdb_ob_getugm(const vz_kvc* name, int* owner, int* group, int* mode);

// One triple per child object (type, unescaped name), in directory order;
// an object that cannot be opened gives an empty list.
int vzdb_ob_list(const vz_kvc* name, vz_kvc** children);

// Deletes the object with its property list and children: 0, 3 or 5 as
// vzdb_tree_remove, or the conversion's 1.
int vzdb_ob_delete(const vz_kvc* name);
