#pragma once

// Senders the ENS table does not know: their adapter status is asked for,
// so that the table learns them, at a limited rate per sender.

#include <cstdint>
#include <ctime>

struct UnkRec {
    uint32_t address;  // IPv4, network order
    int count;         // status requests sent to it
    int perm_used;     // 1 once a request asked for its permanent name
    time_t last;       // time of the latest request
    time_t prev;       // time of the request before that
    UnkRec* next;
    UnkRec* before;    // the record ahead of it in the list
};

// Every station can send from as many addresses as it likes: the records
// are capped, and the least recently heard goes first.
constexpr int UNK_MAX = 4096;

// Asks `address` for its adapter status unless it was asked too often
// lately; name may be null, and the first request always asks for the
// permanent node name. The sender counts as heard from just now.
void unk_as_query(const uint8_t* name, uint32_t address);
void unk_remove(uint32_t address);  // forgets the sender, if it is known

// Whether a request to rec may go out now: at most two per 60 seconds, per
// 4 hours once 25 went out.
bool allowed(const UnkRec* rec, time_t now);
// A zeroed record for address at the head of the list, or null when memory is short.
UnkRec* new_unk(uint32_t address);
