#pragma once

// Incoming name-service packets: queries, claims and releases of other
// stations, and the local names they ask about.

#include <cstdint>

struct nt_entry;

// The local table entry of the 16-byte name, or null: nt_search while
// `strict` is set, nt_icsearch otherwise. An entry whose claim is pending
// is returned too.
nt_entry* name_present(const uint8_t* name);
