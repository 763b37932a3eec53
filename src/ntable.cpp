#include "src/ntable.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/ioctl.h>

#include "misc/nencode.h"
#include "nmtrace.h"
#include "shr/logging.h"
#include "shr/uniconv.h"
#include "src/claim.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/stats.h"

nt_entry* n_table = nullptr;
int nbunx_fd = -1;

namespace {

constexpr size_t NAMELEN = sizeof(nt_entry::name);
constexpr int MSG_NAME_EXISTS = 186;
constexpr int MSG_AT_ADDRESS = 187;

// Every datagram asking for a name looks it up here, so the entries are
// also chained by a hash of their 16 bytes: with hundreds of names a lookup
// reads a couple of entries, not half the list. The list keeps the order.
constexpr size_t NT_BUCKETS = 512;
std::array<nt_entry*, NT_BUCKETS> buckets{};

nt_entry*& bucket_of(const uint8_t* name)
{
    // The two halves multiplied by odd constants and mixed: every byte
    // counts, and names that differ in one byte only spread too.
    uint64_t a, b;
    memcpy(&a, name, 8);
    memcpy(&b, name + 8, 8);
    uint64_t h = a * 0x9E3779B97F4A7C15u ^ b * 0xC2B2AE3D27D4EB4Fu;
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9u;
    return buckets[(h >> 32) % NT_BUCKETS];
}

void index_add(nt_entry* e)
{
    nt_entry*& head = bucket_of(e->name);
    e->hash_next = head;
    head = e;
}

void index_del(const nt_entry* e)
{
    for (nt_entry** p = &bucket_of(e->name); *p != nullptr; p = &(*p)->hash_next) {
        if (*p == e) {
            *p = e->hash_next;
            return;
        }
    }
}

// The list link that points at e (e is in the list).
nt_entry** link_to(const nt_entry* e)
{
    nt_entry** link = &n_table;
    while (*link != e)
        link = &(*link)->next;
    return link;
}

// The STREAMS request: command word, time-out, data length and data. Linux
// has no STREAMS, so the structure and the request code are ours; the code
// is the STREAMS I_STR ('S' << 8 | 8) with Linux's direction and size bits,
// which no other driver's request matches, so any device that is not the
// driver refuses it (ENOTTY) instead of acting on it.
struct nbunx_strioctl {
    int32_t ic_cmd;
    int32_t ic_timout;  // -1: wait without limit
    int32_t ic_len;
    char* ic_dp;
};
constexpr unsigned long NBUNX_I_STR = _IOWR('S', 8, nbunx_strioctl);

int ioctl_request(int fd, int cmd, nbunx_req* block)
{
    nbunx_strioctl s{cmd, -1, int32_t(sizeof *block), reinterpret_cast<char*>(block)};
    return ioctl(fd, NBUNX_I_STR, &s);
}

nbunx_request_fn request = ioctl_request;

// One driver request for name: the block zeroed, the name at offset 4, kind
// as given; the block as the driver returned it stays in *block.
int drive(int cmd, const uint8_t* name, int32_t kind, nbunx_req* block)
{
    *block = {};
    memcpy(block->name, name, NAMELEN);
    block->kind = kind;
    return request(nbunx_fd, cmd, block);
}

// The driver gave the name up, or could not say: announce it free, take it
// out of the driver, free the entry (out of the list already: the caller
// unlinked it; out of the lookup chains here).
void drop(nt_entry* e)
{
    index_del(e);
    name_release(e);
    nbunx_namedel(e->name);
    delete e;
}

bool dropped(const uint8_t* name)
{
    int chk = nbunx_namechk(name);
    return chk < 0 || (chk & NBCHK_DROPPED) != 0;
}

}  // namespace

nt_entry* nt_search(const uint8_t* name)
{
    nt_entry* e = bucket_of(name);
    while (e != nullptr && memcmp(e->name, name, NAMELEN) != 0)
        e = e->hash_next;
    if (e == nullptr)
        return nullptr;
    if (transport_vznbu && dropped(name)) {
        nt_entry** link = link_to(e);
        *link = e->next;
        drop(e);
        return nullptr;
    }
    return e;
}

// Names are compared exactly here too: a lookup that ignored case would
// answer for a name that no client added.
nt_entry* nt_icsearch(const uint8_t* name)
{
    return nt_search(name);
}

int nt_add(const uint8_t* name, uint32_t flags)
{
    if (nt_search(name) != nullptr)
        return NT_PRESENT;
    nt_entry* e = new (std::nothrow) nt_entry{};
    if (e == nullptr)
        return NT_NOMEM;
    memcpy(e->name, name, NAMELEN);
    e->flags = flags | NT_PENDING;
    e->count = 0;
    nt_entry** link = &n_table;
    while (*link != nullptr)
        link = &(*link)->next;
    *link = e;
    index_add(e);
    if (transport_vznbu)
        nbunx_nameadd(name, flags);
    return 0;
}

int nt_del(const uint8_t* name)
{
    nt_entry** link = &n_table;
    while (*link != nullptr && memcmp((*link)->name, name, NAMELEN) != 0)
        link = &(*link)->next;
    nt_entry* e = *link;
    if (e == nullptr)
        return NT_ABSENT;
    *link = e->next;
    index_del(e);
    // The entry's own bytes: name may point into the entry being freed.
    if (transport_vznbu)
        nbunx_namedel(e->name);
    delete e;
    return 0;
}

void nt_lost(const uint8_t* name, const char* owner, NtLoss by)
{
    // Each trace line names the step that found the loss.
    struct Loss { const char* step; const char* what; const char* owner_is; StatId counter; };
    static constexpr Loss losses[] = {
        {"check_conflict", "name conflict found", "address", ST_CONFLICTS_NETWORK},
        {"add_resp", "name conflict found", "addr", ST_CONFLICTS_AGENT},
        {"wins_recv", "name refused", "server", ST_CONFLICTS_WINS},
    };
    const Loss& l = losses[size_t(by)];
    // nm_printable formats through uni_ntoa's buffer, which owner may be.
    char owner_text[UNI_TEXTSIZE];
    snprintf(owner_text, sizeof owner_text, "%s", owner);
    const char* text = nm_printable(name);
    TRACE(proc, 1, "%s: %s: %s, %s %s\n", l.step, l.what, text, l.owner_is, owner_text);
    stat_inc(l.counter);
    log_new();
    log_catmsg(LOG_SET, MSG_NAME_EXISTS, "Halyard: name already exists on network: %s", text);
    log_catmsg(LOG_SET, MSG_AT_ADDRESS, "        at address %s", owner_text);
    nt_del(name);
}

void tables_sync()
{
    if (!transport_vznbu)
        return;
    nt_entry** link = &n_table;
    while (*link != nullptr) {
        nt_entry* e = *link;
        if (dropped(e->name)) {
            *link = e->next;
            drop(e);
        } else {
            link = &e->next;
        }
    }
}

void nbunx_open()
{
    nbunx_fd = open(NBUNX_DEVICE, O_RDWR);
    if (nbunx_fd < 0)
        log_catmsg(LOG_SET, 189, "%s: cannot open nbu nexus device %s", prog, NBUNX_DEVICE);
}

int nbunx_nameadd(const uint8_t* name, uint32_t flags)
{
    if (nbunx_fd < 0)
        return -1;
    nbunx_req block;
    int32_t kind = (flags & NT_GROUP) != 0 ? NBUNX_KIND_GROUP : NBUNX_KIND_UNIQUE;
    int r = drive(NBUNX_ADD, name, kind, &block);
    if (r < 0) {
        TRACE(proc, 1, "nbunx_nameadd fails, errno %d\n", errno);
        return -1;
    }
    return r;
}

int nbunx_namedel(const uint8_t* name)
{
    if (nbunx_fd < 0)
        return -1;
    nbunx_req block;
    int r = drive(NBUNX_DEL, name, 0, &block);
    if (r < 0) {
        TRACE(proc, 1, "nbunx_namedel fails, errno %d\n", errno);
        return -1;
    }
    return r;
}

int nbunx_namechk(const uint8_t* name)
{
    if (nbunx_fd < 0)
        return 0;
    nbunx_req block;
    if (drive(NBUNX_CHK, name, 0, &block) < 0) {
        TRACE(proc, 1, "nbunx_namechk fails, errno %d\n", errno);
        return -1;
    }
    int flags = 0;
    if (block.kind == NBUNX_KIND_GROUP)
        flags |= NBCHK_GROUP;
    if (block.state == 0)
        flags |= NBCHK_ACTIVE;
    if (block.state == NBUNX_STATE_DROPPED)
        flags |= NBCHK_DROPPED;
    TRACE(proc, 1, "nbunx_namechk: returning flags %#x\n", unsigned(flags));
    return flags;
}

void nbunx_set_request(nbunx_request_fn fn)
{
    request = fn != nullptr ? fn : ioctl_request;
}
