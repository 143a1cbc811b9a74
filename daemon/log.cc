// The debug log. Each line is formatted whole and written with one write to
// a file opened for appending, so lines of concurrent threads never mix. The
// log of log_set_dir stays open (every request adds its audit line to it);
// it is opened again when it was moved aside, removed, or the process is a
// fork of the one that opened it.
#include "daemon/log.h"

#include "daemon/runner.h"

#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

char cLogDirPath[256];
char cLogFilePath[512];

namespace {

// The message and the whole line, each with its terminator.
constexpr size_t kMessageSize = 2047;
constexpr size_t kLineSize = 2048;
// ctime's "Www Mmm dd hh:mm:ss " without the year; the blank stays.
constexpr size_t kTimeFieldLen = 20;

// Control characters become visible escapes, so that text from a request
// can never start a line of its own. A trailing newline of a format may be
// kept as it is: it only adds an empty line.
std::string escaped(std::string_view message, bool keep_final_newline)
{
    std::string out;
    for (size_t i = 0; i < message.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(message[i]);
        if (c == '\n' && keep_final_newline && i + 1 == message.size()) {
            out += '\n';
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if ((c < 0x20 && c != '\t') || c == 0x7f) {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string format_line(const char* raw, pid_t pid)
{
    const std::string message = escaped(raw, true);
    time_t now = time(nullptr);
    char when[32] = "";
    if (ctime_r(&now, when))
        when[kTimeFieldLen] = '\0';
    char line[kLineSize];
    snprintf(line, sizeof(line), "[%05d] [%s] %s\n", static_cast<int>(pid), when, message.c_str());
    return line;
}

// One line appended to the file named path, opened for it alone.
int append_by_name(const char* path, const std::string& line)
{
    FILE* file = fopen(path, "a+e");
    if (!file)
        return 0;
    fputs(line.c_str(), file);
    return fclose(file);
}

// The kept log: its descriptor number stays the same while the process
// lives (a new file is put in its place with dup3), so a thread writing
// while another swaps the file writes a whole line to one of the two.
// Generation and pid say which directory and which process it was opened
// for; only one thread at a time opens or rotates it.
struct KeptLog {
    std::atomic<int> fd{-1};
    std::atomic<pid_t> pid{0};
    std::atomic<unsigned> generation{0};
};
KeptLog kept;
std::atomic<unsigned> dir_generation{1};
pthread_mutex_t kept_lock = PTHREAD_MUTEX_INITIALIZER;

// Above the standard streams, which the dispatcher points elsewhere.
int open_log(const char* path)
{
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0 && fd < 3) {
        int high = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        close(fd);
        fd = high;
    }
    return fd;
}

// Puts a freshly opened path in place of the kept file (or opens it for the
// first time). -1 when it cannot be opened.
int reopen_kept(const char* path, pid_t me)
{
    const unsigned generation = dir_generation.load(std::memory_order_acquire);
    int fd = kept.fd.load(std::memory_order_acquire);
    const bool ours = fd >= 0 && kept.pid.load(std::memory_order_acquire) == me;
    log_file_rotation(path);
    int fresh = open_log(path);
    if (fresh < 0)
        return -1;
    if (!ours) {
        // A fork's copy of the number may be something else by now (a forked
        // worker closes what it inherits): leave it alone, take a new one.
        fd = fresh;
    } else if (fresh != fd) {
        if (dup3(fresh, fd, O_CLOEXEC) < 0)
            fd = -1;
        close(fresh);
        if (fd < 0)
            return -1;
    }
    kept.pid.store(me, std::memory_order_release);
    kept.generation.store(generation, std::memory_order_release);
    kept.fd.store(fd, std::memory_order_release);
    return fd;
}

// The kept descriptor for path, fit for the next line; -1 when another
// thread is opening or rotating it right now, or it cannot be opened.
int kept_fd(const char* path, pid_t me)
{
    int fd = kept.fd.load(std::memory_order_acquire);
    bool current = fd >= 0 && kept.pid.load(std::memory_order_acquire) == me &&
                   kept.generation.load(std::memory_order_acquire) == dir_generation.load(std::memory_order_acquire);
    if (current) {
        // Full, or moved aside or removed by someone else: opened again.
        struct stat st;
        if (fstat(fd, &st) == 0 && st.st_nlink > 0 && st.st_size < LOG_ROTATE_SIZE)
            return fd;
    }
    // Never wait here: a fork may have copied the lock held.
    if (pthread_mutex_trylock(&kept_lock) != 0)
        return -1;
    fd = reopen_kept(path, me);
    pthread_mutex_unlock(&kept_lock);
    return fd;
}

int write_line(const char* path, const char* raw)
{
    const std::string line = format_line(raw, getpid());
    log_file_rotation(path);
    return append_by_name(path, line);
}

}  // namespace

int log_set_dir(const char* dir)
{
    if (!dir)
        return 0;
    struct stat st;
    if (stat(dir, &st) != 0) {
        int ret = mkdir(dir, 0775);
        if (ret != 0)
            printf("Error mkdir [%s] failed ret=%d\n", dir, ret);
    }
    snprintf(cLogDirPath, sizeof(cLogDirPath), "%s", dir);
    snprintf(cLogFilePath, sizeof(cLogFilePath), "%s/%s", dir, LOG_FILE_NAME);
    // Nobody logs yet (see log.h): the file of an earlier directory can go.
    dir_generation.fetch_add(1, std::memory_order_acq_rel);
    int old = kept.fd.exchange(-1, std::memory_order_acq_rel);
    if (old >= 0 && kept.pid.load(std::memory_order_acquire) == getpid())
        close(old);

    // The first backtrace() loads libgcc; do it now rather than inside a
    // crash handler.
    void* frame;
    backtrace(&frame, 1);
    return 0;
}

void dbg_printf2(const char* format, ...)
{
    if (cLogFilePath[0] == '\0') {
        fputs("Log file path not set. Please call log_set_dir() first.\n", stderr);
        return;
    }
    char message[kMessageSize];
    va_list ap;
    va_start(ap, format);
    vsnprintf(message, sizeof(message), format, ap);
    va_end(ap);
    const pid_t me = getpid();
    const std::string line = format_line(message, me);
    int fd = kept_fd(cLogFilePath, me);
    if (fd < 0 || write(fd, line.data(), line.size()) < 0)
        append_by_name(cLogFilePath, line);
}

int dbg_printf(const char* path, const char* format, ...)
{
    char message[kMessageSize];
    va_list ap;
    va_start(ap, format);
    vsnprintf(message, sizeof(message), format, ap);
    va_end(ap);
    return path ? write_line(path, message) : 0;
}

std::string log_text(std::string_view text, size_t max)
{
    std::string out = escaped(text.substr(0, max), false);
    if (text.size() > max)
        out += "...";
    return out;
}

void log_file_rotation(const char* path)
{
    struct stat st;
    if (!path || stat(path, &st) != 0 || st.st_size < LOG_ROTATE_SIZE)
        return;
    // Never move the log onto a cut-off name: that would clobber some other file.
    char bak[PATH_MAX];
    int len = snprintf(bak, sizeof(bak), "%s.bak", path);
    if (len < 0 || static_cast<size_t>(len) >= sizeof(bak))
        return;
    dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, "/bin/mv", path, bak, nullptr);
}

void vexprod_debug_backtrace_dump()
{
    void* frames[100];
    int count = backtrace(frames, 100);
    char** symbols = backtrace_symbols(frames, count);
    for (int i = 0; symbols && i < count; ++i)
        dbg_printf2("[%s][%d] %s", __func__, __LINE__, symbols[i]);
    dbg_printf2("[%s][%d]==========================", __func__, __LINE__);
    free(symbols);
    dbg_printf2("[%s][%d]%s", __func__, __LINE__, program_invocation_name);
}
