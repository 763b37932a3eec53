#pragma once

// Where the build put the daemon, and the source tree (for test data).
const char* halyard_binary();
const char* halyard_source_dir();
// The build tree and the cmake that made it (for installing from it).
const char* halyard_build_dir();
const char* halyard_cmake();
// The benchmark's load generator and reference responder (bench/).
const char* halyard_loadgen_binary();
const char* halyard_refresp_binary();
