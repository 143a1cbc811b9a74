// Where the tests find the source tree and the build outputs.
#pragma once

#include <string>

// The source checkout (for sim/make-root and fixtures).
const std::string& source_dir();
// The build tree: binaries in bin/, libdv in lib/, stub libraries in sim/.
const std::string& binary_dir();
