#include "shr/uniinet.h"

#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>

int iantoua(UniAddr* ua, uint32_t addr, int32_t port)
{
    memset(ua, 0, sizeof *ua);
    ua->family = UNI_INET;
    memcpy(ua->addr, &addr, 4);  // already in network byte order
    ua->len = 4;
    if (port != -1) {
        ua->addr[4] = static_cast<uint8_t>(port >> 8);
        ua->addr[5] = static_cast<uint8_t>(port);
        ua->len = 6;
    }
    return 0;
}

int uatoian(uint32_t* addr, int32_t* port, const UniAddr* ua)
{
    if (ua->family != UNI_INET || (ua->len != 4 && ua->len != 6))
        return -1;
    if (addr != nullptr)
        memcpy(addr, ua->addr, 4);
    if (port != nullptr)
        *port = ua->len == 6 ? int32_t(ua->addr[4] << 8 | ua->addr[5]) : -1;
    return 0;
}

int iahtoua(UniAddr* ua, uint32_t addr, int32_t port)
{
    return iantoua(ua, addr, port);
}

int uatoiah(uint32_t* addr, int32_t* port, const UniAddr* ua)
{
    return uatoian(addr, port, ua);
}

const char* nm_ntoa(uint32_t addr)
{
    struct in_addr a;
    a.s_addr = addr;
    return inet_ntoa(a);
}
