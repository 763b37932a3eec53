#include "config/dbprop.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/dballoc.h"
#include "config/dbname.h"
#include "config/dbtree.h"
#include "config/sflock.h"
#include "shr/vzopen.h"
#include "shr/vzstrdup.h"

namespace {

constexpr const char* kPlist = "=plist";
constexpr int kRead = 0;
constexpr int kWrite = 2;

char* esc_buf = nullptr;  // put_prop's scratch
size_t esc_size = 0;

// Holds the stream (and so the record lock) for one operation.
struct Plist {
    FILE* f = nullptr;
    Plist() = default;
    Plist(const Plist&) = delete;
    Plist& operator=(const Plist&) = delete;
    ~Plist()
    {
        if (f != nullptr)
            fclose(f);
    }
};

struct List {
    vz_kvc* v = nullptr;
    List() = default;
    List(const List&) = delete;
    List& operator=(const List&) = delete;
    ~List() { vzdb_kvcfree(v); }
};

bool name_ok(const char* name)
{
    return name != nullptr && name[0] != '\0' && strpbrk(name, " \n\\") == nullptr;
}

// A reader cuts a logical line at VZDB_LINE - 1 bytes, so a longer property
// would come back as two: it is refused instead.
bool fits(const char* name, const char* value)
{
    return value == nullptr || strlen(name) + 1 + strlen(value) < size_t(VZDB_LINE);
}

// Creates "=plist" with the object directory's owner, group and permission
// bits masked with 0666; the umask is 0777 meanwhile so that nobody else can
// open it before it has them. Only the process that made the file gives it
// those; one that finds it made a moment ago just opens it. A file that
// cannot be given them (a caller that may not give it away) is removed again
// rather than left behind with no permissions, where it would lock out every
// later caller but the super-user. A descriptor, or -1.
int create_plist(const char* file, const struct stat& dir)
{
    mode_t old = umask(0777);
    int fd = open(file, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    umask(old);
    if (fd < 0)
        return errno == EEXIST ? vz_open_plain(file, O_RDWR | O_CLOEXEC, 0) : -1;
    if (fchown(fd, dir.st_uid, dir.st_gid) != 0 || fchmod(fd, dir.st_mode & 0666) != 0) {
        unlink(file);
        close(fd);
        return -1;
    }
    return fd;
}

// Opens and locks the object's "=plist" for mode kRead or kWrite. A missing
// file read gives no stream and 0.
int ob_2_file(const vz_kvc* object, Plist* pl, int mode)
{
    char* dir = nullptr;
    int rc = vzdb_ob2dir(object, &dir);
    if (rc != 0)
        return rc;
    if (!vzdb_path_ok(dir)) {
        vzdb_strfree(dir);
        return VZDB_BADNAME;
    }
    struct stat st;
    if (stat(dir, &st) != 0 || !S_ISDIR(st.st_mode)) {
        vzdb_strfree(dir);
        return VZDB_NOOBJ;
    }
    size_t dlen = strlen(dir);
    char* file = static_cast<char*>(malloc(dlen + 1 + strlen(kPlist) + 1));
    if (file == nullptr) {
        vzdb_strfree(dir);
        return VZDB_NOMEM;
    }
    memcpy(file, dir, dlen);
    file[dlen] = '/';
    strcpy(file + dlen + 1, kPlist);
    vzdb_strfree(dir);

    // The object directories belong to the administrative user: a link put
    // in the file's place is refused, never followed by the super-user.
    int fd = vz_open_plain(file, (mode == kWrite ? O_RDWR : O_RDONLY) | O_CLOEXEC, 0);
    if (fd < 0 && errno == ENOENT) {
        if (mode == kRead) {
            free(file);
            return VZDB_OK;
        }
        fd = create_plist(file, st);
    }
    if (fd < 0 && vz_refused(errno))
        vz_log_refused(file, errno);
    free(file);
    if (fd < 0)
        return VZDB_OPENPROP;
    struct stat fst;
    if (fstat(fd, &fst) != 0 || !S_ISREG(fst.st_mode)) {
        close(fd);
        return VZDB_OPENPROP;  // a directory or device in its place
    }
    pl->f = fdopen(fd, mode == kWrite ? "r+" : "r");
    if (pl->f == nullptr) {
        close(fd);
        return VZDB_OPENPROP;
    }
    if (sf_lockgrab(fileno(pl->f), mode) != 0) {
        fclose(pl->f);
        pl->f = nullptr;
        return VZDB_LOCK;
    }
    return VZDB_OK;
}

// One logical line into buf (size bytes, size >= 2): its length, or -1 at
// the end of the file. A backslash takes the next byte, newline included,
// as text. A line holds at most size - 1 bytes; the rest is the next line.
// The room is checked before a backslash is read, and a backslash and its
// byte give one byte, so a cut never falls inside an escape: a backslash
// just past the cut starts the next line and escapes its first byte.
int get_prop(char* buf, int size, FILE* f)
{
    int n = 0;
    int c = getc(f);
    if (c == EOF)
        return -1;
    while (c != EOF && c != '\n') {
        if (c == '\\') {
            c = getc(f);
            if (c == EOF)
                break;  // a backslash at the very end escapes nothing
        }
        buf[n++] = char(c);
        if (n == size - 1)
            break;
        c = getc(f);
    }
    buf[n] = '\0';
    return n;
}

// The whole file from its beginning as a new list; lines without a space
// or starting with one are skipped, and so are lines whose name holds a
// byte that a name may not have. 0, or 1.
int file_2_props(FILE* f, vz_kvc** list)
{
    vz_kvcstate st = 0;
    if (vz_kvcv_init(list, &st) != 0)
        return VZDB_NOMEM;
    if (f == nullptr)
        return VZDB_OK;
    rewind(f);
    char line[VZDB_LINE];
    int n;
    while ((n = get_prop(line, sizeof line, f)) >= 0) {
        char* sp = static_cast<char*>(memchr(line, ' ', size_t(n)));
        if (sp == nullptr || sp == line)
            continue;
        *sp = '\0';
        if (!name_ok(line) || strlen(line) != size_t(sp - line))
            continue;  // a name we could not write back (escaped newline or backslash, NUL)
        if (vz_kvcv_add(list, &st, line, sp + 1, nullptr) != 0)
            return VZDB_NOMEM;  // the list is gone already
    }
    return VZDB_OK;
}

int stdio_truncate(FILE* f)
{
    if (fflush(f) != 0 || ftruncate(fileno(f), 0) != 0)
        return -1;
    return 0;
}

int put_prop(const char* name, const char* value, FILE* f)
{
    size_t vlen = strlen(value);
    if (vzdb_str_alloc(&esc_buf, &esc_size, 2 * vlen + 1) != 0)
        return VZDB_NOMEM;
    char* out = esc_buf;
    for (const char* p = value; *p != '\0'; p++) {
        if (*p == '\n' || *p == '\\')
            *out++ = '\\';
        *out++ = *p;
    }
    *out = '\0';
    return fprintf(f, "%s %s\n", name, esc_buf) < 0 ? VZDB_WRITEPROP : VZDB_OK;
}

int props_2_file(const vz_kvc* list, FILE* f)
{
    if (stdio_truncate(f) != 0)
        return VZDB_WRITEPROP;
    rewind(f);
    for (const vz_kvc* p = list; p->key != nullptr; p++) {
        int rc = put_prop(p->key, p->value != nullptr ? p->value : "", f);
        if (rc != 0)
            return rc;
    }
    return fflush(f) == 0 ? VZDB_OK : VZDB_WRITEPROP;
}

bool given(const vz_kvc* list, const char* name)
{
    for (const vz_kvc* p = list; p->key != nullptr; p++) {
        if (strcmp(p->key, name) == 0)
            return true;
    }
    return false;
}

}  // namespace

int vzdb_prop_get(const vz_kvc* object, const char* name, char** value)
{
    *value = nullptr;
    Plist pl;
    int rc = ob_2_file(object, &pl, kRead);
    if (rc != 0)
        return rc;
    List props;
    if (file_2_props(pl.f, &props.v) != 0)
        return VZDB_NOMEM;
    for (const vz_kvc* p = props.v; p->key != nullptr; p++) {
        if (strcmp(p->key, name) == 0) {
            *value = vz_strdup(p->value);
            return *value != nullptr ? VZDB_OK : VZDB_NOMEM;
        }
    }
    return VZDB_OK;
}

int vzdb_prop_list(const vz_kvc* object, vz_kvc** list)
{
    *list = nullptr;
    Plist pl;
    int rc = ob_2_file(object, &pl, kRead);
    if (rc != 0)
        return rc;
    return file_2_props(pl.f, list);
}

int vzdb_prop_lput(const vz_kvc* object, const vz_kvc* list)
{
    static const vz_kvc none = {};
    if (list == nullptr)
        list = &none;
    for (const vz_kvc* p = list; p->key != nullptr; p++) {
        if (!name_ok(p->key))
            return VZDB_BADNAME;
        if (!fits(p->key, p->value))
            return VZDB_WRITEPROP;
    }
    Plist pl;
    int rc = ob_2_file(object, &pl, kWrite);
    if (rc != 0)
        return rc;
    List old;
    List fresh;
    vz_kvcstate st = 0;
    if (file_2_props(pl.f, &old.v) != 0 || vz_kvcv_init(&fresh.v, &st) != 0)
        return VZDB_NOMEM;
    for (const vz_kvc* p = old.v; p->key != nullptr; p++) {
        if (!given(list, p->key) && vz_kvcv_add(&fresh.v, &st, p->key, p->value, nullptr) != 0)
            return VZDB_NOMEM;
    }
    for (const vz_kvc* p = list; p->key != nullptr; p++) {
        if (p->value != nullptr && vz_kvcv_add(&fresh.v, &st, p->key, p->value, nullptr) != 0)
            return VZDB_NOMEM;
    }
    return props_2_file(fresh.v, pl.f);
}

int vzdb_prop_put(const vz_kvc* object, const char* name, const char* value)
{
    if (!name_ok(name))
        return VZDB_BADNAME;
    vz_kvc one[2] = {{const_cast<char*>(name), const_cast<char*>(value), nullptr}, {}};
    return vzdb_prop_lput(object, one);
}

int vzdb_prop_delete(const vz_kvc* object, const char* name)
{
    return vzdb_prop_put(object, name, nullptr);
}

int vzdb_prop_semadd(const vz_kvc* object, const char* name, int delta, int limit)
{
    if (!name_ok(name))
        return VZDB_BADNAME;
    Plist pl;
    int rc = ob_2_file(object, &pl, kWrite);
    if (rc != 0)
        return rc;
    List old;
    List fresh;
    vz_kvcstate st = 0;
    if (file_2_props(pl.f, &old.v) != 0 || vz_kvcv_init(&fresh.v, &st) != 0)
        return VZDB_NOMEM;
    int count = 0;
    for (const vz_kvc* p = old.v; p->key != nullptr; p++) {
        if (strcmp(p->key, name) == 0)
            count = atoi(p->value);  // the last one counts
        else if (vz_kvcv_add(&fresh.v, &st, p->key, p->value, nullptr) != 0)
            return VZDB_NOMEM;
    }
    // A count that would leave the int range cannot be written back: it
    // counts as exceeding the limit.
    int64_t sum = int64_t(count) + delta;
    if (sum > limit || sum < INT_MIN)
        return VZDB_SEMLIMIT;
    char text[16];
    snprintf(text, sizeof text, "%d", int(sum));
    if (!fits(name, text))
        return VZDB_WRITEPROP;
    if (vz_kvcv_add(&fresh.v, &st, name, text, nullptr) != 0)
        return VZDB_NOMEM;
    return props_2_file(fresh.v, pl.f);
}
