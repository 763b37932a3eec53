#pragma once

// The C library's strtoul contract, written out so that it behaves the same
// everywhere: blanks, a sign ('-' negates), base 0 or 16 prefixes, ERANGE.
unsigned long vz_strtoul(const char* s, char** end, int base);

// A hexadecimal digit's value, 0 to 15, or -1 for any other character.
int vz_hexval(int c);
