#include "nb/nbladdr.h"

#include <cstring>

int vznb_uatona(NbAddr* na, const UniAddr* ua)
{
    if (ua->family != UNI_NETBIOS || (ua->len != 16 && ua->len != 18 && ua->len != 20))
        return VZNB_BADADDR;
    memcpy(na->name, ua->addr, sizeof na->name);
    na->port1 = ua->len >= 17 ? uint16_t(ua->addr[16] << 8 | ua->addr[17]) : 0;
    na->port2 = ua->len >= 19 ? uint16_t(ua->addr[18] << 8 | ua->addr[19]) : 0;
    return 0;
}

int vznb_natoua(UniAddr* ua, const NbAddr* na)
{
    memset(ua, 0, sizeof *ua);
    ua->family = UNI_NETBIOS;
    memcpy(ua->addr, na->name, sizeof na->name);
    ua->len = 16;
    if (na->port1 != 0 || na->port2 != 0) {
        ua->addr[16] = static_cast<uint8_t>(na->port1 >> 8);
        ua->addr[17] = static_cast<uint8_t>(na->port1);
        ua->addr[18] = static_cast<uint8_t>(na->port2 >> 8);
        ua->addr[19] = static_cast<uint8_t>(na->port2);
        ua->len = 20;
    }
    return 0;
}
