// The debug log. Each line is formatted whole and written with one fputs to a
// file opened for appending, so lines of concurrent threads never mix; the
// file is reopened per line because the log is for rare events only.
#include "daemon/log.h"

#include "daemon/runner.h"

#include <execinfo.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
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

int write_line(const char* path, const char* raw)
{
    const std::string message = escaped(raw, true);
    log_file_rotation(path);

    time_t now = time(nullptr);
    char when[32] = "";
    if (ctime_r(&now, when))
        when[kTimeFieldLen] = '\0';

    FILE* file = fopen(path, "a+e");
    if (!file)
        return 0;
    char line[kLineSize];
    snprintf(line, sizeof(line), "[%05d] [%s] %s\n", static_cast<int>(getpid()), when, message.c_str());
    fputs(line, file);
    return fclose(file);
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
    write_line(cLogFilePath, message);
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
