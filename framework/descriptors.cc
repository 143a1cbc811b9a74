// Descriptor helpers shared by the whole library.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "internal.h"

bool set_fd_cloexec(int fd)
{
    int flags = fcntl(fd, F_GETFL);
    if (flags == -1)
        return false;
    return fcntl(fd, F_SETFL, flags | 1) != -1;
}

void close_fds()
{
    DIR* dir = opendir("/proc/self/fd");
    if (!dir)
        return;
    int own = dirfd(dir);
    while (struct dirent* entry = readdir(dir)) {
        char* end = nullptr;
        long fd = strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0')
            continue;
        if (fd > 3 && fd != own)
            close(static_cast<int>(fd));
    }
    closedir(dir);
}
