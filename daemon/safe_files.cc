// Checked opening of directories and files that other users can reach: every
// check is made on what was actually opened (fstat of the descriptor), not on
// a name that could be swapped between the check and the use.
#include "daemon/safe_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "daemon/log.h"

bool owned_by_us(const struct stat& st)
{
    return st.st_uid == 0 || st.st_uid == geteuid();
}

namespace {

std::string errno_text(const char* what, int err)
{
    return std::string(what) + ": " + strerror(err);
}

// A file we may write into or hand on: a regular file of ours with one name.
// A second name would be another directory's entry for the same file, made
// by whoever could link it there.
bool is_own_file(const struct stat& st, std::string& why)
{
    if (S_ISLNK(st.st_mode))
        why = "is a symbolic link";
    else if (!S_ISREG(st.st_mode))
        why = "is not a regular file";
    else if (!owned_by_us(st))
        why = "belongs to uid " + std::to_string(st.st_uid);
    else if (st.st_nlink != 1)
        why = "has " + std::to_string(st.st_nlink) + " names";
    else
        return true;
    return false;
}

}  // namespace

int open_trusted_dir(const std::string& path, bool create, mode_t mode, bool private_dir, std::string& why,
                     std::optional<uid_t> also_owner)
{
    if (create && mkdir(path.c_str(), mode) != 0 && errno != EEXIST) {
        why = errno_text("cannot create it", errno);
        return -1;
    }
    // O_NOFOLLOW: a link in /tmp pointing at some other directory is never
    // taken for ours.
    ScopedFd dir(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir.ok()) {
        int err = errno;
        why = err == ELOOP || err == ENOTDIR ? "is a symbolic link or not a directory"
                                             : errno_text("cannot open it", err);
        errno = err;
        return -1;
    }
    struct stat st;
    if (fstat(dir.get(), &st) != 0) {
        why = errno_text("cannot stat it", errno);
        return -1;
    }
    if (!owned_by_us(st) && st.st_uid != also_owner) {
        why = "belongs to uid " + std::to_string(st.st_uid);
        errno = EPERM;
        return -1;
    }
    if (private_dir && (st.st_mode & (S_IWGRP | S_IWOTH))) {
        // It is ours, so we decide who writes into it. Whatever others put in
        // it before is still there; callers check each entry they use.
        mode_t tight = st.st_mode & 07777 & ~(S_IWGRP | S_IWOTH);
        if (fchmod(dir.get(), tight) != 0) {
            why = errno_text("others may write into it and it cannot be changed", errno);
            return -1;
        }
        DBG("%s: others could write into it; mode now %04o.", path.c_str(), static_cast<unsigned>(tight));
    }
    return dir.release();
}

bool entry_absent_or_own(int dir, const char* name, std::string& why)
{
    struct stat st;
    if (fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT)
            return true;
        why = errno_text("cannot stat it", errno);
        return false;
    }
    return is_own_file(st, why);
}

int open_own_file(int dir, const char* name, int flags, mode_t mode, std::string& why)
{
    if (flags & O_TRUNC) {
        why = "would be truncated before it is checked";
        errno = EINVAL;
        return -1;
    }
    // O_NONBLOCK: opening a FIFO for writing must fail at once rather than
    // wait for a reader; on the regular file we keep it changes nothing.
    ScopedFd file(openat(dir, name, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
    if (!file.ok()) {
        int err = errno;
        why = err == ELOOP ? "is a symbolic link" : errno_text("cannot open it", err);
        errno = err;
        return -1;
    }
    struct stat st;
    if (fstat(file.get(), &st) != 0) {
        why = errno_text("cannot stat it", errno);
        return -1;
    }
    if (!is_own_file(st, why)) {
        errno = EPERM;
        return -1;
    }
    return file.release();
}

int open_regular_file(int dir, const char* name, std::string& why)
{
    why.clear();
    ScopedFd file(openat(dir, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.ok()) {
        int err = errno;
        if (err == ELOOP)
            why = "is a symbolic link";
        else if (err != ENOENT)
            why = errno_text("cannot open it", err);
        errno = err;
        return -1;
    }
    struct stat st;
    if (fstat(file.get(), &st) != 0) {
        why = errno_text("cannot stat it", errno);
        return -1;
    }
    if (!S_ISREG(st.st_mode))
        why = "is not a regular file";
    else if (st.st_nlink != 1)
        why = "has " + std::to_string(st.st_nlink) + " names";
    else
        return file.release();
    errno = EPERM;
    return -1;
}


bool entry_is_file(int dir, const char* name, int fd)
{
    struct stat entry, file;
    return fstatat(dir, name, &entry, AT_SYMLINK_NOFOLLOW) == 0 && fstat(fd, &file) == 0 &&
           entry.st_dev == file.st_dev && entry.st_ino == file.st_ino;
}
