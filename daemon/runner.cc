// Starting platform programs: the exec family (run and wait) and the popen
// family (a pipe to or from the child, closed with dwe_vexprod_tarsk_pclose).
//
// Children are started with posix_spawn: everything the child needs (its
// descriptors, its environment without LD_LIBRARY_PATH) is prepared here in
// the parent, so the child runs no code of ours between clone and exec and
// can never stumble on a lock another thread held at that moment.
#include "daemon/runner.h"
#include "daemon/scoped_fd.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

extern char** environ;

namespace {

// What waitpid stores for a child that called _exit(127): the status callers
// have always seen for a program that could not be executed.
constexpr int kNotExecutedStatus = 127 << 8;

// One pipe handed out by the popen family. pid 0 marks a program that could
// not be executed: its child is already gone and its status is 127.
struct pid_list {
    pid_list* next;
    FILE* fp;
    int pid;
};

// Newest first. Only the parent walks it: children inherit none of these
// pipes because every one of them is close-on-exec.
pid_list* pidlist = nullptr;
std::mutex pidlist_mutex;

// Children that lead process groups of their own, until they are reaped;
// once the daemon stops, no more are started.
std::mutex groups_mutex;
std::vector<pid_t> groups;
bool groups_stopped = false;

const char* or_null(const char* s)
{
    return s ? s : "(null)";
}

// Keeps every descriptor we hand to a child at 3 or above. posix_spawn's
// dup2 onto 0, 1 or 2 then always makes a fresh, inheritable copy; a source
// already sitting on its target would keep its close-on-exec flag and the
// child would start without that stream.
int move_high(int fd)
{
    if (fd < 0 || fd > 2)
        return fd;
    int high = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    int saved = errno;
    close(fd);
    errno = saved;
    return high;
}

int open_high(const char* path, int flags, mode_t mode = 0)
{
    return move_high(open(path, flags | O_CLOEXEC, mode));
}

// The child's standard output or error: the named file, truncated (created
// 0774), or /dev/null.
int open_output(const char* file)
{
    if (file)
        return open_high(file, O_RDWR | O_CREAT | O_TRUNC, 0774);
    return open_high("/dev/null", O_WRONLY);
}

bool same_file_name(const char* a, const char* b)
{
    return a && b && strcmp(a, b) == 0;
}

void unlink_named(const char* file)
{
    if (file)
        unlink(file);
}

// The daemon's environment without any LD_LIBRARY_PATH entry.
bool child_environment(std::vector<char*>& env)
{
    static constexpr char kName[] = "LD_LIBRARY_PATH";
    constexpr size_t kLen = sizeof(kName) - 1;
    try {
        for (char** e = environ; e && *e; ++e) {
            if (strncmp(*e, kName, kLen) == 0 && ((*e)[kLen] == '=' || (*e)[kLen] == '\0'))
                continue;
            env.push_back(*e);
        }
        env.push_back(nullptr);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

enum class spawn_result { started, not_executed, no_process };

// Starts path with in, out and err (each >= 3, or -1 to keep the daemon's
// own) as the child's descriptors 0, 1 and 2.
spawn_result spawn(const char* path, const char* const argv[], int in, int out, int err, pid_t* pid,
                   bool own_group = false)
{
    std::vector<char*> env;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    if (!child_environment(env) || posix_spawn_file_actions_init(&actions) != 0) {
        errno = ENOMEM;
        return spawn_result::no_process;
    }
    if (posix_spawnattr_init(&attr) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        errno = ENOMEM;
        return spawn_result::no_process;
    }

    int rc = 0;
    const int sources[3] = {in, out, err};
    for (int target = 0; target < 3 && rc == 0; ++target)
        if (sources[target] >= 0)
            rc = posix_spawn_file_actions_adddup2(&actions, sources[target], target);

    // The daemon ignores SIGPIPE (and SIGUSR1, SIGUSR2) and its threads may
    // block signals; a tool must not inherit either, or a reader that stops
    // early would leave it writing into a closed pipe forever and pclose
    // would never return.
    sigset_t empty, ignored;
    sigemptyset(&empty);
    sigemptyset(&ignored);
    sigaddset(&ignored, SIGPIPE);
    sigaddset(&ignored, SIGUSR1);
    sigaddset(&ignored, SIGUSR2);
    if (rc == 0)
        rc = posix_spawnattr_setsigmask(&attr, &empty);
    if (rc == 0)
        rc = posix_spawnattr_setsigdefault(&attr, &ignored);
    if (rc == 0 && own_group)
        rc = posix_spawnattr_setpgroup(&attr, 0);
    if (rc == 0)
        rc = posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                 (own_group ? POSIX_SPAWN_SETPGROUP : 0));

    spawn_result result = spawn_result::no_process;
    if (rc == 0) {
        rc = posix_spawn(pid, path, &actions, &attr, const_cast<char* const*>(argv), env.data());
        if (rc == 0)
            result = spawn_result::started;
        else if (rc != EAGAIN && rc != ENOMEM)
            // The child ran and failed to exec; glibc has reaped it already.
            result = spawn_result::not_executed;
    }
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        errno = rc;
    return result;
}

int wait_child(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}

// A child of a group of its own: waited for without reaping it, so that its
// pid (the group's id) cannot be reused while the list still names it.
int wait_group_leader(pid_t pid)
{
    siginfo_t info;
    while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
    {
        std::lock_guard<std::mutex> lock(groups_mutex);
        groups.erase(std::remove(groups.begin(), groups.end(), pid), groups.end());
    }
    return wait_child(pid);
}

// argv for the variadic forms: the base name of path, then the arguments.
bool collect_args(const char* path, va_list ap, std::vector<const char*>& argv)
{
    try {
        const char* slash = strrchr(path, '/');
        argv.push_back(slash ? slash + 1 : path);
        while (const char* arg = va_arg(ap, const char*))
            argv.push_back(arg);
        argv.push_back(nullptr);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

// The exec forms. trace_stdin adds the "stdin_file=" line that only the
// forms taking an input file write.
int run_and_wait(bool trace_stdin, const char* stdin_file, const char* stdout_file,
                 const char* stderr_file, const char* log_file, const char* path,
                 const char* const argv[], bool own_group = false, int stdout_fd = -1, int stdin_fd = -1,
                 bool stderr_to_stdout = false)
{
    if (!path || !argv || (stdout_fd >= 0 && stdout_fd < 3) || (stdin_fd >= 0 && stdin_fd < 3))
        return -1;

    FILE* trace = log_file ? fopen(log_file, "a+e") : nullptr;
    if (trace) {
        fprintf(trace, "cmd=%s\n", path);
        if (trace_stdin)
            fprintf(trace, "stdin_file=%s\n", or_null(stdin_file));
        fprintf(trace, "stdout_file=%s\n", or_null(stdout_file));
        fprintf(trace, "stderr_file=%s\n", or_null(stderr_file));
        fflush(trace);
    }
    auto fail = [&](const char* first, const char* second) {
        if (trace)
            fclose(trace);
        unlink_named(first);
        if (second && !same_file_name(first, second))
            unlink_named(second);
        return -1;
    };

    ScopedFd out(stdout_fd < 0 ? open_output(stdout_file) : -1);
    if (stdout_fd < 0 && !out.ok()) {
        if (trace)
            fprintf(trace, "open %s failed: %d\n", stdout_file ? stdout_file : "/dev/null", out.get());
        return fail(stdout_file, nullptr);
    }

    ScopedFd err;
    if (stderr_to_stdout && stdout_fd >= 0) {
        err.reset(fcntl(stdout_fd, F_DUPFD_CLOEXEC, 3));
    } else if (same_file_name(stdout_file, stderr_file)) {
        err.reset(fcntl(out.get(), F_DUPFD_CLOEXEC, 3));
        if (trace && err.ok())
            fprintf(trace, "pipe stdout and stderr to the same file %s\n", stderr_file);
    } else {
        err.reset(open_output(stderr_file));
    }
    if (!err.ok()) {
        if (trace)
            fprintf(trace, "open %s failed: %d\n", stderr_file ? stderr_file : "/dev/null", err.get());
        return fail(stdout_file, stderr_file);
    }

    ScopedFd in;
    if (stdin_file) {
        in.reset(open_high(stdin_file, O_RDONLY));
        if (!in.ok()) {
            if (trace)
                fprintf(trace, "open %s failed\n", stdin_file);
            return fail(stdout_file, stderr_file);
        }
    }

    if (trace)
        fclose(trace);

    const int child_out = stdout_fd >= 0 ? stdout_fd : out.get();
    const int child_in = stdin_fd >= 0 ? stdin_fd : in.get();
    pid_t pid = 0;
    spawn_result started = spawn_result::no_process;
    if (own_group) {
        std::lock_guard<std::mutex> lock(groups_mutex);
        if (groups_stopped)
            return -1;
        started = spawn(path, argv, child_in, child_out, err.get(), &pid, true);
        if (started == spawn_result::started)
            groups.push_back(pid);
    } else {
        started = spawn(path, argv, child_in, child_out, err.get(), &pid);
    }
    in.reset();
    out.reset();
    err.reset();
    switch (started) {
    case spawn_result::no_process:
        return 0;
    case spawn_result::not_executed:
        return kNotExecutedStatus;
    case spawn_result::started:
        break;
    }
    return own_group ? wait_group_leader(pid) : wait_child(pid);
}

}  // namespace

int dwe_vexprod_tarsk_exec_v_v2(const char* stdin_file, const char* stdout_file,
                                const char* stderr_file, const char* log_file,
                                const char* path, const char* const argv[])
{
    return run_and_wait(true, stdin_file, stdout_file, stderr_file, log_file, path, argv);
}

int dwe_vexprod_tarsk_exec_v(const char* stdout_file, const char* stderr_file,
                             const char* log_file, const char* path, const char* const argv[])
{
    return run_and_wait(false, nullptr, stdout_file, stderr_file, log_file, path, argv);
}

int runner_exec_into(int stdout_fd, const char* path, const char* const argv[], bool own_group)
{
    return run_and_wait(false, nullptr, nullptr, nullptr, nullptr, path, argv, own_group, stdout_fd);
}

int runner_exec_through(int stdin_fd, int output_fd, const char* path, const char* const argv[])
{
    if (stdin_fd < 3)
        return -1;
    return run_and_wait(false, nullptr, nullptr, nullptr, nullptr, path, argv, false, output_fd, stdin_fd, true);
}

void runner_kill_groups()
{
    std::lock_guard<std::mutex> lock(groups_mutex);
    groups_stopped = true;
    for (pid_t leader : groups)
        kill(-leader, SIGKILL);
}

int dwe_vexprod_tarsk_exec(const char* stdout_file, const char* stderr_file,
                           const char* log_file, const char* path, ...)
{
    if (!path)
        return -1;
    std::vector<const char*> argv;
    va_list ap;
    va_start(ap, path);
    bool ok = collect_args(path, ap, argv);
    va_end(ap);
    if (!ok)
        return -1;
    return dwe_vexprod_tarsk_exec_v(stdout_file, stderr_file, log_file, path, argv.data());
}

int dwe_vexprod_tarsk_exec_v2(const char* stdin_file, const char* stdout_file,
                              const char* stderr_file, const char* log_file,
                              const char* path, ...)
{
    if (!path)
        return -1;
    std::vector<const char*> argv;
    va_list ap;
    va_start(ap, path);
    bool ok = collect_args(path, ap, argv);
    va_end(ap);
    if (!ok)
        return -1;
    return dwe_vexprod_tarsk_exec_v_v2(stdin_file, stdout_file, stderr_file, log_file, path,
                                       argv.data());
}

FILE* dwe_vexprod_tarsk_popen_v_v2(const char* stdin_file, const char* stdout_file,
                                   const char* stderr_file, const char* mode,
                                   const char* path, const char* const argv[])
{
    if (!mode || (mode[0] != 'r' && mode[0] != 'w') || mode[1] != '\0' || !path || !argv) {
        errno = EINVAL;
        return nullptr;
    }
    const bool reading = mode[0] == 'r';

    pid_list* record = new (std::nothrow) pid_list{};
    if (!record) {
        errno = ENOMEM;
        return nullptr;
    }
    auto fail = [record] {
        int saved = errno;
        delete record;
        errno = saved;
        return nullptr;
    };

    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return fail();
    ScopedFd read_end(ends[0]), write_end(ends[1]);
    read_end.reset(move_high(read_end.release()));
    write_end.reset(move_high(write_end.release()));
    if (!read_end.ok() || !write_end.ok())
        return fail();
    ScopedFd& parent_end = reading ? read_end : write_end;
    ScopedFd& child_end = reading ? write_end : read_end;

    ScopedFd in, out, err;
    if (reading) {
        if (stdin_file) {
            in.reset(open_high(stdin_file, O_RDONLY));
            if (!in.ok())
                return fail();
        }
    } else {
        out.reset(open_output(stdout_file));
        if (!out.ok())
            return fail();
    }
    if (!reading && same_file_name(stdout_file, stderr_file))
        err.reset(fcntl(out.get(), F_DUPFD_CLOEXEC, 3));
    else
        err.reset(open_output(stderr_file));
    if (!err.ok())
        return fail();

    pid_t pid = 0;
    spawn_result started = reading
        ? spawn(path, argv, in.get(), child_end.get(), err.get(), &pid)
        : spawn(path, argv, child_end.get(), out.get(), err.get(), &pid);
    if (started == spawn_result::no_process)
        return fail();
    if (started == spawn_result::not_executed)
        pid = 0;
    child_end.reset();
    in.reset();
    out.reset();
    err.reset();

    FILE* stream = fdopen(parent_end.get(), mode);
    if (!stream) {
        parent_end.reset();
        if (pid > 0)
            wait_child(pid);
        return fail();
    }
    parent_end.release();

    record->fp = stream;
    record->pid = pid;
    {
        std::lock_guard<std::mutex> lock(pidlist_mutex);
        record->next = pidlist;
        pidlist = record;
    }
    return stream;
}

FILE* dwe_vexprod_tarsk_popen_v2(const char* stdin_file, const char* stdout_file,
                                 const char* stderr_file, const char* mode,
                                 const char* path, ...)
{
    if (!path) {
        errno = EINVAL;
        return nullptr;
    }
    std::vector<const char*> argv;
    va_list ap;
    va_start(ap, path);
    bool ok = collect_args(path, ap, argv);
    va_end(ap);
    if (!ok) {
        errno = ENOMEM;
        return nullptr;
    }
    return dwe_vexprod_tarsk_popen_v_v2(stdin_file, stdout_file, stderr_file, mode, path,
                                        argv.data());
}

int dwe_vexprod_tarsk_pclose(FILE* stream)
{
    pid_list* record = nullptr;
    {
        std::lock_guard<std::mutex> lock(pidlist_mutex);
        for (pid_list** link = &pidlist; *link; link = &(*link)->next) {
            if ((*link)->fp == stream) {
                record = *link;
                *link = record->next;
                break;
            }
        }
    }
    if (!record)
        return -1;

    fclose(stream);
    int status = record->pid > 0 ? wait_child(record->pid) : kNotExecutedStatus;
    delete record;
    return status;
}
