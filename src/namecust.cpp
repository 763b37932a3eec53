#include "src/namecust.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <netinet/in.h>

#include "misc/initsock.h"
#include "nmtrace.h"
#include "shr/logging.h"
#include "shr/uniinet.h"
#include "src/maininit.h"
#include "src/cust.h"
#include "src/delay.h"
#include "src/dorequest.h"
#include "src/ens.h"
#include "src/enstable.h"
#include "src/ensrecv.h"
#include "src/getnpack.h"
#include "src/ifwatch.h"
#include "src/namelogin.h"
#include "src/nbndgio.h"
#include "src/notifier.h"
#include "src/ntable.h"
#include "src/service.h"

namespace {
constexpr int MSG_NO_NOTIFIER = 192;
int dg_fd = -1;   // the name-service socket, -1 when there is none
int ens_fd = -1;  // the ENS socket, open only with agents configured
}  // namespace

int open_socket(uint16_t port)
{
    TRACE(proc, 3, "open_socket called\n");
    uint16_t p = port;
    // The name-service port is shared with an agent serving WINS on this
    // host; any other port is ours alone.
    int fd = port != 0 && port < 1024 ? init_shared_sock(0, p) : init_sock(0, &p, 0);
    if (fd < 0)
        TRACE(proc, 1, "open_socket: init_sock failed: addr %s, port %d\n", nm_ntoa(htonl(INADDR_ANY)),
              int(port));
    return fd;
}

int name_init()
{
    TRACE(proc, 1, "name_init: transport_tcpip %d, transport_vznbu %d\n", transport_tcpip, transport_vznbu);
    if (transport_tcpip)
        dg_fd = open_socket(nmport);  // the configured names' first claims go out before this returns
    if (transport_vznbu)
        nbunx_open();
    // Routed before the notifier exists, so its first wake-up finds the route.
    dg_signal(SIGINT, do_request);
    const char* why = notifier();
    if (why != nullptr) {
        TRACE(proc, 1, "name_init: can't start notifier process: %s\n", why);
        log_new();
        log_catmsg(LOG_SET, MSG_NO_NOTIFIER, "Halyard: cannot start notifier process: %s", why);
        dg_exit(0);
    }
    if (transport_tcpip && if_select_ct > 0)
        ifw_start();
    for (int i = 0; i < my_addr_ct; i++) {
        if (ens_a_lookup(my_addr[i].addr) == nullptr)
            ens_a_add(my_addr[i].addr, nullptr);
    }
    if (nda_ct > 0) {
        ens_fd = open_socket(ensport);
        if (ens_fd < 0) {
            TRACE(proc, 1, "name_init: can't get ens_fd\n");
            dg_exit(0);
        }
        dg_custfd(ens_fd, ens_recv);
        if (my_addr_ct > 1) {
            // The agents keep at most 20 addresses per host; further
            // interfaces are left out of the equivalence rather than overrun it.
            uint32_t list[DC_MAXADDR];
            int n = std::min(my_addr_ct, DC_MAXADDR);
            for (int i = 0; i < n; i++)
                list[i] = my_addr[i].addr;
            nda_equiv(list, n);
        }
        set_probe_timer();
    }
    ens_bcast();
    // The configured names, as a client would add them.
    for (int i = 0; i < cfg_name_ct; i++) {
        if (nt_add(cfg_names[i].name, cfg_names[i].flags) == 0)
            start_claims();
    }
    return dg_fd;
}

int name_fd()
{
    return dg_fd;
}

int name_send(DgWay way, int fd, const uint8_t* data, int len, const UniAddr* to)
{
    // Answers on the name-service socket may wait for the others of their
    // batch; anything else leaves after them.
    if (fd < 0 && way == DgWay::name)
        return put_ddg_held(dg_fd, data, len, to);
    dg_flush();
    return put_ddg(fd >= 0 ? fd : ens_fd, data, len, to);
}

void name_recv(const UniAddr* from, const uint8_t* data, int len)
{
    TRACE(proc, 3, "name_recv called, len %d\n", len);
    if (decode_npack(inpkt, data, len) < 0)
        return;  // the decoder traced why
    memcpy(&inpkt->addr, from, sizeof inpkt->addr);
    process_npkt(inpkt);
}

void name_shut()
{
    if (ntf_pid > 0)
        kill(ntf_pid, SIGHUP);
}
