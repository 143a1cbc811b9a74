// The one way the daemon starts other programs: an absolute path and an
// argument vector, no shell, standard streams bound to named files or
// /dev/null, LD_LIBRARY_PATH removed from the child's environment.
//
// The exec forms wait and return the raw wait status (an exit code of 1 is
// 256; a program that cannot be executed gives exit code 127), or -1 when a
// named file cannot be opened. A process that cannot be created at all gives
// 0, so it looks like success to the caller, as it always has.
//
// The popen forms return a stream to or from the child that must be closed
// with dwe_vexprod_tarsk_pclose. Every descriptor opened here is close-on-exec:
// a child holds nothing of the daemon but its standard streams.
#pragma once

#include <cstdio>

// stdin_file:  null keeps the daemon's own standard input.
// stdout_file: truncated or created with mode 0774; null is /dev/null.
// stderr_file: as stdout_file; the same path (string compare) shares its file.
// log_file:    a trace of the call is appended to it; null for none.
// The variadic forms build argv themselves: the base name of path, then the
// arguments up to the terminating null.
int dwe_vexprod_tarsk_exec(const char* stdout_file, const char* stderr_file,
                           const char* log_file, const char* path, ...)
    __attribute__((sentinel));
int dwe_vexprod_tarsk_exec_v(const char* stdout_file, const char* stderr_file,
                             const char* log_file, const char* path,
                             const char* const argv[]);
int dwe_vexprod_tarsk_exec_v2(const char* stdin_file, const char* stdout_file,
                              const char* stderr_file, const char* log_file,
                              const char* path, ...) __attribute__((sentinel));
int dwe_vexprod_tarsk_exec_v_v2(const char* stdin_file, const char* stdout_file,
                                const char* stderr_file, const char* log_file,
                                const char* path, const char* const argv[]);

// As dwe_vexprod_tarsk_exec_v with standard output into stdout_fd, which
// must be 3 or above and stays open; standard error is /dev/null, no trace.
// -1 without starting anything for a lower number. own_group: the child
// leads a process group of its own, which runner_kill_groups() kills whole
// when the daemon stops; -1 without starting anything once that has happened.
int runner_exec_into(int stdout_fd, const char* path, const char* const argv[], bool own_group);
// With standard input read from stdin_fd and standard output and error both
// written to output_fd, each shared with the child as it stands (offset and
// all); both 3 or above and left open, else -1 without starting anything.
int runner_exec_through(int stdin_fd, int output_fd, const char* path, const char* const argv[]);
// Kills (SIGKILL) every such group still running and starts no more, so that
// no program a caller started can hold the daemon's stop up.
void runner_kill_groups();

// mode is exactly "r" (read the child's standard output; its input is
// stdin_file or the daemon's) or "w" (write the child's standard input; its
// output is stdout_file or /dev/null). Anything else sets errno to EINVAL.
// Returns null when the pipe or a file cannot be set up or no process can be
// created; a program that cannot be executed still gives a stream, and
// closing it reports exit code 127.
FILE* dwe_vexprod_tarsk_popen_v2(const char* stdin_file, const char* stdout_file,
                                 const char* stderr_file, const char* mode,
                                 const char* path, ...) __attribute__((sentinel));
FILE* dwe_vexprod_tarsk_popen_v_v2(const char* stdin_file, const char* stdout_file,
                                   const char* stderr_file, const char* mode,
                                   const char* path, const char* const argv[]);

// Closes a stream of the popen forms and waits for its child: the raw wait
// status, or -1 (the stream is then left alone when it is not one of ours).
int dwe_vexprod_tarsk_pclose(FILE* stream);
