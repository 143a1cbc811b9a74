// The daemon's debug log: one line per call appended to
// <dir>/.dwe_dv_vexprod.log, moved aside to ".bak" once it reaches 512 KiB.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

// Set once at start-up, before other threads log.
extern char cLogDirPath[256];
extern char cLogFilePath[512];

inline constexpr const char LOG_FILE_NAME[] = ".dwe_dv_vexprod.log";
inline constexpr off_t LOG_ROTATE_SIZE = 0x80000;

// Creates dir (0775) when missing and logs into it from now on. Always 0.
int log_set_dir(const char* dir);

// One line "[pid] [time] message" into cLogFilePath; safe from any thread.
void dbg_printf2(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The same line into an explicit file. The result of closing it, or 0 when it
// could not be opened.
int dbg_printf(const char* path, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Text that came from a request, for a log line or syslog: cut to max
// characters (with "..." when cut), control characters and NUL bytes
// escaped. Every debug-log line escapes control characters itself as well.
inline constexpr size_t LOG_TEXT_MAX = 128;
std::string log_text(std::string_view text, size_t max = LOG_TEXT_MAX);

// Moves path to path.bak (replacing an older one) once it reaches
// LOG_ROTATE_SIZE bytes.
void log_file_rotation(const char* path);

// The current call stack, one frame per line, then the program's name.
void vexprod_debug_backtrace_dump();

// Every diagnostic starts with the calling function's name and line.
#define DBG(fmt, ...) dbg_printf2("[%s][%d] " fmt, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
