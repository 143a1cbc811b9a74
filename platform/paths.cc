// Resolution of platform paths under VEXPROD_PLATFORM_ROOT.
#include "platform/paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

const char* platform_root()
{
    const char* root = getenv("VEXPROD_PLATFORM_ROOT");
    return root ? root : "";
}

std::string platform_path(const char* abs_path)
{
    std::string out = platform_root();
    // A root given with a trailing slash must not double the separator.
    while (!out.empty() && out.back() == '/')
        out.pop_back();
    out += abs_path ? abs_path : "";
    return out;
}

std::string platform_path(const std::string& abs_path)
{
    return platform_path(abs_path.c_str());
}

bool platform_has(const std::string& abs_path)
{
    struct stat st;
    return stat(platform_path(abs_path).c_str(), &st) == 0;
}

int platform_open(const std::string& abs_path, int flags, mode_t mode)
{
    return open(platform_path(abs_path).c_str(), flags, mode);
}

int platform_unlink(const std::string& abs_path)
{
    return unlink(platform_path(abs_path).c_str());
}
