#pragma once

// Reading a configuration file one construct at a time: a section head (tag)
// or a directive line (command), each a NULL-terminated word vector plus an
// optional comment. Underneath are the character reader (continued lines,
// line numbers, the saved text of the current line) and the tokenizer.
//
// Syntax:
//   - a backslash right before a newline joins the next physical line (as one
//     blank); line numbers still count physical lines from 1;
//   - blanks (space, tab) separate words; other control bytes and bytes from
//     0x80 up are word characters;
//   - '#' outside quotes starts a comment up to the end of the line, also
//     straight after a word (abc#x is the word abc and the comment "x");
//   - a double quote starts a quoted stretch inside a word, ended by the next
//     unescaped double quote (dropped): blanks, '#', '[' and ']' are ordinary
//     there, \" gives ", \\ gives \, any other backslash stays; a newline or
//     the end of the file inside quotes ends the word;
//   - '[' and ']' outside quotes are words of their own; a line starting with
//     '[' is a section head, ended by a ']' that is followed by the end of the
//     line, a comment or the end of the file; other brackets become words.
//
// One file is read at a time: the state is file-scope and not re-entrant.

#include <cstdio>

// Token and construct codes.
constexpr int VZ_PAR_EOL = 10;        // end of line
constexpr int VZ_PAR_LBRACK = '[';    // 91
constexpr int VZ_PAR_RBRACK = ']';    // 93
constexpr int VZ_PAR_WORD = 256;
constexpr int VZ_PAR_COMMENT = 257;
constexpr int VZ_PAR_EOF = 258;
constexpr int VZ_PAR_ERROR = 259;
constexpr int VZ_PAR_TAG = 260;       // section head construct
constexpr int VZ_PAR_CMD = 261;       // directive construct

// A logical line (continuations joined) longer than this many bytes is an
// error construct "line too long". A configuration line is a few dozen bytes;
// the limit keeps a hostile or corrupt file from growing our buffers without
// end, and it bounds every word, comment and word vector with it.
constexpr size_t VZ_PAR_MAXLINE = 64 * 1024;

// Error messages of the reader itself (given by vz_par_err). A memory
// shortage has no message (NULL); callers report it as "out of memory".
constexpr const char* VZ_PAR_MSG_LONG = "line too long";
// A NUL byte cannot be passed on in a C string without cutting the word or
// comment short, so a line holding one is refused as a whole.
constexpr const char* VZ_PAR_MSG_NUL = "NUL character in line";

// Resets / frees the state of all layers (word vector with its strings,
// comment, error message, token buffer, saved-line buffer).
void vz_par_init(FILE* f);
void vz_par_fini(FILE* f);

// Reads the next construct: VZ_PAR_TAG, VZ_PAR_CMD, VZ_PAR_EOF or
// VZ_PAR_ERROR. For a tag or command *argv is NULL-terminated and, like
// *comment (NULL when none; the text after '#' without the newline), stays
// valid until the next call; otherwise *argc is 0 and *argv, *comment NULL.
// An empty or comment-only line is a command with no words. After an error
// the rest of the line is skipped.
int vz_par_cons(FILE* f, int* argc, char*** argv, char** comment);

int vz_par_line();  // physical line on which the last construct started

// Hands over the last error's message (the caller frees it; NULL for a memory
// shortage) and saved line (valid until the next vz_par_cons), and clears both.
void vz_par_err(char** message, const char** saved);

// The text of the last construct's logical line without its newline, NULL if
// none (end of file, or taken by vz_par_err). Valid until the next vz_par_cons.
const char* vz_par_saved();

// Formats up to eight strings into a new heap string (free with free()).
// Only "%s" takes the next argument (NULL prints as "(null)"); "%%" gives
// '%'; any other '%' sequence is copied as it stands. The buffer is the
// format's length + 1 + the lengths of the first n arguments, n being the
// number of '%' in the format (at most 8), which the output never exceeds.
// NULL when memory runs out.
char* vz_par_mkstr(const char* fmt, const char* s1 = nullptr, const char* s2 = nullptr,
                   const char* s3 = nullptr, const char* s4 = nullptr, const char* s5 = nullptr,
                   const char* s6 = nullptr, const char* s7 = nullptr, const char* s8 = nullptr);

// Text of a token or construct code for diagnostics; a word gives the current
// token text.
const char* token_string(int code);
