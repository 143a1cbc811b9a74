// Descriptor listing through /proc/self/fd.
#include "support/fds.h"

#include <dirent.h>
#include <fcntl.h>

#include <cstdlib>

std::vector<int> open_fds()
{
    std::vector<int> fds;
    DIR* dir = opendir("/proc/self/fd");
    if (!dir)
        return fds;
    const int own = dirfd(dir);
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        int fd = atoi(entry->d_name);
        if (fd != own)
            fds.push_back(fd);
    }
    closedir(dir);
    return fds;
}

int count_open_fds()
{
    return static_cast<int>(open_fds().size());
}

std::vector<int> inheritable_fds()
{
    std::vector<int> fds;
    for (int fd : open_fds()) {
        int flags = fcntl(fd, F_GETFD);
        if (flags >= 0 && !(flags & FD_CLOEXEC))
            fds.push_back(fd);
    }
    return fds;
}
