#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// One dump line: 16 columns of "hh " (three blanks past the data), four
// blanks, 16 characters (printable ASCII as itself, '.' otherwise, a blank
// past the data): 68 characters and a NUL.
constexpr size_t FXDUMP_LINE_LEN = 68;

// Formats the first min(len, 16) bytes of data into line (at least
// FXDUMP_LINE_LEN + 1 bytes); returns line.
char* fxdump(char* line, const void* data, size_t len);
// A tab, one dump line and a newline for every 16 bytes of data.
void dump_bytes(FILE* stream, const void* data, size_t len);
// "Packet contents:", the dump of a datagram and an empty line.
void dg_dump(FILE* stream, const uint8_t* data, int len);
