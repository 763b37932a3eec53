#pragma once
// The answers of the name-directory agents, kept for 60 seconds: positive
// ones with the owner's address and group flag, negative ones as such.
#include <cstdint>
#include <ctime>

void nda_putncache(const uint8_t* name, time_t now);
void nda_putpcache(const uint8_t* name, uint32_t address, int group, time_t now);
// 1 positive (address and group set), 0 negative, -1 no live entry. An
// entry is live up to and including its expiry second.
int nda_getcache(uint32_t* address, int* group, const uint8_t* name, time_t now);
