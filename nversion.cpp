#include "nversion.h"

#define NVERSION_VERSION "2.0"
#define NVERSION_VARIANT "LX"  // Linux x86_64 build

const char* const smbv_string = NVERSION_VERSION;
const char* const smbv_variant = NVERSION_VARIANT;
[[gnu::used]] const char smbv_ident[] =
    "@(#)NB Name server\t" NVERSION_VERSION " " NVERSION_VARIANT " " __DATE__;
