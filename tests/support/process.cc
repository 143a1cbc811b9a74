#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace {

long long now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

ProcessResult run_process(const std::vector<std::string>& argv, const std::string& stdin_text,
                          const std::vector<std::string>& extra_env, int timeout_ms)
{
    ProcessResult result;
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        return result;

    std::vector<std::string> env_strings;
    for (char** e = environ; *e; e++)
        env_strings.push_back(*e);
    for (const std::string& add : extra_env) {
        std::string name = add.substr(0, add.find('='));
        for (auto it = env_strings.begin(); it != env_strings.end();)
            it = it->compare(0, name.size() + 1, name + "=") == 0 ? env_strings.erase(it) : it + 1;
        env_strings.push_back(add);
    }
    std::vector<char*> envp, args;
    for (std::string& s : env_strings)
        envp.push_back(s.data());
    envp.push_back(nullptr);
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    pid_t pid;
    int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (rc != 0) {
        close(in[1]);
        close(out[0]);
        close(err[0]);
        return result;
    }

    signal(SIGPIPE, SIG_IGN);
    size_t written = 0;
    if (stdin_text.empty()) {
        close(in[1]);
        in[1] = -1;
    }
    long long deadline = now_ms() + timeout_ms;
    bool timed_out = false;
    while (out[0] >= 0 || err[0] >= 0) {
        struct pollfd p[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {in[1], POLLOUT, 0}};
        long long left = deadline - now_ms();
        if (left <= 0) {
            timed_out = true;
            break;
        }
        if (poll(p, 3, static_cast<int>(left)) < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 2; i++) {
            if (!p[i].revents)
                continue;
            char buf[4096];
            ssize_t n = read(p[i].fd, buf, sizeof(buf));
            if (n > 0) {
                (i == 0 ? result.out : result.err).append(buf, static_cast<size_t>(n));
            } else {
                close(p[i].fd);
                (i == 0 ? out[0] : err[0]) = -1;
            }
        }
        if (in[1] >= 0 && p[2].revents) {
            ssize_t n = write(in[1], stdin_text.data() + written, stdin_text.size() - written);
            if (n > 0)
                written += static_cast<size_t>(n);
            if (n <= 0 || written == stdin_text.size()) {
                close(in[1]);
                in[1] = -1;
            }
        }
    }
    for (int fd : {in[1], out[0], err[0]})
        if (fd >= 0)
            close(fd);
    if (timed_out)
        kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (timed_out)
        result.status = -1;
    else if (WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        result.status = 128 + WTERMSIG(status);
    return result;
}
