#include "nda/ndawins.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "misc/initsock.h"
#include "misc/nencode.h"
#include "misc/pktasm.h"
#include "nda/ndadir.h"
#include "nda/ndaserve.h"
#include "nda/ndastats.h"
#include "nda/ndastore.h"
#include "nmtrace.h"
#include "shr/dgsend.h"
#include "shr/uniinet.h"
#include "src/getnpack.h"

namespace {

constexpr int HDR = 12;
constexpr int MAX_BATCH = 64;
constexpr int MAX_PROBES = 512;                 // name queries asked for the ENS side, remembered
constexpr uint32_t VERIFY_TAG = 0x80000000u;    // our VERIFY ids, apart from the ENS side's
constexpr int ANSWER_BOUND = 576;               // a group's answer stays within this

const NdaStore* store = nullptr;
int wins_fd = -1;  // the program's WINS socket: -1 while it does not serve
uint32_t granted = WINS_TTL_DEFAULT;
int64_t next_purge_ms = 0;
uint32_t next_tag = 1;

uint16_t get16(const uint8_t* p)
{
    return uint16_t(p[0] << 8 | p[1]);
}

void put16(uint8_t* p, int v)
{
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}

// A name at pos that is labels (no pointer), the first the 32 letters of
// a first-level encoding: its end, or null.
const uint8_t* read_name(const uint8_t* pos, const uint8_t* end, WinsPacket* out)
{
    const uint8_t* p = pos;
    while (p < end && *p != 0) {
        if ((*p & 0xC0) != 0 || p + 1 + *p >= end)
            return nullptr;
        p += 1 + *p;
    }
    if (p >= end || p + 1 - pos > WINS_WIRE_NAME || pos[0] != NB_ENCLEN)
        return nullptr;
    char letters[NB_ENCLEN + 1];
    for (int i = 0; i < NB_ENCLEN; i++) {
        if (pos[1 + i] < 'A' || pos[1 + i] > 'P')
            return nullptr;
        letters[i] = char(pos[1 + i]);
    }
    letters[NB_ENCLEN] = '\0';
    n_decode(out->name, letters);
    out->wire_len = int(p + 1 - pos);
    memcpy(out->wire, pos, size_t(out->wire_len));
    return p + 1;
}

// A record's NB entries from pos (type, class, TTL, RDLENGTH, data): the
// end of the record, or null.
const uint8_t* read_entries(const uint8_t* pos, const uint8_t* end, WinsPacket* out)
{
    if (end - pos < 10)
        return nullptr;
    out->type = get16(pos);
    out->ttl = uint32_t(get16(pos + 4)) << 16 | get16(pos + 6);
    int rdlength = get16(pos + 8);
    pos += 10;
    if (end - pos < rdlength)
        return nullptr;
    out->has_record = true;
    for (int i = 0; i + 6 <= rdlength && out->addr_ct < WINS_MAX_ADDRS; i += 6) {
        if (i == 0)
            out->nb_flags = get16(pos);
        memcpy(&out->addrs[out->addr_ct++], pos + i + 2, 4);
    }
    return pos + rdlength;
}

// The answer to one request (or a WACK) as it goes out.
struct Reply {
    uint32_t ip;
    uint16_t port;
    uint16_t id;
    int opcode;
    bool rd;
    int rcode;
    uint8_t wire[WINS_WIRE_NAME + 1];
    int wire_len;
    int type;          // RR_NB, or RR_NULL for a negative query answer
    uint32_t ttl;
    int nb_flags;
    int rdata_ct;      // entries, or for a WACK its two bytes
    uint32_t addrs[WINS_MAX_ADDRS];
};

// Out by the WINS way of the agent's sender.
void send_wins(const uint8_t* data, int len, uint32_t ip, uint16_t port)
{
    UniAddr to{};
    iantoua(&to, ip, port);
    if (dg_send(DgWay::wins, data, len, &to) < 0)
        TRACE(proc, 1, "wins: send to %s failed\n", nm_ntoa(ip));
}

void send_reply(const Reply& r)
{
    uint8_t out[NPKT_AREA];
    put16(out, r.id);
    out[2] = uint8_t(0x80 | r.opcode << 3 | 0x04 | (r.rd ? 0x01 : 0));
    out[3] = uint8_t((r.opcode == WINS_OP_WACK ? 0 : 0x80) | r.rcode);
    fill_counts(out, 0, 1, 0, 0);
    int n = HDR;
    memcpy(out + n, r.wire, size_t(r.wire_len));
    n += r.wire_len;
    if (r.opcode == WINS_OP_WACK) {
        n += fill_rr_header(out + n, RR_NB, RR_IN, r.ttl, 2);
        put16(out + n, r.nb_flags);  // the request's own flags field
        n += 2;
    } else if (r.type == RR_NULL) {
        n += fill_rr_header(out + n, RR_NULL, RR_IN, 0, 0);
    } else {
        n += fill_rr_header(out + n, RR_NB, RR_IN, r.ttl, 6 * r.rdata_ct);
        for (int i = 0; i < r.rdata_ct; i++)
            n += fill_rr_nb(out + n, r.nb_flags, r.addrs[i]);
    }
    TRACE(proc, 3, "wins: answer op %d rcode %d to %s\n", r.opcode, r.rcode, nm_ntoa(r.ip));
    send_wins(out, n, r.ip, r.port);
}

// A name query of our own: a challenge of a holder, or a probe for the ENS side.
void send_query(const uint8_t* name, uint32_t ip, uint16_t id)
{
    uint8_t out[HDR + 2 + NB_ENCLEN + 4];
    put16(out, id);
    out[2] = 0;  // a unicast query, no recursion: the holder answers for itself
    out[3] = 0;
    fill_counts(out, 1, 0, 0, 0);
    out[HDR] = NB_ENCLEN;
    char letters[NB_ENCLEN + 1];
    n_encode(letters, name);
    memcpy(out + HDR + 1, letters, NB_ENCLEN);
    out[HDR + 1 + NB_ENCLEN] = 0;
    fill_quest_hdr(out + HDR + 2 + NB_ENCLEN, RR_NB, RR_IN);
    TRACE(proc, 3, "wins: name query %s to %s, id %u\n", nm_printable(name), nm_ntoa(ip), unsigned(id));
    send_wins(out, int(sizeof out), ip, WINS_PORT);
}

Reply reply_to(const WinsPacket& p, uint32_t ip, uint16_t port, int opcode, int rcode)
{
    Reply r{};
    r.ip = ip;
    r.port = port;
    r.id = p.id;
    r.opcode = opcode;
    r.rd = p.rd;
    r.rcode = rcode;
    memcpy(r.wire, p.wire, size_t(p.wire_len));
    r.wire_len = p.wire_len;
    r.type = RR_NB;
    r.nb_flags = p.nb_flags;
    r.ttl = rcode == 0 ? granted : 0;
    r.rdata_ct = std::min(p.addr_ct, 1);
    r.addrs[0] = p.addrs[0];
    return r;
}

// A registration whose name's holder is being asked.
struct Challenge {
    uint32_t tag;
    WinsPacket req;
    uint32_t from_ip;
    uint16_t from_port;
    NdaHolder holder;
    bool ens;         // the holder is a daemon's entry: VERIFY to its registrar
    int sends;
    int64_t next_ms;
};
std::vector<Challenge> challenges;

// A name query asked for the ENS side.
struct Probe {
    uint16_t id;
    uint32_t ip;
    uint32_t tag;
};
std::vector<Probe> probes;
uint16_t next_probe_id = 1;

// One thing for the transaction: a datagram, or a challenge's outcome.
struct Item {
    WinsPacket p;
    uint32_t ip;
    uint16_t port;
    uint32_t outcome_tag;  // 0: a datagram
    bool held;             // the outcome: the holder kept the name
    bool joined;           // ... and answered with the registering address too (multi-homed)
};
std::vector<Item> batch;
bool purge_due = false;
int64_t batch_s = 0;
size_t run_from = 0, run_to = 0;  // the items of the transaction being run
bool run_purge = false;

// What a transaction decided, carried out after its commit.
std::vector<Reply> outbox;
std::vector<Challenge> started;
std::vector<uint32_t> ended;

bool registration(int op)
{
    return op == WINS_OP_REGISTER || op == WINS_OP_REFRESH || op == WINS_OP_REFRESH2 || op == WINS_OP_MULTIHOMED;
}

Challenge* challenge_of(const uint8_t* name)
{
    for (Challenge& c : challenges)
        if (memcmp(c.req.name, name, 16) == 0)
            return &c;
    for (Challenge& c : started)
        if (memcmp(c.req.name, name, 16) == 0)
            return &c;
    return nullptr;
}

NdaClaim claim_of(const WinsPacket& p, const uint32_t* ip)
{
    NdaClaim c{p.name, (p.nb_flags & NB_GROUP_BIT) != 0 ? 1 : 0, ip, 1, *ip, WINS_PORT, batch_s};
    c.expires = batch_s + int64_t(granted);
    return c;
}

bool keep(int r)
{
    return store->mark(r == 0 ? NDA_KEEP : NDA_UNDO) == 0;
}

// A registration another station's entry stands in the way of.
void challenge(const Item& it, const NdaHolder& h)
{
    if (h.group != 0 && (it.p.nb_flags & NB_GROUP_BIT) == 0) {
        outbox.push_back(reply_to(it.p, it.ip, it.port, WINS_OP_REGISTER, WINS_ACT_ERR));
        return;
    }
    Reply wack = reply_to(it.p, it.ip, it.port, WINS_OP_WACK, 0);
    wack.ttl = WINS_WACK_TTL;
    wack.nb_flags = (it.p.response ? 0x8000 : 0) | it.p.opcode << 11 | (it.p.rd ? 0x0100 : 0) |
                    (it.p.broadcast ? 0x10 : 0);
    if (Challenge* c = challenge_of(it.p.name)) {
        // The station repeats itself while its name is challenged: the
        // same wait again, and no second challenge.
        if (c->from_ip == it.ip)
            outbox.push_back(wack);
        return;
    }
    auto of_station = [&](const Challenge& c) { return c.from_ip == it.ip; };
    if (challenges.size() + started.size() >= size_t(WINS_MAX_CHALLENGES) ||
        std::count_if(challenges.begin(), challenges.end(), of_station) +
                std::count_if(started.begin(), started.end(), of_station) >=
            WINS_STATION_CHALLENGES) {
        TRACE(proc, 1, "wins: too many challenges, registration of %s dropped\n", nm_printable(it.p.name));
        return;
    }
    // A daemon's entry is asked of its registrar, which must be one still.
    bool ens = h.expires == 0;
    if (ens && !nda_is_registrar(h.via_ip)) {
        outbox.push_back(reply_to(it.p, it.ip, it.port, WINS_OP_REGISTER, WINS_ACT_ERR));
        return;
    }
    outbox.push_back(wack);
    Challenge c{};
    c.req = it.p;
    c.from_ip = it.ip;
    c.from_port = it.port;
    c.holder = h;
    c.ens = ens;
    started.push_back(c);
}

bool do_register(const Item& it)
{
    if (it.p.addr_ct < 1 || it.p.addrs[0] != it.ip) {
        // Only the station's own address: nobody registers another's.
        outbox.push_back(reply_to(it.p, it.ip, it.port, WINS_OP_REGISTER, WINS_RFS_ERR));
        return true;
    }
    if (store->mark(NDA_MARK) < 0)
        return false;
    NdaHolder h{};
    int r = dir_claim(store, claim_of(it.p, &it.ip), &h);
    if (!keep(r))
        return false;
    if (r < 0)
        outbox.push_back(reply_to(it.p, it.ip, it.port, WINS_OP_REGISTER, WINS_SRV_ERR));
    else if (r == 0)
        outbox.push_back(reply_to(it.p, it.ip, it.port, WINS_OP_REGISTER, 0));
    else
        challenge(it, h);
    return true;
}

bool do_release(const Item& it)
{
    if (it.p.addr_ct < 1 || it.p.addrs[0] != it.ip) {
        outbox.push_back(reply_to(it.p, it.ip, it.port, WINS_OP_RELEASE, WINS_RFS_ERR));
        return true;
    }
    if (store->mark(NDA_MARK) < 0)
        return false;
    NdaHolder h{};
    int r = dir_remove(store, it.p.name, &it.ip, 1, it.ip, &h);
    if (!keep(r == ST_HELD ? 0 : r))
        return false;
    Reply a = reply_to(it.p, it.ip, it.port, WINS_OP_RELEASE, r < 0 ? WINS_SRV_ERR : r == ST_HELD ? WINS_ACT_ERR : 0);
    a.ttl = 0;
    outbox.push_back(a);
    return true;
}

bool do_query(const Item& it)
{
    NdaHolder h{};
    int found = dir_query(store, it.p.name, batch_s, &h);
    Reply a = reply_to(it.p, it.ip, it.port, WINS_OP_QUERY, 0);
    if (found < 0) {
        a.rcode = WINS_SRV_ERR;
        a.type = RR_NULL;
    } else if (found == 0) {
        a.rcode = WINS_NAM_ERR;
        a.type = RR_NULL;
    } else {
        a.nb_flags = h.group != 0 ? NB_GROUP_BIT : 0;
        a.ttl = h.expires > batch_s ? uint32_t(h.expires - batch_s) : granted;
        a.addrs[0] = h.ip;
        a.rdata_ct = 1;
        if (h.group != 0) {
            int room = std::min(WINS_MAX_ADDRS, (ANSWER_BOUND - HDR - it.p.wire_len - 10) / 6);
            int n = store->members(it.p.name, batch_s, a.addrs, room);
            if (n > 0)
                a.rdata_ct = n;
        }
    }
    outbox.push_back(a);
    return true;
}

Challenge* find_challenge(uint32_t tag)
{
    for (Challenge& c : challenges)
        if (c.tag == tag && std::find(ended.begin(), ended.end(), tag) == ended.end())
            return &c;
    return nullptr;
}

// The holder answered (held) or stayed silent or said no.
bool settle(const Item& it)
{
    Challenge* c = find_challenge(it.outcome_tag);
    if (c == nullptr)
        return true;
    ended.push_back(c->tag);
    TRACE(proc, 3, "wins: %s %s by its holder %s\n", nm_printable(c->req.name), it.held ? "kept" : "given up",
          nm_ntoa(c->holder.ip));
    if (it.held && !it.joined) {
        outbox.push_back(reply_to(c->req, c->from_ip, c->from_port, WINS_OP_REGISTER, WINS_ACT_ERR));
        return true;
    }
    if (store->mark(NDA_MARK) < 0)
        return false;
    NdaHolder now_held{};
    int r;
    if (it.joined) {
        // A multi-homed holder that answers with the registering address
        // too: both addresses are one host, which holds the name.
        uint32_t both[2] = {c->holder.ip, c->from_ip};
        r = dir_equiv(store, both, 2, batch_s);
        if (r == 0)
            r = dir_claim(store, claim_of(c->req, &c->from_ip), &now_held);
    } else {
        r = dir_replace(store, claim_of(c->req, &c->from_ip), c->holder, &now_held);
    }
    if (!keep(r))
        return false;
    outbox.push_back(reply_to(c->req, c->from_ip, c->from_port, WINS_OP_REGISTER,
                              r < 0 ? WINS_SRV_ERR : r == ST_HELD ? WINS_ACT_ERR : 0));
    return true;
}

bool handle(const Item& it)
{
    if (it.outcome_tag != 0)
        return settle(it);
    if (registration(it.p.opcode))
        return do_register(it);
    if (it.p.opcode == WINS_OP_RELEASE)
        return do_release(it);
    return do_query(it);
}

int run_batch(void*)
{
    outbox.clear();
    started.clear();
    ended.clear();
    if (run_purge && store->expire(batch_s) < 0)
        return -1;
    for (size_t i = run_from; i < run_to; i++)
        if (!handle(batch[i]))
            return -1;
    return 0;
}

// A challenge's query id: 1 to 0x7FFF, apart from the probes' (high bit set).
uint16_t query_id(uint32_t tag)
{
    return uint16_t(tag % 0x7FFF + 1);
}

void send_challenge(Challenge& c, int64_t now_ms)
{
    if (c.ens) {
        UniAddr to{};
        iantoua(&to, c.holder.via_ip, c.holder.via_port);
        pkta_begin();
        pkta_name(c.req.name);
        pkta_ip(c.holder.ip);
        pkta_request(&to, VERIFY_TAG | c.tag, ENS_VERIFY);
    } else {
        send_query(c.req.name, c.holder.ip, query_id(c.tag));
    }
    c.sends++;
    c.next_ms = now_ms + (c.ens ? WINS_VERIFY_GAP_MS : WINS_QUERY_GAP_MS);
}

void apply(int64_t now_ms)
{
    for (const Reply& r : outbox)
        send_reply(r);
    for (uint32_t tag : ended)
        std::erase_if(challenges, [tag](const Challenge& c) { return c.tag == tag; });
    for (Challenge& c : started) {
        c.tag = next_tag;
        next_tag = next_tag % 0x7FFFFFFFu + 1;
        challenges.push_back(c);
        send_challenge(challenges.back(), now_ms);
    }
    outbox.clear();
    started.clear();
    ended.clear();
}

void outcome(uint32_t tag, bool held, bool joined)
{
    Item it{};
    it.outcome_tag = tag;
    it.held = held;
    it.joined = joined;
    batch.push_back(it);
}

// A name query response from ip: the end of a challenge or of a probe.
void response(const WinsPacket& p, uint32_t ip)
{
    bool held = p.rcode == 0 && p.has_record && p.addr_ct > 0;
    for (Challenge& c : challenges) {
        if (!c.ens && query_id(c.tag) == p.id && c.holder.ip == ip && memcmp(c.req.name, p.name, 16) == 0) {
            bool joined = held && c.req.opcode == WINS_OP_MULTIHOMED &&
                          std::find(p.addrs, p.addrs + p.addr_ct, c.from_ip) != p.addrs + p.addr_ct;
            c.next_ms = INT64_MAX;  // settled by the batch
            outcome(c.tag, held, joined);
            return;
        }
    }
    for (size_t i = 0; i < probes.size(); i++) {
        if (probes[i].id == p.id && probes[i].ip == ip) {
            nda_probe_answer(probes[i].tag, ip, held);
            probes.erase(probes.begin() + long(i));
            return;
        }
    }
    TRACE(proc, 3, "wins: response id %u from %s matches nothing\n", unsigned(p.id), nm_ntoa(ip));
}

}  // namespace

int wins_read(const uint8_t* bytes, int len, WinsPacket* out)
{
    *out = WinsPacket{};
    if (len < HDR)
        return -1;
    const uint8_t* end = bytes + len;
    out->id = get16(bytes);
    out->response = (bytes[2] & 0x80) != 0;
    out->opcode = bytes[2] >> 3 & 0x0F;
    out->rd = (bytes[2] & 0x01) != 0;
    out->broadcast = (bytes[3] & 0x10) != 0;
    out->rcode = bytes[3] & 0x0F;
    int qdcount = get16(bytes + 4), ancount = get16(bytes + 6), arcount = get16(bytes + 10);
    if (out->response) {
        if (out->opcode != WINS_OP_QUERY || ancount < 1)
            return -1;
        const uint8_t* p = read_name(bytes + HDR, end, out);
        return p != nullptr && read_entries(p, end, out) != nullptr ? 0 : -1;
    }
    if (qdcount != 1)
        return -1;
    const uint8_t* p = read_name(bytes + HDR, end, out);
    if (p == nullptr || end - p < 4 || get16(p + 2) != RR_IN)
        return -1;
    out->type = get16(p);
    p += 4;
    if (out->opcode == WINS_OP_QUERY)
        return out->type == RR_NB ? 0 : -1;
    if (!registration(out->opcode) && out->opcode != WINS_OP_RELEASE)
        return -1;
    if (out->type != RR_NB || arcount != 1 || p >= end)
        return -1;
    // The record's name: a pointer to the question's, or the name again.
    if ((p[0] & 0xC0) == 0xC0) {
        if (end - p < 2 || get16(p) != (0xC000 | HDR))
            return -1;
        p += 2;
    } else {
        if (end - p < out->wire_len || memcmp(p, out->wire, size_t(out->wire_len)) != 0)
            return -1;
        p += out->wire_len;
    }
    int type = out->type;
    p = read_entries(p, end, out);
    if (p == nullptr || out->type != RR_NB || out->addr_ct < 1)
        return -1;
    out->type = type;
    return 0;
}

void wins_init(const NdaStore* s, int fd, uint32_t ttl)
{
    store = s;
    wins_fd = fd;
    granted = std::clamp<uint32_t>(ttl, WINS_TTL_MIN, WINS_TTL_MAX);
    challenges.clear();
    probes.clear();
    batch.clear();
    next_purge_ms = 0;
}

int wins_open(uint32_t addr, uint16_t port)
{
    return init_shared_sock(addr, port);
}

bool wins_on()
{
    return wins_fd >= 0;
}

void wins_datagram(const uint8_t* bytes, int len, uint32_t from_ip, uint16_t from_port, int64_t now_ms,
                   int64_t now_s)
{
    Item it{};
    if (wins_read(bytes, len, &it.p) < 0) {
        TRACE(proc, 1, "wins: %d bytes from %s dropped\n", len, nm_ntoa(from_ip));
        nda_count(nda_stat("wins_malformed"));
        return;
    }
    if (it.p.response) {
        response(it.p, from_ip);
        return;
    }
    // A broadcast reached us only by mistake: the stations around answer it.
    if (it.p.broadcast)
        return;
    if (batch.size() >= size_t(MAX_BATCH))
        wins_flush(now_ms, now_s);
    it.ip = from_ip;
    it.port = from_port;
    batch.push_back(it);
    int op = it.p.opcode;
    nda_count(op == WINS_OP_QUERY     ? nda_stat("wins_queries")
              : op == WINS_OP_RELEASE ? nda_stat("wins_releases")
              : op == WINS_OP_REFRESH || op == WINS_OP_REFRESH2 ? nda_stat("wins_refreshes")
                                                                 : nda_stat("wins_registrations"));
}

namespace {

// Items from..to-1 (and the purge, when asked) in one transaction: 0
// committed and answered, or the engine's failure.
int commit_items(size_t from, size_t to, bool purge, int64_t now_ms)
{
    bool write = purge;
    for (size_t i = from; i < to; i++)
        write = write || batch[i].outcome_tag != 0 || batch[i].p.opcode != WINS_OP_QUERY;
    run_from = from;
    run_to = to;
    run_purge = purge;
    int r = store->transact(write, run_batch, nullptr);
    if (r == 0) {
        apply(now_ms);
        return 0;
    }
    // Unanswered: the stations ask again. A challenge whose outcome was
    // lost runs out again.
    TRACE(proc, 1, "wins: directory error: %s\n", store->error());
    for (size_t i = from; i < to; i++)
        if (Challenge* c = batch[i].outcome_tag != 0 ? find_challenge(batch[i].outcome_tag) : nullptr)
            c->next_ms = now_ms + WINS_QUERY_GAP_MS;
    outbox.clear();
    started.clear();
    ended.clear();
    return r;
}

}  // namespace

void wins_flush(int64_t now_ms, int64_t now_s)
{
    if (batch.empty() && !purge_due)
        return;
    batch_s = now_s;
    // Agents sharing one directory that keep conflicting over a whole
    // batch get through one request at a time.
    int r = commit_items(0, batch.size(), purge_due, now_ms);
    if (r == 0)
        purge_due = false;
    else if (r == NDA_BUSY && batch.size() > 1)
        for (size_t i = 0; i < batch.size(); i++)
            commit_items(i, i + 1, false, now_ms);
    batch.clear();
}

int wins_due(int64_t now_ms, int64_t now_s)
{
    if (wins_fd < 0)
        return -1;
    if (now_ms >= next_purge_ms) {
        purge_due = next_purge_ms != 0;
        next_purge_ms = now_ms + WINS_PURGE_MS;
    }
    wins_flush(now_ms, now_s);
    for (Challenge& c : challenges) {
        if (c.next_ms > now_ms)
            continue;
        if (c.sends < (c.ens ? WINS_VERIFY_SENDS : WINS_QUERY_SENDS)) {
            send_challenge(c, now_ms);
            continue;
        }
        c.next_ms = INT64_MAX;
        outcome(c.tag, false, false);  // silence: the holder is gone
    }
    wins_flush(now_ms, now_s);
    int64_t next = next_purge_ms - now_ms;
    for (const Challenge& c : challenges)
        next = std::min(next, std::max<int64_t>(c.next_ms - now_ms, 0));
    return int(std::max<int64_t>(next, 0));
}

int wins_challenges()
{
    return int(challenges.size());
}

bool wins_verify_answer(uint32_t id, uint32_t from_ip, bool confirmed)
{
    if ((id & VERIFY_TAG) == 0)
        return false;
    for (Challenge& c : challenges) {
        if (c.ens && (VERIFY_TAG | c.tag) == id && c.holder.via_ip == from_ip && c.next_ms != INT64_MAX) {
            c.next_ms = INT64_MAX;
            outcome(c.tag, confirmed, false);
        }
    }
    return true;
}

void wins_probe(const uint8_t* name, uint32_t ip, uint32_t tag)
{
    if (wins_fd < 0)
        return;
    if (probes.size() >= size_t(MAX_PROBES))
        probes.erase(probes.begin());
    // Apart from the challenges' ids: the high bit set.
    uint16_t id = uint16_t(0x8000 | next_probe_id++);
    probes.push_back({id, ip, tag});
    send_query(name, ip, id);
}
