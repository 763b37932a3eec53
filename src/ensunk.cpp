#include "src/ensunk.h"

#include <cstring>
#include <new>
#include <unordered_map>

#include "src/hashkey.h"
#include "src/maininit.h"
#include "src/query.h"

namespace {

UnkRec* unk = nullptr;  // most recently heard first
UnkRec* last = nullptr;
int unk_ct = 0;
// By address, so that a query from an unknown sender does not walk them all.
std::unordered_map<uint32_t, UnkRec*, AddrHash> unk_index;

// The permanent node name of an address: ten zero bytes, the address in
// network order, two zero bytes.
void permanent_name(uint8_t out[16], uint32_t address)
{
    memset(out, 0, 16);
    memcpy(out + 10, &address, 4);
}

UnkRec* find_unk(uint32_t address)
{
    auto it = unk_index.find(address);
    return it != unk_index.end() ? it->second : nullptr;
}

void unlink_unk(UnkRec* r)
{
    (r->before != nullptr ? r->before->next : unk) = r->next;
    (r->next != nullptr ? r->next->before : last) = r->before;
    r->next = r->before = nullptr;
}

void push_unk(UnkRec* r)
{
    r->before = nullptr;
    r->next = unk;
    (unk != nullptr ? unk->before : last) = r;
    unk = r;
}

void free_unk(UnkRec* r)
{
    unlink_unk(r);
    unk_index.erase(r->address);
    unk_ct--;
    delete r;
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
    while (unk_ct >= UNK_MAX && last != nullptr)
        free_unk(last);
    UnkRec* r = new (std::nothrow) UnkRec{};
    if (r == nullptr)
        return nullptr;
    try {
        unk_index[address] = r;
    } catch (...) {
        delete r;
        return nullptr;
    }
    r->address = address;
    push_unk(r);
    unk_ct++;
    return r;
}

void unk_as_query(const uint8_t* name, uint32_t address)
{
    UnkRec* r = find_unk(address);
    if (r != nullptr) {
        unlink_unk(r);
        push_unk(r);
    } else if ((r = new_unk(address)) == nullptr) {
        return;
    }
    time_t now = dg_now();
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
    if (UnkRec* r = find_unk(address); r != nullptr)
        free_unk(r);
}

