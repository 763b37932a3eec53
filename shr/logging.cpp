#include "shr/logging.h"

#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

#include "shr/logcatmsg.h"
#include "shr/vzopen.h"
#include "shr/vzhome.h"

const char* prog = "Halyard";

namespace {

constexpr int LOG_MAX_ARGS = 6;
constexpr mode_t LOG_MODE = 0664;
constexpr const char* PLACEHOLDER = "/dev/null";

// Null while logging is off. While it is on, and no message is being
// written, a stream on the placeholder: it only marks the log as open.
FILE* logfile = nullptr;
char saved_filename[1024];
time_t t = 0;  // 0: the next message starts a new time-stamped group

// A new log file belongs to the product's administrative user and group.
void adopt_new_file(FILE* f)
{
    int fd = fileno(f);
    fchmod(fd, LOG_MODE);
    char home[200];
    struct stat st;
    if (stat(vzhome_get(home, sizeof home), &st) == 0) {
        // Not fatal: without privileges the file stays the creator's.
        if (fchown(fd, st.st_uid, st.st_gid) != 0) {
        }
    }
}

void logging_off()
{
    if (logfile != nullptr)
        fclose(logfile);
    logfile = nullptr;
}

// The ctime text with its newline replaced by CR LF.
void write_time_stamp(FILE* f)
{
    t = time(nullptr);
    const char* stamp = ctime(&t);
    if (stamp == nullptr) {
        fputs("\r\n", f);
        return;
    }
    size_t len = strlen(stamp);
    if (len > 0 && stamp[len - 1] == '\n')
        len--;
    fprintf(f, "%.*s\r\n", int(len), stamp);
}

}  // namespace

int open_log(const char* path)
{
    logging_off();
    saved_filename[0] = '\0';
    if (path == nullptr || path[0] == '\0')
        return 0;
    size_t plen = strlen(path);
    if (path[0] != '/') {
        // The directory, a '/', the path and the NUL must fit.
        if (plen + 2 >= sizeof saved_filename
            || getcwd(saved_filename, sizeof saved_filename - 1 - plen) == nullptr) {
            saved_filename[0] = '\0';
            return -1;
        }
        size_t dlen = strlen(saved_filename);
        snprintf(saved_filename + dlen, sizeof saved_filename - dlen, "/%s", path);
    } else {
        // A path cut to fit would name another file: refused instead.
        if (plen >= sizeof saved_filename)
            return -1;
        memcpy(saved_filename, path, plen + 1);
    }
    bool existed = access(saved_filename, F_OK) == 0;
    FILE* f = vz_fopen_plain(saved_filename, "a");
    if (f == nullptr)
        return -1;
    if (!existed)
        adopt_new_file(f);
    fclose(f);
    logfile = fopen(PLACEHOLDER, "a");
    return logfile == nullptr ? -1 : 0;
}

void log_new()
{
    t = 0;
}

int log_vmsg(const char* format, va_list ap)
{
    if (logfile == nullptr || format == nullptr)
        return 0;
    fclose(logfile);
    logfile = vz_fopen_plain(saved_filename, "a");
    if (logfile == nullptr)
        return 0;  // dropped; logging stays off from now on
    if (t == 0)
        write_time_stamp(logfile);
    fputc('\t', logfile);
    vprint_limited(logfile, format, LOG_MAX_ARGS, ap);
    fputs("\r\n", logfile);
    fflush(logfile);
    fclose(logfile);
    logfile = fopen(PLACEHOLDER, "a");
    return 0;
}

int log_msg(const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    int r = log_vmsg(format, ap);
    va_end(ap);
    return r;
}

int close_log()
{
    if (logfile == nullptr)
        return 0;
    int r = fclose(logfile);
    logfile = nullptr;
    return r;
}
