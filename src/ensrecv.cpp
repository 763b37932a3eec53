#include "src/ensrecv.h"

#include <cstring>

#include "misc/enskey.h"
#include "misc/nencode.h"
#include "misc/pktdis.h"
#include "nmtrace.h"
#include "shr/fxdump.h"
#include "shr/logging.h"
#include "shr/uniconv.h"
#include "shr/uniinet.h"
#include "src/cache.h"
#include "src/cust.h"
#include "src/delay.h"
#include "src/dorequest.h"
#include "src/ens.h"
#include "src/enstable.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/ntable.h"
#include "src/service.h"
#include "src/stats.h"

namespace {

constexpr int32_t VERIFY_NO = 3;  // err of a negative VERIFY response

// One of the daemon's own interface addresses: in the table without a host.
bool own_address(uint32_t address)
{
    const EnsAddr* a = ens_a_lookup(address);
    return a != nullptr && a->host == nullptr;
}

// Whether sender is one of the agents nda_addr[0..upto], at the agents'
// port. Beyond the plain protocol, which takes an answer from anyone whose
// id matches: ids count from 1, so any station could answer for the agents,
// poison lookups and take a local name away with a forged refusal.
bool from_agent(const UniAddr* sender, int upto)
{
    uint32_t a = 0;
    int32_t port = 0;
    if (uatoian(&a, &port, sender) < 0 || port != ndport)
        return false;
    for (int i = 0; i <= upto && i < nda_ct && i < MAX_NDA; i++) {
        if (nda_addr[i] == a)
            return true;
    }
    return false;
}

// The body of a positive QUERY response and of an ADD refusal: int group,
// then ip. True when both were there. The group flag is kept as the agent
// sent it: answers test its bit 0, clients get the value itself.
bool read_group_ip(int* group, uint32_t* address, bool with_marker)
{
    int32_t g = 0;
    int32_t marker = 1;
    if (pktd_int(&g) < 0)
        return false;
    if (with_marker && (pktd_int(&marker) < 0 || marker == 0))
        return false;
    if (pktd_ip(address) < 0)
        return false;
    *group = g;
    return true;
}

void query_resp(const DelayCmd* rec)
{
    TRACE(proc, 3, "ens_recv: got QUERY response, ans %d, err %d\n", pk_ans, pk_err);
    time_t now = dg_now();
    if (pk_ans < 0) {
        nda_putncache(rec->name, now);
        return;
    }
    int group = 0;
    uint32_t address = 0;
    if (!read_group_ip(&group, &address, true)) {
        TRACE(proc, 1, "ens_recv (query_resp): bad packet\n");
        return;
    }
    // A positive answer under the id of another kind of command is about no
    // query of ours: nothing to answer and nothing to cache.
    if (rec->kind != DC_QUERY && rec->kind != DC_LQUERY)
        return;
    if (rec->kind == DC_QUERY) {
        const uint32_t pktid[2] = {uint32_t(rec->ctx1), rec->ctx2};
        stat_inc(ST_QUERIES_PROXY);
        answer_query(rec->name, uint32_t(group), address, &rec->peer, pktid);
    } else {
        int32_t id = 0;
        uint32_t xid = 0;
        if (get_luname(rec->name, &id, &xid) == 0 && id == rec->ctx1 && xid == rec->ctx2) {
            TRACE(proc, 3, "query_resp: answering local query\n");
            stat_inc(ST_LOOKUP_AGENT);
            rm_lu(id);
            finish_lookup(address, group, xid);
        }
    }
    nda_putpcache(rec->name, address, group, now);
}

void add_resp(const DelayCmd* rec)
{
    TRACE(proc, 3, "ens_recv: got ADD response, ans %d, err %d, name %s\n", pk_ans, pk_err,
          nm_printable(rec->name));
    time_t now = dg_now();
    int group = 0;
    uint32_t owner = 0;
    if (rec->kind == DC_ADD) {
        if (pk_ans >= 0)
            return;
        bool known = read_group_ip(&group, &owner, false);
        if (known)
            nda_putpcache(rec->name, owner, group, now);
        // A registration made on another host's behalf is left as it is.
        if (rec->addr_ct < 1 || !own_address(rec->addrs[0]))
            return;
        // A refusal without a readable owner still loses us the name; the
        // second log line then says so, so that the group keeps its form.
        nt_lost(rec->name, known ? nm_ntoa(owner) : "unknown", NtLoss::agent);
    } else if (rec->kind == DC_CLAIM) {
        if (pk_ans < 0) {
            if (read_group_ip(&group, &owner, false)) {
                TRACE(proc, 3, "add_resp: defending name for %s\n", nm_ntoa(owner));
                const uint32_t pktid[2] = {uint32_t(rec->ctx1), rec->ctx2};
                stat_inc(ST_CLAIMS_DEFENDED);
                defend_name(rec->name, uint32_t(group), owner, &rec->peer, pktid);
                nda_putpcache(rec->name, owner, group, now);
            }
        } else {
            // nda_claim keeps the claimer's address first and its group flag.
            add_name_to_host(rec->name, rec->addrs[0], rec->flags & ENS_GROUP, now);
            nda_putpcache(rec->name, rec->addrs[0], int(rec->flags & 1), now);
        }
        // Whatever the agent said, the claimer's names are learned from its status.
        delay_claimck(rec->name, &rec->peer);
    }
}

// The bodies of these three are not read.
void delete_resp()
{
    TRACE(proc, 3, "ens_recv: got DELETE response, ans %d, err %d\n", pk_ans, pk_err);
}

void equiv_resp()
{
    TRACE(proc, 3, "ens_recv: got EQUIV response, ans %d, err %d\n", pk_ans, pk_err);
}

void purge_resp()
{
    TRACE(proc, 3, "ens_recv: got PURGE response, ans %d, err %d\n", pk_ans, pk_err);
}

void handle_response(const DelayCmd* rec)
{
    switch (pk_action) {
    case ENS_QUERY:
        query_resp(rec);
        break;
    case ENS_VERIFY:
        break;
    case ENS_ADD:
        add_resp(rec);
        break;
    case ENS_DELETE:
        delete_resp();
        break;
    case ENS_EQUIV:
        equiv_resp();
        break;
    case ENS_PURGE:
        purge_resp();
        break;
    default:
        TRACE(proc, 1, "ens_recv: unexpected response action: %d\n", pk_action);
        break;
    }
}

// An agent asks whether the host at an address holds a name. Our own
// addresses are answered at once from the local table; another host is
// asked for its status, and check_verify or the time-out answers.
void verify_req(const UniAddr* sender, uint32_t id)
{
    TRACE(proc, 3, "verify_req called, nda %s, id %lu\n", uni_ntoa(sender), static_cast<unsigned long>(id));
    uint8_t name[16];
    uint32_t address = 0;
    if (pktd_name(name) < 0 || pktd_ip(&address) < 0) {
        TRACE(proc, 1, "ens_recv (verify_req): bad packet\n");
        return;
    }
    if (tcfile != nullptr && tc_proc >= 5) {
        const char* text = nm_printable(name);
        tc_printf("verify_req: name %s, addr %s\n", text, nm_ntoa(address));
        fflush(tcfile);
    }
    if (own_address(address)) {
        bool held = name_present(name) != nullptr;
        pkta_begin();
        pkta_respond(sender, id, ENS_VERIFY, held ? 0 : -1, held ? 0 : VERIFY_NO);
        return;
    }
    delay_verify(sender, id, name, address);
}

// Addresses of one host, passed on to our agents; no response goes back.
// A command holds 20 addresses, so the rest of a longer list is not read.
void equiv_req()
{
    uint32_t addrs[DC_MAXADDR];
    int n = 0;
    while (n < DC_MAXADDR) {
        int32_t more = 0;
        if (pktd_int(&more) < 0) {
            TRACE(proc, 1, "ens_recv (equiv_req): bad int in packet\n");
            return;
        }
        if (more == 0)
            break;
        if (pktd_ip(&addrs[n]) < 0) {
            TRACE(proc, 1, "ens_recv (equiv_req): bad ip in packet\n");
            return;
        }
        n++;
    }
    // An empty list is passed on too: the agents decide what it means.
    nda_equiv(addrs, n);
}

void handle_request(const UniAddr* sender, uint32_t id)
{
    switch (pk_action) {
    case ENS_VERIFY:
        verify_req(sender, id);
        break;
    case ENS_EQUIV:
        equiv_req();
        break;
    default:
        TRACE(proc, 1, "ens_recv: unexpected request action: %d\n", pk_action);
        break;
    }
}

}  // namespace

int ens_recv(int /*fd*/, const uint8_t* bytes, int length, const UniAddr* sender)
{
    if (tcfile != nullptr && tc_in >= 4) {
        tc_printf("ens_recv: got %d bytes --\n", length);
        dump_bytes(tcfile, bytes, length > 0 ? size_t(length) : 0);
        fflush(tcfile);
    }
    const char* why = "";
    int sealed = length;
    length = ek_open(bytes, length, ek_now_us(), &why);
    if (length < 0) {
        TRACE(proc, 1, "ens_recv: %d bytes from %s dropped: %s\n", sealed, uni_ntoa(sender), why);
        return 0;
    }
    int r = pktd_hdr(bytes, length);
    if (r < 0) {
        TRACE(proc, 1, "ens_recv: pktd_hdr returned %d\n", r);
        return 0;
    }
    TRACE(proc, 5, "ens_recv: packet header: id %lu, type %ld, action %ld\n", static_cast<unsigned long>(pk_id),
          static_cast<long>(pk_type), static_cast<long>(pk_action));
    if (pk_type == 1) {
        DelayCmd* rec = find_delay(pk_id);
        if (rec == nullptr) {
            TRACE(proc, 1, "ens_recv: no corresponding request\n");
            return 0;
        }
        // Only from an agent the command went to: those before the one now tried too.
        if (!from_agent(sender, rec->nda_index)) {
            TRACE(proc, 1, "ens_recv: response from %s, not an agent asked: dropped\n", uni_ntoa(sender));
            return 0;
        }
        handle_response(rec);
        // Queries merged into this one get the same answer, each read anew.
        for (const DelayCmd* m = rec->merged; m != nullptr; m = m->merged) {
            if (pktd_hdr(bytes, length) >= 0)
                handle_response(m);
        }
        rm_delay(rec);
    } else if (from_agent(sender, nda_ct - 1)) {
        handle_request(sender, pk_id);
    } else {
        TRACE(proc, 1, "ens_recv: request from %s, not an agent: dropped\n", uni_ntoa(sender));
    }
    return 0;
}
