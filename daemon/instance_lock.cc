#include "daemon/instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "daemon/log.h"
#include "daemon/safe_files.h"
#include "daemon/scoped_fd.h"
#include "platform/paths.h"

namespace {

int held = -1;

}  // namespace

void write_instance_pid()
{
    const std::string pid = std::to_string(getpid()) + "\n";
    if (held < 0 || ftruncate(held, 0) != 0 || pwrite(held, pid.data(), pid.size(), 0) < 0)
        DBG("%s: pid not written: %s", PATH_INSTANCE_LOCK, strerror(errno));
}

pid_t take_instance_lock(std::string& why)
{
    const std::string path = platform_path(PATH_INSTANCE_LOCK);
    // Someone else's file (or link) at the name, e.g. in a lock directory
    // open to everyone, is removed and ours made in its place; a few times,
    // in case it keeps coming back.
    for (int attempt = 0; attempt < 5; ++attempt) {
        ScopedFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
        struct stat st;
        if (!fd.ok() || fstat(fd.get(), &st) != 0) {
            // A link, or (in a sticky directory) a file of another user.
            if (errno != ELOOP && errno != EACCES) {
                why = path + ": " + strerror(errno);
                return -2;
            }
        } else if (S_ISREG(st.st_mode) && owned_by_us(st) && !(st.st_mode & (S_IWGRP | S_IWOTH))) {
            if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
                if (errno != EWOULDBLOCK) {
                    why = path + ": " + strerror(errno);
                    return -2;
                }
                char text[32] = "";
                ssize_t got = pread(fd.get(), text, sizeof(text) - 1, 0);
                pid_t holder = got > 0 ? static_cast<pid_t>(strtol(text, nullptr, 10)) : 0;
                return holder > 0 ? holder : -1;
            }
            held = fd.release();  // until we exit
            write_instance_pid();
            return 0;
        }
        DBG("%s is not a lock file of ours; replaced.", path.c_str());
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            why = path + " is not ours and cannot be removed: " + strerror(errno);
            return -2;
        }
    }
    why = path + " keeps being replaced by someone else";
    return -2;
}
