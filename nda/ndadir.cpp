#include "nda/ndadir.h"

namespace {

constexpr int MAX_TAKES = 8;  // holders one claim may take over (more than one only after a regrouping)

// 1 when `from` may change the entry without asking its holder: one of the
// host's own addresses, or the station that registered it.
int may_change(const NdaStore* s, const NdaHolder& h, uint32_t from)
{
    if (from == h.via_ip)
        return 1;
    int64_t host = s->host_of(from);
    return host < 0 ? -1 : host == h.host ? 1 : 0;
}

// The claimer's host: that of its first address, else a new one holding
// the claim's addresses that no host has. -1 error.
int64_t claimer_host(const NdaStore* s, const NdaClaim& c)
{
    int64_t host = s->host_of(c.addrs[0]);
    if (host != 0)
        return host;
    host = s->new_host(c.now);
    if (host < 0)
        return -1;
    for (int i = 0; i < c.addr_ct; i++) {
        int64_t other = i == 0 ? 0 : s->host_of(c.addrs[i]);
        if (other < 0 || (other == 0 && s->add_addr(c.addrs[i], host) < 0))
            return -1;
    }
    return host;
}

int claim_in(const NdaStore* s, const NdaClaim& c, NdaHolder* holder)
{
    int64_t host = claimer_host(s, c);
    if (host < 0 || s->seen(host, c.now) < 0)
        return -1;
    // An entry of another host answering with one of this host's addresses
    // was made before the address was regrouped: it is this host's own.
    for (int i = 0; i < c.addr_ct; i++) {
        int64_t h = i == 0 ? host : s->host_of(c.addrs[i]);
        if (h < 0 || (h == host && s->drop_stale(c.name, host, c.addrs[i]) < 0))
            return -1;
    }
    for (int t = 0;; t++) {
        NdaHolder h{};
        int found = s->holder(c.name, host, c.now, &h);
        if (found < 0)
            return -1;
        if (found == 0 || (h.group != 0 && c.group != 0))
            break;
        int may = h.group == 0 && t < MAX_TAKES ? may_change(s, h, c.via_ip) : 0;
        if (may < 0)
            return -1;
        if (may == 0) {
            *holder = h;
            return ST_HELD;
        }
        if (s->drop_name(c.name, h.host) < 0)
            return -1;
    }
    // A host's own registration keeps its registrar: a proxy that registers
    // the name again does not become the one station that may delete it.
    uint32_t via_ip = c.via_ip;
    uint16_t via_port = c.via_port;
    NdaHolder mine{};
    int had = s->entry(c.name, host, &mine);
    if (had < 0)
        return -1;
    if (had == 1 && mine.via_ip != via_ip) {
        int64_t old_via = s->host_of(mine.via_ip), new_via = s->host_of(via_ip);
        if (old_via < 0 || new_via < 0)
            return -1;
        if (old_via == host && new_via != host) {
            via_ip = mine.via_ip;
            via_port = mine.via_port;
        }
    }
    // A daemon's entry stays until that daemon deletes it: a WINS refresh
    // from the same host does not make it lapse.
    int64_t expires = had == 1 && mine.expires == 0 ? 0 : c.expires;
    return s->put_name(c.name, host, c.group != 0 ? 1 : 0, c.addrs[0], via_ip, via_port, c.now, expires);
}

// One address out of a host it shared, onto a host of its own (without
// names: its daemon registers them again for the new grouping).
int split_one(const NdaStore* s, uint32_t ip, int64_t now)
{
    int64_t host = s->host_of(ip);
    if (host < 0)
        return -1;
    if (host == 0) {
        int64_t own = s->new_host(now);
        return own < 0 ? -1 : s->add_addr(ip, own);
    }
    int64_t n = s->addr_count(host);
    if (n < 0)
        return -1;
    if (n <= 1)
        return 0;
    int64_t own = s->new_host(now);
    return own < 0 ? -1 : s->move_addr(ip, own);
}

int join(const NdaStore* s, const uint32_t* addrs, int n, int64_t now)
{
    int64_t target = 0;
    for (int i = 0; i < n && target == 0; i++)
        target = s->host_of(addrs[i]);
    if (target < 0 || (target == 0 && (target = s->new_host(now)) < 0))
        return -1;
    for (int i = 0; i < n; i++) {
        int64_t other = s->host_of(addrs[i]);
        if (other < 0)
            return -1;
        if (other == 0) {
            if (s->add_addr(addrs[i], target) < 0)
                return -1;
        } else if (other != target && s->merge_host(other, target) < 0) {
            return -1;
        }
    }
    return s->seen(target, now);
}

}  // namespace

int dir_claim(const NdaStore* s, const NdaClaim& c, NdaHolder* holder)
{
    return claim_in(s, c, holder);
}

int dir_replace(const NdaStore* s, const NdaClaim& c, const NdaHolder& old, NdaHolder* holder)
{
    if (s->drop_name(c.name, old.host) < 0)
        return -1;
    return claim_in(s, c, holder);
}

int dir_query(const NdaStore* s, const uint8_t* name, int64_t now, NdaHolder* out)
{
    return s->holder(name, 0, now, out);
}

int dir_remove(const NdaStore* s, const uint8_t* name, const uint32_t* addrs, int n, uint32_t from,
               NdaHolder* holder)
{
    bool held = false;
    for (int i = 0; i < n; i++) {
        int64_t host = s->host_of(addrs[i]);
        if (host < 0)
            return -1;
        NdaHolder h{};
        int found = host == 0 ? 0 : s->entry(name, host, &h);
        if (found < 0)
            return -1;
        if (found == 0)
            continue;
        int may = may_change(s, h, from);
        if (may < 0 || (may == 1 && s->drop_name(name, host) < 0))
            return -1;
        if (may == 0 && !held) {
            *holder = h;
            held = true;
        }
    }
    return held ? ST_HELD : 0;
}

int dir_drop(const NdaStore* s, const uint8_t* name, const NdaHolder& old)
{
    return s->drop_name(name, old.host);
}

int dir_purge(const NdaStore* s, uint32_t ip)
{
    int64_t host = s->host_of(ip);
    return host < 0 ? -1 : host == 0 ? 0 : s->drop_host(host);
}

int dir_equiv(const NdaStore* s, const uint32_t* addrs, int n, int64_t now)
{
    if (n < 1)
        return 0;
    return n == 1 ? split_one(s, addrs[0], now) : join(s, addrs, n, now);
}
