#include "support/other_user.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/process.h"

bool can_switch_user()
{
    return geteuid() == 0;
}

pid_t start_as(uid_t uid, gid_t gid, const std::function<int()>& body)
{
    pid_t pid = fork();
    if (pid == 0) {
        bool dropped = setgroups(0, nullptr) == 0 && setgid(gid) == 0 && setuid(uid) == 0 && getuid() == uid &&
                       geteuid() == uid && setuid(0) != 0;
        // _exit: none of the test program's exit handlers run in the child.
        _exit(dropped ? body() : 111);
    }
    return pid;
}

int wait_child(pid_t pid, int timeout_ms)
{
    int status = wait_process(pid, timeout_ms);
    return status >= 128 ? -1 : status;
}

std::optional<std::string> run_as(uid_t uid, gid_t gid, const std::function<std::string()>& body, int timeout_ms)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return std::nullopt;
    pid_t pid = start_as(uid, gid, [&] {
        std::string text = body();
        return write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 113;
    });
    close(ends[1]);
    std::string text;
    char buf[4096];
    struct pollfd p = {ends[0], POLLIN, 0};
    for (ssize_t got; pid > 0 && poll(&p, 1, timeout_ms) == 1 && (got = read(ends[0], buf, sizeof(buf))) > 0;)
        text.append(buf, static_cast<size_t>(got));
    close(ends[0]);
    if (pid <= 0 || wait_child(pid, timeout_ms) != 0)
        return std::nullopt;
    return text;
}

bool allow_search(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && chmod(path.c_str(), (st.st_mode & 07777) | S_IXGRP | S_IXOTH) == 0;
}
