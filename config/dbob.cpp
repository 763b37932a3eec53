#include "config/dbob.h"

#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/dballoc.h"
#include "config/dbname.h"
#include "config/dbtree.h"
#include "shr/vzstrdup.h"

namespace {

constexpr const char* kEnvPrefix = "VZDB_CURRENT=";

bool is_dir(const char* path)
{
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// A child object's entry has "=" at its second character or later, so
// "=plist" is not one.
bool is_child(const char* entry)
{
    return entry[0] != '\0' && strchr(entry + 1, '=') != nullptr;
}

}  // namespace

int vzdb_ob_current(vz_kvc** name)
{
    vz_kvcstate st = 0;
    *name = nullptr;
    if (vz_kvcv_init(name, &st) != 0 || vz_kvcv_add(name, &st, "system", nullptr, nullptr) != 0)
        return VZDB_NOMEM;
    const char* env = getenv(VZDB_CURRENT_ENV);
    if (env == nullptr)
        return VZDB_OK;
    char* copy = vz_strdup(env);
    if (copy == nullptr) {
        vzdb_kvcfree(*name);
        *name = nullptr;
        return VZDB_NOMEM;
    }
    char* piece = copy;
    while (piece != nullptr) {
        char* slash = strchr(piece, '/');
        if (slash != nullptr)
            *slash = '\0';
        if (*piece != '\0' && vzdb_dir2ob1(name, &st, piece) != 0) {
            free(copy);
            return VZDB_NOMEM;  // the vector is gone already
        }
        piece = slash != nullptr ? slash + 1 : nullptr;
    }
    free(copy);
    return VZDB_OK;
}

int vzdb_ob_environ(const vz_kvc* name, char** entry)
{
    *entry = nullptr;
    char* path = nullptr;
    int rc = vzdb_ob2dir(name, &path);
    if (rc != 0)
        return rc;
    size_t rlen = strlen(VZDB_ROOT);
    const char* rel = strlen(path) > rlen ? path + rlen + 1 : "";
    size_t plen = strlen(kEnvPrefix);
    size_t relen = strlen(rel);
    char* out = static_cast<char*>(malloc(plen + relen + 1));
    if (out != nullptr) {
        memcpy(out, kEnvPrefix, plen);
        memcpy(out + plen, rel, relen + 1);
    }
    vzdb_strfree(path);
    *entry = out;
    return out != nullptr ? VZDB_OK : VZDB_NOMEM;
}

int vzdb_ob_create(const vz_kvc* name)
{
    if (!is_dir(VZDB_BASE))
        return VZDB_NOHOME;
    char* path = nullptr;
    int rc = vzdb_ob2dir(name, &path);
    if (rc != 0)
        return rc;
    rc = vzdb_tree_make(path);
    vzdb_strfree(path);
    return rc;
}

int vzdb_ob_test(const vz_kvc* name, int* exists)
{
    *exists = 0;
    char* path = nullptr;
    int rc = vzdb_ob2dir(name, &path);
    if (rc != 0)
        return rc;
    *exists = is_dir(path) ? 1 : 0;
    vzdb_strfree(path);
    return VZDB_OK;
}

int vzdb_ob_setugm(const vz_kvc* name, int owner, int group, int mode)
{
    char* path = nullptr;
    int rc = vzdb_ob2dir(name, &path);
    if (rc != 0)
        return rc;
    if (is_dir(path)) {
        if (mode != -1 && chmod(path, mode_t(mode) & ~mode_t(0xF000)) != 0)
            rc = VZDB_NOPRIV;
        if (rc == 0 && (owner != -1 || group != -1) &&
            chown(path, uid_t(owner), gid_t(group)) != 0)  // (uid_t)-1 keeps that one
            rc = VZDB_NOPRIV;
    }
    vzdb_strfree(path);
    return rc;
}

int vzdb_ob_getugm(const vz_kvc* name, int* owner, int* group, int* mode)
{
    *owner = *group = *mode = -1;
    char* path = nullptr;
    int rc = vzdb_ob2dir(name, &path);
    if (rc != 0)
        return rc;
    struct stat st;
    if (stat(path, &st) == 0) {
        *owner = int(st.st_uid);
        *group = int(st.st_gid);
        *mode = int(st.st_mode);
    }
    vzdb_strfree(path);
    return VZDB_OK;
}

int vzdb_ob_list(const vz_kvc* name, vz_kvc** children)
{
    *children = nullptr;
    char* path = nullptr;
    int rc = vzdb_ob2dir(name, &path);
    if (rc != 0)
        return rc;
    vz_kvcstate st = 0;
    if (vz_kvcv_init(children, &st) != 0) {
        vzdb_strfree(path);
        return VZDB_NOMEM;
    }
    DIR* dir = opendir(path);
    vzdb_strfree(path);
    if (dir == nullptr)
        return VZDB_OK;
    while (const dirent* e = readdir(dir)) {
        if (is_child(e->d_name) && (rc = vzdb_dir2ob1(children, &st, e->d_name)) != 0)
            break;  // the vector has been freed
    }
    closedir(dir);
    return rc;
}

int vzdb_ob_delete(const vz_kvc* name)
{
    char* path = nullptr;
    int rc = vzdb_ob2dir(name, &path);
    if (rc != 0)
        return rc;
    rc = vzdb_tree_remove(path);
    vzdb_strfree(path);
    return rc;
}
