#include "src/netif.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>

#include "nmtrace.h"

static_assert(NETIF_NAMESIZE == IFNAMSIZ);

namespace {

// Only the first records of the system's list are searched; Linux fills what
// fits and reports the bytes used.
constexpr size_t IF_LIST_RECORDS = 20;

const char* ntoa(uint32_t addr)
{
    in_addr a{};
    a.s_addr = addr;
    return inet_ntoa(a);
}

// An ifreq naming the interface; a name too long for the field is cut.
ifreq request_for(const char* name)
{
    ifreq r{};
    size_t n = strnlen(name, IFNAMSIZ - 1);
    memcpy(r.ifr_name, name, n);
    return r;
}

uint32_t inet_of(const sockaddr& sa)
{
    sockaddr_in sin{};
    memcpy(&sin, &sa, sizeof sin);
    return sin.sin_addr.s_addr;
}

}  // namespace

int get_if(char* name, int sock, uint32_t addr)
{
    ifreq records[IF_LIST_RECORDS];
    memset(records, 0, sizeof records);
    ifconf conf{};
    conf.ifc_len = static_cast<int>(sizeof records);
    conf.ifc_req = records;
    if (ioctl(sock, SIOCGIFCONF, &conf) < 0)
        return -1;
    size_t count = static_cast<size_t>(conf.ifc_len) / sizeof(ifreq);
    if (count > IF_LIST_RECORDS)
        count = IF_LIST_RECORDS;
    for (size_t i = 0; i < count; i++) {
        const ifreq& r = records[i];
        if (r.ifr_addr.sa_family != AF_INET || inet_of(r.ifr_addr) != addr)
            continue;
        memcpy(name, r.ifr_name, IFNAMSIZ);
        name[IFNAMSIZ - 1] = '\0';
        return 0;
    }
    TRACE(proc, 1, "get_if: address %s not found\n", ntoa(addr));
    return -1;
}

int get_bcast(uint32_t* bcast, int sock, const char* name)
{
    ifreq r = request_for(name);
    if (ioctl(sock, SIOCGIFBRDADDR, &r) == 0) {
        *bcast = inet_of(r.ifr_broadaddr);
        if (*bcast != 0)
            return 0;
    }
    // A point-to-point link broadcasts to its peer. Linux answers the
    // destination query on every interface (with the local address where
    // there is no peer), so it is asked only of point-to-point links.
    r = request_for(name);
    if (ioctl(sock, SIOCGIFFLAGS, &r) == 0 && (r.ifr_flags & IFF_POINTOPOINT)) {
        r = request_for(name);
        if (ioctl(sock, SIOCGIFDSTADDR, &r) == 0) {
            *bcast = inet_of(r.ifr_dstaddr);
            if (*bcast != 0)
                return 0;
        }
    }
    TRACE(proc, 1, "get_bcast: Can't find network interface %s\n", name);
    return -1;
}

int get_mask(uint32_t* mask, int sock, const char* name)
{
    ifreq r = request_for(name);
    if (ioctl(sock, SIOCGIFNETMASK, &r) < 0)
        return -1;
    *mask = inet_of(r.ifr_netmask);
    if (*mask == 0) {
        TRACE(proc, 1, "get_mask: Can't find netmask for interface %s\n", name);
        return -1;
    }
    return 0;
}
