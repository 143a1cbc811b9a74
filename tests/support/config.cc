#include "support/config.h"

const std::string& source_dir()
{
    static const std::string dir = VEXPROD_SOURCE_DIR;
    return dir;
}

const std::string& binary_dir()
{
    static const std::string dir = VEXPROD_BINARY_DIR;
    return dir;
}
