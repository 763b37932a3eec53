#pragma once

#include <cstdio>
#include <sys/types.h>

// Opens a file that the super-user creates, appends to or truncates in a
// directory that another user may own, without letting that user redirect
// the write: a symbolic link in the file's place is not followed (ELOOP),
// and anything but a regular file with a single link is refused (EMLINK for
// a hard link, EINVAL for a FIFO, device or directory), so a planted link
// never makes the caller touch the file behind it. O_TRUNC in flags is
// applied only after those checks. A descriptor, or -1 with errno set.
int vz_open_plain(const char* path, int flags, mode_t mode);
// The same for fopen's modes "r", "r+", "a" and "w" (new files 0666 less
// the umask, as fopen makes them); null with errno set.
FILE* vz_fopen_plain(const char* path, const char* mode);
// Whether errno after one of the two names a refused file rather than one
// that could not be opened.
bool vz_refused(int err);
// Logs that path was refused for the reason in err (message 541).
void vz_log_refused(const char* path, int err);
// Closes descriptors 3 to 19, ignoring errors: what a program inherited
// beyond the standard three (the daemon and the agent at start-up).
void close_extra_descriptors();
