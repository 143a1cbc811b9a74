// Running a program with its standard output captured through a descriptor
// of ours and read back whole: the tail that exec_cli and the handlers that
// return a tool's output share. No name of the capture is ever passed on,
// so nobody can open, swap or leave it behind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

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
