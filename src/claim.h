#pragma once

// Name claims and releases on the network.

struct nt_entry;

// Broadcasts one name release request for the entry on every interface.
void name_release(const nt_entry* e);
// Broadcasts one name registration request for the entry on every interface.
void name_claim(const nt_entry* e);
