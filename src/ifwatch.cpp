#include "src/ifwatch.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "nmtrace.h"
#include "shr/logging.h"
#include "shr/reader.h"
#include "shr/uniinet.h"
#include "src/claim.h"
#include "src/cust.h"
#include "src/delay.h"
#include "src/enstable.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/netaddr.h"
#include "src/ntable.h"

namespace {

constexpr int MSG_WAITING = 563;
constexpr int MSG_SERVING = 564;
constexpr int MSG_DROPPED = 565;
constexpr int MSG_NO_FOLLOW = 566;

// A burst of changes (a host bringing up many addresses) must not overrun
// the socket: what was lost would only be seen at the next change.
constexpr int NL_RCVBUF = 256 * 1024;

int nl_fd = -1;
int static_ct = 0;          // my_addr entries of the [interface] sections; followed ones come after
bool said_waiting = false;  // the log has said that nothing is served

// Addresses owed the second claim of their names, a second after the first.
struct Fresh {
    uint32_t addr;
    time_t first;
};
std::array<Fresh, MAX_INTERFACES> fresh;
int fresh_ct = 0;
bool fresh_timer = false;

int index_of(uint32_t addr)
{
    for (int i = 0; i < my_addr_ct; i++)
        if (my_addr[i].addr == addr)
            return i;
    return -1;
}

// Names still in their first claim are claimed on every interface by the
// claim cycle; the owned ones are claimed here.
void claim_names_on(int index)
{
    for (const nt_entry* e = n_table; e != nullptr; e = e->next)
        if ((e->flags & NT_PENDING) == 0)
            name_claim_on(e, index);
}

void claim_fresh(int32_t)
{
    fresh_timer = false;
    time_t now = dg_now();
    int kept = 0;
    for (int k = 0; k < fresh_ct; k++) {
        const Fresh f = fresh[size_t(k)];
        int i = index_of(f.addr);
        if (i < 0)
            continue;  // gone again
        if (now <= f.first) {
            fresh[size_t(kept++)] = f;
            continue;
        }
        claim_names_on(i);
    }
    fresh_ct = kept;
    // With the timer table full the second claims wait for the next change.
    if (fresh_ct > 0)
        fresh_timer = dg_timer(1, claim_fresh, 0) == 0;
}

void serve_new(int index, const char* ifname)
{
    uint32_t a = my_addr[index].addr;
    if (!ens_a_own(a))
        ens_a_add(a, nullptr);
    log_new();
    log_catmsg(LOG_SET, MSG_SERVING, "%s: serving %s on %s", prog, nm_ntoa(a), ifname);
    claim_names_on(index);
    if (fresh_ct < int(fresh.size()))
        fresh[size_t(fresh_ct++)] = {a, dg_now()};
    if (!fresh_timer)
        fresh_timer = dg_timer(1, claim_fresh, 0) == 0;
}

void drop_old(uint32_t a)
{
    const EnsAddr* e = ens_a_lookup(a);
    if (e != nullptr && e->host == nullptr)
        ens_a_del(a);
    log_new();
    log_catmsg(LOG_SET, MSG_DROPPED, "%s: no longer serving %s", prog, nm_ntoa(a));
}

// The agents keep at most 20 addresses per host.
void tell_agents()
{
    if (nda_ct == 0)
        return;
    uint32_t list[DC_MAXADDR];
    int n = std::min(my_addr_ct, DC_MAXADDR);
    for (int i = 0; i < n; i++)
        list[i] = my_addr[i].addr;
    if (n > 1)
        nda_equiv(list, n);
    for (const nt_entry* e = n_table; e != nullptr && n > 0; e = e->next)
        if ((e->flags & NT_PENDING) == 0)
            nda_add(e->name, e->flags, list, n);
}

uint32_t inet_of(const sockaddr* sa)
{
    if (sa == nullptr || sa->sa_family != AF_INET)
        return 0;
    sockaddr_in sin{};
    memcpy(&sin, sa, sizeof sin);
    return sin.sin_addr.s_addr;
}

bool rescan(bool first)
{
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        TRACE(proc, 1, "ifw_rescan: getifaddrs: errno %d\n", errno);
        return false;
    }
    std::array<if_entry, MAX_INTERFACES> found;
    std::array<std::array<char, IFNAMSIZ>, MAX_INTERFACES> names;
    int n = 0;
    for (const ifaddrs* p = list; p != nullptr; p = p->ifa_next) {
        uint32_t a = inet_of(p->ifa_addr);
        unsigned fl = p->ifa_flags;
        // Running, not only up: until the link has its carrier the system
        // drops what is sent there, and a claim would be lost.
        if (a == 0 || (fl & (IFF_UP | IFF_RUNNING)) != (IFF_UP | IFF_RUNNING) || (fl & IFF_BROADCAST) == 0 ||
            (fl & IFF_LOOPBACK) != 0 ||
            !if_selected(p->ifa_name, a))
            continue;
        bool known = false;
        for (int i = 0; i < static_ct && !known; i++)
            known = my_addr[i].addr == a;
        for (int j = 0; j < n && !known; j++)
            known = found[size_t(j)].addr == a;
        if (known)
            continue;
        if (static_ct + n >= MAX_INTERFACES) {
            TRACE(proc, 1, "ifw_rescan: more than %d addresses, %s left out\n", MAX_INTERFACES, nm_ntoa(a));
            continue;
        }
        if_entry& e = found[size_t(n)];
        e.addr = a;
        e.mask = inet_of(p->ifa_netmask);
        if (e.mask == 0)
            dflt_netmask(&e.mask, a);
        e.bcast = inet_of(p->ifa_broadaddr);
        if (e.bcast == 0)
            e.bcast = (a & e.mask) | ~e.mask;
        snprintf(names[size_t(n)].data(), IFNAMSIZ, "%s", p->ifa_name);
        n++;
    }
    freeifaddrs(list);

    bool changed = false;
    for (int i = static_ct; i < my_addr_ct; i++) {
        bool kept = false;
        for (int j = 0; j < n && !kept; j++)
            kept = found[size_t(j)].addr == my_addr[i].addr;
        if (!kept) {
            drop_old(my_addr[i].addr);
            changed = true;
        }
    }
    std::array<bool, MAX_INTERFACES> added{};
    for (int j = 0; j < n; j++) {
        added[size_t(j)] = index_of(found[size_t(j)].addr) < 0;
        changed = changed || added[size_t(j)];
    }
    for (int j = 0; j < n; j++)
        my_addr[static_ct + j] = found[size_t(j)];
    my_addr_ct = static_ct + n;
    for (int j = 0; j < n; j++)
        if (added[size_t(j)])
            serve_new(static_ct + j, names[size_t(j)].data());

    if (my_addr_ct == 0 && !said_waiting) {
        log_new();
        log_catmsg(LOG_SET, MSG_WAITING, "%s: no interface to serve yet; waiting for one", prog);
    }
    said_waiting = my_addr_ct == 0;
    return changed && !first;
}

}  // namespace

void ifw_start()
{
    static_ct = my_addr_ct;
    nl_fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    sockaddr_nl sa{};
    sa.nl_family = AF_NETLINK;
    sa.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_LINK;
    int size = NL_RCVBUF;
    if (nl_fd >= 0)
        setsockopt(nl_fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    if (nl_fd < 0 || bind(nl_fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
        dg_custfd(nl_fd, ifw_recv) != 0) {
        // Served as found now, but not followed.
        log_new();
        log_catmsg(LOG_SET, MSG_NO_FOLLOW, "%s: cannot follow the interfaces: %s", prog, strerror(errno));
        if (nl_fd >= 0)
            close(nl_fd);
        nl_fd = -1;
    }
    // Bound before the first scan: a change between the two is not lost.
    rescan(true);
}

// Only the kernel (or a process with the right to change the interfaces)
// can send to this socket; whatever the datagram says, the worst it can do
// is a fresh reading of the system's own table.
int ifw_recv(int, const uint8_t* data, int len, const UniAddr*)
{
    TRACE(proc, 3, "ifw_recv called, len %d\n", len);
    // Empty: messages were lost, so whatever they said is read again.
    if (len == 0 || (len > 0 && nl_changes({data, size_t(len)})))
        ifw_rescan();
    return 0;
}

void ifw_rescan()
{
    if (rescan(false))
        tell_agents();
}

// Netlink messages are in the host's byte order, little-endian here: a
// 16-byte header (length with the header, type, flags, sequence, port),
// then the body, each message padded to 4 bytes. An address message's body
// starts with its family.
int nl_changes(std::span<const uint8_t> data)
{
    Reader r(data);
    while (r.left() > 0) {
        uint32_t len = r.u32le();
        uint16_t type = r.u16le();
        r.skip(10);
        if (!r.ok() || len < NLMSG_HDRLEN || len - NLMSG_HDRLEN > r.left())
            return 1;  // cut short: what it said cannot be known
        Reader body = r.sub(len - NLMSG_HDRLEN);
        r.skip(std::min(size_t(NLMSG_ALIGN(len) - len), r.left()));
        switch (type) {
        case RTM_NEWLINK:
        case RTM_DELLINK:
        case NLMSG_ERROR:
        case NLMSG_OVERRUN:
            return 1;
        case RTM_NEWADDR:
        case RTM_DELADDR:
            if (body.u8() == AF_INET || !body.ok())
                return 1;
            break;
        default:
            break;
        }
    }
    return 0;
}
