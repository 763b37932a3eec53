#include "src/ensunk.h"

#include <cstring>
#include <new>

#include "src/query.h"

namespace {

UnkRec* unk = nullptr;  // newest first
dg_time_fn clock_fn = nullptr;

time_t now_time() { return clock_fn != nullptr ? clock_fn() : time(nullptr); }

// The permanent node name of an address: ten zero bytes, the address in
// network order, two zero bytes.
void permanent_name(uint8_t out[16], uint32_t address)
{
    memset(out, 0, 16);
    memcpy(out + 10, &address, 4);
}

UnkRec* find_unk(uint32_t address)
{
    for (UnkRec* r = unk; r != nullptr; r = r->next) {
        if (r->address == address)
            return r;
    }
    return nullptr;
}

}  // namespace

bool allowed(const UnkRec* rec, time_t now)
{
    // A host that has not answered 25 requests is unlikely to answer soon:
    // from then on it is asked only every 4 hours.
    time_t interval = rec->count <= 25 ? 60 : 14400;
    return rec->prev + interval < now;
}

UnkRec* new_unk(uint32_t address)
{
    UnkRec* r = new (std::nothrow) UnkRec{};
    if (r == nullptr)
        return nullptr;
    r->address = address;
    r->next = unk;
    unk = r;
    return r;
}

void unk_as_query(const uint8_t* name, uint32_t address)
{
    UnkRec* r = find_unk(address);
    if (r == nullptr && (r = new_unk(address)) == nullptr)
        return;
    time_t now = now_time();
    if (!allowed(r, now))
        return;
    uint8_t perm[16];
    const uint8_t* ask = name;
    if (name == nullptr || r->perm_used == 0) {
        permanent_name(perm, address);
        ask = perm;
        r->perm_used = 1;
    }
    adapstat_query(ask, address);
    r->prev = r->last;
    r->last = now;
    r->count++;
}

void unk_remove(uint32_t address)
{
    for (UnkRec** p = &unk; *p != nullptr; p = &(*p)->next) {
        if ((*p)->address == address) {
            UnkRec* r = *p;
            *p = r->next;
            delete r;
            return;
        }
    }
}

void unk_set_clock(dg_time_fn now)
{
    clock_fn = now;
}
