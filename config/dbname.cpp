#include "config/dbname.h"

#include <cstdlib>
#include <cstring>

#include "config/dballoc.h"
#include "config/dbob.h"

namespace {

// The current object's directory, fixed at the first conversion.
char* kept_current = nullptr;
size_t kept_rootlen = 0;
size_t kept_curlen = 0;

char* cur_buf = nullptr;   // current_2_path's scratch
size_t cur_size = 0;
char* obj_buf = nullptr;   // object_2_path's scratch
size_t obj_size = 0;
char* type_buf = nullptr;  // vzdb_dir2ob1's scratches
size_t type_size = 0;
char* name_buf = nullptr;
size_t name_size = 0;

bool is_empty(const vz_kvc* name)
{
    return name == nullptr || name->key == nullptr;
}

const char* or_empty(const char* s)
{
    return s != nullptr ? s : "";
}

bool keep_current()
{
    if (kept_current != nullptr)
        return true;
    size_t rootlen = 0;
    size_t curlen = 0;
    const char* p = current_2_path(&rootlen, &curlen);
    if (p == nullptr)
        return false;
    kept_current = static_cast<char*>(malloc(curlen + 1));
    if (kept_current == nullptr)
        return false;
    memcpy(kept_current, p, curlen + 1);
    kept_rootlen = rootlen;
    kept_curlen = curlen;
    return true;
}

}  // namespace

size_t obname_2_fnlen(const char* name)
{
    size_t n = 0;
    for (const char* p = or_empty(name); *p != '\0'; p++)
        n += (*p == '/' || *p == '\\') ? 2 : 1;
    return n;
}

void obname_2_fname(char* out, const char* name)
{
    for (const char* p = or_empty(name); *p != '\0'; p++) {
        if (*p == '/') {
            *out++ = '\\';
            *out++ = '.';
        } else if (*p == '\\') {
            *out++ = '\\';
            *out++ = '\\';
        } else {
            *out++ = *p;
        }
    }
    *out = '\0';
}

void fname_2_obname(char* out, const char* escaped)
{
    const char* p = escaped;
    while (*p != '\0') {
        if (*p != '\\') {
            *out++ = *p++;
            continue;
        }
        p++;
        if (*p == '\0')
            break;  // a final backslash escapes nothing
        *out++ = *p == '.' ? '/' : *p;
        p++;
    }
    *out = '\0';
}

char* object_2_path(const vz_kvc* name, size_t* len)
{
    size_t need = 1;
    for (const vz_kvc* c = name; !is_empty(c); c++)
        need += strlen(c->key) + obname_2_fnlen(c->value) + 2;
    if (vzdb_str_alloc(&obj_buf, &obj_size, need) != 0)
        return nullptr;
    char* out = obj_buf;
    for (const vz_kvc* c = name; !is_empty(c); c++) {
        size_t klen = strlen(c->key);
        memcpy(out, c->key, klen);
        out += klen;
        *out++ = '=';
        obname_2_fname(out, c->value);
        out += strlen(out);
        *out++ = '/';
    }
    if (out != obj_buf)
        out--;  // the last "/"
    *out = '\0';
    *len = size_t(out - obj_buf);
    return obj_buf;
}

char* current_2_path(size_t* rootlen, size_t* curlen)
{
    size_t root = strlen(VZDB_BASE) + 1 + strlen(VZDB_ROOTNAME);
    vz_kvc* cur = nullptr;
    if (vzdb_ob_current(&cur) != 0)
        return nullptr;
    size_t joined_len = 0;
    // The first component is always the "system" one.
    const char* joined = object_2_path(cur + 1, &joined_len);
    char* result = nullptr;
    if (joined != nullptr) {
        size_t total = root + (joined_len != 0 ? 1 + joined_len : 0);
        if (vzdb_str_alloc(&cur_buf, &cur_size, total + 1) == 0) {
            memcpy(cur_buf, VZDB_ROOT, root);
            cur_buf[root] = '\0';
            if (joined_len != 0) {
                cur_buf[root] = '/';
                memcpy(cur_buf + root + 1, joined, joined_len + 1);
            }
            *rootlen = root;
            *curlen = total;
            result = cur_buf;
        }
    }
    vzdb_kvcfree(cur);
    return result;
}

int vzdb_ob2dir(const vz_kvc* name, char** path)
{
    *path = nullptr;
    if (!keep_current())
        return VZDB_NOMEM;
    const char* prefix = kept_current;
    size_t prefix_len = kept_curlen;
    const vz_kvc* comps = name;
    if (!is_empty(name) && strcmp(name->key, "system") == 0) {
        prefix = VZDB_ROOT;
        prefix_len = kept_rootlen;
        comps = name + 1;
    }
    size_t joined_len = 0;
    const char* joined = object_2_path(comps, &joined_len);
    if (joined == nullptr)
        return VZDB_NOMEM;
    size_t total = prefix_len + (joined_len != 0 ? 1 + joined_len : 0);
    char* out = static_cast<char*>(malloc(total + 1));
    if (out == nullptr)
        return VZDB_NOMEM;
    memcpy(out, prefix, prefix_len);
    out[prefix_len] = '\0';
    if (joined_len != 0) {
        out[prefix_len] = '/';
        memcpy(out + prefix_len + 1, joined, joined_len + 1);
    }
    *path = out;
    return VZDB_OK;
}

int vzdb_dir2ob1(vz_kvc** vec, vz_kvcstate* state, const char* entry)
{
    const char* eq = strchr(entry, '=');
    size_t type_len = eq != nullptr ? size_t(eq - entry) : strlen(entry);
    const char* escaped = eq != nullptr ? eq + 1 : "";
    if (vzdb_str_alloc(&type_buf, &type_size, type_len + 1) != 0 ||
        vzdb_str_alloc(&name_buf, &name_size, strlen(escaped) + 1) != 0) {
        vzdb_kvcfree(*vec);
        *vec = nullptr;
        *state = 0;
        return VZDB_NOMEM;
    }
    memcpy(type_buf, entry, type_len);
    type_buf[type_len] = '\0';
    fname_2_obname(name_buf, escaped);
    return vz_kvcv_add(vec, state, type_buf, name_buf, nullptr) == 0 ? VZDB_OK : VZDB_NOMEM;
}
