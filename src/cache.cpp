#include "src/cache.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr int RESP_BUCKETS = 16;
constexpr int RESP_KEEP = 16;       // released entries kept for reuse
constexpr time_t RESP_LIFE = 60;    // seconds an answer is believed

struct Resp {
    Resp* next;
    time_t expiry;
    int kind;          // 1 positive, 0 negative
    int group;
    uint8_t name[16];
    uint32_t address;  // network order
};

Resp* resp[RESP_BUCKETS];  // newest first in each bucket
int rover = 0;              // the bucket the next insertion sweeps besides its own
Resp* freelist = nullptr;
int free_ct = 0;

int hash_name(const uint8_t* n)
{
    return (n[0] + n[1] + n[12] + n[13] + n[15]) % RESP_BUCKETS;
}

Resp* resp_alloc()
{
    Resp* e = freelist;
    if (e != nullptr) {
        freelist = e->next;
        free_ct--;
    } else {
        e = static_cast<Resp*>(malloc(sizeof(Resp)));
        if (e == nullptr)
            return nullptr;
    }
    e->next = nullptr;
    return e;
}

void resp_free(Resp* e)
{
    if (free_ct < RESP_KEEP) {
        e->next = freelist;
        freelist = e;
        free_ct++;
    } else {
        free(e);
    }
}

// Drops the entries of one bucket that expired before now.
void purge_chain(int bucket, time_t now)
{
    Resp** link = &resp[bucket];
    while (*link != nullptr) {
        Resp* e = *link;
        if (e->expiry < now) {
            *link = e->next;
            resp_free(e);
        } else {
            link = &e->next;
        }
    }
}

// Every insertion also sweeps the rover's bucket, so each bucket is cleared
// of stale answers at least once per 16 insertions. An older entry for the
// same name stays behind the new one until it expires.
void resp_insert(Resp* e, time_t now)
{
    int b = hash_name(e->name);
    purge_chain(b, now);
    if (rover != b)
        purge_chain(rover, now);
    rover = (rover + 1) % RESP_BUCKETS;
    e->next = resp[b];
    resp[b] = e;
}

void put(const uint8_t* name, int kind, uint32_t address, int group, time_t now)
{
    Resp* e = resp_alloc();
    if (e == nullptr)
        return;
    memcpy(e->name, name, 16);
    e->kind = kind;
    e->group = group;
    e->address = address;
    e->expiry = now + RESP_LIFE;
    resp_insert(e, now);
}

}  // namespace

void nda_putncache(const uint8_t* name, time_t now)
{
    put(name, 0, 0, 0, now);
}

void nda_putpcache(const uint8_t* name, uint32_t address, int group, time_t now)
{
    put(name, 1, address, group, now);
}

int nda_getcache(uint32_t* address, int* group, const uint8_t* name, time_t now)
{
    Resp** link = &resp[hash_name(name)];
    while (*link != nullptr) {
        Resp* e = *link;
        if (e->expiry < now) {
            *link = e->next;
            resp_free(e);
            continue;
        }
        if (memcmp(e->name, name, 16) == 0) {
            if (e->kind == 0)
                return 0;
            *address = e->address;
            *group = e->group;
            return 1;
        }
        link = &e->next;
    }
    return -1;
}
