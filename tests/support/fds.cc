// Descriptor listing through /proc/self/fd.
#include "support/fds.h"

#include <string>

#include <unistd.h>

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

int count_open_fds_of(pid_t pid)
{
    int n = 0;
    if (DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
        while (const dirent* e = readdir(dir))
            n += e->d_name[0] != '.';
        closedir(dir);
    }
    return n;
}

std::string describe_open_fds()
{
    std::string out;
    for (int fd : open_fds()) {
        char target[256] = "";
        std::string link = "/proc/self/fd/" + std::to_string(fd);
        ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
        out += "  " + std::to_string(fd) + " -> " + (n > 0 ? target : "?") + "\n";
    }
    return out;
}
