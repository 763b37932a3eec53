#pragma once

// The version record read by the start-up messages.
extern const char* const smbv_string;   // the version
extern const char* const smbv_variant;  // the build tag
// The identification string found by what(1): "@(#)" and the description,
// a tab, the version, the build tag and the build date.
extern const char smbv_ident[];
