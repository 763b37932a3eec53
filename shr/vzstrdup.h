#pragma once

// A heap copy of s (free with free()); NULL for NULL or when memory runs out.
char* vz_strdup(const char* s);
