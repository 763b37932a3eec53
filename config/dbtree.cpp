#include "config/dbtree.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/dballoc.h"
#include "config/dbname.h"
#include "shr/vzstrdup.h"

namespace {

constexpr mode_t kDirMode = 0775;

char* kept_base = nullptr;  // inside_vzdb's copy of the base path

bool is_dir(const char* path)
{
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// Depth first; entries without "=" are foreign and stay, and so does their
// directory. Symbolic links and other devices' trees are never followed:
// removal stays on the database's own file system.
bool i_remove(const char* path, dev_t dev)
{
    struct stat st;
    if (lstat(path, &st) != 0 || st.st_dev != dev)
        return false;
    if (S_ISREG(st.st_mode))
        return unlink(path) == 0;
    if (!S_ISDIR(st.st_mode))
        return false;
    DIR* dir = opendir(path);
    if (dir == nullptr)
        return false;
    size_t plen = strlen(path);
    int remaining = 0;
    while (const dirent* e = readdir(dir)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
            continue;
        if (strchr(e->d_name, '=') == nullptr) {
            remaining++;
            continue;
        }
        size_t elen = strlen(e->d_name);
        char* child = static_cast<char*>(malloc(plen + 1 + elen + 1));
        if (child == nullptr) {
            remaining++;
            continue;
        }
        memcpy(child, path, plen);
        child[plen] = '/';
        memcpy(child + plen + 1, e->d_name, elen + 1);
        if (!i_remove(child, dev))
            remaining++;
        free(child);
    }
    closedir(dir);
    return remaining == 0 && rmdir(path) == 0;
}

// Creates path[0..len) unless it is a directory already. Another process
// may make it between our look and our mkdir: EEXIST is then no failure.
bool make_one(char* path, size_t len)
{
    char saved = path[len];
    path[len] = '\0';
    bool ok = is_dir(path) || ((mkdir(path, kDirMode) == 0 || errno == EEXIST) && is_dir(path));
    path[len] = saved;
    return ok;
}

}  // namespace

int inside_vzdb(const char* path, int* inside)
{
    *inside = 0;
    if (kept_base == nullptr) {
        kept_base = vz_strdup(VZDB_BASE);
        if (kept_base == nullptr)
            return VZDB_NOMEM;
    }
    size_t blen = strlen(kept_base);
    *inside = strncmp(path, kept_base, blen) == 0 && path[blen] == '/' &&
              strncmp(path + blen + 1, VZDB_ROOTNAME, 4) == 0;
    return VZDB_OK;
}

int vzdb_path_ok(const char* path)
{
    size_t rlen = strlen(VZDB_ROOT);
    if (strncmp(path, VZDB_ROOT, rlen) != 0)
        return 0;
    const char* p = path + rlen;
    if (*p == '\0')
        return 1;
    while (*p == '/') {
        p++;
        size_t clen = strcspn(p, "/");
        const char* eq = static_cast<const char*>(memchr(p, '=', clen));
        if (eq == nullptr || eq == p)
            return 0;
        p += clen;
    }
    return *p == '\0';
}

namespace {

// VZDB_OK when path is a well-formed place below the database's base.
int below_base(const char* path)
{
    int inside = 0;
    int rc = inside_vzdb(path, &inside);
    if (rc != 0)
        return rc;
    return inside && vzdb_path_ok(path) ? VZDB_OK : VZDB_BADNAME;
}

}  // namespace

int vzdb_tree_make(const char* path)
{
    int rc = below_base(path);
    if (rc != VZDB_OK)
        return rc;
    char* work = vz_strdup(path);
    if (work == nullptr)
        return VZDB_NOMEM;
    mode_t old = umask(0);
    // The root itself must exist; the walk starts at the first component below it.
    size_t len = strlen(work);
    for (size_t i = strlen(VZDB_ROOT) + 1; i < len && rc == 0; i++) {
        if (work[i] == '/' && !make_one(work, i))
            rc = VZDB_NOPRIV;
    }
    if (rc == 0 && !make_one(work, len))
        rc = VZDB_NOPRIV;
    umask(old);
    free(work);
    return rc;
}

int vzdb_tree_remove(const char* path)
{
    if (int rc = below_base(path); rc != VZDB_OK)
        return rc;
    const char* last = strrchr(path, '/');
    if (last == nullptr || strchr(last + 1, '=') == nullptr)
        return VZDB_BADNAME;  // the root, or a foreign directory
    struct stat st;
    if (lstat(path, &st) != 0)
        return VZDB_NOPRIV;
    return i_remove(path, st.st_dev) ? VZDB_OK : VZDB_NOPRIV;
}
