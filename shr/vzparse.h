#pragma once

// Table-driven reading of a configuration file: the directives of the
// sections that a pattern selects go to handlers looked up by their first
// word. The file syntax and the construct reader are in shr/vzparcons.h.
//
//   [transport tcpip]        # a section head: its words are the tag
//   NB-name-port 137         # a directive: argv {"NB-name-port", "137"}
//
// Pointers handed to callbacks (argv, tag, comment, message, saved line) are
// valid only during the call. Handlers may change the bytes of argv's words.
// One parse at a time; nothing survives between parses.

#include <cstdio>

#include "shr/vzparcons.h"

// Results of vz_parse and vz_par_tab besides 0 and a handler's own values.
constexpr int VZ_PAR_FAIL = -1;     // an error construct that the error callback did not accept
constexpr int VZ_PAR_UNKNOWN = -2;  // unknown directive and no default entry, not accepted
constexpr int VZ_PAR_NOMEM = -3;    // the selected section head could not be copied

// A directive handler: npat is the number of pattern words, tag the held
// section head (npat words, NULL-terminated), argc/argv the directive's words
// (argc may be 0 for an empty or comment-only line reaching a default entry),
// line its first physical line, comment the text after '#' or NULL.
// A negative result ends the parse with that result.
using vz_par_handler = int (*)(int npat, char** tag, int argc, char** argv, int line, const char* comment);

// The error callback: a word count and vector (the held tag, or the section
// head that could not be held), the line, the message, and the text of the
// line or NULL. A negative result ends the parse.
using vz_par_errfn = int (*)(int argc, char** argv, int line, const char* message, const char* saved);

// The tag callback, for each selected section head. A negative result ends
// the parse with that result.
using vz_par_tagfn = int (*)(int argc, char** argv, int line, const char* comment);

// A handler table entry. A table ends with a NULL name; the first entry whose
// name is "" is the default entry, which gets every directive that no other
// entry names (and the lines without words). Names match case-sensitively.
// (The entry type is not called vz_par_tab: that name is the dispatch.)
struct vz_par_tabent {
    const char* name;
    vz_par_handler handler;
};

// Parses f from its position to its end and leaves it open, positioned where
// reading stopped. pattern is a NULL-terminated word vector: a section head
// selects when it has exactly as many words and every non-empty pattern word
// equals the head's word at its place ("" matches any word). Directives
// before the first head or under a head that does not select are skipped,
// error lines among them included. errfn and tagfn may be NULL.
// Returns 0 at the end of the file, or the first negative result:
//   - a handler's or the tag callback's own negative value;
//   - VZ_PAR_FAIL for an error line in a selected section (a memory shortage,
//     VZ_PAR_MSG_LONG, VZ_PAR_MSG_NUL) when errfn is NULL or returns < 0;
//   - VZ_PAR_UNKNOWN for an unrecognized directive (see vz_par_tab);
//   - VZ_PAR_NOMEM when a selected head cannot be copied and errfn is NULL or
//     returns < 0 ("out of memory").
// An error line that errfn accepts is dropped and parsing goes on.
int vz_parse(FILE* f, vz_par_errfn errfn, vz_par_tagfn tagfn, const char* const* pattern,
             const vz_par_tabent* table);

// Dispatches one directive: the handler of the first entry named argv[0], else
// of the default entry, gets (npat, tag, argc, argv, line, comment) and its
// result is returned. Without a default entry a line without words gives 0,
// and an unknown directive gives VZ_PAR_UNKNOWN without errfn; with errfn the
// message "unrecognized directive: ``NAME''" goes to errfn(npat, tag, line,
// message, saved line), and its result is returned, a negative one as
// VZ_PAR_UNKNOWN. A NULL table is an empty one; an entry with a NULL handler
// accepts its directives and does nothing.
int vz_par_tab(vz_par_errfn errfn, const vz_par_tabent* table, int npat, char** tag, int argc,
               char** argv, int line, const char* comment);

// The held section head.
void vz_tag_init();
void vz_tag_fini();
// Copies argc words; returns the NULL-terminated copy (valid until the next
// vz_tag_hold or vz_tag_fini), or NULL when memory runs out.
char** vz_tag_hold(int argc, char* const* argv);
