#include "src/cust.h"

#include <array>
#include <cstring>
#include <unistd.h>

#include "misc/pktasm.h"
#include "nmtrace.h"
#include "shr/dgsend.h"
#include "shr/uniinet.h"
#include "src/cache.h"
#include "src/delay.h"
#include "src/dorequest.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/namecust.h"
#include "src/namelogin.h"
#include "src/service.h"
#include "src/stats.h"

int same_addr(uint32_t address, const UniAddr* peer)
{
    uint32_t a = 0;
    if (uatoian(&a, nullptr, peer) < 0)
        return 0;
    return a == address ? 1 : 0;
}

namespace {

// Our commands hold at most DC_MAXADDR addresses. Every caller passes a
// host's addresses, and a host holds at most 20: a longer list keeps its
// first 20, the same cut as an EQUIV request that lists more.
void copy_addrs(DelayCmd* rec, const uint32_t* addrs, int n)
{
    rec->addr_ct = n < 0 || addrs == nullptr ? 0 : n > DC_MAXADDR ? DC_MAXADDR : n;
    if (rec->addr_ct > 0)
        memcpy(rec->addrs, addrs, sizeof(uint32_t) * static_cast<size_t>(rec->addr_ct));
}

DelayCmd* make_cmd(int kind, const uint8_t* name)
{
    DelayCmd* rec = dc_alloc();
    if (rec == nullptr)
        return nullptr;
    rec->kind = kind;
    if (name != nullptr)
        memcpy(rec->name, name, sizeof rec->name);
    return rec;
}

// An address list: (int 1, ip) per address, then int 0.
bool put_addr_list(const uint32_t* addrs, int n)
{
    for (int i = 0; i < n; i++) {
        if (pkta_int(1) < 0 || pkta_ip(addrs[i]) < 0)
            return false;
    }
    return pkta_int(0) >= 0;
}

bool bcast_sent = false;  // ens_bcast's one broadcast went out

}  // namespace

void nda_add(const uint8_t* name, uint32_t flags, const uint32_t* addrs, int n)
{
    DelayCmd* rec = make_cmd(DC_ADD, name);
    if (rec == nullptr)
        return;
    rec->flags = flags;
    copy_addrs(rec, addrs, n);
    dc_start(rec, dg_now());
}

void nda_delete(const uint8_t* name, const uint32_t* addrs, int n)
{
    DelayCmd* rec = make_cmd(DC_DELETE, name);
    if (rec == nullptr)
        return;
    copy_addrs(rec, addrs, n);
    dc_start(rec, dg_now());
}

void nda_equiv(const uint32_t* addrs, int n)
{
    DelayCmd* rec = make_cmd(DC_EQUIV, nullptr);
    if (rec == nullptr)
        return;
    copy_addrs(rec, addrs, n);
    dc_start(rec, dg_now());
}

void nda_purge(uint32_t address)
{
    DelayCmd* rec = make_cmd(DC_PURGE, nullptr);
    if (rec == nullptr)
        return;
    copy_addrs(rec, &address, 1);
    dc_start(rec, dg_now());
}

void nda_query(const npkt* packet)
{
    time_t now = dg_now();
    uint32_t addr = 0;
    int group = 0;
    int cached = nda_getcache(&addr, &group, packet->name, now);
    if (cached == 0) {
        TRACE(proc, 3, "nda_query: found cached negative NDA response\n");
        return;
    }
    if (cached == 1) {
        TRACE(proc, 3, "nda_query: found cached NDA response, addr %s\n", nm_ntoa(addr));
        stat_inc(ST_QUERIES_PROXY);
        answer_query(packet->name, static_cast<uint32_t>(group), addr, &packet->addr, packet->pktid);
        return;
    }
    DelayCmd* rec = make_cmd(DC_QUERY, packet->name);
    if (rec == nullptr)
        return;
    rec->ctx1 = static_cast<int32_t>(packet->pktid[0]);
    rec->ctx2 = packet->pktid[1];
    rec->peer = packet->addr;
    uint32_t asker = 0;
    uatoian(&asker, nullptr, &packet->addr);
    copy_addrs(rec, &asker, 1);
    dc_start(rec, now);
}

int nda_lquery(const uint8_t* name, int32_t id, uint32_t xid)
{
    time_t now = dg_now();
    uint32_t addr = 0;
    int group = 0;
    int cached = nda_getcache(&addr, &group, name, now);
    if (cached == 0) {
        TRACE(proc, 3, "nda_lquery: found cached negative NDA response\n");
        return -1;
    }
    if (cached == 1) {
        TRACE(proc, 3, "nda_lquery: found cached NDA response, addr %s\n", nm_ntoa(addr));
        stat_inc(ST_LOOKUP_AGENT);
        finish_lookup(addr, group, xid);
        return 0;
    }
    DelayCmd* rec = make_cmd(DC_LQUERY, name);
    if (rec == nullptr)
        return -1;
    rec->ctx1 = id;
    rec->ctx2 = xid;
    dc_start(rec, now);
    return -1;  // the caller broadcasts the query as well
}

void nda_claim(const npkt* packet)
{
    time_t now = dg_now();
    uint32_t group = (packet->flags & NPKT_GROUP) != 0 ? 1 : 0;
    uint32_t addr = 0;
    int cgroup = 0;
    if (nda_getcache(&addr, &cgroup, packet->name, now) == 1) {
        TRACE(proc, 3, "nda_claim: found cached NDA response, addr %s\n", nm_ntoa(addr));
        if (static_cast<uint32_t>(cgroup) == group && same_addr(addr, &packet->addr))
            return;
    }
    DelayCmd* rec = make_cmd(DC_CLAIM, packet->name);
    if (rec == nullptr)
        return;
    rec->ctx1 = static_cast<int32_t>(packet->pktid[0]);
    rec->ctx2 = packet->pktid[1];
    rec->peer = packet->addr;
    uint32_t claimer = 0;
    uatoian(&claimer, nullptr, &packet->addr);
    copy_addrs(rec, &claimer, 1);
    rec->flags = group;
    dc_start(rec, now);
}

int send_query(uint32_t id, const uint8_t* name, const UniAddr* to)
{
    TRACE(proc, 3, "send_query called\n");
    pkta_begin();
    if (pkta_name(name) < 0 || pkta_int(0) < 0)
        return -1;
    return pkta_request(to, id, ENS_QUERY);
}

int send_add(uint32_t id, const uint8_t* name, uint32_t flags, const uint32_t* addrs, int n,
             const UniAddr* to)
{
    TRACE(proc, 3, "send_add called\n");
    pkta_begin();
    if (pkta_name(name) < 0 || pkta_int(static_cast<int32_t>(flags)) < 0 || !put_addr_list(addrs, n))
        return -1;
    return pkta_request(to, id, ENS_ADD);
}

int send_delete(uint32_t id, const uint8_t* name, const uint32_t* addrs, int n, const UniAddr* to)
{
    TRACE(proc, 3, "send_delete called\n");
    pkta_begin();
    if (pkta_name(name) < 0 || !put_addr_list(addrs, n))
        return -1;
    return pkta_request(to, id, ENS_DELETE);
}

int send_equiv(uint32_t id, const uint32_t* addrs, int n, const UniAddr* to)
{
    TRACE(proc, 3, "send_equiv called\n");
    pkta_begin();
    if (!put_addr_list(addrs, n))
        return -1;
    return pkta_request(to, id, ENS_EQUIV);
}

int send_purge(uint32_t id, uint32_t address, const UniAddr* to)
{
    TRACE(proc, 3, "send_purge called\n");
    pkta_begin();
    if (pkta_ip(address) < 0)
        return -1;
    return pkta_request(to, id, ENS_PURGE);
}

void ens_bcast()
{
    if (bcast_sent || !ens_client || nda_ct != 0 || my_addr_ct < 2)
        return;
    std::array<uint32_t, MAX_INTERFACES> addrs{};
    int n = my_addr_ct < MAX_INTERFACES ? my_addr_ct : MAX_INTERFACES;
    for (int i = 0; i < n; i++)
        addrs[size_t(i)] = my_addr[i].addr;
    // Without agents the daemon has no ENS socket: the one broadcast leaves
    // by a socket at the ENS port opened for it alone.
    int fd = open_socket(ensport);
    if (fd < 0)
        return;
    UniAddr to{};
    iantoua(&to, my_addr[0].bcast, ndport);
    dg_send_via(fd);
    send_equiv(0, addrs.data(), n, &to);
    dg_send_via(-1);
    bcast_sent = true;
    close(fd);
}
