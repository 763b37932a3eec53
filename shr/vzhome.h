#pragma once

#include <cstddef>

// The product's home directory; its owner and group are the administrative
// user and group, and message files live under its "lib".
constexpr const char* VZ_HOME_DIR = "/opt/KORRlibs";
constexpr int VZ_HOME_SIZE = 200;  // room for it, terminator included

// Copies the home directory into buf (cut to fit; buf[size - 1] is always NUL).
char* vzhome_get(char* buf, size_t size);
