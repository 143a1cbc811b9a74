// Running a program with its standard output captured in a private file that
// is read back whole: the tail that exec_cli and the handlers that return a
// tool's output share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct CapturedRun {
    int exec_status = -1;   // dwe_vexprod_tarsk_exec_v's result: the raw wait status, or -1
    std::string output;     // what the program wrote on standard output
    int remove_status = -1; // remove()'s result for the temporary file: 0 when it is gone
    std::string file;       // the temporary file's name (gone unless remove_status says otherwise)
};

// Runs path with argv (argv[0] as the caller wants it) through
// dwe_vexprod_tarsk_exec_v, standard output into a fresh file of our own
// (mkostemp in $TMPDIR or /tmp; never a guessable name), standard error to
// /dev/null. Reads at most max_output bytes of it back and removes it.
// own_group: started with dwe_vexprod_tarsk_exec_v_group instead, killed
// with its process group when the daemon stops.
// False when no temporary file could be made; nothing ran then.
bool run_captured(const char* path, const char* const argv[], CapturedRun& run, size_t max_output = SIZE_MAX,
                  bool own_group = false);

// The same with standard output into a memory file: nothing on disk to make,
// name or remove, nobody else can open it (remove_status 0, no file name).
// The tool handlers keep the file in $TMPDIR: their callers are told of a
// failure when none can be made there. False when no memory file could be
// made; nothing ran then.
bool run_captured_in_memory(const char* path, const char* const argv[], CapturedRun& run,
                            size_t max_output = SIZE_MAX, bool own_group = false);
