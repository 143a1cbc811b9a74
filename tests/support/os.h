// The operating-system side of a test: the build's whereabouts, scoped
// environment, whole files, temporary directories, descriptor counts,
// waiting, running programs, acting as another user, death-test patterns
// and the captured debug log.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

// The source checkout and the build tree (bin/, lib/, sim/).
const std::string& source_dir();
const std::string& binary_dir();

// The framework reports misuse with one exact stderr line and abort(); these
// turn such a line into a pattern a death test can match.
std::string literal_regex(const std::string& text);
std::string format_text(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// An environment variable set (value) or unset (null) for a scope.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

// The test process's open descriptors, to prove that nothing leaks and that
// children inherit nothing they should not.
std::vector<int> open_fds();
int count_open_fds();
// Those a child would inherit (no FD_CLOEXEC).
std::vector<int> inheritable_fds();
int count_open_fds_of(pid_t pid);
// "  fd -> target" a line, for messages that name what leaked.
std::string describe_open_fds();

// The whole content, or "" when the file cannot be read.
std::string read_text_file(const std::string& path);
bool write_text_file(const std::string& path, const std::string& content, mode_t mode = 0644);
bool file_exists(const std::string& path);

// Waiting for asynchronous effects: a service closes descriptors on its own
// threads a moment after the client has its answer.
bool eventually(const std::function<bool()>& cond, int timeout_ms = 2000);

// Our open descriptors, or another process's, once the count stops changing
// (after five seconds as it is, for the comparison to show).
int settled_fd_count();
int settled_fd_count(pid_t pid);

// A private directory under $TMPDIR or /tmp, removed with its content at the
// end of the scope.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Running a program from a test: its output, error output and exit status.
struct ProcessResult {
    int status = -1;  // exit code, 128 + signal, or -1 when it could not run or timed out (then killed)
    std::string out;
    std::string err;
};

// argv[0] is a path; extra_env entries ("NAME=value") override the test's.
ProcessResult run_process(const std::vector<std::string>& argv, const std::string& stdin_text = "",
                          const std::vector<std::string>& extra_env = {}, int timeout_ms = 30000);

// Waits up to timeout_ms for a child of ours: its status as above.
int wait_process(pid_t pid, int timeout_ms);

// Acting as another, unprivileged user: a forked child that drops to that
// user (no groups, no way back) before it does anything. Fork only while the
// test runs a single thread. The spare account is "nobody" on most systems.
inline constexpr uid_t kSpareUid = 65534;
inline constexpr gid_t kSpareGid = 65534;

bool can_switch_user();

// The text body returned in the child; nothing when the child could not
// drop, died, or took longer than timeout_ms (it is killed then).
std::optional<std::string> run_as(uid_t uid, gid_t gid, const std::function<std::string()>& body,
                                  int timeout_ms = 30000);

// The child's exit code is what body returns (111 when it could not drop).
pid_t start_as(uid_t uid, gid_t gid, const std::function<int()>& body);
// Its exit code, or -1 when it died by a signal or was killed at the deadline.
int wait_child(pid_t pid, int timeout_ms);

// Lets everyone search (not list) directory path, so another user can reach
// a socket or file inside it that is open to them.
bool allow_search(const std::string& path);

// The daemon's debug log pointed at a private directory for one test (and
// unset again after it), its messages read back without "[pid] [time] ".
class DebugLogCapture {
public:
    DebugLogCapture();
    ~DebugLogCapture();
    DebugLogCapture(const DebugLogCapture&) = delete;
    DebugLogCapture& operator=(const DebugLogCapture&) = delete;

    std::vector<std::string> messages() const;

private:
    TempDir dir_;
    std::string file_;
};
