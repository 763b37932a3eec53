#pragma once

#include <cstddef>

#include "shr/vzmkkvcv.h"

// Result codes of every database operation; 0 is success.
constexpr int VZDB_OK = 0;
constexpr int VZDB_NOMEM = 1;
constexpr int VZDB_NOHOME = 2;
constexpr int VZDB_BADNAME = 3;
constexpr int VZDB_NOOBJ = 4;
constexpr int VZDB_NOPRIV = 5;
constexpr int VZDB_OPENPROP = 6;
constexpr int VZDB_WRITEPROP = 7;
constexpr int VZDB_CREAT = 8;
constexpr int VZDB_LOCK = 9;
constexpr int VZDB_SEMLIMIT = 10;

// A growable scratch buffer: a request the buffer already meets changes
// nothing; a larger one frees it and allocates needed + 16 bytes (contents
// are not kept). 0, or 1 when the allocation fails (*buf is then NULL).
int vzdb_str_alloc(char** buf, size_t* size, size_t needed);

void vzdb_strfree(char* s);     // a string handed out by the database; NULL accepted
void vzdb_kvcfree(vz_kvc* vec); // a name or property list; NULL accepted

// The text of a result code; unknown codes are formatted into one static
// buffer that the next such call overwrites.
const char* vzdb_errstr(int code);
