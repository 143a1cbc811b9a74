// The one way a handler runs a platform program: its path as on the
// appliance and its arguments. argv[0] is the program's base name, the
// platform root goes in front of the path here, the vector is logged here
// (when the handler's log has always shown it), and the result is the raw
// wait status: 0 when the program ran and exited 0. The runner family
// (daemon/runner.h) is the layer below; handlers never call it themselves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// How the vector is logged under the handler's name: not at all, one
// "argv[%d] = [%s]" line per element, or, as the reverse proxy always has,
// lines ending in a blank and one more for the terminating null slot.
enum class ArgvLog { none, elements, elements_and_end };

// Output and error to /dev/null.
int run_program(std::string_view program, const std::vector<std::string>& args, ArgvLog log = ArgvLog::none,
                const char* handler = __builtin_FUNCTION(), int line = __builtin_LINE());

// Standard output captured into output (a file in $TMPDIR that has no name
// by the time the program starts), error to /dev/null. -1 with nothing run
// when no capture can be made.
int run_program(std::string_view program, const std::vector<std::string>& args, std::string& output,
                ArgvLog log = ArgvLog::none, const char* handler = __builtin_FUNCTION(), int line = __builtin_LINE());

// Standard input read from in_fd, standard output and error written to
// out_fd, which is emptied first; both from their start. Neither is reopened
// by a name, so the program gets exactly the files the caller checked.
int run_program_through(std::string_view program, const std::vector<std::string>& args, int in_fd, int out_fd);

// The argument vector of program as it is run: its base name, then args.
std::vector<std::string> tool_argv(std::string_view program, const std::vector<std::string>& args);

// The layer below run_program's captured form, which exec_cli uses too:
// the program's standard output goes into a capture of ours, a descriptor
// whose file has no name that anybody could open, swap or leave behind.
struct CapturedRun {
    int exec_status = -1;  // the runner's result: the raw wait status, or -1
    std::string output;    // what the program wrote on standard output
};

// Where the captured output is kept: a file in $TMPDIR (or /tmp) that has no
// name by the time the program starts, so that a caller is told of a
// failure when none can be made there, as the tool handlers always have; or
// a memory file, nothing on disk at all.
enum class CaptureIn { tmpdir, memory };

// Runs path with argv (argv[0] as the caller wants it), standard output into
// a fresh capture, standard error to /dev/null; reads at most max_output
// bytes of it back. own_group: the child leads a process group of its own,
// killed whole when the daemon stops. False when no capture could be made;
// nothing ran then.
bool run_captured(const char* path, const char* const argv[], CapturedRun& run, size_t max_output = SIZE_MAX,
                  bool own_group = false, CaptureIn where = CaptureIn::tmpdir);
