#include "shr/vzparcons.h"

#include <cstdlib>
#include <cstring>

#include "shr/vzstrdup.h"

namespace {

// ---- Character reader -----------------------------------------------------

enum class ReadFault { none, memory, too_long, nul };

struct Prel {
    int pushed = -1;          // pushed-back character, -1 when none
    int line = 1;             // line of the character last returned
    int next_line = 1;        // line of the next character read
    char* saved = nullptr;    // logical line read so far, NUL-terminated
    size_t saved_cap = 0;
    size_t saved_len = 0;
    bool fresh = false;       // the next character held starts a new line
    int lastc = -1;           // last character read from the stream
    ReadFault fault = ReadFault::none;
};
Prel rd;

constexpr size_t kSavedStart = 100;

// Grows buf (doubling from start) so that it holds need bytes, never beyond
// limit bytes. False, with buf unchanged, when that is impossible.
bool grow(char** buf, size_t* cap, size_t need, size_t start, size_t limit)
{
    if (need <= *cap)
        return true;
    if (need > limit)
        return false;
    size_t n = *cap ? *cap : start;
    while (n < need)
        n *= 2;
    if (n > limit)
        n = limit;
    auto* p = static_cast<char*>(realloc(*buf, n));
    if (p == nullptr)
        return false;
    *buf = p;
    *cap = n;
    return true;
}

void prel_init()
{
    free(rd.saved);
    rd = Prel{};
    if (grow(&rd.saved, &rd.saved_cap, 1, kSavedStart, VZ_PAR_MAXLINE + 1))
        rd.saved[0] = '\0';
}

void prel_fini()
{
    free(rd.saved);
    rd = Prel{};
}

// Keeps c in the saved line. A newline is not stored; it marks the line as
// complete, so that the next character starts a new one.
bool prel_holdc(int c)
{
    rd.lastc = c;
    if (rd.fresh) {
        rd.saved_len = 0;
        if (rd.saved != nullptr)
            rd.saved[0] = '\0';
        rd.fresh = false;
    }
    if (c == '\n') {
        rd.fresh = true;
        return true;
    }
    // VZ_PAR_MAXLINE text bytes plus the terminator.
    if (!grow(&rd.saved, &rd.saved_cap, rd.saved_len + 2, kSavedStart, VZ_PAR_MAXLINE + 1)) {
        rd.fault = rd.saved_len + 2 > VZ_PAR_MAXLINE + 1 ? ReadFault::too_long : ReadFault::memory;
        return false;
    }
    rd.saved[rd.saved_len++] = static_cast<char>(c);
    rd.saved[rd.saved_len] = '\0';
    return true;
}

// The next character, EOF (-1) or VZ_PAR_ERROR (the reason in rd.fault).
int prel_getc(FILE* f)
{
    if (rd.pushed != -1) {
        int c = rd.pushed;
        rd.pushed = -1;
        return c;
    }
    rd.line = rd.next_line;
    int c = getc(f);
    if (c == EOF)
        return EOF;
    if (c == '\0') {
        rd.lastc = c;
        rd.fault = ReadFault::nul;
        return VZ_PAR_ERROR;
    }
    if (c == '\n') {
        rd.next_line++;
    } else if (c == '\\') {
        int c2 = getc(f);
        if (c2 == '\n') {
            rd.next_line++;
            c = ' ';
        } else if (c2 != EOF) {
            ungetc(c2, f);
        }
    }
    return prel_holdc(c) ? c : VZ_PAR_ERROR;
}

void prel_ungetc(int c) { rd.pushed = c; }
void prel_clrget() { rd.pushed = -1; }
int prel_line() { return rd.line; }
int prel_lastc() { return rd.lastc; }
const char* prel_saved() { return rd.saved; }

// Reads on, without saving, to the end of the logical line or of the file,
// after an error in its middle.
void prel_skipline(FILE* f)
{
    int c = rd.pushed;
    rd.pushed = -1;
    for (;;) {
        if (c == '\n')
            break;
        c = getc(f);
        if (c == EOF)
            return;
        if (c == '\\') {
            int c2 = getc(f);
            if (c2 == '\n')
                rd.next_line++;
            else if (c2 != EOF)
                ungetc(c2, f);
        } else if (c == '\n') {
            rd.next_line++;
        }
    }
    rd.lastc = '\n';
    rd.fresh = true;
}

// ---- Tokenizer --------------------------------------------------------------

struct Scan {
    int pushed = -1;          // pushed-back token, -1 when none
    char* text = nullptr;     // token text, NUL-terminated
    size_t cap = 0;
    size_t len = 0;
    int line = 0;             // line on which the last token started
    const char* err = nullptr;  // message of the last error token, NULL: memory
};
Scan sc;

constexpr size_t kTokStart = 32;

void tok_init()
{
    sc.len = 0;
    if (sc.text != nullptr)
        sc.text[0] = '\0';
}

bool tok_addc(int c)
{
    // A token never outgrows its line, which is bounded by VZ_PAR_MAXLINE.
    if (!grow(&sc.text, &sc.cap, sc.len + 2, kTokStart, VZ_PAR_MAXLINE + 1))
        return false;
    sc.text[sc.len++] = static_cast<char>(c);
    sc.text[sc.len] = '\0';
    return true;
}

void scan_init()
{
    free(sc.text);
    sc = Scan{};
    if (grow(&sc.text, &sc.cap, 1, kTokStart, VZ_PAR_MAXLINE + 1))
        sc.text[0] = '\0';
    prel_init();
}

void scan_fini()
{
    free(sc.text);
    sc = Scan{};
    prel_fini();
}

// An error token: the reader's reason, or a memory shortage.
int scan_fail(bool reader)
{
    sc.err = nullptr;
    if (reader && rd.fault == ReadFault::too_long)
        sc.err = VZ_PAR_MSG_LONG;
    else if (reader && rd.fault == ReadFault::nul)
        sc.err = VZ_PAR_MSG_NUL;
    tok_init();
    return VZ_PAR_ERROR;
}

// A comment: everything after the '#' up to the newline (pushed back, so that
// the line still ends) or the end of the file.
int scan_comment(FILE* f)
{
    tok_init();
    for (;;) {
        int c = prel_getc(f);
        if (c == VZ_PAR_ERROR)
            return scan_fail(true);
        if (c == EOF)
            break;
        if (c == '\n') {
            prel_ungetc(c);
            break;
        }
        if (!tok_addc(c))
            return scan_fail(false);
    }
    return VZ_PAR_COMMENT;
}

bool ends_word(int c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '#' || c == '[' || c == ']';
}

int scan_word(FILE* f)
{
    tok_init();
    for (;;) {
        int c = prel_getc(f);
        if (c == VZ_PAR_ERROR)
            return scan_fail(true);
        if (c == EOF)
            return VZ_PAR_WORD;
        if (ends_word(c)) {
            prel_ungetc(c);
            return VZ_PAR_WORD;
        }
        if (c != '"') {
            if (!tok_addc(c))
                return scan_fail(false);
            continue;
        }
        // A quoted stretch; it never spans lines.
        for (;;) {
            c = prel_getc(f);
            if (c == VZ_PAR_ERROR)
                return scan_fail(true);
            if (c == EOF)
                return VZ_PAR_WORD;
            if (c == '\n') {
                prel_ungetc(c);
                return VZ_PAR_WORD;
            }
            if (c == '"')
                break;
            if (c == '\\') {
                int c2 = prel_getc(f);
                if (c2 == VZ_PAR_ERROR)
                    return scan_fail(true);
                if (c2 == '"' || c2 == '\\') {
                    c = c2;
                } else if (c2 != EOF) {
                    prel_ungetc(c2);  // looked at again as a quoted character
                }
            }
            if (!tok_addc(c))
                return scan_fail(false);
        }
    }
}

int scan(FILE* f)
{
    if (sc.pushed != -1) {
        int t = sc.pushed;
        sc.pushed = -1;
        return t;
    }
    int c;
    do
        c = prel_getc(f);
    while (c == ' ' || c == '\t');
    sc.line = prel_line();
    switch (c) {
    case EOF:
        return VZ_PAR_EOF;
    case VZ_PAR_ERROR:
        return scan_fail(true);
    case '\n':
    case '[':
    case ']':
        return c;
    case '#':
        return scan_comment(f);
    default:
        prel_ungetc(c);
        return scan_word(f);
    }
}

void scan_back(int t) { sc.pushed = t; }
int scan_line() { return sc.line; }
const char* scan_saved() { return prel_saved(); }

// After an error: finish the line it happened on, so that reading goes on
// with the next one. Returns that line's saved text.
const char* scan_errskip(FILE* f)
{
    sc.pushed = -1;
    if (prel_lastc() == '\n')
        prel_clrget();
    else
        prel_skipline(f);
    return scan_saved();
}

// ---- Construct builder ------------------------------------------------------

struct Cons {
    char** words = nullptr;   // slots at nwords and beyond may hold stale strings
    size_t slots = 0;
    size_t nwords = 0;
    char* comment = nullptr;
    char* errmsg = nullptr;
    const char* saved = nullptr;
    int line = 0;
};
Cons cs;

constexpr size_t kWordsStart = 32;

void cons_free()
{
    if (cs.words != nullptr)
        for (size_t i = 0; i < cs.slots; i++)
            free(cs.words[i]);
    free(cs.words);
    free(cs.comment);
    free(cs.errmsg);
    cs = Cons{};
}

// Room for nwords + 1 words and the terminator.
bool cons_room()
{
    size_t need = cs.nwords + 2;
    if (need <= cs.slots)
        return true;
    size_t n = cs.slots ? cs.slots * 2 : kWordsStart;
    while (n < need)
        n *= 2;
    auto* p = static_cast<char**>(realloc(cs.words, n * sizeof(char*)));
    if (p == nullptr)
        return false;
    memset(p + cs.slots, 0, (n - cs.slots) * sizeof(char*));
    cs.words = p;
    cs.slots = n;
    return true;
}

// Starts an empty, terminated vector.
bool cons_start()
{
    cs.nwords = 0;
    free(cs.comment);
    cs.comment = nullptr;
    if (cs.words == nullptr && !cons_room())
        return false;
    free(cs.words[0]);
    cs.words[0] = nullptr;
    return true;
}

bool cons_addw(const char* w)
{
    if (!cons_room())
        return false;
    char* copy = vz_strdup(w);
    if (copy == nullptr)
        return false;
    free(cs.words[cs.nwords]);
    cs.words[cs.nwords++] = copy;
    free(cs.words[cs.nwords]);  // a stale string in the new terminator slot
    cs.words[cs.nwords] = nullptr;
    return true;
}

bool cons_comment(const char* text)
{
    char* copy = vz_strdup(text);
    if (copy == nullptr)
        return false;
    free(cs.comment);
    cs.comment = copy;
    return true;
}

// The rest of the construct is lost: skip its line. The message is the error
// token's (NULL for a memory shortage).
int cons_error(FILE* f, const char* msg)
{
    free(cs.errmsg);
    cs.errmsg = msg != nullptr ? vz_strdup(msg) : nullptr;
    cs.saved = scan_errskip(f);
    cs.nwords = 0;
    if (cs.words != nullptr) {
        free(cs.words[0]);
        cs.words[0] = nullptr;
    }
    free(cs.comment);
    cs.comment = nullptr;
    return VZ_PAR_ERROR;
}

// A directive line (kind VZ_PAR_CMD): every word up to and including the
// end of the line. A section head (VZ_PAR_TAG): from its '[' up to a ']'
// that ends the line (before a comment or the end of the file), or to the
// end of the line.
int par_line(FILE* f, int kind)
{
    const bool head = kind == VZ_PAR_TAG;
    if (head)
        scan(f);  // the '[' pushed back by vz_par_cons
    for (;;) {
        int t = scan(f);
        switch (t) {
        case VZ_PAR_WORD:
            if (!cons_addw(sc.text != nullptr ? sc.text : ""))
                return cons_error(f, nullptr);
            break;
        case '[':
            if (!cons_addw("["))
                return cons_error(f, nullptr);
            break;
        case ']': {
            // Only a head looks past a ']' (VZ_PAR_WORD: nothing looked at).
            int next = head ? scan(f) : VZ_PAR_WORD;
            if (next == VZ_PAR_EOL || next == VZ_PAR_EOF || next == VZ_PAR_COMMENT) {
                scan_back(next);
                break;  // the closing bracket; what follows is read below
            }
            if (next == VZ_PAR_ERROR)
                return cons_error(f, sc.err);
            if (!cons_addw("]"))
                return cons_error(f, nullptr);
            if (head)
                scan_back(next);
            break;
        }
        case VZ_PAR_COMMENT:
            if (!cons_comment(sc.text != nullptr ? sc.text : ""))
                return cons_error(f, nullptr);
            break;
        case VZ_PAR_EOL:
            return kind;
        case VZ_PAR_EOF:
            scan_back(t);
            return kind;
        default:
            return cons_error(f, sc.err);
        }
    }
}

}  // namespace

void vz_par_init(FILE*)
{
    cons_free();
    scan_init();
    cs.words = static_cast<char**>(calloc(kWordsStart, sizeof(char*)));
    if (cs.words != nullptr)
        cs.slots = kWordsStart;
}

void vz_par_fini(FILE*)
{
    cons_free();
    scan_fini();
}

int vz_par_cons(FILE* f, int* argc, char*** argv, char** comment)
{
    *argc = 0;
    *argv = nullptr;
    *comment = nullptr;
    int t = scan(f);
    cs.line = scan_line();
    free(cs.errmsg);
    cs.errmsg = nullptr;
    cs.saved = nullptr;
    if (t == VZ_PAR_EOF) {
        scan_back(t);  // every later call ends the same way
        return VZ_PAR_EOF;
    }
    if (t == VZ_PAR_ERROR)
        return cons_error(f, sc.err);
    if (!cons_start())
        return cons_error(f, nullptr);
    scan_back(t);
    int r = par_line(f, t == '[' ? VZ_PAR_TAG : VZ_PAR_CMD);
    if (r == VZ_PAR_ERROR)
        return r;
    cs.saved = prel_saved();
    *argc = static_cast<int>(cs.nwords);
    *argv = cs.words;
    *comment = cs.comment;
    return r;
}

int vz_par_line() { return cs.line; }

void vz_par_err(char** message, const char** saved)
{
    *message = cs.errmsg;
    *saved = cs.saved;
    cs.errmsg = nullptr;
    cs.saved = nullptr;
}

const char* vz_par_saved() { return cs.saved; }

char* vz_par_mkstr(const char* fmt, const char* s1, const char* s2, const char* s3, const char* s4,
                   const char* s5, const char* s6, const char* s7, const char* s8)
{
    const char* args[8] = {s1, s2, s3, s4, s5, s6, s7, s8};
    for (auto& a : args)
        if (a == nullptr)
            a = "(null)";
    size_t n = 0;
    for (const char* p = fmt; *p != '\0'; p++)
        if (*p == '%')
            n++;
    if (n > 8)
        n = 8;
    size_t size = strlen(fmt) + 1;
    for (size_t i = 0; i < n; i++)
        size += strlen(args[i]);
    auto* out = static_cast<char*>(malloc(size));
    if (out == nullptr)
        return nullptr;
    // Each "%s" costs two format bytes and adds an argument that the size
    // already counts; "%%" and the rest never write more than they read.
    size_t used = 0, next = 0;
    for (const char* p = fmt; *p != '\0'; p++) {
        if (p[0] == '%' && p[1] == 's' && next < n) {
            size_t len = strlen(args[next]);
            memcpy(out + used, args[next++], len);
            used += len;
            p++;
        } else if (p[0] == '%' && p[1] == '%') {
            out[used++] = '%';
            p++;
        } else {
            out[used++] = *p;
        }
    }
    out[used] = '\0';
    return out;
}

const char* token_string(int code)
{
    switch (code) {
    case VZ_PAR_EOL: return "end of line";
    case VZ_PAR_LBRACK: return "[";
    case VZ_PAR_RBRACK: return "]";
    case VZ_PAR_WORD: return sc.text != nullptr ? sc.text : "";
    case VZ_PAR_COMMENT: return "<comment>";
    case VZ_PAR_EOF: return "end of file";
    case VZ_PAR_ERROR: return "<error>";
    case VZ_PAR_TAG: return "<tag>";
    case VZ_PAR_CMD: return "<cmd>";
    default: return "<unknown>";
    }
}
