#pragma once

// Where the build put the daemon, the source tree (test data) and the build
// tree (generated manual pages).
inline const char* halyard_binary() { return HALYARD_BINARY; }
inline const char* halyard_source_dir() { return HALYARD_SOURCE_DIR; }
inline const char* halyard_build_dir() { return HALYARD_BUILD_DIR; }
