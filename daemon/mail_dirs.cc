#include "daemon/mail_dirs.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "daemon/log.h"
#include "daemon/safe_files.h"
#include "daemon/scoped_fd.h"
#include "platform/paths.h"

namespace {

// Opening failed because of what stands at the name (a directory of
// another user, a link, a file), which moving it aside cures.
bool squatted(int err)
{
    return err == EPERM || err == ELOOP || err == ENOTDIR;
}

// Renames whatever stands at path to a name beside it that nothing holds
// yet, so that whoever made it keeps their files and we get the name back.
bool move_aside(const std::string& path, const char* shown)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return errno == ENOENT;
    // A name nobody can guess, so that nobody can take all of them first.
    for (unsigned n = 0; n < 8; ++n) {
        uint64_t token = 0;
        if (getrandom(&token, sizeof(token), 0) != sizeof(token))
            token = (static_cast<uint64_t>(time(nullptr)) << 20) ^ static_cast<uint64_t>(getpid()) ^ n;
        char suffix[32];
        snprintf(suffix, sizeof(suffix), ".moved.%016llx", static_cast<unsigned long long>(token));
        const std::string aside = path + suffix;
        if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) {
            DBG("%s (uid %u, mode %o) was not ours; moved aside to %s%s.", shown, static_cast<unsigned>(st.st_uid),
                static_cast<unsigned>(st.st_mode), shown, aside.substr(path.size()).c_str());
            return true;
        }
        if (errno != EEXIST)
            break;
    }
    DBG("%s is not ours and cannot be moved aside: %s.", shown, strerror(errno));
    return false;
}

// The spool is everybody's drop box: a directory nobody else may write
// into, or one whose sticky bit keeps each file to its owner, so that no
// other user can swap the app's file for one of theirs once it is checked.
bool keep_entries_to_owners(int dir, const char* shown, std::string& why)
{
    struct stat st;
    if (fstat(dir, &st) != 0) {
        why = strerror(errno);
        return false;
    }
    if (!(st.st_mode & (S_IWGRP | S_IWOTH)) || (st.st_mode & S_ISVTX))
        return true;
    if (fchmod(dir, (st.st_mode & 07777) | S_ISVTX) != 0) {
        why = std::string("others may replace its files and the sticky bit cannot be set: ") + strerror(errno);
        return false;
    }
    DBG("%s: others could replace its files; sticky bit set.", shown);
    return true;
}

}  // namespace

int open_mail_dir(const char* abs, bool spool, bool create, std::optional<uid_t> caller, std::string& why)
{
    const std::string path = platform_path(abs);
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (spool && (create || attempt > 0) && mkdir(path.c_str(), 0700) == 0 && chmod(path.c_str(), 01777) != 0) {
            why = std::string("cannot open it to everybody: ") + strerror(errno);
            return -1;
        }
        ScopedFd dir(spool ? open_trusted_dir(path, false, 0, false, why, caller)
                           : open_trusted_dir(path, true, 0755, true, why));
        if (dir.ok())
            return spool && !keep_entries_to_owners(dir.get(), abs, why) ? -1 : dir.release();
        if (!squatted(errno) || !move_aside(path, abs))
            return -1;
    }
    return -1;
}
