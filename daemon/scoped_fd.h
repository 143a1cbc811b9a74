// A descriptor owned by one scope.
#pragma once

#include <unistd.h>

#include <cerrno>

// Owns one descriptor and closes it when it goes out of scope.
class ScopedFd {
public:
    explicit ScopedFd(int fd = -1) : fd_(fd) {}
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
    ~ScopedFd() { reset(); }

    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }
    // Hands the descriptor over to the caller.
    int release()
    {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    // Closes what it held (keeping errno, so a failure can still be
    // reported after the clean-up) and takes fd.
    void reset(int fd = -1)
    {
        if (fd_ >= 0) {
            int saved = errno;
            close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }

private:
    int fd_;
};
