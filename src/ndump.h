#pragma once

// The trace dump of a name-service packet record: a summary always, the
// RFC 1001 fields from level 3, the full hex dump as well from level 5.

#include <cstdint>
#include <cstdio>

#include "shr/fxdump.h"
#include "src/getnpack.h"

// Writes the dump of rec at level and flushes stream.
void ndump(FILE* stream, const npkt* rec, int level);
// Summary texts, each in its own static buffer, overwritten by the next call.
const char* str_type(const npkt* rec);
const char* str_flags(uint32_t flags);
// The byte sections over the first len bytes of a packet.
void nd_hex(FILE* stream, const uint8_t* bytes, int len);
void nd_rfc(FILE* stream, const uint8_t* bytes, int len);
// One line each of the RFC section, from header bytes 2 and 3 and the name.
void dump_rfc_type(FILE* stream, int b2);
void dump_flags(FILE* stream, int b2, int b3);
void dump_rcode(FILE* stream, int b3);
void dump_name(FILE* stream, const uint8_t* encoded);  // the 32 letters
