#include "shr/logcatmsg.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <nl_types.h>

#include "shr/logging.h"
#include "shr/vzhome.h"
#include "shr/vzstrtoul.h"

namespace {

constexpr const char* SET_DLIM = "$set ";
constexpr size_t SET_DLIM_LEN = 5;
constexpr const char* MSG_DIR = "/opt/KORRlibs/lib";
constexpr int PRINT_MAX_ARGS = 8;

// Lines of the message file; the text handed out lives here.
char msg_line[MSG_LINE_SIZE];

// First-use state of one caller of the lookup (log_catmsg, print_catmsg).
struct Lookup {
    bool initialised = false;
    nl_catd catalogue = MSG_NO_CATALOGUE;  // never opened: the daemon reads the message file
    FILE* file = nullptr;
};
Lookup log_lookup;
Lookup print_lookup;

// One printf conversion starting at a '%'.
struct Conv {
    size_t len = 0;    // characters of the conversion
    int nargs = 0;     // arguments it takes
    char kinds[3] = {};
    bool ok = false;
};

Conv parse_conv(const char* p)
{
    Conv c;
    size_t i = 1;
    if (p[i] == '%') {
        c.len = 2;
        c.ok = true;
        return c;
    }
    while (p[i] != '\0' && strchr("-+ #0'I", p[i]) != nullptr)
        i++;
    auto take_count = [&](void) -> bool {
        if (p[i] == '*') {
            c.kinds[c.nargs++] = 'i';
            i++;
            return true;
        }
        while (isdigit(static_cast<unsigned char>(p[i])))
            i++;
        return p[i] != '$';  // positional arguments are not passed on
    };
    if (!take_count())
        return c;
    if (p[i] == '.') {
        i++;
        if (!take_count())
            return c;
    }
    char len_mod = ' ';  // ' ' none, 'H' hh, 'h', 'l', 'q' ll, 'L', 'j', 'z', 't'
    switch (p[i]) {
    case 'h':
        len_mod = p[i + 1] == 'h' ? 'H' : 'h';
        i += len_mod == 'H' ? 2 : 1;
        break;
    case 'l':
        len_mod = p[i + 1] == 'l' ? 'q' : 'l';
        i += len_mod == 'q' ? 2 : 1;
        break;
    case 'q': case 'L': case 'j': case 'z': case 't':
        len_mod = p[i];
        i++;
        break;
    case 'Z':
        len_mod = 'z';
        i++;
        break;
    default:
        break;
    }
    char kind = '\0';
    switch (p[i]) {
    case 'd': case 'i': case 'o': case 'u': case 'x': case 'X':
        switch (len_mod) {
        case ' ': case 'H': case 'h': kind = 'i'; break;
        case 'l': kind = 'l'; break;
        case 'q': case 'L': kind = 'q'; break;
        default: kind = len_mod; break;  // j, z, t
        }
        break;
    case 'c':
        kind = len_mod == ' ' ? 'i' : len_mod == 'l' ? 'w' : '\0';
        break;
    case 'C':
        kind = len_mod == ' ' ? 'w' : '\0';
        break;
    case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
        kind = len_mod == ' ' || len_mod == 'l' ? 'd' : len_mod == 'L' ? 'D' : '\0';
        break;
    case 's':
        kind = len_mod == ' ' ? 's' : len_mod == 'l' ? 'S' : '\0';
        break;
    case 'S':
        kind = len_mod == ' ' ? 'S' : '\0';
        break;
    case 'p':
        kind = len_mod == ' ' ? 'p' : '\0';
        break;
    case 'm':  // the text of errno: takes no argument
        if (len_mod != ' ')
            return c;
        c.len = i + 1;
        c.ok = true;
        return c;
    default:  // %n, unknown letters and the end of the text
        return c;
    }
    if (kind == '\0')
        return c;
    c.kinds[c.nargs++] = kind;
    c.len = i + 1;
    c.ok = true;
    return c;
}

// Where the format must stop so that it takes at most max_args arguments:
// the offset of the first conversion that would exceed them or that is not
// understood, or the length of the format.
size_t fmt_cut(const char* format, int max_args)
{
    int used = 0;
    const char* p = format;
    while ((p = strchr(p, '%')) != nullptr) {
        Conv c = parse_conv(p);
        if (!c.ok || used + c.nargs > max_args)
            return size_t(p - format);
        used += c.nargs;
        p += c.len;
    }
    return strlen(format);
}

// "$set " followed by a decimal number; -1 when it cannot be read.
int set_number(const char* line)
{
    errno = 0;
    char* end = nullptr;
    long n = strtol(line + SET_DLIM_LEN, &end, 10);
    if (end == line + SET_DLIM_LEN || errno == ERANGE || n < INT_MIN || n > INT_MAX)
        return -1;
    return int(n);
}

// Reads one line into msg_line; a line longer than the buffer is cut there
// and its rest skipped, so that the rest is never taken for a line of its own
// (also when a zero byte inside the line hides its length from strlen).
bool read_line(FILE* file)
{
    size_t n = 0;
    int ch = EOF;
    while (n < sizeof msg_line - 1 && (ch = getc(file)) != EOF) {
        msg_line[n++] = char(ch);
        if (ch == '\n')
            break;
    }
    msg_line[n] = '\0';
    if (n == 0)
        return false;
    if (n == sizeof msg_line - 1 && ch != '\n') {
        while ((ch = getc(file)) != EOF && ch != '\n') {
        }
    }
    return true;
}

// The leading unsigned decimal number of a line, or -1 when the line does
// not begin with a digit; numbers beyond INT_MAX read as INT_MAX.
int64_t leading_number(const char* line)
{
    if (!isdigit(static_cast<unsigned char>(line[0])))
        return -1;
    int64_t n = 0;
    for (const char* p = line; isdigit(static_cast<unsigned char>(*p)); p++)
        if (n < INT_MAX)
            n = n * 10 + (*p - '0');
    return n > INT_MAX ? INT_MAX : n;
}

const char* message_text(char* line)
{
    char* p = line;
    while (*p != '\0' && !isspace(static_cast<unsigned char>(*p)))
        p++;
    while (isspace(static_cast<unsigned char>(*p)))
        p++;
    if (*p == '"') {
        p++;
        // A text without its closing quote runs to the end of the line as
        // read, like an unquoted one.
        char* last = strrchr(p, '"');
        if (last != nullptr)
            *last = '\0';
    }
    return p;
}

bool is_octal(char c) { return c >= '0' && c <= '7'; }


void lookup_init(Lookup& l)
{
    if (l.initialised)
        return;
    l.initialised = true;
    l.catalogue = MSG_NO_CATALOGUE;
    char name[MSG_LINE_SIZE];
    vzhome_get(name, sizeof name);
    size_t len = strlen(name);
    const char* sep = len > 0 && name[len - 1] == '/' ? "" : "/";
    char path[MSG_LINE_SIZE + 32];
    snprintf(path, sizeof path, "%s%slib/%s", name, sep, MSG_FILE_NAME);
    const char* const suffixes[] = {"", ".cat", ".msg"};
    len = strlen(path);
    for (const char* suffix : suffixes) {
        snprintf(path + len, sizeof path - len, "%s", suffix);
        l.file = fopen(path, "r");
        if (l.file != nullptr)
            return;
    }
}

// The text to print for a message: the file's, when there is one and it
// takes the arguments meant for the default, else the default.
const char* lookup_text(Lookup& l, int set, int number, const char* dflt)
{
    lookup_init(l);
    if (l.file == nullptr || dflt == nullptr)
        return dflt;
    const char* found = msg_get(l.file, set, number, dflt);
    if (found == dflt)
        return dflt;
    // Only the text itself: escapes in the skipped number token must not
    // shift the line under the pointer.
    char* text = fixup_string(msg_line + (found - msg_line));
    // A site's file can change the wording, never what is passed: a text
    // whose conversions do not fit the caller's arguments is not used.
    return fmt_compatible(text, dflt) ? text : dflt;
}

}  // namespace

const char* msg_get(FILE* file, int set, int number, const char* dflt)
{
    if (file == nullptr)
        return dflt;
    rewind(file);
    for (;;) {
        if (!read_line(file))
            return dflt;
        if (strncmp(msg_line, SET_DLIM, SET_DLIM_LEN) == 0 && set_number(msg_line) == set)
            break;
    }
    while (read_line(file)) {
        if (msg_line[0] == '\0' || strncmp(msg_line, SET_DLIM, SET_DLIM_LEN) == 0)
            return dflt;
        if (number >= 0 && leading_number(msg_line) == number)
            return message_text(msg_line);
    }
    return dflt;
}

char* fixup_string(char* text)
{
    if (text == nullptr)
        return text;
    char* out = text;
    const char* in = text;
    while (*in != '\0') {
        if (*in != '\\') {
            *out++ = *in++;
            continue;
        }
        const char c = in[1];
        switch (c) {
        case '\0':  // a backslash that ends the text stays
            *out++ = '\\';
            in++;
            break;
        case '0': case '1': case '2': case '3':
            if (is_octal(in[2]) && is_octal(in[3])) {
                *out++ = char((c - '0') << 6 | (in[2] - '0') << 3 | (in[3] - '0'));
                in += 4;
            } else {
                *out++ = '\\';
                in++;
            }
            break;
        case 'x':
            if (vz_hexval(in[2]) >= 0 && vz_hexval(in[3]) >= 0) {
                *out++ = char(vz_hexval(in[2]) << 4 | vz_hexval(in[3]));
                in += 4;
            } else {
                *out++ = '\\';
                in++;
            }
            break;
        case 'a': *out++ = '\a'; in += 2; break;
        case 'b': *out++ = '\b'; in += 2; break;
        case 'n': *out++ = '\n'; in += 2; break;
        case 'r': *out++ = '\r'; in += 2; break;
        case 't': *out++ = '\t'; in += 2; break;
        default:  // the backslash itself, and any other character
            *out++ = c;
            in += 2;
            break;
        }
    }
    *out = '\0';
    return text;
}

nl_catd open_msgcatalog()
{
    setlocale(LC_ALL, "");
    nl_catd cd = catopen(MSG_FILE_NAME, 0);
    if (cd == MSG_NO_CATALOGUE) {
        char path[MSG_LINE_SIZE];
        size_t dlen = strlen(MSG_DIR);
        const char* sep = dlen > 0 && MSG_DIR[dlen - 1] == '/' ? "" : "/";
        snprintf(path, sizeof path, "%s%s%s", MSG_DIR, sep, MSG_FILE_NAME);
        cd = catopen(path, 0);
        if (cd == MSG_NO_CATALOGUE) {
            snprintf(path + strlen(path), sizeof path - strlen(path), ".cat");
            cd = catopen(path, 0);
        }
    }
    return cd;
}

int fmt_arg_kinds(const char* format, char* kinds, size_t size)
{
    if (format == nullptr || kinds == nullptr || size == 0)
        return -1;
    size_t n = 0;
    const char* p = format;
    while ((p = strchr(p, '%')) != nullptr) {
        Conv c = parse_conv(p);
        if (!c.ok || n + size_t(c.nargs) >= size)
            return -1;
        for (int i = 0; i < c.nargs; i++)
            kinds[n++] = c.kinds[i];
        p += c.len;
    }
    kinds[n] = '\0';
    return int(n);
}

bool fmt_compatible(const char* text, const char* dflt)
{
    char want[MSG_LINE_SIZE];
    char have[MSG_LINE_SIZE];
    int nwant = fmt_arg_kinds(dflt, want, sizeof want);
    int nhave = fmt_arg_kinds(text, have, sizeof have);
    return nwant >= 0 && nhave >= 0 && nhave <= nwant && strncmp(have, want, size_t(nhave)) == 0;
}

int vprint_limited(FILE* stream, const char* format, int max_args, va_list ap)
{
    if (stream == nullptr || format == nullptr)
        return -1;
    size_t cut = fmt_cut(format, max_args);
    if (format[cut] == '\0')
        return vfprintf(stream, format, ap);
    char* head = static_cast<char*>(malloc(cut + 1));
    if (head == nullptr)
        return fputs(format, stream) < 0 ? -1 : int(strlen(format));
    memcpy(head, format, cut);
    head[cut] = '\0';
    int n = vfprintf(stream, head, ap);
    free(head);
    if (n < 0 || fputs(format + cut, stream) < 0)
        return -1;
    return n + int(strlen(format + cut));
}

int log_vcatmsg(int set, int number, const char* dflt, va_list ap)
{
    const char* text = lookup_text(log_lookup, set, number, dflt);
    return text == nullptr ? -1 : log_vmsg(text, ap);
}

int log_catmsg(int set, int number, const char* dflt, ...)
{
    va_list ap;
    va_start(ap, dflt);
    int r = log_vcatmsg(set, number, dflt, ap);
    va_end(ap);
    return r;
}

int print_catmsg(FILE* stream, int set, int number, const char* dflt, ...)
{
    if (stream == nullptr)
        return 0;
    const char* text = lookup_text(print_lookup, set, number, dflt);
    if (text == nullptr)
        return -1;
    va_list ap;
    va_start(ap, dflt);
    int r = vprint_limited(stream, text, PRINT_MAX_ARGS, ap);
    va_end(ap);
    return r < 0 ? -1 : 0;
}
