#pragma once

// The NetBIOS name in its forms: the 16-byte name, the 32-letter first-level
// encoding (RFC 1001 14.1), the visible dotted text of a domain name (a dot
// or backslash inside a label escaped by a backslash), the wire domain of
// length-prefixed labels ended by a zero byte, and the text form of a name.
//
// A name goes on the wire as: n_encode into a text area; when nb_scope is
// not empty, "." and nb_scope appended; vd_to_d into the packet. Its wire
// length is then the bytes up to the first zero byte, plus one.

#include <cstddef>
#include <cstdint>

constexpr int NB_NAMELEN = 16;      // bytes of a NetBIOS name, compared exactly
constexpr int NB_ENCLEN = 32;       // letters of its first-level encoding
constexpr size_t NM_TEXTSIZE = 68;  // room for the text form of any name

// Writes the 32 letters 'A'..'P' of name and a zero byte (33 bytes of room).
void n_encode(char* out, const uint8_t* name);
// The 16 bytes of 32 encoded letters; a letter outside 'A'..'P' is not
// refused and simply yields another byte.
void n_decode(uint8_t* out, const char* in);

// One wire label (its length byte first) to visible text, within room bytes
// including the terminating zero. The length byte is used as it stands (no
// limit of 63, no pointers). Reports the output position of the zero byte
// and the input position after the label when the pointers are not null.
// 0, or -1 when the text does not fit.
int l_to_vl(char* out, const uint8_t* in, char** out_end, const uint8_t** in_next, int room);
// One label of visible text (up to a dot or the end) to the wire: the length
// byte (low 8 bits of the count), the label and a zero byte. Steps over the
// dot; reports the output position of the zero byte and the input position
// of the next label. The caller supplies enough room (the text's length + 2).
void vl_to_l(uint8_t* out, const char* in, uint8_t** out_end, const char** in_next);
// A wire domain to visible text in size bytes; a lone zero byte gives "".
// 0, or -1 when the text does not fit (the output is then partly written).
int d_to_vd(char* out, const uint8_t* in, int size);
// Visible text to a wire domain; at most strlen(in) + 3 bytes are written.
// A trailing dot adds no label; "" gives the single byte 0.
void vd_to_d(uint8_t* out, const char* in);

// The text form of a name (the NetBIOS universal address text without "N("
// and ")") to its 16 bytes; 0, or -1 for a text that does not parse or is
// longer than 124 characters.
int nm_strtonb(uint8_t* out, const char* text);
// The text form of a 16-byte name into out (NM_TEXTSIZE bytes); 0. Both
// format through uni_ntoa, overwriting the text it last returned.
int nm_nbtostr(char* out, const uint8_t* name);
// nm_nbtostr into a static buffer, overwritten by the next call.
const char* nm_printable(const uint8_t* name);
// Upper-cases the ASCII lower-case letters of text in place; bytes from
// 0x80 up are left as they are.
void n_upcase(char* text);
