#include "tests/support/paths.h"

const char* halyard_binary() { return HALYARD_BINARY; }
const char* halyard_source_dir() { return HALYARD_SOURCE_DIR; }
const char* halyard_build_dir() { return HALYARD_BUILD_DIR; }
