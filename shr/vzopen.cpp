#include "shr/vzopen.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "shr/logging.h"

int vz_open_plain(const char* path, int flags, mode_t mode)
{
    int fd = open(path, (flags & ~O_TRUNC) | O_NOFOLLOW | O_NOCTTY, mode);
    if (fd < 0)
        return -1;
    struct stat st;
    int err = 0;
    if (fstat(fd, &st) != 0)
        err = errno;
    else if (!S_ISREG(st.st_mode))
        err = EINVAL;
    else if (st.st_nlink > 1)
        err = EMLINK;
    else if ((flags & O_TRUNC) != 0 && ftruncate(fd, 0) != 0)
        err = errno;
    if (err != 0) {
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

FILE* vz_fopen_plain(const char* path, const char* mode)
{
    int flags;
    if (strcmp(mode, "r") == 0)
        flags = O_RDONLY;
    else if (strcmp(mode, "r+") == 0)
        flags = O_RDWR;
    else if (strcmp(mode, "a") == 0)
        flags = O_WRONLY | O_CREAT | O_APPEND;
    else if (strcmp(mode, "w") == 0)
        flags = O_WRONLY | O_CREAT | O_TRUNC;
    else {
        errno = EINVAL;
        return nullptr;
    }
    int fd = vz_open_plain(path, flags, 0666);
    if (fd < 0)
        return nullptr;
    FILE* f = fdopen(fd, mode);
    if (f == nullptr) {
        int err = errno;
        close(fd);
        errno = err;
    }
    return f;
}

bool vz_refused(int err)
{
    return err == ELOOP || err == EMLINK || err == EINVAL;
}

namespace {
constexpr int MSG_REFUSED = 541;
}  // namespace

void vz_log_refused(const char* path, int err)
{
    const char* why = err == ELOOP ? "a symbolic link" : err == EMLINK ? "a file with other links" : "not a regular file";
    log_new();
    log_catmsg(LOG_SET, MSG_REFUSED, "%s: refusing to write %s: %s", prog, path, why);
}

void close_extra_descriptors()
{
    for (int fd = 3; fd <= 19; fd++)
        close(fd);
}
