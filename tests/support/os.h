// What a test needs of the operating system.
#pragma once

struct NoCopy {
    NoCopy() = default;
    NoCopy(const NoCopy&) = delete;
    NoCopy& operator=(const NoCopy&) = delete;
};

// The source checkout and the build tree (bin/, lib/, sim/).
const std::string& source_dir();
const std::string& binary_dir();

// The framework reports misuse with one exact stderr line and abort(); these
// turn such a line into a pattern a death test can match.
std::string literal_regex(const std::string& text);
std::string format_text(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// An environment variable set (value) or unset (null) for a scope.
class ScopedEnv : NoCopy {
public:
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv() { old_ ? setenv(name_.c_str(), old_->c_str(), 1) : unsetenv(name_.c_str()); }

private:
    std::string name_;
    std::optional<std::string> old_;
};

// The test process's open descriptors, to prove that nothing leaks and that
// children inherit nothing they should not.
std::vector<int> open_fds();
inline int count_open_fds()
{
    return static_cast<int>(open_fds().size());
}
std::vector<int> inheritable_fds();  // those without FD_CLOEXEC
std::string describe_open_fds();     // "  fd -> target" a line, to name what leaked
// Ours or another process's, once the count stops changing (after five
// seconds as it is, for the comparison to show): a service closes descriptors
// on its own threads a moment after the client has its answer.
int settled_fd_count();
int settled_fd_count(pid_t pid);
bool eventually(const std::function<bool()>& cond, int timeout_ms = 2000);

// read_text_file: the whole content, or "" when the file cannot be read.
std::string read_text_file(const std::string& path);
bool write_text_file(const std::string& path, const std::string& content, mode_t mode = 0644);
bool file_exists(const std::string& path);

// A private directory under $TMPDIR or /tmp, removed with its content.
class TempDir : NoCopy {
public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// argv[0] is a path; extra_env entries ("NAME=value") override the test's
// environment; in, out and err become the child's descriptors 0, 1 and 2.
pid_t spawn_process(const std::vector<std::string>& argv, const std::vector<std::string>& extra_env, int in, int out,
                    int err);
// A child's exit code, 128 + signal, or -1 when it took longer than
// timeout_ms (it is killed then) or cannot be waited for.
int wait_child(pid_t pid, int timeout_ms);

// A program run to its end: status as wait_child's (-1 too when it could not
// run), its output and error output.
struct ProcessResult {
    int status = -1;
    std::string out;
    std::string err;
};
ProcessResult run_process(const std::vector<std::string>& argv, const std::string& stdin_text = "",
                          const std::vector<std::string>& extra_env = {}, int timeout_ms = 30000);

// Acting as another, unprivileged user: a forked child that drops to that
// user (no groups, no way back) before it does anything. Fork only while the
// test runs a single thread. The spare account is "nobody" on most systems.
inline constexpr uid_t kSpareUid = 65534;
inline constexpr gid_t kSpareGid = 65534;
inline bool can_switch_user()
{
    return geteuid() == 0;
}
// The child's exit code is what body returns (111 when it could not drop).
pid_t start_as(uid_t uid, gid_t gid, const std::function<int()>& body);
// The text body returned in the child; nothing when the child could not
// drop, died, or took longer than timeout_ms.
std::optional<std::string> run_as(uid_t uid, gid_t gid, const std::function<std::string()>& body,
                                  int timeout_ms = 30000);
// Lets everyone search (not list) directory path, so another user can reach
// a socket or file inside it that is open to them.
bool allow_search(const std::string& path);

// The daemon's debug log pointed at a private directory for one test (and
// unset again after it), its messages read back without "[pid] [time] ".
class DebugLogCapture : NoCopy {
public:
    DebugLogCapture();
    ~DebugLogCapture();
    std::vector<std::string> messages() const;

private:
    TempDir dir_;
    std::string file_;
};
