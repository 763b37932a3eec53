#include "src/namecust.h"

#include <csignal>
#include <netinet/in.h>

#include "misc/initsock.h"
#include "nmtrace.h"
#include "shr/logging.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/nbndgio.h"
#include "src/notifier.h"

int ens_fd = -1;

int open_socket(uint16_t port)
{
    TRACE(proc, 3, "open_socket called\n");
    uint16_t p = port;
    int fd = init_sock(0, &p, 0);
    if (fd < 0)
        TRACE(proc, 1, "open_socket: init_sock failed: addr %s, port %d\n", nm_ntoa(htonl(INADDR_ANY)),
              int(port));
    return fd;
}

int name_init()
{
    TRACE(proc, 1, "name_init: transport_tcpip %d, transport_vznbu %d\n", transport_tcpip, transport_vznbu);
    int fd = -1;
    if (transport_tcpip)
        fd = open_socket(nmport);
    // The NetBIOS driver and the client requests with their notifier are
    // not served yet: the daemon only holds its name-service port.
    if (nda_ct > 0) {
        // Agents are not spoken to by this build: say so once and run as
        // without them, rather than half-serve them.
        log_new();
        log_msg("%s: peer name directory not available in this build; %d agent(s) ignored", prog,
                nda_ct);
        nda_ct = 0;
    }
    return fd;
}

void name_recv(const UniAddr*, const uint8_t*, int len)
{
    TRACE(proc, 3, "name_recv called, len %d\n", len);
    // Until the name service decodes packets, every datagram is dropped.
}

void name_shut()
{
    if (ntf_pid > 0)
        kill(ntf_pid, SIGHUP);
}
