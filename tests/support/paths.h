#pragma once

// Where the build put the daemon, and the source tree (for test data).
const char* halyard_binary();
const char* halyard_source_dir();
// The build tree (generated manual pages).
const char* halyard_build_dir();
