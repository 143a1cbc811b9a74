// Forked children that drop to another user and report back through a pipe.
#include "support/other_user.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

bool can_switch_user()
{
    return geteuid() == 0;
}

namespace {

// For good: no groups of ours, no way back to root.
bool drop_to(uid_t uid, gid_t gid)
{
    if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0 || getuid() != uid || geteuid() != uid)
        return false;
    return setuid(0) != 0;
}

// The child's side of run_as: drop, run, write the text, and leave without
// running any of the test program's exit handlers.
[[noreturn]] void child(int out, uid_t uid, gid_t gid, const std::function<std::string()>& body)
{
    if (!drop_to(uid, gid))
        _exit(111);
    std::string text = body();
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(out, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            _exit(113);
        done += static_cast<size_t>(n);
    }
    _exit(0);
}

}  // namespace

std::optional<std::string> run_as(uid_t uid, gid_t gid, const std::function<std::string()>& body, int timeout_ms)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return std::nullopt;
    pid_t pid = fork();
    if (pid < 0) {
        close(ends[0]);
        close(ends[1]);
        return std::nullopt;
    }
    if (pid == 0) {
        close(ends[0]);
        child(ends[1], uid, gid, body);
    }
    close(ends[1]);

    std::string text;
    bool timed_out = false;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        struct pollfd p = {ends[0], POLLIN, 0};
        int n = poll(&p, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            timed_out = true;
            break;
        }
        char buf[4096];
        ssize_t got = read(ends[0], buf, sizeof(buf));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        text.append(buf, static_cast<size_t>(got));
    }
    close(ends[0]);
    if (timed_out)
        kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (timed_out || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return std::nullopt;
    return text;
}

pid_t start_as(uid_t uid, gid_t gid, const std::function<int()>& body)
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(drop_to(uid, gid) ? body() : 111);
    return pid;
}

int wait_child(pid_t pid, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid)
            break;
        if (r < 0 && errno != EINTR)
            return -1;
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(pid, SIGKILL);
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            return -1;
        }
        usleep(2000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool allow_search(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && chmod(path.c_str(), (st.st_mode & 07777) | S_IXGRP | S_IXOTH) == 0;
}
