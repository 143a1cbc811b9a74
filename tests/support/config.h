// The source checkout and the build tree (bin/, lib/, sim/).
#pragma once

#include <string>

const std::string& source_dir();
const std::string& binary_dir();
