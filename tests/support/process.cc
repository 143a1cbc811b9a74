#include "support/process.h"

#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/raw_client.h"

#include <cerrno>
#include <chrono>
#include <thread>

extern char** environ;

int wait_process(pid_t pid, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    int status = 0;
    for (pid_t r; (r = waitpid(pid, &status, WNOHANG)) != pid;) {
        if (r < 0 && errno != EINTR)
            return -1;
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(pid, SIGKILL);
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

ProcessResult run_process(const std::vector<std::string>& argv, const std::string& stdin_text,
                          const std::vector<std::string>& extra_env, int timeout_ms)
{
    // Files rather than pipes: nothing to pump, and a program that leaves a
    // child holding its output open does not keep the test waiting.
    ProcessResult result;
    const int in = make_request_memfd(stdin_text), out = memfd_create("out", MFD_CLOEXEC),
              err = memfd_create("err", MFD_CLOEXEC);
    if (in >= 0)
        lseek(in, 0, SEEK_SET);
    std::vector<std::string> env(extra_env);
    for (char** e = environ; *e; e++) {
        const std::string s = *e;
        bool overridden = false;
        for (const std::string& add : extra_env)
            overridden |= s.compare(0, add.find('=') + 1, add, 0, add.find('=') + 1) == 0;
        if (!overridden)
            env.push_back(s);
    }
    std::vector<char*> envp, args;
    for (std::string& s : env)
        envp.push_back(s.data());
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    envp.push_back(nullptr);
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, 0);
    posix_spawn_file_actions_adddup2(&actions, out, 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    pid_t pid;
    if (in >= 0 && out >= 0 && err >= 0 && posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data()) == 0) {
        result.status = wait_process(pid, timeout_ms);
        result.out = read_fd_text(out);
        result.err = read_fd_text(err);
    }
    posix_spawn_file_actions_destroy(&actions);
    for (int fd : {in, out, err})
        if (fd >= 0)
            close(fd);
    return result;
}
