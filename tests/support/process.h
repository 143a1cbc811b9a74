// Running a program from a test: its output, error output and exit status.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

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
