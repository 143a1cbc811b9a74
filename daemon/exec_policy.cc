// The program check of exec_cli and the ownership walk for request-chosen
// scripts. Both trust a directory only when nobody but root or us can change
// its entries: then what a path names cannot change between the check and
// the exec, and no descriptor has to be carried from one to the other.
#include "daemon/exec_policy.h"

#include <elf.h>
#include <fcntl.h>
#include <limits.h>
#include <regex.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "daemon/safe_files.h"
#include "dv.h"
#include "platform/paths.h"

namespace {

// As many symbolic links as the kernel follows in one lookup.
constexpr int MAX_LINKS = 40;
// statfs's f_type of /proc, whose links (fd/N, exe, root, cwd) lead to
// whatever another process holds open, not to the path they show.
constexpr long PROC_FS_MAGIC = 0x9fa0;

std::string errno_text(const std::string& what, int err)
{
    return what + ": " + strerror(err);
}

// Path components, without the empty ones that doubled or trailing slashes
// leave.
std::deque<std::string> components(const std::string& path)
{
    std::deque<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos)
            end = path.size();
        if (end > start)
            parts.emplace_back(path, start, end - start);
        start = end + 1;
    }
    return parts;
}

// Nobody but root or us can change what it holds or who may write it.
bool trusted_entry(const struct stat& st, const std::string& name, std::string& why)
{
    if (!owned_by_us(st)) {
        why = name + " belongs to uid " + std::to_string(st.st_uid);
        return false;
    }
    if (st.st_mode & (S_IWGRP | S_IWOTH)) {
        why = name + " is writable by group or others";
        return false;
    }
    return true;
}

std::string joined(const std::vector<std::string>& dirs)
{
    std::string path;
    for (const std::string& dir : dirs)
        path += "/" + dir;
    return path;
}

// Resolves program as execve will, one component at a time, and checks
// every directory it passes and the file it ends on. The directories holding
// each link are checked like any other, since whoever can write there can
// point the link elsewhere after we looked.
bool trusted_resolution(const std::string& program, std::string& why)
{
    if (program.empty())
        return true;  // names nothing, runs nothing
    std::string absolute = program;
    if (program[0] != '/') {
        char cwd[PATH_MAX];
        if (!getcwd(cwd, sizeof(cwd))) {
            why = errno_text("the working directory", errno);
            return false;
        }
        absolute = std::string(cwd) + "/" + program;
    }

    struct stat st;
    if (lstat("/", &st) != 0) {
        why = errno_text("/", errno);
        return false;
    }
    if (!trusted_entry(st, "/", why))
        return false;

    std::deque<std::string> todo = components(absolute);
    std::vector<std::string> dirs;  // real directories from "/", each one checked
    int links = 0;
    while (!todo.empty()) {
        const std::string name = std::move(todo.front());
        todo.pop_front();
        if (name == ".")
            continue;
        if (name == "..") {
            if (!dirs.empty())
                dirs.pop_back();
            continue;
        }
        const std::string parent = joined(dirs);
        const std::string path = parent + "/" + name;
        if (lstat(path.c_str(), &st) != 0) {
            // Nothing there (or a file where a directory should be): execve
            // fails the same way, and in a trusted directory nobody else
            // can put something there in the meantime.
            if (errno == ENOENT || errno == ENOTDIR)
                return true;
            why = errno_text(path, errno);
            return false;
        }
        if (S_ISLNK(st.st_mode)) {
            struct statfs fs;
            if (statfs(parent.empty() ? "/" : parent.c_str(), &fs) != 0 || fs.f_type == PROC_FS_MAGIC) {
                why = path + " is a link of /proc";
                return false;
            }
            if (++links > MAX_LINKS) {
                why = path + ": too many levels of symbolic links";
                return false;
            }
            std::string target(PATH_MAX, '\0');
            ssize_t n = readlink(path.c_str(), target.data(), target.size());
            if (n < 0 || static_cast<size_t>(n) >= target.size()) {
                why = errno_text(path, n < 0 ? errno : ENAMETOOLONG);
                return false;
            }
            target.resize(static_cast<size_t>(n));
            std::deque<std::string> parts = components(target);
            todo.insert(todo.begin(), parts.begin(), parts.end());
            if (!target.empty() && target[0] == '/')
                dirs.clear();
            continue;
        }
        if (!trusted_entry(st, path, why))
            return false;
        if (!S_ISDIR(st.st_mode))
            return true;  // the program, or a file execve cannot pass through
        dirs.push_back(name);
    }
    return true;  // ends on a directory, which execve refuses
}

// Beyond the framework's list of shells and interpreters: more of them, and
// programs whose job is to start another program of the caller's choosing.
constexpr const char LAUNCHER_LIST[] =
    "(^|/)(dash|env|perl.*|[gmn]?awk|find|xargs|ld-linux.*|ld[-.]so.*|ld-[^/]*\\.so.*|ruby.*|irb.*|lua.*|"
    "tclsh.*|wish.*|node|nodejs|expect|gdb|strace|ltrace|nice|nohup|timeout|stdbuf|setsid|chroot|unshare|"
    "nsenter|su|sudo|runuser|script|sed|vi|vim.*|ex|ed|less|more|man|make|tar|rsync|ssh|git|socat|flock|"
    "watch|taskset|ionice|chrt|run-parts|start-stop-daemon|systemd-run|sg|newgrp|setpriv|capsh|busybox.*)$";

bool launcher(const char* path)
{
    static regex_t re;
    static const bool ready = regcomp(&re, LAUNCHER_LIST, REG_EXTENDED | REG_NOSUB) == 0;
    return dv_blocked_program(path) || (ready && regexec(&re, path, 0, nullptr, 0) == 0);
}

// What the file is, as execve will see it: a script with an interpreter
// line, or an ELF object without an interpreter of its own that is no
// static program (the program loader itself, a shared library), which run
// whatever program or code their arguments name.
template <class Ehdr, class Phdr>
bool loader_like(int fd, const Ehdr& eh)
{
    if (eh.e_type != ET_DYN)
        return false;
    for (unsigned i = 0; i < eh.e_phnum; ++i) {
        Phdr ph;
        const off_t at = static_cast<off_t>(eh.e_phoff + static_cast<uint64_t>(i) * eh.e_phentsize);
        if (eh.e_phentsize != sizeof(ph) || pread(fd, &ph, sizeof(ph), at) != static_cast<ssize_t>(sizeof(ph)))
            return true;
        if (ph.p_type == PT_INTERP)
            return false;
    }
    return true;
}

bool runs_other_code(const char* path, std::string& why)
{
    ScopedFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    union {
        unsigned char bytes[EI_NIDENT];
        Elf64_Ehdr e64;
        Elf32_Ehdr e32;
    } head = {};
    if (!fd.ok() || pread(fd.get(), &head, sizeof(head), 0) < 2)
        return false;
    if (head.bytes[0] == '#' && head.bytes[1] == '!') {
        why = "a script with an interpreter line";
        return true;
    }
    if (memcmp(head.bytes, ELFMAG, SELFMAG) != 0)
        return false;
    const bool loader = head.bytes[EI_CLASS] == ELFCLASS64 ? loader_like<Elf64_Ehdr, Elf64_Phdr>(fd.get(), head.e64)
                                                           : loader_like<Elf32_Ehdr, Elf32_Phdr>(fd.get(), head.e32);
    if (loader)
        why = "the program loader or a shared library";
    return loader;
}

}  // namespace

bool exec_program_allowed(const std::string& program, std::string& why)
{
    if (launcher(program.c_str())) {
        why = "a shell, an interpreter or a launcher of other programs";
        return false;
    }
    char resolved[PATH_MAX];
    const bool exists = realpath(program.c_str(), resolved) != nullptr;
    if (exists && launcher(resolved)) {
        why = std::string("leads to ") + resolved + ", a shell, an interpreter or a launcher of other programs";
        return false;
    }
    if (!trusted_resolution(program, why))
        return false;
    // Read only once nobody but root can change what the path leads to.
    return !(exists && runs_other_code(resolved, why));
}

bool trusted_script(const std::string& path, std::string& why)
{
    const std::string root = platform_path("");
    const std::string top = root.empty() ? "/" : root;
    ScopedFd dir(open(top.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!dir.ok()) {
        why = errno_text(top, errno);
        return false;
    }
    struct stat st;
    if (fstat(dir.get(), &st) != 0) {
        why = errno_text(top, errno);
        return false;
    }
    if (!trusted_entry(st, top, why))
        return false;

    const std::deque<std::string> parts = components(path);
    if (parts.empty()) {
        why = "no file named";
        return false;
    }
    std::string shown = root;
    for (size_t i = 0; i < parts.size(); ++i) {
        const std::string& name = parts[i];
        shown += "/" + name;
        if (name == "..") {
            why = shown + " climbs out with ..";
            return false;
        }
        ScopedFd next(openat(dir.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!next.ok() || fstat(next.get(), &st) != 0) {
            why = errno_text(shown, errno);
            return false;
        }
        const bool last = i + 1 == parts.size();
        if (S_ISLNK(st.st_mode)) {
            why = shown + " is a symbolic link";
            return false;
        }
        if (!last && !S_ISDIR(st.st_mode)) {
            why = shown + " is not a directory";
            return false;
        }
        if (last && !S_ISREG(st.st_mode)) {
            why = shown + " is not a regular file";
            return false;
        }
        if (!trusted_entry(st, shown, why))
            return false;
        dir.reset(next.release());
    }
    return true;
}
