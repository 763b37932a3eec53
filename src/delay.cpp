#include "src/delay.h"

#include <cstring>
#include <new>

#include "misc/pktasm.h"
#include "nmtrace.h"
#include "shr/uniinet.h"
#include "src/cust.h"
#include "src/enstable.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/query.h"

namespace {

DelayCmd* d_list = nullptr;  // earliest expiry first
int d_pending = 0;           // 1 while a timer is armed for serve_delay
uint32_t next_xid = 1;

constexpr int CMD_WAIT = 3;     // between two sends of a command
constexpr int VERIFY_WAIT = 2;  // an agent's VERIFY waits no longer for the status answer
constexpr int CLAIMCK_WAIT = 5;
constexpr int SENDS_PER_NDA = 2;

// VERIFY answers: the host holds the name, or it does not (or was silent).
constexpr int32_t VERIFY_NO_ANS = -1;
constexpr int32_t VERIFY_NO_ERR = 3;

void verify_response(const DelayCmd* rec, int32_t ans, int32_t err)
{
    pkta_begin();
    pkta_respond(&rec->peer, static_cast<uint32_t>(rec->ctx1), ENS_VERIFY, ans, err);
}

bool sends(int kind)
{
    return kind != DC_CLAIMCK && kind != DC_VERIFY;
}

}  // namespace

DelayCmd* dc_alloc()
{
    DelayCmd* rec = new (std::nothrow) DelayCmd{};
    if (rec == nullptr) {
        TRACE(proc, 1, "dc_alloc: malloc failed\n");
        return nullptr;
    }
    rec->xid = next_xid++;
    return rec;
}

void dc_start(DelayCmd* rec, time_t now)
{
    int wait = rec->kind == DC_VERIFY ? VERIFY_WAIT : rec->kind == DC_CLAIMCK ? CLAIMCK_WAIT : CMD_WAIT;
    rec->expiry = now + wait;
    rec->nda_index = 0;
    rec->tries = 0;
    if (sends(rec->kind) && send_cmd(rec) < 0) {
        delete rec;  // no agent configured: nobody to ask
        return;
    }
    insert_delay(rec);
}

void insert_delay(DelayCmd* rec)
{
    DelayCmd** at = &d_list;
    while (*at != nullptr && (*at)->expiry <= rec->expiry)
        at = &(*at)->next;
    rec->next = *at;
    *at = rec;
    if (d_pending == 0)
        serve_delay();
}

void serve_delay(int32_t)
{
    d_pending = 1;
    time_t now = dg_now();
    while (d_list != nullptr && d_list->expiry <= now)
        cmd_timeout(now);
    if (d_list == nullptr) {
        d_pending = 0;
        return;
    }
    // A full timer table would strand the list; the next insertion then
    // serves it again.
    if (dg_timer(static_cast<int>(d_list->expiry - now), serve_delay, 0) < 0)
        d_pending = 0;
}

void cmd_timeout(time_t now)
{
    DelayCmd* rec = d_list;
    if (rec == nullptr)
        return;
    d_list = rec->next;
    rec->next = nullptr;
    if (rec->kind == DC_CLAIMCK) {
        uint32_t claimer = 0;
        if (uatoian(&claimer, nullptr, &rec->peer) == 0)
            adapstat_query(rec->name, claimer);
        delete rec;
    } else if (rec->kind == DC_VERIFY) {
        verify_response(rec, VERIFY_NO_ANS, VERIFY_NO_ERR);
        delete rec;
    } else if (send_cmd(rec) == 0) {
        rec->expiry = now + CMD_WAIT;
        insert_delay(rec);
    } else {
        delete rec;
    }
}

int send_cmd(DelayCmd* rec)
{
    if (rec->tries >= SENDS_PER_NDA) {
        rec->nda_index++;
        if (rec->nda_index >= nda_ct) {
            TRACE(proc, 3, "send_cmd: No response from any NDA\n");
            return -1;
        }
        rec->tries = 0;
    }
    if (rec->nda_index >= nda_ct || rec->nda_index >= MAX_NDA)
        return -1;
    rec->tries++;
    UniAddr to{};
    iantoua(&to, nda_addr[rec->nda_index], ndport);
    switch (rec->kind) {
    case DC_CLAIM:
    case DC_ADD:
        send_add(rec->xid, rec->name, rec->flags, rec->addrs, rec->addr_ct, &to);
        break;
    case DC_QUERY:
    case DC_LQUERY:
        send_query(rec->xid, rec->name, &to);
        break;
    case DC_DELETE:
        send_delete(rec->xid, rec->name, rec->addrs, rec->addr_ct, &to);
        break;
    case DC_EQUIV:
        send_equiv(rec->xid, rec->addrs, rec->addr_ct, &to);
        break;
    case DC_PURGE:
        send_purge(rec->xid, rec->addrs[0], &to);
        break;
    default:
        return -1;
    }
    return 0;
}

DelayCmd* find_delay(uint32_t id)
{
    for (DelayCmd* rec = d_list; rec != nullptr; rec = rec->next) {
        if (rec->xid == id)
            return rec;
    }
    return nullptr;
}

int rm_delay(DelayCmd* rec)
{
    for (DelayCmd** at = &d_list; *at != nullptr; at = &(*at)->next) {
        if (*at == rec) {
            *at = rec->next;
            delete rec;
            return 0;
        }
    }
    return -1;
}

void delay_claimck(const uint8_t* name, const UniAddr* peer)
{
    DelayCmd* rec = dc_alloc();
    if (rec == nullptr)
        return;
    rec->kind = DC_CLAIMCK;
    memcpy(rec->name, name, sizeof rec->name);
    rec->peer = *peer;
    dc_start(rec, dg_now());
}

void delay_verify(const UniAddr* peer, uint32_t id, const uint8_t* name, uint32_t address)
{
    DelayCmd* rec = dc_alloc();
    if (rec == nullptr)
        return;
    rec->kind = DC_VERIFY;
    rec->ctx1 = static_cast<int32_t>(id);
    memcpy(rec->name, name, sizeof rec->name);
    rec->peer = *peer;
    rec->addrs[0] = address;
    rec->addr_ct = 1;
    adapstat_query(name, address);
    dc_start(rec, dg_now());
}

void check_verify(const uint32_t* addrs, int n)
{
    DelayCmd* rec = d_list;
    for (; rec != nullptr; rec = rec->next) {
        if (rec->kind != DC_VERIFY)
            continue;
        bool among = false;
        for (int i = 0; i < n && !among; i++)
            among = addrs[i] == rec->addrs[0];
        if (among)
            break;
    }
    if (rec == nullptr)
        return;
    TRACE(proc, 3, "check_verify: found match\n");
    const EnsAddr* a = ens_a_lookup(rec->addrs[0]);
    if (a == nullptr || a->host == nullptr)
        return;  // the time-out answers
    bool held = false;
    for (EnsName* e = ens_n_lookup(rec->name); e != nullptr && !held; e = ens_n_next(rec->name, e))
        held = e->host == a->host;
    if (held)
        verify_response(rec, 0, 0);
    else
        verify_response(rec, VERIFY_NO_ANS, VERIFY_NO_ERR);
    rm_delay(rec);
}

void delay_clear()
{
    while (d_list != nullptr) {
        DelayCmd* rec = d_list;
        d_list = rec->next;
        delete rec;
    }
}
