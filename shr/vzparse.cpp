#include "shr/vzparse.h"

#include <cstdlib>
#include <cstring>

namespace {

// The held section head: a NULL-terminated vector pointing into one buffer
// that holds the words back to back. Both only grow.
struct Tag {
    char** vec = nullptr;
    size_t slots = 0;
    char* buf = nullptr;
    size_t cap = 0;
};
Tag held;

constexpr size_t kTagSlots = 10;
constexpr size_t kTagBytes = 100;

constexpr const char* kNoMemory = "out of memory";

bool head_selects(int argc, char* const* argv, const char* const* pattern, int npat)
{
    if (argc != npat)
        return false;
    for (int i = 0; i < npat; i++)
        if (pattern[i][0] != '\0' && strcmp(pattern[i], argv[i]) != 0)
            return false;
    return true;
}

}  // namespace

void vz_tag_init()
{
    vz_tag_fini();
}

void vz_tag_fini()
{
    free(held.vec);
    free(held.buf);
    held = Tag{};
}

char** vz_tag_hold(int argc, char* const* argv)
{
    if (argc < 0)
        return nullptr;
    size_t n = static_cast<size_t>(argc);
    size_t bytes = 0;
    for (size_t i = 0; i < n; i++)
        bytes += strlen(argv[i]) + 1;
    if (held.slots < n + 1) {
        size_t slots = held.slots > kTagSlots ? held.slots : kTagSlots;
        while (slots < n + 1)
            slots *= 2;
        auto* v = static_cast<char**>(realloc(held.vec, slots * sizeof(char*)));
        if (v == nullptr)
            return nullptr;
        held.vec = v;
        held.slots = slots;
    }
    if (held.cap < bytes || held.buf == nullptr) {
        size_t cap = held.cap > kTagBytes ? held.cap : kTagBytes;
        while (cap < bytes)
            cap *= 2;
        auto* b = static_cast<char*>(realloc(held.buf, cap));
        if (b == nullptr)
            return nullptr;
        held.buf = b;
        held.cap = cap;
    }
    char* p = held.buf;
    for (size_t i = 0; i < n; i++) {
        size_t len = strlen(argv[i]) + 1;
        memcpy(p, argv[i], len);
        held.vec[i] = p;
        p += len;
    }
    held.vec[n] = nullptr;
    return held.vec;
}

int vz_par_tab(vz_par_errfn errfn, const vz_par_tabent* table, int npat, char** tag, int argc,
               char** argv, int line, const char* comment)
{
    const vz_par_tabent* chosen = nullptr;
    if (table != nullptr && argc > 0) {
        for (const vz_par_tabent* e = table; e->name != nullptr; e++) {
            if (strcmp(e->name, argv[0]) == 0) {
                chosen = e;
                break;
            }
        }
    }
    if (chosen == nullptr && table != nullptr) {
        for (const vz_par_tabent* e = table; e->name != nullptr; e++) {
            if (e->name[0] == '\0') {
                chosen = e;
                break;
            }
        }
    }
    if (chosen != nullptr)
        return chosen->handler != nullptr ? chosen->handler(npat, tag, argc, argv, line, comment) : 0;
    if (argc <= 0)
        return 0;
    if (errfn == nullptr)
        return VZ_PAR_UNKNOWN;
    char* msg = vz_par_mkstr("unrecognized directive: ``%s''", argv[0]);
    int r = errfn(npat, tag, line, msg != nullptr ? msg : kNoMemory, vz_par_saved());
    free(msg);
    return r < 0 ? VZ_PAR_UNKNOWN : r;
}

int vz_parse(FILE* f, vz_par_errfn errfn, vz_par_tagfn tagfn, const char* const* pattern,
             const vz_par_tabent* table)
{
    int npat = 0;
    if (pattern != nullptr)
        while (pattern[npat] != nullptr)
            npat++;
    vz_par_init(f);
    vz_tag_init();

    // Directives before the first section head belong to no section.
    bool selected = false;
    char** tag = nullptr;
    int result = 0;
    for (;;) {
        int argc;
        char** argv;
        char* comment;
        int kind = vz_par_cons(f, &argc, &argv, &comment);
        int line = vz_par_line();
        if (kind == VZ_PAR_EOF)
            break;
        if (kind == VZ_PAR_TAG) {
            selected = false;
            if (!head_selects(argc, argv, pattern, npat))
                continue;
            tag = vz_tag_hold(argc, argv);
            if (tag == nullptr) {
                // The section stays unselected: its directives cannot be
                // given their tag, so they are skipped.
                int r = errfn != nullptr ? errfn(argc, argv, line, kNoMemory, vz_par_saved()) : -1;
                if (r < 0) {
                    result = VZ_PAR_NOMEM;
                    break;
                }
                continue;
            }
            selected = true;
            if (tagfn != nullptr) {
                int r = tagfn(argc, argv, line, comment);
                if (r < 0) {
                    result = r;
                    break;
                }
            }
        } else if (kind == VZ_PAR_CMD) {
            if (!selected)
                continue;
            int r = vz_par_tab(errfn, table, npat, tag, argc, argv, line, comment);
            if (r < 0) {
                result = r;
                break;
            }
        } else {
            if (!selected)
                continue;
            char* msg;
            const char* saved;
            vz_par_err(&msg, &saved);
            int r = errfn != nullptr ? errfn(npat, tag, line, msg != nullptr ? msg : kNoMemory, saved) : -1;
            free(msg);
            if (r < 0) {
                result = VZ_PAR_FAIL;
                break;
            }
        }
    }
    vz_tag_fini();
    vz_par_fini(f);
    return result;
}
