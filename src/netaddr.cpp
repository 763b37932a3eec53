#include "src/netaddr.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include "misc/initsock.h"
#include "nmtrace.h"
#include "src/namelogin.h"
#include "src/netif.h"

namespace {

const char* ntoa(uint32_t addr)
{
    in_addr a{};
    a.s_addr = addr;
    return inet_ntoa(a);
}

uint8_t octet(uint32_t addr, int i)  // the i-th octet as written, from 0
{
    return static_cast<uint8_t>(ntohl(addr) >> (24 - 8 * i));
}

}  // namespace

int prepare_addresses()
{
    int sock = temp_socket();
    for (int i = 0; i < my_addr_ct; i++) {
        if_entry& e = my_addr[i];
        // The broadcast address first: a computed one uses the mask of its
        // own lookup, never a configured netmask.
        if (e.bcast == 0) {
            find_bcast(&e.bcast, sock, e.addr);
        } else {
            TRACE(proc, 5, "prepare_addresses: using broadcast addr %s ", ntoa(e.bcast));
            TRACE(proc, 5, "for %s\n", ntoa(e.addr));
        }
        if (e.mask == 0) {
            find_netmask(&e.mask, sock, e.addr);
        } else {
            TRACE(proc, 5, "prepare_addresses: using netmask %s ", ntoa(e.mask));
            TRACE(proc, 5, "for %s\n", ntoa(e.addr));
        }
    }
    if (sock >= 0)
        temp_s_close(sock);
    return 0;
}

int find_bcast(uint32_t* bcast, int sock, uint32_t addr)
{
    char name[NETIF_NAMESIZE];
    if (sock >= 0 && get_if(name, sock, addr) == 0 && get_bcast(bcast, sock, name) == 0) {
        TRACE(proc, 5, "find_bcast: found bcast (%s)", ntoa(*bcast));
        TRACE(proc, 5, " for %s\n", ntoa(addr));
        return 0;
    }
    uint32_t mask = 0;
    find_netmask(&mask, sock, addr);
    *bcast = (addr & mask) | (broadcast_addr & ~mask);
    TRACE(proc, 5, "find_bcast: using default bcast (%s)", ntoa(*bcast));
    TRACE(proc, 5, " for %s\n", ntoa(addr));
    return 0;
}

int find_netmask(uint32_t* mask, int sock, uint32_t addr)
{
    char name[NETIF_NAMESIZE];
    if (sock >= 0 && get_if(name, sock, addr) == 0 && get_mask(mask, sock, name) == 0) {
        TRACE(proc, 5, "find_netmask: found mask (%s)", ntoa(*mask));
        TRACE(proc, 5, " for %s\n", ntoa(addr));
        return 0;
    }
    dflt_netmask(mask, addr);
    TRACE(proc, 5, "find_netmask: using default mask (%s)", ntoa(*mask));
    TRACE(proc, 5, " for %s\n", ntoa(addr));
    return 0;
}

int dflt_netmask(uint32_t* mask, uint32_t addr)
{
    uint8_t first = octet(addr, 0);
    if ((first & 0x80) == 0)
        *mask = htonl(0xff000000);  // class A
    else if ((first & 0xc0) == 0x80)
        *mask = htonl(0xffff0000);  // class B
    else
        *mask = htonl(0xffffff00);  // class C, and D and E alike
    return 0;
}

int same_net(uint32_t a, uint32_t b)
{
    uint8_t first = octet(a, 0);
    if (first != octet(b, 0))
        return 0;
    if ((first & 0x80) == 0)
        return 1;
    if ((first & 0xc0) == 0x80)
        return octet(a, 1) == octet(b, 1) ? 1 : 0;
    if ((first & 0xe0) == 0xc0)
        return octet(a, 1) == octet(b, 1) && octet(a, 2) == octet(b, 2) ? 1 : 0;
    return 0;  // class D and E have no networks
}
