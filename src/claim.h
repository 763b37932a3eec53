#pragma once

// Name claims and releases on the network.

struct nt_entry;

// Broadcasts one name release request for the entry on every interface.
void name_release(const nt_entry* e);
