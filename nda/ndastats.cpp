#include "nda/ndastats.h"

#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "nmtrace.h"

namespace {

std::array<uint64_t, NDA_STAT_COUNT> counts{};
constexpr int ACCEPTS_PER_WAKE = 16;  // the datagrams' turn comes between
constexpr size_t ANSWER_MAX = 4096;
static_assert(ct_size(nda_stat_defs, NDA_STAT_COUNT) <= ANSWER_MAX);

socklen_t address_of(int port, sockaddr_un* a)
{
    *a = {};
    a->sun_family = AF_UNIX;
    int n = snprintf(a->sun_path + 1, sizeof a->sun_path - 1, "halyard-nda.%d", port);
    return socklen_t(offsetof(sockaddr_un, sun_path) + 1 + size_t(n));
}

bool peer_of(int fd, ucred* who)
{
    socklen_t len = sizeof *who;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, who, &len) == 0;
}

}  // namespace

void nda_count(size_t stat)
{
    if (stat < NDA_STAT_COUNT)
        counts[stat]++;
}

void nda_stats_reset()
{
    counts.fill(0);
}

int nda_stats_listen(int port)
{
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_un a;
    socklen_t len = address_of(port, &a);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&a), len) != 0 || listen(fd, 8) != 0) {
        TRACE(proc, 1, "nda_stats_listen: @halyard-nda.%d: %s\n", port, strerror(errno));
        close(fd);
        return -1;
    }
    return fd;
}

// Whoever connects is answered at once or dropped: nothing is read from
// it, and a caller that does not read loses its answer, not the agent's time.
void nda_stats_serve(int fd)
{
    for (int i = 0; i < ACCEPTS_PER_WAKE; i++) {
        int c = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (c < 0)
            return;
        ucred who{};
        if (peer_of(c, &who) && (who.uid == 0 || who.uid == geteuid() || who.gid == getegid())) {
            uint8_t buf[ANSWER_MAX];
            int n = ct_encode(buf, sizeof buf, nda_stat_defs, counts.data(), int(NDA_STAT_COUNT));
            if (n > 0 && send(c, buf, size_t(n), MSG_DONTWAIT | MSG_NOSIGNAL) != n)
                TRACE(proc, 1, "nda_stats_serve: answer to pid %d not sent\n", int(who.pid));
        } else {
            TRACE(proc, 1, "nda_stats_serve: uid %d gid %d refused\n", int(who.uid), int(who.gid));
        }
        close(c);
    }
}

int nda_stats_fetch(int port, const char* agent_user, int timeout_ms, CtSet* out, char* why, size_t size)
{
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        snprintf(why, size, "socket: %s", strerror(errno));
        return -1;
    }
    sockaddr_un a;
    socklen_t len = address_of(port, &a);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&a), len) != 0) {
        snprintf(why, size, "no agent answers at @%s (is it running, at port %d?): %s", a.sun_path + 1, port,
                 strerror(errno));
        close(fd);
        return -1;
    }
    ucred who{};
    const passwd* pw = getpwnam(agent_user);
    if (!peer_of(fd, &who) || (who.uid != 0 && who.uid != getuid() && (pw == nullptr || who.uid != pw->pw_uid))) {
        snprintf(why, size, "@%s is held by uid %d, neither root nor %s: not believed", a.sun_path + 1,
                 int(who.uid), agent_user);
        close(fd);
        return -1;
    }
    uint8_t buf[ANSWER_MAX];
    pollfd p{fd, POLLIN, 0};
    ssize_t n = poll(&p, 1, timeout_ms) == 1 ? recv(fd, buf, sizeof buf, 0) : -1;
    close(fd);
    if (n <= 0) {
        snprintf(why, size, "%s", n == 0 ? "the agent refused: only root, its user and its group may ask"
                                         : "no answer from the agent");
        return -1;
    }
    const char* what = "";
    if (ct_decode(buf, size_t(n), out, &what) != 0) {
        snprintf(why, size, "malformed answer from the agent: %s", what);
        return -1;
    }
    return 0;
}
