#include "support/suite.h"

#include "daemon/log.h"

const std::string& source_dir()
{
    static const std::string dir = VEXPROD_SOURCE_DIR;
    return dir;
}

const std::string& binary_dir()
{
    static const std::string dir = VEXPROD_BINARY_DIR;
    return dir;
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name)
{
    if (const char* old = getenv(name))
        old_ = old;
    value ? setenv(name, value, 1) : unsetenv(name);
}

std::string read_text_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool write_text_file(const std::string& path, const std::string& content, mode_t mode)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0)
        return false;
    bool ok = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    fchmod(fd, mode);  // the mode applies to a file that was there already too
    return close(fd) == 0 && ok;
}

bool file_exists(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

namespace {

// Those of "self" (less the one reading them) or of a pid.
std::vector<int> fds_of(const std::string& who)
{
    std::vector<int> fds;
    DIR* dir = opendir(("/proc/" + who + "/fd").c_str());
    while (const dirent* e = dir ? readdir(dir) : nullptr)
        if (e->d_name[0] != '.' && !(who == "self" && atoi(e->d_name) == dirfd(dir)))
            fds.push_back(atoi(e->d_name));
    if (dir)
        closedir(dir);
    return fds;
}

int settled(const std::function<int()>& count, int wanted_same, int pause_ms)
{
    int last = count();
    for (int same = 0, rounds = 0; same < wanted_same && rounds < 500; ++rounds) {
        std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
        int now = count();
        same = now == last ? same + 1 : 0;
        last = now;
    }
    return last;
}

}  // namespace

std::vector<int> open_fds()
{
    return fds_of("self");
}

std::vector<int> inheritable_fds()
{
    std::vector<int> fds;
    for (int fd : open_fds())
        if (int flags = fcntl(fd, F_GETFD); flags >= 0 && !(flags & FD_CLOEXEC))
            fds.push_back(fd);
    return fds;
}

std::string describe_open_fds()
{
    std::string out;
    std::error_code ec;
    for (int fd : open_fds())
        out += "  " + std::to_string(fd) + " -> " +
               std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), ec).string() + "\n";
    return out;
}

bool eventually(const std::function<bool()>& cond, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

int settled_fd_count()
{
    return settled(count_open_fds, 5, 5);
}

int settled_fd_count(pid_t pid)
{
    return settled([pid] { return static_cast<int>(fds_of(std::to_string(pid)).size()); }, 10, 10);
}

TempDir::TempDir()
{
    const char* base = getenv("TMPDIR");
    path_ = std::string(base && *base ? base : "/tmp") + "/vexprod-test.XXXXXX";
    if (!mkdtemp(path_.data()))
        throw std::runtime_error("cannot make " + path_);
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string literal_regex(const std::string& text)
{
    std::string out;
    for (char c : text)
        out += strchr("\\^$.|?*+()[]{}", c) ? std::string("\\") + c : std::string(1, c);
    return out;
}

std::string format_text(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    char* buf = nullptr;
    int n = vasprintf(&buf, fmt, ap);
    va_end(ap);
    std::string out = n >= 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    free(buf);
    return out;
}

DebugLogCapture::DebugLogCapture()
{
    log_set_dir(dir_.file("log").c_str());
    file_ = cLogFilePath;
}

DebugLogCapture::~DebugLogCapture()
{
    cLogDirPath[0] = cLogFilePath[0] = '\0';
}

std::vector<std::string> DebugLogCapture::messages() const
{
    // A line is "[%05d] [time] message"; a message may hold newlines of its
    // own, which then continue it on the following lines.
    std::vector<std::string> out;
    std::istringstream in(read_text_file(file_));
    for (std::string line; std::getline(in, line);) {
        const size_t stamp = line.rfind('[', 0) == 0 ? line.find("] [") : std::string::npos;
        const size_t from = stamp == std::string::npos ? stamp : line.find("] ", stamp + 3);
        if (from != std::string::npos)
            out.push_back(line.substr(from + 2));
        else if (!out.empty())
            out.back() += "\n" + line;
    }
    return out;
}

extern char** environ;

int wait_child(pid_t pid, int timeout_ms)
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

pid_t spawn_process(const std::vector<std::string>& argv, const std::vector<std::string>& extra_env, int in, int out,
                    int err)
{
    std::vector<std::string> env(extra_env);
    for (char** e = environ; *e; e++)
        if (std::none_of(extra_env.begin(), extra_env.end(), [&](const std::string& add) {
                return std::string_view(*e).starts_with(add.substr(0, add.find('=') + 1));
            }))
            env.push_back(*e);
    auto pointers = [](const std::vector<std::string>& v) {
        std::vector<char*> p;
        for (const std::string& s : v)
            p.push_back(const_cast<char*>(s.c_str()));
        p.push_back(nullptr);
        return p;
    };
    std::vector<char*> envp = pointers(env), args = pointers(argv);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, 0);
    posix_spawn_file_actions_adddup2(&actions, out, 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    pid_t pid = -1;
    if (in < 0 || out < 0 || err < 0 || posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
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
    if (pid_t pid = spawn_process(argv, extra_env, in, out, err); pid > 0) {
        result.status = wait_child(pid, timeout_ms);
        result.out = read_fd_text(out);
        result.err = read_fd_text(err);
    }
    for (int fd : {in, out, err})
        if (fd >= 0)
            close(fd);
    return result;
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

std::optional<std::string> run_as(uid_t uid, gid_t gid, const std::function<std::string()>& body, int timeout_ms)
{
    const int out = memfd_create("run_as", MFD_CLOEXEC);
    const pid_t pid = out < 0 ? -1 : start_as(uid, gid, [&] {
        std::string text = body();
        return write(out, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 113;
    });
    std::optional<std::string> text;
    if (pid > 0 && wait_child(pid, timeout_ms) == 0)
        text = read_fd_text(out);
    if (out >= 0)
        close(out);
    return text;
}

bool allow_search(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && chmod(path.c_str(), (st.st_mode & 07777) | S_IXGRP | S_IXOTH) == 0;
}
