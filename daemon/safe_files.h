// Opening files in directories that other users can reach (the mail spool
// and the mail log under /tmp) without following a link, or writing into a
// file, that someone else planted there.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>

#include "daemon/scoped_fd.h"

// Belongs to root or to the user the daemon runs as (the same on the
// appliance; an unprivileged test daemon owns what it made itself).
bool owned_by_us(const struct stat& st);

// Opens the directory path, never through a symbolic link, and keeps it only
// when it is a directory that we own, or that also_owner owns when given.
// create: make it (mode, umask applies) when missing. private_dir: nobody
// but us may write into it; one of ours that others could write into is
// closed to them first. -1 with why (and errno) otherwise.
int open_trusted_dir(const std::string& path, bool create, mode_t mode, bool private_dir, std::string& why,
                     std::optional<uid_t> also_owner = std::nullopt);

// Entry name of dir is absent, or a regular file of ours with a single
// name. Anything else (a link, a directory, someone else's file, a second
// name of another file) is false with why.
bool entry_absent_or_own(int dir, const char* name, std::string& why);

// openat(dir, name) without following a link, close-on-exec, kept only when
// it is a regular file of ours with a single name; flags may add O_CREAT
// (with mode) but never O_TRUNC: truncate after the checks. -1 with why.
int open_own_file(int dir, const char* name, int flags, mode_t mode, std::string& why);

// Opens name of dir for reading without following a link or blocking on a
// FIFO, kept only when it is a regular file with a single name; its owner
// is not checked. -1 with errno ENOENT when it is missing (why empty), or
// with why for anything else.
int open_regular_file(int dir, const char* name, std::string& why);


// Whether entry name of dir is still the file open on fd.
bool entry_is_file(int dir, const char* name, int fd);
